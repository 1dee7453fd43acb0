// Settings file maintenance: a device of a multi-device set-up runs its per-device step on
// a fuzzed settings file: it matches its block by physical address, claims an empty address
// line or adds a block. Afterwards the file is either unchanged or the old file with exactly
// one insertion that carries the device's address; a second device with the same address
// then finds the same block and changes nothing; the locks are free and no temporary copy
// is left.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "fuzz_common.h"
#include "fuzz_settings.h"

namespace {

const char* const kAddresses[] = {
    "usb-0000:00:14.0-1/input0",
    "usb-2/input0",
    "/dev/ttyS0",
    // The longest address a record holds (63 characters).
    "usb-0000:00:1d.7-1.2.3.4.5.6.7/input0-aaaaaaaaaaaaaaaaaaaaaaaaa",
};

// True when after is before with one block of bytes inserted at one offset.
bool IsOneInsertion(const std::string& before, const std::string& after, std::string* inserted) {
    if (after.size() <= before.size()) return false;
    size_t prefix = 0;
    while (prefix < before.size() && before[prefix] == after[prefix]) ++prefix;
    size_t suffix = 0;
    while (suffix < before.size() &&
           before[before.size() - 1 - suffix] == after[after.size() - 1 - suffix]) {
        ++suffix;
    }
    if (prefix + suffix < before.size()) return false;
    *inserted = after.substr(prefix, after.size() - before.size());
    return true;
}

// The per-device step of a fresh device record; returns its block number.
int RunDeviceStep(uint8_t max_devices, const char* address, uint8_t support_points) {
    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    rig.settings.MaxDeviceNums = static_cast<int8_t>(max_devices);
    snprintf(dev->Param.Physical_Address, kTextMax, "%s", address);
    dev->Param.SupportPoints = support_points;
    DevIniRoutine(dev);
    fuzz::SilenceLog();
    fuzz::CheckFileLocksReleased();
    fuzz::CheckBlockRead(dev, fuzz::ReadWholeFile(IniFilePath()));
    if (dev->Param.Device_No < -1 || dev->Param.Device_No > 9) abort();
    return dev->Param.Device_No;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size < 2) return 0;
    const uint8_t max_devices = static_cast<uint8_t>(2 + data[0] % 8);  // 2 to 9
    const char* address = kAddresses[(data[0] >> 3) % 4];
    const uint8_t support_points = data[1];
    const std::string before(reinterpret_cast<const char*>(data + 2), size - 2);
    if (!fuzz::WriteWholeFile(IniFilePath(), data + 2, size - 2)) abort();

    const int first = RunDeviceStep(max_devices, address, support_points);
    const std::string after = fuzz::ReadWholeFile(IniFilePath());
    if (after != before) {
        std::string inserted;
        if (!IsOneInsertion(before, after, &inserted)) abort();
        if (inserted.find(address) == std::string::npos) abort();
        if (first < 0) abort();  // a change is always for the device's own block
        // The file still parses: the same device finds its block and changes nothing.
        const int second = RunDeviceStep(max_devices, address, support_points);
        if (second != first || fuzz::ReadWholeFile(IniFilePath()) != after) abort();
    }
    return 0;
}
