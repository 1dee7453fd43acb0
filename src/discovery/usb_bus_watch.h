// Whether the set of USB devices changed since the last look, without starting a process:
// the kernel driver binding lists the bus and teaches the drivers only then.
#pragma once

#include <stdint.h>

// What one listing of the USB devices directory saw. A device that goes and comes back
// on the same port has a new directory entry, so it counts as a change too.
struct UsbDeviceSet {
    bool listed = false;  // a listing was taken
    bool readable = false;
    uint32_t count = 0;
    uint64_t sum = 0;  // order-independent digest of the entries' names and inode numbers
    uint64_t mix = 0;
};

// Lists dir and replaces *last with what it saw. true on the first call, and whenever the
// entries differ from *last (a directory that cannot be read counts as one state of its
// own, so a bus that appears or vanishes is a change as well).
bool UsbDeviceSetChanged(const char* dir, UsbDeviceSet* last);
// The same for /sys/bus/usb/devices (under the test root of KernelPath), with the state
// kept for the process. Called by the scan loop on the main thread only.
bool UsbDevicesChanged();
