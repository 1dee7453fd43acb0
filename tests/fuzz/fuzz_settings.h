// Helpers of the settings-file targets: whole-file access in the fuzzers' data directory
// and the checks every read of a device block must pass.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "config/device_param.h"
#include "config/global_settings.h"
#include "core/paths.h"
#include "device/device_object.h"

namespace fuzz {

inline bool WriteWholeFile(const char* path, const uint8_t* data, size_t size) {
    FILE* f = fopen(path, "wbe");
    if (!f) return false;
    const bool ok = fwrite(data, 1, size, f) == size;
    return fclose(f) == 0 && ok;
}

inline std::string ReadWholeFile(const char* path) {
    std::string bytes;
    FILE* f = fopen(path, "rbe");
    if (!f) return bytes;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) bytes.append(chunk, n);
    fclose(f);
    return bytes;
}

inline bool TextFits(const char* text, size_t cap) {
    return memchr(text, '\0', cap) != nullptr;
}

// Both settings-file mutexes are free again and no temporary copy is left behind.
inline void CheckFileLocksReleased() {
    if (pthread_mutex_trylock(&SettingsFileMutex) != 0) abort();
    pthread_mutex_unlock(&SettingsFileMutex);
    if (pthread_mutex_trylock(&TempFileMutex) != 0) abort();
    pthread_mutex_unlock(&TempFileMutex);
    if (access(IniTempPath(), F_OK) == 0) abort();
}

// What IniDevParamRead left in the record must describe file: the block offsets (when
// recorded) frame "[Device_No.<n>]" ... "[EndOfDevice]" of the device's block number, and
// every virtual key is "no key" or a kernel key code.
inline void CheckBlockRead(const CDeviceObject* dev, const std::string& file) {
    const DeviceParam& p = dev->Param;
    if (p.BlockStart != 0 || p.BlockEnd != 0) {
        if (p.Device_No < 0 || p.Device_No > 9) abort();
        if (p.BlockStart >= p.BlockEnd || p.BlockEnd > file.size()) abort();
        char header[32];
        snprintf(header, sizeof(header), "[Device_No.%d]", p.Device_No);
        if (file.compare(p.BlockStart + 1, strlen(header), header) != 0) abort();
        const size_t end_len = strlen("[EndOfDevice]");
        if (p.BlockEnd < end_len || file.compare(p.BlockEnd - end_len, end_len, "[EndOfDevice]") != 0) {
            abort();
        }
    }
    for (int i = 0; i < kVKeyCount; ++i) {
        if (dev->VKeyCode[i] < -1 || dev->VKeyCode[i] > KEY_MAX) abort();
    }
    if (!TextFits(p.Physical_Address, sizeof(p.Physical_Address))) abort();
}

}  // namespace fuzz
