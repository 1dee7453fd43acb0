// Settings file maintenance of a multi-device set-up: the per-device step leaves the file
// unchanged or adds one insertion carrying the address, which a second device with that
// address finds again; a rewrite replaces exactly its block's recorded bytes and is refused at
// any other offsets. Locks are free and no temporary copy is left after every step.
#include "fuzz.h"

namespace {

// The per-device step of a fresh record on address; returns it after the checks.
std::unique_ptr<fuzz::DeviceRig> DeviceStep(int max_devices, const char* address, uint8_t points) {
    std::unique_ptr<fuzz::DeviceRig> rig(new fuzz::DeviceRig(DEV_USB));
    rig->settings.MaxDeviceNums = static_cast<int8_t>(max_devices);
    CDeviceObject* dev = rig->dev.get();
    snprintf(dev->Param.Physical_Address, kTextMax, "%s", address);
    dev->Param.SupportPoints = points;
    DevIniRoutine(dev);
    fuzz::SilenceLog();
    fuzz::CheckFileLocksReleased();
    fuzz::CheckBlockRead(dev, fuzz::ReadWholeFile(IniFilePath()));
    fuzz::Check(dev->Param.Device_No >= -1 && dev->Param.Device_No <= 9);
    return rig;
}

// Rewrites [start, end) as the device's block: allowed only at the block's own recorded
// offsets, and then the file is prefix + a block that reads back + suffix.
void CheckBlockRewrite(CDeviceObject* dev, uint32_t start, uint32_t end) {
    const std::string before = fuzz::ReadWholeFile(IniFilePath());
    const DeviceParam recorded = dev->Param;
    const int result = IniDevParamAddBlock(dev, start, end);
    fuzz::SilenceLog();
    fuzz::CheckFileLocksReleased();
    const std::string after = fuzz::ReadWholeFile(IniFilePath());
    if (recorded.BlockEnd <= recorded.BlockStart || start != recorded.BlockStart ||
        end != recorded.BlockEnd) {
        fuzz::Check(result == -1 && after == before);
        return;
    }
    const size_t suffix = before.size() - end;
    fuzz::Check(result == 0 && after.compare(0, start, before, 0, start) == 0 &&
                after.size() >= start + suffix &&
                after.compare(after.size() - suffix, suffix, before, end, suffix) == 0);
    const std::string block = after.substr(start, after.size() - suffix - start);
    fuzz::Check(block.find("[Device_No." + std::to_string(recorded.Device_No) + "]") == 1 &&
                block.find(recorded.Physical_Address) != std::string::npos);
    fuzz::DeviceRig again(DEV_USB);  // the new block reads back with the device's values
    again.dev->Param.Device_No = recorded.Device_No;
    IniDevParamRead(again.dev.get());
    fuzz::SilenceLog();
    fuzz::Check(again.dev->Param.SupportPoints == dev->Param.SupportPoints);
    fuzz::CheckBlockRead(again.dev.get(), after);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kAddresses[] = {
        "usb-0000:00:14.0-1/input0", "usb-2/input0", "/dev/ttyS0",
        "usb-0000:00:1d.7-1.2.3.4.5.6.7/input0-aaaaaaaaaaaaaaaaaaaaaaaaa"};  // 63: the longest
    fuzz::QuietProcess();
    if (size < 4) return 0;
    const int max_devices = 2 + data[0] % 8;  // 2 to 9
    const char* address = kAddresses[(data[0] >> 3) % 4];
    const uint8_t points = data[1], rewrite = data[2], rewrite_end = data[3];
    const std::string before(data + 4, data + size);
    fuzz::Check(fuzz::WriteWholeFile(IniFilePath(), before));

    std::unique_ptr<fuzz::DeviceRig> rig = DeviceStep(max_devices, address, points);
    CDeviceObject* dev = rig->dev.get();
    const std::string after = fuzz::ReadWholeFile(IniFilePath());
    if (after != before) {
        // One insertion, carrying the address, for the device's own block.
        fuzz::Check(after.size() > before.size() && dev->Param.Device_No >= 0);
        size_t prefix = 0, suffix = 0;
        while (prefix < before.size() && before[prefix] == after[prefix]) ++prefix;
        while (suffix < before.size() &&
               before[before.size() - 1 - suffix] == after[after.size() - 1 - suffix]) {
            ++suffix;
        }
        fuzz::Check(prefix + suffix >= before.size() &&
                    after.substr(prefix, after.size() - before.size()).find(address) !=
                        std::string::npos);
        // The file still parses: the same address finds its block and changes nothing.
        fuzz::Check(DeviceStep(max_devices, address, points)->dev->Param.Device_No ==
                    dev->Param.Device_No);
        fuzz::Check(fuzz::ReadWholeFile(IniFilePath()) == after);
    }
    dev->Param.SupportPoints = static_cast<uint8_t>(points ^ 0x5A);
    if (rewrite == 0) {  // the own block; else offsets from the two rewrite bytes
        if (dev->Param.BlockEnd > dev->Param.BlockStart) {
            CheckBlockRewrite(dev, dev->Param.BlockStart, dev->Param.BlockEnd);
        }
    } else {
        const uint32_t now = static_cast<uint32_t>(after.size());
        const uint32_t start = now * rewrite / 256;
        CheckBlockRewrite(dev, start, start + 1 + rewrite_end * (now - start) / 256);
    }
    return 0;
}
