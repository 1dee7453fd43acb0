// Helpers shared by the libFuzzer targets: a silent process with a private data directory,
// a reader that takes configuration bytes and length-prefixed chunks from one input, and a
// bare device record wired to throw-away descriptors. Header-only: each target is one
// translation unit plus the library.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "config/global_settings.h"
#include "core/environment.h"
#include "core/paths.h"
#include "core/unique_fd.h"
#include "device/device_object.h"
#include "log/debug_log.h"

namespace fuzz {

inline char* DataDirBuffer() {
    static char dir[64] = "";
    return dir;
}

inline int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

inline void RemoveDataDir() {
    if (DataDirBuffer()[0] != '\0') {
        nftw(DataDirBuffer(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

inline void DiscardPlatformLog(bool, const char*) {}

// Once per process: the debug log off and sent nowhere (a settings file may switch it on
// while it is read), standard output to /dev/null, and a fresh data directory (/dev/shm or /tmp)
// (removed at exit) so that no target ever touches the real one.
inline void QuietProcess() {
    static bool done = false;
    if (done) return;
    done = true;
    DebugEnableBits = 0;
    ShowDebugPosition = 3;
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", "/dev/null");
    SetPlatformLogSinkForTest(DiscardPlatformLog);
    UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
    if (null_fd.valid()) dup2(null_fd.get(), STDOUT_FILENO);
    // Under TAVRINE_FUZZ_TMPDIR when set (scripts/run-fuzz.sh removes it, also after a
    // crash, when the exit handler does not run); else tmpfs when there is one: ext4
    // flushes a file truncated or renamed over, which would cost milliseconds per input.
    char pattern[64] = "/dev/shm/tavrine_fuzz_XXXXXX";
    const char* base = getenv("TAVRINE_FUZZ_TMPDIR");
    if (base != nullptr && base[0] != '\0') {
        const int n = snprintf(pattern, sizeof(pattern), "%s/data_XXXXXX", base);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(pattern)) abort();
    }
    char fallback[] = "/tmp/tavrine_fuzz_XXXXXX";
    const char* dir = mkdtemp(pattern);
    if (dir == nullptr) dir = mkdtemp(fallback);
    if (dir == nullptr) abort();
    snprintf(DataDirBuffer(), 64, "%s", dir);
    SetDataDirForTest(DataDirBuffer());
    atexit(RemoveDataDir);
}

// Restores the log globals after code that may have changed them.
inline void SilenceLog() {
    DebugEnableBits = 0;
    ShowDebugPosition = 3;
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", "/dev/null");
}

// Consumes one fuzz input front to back. Reads past the end give 0 bytes.
class InputReader {
  public:
    InputReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return pos_ >= size_; }
    size_t left() const { return size_ - pos_; }

    uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }

    // The next chunk: one length byte, then up to max_len bytes (the length is reduced
    // modulo max_len + 1; a chunk may be shorter when the input ends). The bytes are
    // copied into an exactly sized heap block so that AddressSanitizer sees any read past
    // the chunk.
    std::vector<uint8_t> Chunk(int max_len) {
        const int want = Byte() % (max_len + 1);
        const size_t take = static_cast<size_t>(want) < left() ? static_cast<size_t>(want) : left();
        std::vector<uint8_t> chunk(data_ + pos_, data_ + pos_ + take);
        pos_ += take;
        return chunk;
    }

    // Everything not consumed yet.
    std::vector<uint8_t> Rest() {
        std::vector<uint8_t> rest(data_ + pos_, data_ + size_);
        pos_ = size_;
        return rest;
    }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// A bare device record (no port, no thread) with the settings record it points to. Its
// touch and pen devices and the tool's output pipe are /dev/null opened for writing: the
// event writes succeed, the uinput ioctls fail harmlessly.
struct DeviceRig {
    GlobalSettings settings;
    std::unique_ptr<CDeviceObject> dev;

    explicit DeviceRig(uint8_t interface) {
        memset(&settings, 0, sizeof(settings));
        snprintf(settings.UinputPath, sizeof(settings.UinputPath), "%s", kDefaultUinputPath);
        settings.MaxDeviceNums = 1;
        const char* path = interface == DEV_USB     ? "/dev/hidraw0"
                           : interface == DEV_PS2   ? "/dev/serio_raw0"
                                                    : "/dev/ttyS0";
        dev.reset(new CDeviceObject(path, &settings));
        dev->DevInterface = interface;
        dev->CmdHeader = interface == DEV_USB ? CMD_HEADER_USB : CMD_HEADER_SERIAL;
        dev->UinputTouchFd.reset(OpenCloexec("/dev/null", O_WRONLY));
        dev->UinputPenFd.reset(OpenCloexec("/dev/null", O_WRONLY));
        dev->m_fdPipeOut.reset(OpenCloexec("/dev/null", O_WRONLY));
        dev->bTouchDeviceCreated = true;
        dev->bPenDeviceCreated = true;
        // A sender that never wakes up: the reply that matches a signal hook is copied and
        // signalled without the pauses of a wake that finds nobody waiting.
        dev->WaiterCount = 1;
    }
};

// A resolution shift as the descriptor scan can give it: -1 to 4.
inline int8_t ShiftFrom(uint8_t bits) {
    return static_cast<int8_t>(bits % 6) - 1;
}

// Per-device settings, hook registrations and process-wide versions taken from the first
// eight bytes of the input, so that every report layout, event protocol and transform is
// reached from the corpus.
inline void ConfigureFromInput(InputReader* in, DeviceRig* rig) {
    CDeviceObject* dev = rig->dev.get();
    DeviceParam& p = dev->Param;
    dev->Series = in->Byte() % 32;
    const uint8_t mode = in->Byte();
    dev->SendRawPoints = mode & 0x3;  // 2 and 3: packets dropped
    dev->bPCAP = (mode >> 2) & 0x1;
    rig->settings.SkipFirstByte = (mode >> 3) & 0x1;
    p.EventType = static_cast<int8_t>((mode >> 4) & 0x7);  // 0-7: unknown ones included
    dev->bPointsToTool = mode >> 7;
    p.SupportPoints = in->Byte();  // any value a settings file may hold
    const uint8_t shifts = in->Byte();
    dev->MouseResShift = ShiftFrom(shifts & 0xF);
    dev->DigitizerResShift = ShiftFrom(shifts >> 4);
    const uint8_t shifts2 = in->Byte();
    dev->MTouchResShift = ShiftFrom(shifts2 & 0xF);
    dev->ParallelResShift = ShiftFrom(shifts2 >> 4);
    const uint8_t transform = in->Byte();
    p.Direction = transform & 0x3;
    p.Orientation = (transform >> 2) & 0x3;
    p.EdgeCompensate = (transform >> 4) & 0x1;
    p.HoldFilterEnable = (transform >> 5) & 0x1;
    p.SplitRectMode = (transform >> 6) == 3 ? 9 : (transform >> 6);
    p.CustomRectLeft = 100;
    p.CustomRectRight = 3000;
    p.CustomRectTop = 50;
    p.CustomRectBottom = 4000;
    const uint8_t misc = in->Byte();
    p.VKEYEnable = misc & 0x1;
    p.VKEYReportMod = (misc >> 1) & 0x3;
    for (int i = 0; i < kVKeyCount; ++i) dev->VKeyCode[i] = (misc & 0x1) ? KEY_BACK + i : -1;
    AndroidVersion = AndroidVersionInfo{static_cast<int32_t>((misc >> 3) & 0xF), 0};
    bOldKernel = misc >> 7;
    KernelVersion = bOldKernel ? KernelVersionInfo{2, 6, 32} : KernelVersionInfo{4, 19, 0};
    const uint8_t resolution = in->Byte();
    static const int32_t kResolutions[] = {-1, 0, 1, 800, 1920, 4095, 65535, 0x7FFFFFFF};
    p.ResolX = kResolutions[resolution & 0x7];
    p.ResolY = kResolutions[(resolution >> 3) & 0x7];
    dev->BaudRate = (resolution >> 6) & 0x1 ? 9600 : 115200;
    dev->IAPType = (resolution >> 7) ? IAP_BFW : IAP_FW;
    const uint8_t hook = in->Byte();
    dev->SigHookCmd = hook & 0x80 ? static_cast<uint16_t>(hook & 0x7F) : 0x100;
    dev->SelfHookCmd = hook & 0x40 ? static_cast<uint16_t>(0x20 + (hook & 0x3F)) : 0x100;
    dev->SigHookSubCmd = 0xFFFF;
    dev->SelfHookSubCmd = 0xFFFF;
}

}  // namespace fuzz
