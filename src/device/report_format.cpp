// Report format commands sent during set-up.
#include "device/report_format.h"

#include <pthread.h>
#include <string.h>

#include "device/cmd_channel.h"
#include "device/cmd_internal.h"
#include "device/device_object.h"
#include "device/identification.h"
#include "device/rx_wait.h"
#include "discovery/probe_exchange.h"
#include "log/debug_log.h"

namespace {

constexpr uint8_t kFormatCmd = 0x34;
constexpr uint8_t kFormatReply = 0x33;
constexpr uint8_t kRclkQueryCmd = 0x35;
constexpr int kSetFormatAttempts = 3;
constexpr int kSetFormatWaitSeconds = 3;

// During set-up the device's own thread reads the port itself: the reply is polled with
// the self hook (at most three writes, about 1.5 s for a silent controller).
int SetFormatPolling(CDeviceObject* device, const uint8_t* packet, int len, const uint8_t* expect) {
    memset(device->CmdReplyBuf, 0, sizeof(device->CmdReplyBuf));
    memcpy(device->CmdSendBuf, packet, static_cast<size_t>(len));
    SetSelfHook(device, kFormatReply, expect[3]);
    SendAndPoll(device, len, false);
    int ret = memcmp(device->CmdReplyBuf, expect, 4) == 0 ? 0 : -1;
    UnRegisSelfHookCmd(device, kFormatReply, expect[3]);
    return ret;
}

// From another thread the receive thread delivers the reply through CmdWake.
int SetFormatBlocking(CDeviceObject* device, const uint8_t* packet, int len,
                      const uint8_t* expect) {
    device->SigHookSubCmd = expect[3];
    device->SigHookCmd = kFormatReply;
    int ret = -1;
    SelectSleep(0, 100);
    for (int attempt = 0; attempt < kSetFormatAttempts; ++attempt) {
        ret = SendAndWaitReply(device, packet, len, false, kSetFormatWaitSeconds, 0, expect, 4);
        if (ret == 0) break;
    }
    UnRegisSigHookCmd(device, kFormatReply, expect[3]);
    return ret;
}

}  // namespace

int SetFormat(CDeviceObject* device, uint8_t format) {
    TLOG(LOG_CMD, "Enter SetFormat()");
    uint8_t packet[kCmdBufSize] = {};
    const uint8_t hdr = static_cast<uint8_t>(device->CmdHeader);
    packet[0] = hdr;
    packet[1] = 0x02;
    packet[2] = kFormatCmd;
    packet[3] = format;
    if (PortInvalid(device, LOG_CMD, "Leave SetFormat")) return -1;
    int len = PrepareFixedCommand(device, packet, 4);
    const uint8_t expect[4] = {hdr, 0x02, kFormatReply, format};
    int ret = IsRxThreadOf(device) ? SetFormatPolling(device, packet, len, expect)
                                   : SetFormatBlocking(device, packet, len, expect);
    TLOG(LOG_CMD, "Leave SetFormat with ret=%d", ret);
    return ret;
}

int SetRawFormat(CDeviceObject* device) {
    TLOG(LOG_CMD, "Enter SetRawFormat()");
    ClearCmdBuffers(device);
    device->CmdSendBuf[0] = static_cast<uint8_t>(device->CmdHeader);
    device->CmdSendBuf[1] = 0x02;
    device->CmdSendBuf[2] = kFormatCmd;
    device->CmdSendBuf[3] = 0x00;
    if (PortInvalid(device, LOG_CMD, "Leave SetRawFormat")) return -1;
    SetSelfHook(device, kFormatCmd, kAnySubCmd);
    SelfRecv(device, 4);
    const uint8_t* r = device->CmdReplyBuf;
    TLOG(LOG_CMD, "RecvBuf = [%02X][%02X][%02X][%02X][%02X][%02X]", r[0], r[1], r[2], r[3], r[4],
         r[5]);
    UnRegisSelfHookCmd(device, kFormatCmd, kAnySubCmd);
    TLOG(LOG_CMD, "Leave SetRawFormat with ret=%d", 0);
    return 0;
}

int GetRCLKFormat(CDeviceObject* device, uint8_t* report_id, uint8_t* rclk_control,
                  uint8_t* rclk_count) {
    TLOG(LOG_CMD, "Entering %s", "GetRCLKFormat");
    ClearCmdBuffers(device);
    const uint8_t hdr = static_cast<uint8_t>(device->CmdHeader);
    const uint8_t packet[6] = {hdr, 0x04, kRclkQueryCmd, 0x07, 0xFF, 0x00};
    memcpy(device->CmdSendBuf, packet, sizeof(packet));
    if (PortInvalid(device, LOG_CMD, "Leave GetRCLKFormat")) return -1;
    SetSelfHook(device, kFormatReply, kAnySubCmd);
    SelfRecv(device, 6);
    const uint8_t* r = device->CmdReplyBuf;
    int ret = -1;
    if (r[0] == hdr && r[1] == 0x04 && r[2] == kFormatReply) {
        *report_id = r[4] & 0x0F;
        *rclk_control = r[4] >> 7;
        *rclk_count = r[5];
        TLOG(LOG_CMD, "ReportID[%x], RCLKControl[%x], RCLKCount[%x]", *report_id, *rclk_control,
             *rclk_count);
        ret = 0;
    }
    UnRegisSelfHookCmd(device, kFormatReply, kAnySubCmd);
    TLOG(LOG_CMD, "Leave %s with ret=%d", "GetRCLKFormat", ret);
    return ret;
}

int SetRCLKFormat(CDeviceObject* device, uint8_t report_id, uint8_t rclk_control,
                  uint8_t rclk_count) {
    TLOG(LOG_CMD, "Enter SetRCLKFormat()");
    ClearCmdBuffers(device);
    const uint8_t hdr = static_cast<uint8_t>(device->CmdHeader);
    const uint8_t packet[6] = {
        hdr,       0x04, kFormatCmd, 0x07, static_cast<uint8_t>(report_id | (rclk_control << 7)),
        rclk_count};
    memcpy(device->CmdSendBuf, packet, sizeof(packet));
    if (PortInvalid(device, LOG_CMD, "Leave SetRCLKFormat")) return -1;
    SetSelfHook(device, kFormatReply, kAnySubCmd);
    SelfRecv(device, 6);
    const uint8_t* r = device->CmdReplyBuf;
    int ret = (r[0] == hdr && r[1] == 0x04 && r[2] == kFormatReply) ? 0 : -1;
    UnRegisSelfHookCmd(device, kFormatReply, kAnySubCmd);
    TLOG(LOG_CMD, "Leave SetRCLKFormat with ret=%d", ret);
    return ret;
}

void DisableRCLKFunction(CDeviceObject* device) {
    TLOG(LOG_MAIN, "Entering %s", "DisableRCLKFunction");
    uint8_t report_id = 1;
    uint8_t rclk_count = 50;
    if (device->Series == SERIES_LOMBAR) {
        uint16_t word = 0;
        if (GetEEData(device, 0x39, &word) == 0) report_id = word & 0x0F;
        rclk_count = 0;
    } else {
        uint8_t id = 0;
        uint8_t control = 0;
        uint8_t count = 0;
        if (GetRCLKFormat(device, &id, &control, &count) == 0) {
            report_id = id;
            rclk_count = count;
        }
    }
    SetRCLKFormat(device, report_id, 0, rclk_count);
}
