#include "config/global_settings.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "log/debug_log.h"
#include "support/test_util.h"

namespace {

// Reads text over the defaults; names, in a fixed order, every value the read changed.
std::string ReadChanges(std::string text) {
    static const GlobalSettings defaults = [] {
        testutil::TempDir dir;
        testutil::LogCapture log_globals(DebugEnableBits, ShowDebugPosition);  // restores them
        GlobalSettings d{};
        testutil::Quiet([&] { SetDefaultSettings(&d); });
        LogFilePath[0] = '\0';
        return d;
    }();
    GlobalSettings s = defaults;
    DebugEnableBits = ShowDebugPosition = 1;
    auto values = [&s] {
        auto n = [](std::string name, long long v) { return name + std::to_string(v); };
        std::vector<std::string> v = {n("bits=", DebugEnableBits), n("pos=", ShowDebugPosition),
                                      n("baud=", s.BaudRate),      n("nums=", s.MaxDeviceNums),
                                      n("scan=", s.ScanInterface), n("calib=", s.UseDriverCalib),
                                      n("skip=", s.SkipFirstByte), n("shift=", s.ShiftByteBothEnd)};
        for (int i = 0; i < kSerialPathSlots; ++i)
            v.push_back(n("serial", i) + "=" + s.CustomSerialPath[i]);
        v.push_back(std::string("uinput=") + s.UinputPath);
        for (int i = 0; i < kDevPidSlots; ++i) v.push_back(n("pid", i) + "=" + s.DevPID[i]);
        v.push_back(n("mask=", s.CustomPathMask));
        return v;
    };
    const std::vector<std::string> before = values();
    FILE* stream = fmemopen(&text[0], text.size(), "r");
    if (!stream) return "no stream";
    testutil::Quiet([&] { ReadGlobalSettingsFrom(stream, &s); });
    fclose(stream);
    const std::vector<std::string> after = values();
    std::string out;
    for (size_t i = 0; i < after.size(); ++i)
        if (after[i] != before[i]) out += (out.empty() ? "" : " ") + after[i];
    return out;
}

// Settings-file text in, changed values out: damaged, overlong and hostile words included.
TEST(GlobalSettingsTest, FileTextInValuesOut) {
    using namespace std::string_literals;
    const std::string a = "[TavrineA.ini] DebugEnableBits ", h = a + "1 ", w200(200, '7');
    std::string garbage, pids = h + "[String]", q63(63, 'q');
    for (int i = 0; i < 5000; ++i) garbage.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
    for (int i = 1; i <= 11; ++i) pids += " DevPID " + std::to_string(i);  // one too many
    const std::pair<std::string, std::string> cases[] = {
        // clang-format off
        // The header must be exact, or nothing at all is read.
        {"[TavrineB.ini] DebugEnableBits 7 ScanInterface 3", ""}, {w200 + " DebugEnableBits 7", ""},
        {"[TavrineA.ini]\0 DebugEnableBits 7"s, ""},
        // DebugEnableBits: hexadecimal, only as the first key; -1 is every bit.
        {a + "ff Scan 2", "bits=255"}, {a + "0x1F", "bits=31"}, {a + "1FFFFFFFF", ""},
        {a + "-1 ScanInterface 2", "bits=4294967295 scan=2"}, {a + "010", "bits=16"},
        {"[TavrineA.ini] ScanInterface 3 ShowDebugPosition 2 DebugEnableBits ff", "pos=2"},
        {a + "3 DebugEnableBits ff", "bits=3"},
        // Global keys: exact names, leading number, stored by their width; -1 keeps a value.
        {h + "DeviceNums 2abc BaudRate 115200 ScanInterface 1x", "baud=115200 nums=2 scan=1"},
        {h + "ShowDebugPosition 258 DeviceNums 200 ScanInterface 259", "pos=2 nums=-56 scan=3"},
        {h + "UseDriverCalib 7 SkipFirstByte 1 ShiftByteBothEnd -5", "calib=1 skip=1 shift=1"},
        {h + "DeviceNums -1 BaudRate -1 ShowDebugPosition -1", ""},
        {h + "MyBaudRate 9600 baudrate 9600 BaudRate2 9600 DeviceNums 2", "nums=2"},
        {h + "BaudRate DeviceNums 4 ScanInterface [String] SerialPath /a",
         "nums=4 serial0=/a mask=1"},
        {h + "ScanInterface 3\0 DeviceNums 2"s, "nums=2"},
        // Overlong words are skipped whole; the read stays in step.
        {h + std::string(200, 'k') + " 4 DeviceNums " + w200 + " BaudRate 9600", "baud=9600"},
        {h + "[String]" + w200 + " 1 ScanInterface 2 [String] SerialPath /a",
         "scan=2 serial0=/a mask=1"},
        {h + "[String] SerialPath /dev/" + w200 + " UinputPath " + w200, ""},
        {h + "[String] SerialPath " + q63, "serial0=" + q63 + " mask=1"},
        // Serial paths by substring into free slots; the uinput path by exact key.
        {h + "[String] SerialPath default MySerialPath /a SerialPath2 /b XSerialPathY /c "
             "SerialPath /d SerialPath /e SerialPath /f serialpath /g",
         "serial0=/a serial1=/b serial2=/c serial3=/d serial4=/e mask=1"},
        {h + "[String] MyUinputPath /x uinputpath /y UinputPath /dev/u", "uinput=/dev/u mask=2"},
        {h + "[String] UinputPath /dev/b\0c Serial\0Path /dev/s"s, ""},
        // Product ids: 1-4 hexadecimal digits, written as 4 lowercase digits.
        {h + "[String] DevPID 7e5 DevPID2 ABCD MyDevPIDx 1F DevPID 0001",
         "pid0=07e5 pid1=abcd pid2=001f pid3=0001"},
        {h + "[String] DevPID 00012 DevPID 12;x DevPID ../ DevPID default devpid 2 DevPID " + w200,
         ""},
        {h + "[String] DevPID 01\0 DevPID 2"s, "pid0=0002"},
        {pids, "pid0=0001 pid1=0002 pid2=0003 pid3=0004 pid4=0005 pid5=0006 pid6=0007 "
               "pid7=0008 pid8=0009 pid9=0010"},
        // The sections end at their closing words; device blocks are never read here.
        {h + "[String] SerialPath /a [Device_No.0] SerialPath /b DevPID 1", "serial0=/a mask=1"},
        {h + "DeviceNums 2 [EndOfFile] BaudRate 9600 [String] SerialPath /a", "nums=2"},
        // Cut short or binary: what was read before stays; no hang, no overflow.
        {h + "DeviceNums 3 BaudRate", "nums=3"}, {h + "DeviceNums 2 " + garbage, "nums=2"},
        // clang-format on
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, ReadChanges(c.first)) << c.first;
}

}  // namespace
