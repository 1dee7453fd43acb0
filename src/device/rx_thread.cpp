// The receive thread: its body, the receive loop, the port drain and its stop.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/select.h>

#include "core/environment.h"
#include "core/shell.h"
#include "device/device_object.h"
#include "device/rx_wait.h"
#include "device/setup.h"
#include "log/debug_log.h"
#include "toolpipe/tool_pipe.h"
#include "touch/point_parse.h"
#include "touch/reception.h"

namespace {

// RS232 presence check: the loop wakes every 20 ms when nothing arrives; 750 empty
// wake-ups in a row (about 15 s of silence) ask the scan loop for a presence check.
constexpr int kRs232IdleWaitMs = 20;
constexpr uint32_t kRs232IdleWakeLimit = 750;
constexpr int kCleanPortPauseMs = 5;
// A controller that never stops sending must not hold the set-up: about 1 s of draining.
constexpr int kCleanPortMaxReads = 200;
constexpr int kSelectErrorPauseMs = 100;
// A multi-contact frame still waiting for its last packet is written after this much
// silence of the port: the packet was lost and no further scan came to end the frame.
// Far above the time between the packets of one scan at any report rate.
constexpr int kOpenFrameWaitMs = 100;

void CountIdleWake(CDeviceObject* device) {
    if (++device->IdleWakeCount < kRs232IdleWakeLimit) return;
    device->IdleWakeCount = 0;
    TLOG(LOG_SCAN, "Timeout to check RS232 device exist or not.");
    if (!bDeviceExistCheck.load()) bDeviceExistCheck.store(1);
}

}  // namespace

void* DevThreadMain(void* arg) {
    CDeviceObject* device = static_cast<CDeviceObject*>(arg);
    MarkRxThreadOf(device);
    TLOG(LOG_MAIN, "<Device thread start running>");
    int ret = DevSetup(device);
    if (ret == -1) TLOG(LOG_MAIN, "DevSetup failed with return -1");
    if (RxThreadStoppedBySignal()) {
        TLOG(LOG_INIT, "Thread %p StopThreadHandler with SIGUSR1",
             reinterpret_cast<void*>(pthread_self()));
    }
    // From here on the destructor only joins this thread.
    device->bThreadRunning = 0;
    return nullptr;
}

void ChmodInputEventNodes() {
    RunShell("chmod 666 /dev/input/event*");
}

void DevRxLoop(CDeviceObject* device) {
    TLOG(LOG_MAIN, "Entering %s. Prepare to receive Points & Data", "DevRxLoop");
    ChmodInputEventNodes();
    device->CurIndex = 0;
    device->RealLen = 0;
    device->bMerging = 0;
    device->IdleWakeCount = 0;
    const bool presence_check = device->DevInterface == DEV_RS232 && device->NoDeviceCheck == 0;

    while (!RxThreadStopRequested()) {
        int port = device->m_Port_fd.get();
        int pipe = device->m_fdPipeIn.get();
        fd_set readable;
        FD_ZERO(&readable);
        int max_fd = -1;
        if (port >= 0 && port < FD_SETSIZE) {
            FD_SET(port, &readable);
            max_fd = port;
        }
        if (pipe >= 0 && pipe < FD_SETSIZE) {
            FD_SET(pipe, &readable);
            if (pipe > max_fd) max_fd = pipe;
        }
        const bool frame_open = MultiContactFrameOpen(device);
        struct timeval wait = {0, (frame_open ? kOpenFrameWaitMs : kRs232IdleWaitMs) * 1000};
        int ret =
            RxThreadSelect(max_fd + 1, &readable, frame_open || presence_check ? &wait : nullptr);
        if (ret < 0) {
            if (RxThreadStopRequested()) return;
            if (errno == EINTR) continue;
            TLOG_ERR(LOG_MAIN, "DevRxLoop select failed");
            RxThreadSleep(kSelectErrorPauseMs);
            continue;
        }
        if (ret == 0) {
            if (frame_open) {
                EndMultiContactFrame(device);
            } else if (presence_check) {
                CountIdleWake(device);
            }
            continue;
        }
        device->IdleWakeCount = 0;
        if (port >= 0 && port < FD_SETSIZE && FD_ISSET(port, &readable)) {
            if (DevReceiveStep(device) < 0) return;
        }
        if (pipe >= 0 && pipe < FD_SETSIZE && FD_ISSET(pipe, &readable)) ForwardFromTool(device);
    }
}

void DevCleanPortData(CDeviceObject* device) {
    TLOG(LOG_MAIN, "Entering %s", "DevCleanPortData");
    uint8_t drain[kPortReadMax];
    for (int reads = 0; reads < kCleanPortMaxReads; ++reads) {
        if (ReadRetry(device->m_Port_fd.get(), drain, sizeof(drain)) <= 0) return;
        if (RxThreadSleep(kCleanPortPauseMs) < 0) return;
    }
}

int StopReadThread(CDeviceObject* device) {
    TLOG(LOG_THREAD, "StopReadThread() is processing, current thread = %p",
         reinterpret_cast<void*>(pthread_self()));
    if (!device->bThreadCreated) {
        // No thread was ever started: nothing to signal or join.
        device->bThreadRunning = 0;
        return 0;
    }
    if (device->bThreadRunning.load() == 0) {
        pthread_join(device->ThreadId, nullptr);
        device->bThreadCreated = false;
        return 0;
    }
    int ret = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        sched_yield();
        ret = pthread_kill(device->ThreadId, SIGUSR1);
        if (ret != EAGAIN && ret != -EAGAIN) break;
    }
    if (ret != 0) {
        TLOG(LOG_THREAD, "Call pthread_kill with ret= %d, %s", ret, strerror(ret < 0 ? -ret : ret));
    }
    device->bThreadRunning = 0;
    pthread_join(device->ThreadId, nullptr);
    device->bThreadCreated = false;
    return 0;
}
