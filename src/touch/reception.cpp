// The reception step: one read from the port, then the splitter of the device's interface.
#include "touch/reception.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>

#include "core/device_node.h"
#include "core/shell.h"
#include "core/shell_token.h"
#include "device/device_object.h"
#include "discovery/probe_exchange.h"
#include "log/debug_log.h"
#include "touch/cmd_reply.h"
#include "touch/point_parse.h"

namespace {

// Slack behind the read so that a parser that looks one byte ahead of a short read still
// reads zeroed memory of this frame, never another object.
constexpr int kReadSlack = 8;

// The port read empty: the controller is gone. Deletes the stale node, asks the main
// thread for a plug-and-play check and raises this thread's stop request.
void HandleEmptyRead(CDeviceObject* device) {
    TLOG(LOG_INIT, "Detect no data in port. Send SIGUSR2 to mainthread do check PNP");
    if (!IsPlainPathToken(device->PortPath)) {
        TLOG(LOG_INIT, "Port path [%s] is not a plain path: refused to run rm on it",
             device->PortPath);
    } else if (!IsDeviceNodeUnderDev(device->PortPath)) {
        TLOG(LOG_INIT, "Port path [%s] is not a device node under /dev: not removed",
             device->PortPath);
    } else {
        char command[kShellCommandMax];
        snprintf(command, sizeof(command), "rm %s", device->PortPath);
        RunShell(command);
    }
    kill(0, SIGUSR2);
    device->bThreadRunning = 0;
    RequestRxThreadStop();
}

}  // namespace

int DevReceiveStep(CDeviceObject* device) {
    uint8_t buffer[kPortReadMax + kReadSlack] = {};
    ssize_t count = ReadRetry(device->m_Port_fd.get(), buffer, kPortReadMax);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;  // nothing yet
    if (count <= 0) {
        HandleEmptyRead(device);
        return -1;
    }
    if (DebugEnableBits & LOG_DATA) {
        char hex[4 * kPortReadMax + 1];
        HexDumpBytes(buffer, static_cast<int>(count), hex);
        DebugLog(LOG_DATA, " ----------   Recv Data from device  ---------- ");
        DebugLog(LOG_DATA, "Read from device [%s] %d byte: %s", device->PortPath,
                 static_cast<int>(count), hex);
    }
    DispatchPortBytes(device, buffer, static_cast<int>(count));
    return 0;
}

void DispatchPortBytes(CDeviceObject* device, const uint8_t* bytes, int count) {
    if (count <= 0) return;
    switch (device->DevInterface) {
        case DEV_RS232:
        case DEV_PS2:
            TLOG(LOG_DATA, "Serial Interface. Entering ParseSerialPacket");
            ParseSerialPacket(device, bytes, count);
            break;
        case DEV_USB:
            ParseUsbPacket(device, bytes, count);
            break;
        default:
            break;  // unknown interface: the bytes are dropped
    }
}

void ParseUsbPacket(CDeviceObject* device, const uint8_t* bytes, int count) {
    if (count <= 0) return;
    const bool skip_first = device->pSettings && device->pSettings->SkipFirstByte;
    if (bytes[0] == 0x00 || skip_first) {
        ++bytes;
        --count;
    }
    if (count <= 0) return;

    const uint8_t head = bytes[0];
    if (device->SendRawPoints == 0) {
        if (head == CMD_HEADER_SERIAL || head == CMD_HEADER_USB) {
            ParseCmdPacket(device, bytes, count);
        } else {
            ParsePointPacket(device, bytes, count);
        }
    } else if (device->SendRawPoints == 1) {
        // Raw-point controllers send point reports under id 0x03 with the top bit of byte 1
        // set; a report too short to carry byte 1 is taken as a reply (and refused there).
        if (head == CMD_HEADER_USB) {
            if (count < 2 || bytes[1] < 0x80) {
                ParseCmdPacket(device, bytes, count);
            } else {
                ParsePointPacket(device, bytes, count);
            }
        } else if (head == CMD_HEADER_SERIAL) {
            ParseCmdPacket(device, bytes, count);
        } else {
            ParsePointPacket(device, bytes, count);
        }
    }
    // Other SendRawPoints values: the packet is dropped.
}
