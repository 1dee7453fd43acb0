// Forwarding of the tool's commands from the input pipe to the controller.
#include "device/cmd_channel.h"
#include "device/device_object.h"
#include "discovery/probe_exchange.h"
#include "log/debug_log.h"
#include "toolpipe/tool_pipe.h"

namespace {

// Command 0x34 with one data byte from the tool: 0 sends serial point reports to the
// tool, 1 sends them to the input devices again (series 8 and below only).
void ApplyReportSwitch(CDeviceObject* device, const uint8_t* bytes, int count) {
    if (count < 4 || bytes[0] != 0x0A || bytes[1] != 0x02 || bytes[2] != 0x34) return;
    if (device->Series > 8) return;
    if (bytes[3] == 0)
        device->bPointsToTool = 1;
    else if (bytes[3] == 1)
        device->bPointsToTool = 0;
}

bool IsResetCommand(const uint8_t* bytes, int count) {
    return count >= 5 && bytes[3] == 0x3A && bytes[4] == 0xFF;
}

}  // namespace

void ForwardFromTool(CDeviceObject* device) {
    uint8_t bytes[kCmdShiftLimit] = {};  // room for the shifted command
    int count = static_cast<int>(ReadRetry(device->m_fdPipeIn.get(), bytes, kPortReadMax));
    if (count <= 0) return;
    char text[4 * kCmdShiftLimit + 1];
    HexDumpBytes(bytes, count, text);
    TLOG(LOG_PIPE, "Read from PipeIn(Tool) %d bytes: %s", count, text);
    ApplyReportSwitch(device, bytes, count);
    if (device->DevInterface == DEV_USB && device->pSettings &&
        device->pSettings->ShiftByteBothEnd) {
        ShiftCommandBytes(bytes, &count, 1, 1);
    }
    int ret =
        static_cast<int>(WriteRetry(device->m_Port_fd.get(), bytes, static_cast<size_t>(count)));
    if (ret != count) {
        TLOG_ERR(LOG_PIPE, "Write %d byetes into device failed. Return with %d", count, ret);
        return;
    }
    HexDumpBytes(bytes, count, text);
    TLOG(LOG_PIPE, "Write to device %d bytes: %s", count, text);
    if (device->DevInterface == DEV_RS232 && IsResetCommand(bytes, count)) {
        TLOG(LOG_PIPE, "Catch Reset Command");
        RecheckBaudRate(device);
    }
}
