// Settings file: global values, device blocks (matched, claimed, added, rewritten), links.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "config/device_param.h"
#include "config/global_settings.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "support/test_util.h"

namespace {

using namespace testutil;

// Reads text over the defaults; names, in a fixed order, every value the read changed.
std::string ReadChanges(std::string text) {
    TempDir dir;
    LogCapture log_globals(DebugEnableBits, ShowDebugPosition);  // restores them
    GlobalSettings s{};
    Quiet([&] { SetDefaultSettings(&s); });
    LogFilePath[0] = '\0';  // the directory goes with this call
    DebugEnableBits = ShowDebugPosition = 1;
    const auto values = [&s] {
        std::ostringstream v;
        v << "bits=" << DebugEnableBits << " pos=" << +ShowDebugPosition << " baud=" << s.BaudRate
          << " nums=" << +s.MaxDeviceNums << " scan=" << +s.ScanInterface << " calib="
          << s.UseDriverCalib << " skip=" << s.SkipFirstByte << " shift=" << s.ShiftByteBothEnd;
        for (int i = 0; i < kSerialPathSlots; ++i)
            v << " serial" << i << '=' << s.CustomSerialPath[i];
        v << " uinput=" << s.UinputPath;
        for (int i = 0; i < kDevPidSlots; ++i) v << " pid" << i << '=' << s.DevPID[i];
        return v << " mask=" << +s.CustomPathMask, v.str();
    };
    std::istringstream before(values());
    FILE* stream = fmemopen(&text[0], text.size(), "r");
    Quiet([&] { ReadGlobalSettingsFrom(stream, &s); });
    fclose(stream);
    std::istringstream after(values());
    std::string was, now, out;
    while (before >> was && after >> now) if (was != now) out += (out.empty() ? "" : " ") + now;
    return out;
}

// Settings-file text in, changed values out; hostile and malformed words change nothing.
TEST(GlobalSettingsTest, FileTextInValuesOut) {
    using namespace std::string_literals;
    const std::string a = "[TavrineA.ini] DebugEnableBits ", h = a + "1 ", w200(200, '7');
    std::string garbage, pids = h + "[String]", q63(63, 'q');
    for (int i = 0; i < 5000; ++i) garbage.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
    for (int i = 1; i <= 11; ++i) pids += " DevPID " + std::to_string(i);  // one too many
    const std::pair<std::string, std::string> cases[] = {
        {"[TavrineB.ini] DebugEnableBits 7 ScanInterface 3", ""}, {w200 + " DebugEnableBits 7", ""},
        {"[TavrineA.ini]\0 DebugEnableBits 7"s, ""}, {a + "0x1F", "bits=31"},
        {a + "1FFFFFFFF", ""}, {a + "010", "bits=16"},
        {a + "-1 ScanInterface 2", "bits=4294967295 scan=2"},
        {"[TavrineA.ini] ScanInterface 3 ShowDebugPosition 2 DebugEnableBits ff", "pos=2"},
        {h + "DeviceNums 2abc BaudRate 115200 ScanInterface 1x", "baud=115200 nums=2 scan=1"},
        {h + "ShowDebugPosition 258 DeviceNums 200 ScanInterface 259", "pos=2 nums=-56 scan=3"},
        {h + "UseDriverCalib 7 SkipFirstByte 1 ShiftByteBothEnd -5", "calib=1 skip=1 shift=1"},
        {h + "DeviceNums -1 BaudRate -1 ShowDebugPosition -1", ""},
        {h + "UseDriverCalib 99999999999 DeviceNums 2", "nums=2"},
        {h + "MyBaudRate 9600 baudrate 9600 BaudRate2 9600 DeviceNums 2", "nums=2"},
        {h + "BaudRate DeviceNums 4 ScanInterface [String] SerialPath /a",
         "nums=4 serial0=/a mask=1"},
        {h + std::string(200, 'k') + " 4 DeviceNums " + w200 + " BaudRate 9600", "baud=9600"},
        {h + "[String]" + w200 + " 1 ScanInterface 2 [String] SerialPath /a",
         "scan=2 serial0=/a mask=1"},
        {h + "[String] SerialPath /dev/" + w200 + " UinputPath " + w200, ""},
        {h + "[String] SerialPath " + q63, "serial0=" + q63 + " mask=1"},
        {h + "[String] SerialPath default MySerialPath /a SerialPath2 /b XSerialPathY /c "
             "SerialPath /d SerialPath /e SerialPath /f serialpath /g",
         "serial0=/a serial1=/b serial2=/c serial3=/d serial4=/e mask=1"},
        {h + "[String] MyUinputPath /x uinputpath /y UinputPath /dev/u", "uinput=/dev/u mask=2"},
        {h + "[String] UinputPath /dev/b\0c Serial\0Path /dev/s"s, ""},
        {h + "[String] DevPID 7e5 DevPID2 ABCD MyDevPIDx 1F DevPID 0001",
         "pid0=07e5 pid1=abcd pid2=001f pid3=0001"},
        {h + "[String] DevPID 12;x DevPID default devpid 2 DevPID " + w200, ""},
        {pids, "pid0=0001 pid1=0002 pid2=0003 pid3=0004 pid4=0005 pid5=0006 pid6=0007 "
               "pid7=0008 pid8=0009 pid9=0010"},
        {h + "[String] SerialPath /a [Device_No.0] SerialPath /b DevPID 1", "serial0=/a mask=1"},
        {h + "DeviceNums 2 [EndOfFile] BaudRate 9600 [String] SerialPath /a", "nums=2"},
        {h + "DeviceNums 3 BaudRate", "nums=3"}, {h + "DeviceNums 2 " + garbage, "nums=2"}};
    for (const auto& c : cases) EXPECT_EQ(c.second, ReadChanges(c.first)) << c.first;
}

// A default block, spelled out by hand; address nullptr gives a bare "Physical_Address" line.
std::string Block(int no, const char* address, int points = 10) {
    return "\n[Device_No." + std::to_string(no) + "]\nPhysical_Address" +
           (address ? std::string("\t\t") + address : "") + "\nSupportPoints\t\t\t" +
           std::to_string(points) +
           "\nSendRawPoints\t\t\t0\nDirection\t\t\t0\nOrientation\t\t\t0\nEdgeCompensate\t\t\t0\n"
           "\tEdgeLeft\t\t\t100\n\tEdgeRight\t\t\t100\n\tEdgeTop\t\t\t\t100\n\tEdgeBottom\t\t\t100"
           "\nHoldFilterEnable\t\t0\n\tHoldRange\t\t\t20\nSplitRectMode\t\t\t0\n\tCustomRectLeft\t"
           "\t\t0\n\tCustomRectRight\t\t\t4095\n\tCustomRectTop\t\t\t0\n\tCustomRectBottom\t\t4095"
           "\nNoDeviceCheck              0\nVKEYEnable\t\t0\n\tVKEYReportMod\t\t1\n\tVKEY_0\t\t\t0"
           "\n[EndOfDevice]";
}

// The global part of a file for two devices, before the first block.
std::string Head(const char* debug_bits_hex, const char* show_position) {
    return std::string("[TavrineA.ini]\nDebugEnableBits\t\t") + debug_bits_hex +
           "\nShowDebugPosition\t" + show_position +
           "\nDeviceNums\t\t2\nBaudRate\t\t0\n[String]\nSerialPath\t\tdefault\n\n";
}

const char kA[] = "usb-0000:00:1d.0-1/input0", kB[] = "usb-0000:00:1d.0-2/input0", kC[] = "ttyS1";
const std::string kHead = Head("1", "1"), kNew = Head("ffffffff", "3"), kEnd = "\n[EndOfFile]";

class ParamFileTest : public ::testing::Test {
  protected:
    ParamFileTest() { settings_.MaxDeviceNums = 2; }  // set once: devices start on two threads
    std::unique_ptr<CDeviceObject> NewDevice(const char* address, int points = 10) {
        std::unique_ptr<CDeviceObject> dev(new CDeviceObject("/dev/hidraw0", &settings_));
        snprintf(dev->Param.Physical_Address, kTextMax, "%s", address);
        dev->Param.SupportPoints = points;
        return dev;
    }
    int Start(const char* address, int points = 10) {  // the whole per-device step; its block
        auto dev = NewDevice(address, points);
        return DevIniRoutine(dev.get()), dev->Param.Device_No;
    }
    TempDir dir_;
    LogCapture silent_{0xFFFFFFFFu, 3};  // every category on, nothing written
    GlobalSettings settings_{};
};

// File in, block number, points read, file out ("": a 7-point block for kB added at the end).
TEST_F(ParamFileTest, DeviceBlocksBytesInBytesOut) {
    const std::string w200(200, 'W'), a0 = kHead + Block(0, kA);
    std::string full = kHead;  // all ten numbers in use
    for (int i = 0; i <= 9; ++i) full += Block(i, ("a" + std::to_string(i)).c_str());
    const std::string claimable = kHead + Block(0, nullptr) + kEnd;
    // clang-format off
    struct Row { std::string in; int no, points; std::string out; const char* address = kB; };
    const Row cases[] = {
        {a0 + Block(1, kB, 5) + kEnd, 1, 5, a0 + Block(1, kB, 5) + kEnd},  // its own block
        {a0 + Block(1, nullptr) + Block(2, kC) + kEnd, 1, 10,  // an empty address is claimed
         a0 + Block(1, kB) + Block(2, kC) + kEnd},
        {a0 + kEnd, 1, 7, ""}, {kHead + Block(4, kA) + kEnd, 5, 7, ""}, {a0, 1, 7, ""},
        {a0 + Block(9, kC) + kEnd, 1, 7, ""}, {a0 + "\n[EndOfFile", 1, 7, ""},
        {kHead + Block(0, w200.c_str()) + kEnd, 1, 7, ""},
        {kHead + "\n[Device_No.99]" + Block(0, kB).substr(14) + kEnd, 0, 7, ""},
        {kHead + "\n[Device_No.3]\nPhysical_Address" + kEnd, 4, 7, ""},
        {full + kEnd, -1, 7, full + kEnd},  // no number left: file unchanged
        // An address that is a word of the file, or not one word, takes no block.
        {claimable, -1, 7, claimable, "[EndOfFile]"},
        {"", -1, 7, kNew + Block(0, nullptr, 7) + kEnd, "usb 1"},
    };  // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        const std::string out =
            c.out.empty() ? c.in.substr(0, c.in.rfind(kEnd)) + Block(c.no, kB, 7) + kEnd : c.out;
        ASSERT_TRUE(c.in.empty() ? (unlink(IniFilePath()), true) : WriteFile(IniFilePath(), c.in));
        auto dev = NewDevice(c.address, 7);
        DevIniRoutine(dev.get());
        EXPECT_TRUE(dev->Param.Device_No == c.no && dev->Param.SupportPoints == c.points);
        EXPECT_TRUE(ReadFile(IniFilePath()) == out && !FileExists(IniTempPath()));
    }
}

// Numbers stored by their field's width, -1 keeps a value; a block without end word stays.
TEST_F(ParamFileTest, BlockValuesReadByTheirRule) {
    const std::string blocks =
        "\n[Device_No.0] Physical_Address y ReportMode 1\n[Device_No.1]\nPhysical_Address x\n"
        "SupportPoints 300\nReportMode 200\nEventType 260\nDetectRotation 129\nBtnType 383\n"
        "RightClickEnable 5\nEdgeCompensate -2\nBeepFreq -1\nResolX 4096a\nEdgeLeft 1\n"
        "SplitRectMode 265\nVKEYEnable 5\n[EndOfDevice] 7 ReportMode 1";
    ASSERT_TRUE(WriteFile(IniFilePath(), kHead + blocks + kEnd));
    auto dev = NewDevice("x");
    const int32_t freq = dev->Param.BeepFreq;
    dev->Param.Device_No = 1;
    IniDevParamRead(dev.get());
    const DeviceParam& p = dev->Param;
    EXPECT_EQ((std::vector<int>{p.SupportPoints, p.ReportMode, p.EventType, p.DetectRotation,
                                p.BtnType, p.RightClickEnable, p.EdgeCompensate, p.BeepFreq,
                                p.ResolX, p.EdgeLeft, p.SplitRectMode, p.VKEYEnable}),
              (std::vector<int>{44, -56, 4, -127, 127, 1, 0xFFFE, freq, 4096, 1, 9, 1}));
    dev->Param.Device_No = 0;  // no end word: its bytes (and the next block's) are never rewritten
    IniDevParamRead(dev.get());
    EXPECT_EQ(IniDevParamAddBlock(dev.get(), p.BlockStart, p.BlockEnd), -1);
}

// A rewrite replaces exactly its block's bytes; stale offsets or another number change nothing.
TEST_F(ParamFileTest, RewriteReplacesOnlyItsBlock) {
    for (const std::string keys : {"VKEYReportMod 1\nVKEY_0 HOME\n", ""}) {
        const std::string before = kHead + "  # a note\n",
                          after = "\n\n" + Block(1, kA) + Block(2, kC) + "  \t" + kEnd,
                          file = before + "\n[Device_No.0]\nPhysical_Address  " + kB +
                                 "\nReportMode 2\n SupportPoints 10\n" + keys + "[EndOfDevice]" +
                                 after;
        ASSERT_TRUE(WriteFile(IniFilePath(), file));
        auto dev = NewDevice(kB);
        DevIniRoutine(dev.get());
        ASSERT_TRUE(dev->Param.Device_No == 0 && dev->Param.ReportMode == 2) << keys;
        const uint32_t s = dev->Param.BlockStart, e = dev->Param.BlockEnd, n = file.size();
        const uint32_t bad[][3] = {{s + 1, e, 0}, {s, e - 1, 0}, {s, e + 1, 0}, {e, s, 0},
                                   {s, n + 20, 0}, {n + 5, n + 5, 0}, {s, e, 2}};
        for (const auto& [start, end, no] : bad) {
            dev->Param.Device_No = no;
            EXPECT_EQ(IniDevParamAddBlock(dev.get(), start, end), -1) << start << "," << end;
        }
        EXPECT_EQ(ReadFile(IniFilePath()), file);
        dev->Param.Device_No = 0, dev->Param.SupportPoints = 20;
        ASSERT_EQ(IniDevParamAddBlock(dev.get(), s, e), 0);
        EXPECT_EQ(ReadFile(IniFilePath()), before + Block(0, kB, 20) + after) << keys;
    }
}

// Links and FIFOs at the settings paths: never written through, never waited on, no block.
TEST_F(ParamFileTest, LinksAtTheSettingsPathsAreNeverWrittenThrough) {
    const std::string victim = dir_.File("victim.ini"), full = kHead + Block(0, kA) + kEnd,
                      claimable = kHead + Block(0, nullptr) + kEnd;
    ASSERT_TRUE(WriteFile(victim, full));
    const auto fifo = [](const char*, const char* p) { return mkfifo(p, 0600); };
    const std::pair<int (*)(const char*, const char*), bool> cases[] = {  // make, at the copy
        {fifo, false}, {symlink, false}, {symlink, true}, {link, false}, {link, true}};
    for (const auto& [make, at_temp] : cases) {
        const char* path = at_temp ? IniTempPath() : IniFilePath();
        if (at_temp) WriteFile(IniFilePath(), claimable);
        ASSERT_EQ(make(victim.c_str(), path), 0);
        EXPECT_TRUE(Start(kB) == -1 && ReadFile(victim) == full &&
                    (!at_temp || ReadFile(IniFilePath()) == claimable));
        ASSERT_EQ(unlink(path), 0);
        unlink(IniFilePath());
    }
}

// Two devices start on a missing file at once: one generates it, the other adds its block.
TEST_F(ParamFileTest, ConcurrentDevicesEndWithOneWellFormedFile) {
    for (int round = 0; round < 40; ++round) {
        unlink(IniFilePath());
        int no_b = -2, no_c = -2;
        std::thread tb([&] { no_b = Start(kB); }), tc([&] { no_c = Start(kC); });
        tb.join(), tc.join();
        ASSERT_TRUE(no_b + no_c == 1 && no_b * no_c == 0) << no_b << no_c;
        EXPECT_EQ(ReadFile(IniFilePath()),
                  kNew + Block(0, no_b ? kC : kB) + Block(1, no_b ? kB : kC) + kEnd);
        EXPECT_FALSE(FileExists(IniTempPath()));
    }
}

}  // namespace
