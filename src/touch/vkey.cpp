// Virtual-key reports (command replies) turned into key presses and releases on the touch
// device. A key is pressed for the system every VKEYReportMod pressed reports (auto-repeat
// while held); a release is sent only after at least that many pressed reports.
#include "touch/vkey.h"

#include <linux/input.h>

#include "device/device_object.h"
#include "log/debug_log.h"
#include "output/emit.h"

namespace {

constexpr int kVKeySeries = 22;

// Pressed reports per press event; a non-positive setting counts as 1.
int ReportModulus(const CDeviceObject* device) {
    return device->Param.VKEYReportMod > 0 ? device->Param.VKEYReportMod : 1;
}

}  // namespace

void HandleVKeyReport(CDeviceObject* device, const uint8_t* reply) {
    int state;
    int index;
    if (device->Series == kVKeySeries) {
        state = reply[3] & 0x01;
        index = reply[4];
    } else {
        state = reply[4] & 0x01;
        index = reply[5];
    }
    TLOG(LOG_VKEY, "Get raw VKEY data : ID=%d, State=%d", index, state);
    if (index >= kVKeyCount) return;
    if (device->VKeyCode[index] == -1) {
        TLOG(LOG_VKEY, "No corresponding system KEYCode to Controller KEYCode [%d]", index);
        return;
    }
    const int modulus = ReportModulus(device);
    if (state == 1) {
        ++device->VKeyCount[index];
        if (device->VKeyCount[index] % modulus == 0) SendVKey(device, 1, index);
        return;
    }
    if (device->VKeyCount[index] >= modulus) {
        SendVKey(device, 0, index);
        for (uint16_t& count : device->VKeyCount) count = 0;
    }
}

void SendVKey(CDeviceObject* device, int32_t value, int index) {
    if (index < 0 || index >= kVKeyCount) return;
    const int32_t code = device->VKeyCode[index];
    const int fd = device->UinputTouchFd.get();
    WriteInputEvent(device, fd, EV_KEY, static_cast<uint16_t>(code), value);
    WriteInputEvent(device, fd, EV_SYN, SYN_REPORT, 0);
    TLOG(LOG_VKEY, "Send VKEY. Controller KEYCode[%d], System KEYCode [%d]", index, code);
}
