// Identification commands, sent in the polling style on the device's own thread.
#include "device/identification.h"

#include <string.h>

#include "device/cmd_channel.h"
#include "device/cmd_internal.h"
#include "device/device_object.h"
#include "log/debug_log.h"

namespace {

constexpr int kTextCopyMax = kTextMax - 1;  // 63 characters and the terminator

// One text command (hdr, 0x01, cmd). The reply text from byte 3 on is copied into text
// (64 bytes) up to the first 0 byte, (length - 1) bytes or 63 bytes, and terminated.
// 0 when the controller answered the command, else -1 (text untouched); -2 when the port
// is invalid (nothing sent).
int TextCommand(CDeviceObject* device, uint8_t cmd, const char* name, char* text) {
    TLOG(LOG_CMD, "Enter %s()", name);
    ClearCmdBuffers(device);
    device->CmdSendBuf[0] = static_cast<uint8_t>(device->CmdHeader);
    device->CmdSendBuf[1] = 0x01;
    device->CmdSendBuf[2] = cmd;
    char leave[kTextMax];
    snprintf(leave, sizeof(leave), "Leave %s", name);
    if (PortInvalid(device, LOG_CMD, leave)) return -2;
    SetSelfHook(device, cmd, kAnySubCmd);
    SelfRecv(device, 3);
    const uint8_t* reply = device->CmdReplyBuf;
    int ret = -1;
    if (reply[0] == static_cast<uint8_t>(device->CmdHeader) && reply[2] == cmd) {
        ret = 0;
        if (reply[1] > 1 && reply[3] != 0) {
            int limit = reply[1] - 1;
            if (limit > kTextCopyMax) limit = kTextCopyMax;
            int n = 0;
            while (n < limit && reply[3 + n] != 0) {
                text[n] = static_cast<char>(reply[3 + n]);
                ++n;
            }
            text[n] = '\0';
        }
    }
    UnRegisSelfHookCmd(device, cmd, kAnySubCmd);
    return ret;
}

int TextCommandWithLeave(CDeviceObject* device, uint8_t cmd, const char* name, char* text) {
    int ret = TextCommand(device, cmd, name, text);
    if (ret == -2) return -1;
    TLOG(LOG_CMD, "Leave %s with ret=%d", name, ret);
    return ret;
}

}  // namespace

int GetFWVersion(CDeviceObject* device, char* text) {
    return TextCommandWithLeave(device, 0x44, "GetFWVersion", text);
}

int GetModelName(CDeviceObject* device, char* text) {
    return TextCommandWithLeave(device, 0x45, "GetModelName", text);
}

int GetTypeName(CDeviceObject* device, char* text) {
    return TextCommandWithLeave(device, 0x46, "GetTypeName", text);
}

int CheckControllerType(CDeviceObject* device, char* text) {
    int ret = TextCommand(device, 0x46, "CheckControllerType", text);
    if (ret == -2) return -1;
    ret = strncmp(text, "PCAP", 4) == 0 ? 1 : 0;
    TLOG(LOG_CMD, "Leave %s with ret=%d", "CheckControllerType", ret);
    return ret;
}

int GetEEData(CDeviceObject* device, uint8_t address, uint16_t* value) {
    TLOG(LOG_EEPROM, "Enter GetEEData()");
    ClearCmdBuffers(device);
    const uint8_t hdr = static_cast<uint8_t>(device->CmdHeader);
    device->CmdSendBuf[0] = hdr;
    device->CmdSendBuf[1] = 0x02;
    device->CmdSendBuf[2] = 0x43;
    device->CmdSendBuf[3] = address;
    if (PortInvalid(device, LOG_EEPROM, "Leave GetEEData")) return -1;
    SetSelfHook(device, 0x43, kAnySubCmd);
    SelfRecv(device, 4);
    const uint8_t* reply = device->CmdReplyBuf;
    int ret = -1;
    if (reply[0] == hdr && reply[1] == 0x04 && reply[2] == 0x43 && reply[3] == address) {
        *value = static_cast<uint16_t>(reply[4] + 256 * reply[5]);
        TLOG(LOG_EEPROM, " GetEEData value %X", *value);
        ret = 0;
    }
    UnRegisSelfHookCmd(device, 0x43, kAnySubCmd);
    TLOG(LOG_EEPROM, "Leave GetEEData with ret=%d", ret);
    return ret;
}

int DevGetIAPType(CDeviceObject* device) {
    TLOG(LOG_INIT, "Entering %s", "DevGetIAPType");
    ClearCmdBuffers(device);
    const uint8_t hdr = static_cast<uint8_t>(device->CmdHeader);
    device->CmdSendBuf[0] = hdr;
    device->CmdSendBuf[1] = 0x02;
    device->CmdSendBuf[2] = 0x39;
    device->CmdSendBuf[3] = 0x02;
    SetSelfHook(device, 0x39, 0x0004);
    SelfRecv(device, 4);
    const uint8_t* reply = device->CmdReplyBuf;
    int ret;
    if (reply[0] == 0 && reply[1] == 0 && reply[2] == 0) {
        device->IAPType = IAP_FW;
        TLOG(LOG_INIT, "Controller didn't feedback. Device IAP Type = IAP_FW");
        ret = 0;
    } else if (reply[0] == hdr && reply[2] == 0x39 && reply[3] == 0x04) {
        if (reply[4] == 0 && reply[5] == 0) {
            device->IAPType = IAP_FW;
            TLOG(LOG_INIT, "Device IAP Type = IAP_FW");
        } else {
            device->IAPType = IAP_BFW;
            device->Series = SERIES_BOOT_FIRMWARE;
            TLOG(LOG_INIT, "Device IAP Type = IAP_BFW");
        }
        ret = 0;
    } else {
        TLOG(LOG_INIT, "Recv Data is not compatible. IAP Type = IAP_FW");
        ret = -1;
    }
    UnRegisSelfHookCmd(device, 0x39, 0x0004);
    TLOG(LOG_INIT, "Leave %s with ret=%d", "DevGetIAPType", ret);
    return ret;
}

void DevGetControllerInfo(CDeviceObject* device) {
    TLOG(LOG_INIT, "Entering %s", "DevGetControllerInfo");
    memset(device->FWVersion, 0, sizeof(device->FWVersion));
    memset(device->ModelName, 0, sizeof(device->ModelName));
    memset(device->TypeName, 0, sizeof(device->TypeName));
    int pcap = CheckControllerType(device, device->TypeName);
    device->bPCAP = pcap > 0 ? 1 : 0;
    if (GetFWVersion(device, device->FWVersion) != 0) {
        snprintf(device->FWVersion, sizeof(device->FWVersion), "UNKNOWN");
        snprintf(device->ModelName, sizeof(device->ModelName), "UNKNOWN");
        snprintf(device->TypeName, sizeof(device->TypeName), "UNKNOWN");
    } else {
        GetModelName(device, device->ModelName);
        GetTypeName(device, device->TypeName);
    }
    if (strstr(device->TypeName, "LOM"))
        snprintf(device->ModelName, sizeof(device->ModelName), "K2593");
    TLOG(LOG_MAIN, "==============   Entering Device Info   ==============");
    device->Series = AllocateSeries(device->ModelName, device->TypeName);
    if (device->IAPType == IAP_FW) {
        TLOG(LOG_MAIN, "Type:%s, Model:%s , Version:%s, IAP:%d", device->TypeName,
             device->ModelName, device->FWVersion, 1);
    }
    TLOG(LOG_MAIN, "--------------   Done with Device Info  --------------");
}
