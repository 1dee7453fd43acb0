// The libFuzzer targets, one executable per function of namespace fuzz (FUZZ_TARGET names it).
// Replay an input: build-asan/tests/fuzz/fuzz_<target> <file>. A failed check aborts.
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "core/environment.h"
#include "core/paths.h"
#include "device/descriptor.h"
#include "device/device_object.h"
#include "discovery/probe_exchange.h"
#include "log/debug_log.h"
#include "toolpipe/tool_pipe.h"
#include "touch/reception.h"

namespace fuzz {

void Check(bool ok) {
    if (!ok) abort();
}

// The debug log off and sent nowhere; a settings file may switch it on while it is read.
void SilenceLog() {
    DebugEnableBits = 0;
    ShowDebugPosition = 3;
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", "/dev/null");
}

// Consumes an input front to back; reads past the end give 0 bytes.
struct InputReader {
    const uint8_t* data;
    size_t size, pos = 0;
    bool empty() const { return pos >= size; }
    uint8_t Byte() { return pos < size ? data[pos++] : 0; }
    // A length byte (mod max_len + 1), then that many bytes, exactly sized for ASan.
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

// Input: nine bytes choose settings, hooks and system versions, then port reads (Chunk).
void usb_reception(InputReader in, uint8_t interface = DEV_USB) {
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
}

std::string ReadSettings() {
    std::ifstream f(IniFilePath(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// After a settings step: locks free, no temporary copy left, virtual keys key codes or -1.
void CheckSettingsStep(const CDeviceObject* dev) {
    SilenceLog();
    for (pthread_mutex_t* m : {&SettingsFileMutex, &TempFileMutex}) {
        Check(pthread_mutex_trylock(m) == 0);
        pthread_mutex_unlock(m);
    }
    Check(access(IniTempPath(), F_OK) != 0);
    for (int32_t key : dev->VKeyCode) Check(key >= -1 && key <= KEY_MAX);
}

// Input: an interface byte, then as usb_reception.
void serial_reception(InputReader in) {
    const uint8_t interface = (in.Byte() & 0x1) ? DEV_PS2 : DEV_RS232;
    usb_reception(in, interface);
}

// Input: a HID report descriptor; its resolution shifts stay in the point parser's -1..4.
void descriptor(InputReader in) {
    if (in.size > static_cast<size_t>(kMaxDescriptorSize)) return;
    const std::vector<uint8_t> d(in.data, in.data + in.size);  // exactly sized for ASan
    DeviceRig rig(DEV_USB);
    CDeviceObject& dev = *rig.dev;
    ApplyReportDescriptor(&dev, d.data(), static_cast<int>(d.size()));
    for (int s :
         {dev.MouseResShift, dev.DigitizerResShift, dev.MTouchResShift, dev.ParallelResShift})
        Check(s >= -1 && s <= 4);
}

// Input: a framing byte, a command byte, packets (Chunk); reply length and parser index in bounds.
void probe_reply(InputReader in) {
    ProbeContext context = {{}, static_cast<uint8_t>(in.Byte() & 0x1)};
    const uint8_t cmd = in.Byte();
    std::vector<std::vector<uint8_t>> packets;
    while (!in.empty()) packets.push_back(in.Chunk(65));  // one read of the probe reader + 1
    int fds[2];
    Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0);
    UniqueFd port(fds[0]), controller(fds[1]);
    for (const std::vector<uint8_t>& p : packets)
        if (!p.empty()) send(controller.get(), p.data(), p.size(), 0);
    controller.reset();
    uint8_t reply[kReplyBufSize] = {};
    const int length = ReadDeviceResponse(&context, port.get(), reply, cmd);
    Check(length >= -1 && length <= kReplyBufSize);
    ResetSerialReplyParser();
    for (const std::vector<uint8_t>& p : packets) {
        Parse232CmdPacket(p.data(), static_cast<int>(p.size()));
        Check(SerialReplyParser.index <= sizeof(SerialReplyParser.packet));
    }
}

// Input: a selector (bit 7: the single-device step, else a block number), then a settings file.
// Global text fields stay terminated; the single-device step leaves the file as it was.
void settings_read(InputReader in) {
    if (in.empty()) return;
    const uint8_t selector = in.Byte();
    std::string file(in.data + 1, in.data + in.size);
    if (!file.empty()) {
        FILE* stream = fmemopen(&file[0], file.size(), "r");
        GlobalSettings s{};  // the empty slots that a value fills
        for (auto& path : s.CustomSerialPath) snprintf(path, kTextMax, "%s", "default");
        for (auto& pid : s.DevPID) snprintf(pid, kPidTextMax, "%s", "NULL");
        ReadGlobalSettingsFrom(stream, &s);
        fclose(stream);
        SilenceLog();
        Check(strnlen(s.UinputPath, kTextMax) < kTextMax);
        for (auto& path : s.CustomSerialPath) Check(strnlen(path, kTextMax) < kTextMax);
        for (auto& pid : s.DevPID) Check(strnlen(pid, kPidTextMax) < kPidTextMax);
    }
    Check(static_cast<bool>(std::ofstream(IniFilePath(), std::ios::binary) << file));
    DeviceRig rig(DEV_USB);
    snprintf(rig.dev->Param.Physical_Address, kTextMax, "%s", "usb-0000:00:14.0-1/input0");
    if (selector & 0x80) {
        DevIniRoutine(rig.dev.get());
        Check(ReadSettings() == file);
    } else {
        rig.dev->Param.Device_No = static_cast<int8_t>(selector % 12) - 1;  // -1 to 10
        IniDevParamRead(rig.dev.get());
    }
    CheckSettingsStep(rig.dev.get());
}

// Input: a devices + address byte, SupportPoints, 2 rewrite bytes (first 0: the own block, else
// offsets from both), a settings file. The device step inserts at most the address's block; a
// rewrite happens only at the block's recorded offsets and keeps the bytes around it.
void settings_maintenance(InputReader in) {
    static const char* const kAddresses[] = {
        "usb-0000:00:14.0-1/input0", "usb-2/input0", "/dev/ttyS0",
        "usb-0000:00:1d.7-1.2.3.4.5.6.7/input0-aaaaaaaaaaaaaaaaaaaaaaaaa"};  // 63: the longest
    const uint8_t* data = in.data;
    if (in.size < 4) return;
    const char* address = kAddresses[(data[0] >> 3) % 4];
    const std::string before(data + 4, data + in.size);
    Check(static_cast<bool>(std::ofstream(IniFilePath(), std::ios::binary) << before));
    DeviceRig rig(DEV_USB);
    rig.settings.MaxDeviceNums = static_cast<int8_t>(2 + data[0] % 8);  // 2 to 9
    DeviceParam& p = rig.dev->Param;
    snprintf(p.Physical_Address, kTextMax, "%s", address);
    p.SupportPoints = data[1];
    DevIniRoutine(rig.dev.get());
    CheckSettingsStep(rig.dev.get());
    const std::string after = ReadSettings();
    if (after != before) {  // one insertion, carrying the address
        Check(after.size() > before.size() && p.Device_No >= 0);
        const size_t at =
            std::mismatch(before.begin(), before.end(), after.begin()).first - before.begin();
        const std::string inserted = after.substr(at, after.size() - before.size());
        Check(after.substr(0, at) + after.substr(at + inserted.size()) == before &&
              inserted.find(address) != std::string::npos);
    }
    const uint32_t now = static_cast<uint32_t>(after.size());
    const uint32_t start = data[2] ? now * data[2] / 256 : p.BlockStart;
    const uint32_t end = data[2] ? start + 1 + data[3] * (now - start) / 256 : p.BlockEnd;
    if (start >= end) return;
    const bool own = start == p.BlockStart && end == p.BlockEnd;
    p.SupportPoints ^= 0x5A;  // the rewritten block differs
    const int result = IniDevParamAddBlock(rig.dev.get(), start, end);
    CheckSettingsStep(rig.dev.get());
    const std::string rewritten = ReadSettings();
    const size_t suffix = after.size() - end;
    Check(own ? result == 0 && rewritten.compare(0, start, after, 0, start) == 0 &&
                    rewritten.size() >= start + suffix &&
                    rewritten.compare(rewritten.size() - suffix, suffix, after, end, suffix) == 0 &&
                    rewritten.find("[Device_No." + std::to_string(p.Device_No) + "]", start) ==
                        start + 1 &&
                    rewritten.find(address, start) < rewritten.size() - suffix
              : result == -1 && rewritten == after);
}

// Input: an interface/shift/series byte, tool writes (Chunk); the port gets exactly each write
// (USB with ShiftByteBothEnd: a zero byte at each end while that fits in 65 bytes).
void tool_pipe(InputReader in) {
    const uint8_t mode = in.Byte();
    const uint8_t interface = (mode & 0x3) == 1 ? DEV_PS2 : (mode & 0x3) == 2 ? DEV_RS232 : DEV_USB;
    DeviceRig rig(interface);
    rig.settings.ShiftByteBothEnd = (mode >> 2) & 0x1;
    rig.dev->Series = mode >> 3;
    int pipe_fds[2], fds[2];
    Check(pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK) == 0);
    Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0);
    rig.dev->m_fdPipeIn.reset(pipe_fds[0]);
    rig.dev->m_Port_fd.reset(fds[0]);
    UniqueFd tool(pipe_fds[1]), controller(fds[1]);
    while (!in.empty()) {
        std::vector<uint8_t> w = in.Chunk(65);  // one read of the relay
        if (interface == DEV_RS232 && w.size() >= 5 && w[3] == 0x3A && w[4] == 0xFF)
            w[4] = 0xFE;  // no speed search
        Check(w.empty() || write(tool.get(), w.data(), w.size()) == ssize_t(w.size()));
        ForwardFromTool(rig.dev.get());
        const bool pad = interface == DEV_USB && rig.settings.ShiftByteBothEnd && !w.empty() &&
                         w.size() + 2 <= 65;
        std::vector<uint8_t> want(w.size() + (pad ? 2 : 0), 0x00);
        std::copy(w.begin(), w.end(), want.begin() + pad);
        uint8_t got[256];
        const ssize_t n = recv(controller.get(), got, sizeof(got), MSG_DONTWAIT);
        Check(w.empty() ? n <= 0 : n == ssize_t(want.size()) && !memcmp(got, want.data(), n));
        Check(recv(controller.get(), got, sizeof(got), MSG_DONTWAIT) <= 0);
    }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Once: quiet output; a data directory on tmpfs (ext4 flushes renamed files), removed at exit.
    static std::string dir;
    if (dir.empty()) {
        fuzz::SilenceLog();
        SetPlatformLogSinkForTest([](bool, const char*) {});
        dup2(UniqueFd(OpenCloexec("/dev/null", O_WRONLY)).get(), STDOUT_FILENO);
        const char* base = getenv("TAVRINE_FUZZ_TMPDIR");
        dir = std::string(base && *base ? base : "/dev/shm") + "/tavrine_fuzz_XXXXXX";
        fuzz::Check(mkdtemp(&dir[0]) != nullptr);
        SetDataDirForTest(dir.c_str());
        atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        });
    }
    fuzz::FUZZ_TARGET(fuzz::InputReader{data, size});
    return 0;
}
