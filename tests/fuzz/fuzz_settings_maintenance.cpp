// Settings file maintenance of a multi-device set-up on any file: the per-device step adds at
// most one insertion, carrying the address; a block rewrite happens only at the block's own
// recorded offsets and never touches the bytes around it.
#include "fuzz.h"

namespace {

void CheckRewrite(CDeviceObject* dev, uint32_t start, uint32_t end) {
    const std::string before = fuzz::ReadFile();
    const DeviceParam& p = dev->Param;
    const bool own = p.BlockStart < p.BlockEnd && start == p.BlockStart && end == p.BlockEnd;
    const int result = IniDevParamAddBlock(dev, start, end);
    fuzz::CheckSettingsStep(dev);
    const std::string after = fuzz::ReadFile();
    if (!own) return fuzz::Check(result == -1 && after == before);
    const size_t suffix = before.size() - end;
    fuzz::Check(result == 0 && after.compare(0, start, before, 0, start) == 0 &&
                after.size() >= start + suffix &&
                after.compare(after.size() - suffix, suffix, before, end, suffix) == 0);
    const std::string block = after.substr(start, after.size() - suffix - start);
    fuzz::Check(block.find("[Device_No." + std::to_string(p.Device_No) + "]") == 1 &&
                block.find(p.Physical_Address) != std::string::npos);
}

}  // namespace

// Input: devices + address byte, SupportPoints byte, 2 rewrite bytes, then the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kAddresses[] = {
        "usb-0000:00:14.0-1/input0", "usb-2/input0", "/dev/ttyS0",
        "usb-0000:00:1d.7-1.2.3.4.5.6.7/input0-aaaaaaaaaaaaaaaaaaaaaaaaa"};  // 63: the longest
    fuzz::QuietProcess();
    if (size < 4) return 0;
    const char* address = kAddresses[(data[0] >> 3) % 4];
    const std::string before(data + 4, data + size);
    fuzz::WriteFile(before);
    fuzz::DeviceRig rig(DEV_USB);
    rig.settings.MaxDeviceNums = static_cast<int8_t>(2 + data[0] % 8);  // 2 to 9
    CDeviceObject* dev = rig.dev.get();
    snprintf(dev->Param.Physical_Address, kTextMax, "%s", address);
    dev->Param.SupportPoints = data[1];
    DevIniRoutine(dev);
    const std::string after = fuzz::ReadFile();
    fuzz::CheckSettingsStep(dev);
    if (after != before) {
        fuzz::Check(after.size() > before.size() && dev->Param.Device_No >= 0);
        const size_t prefix =
            std::mismatch(before.begin(), before.end(), after.begin()).first - before.begin();
        const size_t suffix =
            std::mismatch(before.rbegin(), before.rend(), after.rbegin()).first - before.rbegin();
        fuzz::Check(prefix + suffix >= before.size() &&
                    after.substr(prefix, after.size() - before.size()).find(address) !=
                        std::string::npos);
    }
    // The own block when the first rewrite byte is 0, else offsets from the two bytes.
    const uint32_t now = static_cast<uint32_t>(after.size());
    const uint32_t start = data[2] ? now * data[2] / 256 : dev->Param.BlockStart;
    const uint32_t end = data[2] ? start + 1 + data[3] * (now - start) / 256 : dev->Param.BlockEnd;
    if (start < end) CheckRewrite(dev, start, end);
    return 0;
}
