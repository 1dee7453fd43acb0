// GlobalSettings: the one record of command-line flags and global settings, owned by the
// entry function for the life of the process. The manager and every device object hold a
// pointer to it. The global part of the settings file is read into it at start-up.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

constexpr int kTextMax = 64;         // paths, keys, values and controller names
constexpr int kSerialPathSlots = 5;
constexpr int kDevPidSlots = 10;
constexpr int kPidTextMax = 5;       // four hexadecimal digits and the terminator

constexpr const char* kDaemonVersion = "2.5.6720.";
constexpr const char* kDefaultUinputPath = "/dev/input/uinput";

enum : uint8_t { IAP_FW = 1, IAP_BFW = 2 };

struct GlobalSettings {
    // Command-line flags.
    uint8_t KillRunning;
    uint8_t ShowVersion;
    uint8_t ShowFullVersion;
    uint8_t ForceRestart;
    uint8_t ShowUsage;

    char UinputPath[kTextMax];                         // uinput device node
    char CustomSerialPath[kSerialPathSlots][kTextMax]; // "default" marks an empty slot
    char DevPID[kDevPidSlots][kPidTextMax];            // "NULL" marks an empty slot
    uint8_t CustomPathMask;   // bit 0: serial path configured; bit 1: uinput path configured
    uint32_t BaudRate;        // serial speed to probe with; 0 = search the speed list
    uint32_t DeviceBaudRate;  // speed at which the serial probe found the controller
    int8_t MaxDeviceNums;     // most devices the scan loop keeps ("DeviceNums")
    uint8_t NewDevIAPType;    // IAP type given to each device a scan creates
    uint8_t ScanInterface;    // 0 all, 1 USB, 2 RS232, 3 PS/2, other: no scanning
    bool UseDriverCalib;
    bool SkipFirstByte;
    bool ShiftByteBothEnd;
};

constexpr uint8_t kCustomSerialPathBit = 0x1;
constexpr uint8_t kCustomUinputPathBit = 0x2;

// Guard the settings file and its temporary copy. Always taken in this order.
extern pthread_mutex_t SettingsFileMutex;
extern pthread_mutex_t TempFileMutex;

// Defaults of every field and of the log globals; then removes old logs and names the
// new log file.
void SetDefaultSettings(GlobalSettings* settings);
// Reads the header, the global section and the "[String]" section of the settings file.
void ReadGlobalSettings(GlobalSettings* settings);
// Same, from an open stream (used by ReadGlobalSettings and by tests).
void ReadGlobalSettingsFrom(FILE* stream, GlobalSettings* settings);
void PrintGlobalSettings(const GlobalSettings* settings);

// Locks mutex, then opens path with mode (close-on-exec, never through a symbolic link
// for writing). Returns the stream, or nullptr with the mutex released again.
FILE* LockAndOpenFile(const char* path, const char* mode, pthread_mutex_t* mutex);
// Closes a non-null stream, then releases mutex. Does nothing for nullptr. Returns 0.
int CloseAndUnlockFile(FILE* stream, pthread_mutex_t* mutex);
