// Packet adjustments made before a command is written (pure, no I/O).
#include <string.h>

#include "core/environment.h"
#include "device/cmd_channel.h"
#include "device/cmd_internal.h"
#include "device/device_object.h"
#include "log/debug_log.h"

void ShiftCommandBytes(uint8_t* packet, int* len, int before, int after) {
    if (!packet || !len || *len < 0 || before < 0 || after < 0) return;
    int new_len = before + *len + after;
    if (new_len > kCmdShiftLimit) {
        TLOG_ERR(LOG_PIPE,
                 "Cmd shift length is bigger than %d. May cause overflow. Therefore skip shift",
                 kCmdShiftLimit);
        return;
    }
    memmove(packet + before, packet, static_cast<size_t>(*len));
    memset(packet, 0, static_cast<size_t>(before));
    memset(packet + before + *len, 0, static_cast<size_t>(after));
    *len = new_len;
}

void ShiftReportId(uint8_t* packet) {
    if (!packet || bOldKernel != 1) return;
    memmove(packet + 1, packet, kPacketMax);
    packet[0] = 0x00;
}

int FixedCommandLength(const CDeviceObject* device, int own_len) {
    if (device->DevInterface == DEV_USB) return bOldKernel + 6;
    return own_len;
}

int PrepareFixedCommand(const CDeviceObject* device, uint8_t* packet, int own_len) {
    if (device->DevInterface != DEV_USB) return own_len;
    ShiftReportId(packet);
    return FixedCommandLength(device, own_len);
}

bool PortInvalid(const CDeviceObject* device, uint32_t category, const char* leave_line) {
    int fd = device->m_Port_fd.get();
    if (fd >= 1) return false;
    TLOG(category, "m_Port_fd=%d is invalid", fd);
    TLOG(category, "%s", leave_line);
    return true;
}
