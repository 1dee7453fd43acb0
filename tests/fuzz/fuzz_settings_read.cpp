// Settings file readers on any bytes: the global sections keep text fields terminated; a block
// read, or the single-device step (which leaves the file as it was), frees the file locks.
// Input: a selector byte (bit 7: the single-device step, else a block number), then the file.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size == 0) return 0;
    std::string file(data + 1, data + size);
    if (!file.empty()) {
        FILE* stream = fmemopen(&file[0], file.size(), "r");
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
    fuzz::Check(static_cast<bool>(std::ofstream(IniFilePath(), std::ios::binary) << file));
    fuzz::DeviceRig rig(DEV_USB);
    snprintf(rig.dev->Param.Physical_Address, kTextMax, "%s", "usb-0000:00:14.0-1/input0");
    if (data[0] & 0x80) {
        DevIniRoutine(rig.dev.get());
        fuzz::Check(fuzz::ReadFile() == file);
    } else {
        rig.dev->Param.Device_No = static_cast<int8_t>(data[0] % 12) - 1;  // -1 to 10
        IniDevParamRead(rig.dev.get());
    }
    fuzz::CheckSettingsStep(rig.dev.get());
    return 0;
}
