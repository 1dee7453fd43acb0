// The harness of the libFuzzer targets (each is one source file plus the library). A failed
// check calls abort(), which libFuzzer reports as a crash.
#pragma once

#include <ftw.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "core/environment.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "touch/reception.h"

namespace fuzz {

inline void Check(bool ok) {
    if (!ok) abort();
}

// The debug log off and sent nowhere; a settings file may switch it on while it is read.
inline void SilenceLog() {
    DebugEnableBits = 0;
    ShowDebugPosition = 3;
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", "/dev/null");
}

// Once per process: the log silenced, standard output on /dev/null, and a fresh data directory
// removed at exit (under TAVRINE_FUZZ_TMPDIR, which scripts/run-fuzz.sh removes even after a
// crash, else on tmpfs: ext4 flushes a file renamed over, milliseconds per input).
inline void QuietProcess() {
    static char dir[64] = "";
    if (dir[0] != '\0') return;
    SilenceLog();
    SetPlatformLogSinkForTest([](bool, const char*) {});
    UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
    if (null_fd.valid()) dup2(null_fd.get(), STDOUT_FILENO);
    const char* base = getenv("TAVRINE_FUZZ_TMPDIR");
    Check(snprintf(dir, sizeof(dir), "%s/tavrine_fuzz_XXXXXX", base && *base ? base : "/dev/shm") <
          static_cast<int>(sizeof(dir)));
    if (mkdtemp(dir) == nullptr) {
        snprintf(dir, sizeof(dir), "%s", "/tmp/tavrine_fuzz_XXXXXX");
        Check(mkdtemp(dir) != nullptr);
    }
    SetDataDirForTest(dir);
    atexit([] {
        nftw(dir, [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
             FTW_DEPTH | FTW_PHYS);
    });
}

// Consumes one input front to back; reads past the end give 0 bytes.
struct InputReader {
    const uint8_t* data;
    size_t size, pos = 0;
    bool empty() const { return pos >= size; }
    uint8_t Byte() { return pos < size ? data[pos++] : 0; }
    // One length byte (modulo max_len + 1), then that many bytes or what is left, copied
    // into an exactly sized block so that AddressSanitizer sees any read past the chunk.
    std::vector<uint8_t> Chunk(int max_len) {
        const size_t want = Byte() % (max_len + 1), take = std::min(want, size - pos);
        pos += take;
        return std::vector<uint8_t>(data + pos - take, data + pos);
    }
};

// A bare device record (no port, no thread) and its settings record. The touch and pen
// devices and the tool's output pipe are /dev/null: event writes succeed, uinput ioctls fail.
struct DeviceRig {
    GlobalSettings settings{};
    std::unique_ptr<CDeviceObject> dev;

    explicit DeviceRig(uint8_t interface) {
        snprintf(settings.UinputPath, sizeof(settings.UinputPath), "%s", kDefaultUinputPath);
        settings.MaxDeviceNums = 1;
        dev.reset(new CDeviceObject(interface == DEV_USB   ? "/dev/hidraw0"
                                    : interface == DEV_PS2 ? "/dev/serio_raw0"
                                                           : "/dev/ttyS0",
                                    &settings));
        dev->DevInterface = interface;
        dev->CmdHeader = interface == DEV_USB ? CMD_HEADER_USB : CMD_HEADER_SERIAL;
        for (UniqueFd* fd : {&dev->UinputTouchFd, &dev->UinputPenFd, &dev->m_fdPipeOut})
            fd->reset(OpenCloexec("/dev/null", O_WRONLY));
        dev->bTouchDeviceCreated = dev->bPenDeviceCreated = true;
        // A sender that never wakes up: a reply matching a signal hook is copied and
        // signalled without the pauses of a wake that finds nobody waiting.
        dev->WaiterCount = 1;
    }
};

// Per-device settings, hooks and process-wide versions from the next nine input bytes, so
// that every report layout, event protocol and transform is reached from the corpus.
inline void ConfigureFromInput(InputReader* in, DeviceRig* rig) {
    CDeviceObject* dev = rig->dev.get();
    DeviceParam& p = dev->Param;
    auto shift = [](int bits) { return static_cast<int8_t>(bits % 6 - 1); };  // -1 to 4
    dev->Series = in->Byte() % 32;
    const uint8_t mode = in->Byte();
    dev->SendRawPoints = mode & 0x3;  // 2 and 3: packets dropped
    dev->bPCAP = (mode >> 2) & 0x1;
    rig->settings.SkipFirstByte = (mode >> 3) & 0x1;
    p.EventType = static_cast<int8_t>((mode >> 4) & 0x7);  // unknown types included
    dev->bPointsToTool = mode >> 7;
    p.SupportPoints = in->Byte();  // any value a settings file may hold
    const uint8_t shifts = in->Byte(), shifts2 = in->Byte(), transform = in->Byte();
    dev->MouseResShift = shift(shifts & 0xF);
    dev->DigitizerResShift = shift(shifts >> 4);
    dev->MTouchResShift = shift(shifts2 & 0xF);
    dev->ParallelResShift = shift(shifts2 >> 4);
    p.Direction = transform & 0x3;
    p.Orientation = (transform >> 2) & 0x3;
    p.EdgeCompensate = (transform >> 4) & 0x1;
    p.HoldFilterEnable = (transform >> 5) & 0x1;
    p.SplitRectMode = (transform >> 6) == 3 ? 9 : (transform >> 6);
    p.CustomRectLeft = 100;
    p.CustomRectRight = 3000;
    p.CustomRectTop = 50;
    p.CustomRectBottom = 4000;
    const uint8_t misc = in->Byte(), resolution = in->Byte(), hook = in->Byte();
    p.VKEYEnable = misc & 0x1;
    p.VKEYReportMod = (misc >> 1) & 0x3;
    for (int i = 0; i < kVKeyCount; ++i) dev->VKeyCode[i] = (misc & 0x1) ? KEY_BACK + i : -1;
    AndroidVersion = AndroidVersionInfo{static_cast<int32_t>((misc >> 3) & 0xF), 0};
    bOldKernel = misc >> 7;
    KernelVersion = bOldKernel ? KernelVersionInfo{2, 6, 32} : KernelVersionInfo{4, 19, 0};
    static const int32_t kResolutions[] = {-1, 0, 1, 800, 1920, 4095, 65535, 0x7FFFFFFF};
    p.ResolX = kResolutions[resolution & 0x7];
    p.ResolY = kResolutions[(resolution >> 3) & 0x7];
    dev->BaudRate = (resolution >> 6) & 0x1 ? 9600 : 115200;
    dev->IAPType = (resolution >> 7) ? IAP_BFW : IAP_FW;
    dev->SigHookCmd = hook & 0x80 ? static_cast<uint16_t>(hook & 0x7F) : 0x100;
    dev->SelfHookCmd = hook & 0x40 ? static_cast<uint16_t>(0x20 + (hook & 0x3F)) : 0x100;
    dev->SigHookSubCmd = dev->SelfHookSubCmd = 0xFFFF;
}

// The reception targets: the configuration, then port reads handed one by one to
// DispatchPortBytes on the same record, whose state carries from read to read.
inline int Reception(InputReader in, uint8_t interface) {
    DeviceRig rig(interface);
    ConfigureFromInput(&in, &rig);
    while (!in.empty()) {
        std::vector<uint8_t> read = in.Chunk(kPortReadMax);
        DispatchPortBytes(rig.dev.get(), read.data(), static_cast<int>(read.size()));
    }
    return 0;
}

inline bool WriteWholeFile(const char* path, const std::string& bytes) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(f.write(bytes.data(), static_cast<std::streamsize>(bytes.size())));
}

inline std::string ReadWholeFile(const char* path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline bool TextFits(const char* text, size_t cap) { return memchr(text, '\0', cap) != nullptr; }

// After a settings step: both settings-file mutexes are free and no temporary copy is left.
inline void CheckFileLocksReleased() {
    for (pthread_mutex_t* m : {&SettingsFileMutex, &TempFileMutex}) {
        Check(pthread_mutex_trylock(m) == 0);
        pthread_mutex_unlock(m);
    }
    Check(access(IniTempPath(), F_OK) != 0);
}

// What a block read left in the record describes file: recorded offsets frame
// "[Device_No.<n>]" ... "[EndOfDevice]" of the block number; every virtual key is "no key"
// or a kernel key code; the address is terminated.
inline void CheckBlockRead(const CDeviceObject* dev, const std::string& file) {
    const DeviceParam& p = dev->Param;
    if (p.BlockStart != 0 || p.BlockEnd != 0) {
        const std::string header = "[Device_No." + std::to_string(p.Device_No) + "]";
        const std::string end = "[EndOfDevice]";
        Check(p.Device_No >= 0 && p.Device_No <= 9 && p.BlockStart < p.BlockEnd &&
              p.BlockEnd <= file.size() && p.BlockEnd >= end.size() &&
              file.compare(p.BlockStart + 1, header.size(), header) == 0 &&
              file.compare(p.BlockEnd - end.size(), end.size(), end) == 0);
    }
    for (int32_t key : dev->VKeyCode) Check(key >= -1 && key <= KEY_MAX);
    Check(TextFits(p.Physical_Address, sizeof(p.Physical_Address)));
}

}  // namespace fuzz
