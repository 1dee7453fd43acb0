// The manager's device list: lookup by port path, append, unlink and destroy.
#include "discovery/device_list.h"

#include <stdio.h>
#include <string.h>

#include <memory>

#include "core/manager.h"
#include "device/device_object.h"
#include "log/debug_log.h"

int IsPortObjExisted(CManager* manager, const char* path) {
    TLOG(LOG_SCAN, "Entering %s", "IsPortObjExisted");
    for (CDeviceObject* device = manager->DeviceListHead; device; device = device->pNext) {
        if (strncmp(device->PortPath, path, sizeof(device->PortPath)) == 0) return 0;
    }
    return -1;
}

int AddandInitDevice(CManager* manager, const char* path, CDeviceObject** head) {
    TLOG(LOG_MAIN, "Entering %s", "AddandInitDevice");
    CDeviceObject** tail = head;
    while (*tail) tail = &(*tail)->pNext;

    manager->DeviceCount++;
    TLOG(LOG_INIT, "Add device [%s], current device amount = %d", path, manager->DeviceCount);
    std::unique_ptr<CDeviceObject> device = CDeviceObject::Create(path, manager->pSettings);
    if (!device) {
        manager->DeviceCount--;
        TLOG(LOG_INIT, "Device [%s] could not be created, current device amount = %d", path,
             manager->DeviceCount);
        return -1;
    }
    *tail = device.release();
    return 0;
}

void RemoveDevice(CManager* manager, CDeviceObject** link) {
    CDeviceObject* device = *link;
    if (!device) return;
    char path[kTextMax];
    snprintf(path, sizeof(path), "%.*s", kTextMax - 1, device->PortPath);
    CDeviceObject* next = device->pNext;
    delete device;
    *link = next;
    manager->DeviceCount--;
    TLOG(LOG_INIT, "Device [%s] was removed, existed device amount = %d", path,
         manager->DeviceCount);
}
