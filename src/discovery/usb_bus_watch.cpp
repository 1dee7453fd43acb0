// The set of USB devices, from one directory listing: sysfs names every device and
// interface under /sys/bus/usb/devices, and gives a re-added device a new inode number.
#include "discovery/usb_bus_watch.h"

#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/unique_fd.h"
#include "discovery/hid_listing.h"
#include "discovery/hid_paths.h"

namespace {

constexpr const char* kUsbDevicesDir = "/sys/bus/usb/devices";

// FNV-1a over the name, then the inode number; finished with a 64-bit mixer so that the
// sum and the xor of many entries stay spread.
uint64_t EntryDigest(const uint8_t* name, size_t len, uint64_t inode) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < len; ++i) {
        h ^= name[i];
        h *= 1099511628211ull;
    }
    h ^= inode;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ull;
    h ^= h >> 33;
    return h;
}

// A getdents64 record: inode (8 bytes), offset (8), record length (2), type (1), then the
// name, NUL-terminated within the record.
constexpr size_t kDirentNameOffset = 19;

UsbDeviceSet ListUsbDevices(const char* dir) {
    UsbDeviceSet set;
    set.listed = true;
    UniqueFd fd(OpenCloexec(dir, O_RDONLY | O_DIRECTORY));
    if (!fd.valid()) return set;
    set.readable = true;
    alignas(8) uint8_t buffer[4096];
    for (;;) {
        const long got = syscall(SYS_getdents64, fd.get(), buffer, sizeof(buffer));
        if (got <= 0) break;
        size_t at = 0;
        while (at + kDirentNameOffset < static_cast<size_t>(got)) {
            uint64_t inode;
            uint16_t length;
            memcpy(&inode, buffer + at, sizeof(inode));
            memcpy(&length, buffer + at + 16, sizeof(length));
            if (length <= kDirentNameOffset || at + length > static_cast<size_t>(got)) break;
            const uint8_t* name = buffer + at + kDirentNameOffset;
            const size_t len =
                strnlen(reinterpret_cast<const char*>(name), length - kDirentNameOffset);
            at += length;
            if (name[0] == '.' && (len == 1 || (len == 2 && name[1] == '.'))) continue;
            const uint64_t digest = EntryDigest(name, len, inode);
            ++set.count;
            set.sum += digest;
            set.mix ^= digest;
        }
    }
    return set;
}

bool SameSet(const UsbDeviceSet& a, const UsbDeviceSet& b) {
    return a.readable == b.readable && a.count == b.count && a.sum == b.sum && a.mix == b.mix;
}

}  // namespace

bool UsbDeviceSetChanged(const char* dir, UsbDeviceSet* last) {
    const UsbDeviceSet now = ListUsbDevices(dir);
    const bool changed = !last->listed || !SameSet(now, *last);
    *last = now;
    return changed;
}

bool UsbDevicesChanged() {
    static UsbDeviceSet last;
    char dir[kKernelPathMax];
    return UsbDeviceSetChanged(KernelPath(dir, sizeof(dir), kUsbDevicesDir), &last);
}
