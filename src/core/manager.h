// CManager: the one device manager. Owns the singly linked list of device objects and runs
// the endless scan loop on the main thread, the only thread that creates, links, unlinks
// and destroys device objects.
#pragma once

#include <stdint.h>

struct GlobalSettings;
class CDeviceObject;

class CManager {
public:
    explicit CManager(GlobalSettings* settings);

    CDeviceObject* DeviceListHead = nullptr;  // chained through CDeviceObject::pNext
    GlobalSettings* pSettings;                // not owned
    int16_t DeviceCount = 0;                  // always the length of the list
};

constexpr unsigned kScanPeriodUs = 200000;

// Never returns.
[[noreturn]] void EndlessScanLoop(CManager* manager);
// One pass of the loop without its sleep (the loop body; tests drive it directly).
void ScanLoopPass(CManager* manager);
// Removes every device that IsDeviceRemoved reports gone: stops its receive thread, lifts its
// contacts, then destroys it.
void DevicePnPCheck(CManager* manager);
// 1 when the device is gone, 0 when present.
int IsDeviceRemoved(CDeviceObject* device);
// Binds the product ids configured under DevPID to the kernel HID drivers.
void CheckIniDevPID(CManager* manager);
