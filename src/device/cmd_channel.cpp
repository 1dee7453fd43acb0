// The command channel: polling exchange on the device's own thread, and the blocking
// wait/wake pair between a sender on another thread and the receive thread.
#include "device/cmd_channel.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "device/cmd_internal.h"
#include "device/device_object.h"
#include "device/rx_wait.h"
#include "discovery/probe_exchange.h"
#include "log/debug_log.h"
#include "touch/reception.h"

namespace {

constexpr int kSelfRecvWrites = 3;
constexpr int kSelfRecvPeriodMs = 500;
// Other traffic restarts no write, so a controller that keeps sending (a finger held on
// the screen during set-up) could hold the exchange for ever: it ends after this long.
constexpr int kSelfRecvLimitMs = 2 * kSelfRecvWrites * kSelfRecvPeriodMs;
constexpr int kWakeTries = 3;
constexpr useconds_t kWakePauseUs = 5000;

int64_t MonotonicMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

clockid_t CmdCondClock() {
#if defined(__ANDROID__) && defined(__ANDROID_API__) && __ANDROID_API__ < 21
    return CLOCK_REALTIME;  // no pthread_condattr_setclock before API 21
#else
    return CLOCK_MONOTONIC;
#endif
}

void InitCmdCond(CDeviceObject* device) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
#if !(defined(__ANDROID__) && defined(__ANDROID_API__) && __ANDROID_API__ < 21)
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
#endif
    pthread_cond_init(&device->CmdCond, &attr);
    pthread_condattr_destroy(&attr);
}

void SendAndPoll(CDeviceObject* device, int len, bool shift_both_ends) {
    device->bSelfHookReplied = 0;
    if (len < 0) len = 0;
    if (len > kCmdShiftLimit) len = kCmdShiftLimit;
    if (shift_both_ends && device->DevInterface == DEV_USB && device->pSettings &&
        device->pSettings->ShiftByteBothEnd) {
        ShiftCommandBytes(device->CmdSendBuf, &len, 1, 1);
    }
    int writes_left = kSelfRecvWrites;
    int state = 0;
    const int64_t give_up_ms = MonotonicMs() + kSelfRecvLimitMs;
    while (writes_left > 0 && device->bSelfHookReplied.load() == 0) {
        if (RxThreadStopRequested()) return;
        if (MonotonicMs() >= give_up_ms) {
            TLOG(LOG_PORT, "SelfRecv gives up after %d ms", kSelfRecvLimitMs);
            return;
        }
        if (state == 0) {
            int written = static_cast<int>(
                WriteRetry(device->m_Port_fd.get(), device->CmdSendBuf, static_cast<size_t>(len)));
            --writes_left;
            state = written;
            if (written < len) {
                TLOG_ERR(LOG_PORT,
                         "Write command to prot failed with ret = %d. The actually len = %d. Write "
                         "again.",
                         written, len);
                if (RxThreadSleep(kSelfRecvPeriodMs) < 0) return;
                continue;
            }
            if (DebugEnableBits & LOG_PORT) {
                char text[4 * kCmdShiftLimit + 1];
                HexDumpBytes(device->CmdSendBuf, len, text);
                DebugLog(LOG_PORT, "SelfRecv, write down command: %s", text);
            }
        }
        state = RxWaitReadable(device->m_Port_fd.get(), kSelfRecvPeriodMs);
        if (state < 0) {
            // A port that cannot be waited on counts as a silent period, so the three
            // writes still bound the exchange.
            if (RxThreadStopRequested() || RxThreadSleep(kSelfRecvPeriodMs) < 0) return;
            state = 0;
        }
        if (state > 0 && DevReceiveStep(device) < 0) return;  // port gone
    }
}

void SelfRecv(CDeviceObject* device, int len) {
    SendAndPoll(device, len, true);
}

int CmdTimedWaitLocked(CDeviceObject* device, int seconds, int ms) {
    struct timespec deadline;
    clock_gettime(CmdCondClock(), &deadline);
    int64_t add_ns = (static_cast<int64_t>(ms) + 1) * 1000000;
    deadline.tv_sec += seconds + static_cast<time_t>(add_ns / 1000000000);
    deadline.tv_nsec += static_cast<long>(add_ns % 1000000000);
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    int result;
    if (device->WakeCount != 0) {
        result = -1;
    } else {
        ++device->WaiterCount;
        result = 0;
        while (device->WakeCount == 0) {
            int rc = pthread_cond_timedwait(&device->CmdCond, &device->CmdMutex, &deadline);
            if (rc != 0 && rc != EINTR) {
                result = rc;
                break;
            }
        }
        // A wake that lands together with the time-out still counts as a reply.
        if (device->WakeCount != 0) {
            result = 0;
            --device->WakeCount;
        }
        --device->WaiterCount;
        // Wakes that no waiter took (a doubled reply) are dropped with the last waiter, so
        // they cannot make every later wait fail at once.
        if (device->WaiterCount == 0) device->WakeCount = 0;
    }
    if (result == -1) {
        TLOG(LOG_CMD, "pthread_cond_timedwait didn't execute. The condition is not satisfied.");
    } else if (result != 0) {
        TLOG(LOG_CMD, "pthread_timedwait with error=%d, %s", result, strerror(result));
    }
    return result;
}

int CmdTimedWait(CDeviceObject* device, int seconds, int ms) {
    pthread_mutex_lock(&device->CmdMutex);
    int result = CmdTimedWaitLocked(device, seconds, ms);
    pthread_mutex_unlock(&device->CmdMutex);
    return result;
}

void CmdWake(CDeviceObject* device) {
    pthread_mutex_lock(&device->CmdMutex);
    for (int tries = 0; device->WaiterCount == 0; ++tries) {
        if (tries == kWakeTries) {
            pthread_mutex_unlock(&device->CmdMutex);
            return;  // nobody waits: the wake is dropped, nothing counted
        }
        TLOG(LOG_CMD, "pthread_signal release mutex and call sleep");
        pthread_mutex_unlock(&device->CmdMutex);
        usleep(kWakePauseUs);
        pthread_mutex_lock(&device->CmdMutex);
    }
    memcpy(device->SigReplyBuf, device->CmdReplyBuf, sizeof(device->SigReplyBuf));
    if (device->WakeCount == 0) pthread_cond_signal(&device->CmdCond);
    if (device->WakeCount < 255) ++device->WakeCount;
    pthread_mutex_unlock(&device->CmdMutex);
}

void UnRegisSigHookCmd(CDeviceObject* device, uint16_t cmd, uint16_t sub_cmd) {
    if (device->SigHookCmd.load() == cmd && device->SigHookSubCmd.load() == sub_cmd) {
        device->SigHookCmd = 0;
        device->SigHookSubCmd = 0;
    }
    TLOG(LOG_MERGE, "Leave %s", "UnRegisSigHookCmd");
}

void UnRegisSelfHookCmd(CDeviceObject* device, uint16_t cmd, uint16_t sub_cmd) {
    if (device->SelfHookCmd.load() == cmd && device->SelfHookSubCmd.load() == sub_cmd) {
        device->SelfHookCmd = 0;
        device->SelfHookSubCmd = 0;
    }
    TLOG(LOG_MERGE, "Leave %s", "UnRegisSelfHookCmd");
}

int SendAndWaitReply(CDeviceObject* device, const uint8_t* packet, int len, bool byte_by_byte,
                     int seconds, int ms, const uint8_t* expect, int expect_len) {
    int fd = device->m_Port_fd.get();
    pthread_mutex_lock(&device->CmdMutex);
    int written = 0;
    if (byte_by_byte) {
        for (int i = 0; i < len; ++i) {
            ssize_t ret = WriteRetry(fd, packet + i, 1);
            if (ret > 0) written += static_cast<int>(ret);
            TLOG(LOG_SERIAL, "Write cmd=0x%X", packet[i]);
            usleep(1000);
        }
    } else {
        ssize_t ret = WriteRetry(fd, packet, static_cast<size_t>(len));
        written = ret > 0 ? static_cast<int>(ret) : 0;
    }
    int result = -1;
    if (written == len) {
        // Still holding CmdMutex: the receive thread cannot wake before we wait.
        result = CmdTimedWaitLocked(device, seconds, ms);
        if (result == 0 &&
            memcmp(device->SigReplyBuf, expect, static_cast<size_t>(expect_len)) != 0)
            result = -1;
    }
    pthread_mutex_unlock(&device->CmdMutex);
    return result;
}

void ClearCmdBuffers(CDeviceObject* device) {
    memset(device->CmdSendBuf, 0, sizeof(device->CmdSendBuf));
    memset(device->CmdReplyBuf, 0, sizeof(device->CmdReplyBuf));
}

void SetSelfHook(CDeviceObject* device, uint16_t cmd, uint16_t sub_cmd) {
    device->SelfHookSubCmd = sub_cmd;
    device->SelfHookCmd = cmd;
}
