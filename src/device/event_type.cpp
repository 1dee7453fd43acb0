// Choice of the event protocol by kernel and series.
#include "core/environment.h"
#include "device/device_object.h"
#include "device/setup.h"
#include "log/debug_log.h"

void ChooseEventType(CDeviceObject* device) {
    if (device->Param.EventType != 0) return;  // set by the device's settings block
    const KernelVersionInfo& k = KernelVersion;
    if (k.major == 2 && k.minor == 6 && k.patch <= 35) {
        device->Param.EventType = 1;
        TLOG(LOG_MAIN, "Kernel is 2.6.35 downwards. EventType = QEVO_Multi protocol");
    } else if (device->Series > 8) {
        device->Param.EventType = 2;
        TLOG(LOG_MAIN,
             "Multipoint device and Kernel is 2.6.36 upwards. EventType = SLOT_Multi protocol");
    } else {
        device->Param.EventType = 1;
        TLOG(LOG_MAIN, "Single point device, EventType = QEVO_Multi protocol");
    }
}
