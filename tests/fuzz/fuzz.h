// The harness of the libFuzzer targets, which scripts/run-fuzz.sh runs over corpus/<target>/
// (seeds in the input format each target's first lines give; regress-* once crashed it).
// Replay an input: build-asan/tests/fuzz/fuzz_<target> <file>. A failed check calls abort().
#pragma once

#include <ftw.h>
#include <string.h>

#include <algorithm>
#include <fstream>
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

// Once per process: quiet output; a fresh data directory under TAVRINE_FUZZ_TMPDIR or on
// tmpfs (ext4 flushes a file renamed over, milliseconds per input), removed at exit.
inline void QuietProcess() {
    static std::string dir;
    if (!dir.empty()) return;
    SilenceLog();
    SetPlatformLogSinkForTest([](bool, const char*) {});
    UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));  // a settings file may log there
    dup2(null_fd.get(), STDOUT_FILENO);
    const char* base = getenv("TAVRINE_FUZZ_TMPDIR");
    dir = std::string(base && *base ? base : "/dev/shm") + "/tavrine_fuzz_XXXXXX";
    Check(mkdtemp(&dir[0]) != nullptr);
    SetDataDirForTest(dir.c_str());
    atexit([] {
        auto remove_one = [](const char* p, const struct stat*, int, FTW*) { return remove(p); };
        nftw(dir.c_str(), remove_one, 16, FTW_DEPTH | FTW_PHYS);
    });
}

// Consumes one input front to back; reads past the end give 0 bytes.
struct InputReader {
    const uint8_t* data;
    size_t size, pos = 0;
    bool empty() const { return pos >= size; }
    uint8_t Byte() { return pos < size ? data[pos++] : 0; }
    // A length byte (mod max_len + 1), then that many bytes in an exactly sized block.
    std::vector<uint8_t> Chunk(int max_len) {
        const size_t take = std::min<size_t>(Byte() % (max_len + 1), size - pos);
        pos += take;
        return std::vector<uint8_t>(data + pos - take, data + pos);
    }
};

// A device record without port or thread; touch, pen and tool outputs are /dev/null.
struct DeviceRig {
    GlobalSettings settings{};
    std::unique_ptr<CDeviceObject> dev;

    explicit DeviceRig(uint8_t interface) {
        settings.MaxDeviceNums = 1;
        dev.reset(new CDeviceObject("/dev/tavrine-fuzz-port", &settings));  // not a node
        dev->DevInterface = interface;
        dev->CmdHeader = interface == DEV_USB ? CMD_HEADER_USB : CMD_HEADER_SERIAL;
        for (UniqueFd* fd : {&dev->UinputTouchFd, &dev->UinputPenFd, &dev->m_fdPipeOut})
            fd->reset(OpenCloexec("/dev/null", O_WRONLY));
        dev->bTouchDeviceCreated = dev->bPenDeviceCreated = true;
        dev->WaiterCount = 1;  // a hooked reply is signalled without a wake's pauses
    }
};

// The reception targets: nine bytes choose settings, hooks and system versions (every report
// layout, event protocol and transform), then port reads go one by one to the same record.
inline int Reception(InputReader in, uint8_t interface) {
    DeviceRig rig(interface);
    CDeviceObject* dev = rig.dev.get();
    DeviceParam& p = dev->Param;
    auto shift = [](int bits) { return static_cast<int8_t>(bits % 6 - 1); };  // -1 to 4
    dev->Series = in.Byte() % 32;
    const uint8_t mode = in.Byte();
    dev->SendRawPoints = mode & 0x3;
    dev->bPCAP = (mode >> 2) & 0x1;
    rig.settings.SkipFirstByte = (mode >> 3) & 0x1;
    p.EventType = static_cast<int8_t>((mode >> 4) & 0x7);  // unknown types included
    dev->bPointsToTool = mode >> 7;
    p.SupportPoints = in.Byte();
    const uint8_t shifts = in.Byte(), shifts2 = in.Byte(), transform = in.Byte();
    dev->MouseResShift = shift(shifts & 0xF);
    dev->DigitizerResShift = shift(shifts >> 4);
    dev->MTouchResShift = shift(shifts2 & 0xF);
    dev->ParallelResShift = shift(shifts2 >> 4);
    p.Direction = transform & 0x3;
    p.Orientation = (transform >> 2) & 0x3;
    p.EdgeCompensate = (transform >> 4) & 0x1;
    p.HoldFilterEnable = (transform >> 5) & 0x1;
    p.SplitRectMode = (transform >> 6) == 3 ? 9 : (transform >> 6);
    const uint8_t misc = in.Byte(), resolution = in.Byte(), hook = in.Byte();
    p.VKEYReportMod = (misc >> 1) & 0x3;
    for (int i = 0; i < kVKeyCount; ++i) dev->VKeyCode[i] = (misc & 0x1) ? KEY_BACK + i : -1;
    AndroidVersion = AndroidVersionInfo{static_cast<int32_t>((misc >> 3) & 0xF), 0};
    bOldKernel = misc >> 7;
    KernelVersion = bOldKernel ? KernelVersionInfo{2, 6, 32} : KernelVersionInfo{4, 19, 0};
    static const int32_t kResolutions[] = {-1, 0, 1, 800, 1920, 4095, 65535, 0x7FFFFFFF};
    p.ResolX = kResolutions[resolution & 0x7];
    p.ResolY = kResolutions[(resolution >> 3) & 0x7];
    dev->BaudRate = (resolution >> 6) & 0x1 ? 9600 : 115200;
    dev->SigHookCmd = hook & 0x80 ? static_cast<uint16_t>(hook & 0x7F) : 0x100;
    dev->SelfHookCmd = hook & 0x40 ? static_cast<uint16_t>(0x20 + (hook & 0x3F)) : 0x100;
    dev->SigHookSubCmd = dev->SelfHookSubCmd = 0xFFFF;
    while (!in.empty()) {
        std::vector<uint8_t> read = in.Chunk(kPortReadMax);
        DispatchPortBytes(dev, read.data(), static_cast<int>(read.size()));
    }
    return 0;
}

inline std::string ReadFile() {
    std::ifstream f(IniFilePath(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// After a settings step: the file locks are free, no temporary copy is left, virtual keys
// are kernel key codes or -1.
inline void CheckSettingsStep(const CDeviceObject* dev) {
    SilenceLog();
    for (pthread_mutex_t* m : {&SettingsFileMutex, &TempFileMutex}) {
        Check(pthread_mutex_trylock(m) == 0);
        pthread_mutex_unlock(m);
    }
    Check(access(IniTempPath(), F_OK) != 0);
    for (int32_t key : dev->VKeyCode) Check(key >= -1 && key <= KEY_MAX);
}

}  // namespace fuzz
