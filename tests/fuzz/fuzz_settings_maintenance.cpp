// Settings file maintenance: a device of a multi-device set-up runs its per-device step on
// a fuzzed settings file: it matches its block by physical address, claims an empty address
// line or adds a block. Afterwards the file is either unchanged or the old file with exactly
// one insertion that carries the device's address; a second device with the same address
// then finds the same block and changes nothing. A rewrite of the device's block (with a new
// SupportPoints) replaces exactly the bytes between the recorded block offsets, and a
// rewrite at any other offsets is refused and changes nothing. After every step the locks
// are free and no temporary copy is left.
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

// The per-device step of a device record; returns its block number.
int RunDeviceStep(CDeviceObject* dev, const char* address, uint8_t support_points) {
    snprintf(dev->Param.Physical_Address, kTextMax, "%s", address);
    dev->Param.SupportPoints = support_points;
    DevIniRoutine(dev);
    fuzz::SilenceLog();
    fuzz::CheckFileLocksReleased();
    fuzz::CheckBlockRead(dev, fuzz::ReadWholeFile(IniFilePath()));
    if (dev->Param.Device_No < -1 || dev->Param.Device_No > 9) abort();
    return dev->Param.Device_No;
}

// Rewrites [start, end) as the device's block. Allowed only for the block's own recorded
// offsets: then the file is prefix + new block + suffix, otherwise it is unchanged.
void CheckBlockRewrite(CDeviceObject* dev, uint32_t start, uint32_t end) {
    const std::string before = fuzz::ReadWholeFile(IniFilePath());
    const DeviceParam recorded = dev->Param;
    const int result = IniDevParamAddBlock(dev, start, end);
    fuzz::SilenceLog();
    fuzz::CheckFileLocksReleased();
    const std::string after = fuzz::ReadWholeFile(IniFilePath());
    const bool own_block = recorded.BlockEnd > recorded.BlockStart &&
                           start == recorded.BlockStart && end == recorded.BlockEnd;
    if (!own_block) {
        if (result != -1 || after != before) abort();
        return;
    }
    if (result != 0) abort();
    if (after.compare(0, start, before, 0, start) != 0) abort();
    const size_t suffix = before.size() - end;
    if (after.size() < start + suffix) abort();
    if (after.compare(after.size() - suffix, suffix, before, end, suffix) != 0) abort();
    char header[32];
    snprintf(header, sizeof(header), "[Device_No.%d]", recorded.Device_No);
    const std::string block = after.substr(start, after.size() - suffix - start);
    if (block.find(header) != 1 || block.find(recorded.Physical_Address) == std::string::npos) {
        abort();
    }
    // The rewritten block reads back with the device's values.
    fuzz::DeviceRig again(DEV_USB);
    again.dev->Param.Device_No = recorded.Device_No;
    IniDevParamRead(again.dev.get());
    fuzz::SilenceLog();
    if (again.dev->Param.SupportPoints != dev->Param.SupportPoints) abort();
    fuzz::CheckBlockRead(again.dev.get(), after);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size < 4) return 0;
    const uint8_t max_devices = static_cast<uint8_t>(2 + data[0] % 8);  // 2 to 9
    const char* address = kAddresses[(data[0] >> 3) % 4];
    const uint8_t support_points = data[1];
    const uint8_t rewrite = data[2];  // 0: own block; else offsets from this byte and data[3]
    const uint8_t rewrite_end = data[3];
    const std::string before(reinterpret_cast<const char*>(data + 4), size - 4);
    if (!fuzz::WriteWholeFile(IniFilePath(), data + 4, size - 4)) abort();

    fuzz::DeviceRig rig(DEV_USB);
    rig.settings.MaxDeviceNums = static_cast<int8_t>(max_devices);
    const int first = RunDeviceStep(rig.dev.get(), address, support_points);
    const std::string after = fuzz::ReadWholeFile(IniFilePath());
    if (after != before) {
        std::string inserted;
        if (!IsOneInsertion(before, after, &inserted)) abort();
        if (inserted.find(address) == std::string::npos) abort();
        if (first < 0) abort();  // a change is always for the device's own block
        // The file still parses: the same device finds its block and changes nothing.
        fuzz::DeviceRig second(DEV_USB);
        second.settings.MaxDeviceNums = static_cast<int8_t>(max_devices);
        if (RunDeviceStep(second.dev.get(), address, support_points) != first) abort();
        if (fuzz::ReadWholeFile(IniFilePath()) != after) abort();
    }

    CDeviceObject* dev = rig.dev.get();
    dev->Param.SupportPoints = static_cast<uint8_t>(support_points ^ 0x5A);
    if (rewrite == 0) {
        if (dev->Param.BlockEnd > dev->Param.BlockStart) {
            CheckBlockRewrite(dev, dev->Param.BlockStart, dev->Param.BlockEnd);
        }
    } else {
        const uint32_t size_now = static_cast<uint32_t>(after.size());
        const uint32_t start = size_now * rewrite / 256;
        const uint32_t end = start + 1 + rewrite_end * (size_now - start) / 256;
        CheckBlockRewrite(dev, start, end);
    }
    return 0;
}
