#include "core/pnp_signal.h"

#include <signal.h>
#include <string.h>

#include <atomic>

#include "core/environment.h"
#include "log/debug_log.h"

namespace {

std::atomic<uint32_t> g_sigusr2_count{0};
static_assert(std::atomic<uint32_t>::is_always_lock_free, "signal counter must be lock-free");
static_assert(std::atomic<uint8_t>::is_always_lock_free, "bDeviceExistCheck must be lock-free");

}  // namespace

void OnSignalUSR2(int signal_number) {
    if (signal_number != SIGUSR2) return;
    bDeviceExistCheck.store(1);
    g_sigusr2_count.fetch_add(1);
}

int InstallSigUsr2Handler() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignalUSR2;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return sigaction(SIGUSR2, &action, nullptr);
}

uint32_t LogReceivedSigUsr2() {
    const uint32_t count = g_sigusr2_count.exchange(0);
    for (uint32_t i = 0; i < count; ++i) {
        TLOG(LOG_MAIN, "Receive signal SIGUSR2. Set bDeviceExistCheck true.");
    }
    return count;
}
