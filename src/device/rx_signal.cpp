// The stop request of a receive thread and the waits that honour it. SIGUSR1 only raises
// a flag of the thread it is aimed at; the thread notices it in its next (or current)
// wait and unwinds by returning, never from inside the handler.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <time.h>

#include "device/device_object.h"
#include "device/rx_wait.h"
#include "log/debug_log.h"

namespace {

thread_local volatile sig_atomic_t tStopRequested = 0;
thread_local volatile sig_atomic_t tStopBySignal = 0;
thread_local const CDeviceObject* tRxDevice = nullptr;

int64_t MonotonicMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

void StopThreadHandler(int signal_number) {
    // Only async-signal-safe work: raise the flag of the thread the signal was aimed at.
    if (signal_number == SIGUSR1) {
        tStopBySignal = 1;
        tStopRequested = 1;
    }
}

int SetupSigUsr1Handler() {
    struct sigaction action = {};
    action.sa_handler = StopThreadHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    int ret = sigaction(SIGUSR1, &action, nullptr);
    TLOG(LOG_MAIN, "Set up SIGUSR1 handler to do thread kill. ret=%d", ret);
    return ret;
}

bool RxThreadStopRequested() {
    return tStopRequested != 0;
}

void RequestRxThreadStop() {
    tStopRequested = 1;
}

bool RxThreadStoppedBySignal() {
    return tStopBySignal != 0;
}

void MarkRxThreadOf(const CDeviceObject* device) {
    tRxDevice = device;
}

bool IsRxThreadOf(const CDeviceObject* device) {
    return device && tRxDevice == device;
}

int RxThreadSelect(int nfds, fd_set* readfds, struct timeval* timeout) {
    // SIGUSR1 stays blocked from the flag test to the wait, and pselect unblocks it
    // atomically, so a signal sent in between interrupts the wait instead of being lost.
    sigset_t usr1;
    sigset_t old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    if (tStopRequested) {
        pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
        errno = EINTR;
        return -1;
    }
    sigset_t wait_mask = old_mask;
    sigdelset(&wait_mask, SIGUSR1);
    struct timespec limit;
    struct timespec* limit_ptr = nullptr;
    if (timeout) {
        limit.tv_sec = timeout->tv_sec;
        limit.tv_nsec = timeout->tv_usec * 1000L;
        limit_ptr = &limit;
    }
    int ret = pselect(nfds, readfds, nullptr, nullptr, limit_ptr, &wait_mask);
    int saved = errno;
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    if (tStopRequested) {
        errno = EINTR;
        return -1;
    }
    errno = saved;
    return ret;
}

int RxThreadSleep(int ms) {
    int64_t deadline = MonotonicMs() + (ms > 0 ? ms : 0);
    for (;;) {
        int64_t left = deadline - MonotonicMs();
        if (left <= 0) return RxThreadStopRequested() ? -1 : 0;
        struct timeval timeout;
        timeout.tv_sec = static_cast<time_t>(left / 1000);
        timeout.tv_usec = static_cast<suseconds_t>((left % 1000) * 1000);
        if (RxThreadSelect(0, nullptr, &timeout) < 0 && RxThreadStopRequested()) return -1;
    }
}

int RxWaitReadable(int fd, int ms) {
    if (fd < 0 || fd >= FD_SETSIZE) return -1;
    int64_t deadline = MonotonicMs() + (ms > 0 ? ms : 0);
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        struct timeval timeout;
        struct timeval* timeout_ptr = nullptr;
        if (ms >= 0) {
            int64_t left = deadline - MonotonicMs();
            if (left < 0) left = 0;
            timeout.tv_sec = static_cast<time_t>(left / 1000);
            timeout.tv_usec = static_cast<suseconds_t>((left % 1000) * 1000);
            timeout_ptr = &timeout;
        }
        int ret = RxThreadSelect(fd + 1, &readable, timeout_ptr);
        if (ret > 0) return FD_ISSET(fd, &readable) ? 1 : 0;
        if (ret == 0) return 0;
        if (errno == EINTR && !RxThreadStopRequested()) continue;
        return -1;
    }
}
