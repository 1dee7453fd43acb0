#include "core/environment.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/paths.h"
#include "core/pnp_signal.h"
#include "core/shell.h"
#include "core/single_instance.h"
#include "log/debug_log.h"

namespace {

constexpr size_t kProcVersionRead = 64;    // bytes of /proc/version that are read
constexpr size_t kProcVersionPrefix = 14;  // "Linux version "
constexpr size_t kCpuTextMax = 512;
constexpr const char* kQevoVidTag = "3c7a:";

// atoi that cannot overflow: the leading decimal number of text, clamped to int32, or 0.
int32_t ToInt(const char* text) {
    const long long value = strtoll(text, nullptr, 10);  // clamps itself to the 64-bit range
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

// Splits text (terminated, modified in place) at '.' as strtok does and converts the
// first count pieces; missing pieces are 0.
void SplitNumbers(char* text, int32_t* out, int count) {
    char* save = nullptr;
    char* piece = strtok_r(text, ".", &save);
    for (int i = 0; i < count; ++i) {
        out[i] = piece ? ToInt(piece) : 0;
        if (piece) piece = strtok_r(nullptr, ".", &save);
    }
}

void CloseAndRemove(FILE* stream) {
    fclose(stream);
    unlink(DrvLogPath());
}

}  // namespace

void ParseKernelVersion(const char* text, size_t len, KernelVersionInfo* version) {
    int32_t numbers[3] = {0, 0, 0};
    if (len > kProcVersionRead) len = kProcVersionRead;
    if (len > kProcVersionPrefix) {
        char piece[kProcVersionRead + 1];
        const size_t n = len - kProcVersionPrefix;
        memcpy(piece, text + kProcVersionPrefix, n);
        piece[n] = '\0';
        SplitNumbers(piece, numbers, 3);
    }
    version->major = numbers[0];
    version->minor = numbers[1];
    version->patch = numbers[2];
}

void ParseAndroidVersion(const char* release, AndroidVersionInfo* version) {
    char text[kTextMax];
    snprintf(text, sizeof(text), "%s", release);
    int32_t numbers[2] = {0, 0};
    SplitNumbers(text, numbers, 2);
    version->major = numbers[0];
    version->minor = numbers[1];
}

bool RunsOnAndroid() {
    return AndroidVersion.major > 0;
}

int32_t IsOldKernel(const KernelVersionInfo& version) {
    return (version.major == 2 && version.minor == 6 && version.patch <= 34) ? 1 : 0;
}

void GetAndroidVersion() {
    TLOG(LOG_INIT, "Entering %s", "GetAndroidVersion");
    FILE* stream = RunShellCommand("getprop ro.build.version.release", DrvLogPath());
    if (!stream) {
        TLOG(LOG_INIT, "Get Android Version failed");
        return;
    }
    char release[kTextMax] = "";
    if (fscanf(stream, "%63s", release) != 1) release[0] = '\0';
    ParseAndroidVersion(release, &AndroidVersion);
    TLOG(LOG_MAIN, "Android Version: %d.%d", AndroidVersion.major, AndroidVersion.minor);
    CloseAndRemove(stream);
}

void GetKernelVersion() {
    TLOG(LOG_MAIN, "Entering %s", "GetKernelVersion");
    FILE* stream = RunShellCommand("cat /proc/version", DrvLogPath());
    if (!stream) {
        TLOG(LOG_MAIN, "Get Kernel Version failed");
        return;
    }
    char text[kProcVersionRead];
    const size_t n = fread(text, 1, sizeof(text), stream);
    ParseKernelVersion(text, n, &KernelVersion);
    TLOG(LOG_MAIN, "Kernel_Version = %d.%d.%d", KernelVersion.major, KernelVersion.minor,
         KernelVersion.patch);
    CloseAndRemove(stream);
}

void GetCPUinfo() {
    TLOG(LOG_MAIN, "Entering %s", "GetCPUinfo");
    FILE* stream = RunShellCommand("uname -m", DrvLogPath());
    if (!stream) {
        TLOG(LOG_MAIN, "Get CPU Info failed");
        return;
    }
    char cpu[kCpuTextMax] = "";
    size_t used = 0;
    char word[kTextMax];
    while (fscanf(stream, "%63s", word) == 1) {
        int n = snprintf(cpu + used, sizeof(cpu) - used, "%s", word);
        if (n < 0) break;
        used += static_cast<size_t>(n);
        if (used >= sizeof(cpu) - 1) break;  // full: the rest is dropped
    }
    TLOG(LOG_MAIN, "CPU = %s", cpu);
    CloseAndRemove(stream);
}

void ListQEVOUsbDeviceFrom(FILE* stream) {
    char word[kTextMax];
    int count = 0;
    while (fscanf(stream, "%63s", word) == 1) {
        if (!strstr(word, kQevoVidTag)) continue;
        ++count;
        // The word holds "3c7a:" so it has at least five characters.
        TLOG(LOG_MAIN, "All avaialbe connected USB Device #%d. PID: %s", count, word + 5);
    }
}

void ListQEVOUsbDevice() {
    TLOG(LOG_MAIN, "Entering %s", "ListQEVOUsbDevice");
    FILE* stream = RunShellCommand("busybox lsusb", DrvLogPath());
    if (!stream) {
        TLOG(LOG_MAIN, "List QEVO USB Device failed");
        return;
    }
    ListQEVOUsbDeviceFrom(stream);
    CloseAndRemove(stream);
}

void GetEnvironment() {
    TLOG(LOG_MAIN, "===============   Entering %s   ===============", "GetEnvironment");
    GetAndroidVersion();
    GetKernelVersion();
    GetCPUinfo();
    bOldKernel = IsOldKernel(KernelVersion);
    ListQEVOUsbDevice();
    CheckRootPermission();
    if (InstallSigUsr2Handler() != 0) {
        TLOG_ERR(LOG_MAIN, "Install the SIGUSR2 handler failed");
    }
    TLOG(LOG_MAIN, "---------------  Done with %s   ---------------", "GetEnvironment");
}
