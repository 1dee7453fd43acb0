// The set-up sequence of a receive thread. Between the steps the thread's stop request
// is checked, so a device destroyed during set-up ends without sending further commands.
#include "device/setup.h"

#include "device/cmd_channel.h"
#include "device/descriptor.h"
#include "device/device_object.h"
#include "device/identification.h"
#include "device/report_format.h"
#include "log/debug_log.h"
#include "output/uinput_device.h"
#include "toolpipe/tool_pipe.h"

namespace {
constexpr int kSetupStopped = -2;
}  // namespace

int DevSetup(CDeviceObject* device) {
    SetupSigUsr1Handler();
    DevCleanPortData(device);
    if (RxThreadStopRequested()) return kSetupStopped;
    DevGetDescriptorInfo(device);
    if (device->bVendorReport) {
        DevGetIAPType(device);
        if (RxThreadStopRequested()) return kSetupStopped;
        if (device->bVendorReport && device->IAPType == IAP_FW) DevGetControllerInfo(device);
        if (RxThreadStopRequested()) return kSetupStopped;
    }
    ChooseEventType(device);
    if (CreateTouchDevice(device) == -1) return -1;
    if (CreatePenDevice(device) == -1) return -1;
    if (RxThreadStopRequested()) return kSetupStopped;
    DevCreateAppPipe(device);
    if (device->DevInterface == DEV_USB && device->IAPType == IAP_FW && device->bVendorReport) {
        if (device->bSetFeature) {
            SetFeature(device);
        } else {
            DisableRCLKFunction(device);
        }
        if (RxThreadStopRequested()) return kSetupStopped;
    }
    if (device->SendRawPoints == 1) {
        TLOG(LOG_MAIN, "Enter in SetRawFormat with SendRawPoints[%d]", 1);
        SetRawFormat(device);
        if (RxThreadStopRequested()) return kSetupStopped;
    }
    if (device->Series < 3) {
        TLOG(LOG_MAIN, "Enter in SetFormat");
        SetFormat(device, 1);
        if (RxThreadStopRequested()) return kSetupStopped;
    }
    TLOG(LOG_MAIN, "----------------- Device[%s] Setup Done -----------------", device->PortPath);
    DevRxLoop(device);
    return 0;
}
