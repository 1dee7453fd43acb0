// Settings file readers on any bytes: the global sections keep text fields terminated; a block
// read, or the single-device step (which leaves the file as it was), records sane values.
#include "fuzz.h"

// Input: a selector byte (bit 7: the single-device step, else a block number), then the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size == 0) return 0;
    const std::string file(data + 1, data + size);
    if (!file.empty()) {
        std::vector<char> copy(file.begin(), file.end());  // fmemopen reads it in place
        FILE* stream = fmemopen(copy.data(), copy.size(), "r");
        fuzz::Check(stream != nullptr);
        GlobalSettings s{};  // the empty slots that a value fills
        for (auto& path : s.CustomSerialPath) snprintf(path, kTextMax, "%s", "default");
        for (auto& pid : s.DevPID) snprintf(pid, kPidTextMax, "%s", "NULL");
        ReadGlobalSettingsFrom(stream, &s);
        fclose(stream);
        fuzz::SilenceLog();
        fuzz::Check(strnlen(s.UinputPath, kTextMax) < kTextMax);
        for (auto& path : s.CustomSerialPath) fuzz::Check(strnlen(path, kTextMax) < kTextMax);
        for (auto& pid : s.DevPID) fuzz::Check(strnlen(pid, kPidTextMax) < kPidTextMax);
    }
    fuzz::WriteFile(file);
    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    snprintf(dev->Param.Physical_Address, kTextMax, "%s", "usb-0000:00:14.0-1/input0");
    if (data[0] & 0x80) {
        DevIniRoutine(dev);
        fuzz::Check(fuzz::ReadFile() == file);
    } else {
        dev->Param.Device_No = static_cast<int8_t>(data[0] % 12) - 1;  // -1 to 10
        IniDevParamRead(dev);
    }
    fuzz::CheckSettingsStep(dev);
    return 0;
}
