// Settings maintenance of a multi-device set-up on any file: the per-device step adds at most
// one insertion, carrying the address; a block rewrite happens only at the block's recorded
// offsets and keeps the bytes around it. Input: a devices + address byte, a SupportPoints byte,
// 2 rewrite bytes (first 0: the own block, else offsets from both), then the file.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kAddresses[] = {
        "usb-0000:00:14.0-1/input0", "usb-2/input0", "/dev/ttyS0",
        "usb-0000:00:1d.7-1.2.3.4.5.6.7/input0-aaaaaaaaaaaaaaaaaaaaaaaaa"};  // 63: the longest
    fuzz::QuietProcess();
    if (size < 4) return 0;
    const char* address = kAddresses[(data[0] >> 3) % 4];
    const std::string before(data + 4, data + size);
    fuzz::Check(static_cast<bool>(std::ofstream(IniFilePath(), std::ios::binary) << before));
    fuzz::DeviceRig rig(DEV_USB);
    rig.settings.MaxDeviceNums = static_cast<int8_t>(2 + data[0] % 8);  // 2 to 9
    DeviceParam& p = rig.dev->Param;
    snprintf(p.Physical_Address, kTextMax, "%s", address);
    p.SupportPoints = data[1];
    DevIniRoutine(rig.dev.get());
    fuzz::CheckSettingsStep(rig.dev.get());
    const std::string after = fuzz::ReadFile();
    if (after != before) {  // one insertion, carrying the address
        fuzz::Check(after.size() > before.size() && p.Device_No >= 0);
        const size_t at =
            std::mismatch(before.begin(), before.end(), after.begin()).first - before.begin();
        const std::string inserted = after.substr(at, after.size() - before.size());
        fuzz::Check(after.substr(0, at) + after.substr(at + inserted.size()) == before &&
                    inserted.find(address) != std::string::npos);
    }
    const uint32_t now = static_cast<uint32_t>(after.size());
    const uint32_t start = data[2] ? now * data[2] / 256 : p.BlockStart;
    const uint32_t end = data[2] ? start + 1 + data[3] * (now - start) / 256 : p.BlockEnd;
    if (start >= end) return 0;
    const bool own = start == p.BlockStart && end == p.BlockEnd;
    p.SupportPoints ^= 0x5A;  // the rewritten block differs
    const int result = IniDevParamAddBlock(rig.dev.get(), start, end);
    fuzz::CheckSettingsStep(rig.dev.get());
    const std::string rewritten = fuzz::ReadFile();
    const size_t suffix = after.size() - end;
    fuzz::Check(
        own ? result == 0 && rewritten.compare(0, start, after, 0, start) == 0 &&
                  rewritten.size() >= start + suffix &&
                  rewritten.compare(rewritten.size() - suffix, suffix, after, end, suffix) == 0 &&
                  rewritten.find("[Device_No." + std::to_string(p.Device_No) + "]", start) ==
                      start + 1 &&
                  rewritten.find(address, start) < rewritten.size() - suffix
            : result == -1 && rewritten == after);
    return 0;
}
