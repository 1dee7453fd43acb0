// Settings file readers: the global sections from a memory stream (text fields stay
// terminated), then the bytes as the settings file, read as a block or through the
// single-device step, which must leave the file as it was.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size == 0) return 0;
    const uint8_t select = data[0];
    const std::string file(data + 1, data + size);
    if (!file.empty()) {
        std::vector<char> copy(file.begin(), file.end());  // fmemopen reads it in place
        FILE* stream = fmemopen(copy.data(), copy.size(), "r");
        fuzz::Check(stream != nullptr);
        GlobalSettings s{};
        snprintf(s.UinputPath, sizeof(s.UinputPath), "%s", kDefaultUinputPath);
        for (auto& path : s.CustomSerialPath) snprintf(path, kTextMax, "%s", "default");
        for (auto& pid : s.DevPID) snprintf(pid, kPidTextMax, "%s", "NULL");
        s.MaxDeviceNums = 1;
        ReadGlobalSettingsFrom(stream, &s);
        fclose(stream);
        fuzz::SilenceLog();
        fuzz::Check(fuzz::TextFits(s.UinputPath, kTextMax));
        for (auto& path : s.CustomSerialPath) fuzz::Check(fuzz::TextFits(path, kTextMax));
        for (auto& pid : s.DevPID) fuzz::Check(fuzz::TextFits(pid, kPidTextMax));
    }

    fuzz::Check(fuzz::WriteWholeFile(IniFilePath(), file));
    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    snprintf(dev->Param.Physical_Address, kTextMax, "%s", "usb-0000:00:14.0-1/input0");
    if (select & 0x80) {
        DevIniRoutine(dev);
        fuzz::Check(fuzz::ReadWholeFile(IniFilePath()) == file);
    } else {
        dev->Param.Device_No = static_cast<int8_t>(select % 12) - 1;  // -1 to 10
        IniDevParamRead(dev);
    }
    fuzz::SilenceLog();
    fuzz::CheckFileLocksReleased();
    fuzz::CheckBlockRead(dev, file);
    return 0;
}
