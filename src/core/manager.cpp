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
#include "discovery/usb_bus_watch.h"
#include "discovery/usb_scan.h"
#include "log/debug_log.h"
#include "output/emit.h"

namespace {

constexpr const char* kQevoVid = "3c7a";

// ScanInterface: 0 scans every interface, 1 USB only, 2 RS232 only, 3 PS/2 only, any other
// value none.
constexpr uint8_t kScanUsb = 1;
constexpr uint8_t kScanRs232 = 2;
constexpr uint8_t kScanPs2 = 3;

// Read afresh at each step, as a scan may change the settings record.
bool Chooses(const CManager* manager, uint8_t interface) {
    const uint8_t chosen = manager->pSettings->ScanInterface;
    return chosen == 0 || chosen == interface;
}

bool IsEmptyPidSlot(const char* pid) {
    return strstr(pid, "NULL") != nullptr || strstr(pid, "null") != nullptr;
}

}  // namespace

CManager::CManager(GlobalSettings* settings) : pSettings(settings) {
    TLOG(LOG_INIT, "New CManager is called.");
}

void ScanLoopPass(CManager* manager) {
    LogReceivedSigUsr2();
    // The request is taken before the check runs: one raised while it runs (a second
    // controller dropping meanwhile) stays set and is answered at the start of the next pass.
    if (bDeviceExistCheck.exchange(0)) DevicePnPCheck(manager);
    const int16_t limit = manager->pSettings->MaxDeviceNums;
    if (static_cast<int16_t>(manager->DeviceCount) >= limit || bDeviceExistCheck.load()) return;

    if (Chooses(manager, kScanUsb)) {
        // The binding's commands can change nothing while the bus holds the same devices.
        if (UsbDevicesChanged()) {
            CheckVIDinlsusb(kQevoVid);
            CheckIniDevPID(manager);
        }
        ScanUSBPort(manager);
    }
    if (Chooses(manager, kScanRs232)) ScanRS232Port(manager);
    if (Chooses(manager, kScanPs2)) ScanPS2Port(manager);
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
            // The receive thread writes the same contact tables and uinput device: it is
            // stopped before the lifts are written, so none of its frames can follow them.
            StopReadThread(device);
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
        default:
            return 0;
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
