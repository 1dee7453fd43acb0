// USB HID discovery: the maker's controllers among /dev/hidraw0..9.
#include "discovery/usb_scan.h"

#include <fcntl.h>
#include <linux/hidraw.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/device_node.h"
#include "core/manager.h"
#include "core/unique_fd.h"
#include "discovery/device_list.h"
#include "log/debug_log.h"

namespace {
constexpr int kHidrawNodes = 10;
}

void ScanUSBPort(CManager* manager) {
    GlobalSettings* settings = manager->pSettings;
    settings->NewDevIAPType = IAP_FW;
    for (int n = 0; n < kHidrawNodes; ++n) {
        if (manager->DeviceCount >= settings->MaxDeviceNums) return;
        char path[32];
        snprintf(path, sizeof(path), "/dev/hidraw%d", n);
        if (access(path, F_OK) != 0) continue;
        TLOG(LOG_SCAN, "----  Scan USB port [%s]  ----", path);
        if (IsPortObjExisted(manager, path) == 0) {
            TLOG(LOG_SCAN, "Portpath [%s] is already created", path);
            continue;
        }
        if (CheckUSBDevice(manager, path) == 0) {
            AddandInitDevice(manager, path, &manager->DeviceListHead);
        }
    }
}

int CheckUSBDevice(CManager* /*manager*/, const char* path) {
    TLOG(LOG_SCAN, "Entering %s.", "CheckUSBDevice");
    UniqueFd fd(OpenDeviceNode(path, O_RDWR, kNodeAnyChar));
    if (!fd.valid()) {
        TLOG_ERR(LOG_SCAN,
                 "Open port [%s] failed with fd=%d. This may be caused by executing with "
                 "non-root permission.",
                 path, fd.get());
        return -1;
    }
    struct hidraw_devinfo info = {};
    if (ioctl(fd.get(), HIDIOCGRAWINFO, &info) < 0) {
        TLOG_ERR(LOG_INIT, "Failed to get HIDRAW Device Info at %s!", path);
        return -1;
    }
    const uint16_t vendor = static_cast<uint16_t>(info.vendor);
    if (vendor != kVendorQevo && vendor != kVendorPartner) {
        TLOG(LOG_SCAN, "Vendor ID %04X is not compatible", vendor);
        return -1;
    }
    TLOG(LOG_SCAN, "Vendor ID %04X is detected.", vendor);
    fd.reset();
    TLOG(LOG_MAIN, "Found an %s Device at port [%s]", "QEVO", path);
    return 0;
}
