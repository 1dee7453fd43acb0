// Settings file readers: the header, global section and "[String]" section read from a
// memory stream, then the same bytes as the settings file of the data directory read as a
// device's block (numeric pairs and virtual keys) by IniDevParamRead, or through the whole
// per-device step of a single-device set-up, which must leave the file as it was.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "fuzz_common.h"
#include "fuzz_settings.h"

namespace {

void DefaultGlobals(GlobalSettings* s) {
    memset(s, 0, sizeof(*s));
    snprintf(s->UinputPath, sizeof(s->UinputPath), "%s", kDefaultUinputPath);
    for (int i = 0; i < kSerialPathSlots; ++i) {
        snprintf(s->CustomSerialPath[i], kTextMax, "%s", "default");
    }
    for (int i = 0; i < kDevPidSlots; ++i) snprintf(s->DevPID[i], kPidTextMax, "%s", "NULL");
    s->MaxDeviceNums = 1;
}

void ReadGlobals(const uint8_t* data, size_t size) {
    if (size == 0) return;
    // fmemopen reads the caller's buffer in place: give it an exactly sized copy.
    std::vector<uint8_t> copy(data, data + size);
    FILE* stream = fmemopen(copy.data(), copy.size(), "r");
    if (!stream) abort();
    GlobalSettings settings;
    DefaultGlobals(&settings);
    ReadGlobalSettingsFrom(stream, &settings);
    fclose(stream);
    fuzz::SilenceLog();  // the file may switch the log on
    if (!fuzz::TextFits(settings.UinputPath, kTextMax)) abort();
    for (int i = 0; i < kSerialPathSlots; ++i) {
        if (!fuzz::TextFits(settings.CustomSerialPath[i], kTextMax)) abort();
    }
    for (int i = 0; i < kDevPidSlots; ++i) {
        if (!fuzz::TextFits(settings.DevPID[i], kPidTextMax)) abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size == 0) return 0;
    const uint8_t select = data[0];
    const uint8_t* file = data + 1;
    const size_t file_size = size - 1;

    ReadGlobals(file, file_size);

    if (!fuzz::WriteWholeFile(IniFilePath(), file, file_size)) abort();
    const std::string before(reinterpret_cast<const char*>(file), file_size);
    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    snprintf(dev->Param.Physical_Address, kTextMax, "%s", "usb-0000:00:14.0-1/input0");
    if (select & 0x80) {
        rig.settings.MaxDeviceNums = 1;
        DevIniRoutine(dev);
        if (fuzz::ReadWholeFile(IniFilePath()) != before) abort();
    } else {
        dev->Param.Device_No = static_cast<int8_t>(select % 12) - 1;  // -1 to 10
        IniDevParamRead(dev);
    }
    fuzz::SilenceLog();
    fuzz::CheckFileLocksReleased();
    fuzz::CheckBlockRead(dev, before);
    return 0;
}
