// Serial and PS/2 port scans: which ports are probed in one pass of the scan loop.
#include "discovery/serial_scan.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/device_node.h"
#include "core/manager.h"
#include "core/unique_fd.h"
#include "discovery/device_list.h"
#include "log/debug_log.h"

namespace {

constexpr int kStandardPorts = 10;

bool CountReached(const CManager* manager) {
    return manager->DeviceCount >= manager->pSettings->MaxDeviceNums;
}

enum ProbeResult { kProbeOwned, kProbeNoAnswer, kProbeFound };

// One existing serial port: skipped when a device object owns it already, else probed, and
// a controller that answers is added to the device list.
ProbeResult ProbeSerialPort(CManager* manager, const char* path) {
    TLOG(LOG_SCAN, "----  Scan RS232 Path [%s]  ----", path);
    if (IsPortObjExisted(manager, path) == 0) {
        TLOG(LOG_SCAN, "RS232 Portpath [%s] is already created", path);
        return kProbeOwned;
    }
    if (CheckRS232Device(manager, path) != 0) return kProbeNoAnswer;
    TLOG(LOG_MAIN, "Found a RS232 device at port [%s]", path);
    AddandInitDevice(manager, path, &manager->DeviceListHead);
    return kProbeFound;
}

// Standard ports /dev/ttyS0..9: at most one controller is added per pass.
void ScanStandardSerialPorts(CManager* manager) {
    for (int n = 0; n < kStandardPorts; ++n) {
        if (CountReached(manager)) return;
        char path[32];
        snprintf(path, sizeof(path), "/dev/ttyS%d", n);
        if (access(path, F_OK) != 0) continue;
        if (ProbeSerialPort(manager, path) == kProbeFound) return;
    }
}

// The configured paths; "default" marks an empty slot. Several may be added per pass.
void ScanCustomSerialPorts(CManager* manager) {
    for (int slot = 0; slot < kSerialPathSlots; ++slot) {
        if (CountReached(manager)) return;
        char path[kTextMax];
        snprintf(path, sizeof(path), "%.*s", kTextMax - 1,
                 manager->pSettings->CustomSerialPath[slot]);
        if (strstr(path, "default")) continue;
        if (access(path, F_OK) != 0) {
            TLOG_ERR(LOG_INIT, "RS232 custom path [%s] doesn't exist", path);
            continue;
        }
        if (ProbeSerialPort(manager, path) == kProbeNoAnswer) {
            TLOG(LOG_INIT, "failed to check device [%s].", path);
        }
    }
}

}  // namespace

void ScanRS232Port(CManager* manager) {
    if (CountReached(manager)) return;
    manager->pSettings->NewDevIAPType = IAP_FW;
    if (manager->pSettings->CustomPathMask & kCustomSerialPathBit) {
        ScanCustomSerialPorts(manager);
    } else {
        ScanStandardSerialPorts(manager);
    }
}

void ScanPS2Port(CManager* manager) {
    for (int n = 0; n < kStandardPorts; ++n) {
        if (CountReached(manager)) return;
        char path[32];
        snprintf(path, sizeof(path), "/dev/serio_raw%d", n);
        if (access(path, F_OK) != 0) continue;
        TLOG(LOG_SCAN, "----  Scan PS2 Path [%s]  ----", path);
        if (IsPortObjExisted(manager, path) == 0) continue;
        UniqueFd fd(OpenDeviceNode(path, O_RDWR | O_NONBLOCK, kNodeAnyChar));
        if (!fd.valid()) {
            TLOG(LOG_SCAN, "Open port [%s] failed", path);
            continue;
        }
        fd.reset();
        AddandInitDevice(manager, path, &manager->DeviceListHead);
    }
}
