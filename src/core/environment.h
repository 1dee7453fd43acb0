// What the daemon learns about the running system once at start-up. Written only here,
// before any device thread exists; read anywhere afterwards.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>

struct KernelVersionInfo {
    int32_t major;
    int32_t minor;
    int32_t patch;
};

struct AndroidVersionInfo {
    int32_t major;
    int32_t minor;
};

extern KernelVersionInfo KernelVersion;    // 0.0.0 when unknown
extern int32_t bOldKernel;                 // 1 on 2.6.x with x <= 34
extern AndroidVersionInfo AndroidVersion;  // 0.0 when not on Android

// True when the probe found an Android release. Without one (no getprop answered) the
// daemon runs as on plain Linux.
bool RunsOnAndroid();

// Set by the SIGUSR2 handler and by device threads; read and cleared by the scan loop.
extern std::atomic<uint8_t> bDeviceExistCheck;

// The whole probe: Android, kernel and CPU versions, the maker's USB devices, the root
// check (ends the process unless root) and the SIGUSR2 handler.
void GetEnvironment();
void GetAndroidVersion();
void GetKernelVersion();
void GetCPUinfo();
void ListQEVOUsbDevice();

// Parses the text of /proc/version (len bytes, not terminated) into version; missing
// pieces are 0. Never reads past len.
void ParseKernelVersion(const char* text, size_t len, KernelVersionInfo* version);
// Parses an Android release such as "4.0.4" or "10" (a missing minor is 0).
void ParseAndroidVersion(const char* release, AndroidVersionInfo* version);
// 1 for 2.6.x with x <= 34, else 0.
int32_t IsOldKernel(const KernelVersionInfo& version);

// Logs every word of a "busybox lsusb" listing that contains "3c7a:" with its count from
// 1 and the text after its first five characters. Reads until the end of stream.
void ListQEVOUsbDeviceFrom(FILE* stream);
