// Kernel HID driver binding, the tests: is a module present, is a controller already an
// input device, does a driver directory list it.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/shell.h"
#include "core/shell_token.h"
#include "discovery/hid_binding.h"
#include "discovery/hid_listing.h"
#include "discovery/hid_paths.h"
#include "log/debug_log.h"

namespace {

constexpr const char* kInputDevicesCommand = "cat /proc/bus/input/devices";

bool IsUsbTouchscreen(const char* name) {
    return strcmp(name, "usbtouchscreen") == 0;
}

// 1 when some word of "ls <dir>" contains needle (any case), 0 otherwise.
int DirectoryListsNoCase(const char* dir, const char* needle) {
    char command[kShellCommandMax];
    snprintf(command, sizeof(command), "ls %s", dir);
    CmdListing listing;
    if (!OpenListing(&listing, command)) return 0;
    int found = 0;
    char word[kListingWordMax];
    while (NextListingWord(&listing, word)) {
        if (ContainsNoCase(word, needle)) {
            found = 1;
            break;
        }
    }
    CloseListing(&listing);
    return found;
}

// Lists path in the bus driver directory with "3C7A:<pid>" searched.
int BusDriverLists(const char* driver_dir, const char* pid) {
    if (!IsProductIdToken(pid)) {
        TLOG(LOG_INIT, "Product id [%.8s] is not four hexadecimal digits", pid);
        return 0;
    }
    char dir[kKernelPathMax];
    char needle[16];
    snprintf(needle, sizeof(needle), "3C7A:%s", pid);
    return DirectoryListsNoCase(KernelPath(dir, sizeof(dir), driver_dir), needle);
}

}  // namespace

int CheckModuleInSystem(const char* module_name, const char* dir_name) {
    if (!IsModuleName(module_name) || !IsModuleName(dir_name)) {
        TLOG(LOG_INIT, "Module name [%.64s]/[%.64s] refused", module_name ? module_name : "",
             dir_name ? dir_name : "");
        return -1;
    }
    char command[kShellCommandMax];
    snprintf(command, sizeof(command), "lsmod | grep %s 1>/dev/null 2>/dev/null", module_name);
    if (RunShell(command) == 0) {
        if (IsUsbTouchscreen(module_name)) {
            TLOG(LOG_INIT, "Found a non-HID compliant module [%s] in lsmod", module_name);
        }
        return 0;
    }
    if (IsUsbTouchscreen(module_name)) {
        TLOG(LOG_INIT, "No non-HID compliant module [%s] found in system", module_name);
    } else {
        TLOG(LOG_INIT, "Couldn't find %s module in lsmod", module_name);
    }
    TLOG(LOG_INIT, "Check whether it is build-in kernel.");

    char module_path[kKernelPathMax];
    char sys_path[kKernelPathMax];
    snprintf(module_path, sizeof(module_path), "/sys/module/%s", dir_name);
    KernelPath(sys_path, sizeof(sys_path), module_path);
    if (access(sys_path, F_OK) == 0) {
        TLOG(LOG_INIT, "Module %s is build-in kernel. Path [%s] is existed in system.", module_name,
             sys_path);
        return 0;
    }
    if (IsUsbTouchscreen(module_name)) {
        TLOG(LOG_INIT,
             "No non-HID compliant module [%s] found both in kernel or module list. There's "
             "no path [%s]",
             module_name, sys_path);
    }
    return -1;
}

int CheckPIDinInputDevice(const char* pid) {
    TLOG(LOG_MAIN, "Entering %s()", "CheckPIDinInputDevice");
    char product[24];
    if (!pid) pid = "";
    snprintf(product, sizeof(product), "Product=%.8s", pid);
    CmdListing listing;
    int found = 0;
    if (OpenListing(&listing, kInputDevicesCommand)) {
        char word[kListingWordMax];
        while (!found && NextListingWord(&listing, word)) {
            if (!strstr(word, "Vendor=3c7a")) continue;
            if (!NextListingWord(&listing, word)) break;
            if (strstr(word, product)) found = 1;
        }
        CloseListing(&listing);
    }
    if (found) {
        TLOG(LOG_MAIN, "Under '%s', match device [%s]", kInputDevicesCommand, pid);
        return 1;
    }
    TLOG(LOG_MAIN, "Dismatch device [%s]. Didn't list under %s", pid, kInputDevicesCommand);
    return 0;
}

int IsPidInModule(const char* pid) {
    if (!IsProductIdToken(pid)) {
        TLOG(LOG_INIT, "Product id [%.8s] is not four hexadecimal digits", pid);
        return 0;
    }
    char dir[kKernelPathMax];
    return DirectoryListsNoCase(KernelPath(dir, sizeof(dir), kModuleMtDir), pid);
}

int IsPidInSysModule(const char* pid) {
    return BusDriverLists(kBusMtDir, pid);
}

int IsPidInSysHIDGeneric(const char* pid) {
    return BusDriverLists(kBusGenericDir, pid);
}
