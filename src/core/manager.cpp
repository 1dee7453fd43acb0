#include "core/manager.h"

#include <string.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/environment.h"
#include "core/pnp_signal.h"
#include "device/cmd_channel.h"
#include "device/device_object.h"
#include "discovery/device_list.h"
#include "discovery/hid_binding.h"
#include "discovery/serial_scan.h"
#include "discovery/usb_scan.h"
#include "log/debug_log.h"
#include "output/emit.h"

namespace {

constexpr const char* kQevoVid = "3c7a";

bool IsEmptyPidSlot(const char* pid) {
    return strstr(pid, "NULL") != nullptr || strstr(pid, "null") != nullptr;
}

}  // namespace

CManager::CManager(GlobalSettings* settings) : pSettings(settings) {
    TLOG(LOG_INIT, "New CManager is called.");
}

void ScanLoopPass(CManager* manager) {
    LogReceivedSigUsr2();
    if (bDeviceExistCheck.load()) {
        DevicePnPCheck(manager);
        bDeviceExistCheck.store(0);
    }
    const int16_t limit = manager->pSettings->MaxDeviceNums;
    if (static_cast<int16_t>(manager->DeviceCount) >= limit || bDeviceExistCheck.load()) return;

    const uint8_t usb = manager->pSettings->ScanInterface;
    if (usb == 0 || usb == 1) {
        CheckVIDinlsusb(kQevoVid);
        CheckIniDevPID(manager);
        ScanUSBPort(manager);
    }
    const uint8_t rs232 = manager->pSettings->ScanInterface;
    if (rs232 == 0 || rs232 == 2) ScanRS232Port(manager);
    const uint8_t ps2 = manager->pSettings->ScanInterface;
    if (ps2 == 0 || ps2 == 3) ScanPS2Port(manager);
}

void EndlessScanLoop(CManager* manager) {
    TLOG(LOG_MAIN, "Entering %s", "EndlessScanLoop");
    for (;;) {
        ScanLoopPass(manager);
        usleep(kScanPeriodUs);
    }
}

void DevicePnPCheck(CManager* manager) {
    TLOG(LOG_MAIN, "Entering %s", "DevicePnPCheck");
    CDeviceObject** link = &manager->DeviceListHead;
    while (*link) {
        CDeviceObject* device = *link;
        if (IsDeviceRemoved(device) == 1) {
            ReleaseAllContacts(device);
            RemoveDevice(manager, link);  // *link is now the former successor
        } else {
            link = &device->pNext;
        }
    }
}

int IsDeviceRemoved(CDeviceObject* device) {
    TLOG(LOG_MAIN, "Entering %s", "IsDeviceRemoved");
    if (device->m_Port_fd.get() < 1) {
        TLOG(LOG_MAIN, "Port_fd is unavailable");
        return 1;
    }
    switch (device->DevInterface) {
        case DEV_USB:
            if (access(device->PortPath, F_OK) != 0) {
                TLOG(LOG_MAIN, "USB Device [%s] is removed", device->PortPath);
                return 1;
            }
            return 0;
        case DEV_RS232:
            if (SetLoopback(device) != 0) {
                TLOG(LOG_MAIN, "RS232 Device [%s] is removed", device->PortPath);
                return 1;
            }
            return 0;
        default: return 0;
    }
}

void CheckIniDevPID(CManager* manager) {
    TLOG(LOG_MAIN, "Entering %s", "CheckIniDevPID");
    for (int i = 0; i < kDevPidSlots; ++i) {
        char pid[kPidTextMax];
        snprintf(pid, sizeof(pid), "%s", manager->pSettings->DevPID[i]);  // always terminated
        if (IsEmptyPidSlot(pid)) continue;
        TLOG(LOG_MAIN, "%s Get PID %s", "CheckIniDevPID", pid);
        AddPIDintoModuleRoutine(kQevoVid, pid);
    }
}
