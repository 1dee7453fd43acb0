// Kernel HID driver binding, the actions: teach hid-generic and hid-multitouch the
// controllers' product ids through their new_id files.
#include "discovery/hid_binding.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/shell.h"
#include "core/shell_token.h"
#include "discovery/hid_listing.h"
#include "discovery/hid_paths.h"
#include "log/debug_log.h"

namespace {

constexpr int kMaxListedControllers = 16;
constexpr int kUsbBusType = 3;
constexpr int kMultitouchClass = 103;  // read by the kernel as hexadecimal 0x103

// The vendor id as the maker's four hexadecimal digits, the product id in the one form of
// product ids (NormalizeProductId: the settings reader's rule, written as four lower-case
// digits). Copies both into the outputs; false, logged, for anything else.
bool NormalizeIds(const char* vid, const char* pid, char vid_out[kPidTextMax],
                  char pid_out[kPidTextMax]) {
    if (IsProductIdToken(vid) && NormalizeProductId(pid, pid_out)) {
        snprintf(vid_out, kPidTextMax, "%s", vid);
        return true;
    }
    TLOG(LOG_INIT,
         "Refused device id [%.8s]:[%.8s]: a vendor id has 4 hexadecimal digits, a product id "
         "1 to 4",
         vid ? vid : "", pid ? pid : "");
    return false;
}

// Writes the new_id line for vid:pid into new_id_path. The shell's status (0 = written).
int WriteNewId(const char* name, const char* vid, const char* pid, const char* new_id_path,
               const char* failure) {
    TLOG(LOG_MAIN, "Entering %s with VID[%.8s] PID[%.8s]", name, vid ? vid : "", pid ? pid : "");
    char vendor[kPidTextMax];
    char product[kPidTextMax];
    if (!NormalizeIds(vid, pid, vendor, product)) return -1;
    char path[kKernelPathMax];
    char command[kShellCommandMax];
    snprintf(command, sizeof(command), "echo %d %s %s %d > %s", kUsbBusType, vendor, product,
             kMultitouchClass, KernelPath(path, sizeof(path), new_id_path));
    int status = RunShell(command);
    if (status != 0) TLOG_ERR(LOG_INIT, "%s", failure);
    return status;
}

bool KernelPathExists(const char* path) {
    char full[kKernelPathMax];
    return access(KernelPath(full, sizeof(full), path), F_OK) == 0;
}

}  // namespace

void CheckVIDinlsusb(const char* vid) {
    TLOG(LOG_MAIN, "Entering %s()", "CheckVIDinlsusb");
    if (!IsProductIdToken(vid)) {
        TLOG(LOG_INIT, "Vendor id [%.8s] is not four hexadecimal digits", vid ? vid : "");
        return;
    }
    char command[kShellCommandMax];
    snprintf(command, sizeof(command), "%s | grep %s", "busybox lsusb", vid);

    // Collect first, so the bindings below may use the capture file themselves.
    char pids[kMaxListedControllers][8];
    int found = 0;
    CmdListing listing;
    if (OpenListing(&listing, command)) {
        char word[kListingWordMax];
        while (NextListingWord(&listing, word)) {
            const char* at = strstr(word, vid);
            if (!at || strnlen(at, 9) < 9) continue;  // no four characters after "vid:"
            if (found == kMaxListedControllers) {
                TLOG(LOG_MAIN, "More than %d controllers listed; the rest wait for the next pass",
                     kMaxListedControllers);
                break;
            }
            memset(pids[found], 0, sizeof(pids[found]));
            memcpy(pids[found], at + 5, 4);
            if (!IsProductIdToken(pids[found])) {
                TLOG(LOG_INIT, "Listed product id [%s] is not four hexadecimal digits",
                     pids[found]);
                continue;
            }
            ++found;
        }
        CloseListing(&listing);
    }
    for (int i = 0; i < found; ++i) {
        TLOG(LOG_MAIN, "In lsusb: Get device [%s]:[%s].", vid, pids[i]);
        if (CheckModuleInSystem("usbtouchscreen", "usbtouchscreen") == 0) {
            TLOG(LOG_MAIN,
                 "A non-HID compliant module [usbtoucscreen] is loaded in system. Please REMOVE "
                 "it from system! ");
        }
        AddPIDintoModuleRoutine(vid, pids[i]);
    }
}

int AddPidToModule(const char* vid, const char* pid) {
    return WriteNewId("AddPidToModule", vid, pid, kModuleMtNewId,
                      "Add deviceID into hid-multitouch module failed");
}

int AddPidToSysModule(const char* vid, const char* pid) {
    return WriteNewId("AddPidToSysModule", vid, pid, kBusMtNewId,
                      "Add deviceID into hid-multitouch module failed");
}

int AddPidToSysHIDGeneric(const char* vid, const char* pid) {
    return WriteNewId("AddPidToSysHIDGeneric", vid, pid, kBusGenericNewId,
                      "Add deviceID into hid-generic module failed");
}

void ModprobeHidMultitouch() {
    if (!KernelPathExists(kModuleMtDir)) {
        if (RunShell("modprobe hid-multitouch") != 0) {
            TLOG_ERR(LOG_INIT,
                     "Do modprobe hid-multitouch failed. The module hid-multitouch may "
                     "not exist.");
            TLOG_ERR(LOG_INIT,
                     "Please rebuild kernel to make hid-multitouch as a module in system.");
        } else {
            TLOG(LOG_INIT, "Do modprobe hid-multitouch success");
        }
    }
    if (CheckModuleInSystem("hid-multitouch", "hid_multitouch") == -1) {
        TLOG(LOG_INIT, "Module hid-multitouch loaded may be failed.");
    }
}

int AddPIDintoModuleRoutine(const char* vid, const char* pid) {
    TLOG(LOG_MAIN, "Entering %s() with [%.8s]:[%.8s]", "AddPIDintoModuleRoutine", vid ? vid : "",
         pid ? pid : "");
    char vendor[kPidTextMax];
    char product[kPidTextMax];
    if (!NormalizeIds(vid, pid, vendor, product)) return -1;
    vid = vendor;
    pid = product;
    if (CheckPIDinInputDevice(pid) == 1) return 1;
    if (KernelPathExists(kBusGenericDir)) {
        char path[kKernelPathMax];
        TLOG(LOG_MAIN, "found inbuilt hid-generic driver in %s",
             KernelPath(path, sizeof(path), kBusGenericDir));
        if (IsPidInSysHIDGeneric(pid) == 0) AddPidToSysHIDGeneric(vid, pid);
    }
    if (KernelPathExists(kBusMtDir)) {
        TLOG(LOG_MAIN,
             "found inbuilt hid-multitouch driver in /sys/bus/hid/drivers/hid_multitouch/");
        if (IsPidInSysModule(pid) == 1) return 1;
        return AddPidToSysModule(vid, pid);
    }
    ModprobeHidMultitouch();
    if (IsPidInModule(pid) == 1) return 1;
    return AddPidToModule(vid, pid);
}
