// Channel commands: set-feature report, loop-back (blocking and direct) and the serial
// line speed search.
#include <pthread.h>
#include <string.h>

#include "device/cmd_channel.h"
#include "device/cmd_internal.h"
#include "device/device_object.h"
#include "device/rx_wait.h"
#include "discovery/probe_exchange.h"
#include "log/debug_log.h"

namespace {

constexpr uint8_t kLoopbackCmd = 0x41;
constexpr int kLoopbackAttempts = 3;
constexpr int kLoopbackWaitMs = 500;
constexpr uint32_t kRecheckRates[] = {9600, 19200, 57600, 115200};
constexpr int kRecheckPasses = 3;

// Blocking and direct commands are built in a buffer of their own, never in CmdSendBuf:
// they may run on another thread while the receive thread uses CmdSendBuf.
int BuildLoopback(const CDeviceObject* device, uint8_t* packet) {
    packet[0] = static_cast<uint8_t>(device->CmdHeader);
    packet[1] = 0x01;
    packet[2] = kLoopbackCmd;
    return PrepareFixedCommand(device, packet, 3);
}

}  // namespace

int SetFeature(CDeviceObject* device) {
    TLOG(LOG_CMD, "Entering %s", "SetFeature");
    uint8_t packet[kCmdBufSize] = {0x05, 0x02, 0x00};
    if (PortInvalid(device, LOG_CMD, "Leave SetFeature")) return -1;
    int len = PrepareFixedCommand(device, packet, 3);
    pthread_mutex_lock(&device->CmdMutex);
    int ret =
        static_cast<int>(WriteRetry(device->m_Port_fd.get(), packet, static_cast<size_t>(len)));
    pthread_mutex_unlock(&device->CmdMutex);
    TLOG(LOG_CMD, "Leave SetFeature");
    return ret;
}

int SetLoopback(CDeviceObject* device) {
    TLOG(LOG_CMD, "Entering %s. Send to device [%s]", "SetLoopback", device->PortPath);
    uint8_t packet[kCmdBufSize] = {};
    int len = BuildLoopback(device, packet);
    if (PortInvalid(device, LOG_CMD, "Leave SetLoopback")) return -1;
    device->SigHookSubCmd = kAnySubCmd;
    device->SigHookCmd = kLoopbackCmd;
    const uint8_t expect[3] = {static_cast<uint8_t>(device->CmdHeader), 0x01, kLoopbackCmd};
    int ret = -1;
    SelectSleep(0, 100);
    for (int attempt = 0; attempt < kLoopbackAttempts; ++attempt) {
        ret = SendAndWaitReply(device, packet, len, true, 0, kLoopbackWaitMs, expect, 3);
        if (ret == 0) break;
    }
    UnRegisSigHookCmd(device, kLoopbackCmd, kAnySubCmd);
    TLOG(LOG_CMD, "Leave SetLoopback with ret=%d", ret);
    return ret;
}

int SetLoopbackInside(CDeviceObject* device) {
    TLOG(LOG_CMD, "Entering %s", "SetLoopbackInside");
    uint8_t packet[kCmdBufSize] = {};
    int len = BuildLoopback(device, packet);
    if (PortInvalid(device, LOG_CMD, "Leave SetLoopback")) return -1;
    int fd = device->m_Port_fd.get();
    ssize_t written = WriteRetry(fd, packet, static_cast<size_t>(len));
    int ret = written == len ? WaitDeviceResponse(fd) : -1;
    TLOG(LOG_CMD, "Leave SetLoopbackInside with ret=%d", ret);
    return ret;
}

void RecheckBaudRate(CDeviceObject* device) {
    TLOG(LOG_PIPE, "Entering %s", "RecheckBaudRate");
    int fd = device->m_Port_fd.get();
    if (fd < 0) return;
    SetPortBaudRate(fd, 0, 0);
    for (int pass = 0; pass < kRecheckPasses; ++pass) {
        if (RxThreadSleep(500) < 0) return;
        for (uint32_t rate : kRecheckRates) {
            SetPortBaudRate(fd, rate, 1);
            TLOG(LOG_SCAN, "Test Baudrate [%d]", static_cast<int>(rate));
            if (SetLoopbackInside(device) == 0) {
                TLOG(LOG_SCAN, "Switch BaudRate from [%d] to [%d]",
                     static_cast<int>(device->BaudRate), static_cast<int>(rate));
                device->BaudRate = rate;
                return;
            }
            if (RxThreadSleep(5) < 0) return;
        }
    }
    SetPortBaudRate(fd, device->BaudRate, 1);
    TLOG(LOG_SCAN, "Recheck BaudRate failed, set to origin baud [%d]",
         static_cast<int>(device->BaudRate));
}
