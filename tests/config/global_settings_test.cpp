#include "config/global_settings.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "core/paths.h"
#include "log/debug_log.h"
#include "support/core_test_util.h"

namespace {

using coretest::LogCapture;
using coretest::TempDataDir;

// The record as SetDefaultSettings leaves it (made once, in a temporary data directory).
const GlobalSettings& Defaults() {
    static GlobalSettings defaults = [] {
        TempDataDir dir;
        GlobalSettings s;
        memset(&s, 0, sizeof(s));
        const uint32_t bits = DebugEnableBits;
        const uint8_t position = ShowDebugPosition;
        coretest::Quiet([&] { SetDefaultSettings(&s); });
        DebugEnableBits = bits;
        ShowDebugPosition = position;
        LogFilePath[0] = '\0';
        return s;
    }();
    return defaults;
}
// Made before any test runs, so that its log lines never reach a test's capture.
const GlobalSettings& kDefaultsAtStart = Defaults();

struct ReadResult {
    GlobalSettings settings;
    uint32_t bits;
    uint8_t position;
};

// Reads text with ReadGlobalSettingsFrom into a default record, the log globals starting
// at their defaults (1 and 1). The reader's log lines go to capture when given, else to a
// capture of its own.
ReadResult Read(const std::string& text, LogCapture* capture = nullptr) {
    std::optional<LogCapture> own;
    if (!capture) capture = &own.emplace();
    ReadResult r;
    r.settings = Defaults();
    DebugEnableBits = 1;
    ShowDebugPosition = 1;
    std::string copy = text;
    FILE* stream = text.empty() ? fopen("/dev/null", "re") : fmemopen(&copy[0], copy.size(), "r");
    if (!stream) {
        ADD_FAILURE() << "no stream";
        return r;
    }
    coretest::Quiet([&] { ReadGlobalSettingsFrom(stream, &r.settings); });
    fclose(stream);
    r.bits = DebugEnableBits;
    r.position = ShowDebugPosition;
    return r;
}

bool IsLeadingPart(const std::string& part, const std::string& whole) {
    return !part.empty() && whole.compare(0, part.size(), part) == 0;
}

bool SameRecord(const GlobalSettings& a, const GlobalSettings& b) {
    return memcmp(&a, &b, sizeof(GlobalSettings)) == 0;
}

const std::string kHead = "[TavrineA.ini]\nDebugEnableBits\t\t1\n";

TEST(GlobalSettingsTest, DefaultsOfEveryFieldAndTheLogFile) {
    TempDataDir dir;
    ASSERT_TRUE(coretest::WriteFile(dir.File("Tavrine_2020.1.1_1.log"), "old"));
    GlobalSettings s;
    memset(&s, 0xAB, sizeof(s));
    s.NewDevIAPType = 7;
    DebugEnableBits = 0;
    ShowDebugPosition = 0;
    SetDefaultSettings(&s);
    EXPECT_EQ(1u, DebugEnableBits);
    EXPECT_EQ(1, ShowDebugPosition);
    EXPECT_EQ(0, s.KillRunning | s.ShowVersion | s.ShowFullVersion | s.ForceRestart | s.ShowUsage);
    EXPECT_STREQ("/dev/input/uinput", s.UinputPath);
    for (const auto& slot : s.CustomSerialPath) EXPECT_STREQ("default", slot);
    for (const auto& slot : s.DevPID) EXPECT_STREQ("NULL", slot);
    EXPECT_EQ(0, s.CustomPathMask);
    EXPECT_EQ(0u, s.BaudRate);
    EXPECT_EQ(0u, s.DeviceBaudRate);
    EXPECT_EQ(1, s.MaxDeviceNums);
    EXPECT_EQ(7, s.NewDevIAPType);  // left to its writers
    EXPECT_EQ(0, s.ScanInterface);
    EXPECT_FALSE(s.UseDriverCalib);
    EXPECT_FALSE(s.SkipFirstByte);
    EXPECT_FALSE(s.ShiftByteBothEnd);
    // Old logs removed, the new file named in the data directory.
    EXPECT_FALSE(coretest::FileExists(dir.File("Tavrine_2020.1.1_1.log")));
    EXPECT_EQ(0, strncmp(LogFilePath, (dir.path() + "/Tavrine_").c_str(), dir.path().size() + 9));
    LogFilePath[0] = '\0';
}

TEST(GlobalSettingsTest, HeaderMustBeExact) {
    const std::string bodies =
        "DebugEnableBits 7 ScanInterface 3 [String] SerialPath /dev/ttyS1 [EndOfFile]";
    struct Case {
        std::string text;
        std::string logged_word;
    };
    const Case cases[] = {
        {bodies, "DebugEnableBits"},  // missing header
        {"[TavrineB.ini] " + bodies, "[TavrineB.ini]"},
        {"[TavrineA.ini]x " + bodies, "[TavrineA.ini]x"},
        {"[tavrinea.ini] " + bodies, "[tavrinea.ini]"},
        {"", ""},         // empty file
        {"  \n\t ", ""},  // white space only
    };
    for (const Case& c : cases) {
        LogCapture capture;
        ReadResult r = Read(c.text, &capture);
        EXPECT_TRUE(SameRecord(Defaults(), r.settings)) << c.text;
        EXPECT_EQ(1u, r.bits) << c.text;
        ASSERT_EQ(1u, capture.lines().size()) << c.text;
        EXPECT_TRUE(capture.lines()[0].is_error);
        EXPECT_EQ("Found invalid .ini file: " + c.logged_word + ", set to default.",
                  capture.lines()[0].message);
    }
    // A 200-character first word is reported by its first 63 characters.
    LogCapture capture;
    ReadResult r = Read(std::string(200, 'H') + " " + bodies, &capture);
    EXPECT_TRUE(SameRecord(Defaults(), r.settings));
    ASSERT_EQ(1u, capture.lines().size());
    EXPECT_EQ("Found invalid .ini file: " + std::string(63, 'H') + ", set to default.",
              capture.lines()[0].message);
}

TEST(GlobalSettingsTest, DebugEnableBitsOnlyAsTheFirstKey) {
    struct Case {
        std::string text;
        uint32_t bits;
        uint8_t position;
        uint8_t scan;
    };
    const Case cases[] = {
        {"[TavrineA.ini] DebugEnableBits ff ScanInterface 2 [String]", 0xFF, 1, 2},
        {"[TavrineA.ini] DebugEnableBits 400000 [String]", 0x400000, 1, 0},
        {"[TavrineA.ini] DebugEnableBits 0x1F [String]", 0x1F, 1, 0},
        {"[TavrineA.ini] DebugEnableBits FFFFFFFF [String]", 0xFFFFFFFF, 1, 0},
        // The first pair is not DebugEnableBits: it is lost, the rest is read.
        {"[TavrineA.ini] ShowDebugPosition 2 ScanInterface 3 [String]", 1, 1, 3},
        {"[TavrineA.ini] ScanInterface 3 ShowDebugPosition 2 [String]", 1, 2, 0},
        // Later in the section it is ignored.
        {"[TavrineA.ini] ScanInterface 3 DebugEnableBits ff [String]", 1, 1, 0},
        {"[TavrineA.ini] DebugEnableBits 3 DebugEnableBits ff [String]", 3, 1, 0},
        // Read as "%x" reads it: -1 is every bit.
        {"[TavrineA.ini] DebugEnableBits -1 ScanInterface 2 [String]", 0xFFFFFFFF, 1, 2},
        // Not a hexadecimal number, or beyond 32 bits: not applied; the word is the next key.
        {"[TavrineA.ini] DebugEnableBits zz ScanInterface 2 [String]", 1, 1, 2},
        {"[TavrineA.ini] DebugEnableBits 1FFFFFFFF ScanInterface 2 [String]", 1, 1, 2},
        // No global pair at all.
        {"[TavrineA.ini] [String] SerialPath /dev/ttyS2", 1, 1, 0},
    };
    for (const Case& c : cases) {
        ReadResult r = Read(c.text);
        EXPECT_EQ(c.bits, r.bits) << c.text;
        EXPECT_EQ(c.position, r.position) << c.text;
        EXPECT_EQ(c.scan, r.settings.ScanInterface) << c.text;
    }
}

TEST(GlobalSettingsTest, GlobalKeysAreExactAndStoredByTheirRule) {
    ReadResult r =
        Read(kHead +
             "ShowDebugPosition\t258\nBaudRate\t\t115200\nDeviceNums\t\t200\n"
             "UseDriverCalib 7\nSkipFirstByte 7\nShiftByteBothEnd -5\nScanInterface 259\n"
             "[String]\n");
    EXPECT_EQ(2, r.position);  // low byte
    EXPECT_EQ(115200u, r.settings.BaudRate);
    EXPECT_EQ(-56, r.settings.MaxDeviceNums);  // low byte of 200, signed
    EXPECT_TRUE(r.settings.UseDriverCalib);
    EXPECT_TRUE(r.settings.SkipFirstByte);  // any value but 0
    EXPECT_TRUE(r.settings.ShiftByteBothEnd);
    EXPECT_EQ(3, r.settings.ScanInterface);

    // Zero clears a flag; a later pair of the same key wins.
    r = Read(kHead + "SkipFirstByte 1 SkipFirstByte 0 DeviceNums 3 DeviceNums 4 [String]");
    EXPECT_FALSE(r.settings.SkipFirstByte);
    EXPECT_EQ(4, r.settings.MaxDeviceNums);

    // Keys must match exactly: near misses and unknown keys are read and ignored.
    r = Read(kHead +
             "MyBaudRate 9600 baudrate 9600 BaudRate2 9600 ScanInterfaceX 2 "
             "Unknown 5 DeviceNums 2 [String]");
    GlobalSettings expected = Defaults();
    expected.MaxDeviceNums = 2;
    EXPECT_TRUE(SameRecord(expected, r.settings));
    EXPECT_EQ(1, r.position);
}

TEST(GlobalSettingsTest, MinusOneLeavesTheFieldAlone) {
    ReadResult r = Read(kHead +
                        "DeviceNums -1 ShowDebugPosition -1 BaudRate -1 UseDriverCalib -1 "
                        "SkipFirstByte -1 ShiftByteBothEnd -1 ScanInterface -1 [String]");
    EXPECT_TRUE(SameRecord(Defaults(), r.settings));
    EXPECT_EQ(1, r.settings.MaxDeviceNums);
    EXPECT_EQ(1, r.position);
    // -2 is a value like any other.
    r = Read(kHead + "DeviceNums -2 [String]");
    EXPECT_EQ(-2, r.settings.MaxDeviceNums);
}

// A value is its leading number ("2abc" is 2, the rest of the word is dropped). A value with
// no number, or beyond 32 bits, is not applied; reading goes on with that word as the next
// key, so the section stays in step.
TEST(GlobalSettingsTest, ValueIsItsLeadingNumber) {
    ReadResult r = Read(kHead +
                        "BaudRate abc DeviceNums 2abc ScanInterface 1x SkipFirstByte 1 "
                        "UseDriverCalib 99999999999 ShiftByteBothEnd 1 [String]");
    EXPECT_EQ(0u, r.settings.BaudRate);
    EXPECT_EQ(2, r.settings.MaxDeviceNums);
    EXPECT_EQ(1, r.settings.ScanInterface);
    EXPECT_TRUE(r.settings.SkipFirstByte);
    EXPECT_FALSE(r.settings.UseDriverCalib);  // beyond 32 bits
    EXPECT_TRUE(r.settings.ShiftByteBothEnd);

    // A key without its value: the next key and "[String]" are still seen as such.
    r = Read(kHead + "BaudRate DeviceNums 4 ScanInterface [String] SerialPath /dev/ttyS1");
    EXPECT_EQ(0u, r.settings.BaudRate);
    EXPECT_EQ(4, r.settings.MaxDeviceNums);
    EXPECT_EQ(0, r.settings.ScanInterface);
    EXPECT_STREQ("/dev/ttyS1", r.settings.CustomSerialPath[0]);
}

TEST(GlobalSettingsTest, SerialPathsBySubstringIntoFreeSlots) {
    LogCapture capture;
    ReadResult r =
        Read(kHead +
                 "[String]\nSerialPath default\nMySerialPath /dev/ttyS3\nSerialPath /dev/ttyS4\n"
                 "SerialPath2 /dev/ttyUSB0\nXSerialPathY /dev/ttyS5\nSerialPath /dev/ttyS6\n"
                 "SerialPath /dev/ttyS7\nSerialPath /dev/ttyS8\nserialpath /dev/ttyS9\n",
             &capture);
    const char* expected[] = {"/dev/ttyS3", "/dev/ttyS4", "/dev/ttyUSB0", "/dev/ttyS5",
                              "/dev/ttyS6"};
    for (int i = 0; i < kSerialPathSlots; ++i)
        EXPECT_STREQ(expected[i], r.settings.CustomSerialPath[i]);
    EXPECT_EQ(kCustomSerialPathBit, r.settings.CustomPathMask);
    // The sixth and seventh are ignored with a message; the lower-case key does not match.
    EXPECT_EQ(1, capture.Count(
                     "SerialPath [/dev/ttyS7] is ignored: all 5 serial path slots are in use."));
    EXPECT_EQ(1, capture.Count(
                     "SerialPath [/dev/ttyS8] is ignored: all 5 serial path slots are in use."));
    EXPECT_EQ(0, capture.CountContaining("ttyS9"));

    // "default" alone takes no slot and sets no bit.
    r = Read(kHead + "[String] SerialPath default");
    EXPECT_TRUE(SameRecord(Defaults(), r.settings));
}

TEST(GlobalSettingsTest, UinputPathByExactKey) {
    ReadResult r = Read(kHead + "[String] UinputPath default");
    EXPECT_STREQ("/dev/input/uinput", r.settings.UinputPath);
    EXPECT_EQ(0, r.settings.CustomPathMask);

    r = Read(kHead + "[String] MyUinputPath /dev/my UinputPath2 /dev/two uinputpath /dev/low");
    EXPECT_TRUE(SameRecord(Defaults(), r.settings));

    r = Read(kHead + "[String] UinputPath /dev/uinput SerialPath /dev/ttyS1");
    EXPECT_STREQ("/dev/uinput", r.settings.UinputPath);
    EXPECT_EQ(kCustomSerialPathBit | kCustomUinputPathBit, r.settings.CustomPathMask);
}

TEST(GlobalSettingsTest, DevPidBySubstringWithLengthAndFormRule) {
    LogCapture capture;
    ReadResult r =
        Read(kHead +
                 "[String] DevPID 0001 DevPID 00012 DevPID2 abcd MyDevPIDx 1F DevPID default "
                 "DevPID 12;x DevPID ../ DevPID " +
                 std::string(200, '7') + " devpid 0002",
             &capture);
    EXPECT_STREQ("0001", r.settings.DevPID[0]);
    EXPECT_STREQ("abcd", r.settings.DevPID[1]);
    EXPECT_STREQ("001f", r.settings.DevPID[2]);  // as the driver binding writes it
    for (int i = 3; i < kDevPidSlots; ++i) EXPECT_STREQ("NULL", r.settings.DevPID[i]);
    EXPECT_EQ(1, capture.Count("Device[0] PID [0001] was set to add to module."));
    EXPECT_EQ(1, capture.Count("Device[1] PID [abcd] was set to add to module."));
    EXPECT_EQ(1, capture.Count("Device[2] PID [001f] was set to add to module."));
    EXPECT_EQ(1,
              capture.Count("The PID [00012] is an incorrect form. As a result, skip this PID."));
    // Product ids reach shell commands: only hexadecimal digits are taken.
    EXPECT_EQ(1, capture.Count("The PID [12;x] is an incorrect form. As a result, skip this PID."));
    EXPECT_EQ(1, capture.Count("The PID [../] is an incorrect form. As a result, skip this PID."));
    EXPECT_EQ(0, capture.CountContaining("0002"));
    EXPECT_EQ(0, r.settings.CustomPathMask);

    // Eleven ids: the eleventh is ignored with a message.
    std::string text = kHead + "[String]";
    for (int i = 1; i <= 11; ++i) {
        char pair[32];
        snprintf(pair, sizeof(pair), " DevPID %04x", i);
        text += pair;
    }
    capture.Clear();
    r = Read(text, &capture);
    for (int i = 0; i < kDevPidSlots; ++i) {
        char pid[8];
        snprintf(pid, sizeof(pid), "%04x", i + 1);
        EXPECT_STREQ(pid, r.settings.DevPID[i]);
    }
    EXPECT_EQ(1, capture.Count("The PID [000b] is ignored: all 10 PID slots are in use."));
}

// The string section ends at the first device header or at the end marker; what follows
// belongs to device blocks and is never read here.
TEST(GlobalSettingsTest, SectionsEndAtTheirClosingWords) {
    ReadResult r = Read(kHead +
                        "ScanInterface 1\n[String]\nSerialPath /dev/ttyS1\n\n"
                        "[Device_No.1]\nSerialPath /dev/ttyS2\nUinputPath /dev/u\n[EndOfDevice]\n"
                        "[EndOfFile]");
    EXPECT_STREQ("/dev/ttyS1", r.settings.CustomSerialPath[0]);
    EXPECT_STREQ("default", r.settings.CustomSerialPath[1]);
    EXPECT_STREQ("/dev/input/uinput", r.settings.UinputPath);
    EXPECT_EQ(1, r.settings.ScanInterface);

    r = Read(kHead + "[String] [Devicex SerialPath /dev/ttyS2");  // seven-character test
    EXPECT_STREQ("default", r.settings.CustomSerialPath[0]);
    r = Read(kHead + "[String] [EndOfFile] SerialPath /dev/ttyS2");
    EXPECT_STREQ("default", r.settings.CustomSerialPath[0]);
    r = Read(kHead + "[String] [EndOfFileX] /dev/ttyS2 SerialPath /dev/ttyS3");  // exact test
    EXPECT_STREQ("/dev/ttyS3", r.settings.CustomSerialPath[0]);

    // Without "[String]" the global part ends at a device block: its keys are not global.
    r = Read(kHead +
             "DeviceNums 2\n[Device_No.1]\nScanInterface 3\nSerialPath /dev/ttyS1\n"
             "[EndOfDevice]\n[String] UinputPath /dev/u [EndOfFile]");
    GlobalSettings expected = Defaults();
    expected.MaxDeviceNums = 2;
    EXPECT_TRUE(SameRecord(expected, r.settings));
    r = Read(kHead + "DeviceNums 2 [EndOfFile] ScanInterface 3 [String] UinputPath /dev/u");
    EXPECT_TRUE(SameRecord(expected, r.settings));
}

// Words longer than 63 characters never overflow a buffer, are never cut to fit, and the
// rest of such a word is never read as a key of its own.
TEST(GlobalSettingsTest, OverlongWordsAreIgnoredWhole) {
    const std::string filler(63, 'x');
    LogCapture capture;
    ReadResult r = Read(kHead + filler + "ScanInterface 3 " + std::string(200, 'k') +
                            " 4 "
                            "DeviceNums " +
                            std::string(200, '5') + " BaudRate 9600 [String] " + filler +
                            "SerialPath /dev/ttyS1 "
                            "SerialPath /dev/" +
                            std::string(200, 'p') +
                            " "
                            "UinputPath " +
                            filler +
                            "/uinput "
                            "SerialPath " +
                            std::string(59, 'q') + "/abc",  // 63 characters: fits
                        &capture);
    EXPECT_EQ(0, r.settings.ScanInterface);
    EXPECT_EQ(1, r.settings.MaxDeviceNums);
    EXPECT_EQ(9600u, r.settings.BaudRate);
    EXPECT_STREQ((std::string(59, 'q') + "/abc").c_str(), r.settings.CustomSerialPath[0]);
    EXPECT_STREQ("default", r.settings.CustomSerialPath[1]);
    EXPECT_STREQ("/dev/input/uinput", r.settings.UinputPath);
    EXPECT_EQ(kCustomSerialPathBit, r.settings.CustomPathMask);
    EXPECT_EQ(1, capture.Count("The value of [SerialPath] is longer than 63 characters, skip it."));
    EXPECT_EQ(1, capture.Count("The value of [UinputPath] is longer than 63 characters, skip it."));

    // An over-long "[String]"-like word does not start the string section.
    r = Read(kHead + "[String]" + std::string(100, 'y') +
             " 1 ScanInterface 2 [String] SerialPath /dev/a");
    EXPECT_EQ(2, r.settings.ScanInterface);
    EXPECT_STREQ("/dev/a", r.settings.CustomSerialPath[0]);
}

// A word holding a NUL byte matches nothing and is no value: "[String]\0x" is not the
// section word, "/dev/b\0c" is not taken for "/dev/b", "3\0" is not the number 3.
TEST(GlobalSettingsTest, WordsHoldingNulBytesMatchNothing) {
    using namespace std::string_literals;
    ReadResult r =
        Read(kHead + "ScanInterface 3\0 DeviceNums 2 [String]\0x 5 BaudRate 9600 "s +
             "[String] UinputPath /dev/b\0c Serial\0Path /dev/s SerialPath /dev/ttyS1 "s +
             "DevPID 01\0"s + " DevPID 0002");
    EXPECT_EQ(0, r.settings.ScanInterface);
    EXPECT_EQ(2, r.settings.MaxDeviceNums);
    EXPECT_EQ(9600u, r.settings.BaudRate);  // still in the global section
    EXPECT_STREQ("/dev/input/uinput", r.settings.UinputPath);
    EXPECT_STREQ("/dev/ttyS1", r.settings.CustomSerialPath[0]);
    EXPECT_STREQ("default", r.settings.CustomSerialPath[1]);
    EXPECT_STREQ("0002", r.settings.DevPID[0]);
    EXPECT_STREQ("NULL", r.settings.DevPID[1]);

    LogCapture capture;
    r = Read("[TavrineA.ini]\0 DebugEnableBits 7"s, &capture);
    EXPECT_EQ(1u, r.bits);
    EXPECT_EQ(1, capture.Count("Found invalid .ini file: [TavrineA.ini], set to default."));
}

// A complete file, and every prefix of it: the read ends at the end of the data and keeps
// every pair it finished.
TEST(GlobalSettingsTest, TruncatedFileKeepsWhatWasRead) {
    const std::string full =
        "[TavrineA.ini]\nDebugEnableBits\t\t1f\nShowDebugPosition\t2\nDeviceNums\t\t3\n"
        "BaudRate\t\t9600\nScanInterface\t\t2\nSkipFirstByte\t\t1\n[String]\n"
        "SerialPath\t\t/dev/ttyS1\nUinputPath\t\t/dev/uinput\nDevPID\t\t0001\n\n"
        "[Device_No.1]\nSerialPath /dev/ttyS9\n[EndOfDevice]\n[EndOfFile]";
    ReadResult whole = Read(full);
    EXPECT_EQ(0x1Fu, whole.bits);
    EXPECT_EQ(2, whole.position);
    EXPECT_EQ(3, whole.settings.MaxDeviceNums);
    EXPECT_EQ(9600u, whole.settings.BaudRate);
    EXPECT_EQ(2, whole.settings.ScanInterface);
    EXPECT_TRUE(whole.settings.SkipFirstByte);
    EXPECT_STREQ("/dev/ttyS1", whole.settings.CustomSerialPath[0]);
    EXPECT_STREQ("/dev/uinput", whole.settings.UinputPath);
    EXPECT_STREQ("0001", whole.settings.DevPID[0]);

    const GlobalSettings& d = Defaults();
    for (size_t len = 0; len <= full.size(); ++len) {
        ReadResult r = Read(full.substr(0, len));
        const GlobalSettings& s = r.settings;
        // Every field holds its default or its final value; a value cut by the end of the
        // data is read as it stands, so a field may also hold a leading part of its value.
        EXPECT_TRUE(r.bits == 1 || r.bits == 0x1F) << len;
        EXPECT_TRUE(r.position == 1 || r.position == 2) << len;
        EXPECT_TRUE(s.MaxDeviceNums == d.MaxDeviceNums || s.MaxDeviceNums == 3) << len;
        EXPECT_TRUE(IsLeadingPart(std::to_string(s.BaudRate), "9600") || s.BaudRate == 0u) << len;
        EXPECT_TRUE(s.ScanInterface == 0 || s.ScanInterface == 2) << len;
        EXPECT_TRUE(strcmp(s.CustomSerialPath[0], "default") == 0 ||
                    IsLeadingPart(s.CustomSerialPath[0], "/dev/ttyS1"))
            << len;
        EXPECT_STREQ("default", s.CustomSerialPath[1]) << len;
        // A product id cut to "0", "00" or "000" is taken padded, as "0000".
        EXPECT_TRUE(strcmp(s.DevPID[0], "NULL") == 0 || strcmp(s.DevPID[0], "0000") == 0 ||
                    strcmp(s.DevPID[0], "0001") == 0)
            << len;
        EXPECT_TRUE(strcmp(s.DevPID[1], "NULL") == 0) << len;
        if (len > full.find("[Device_No.1]")) {
            EXPECT_TRUE(SameRecord(whole.settings, s)) << len;
        }
    }
    // Ending inside each section keeps the pairs finished before it.
    struct Case {
        size_t cut;  // end of the text
        uint8_t scan;
        const char* serial;
        const char* uinput;
    };
    const size_t after_scan = full.find("SkipFirstByte");
    const size_t after_serial = full.find("UinputPath");
    const size_t after_uinput = full.find("DevPID");
    const Case cases[] = {
        {full.find("DebugEnableBits") + 6, 0, "default",
         "/dev/input/uinput"},                            // inside the first pair
        {after_scan, 2, "default", "/dev/input/uinput"},  // inside the global section
        {full.find("[String]") + 8, 2, "default", "/dev/input/uinput"},  // right after [String]
        {after_serial + 3, 2, "/dev/ttyS1", "/dev/input/uinput"},        // key without value
        {after_uinput, 2, "/dev/ttyS1", "/dev/uinput"},
    };
    for (const Case& c : cases) {
        ReadResult r = Read(full.substr(0, c.cut));
        EXPECT_EQ(c.scan, r.settings.ScanInterface) << c.cut;
        EXPECT_STREQ(c.serial, r.settings.CustomSerialPath[0]) << c.cut;
        EXPECT_STREQ(c.uinput, r.settings.UinputPath) << c.cut;
    }
}

// Random bytes, with and without a valid header in front: the read always ends, every
// text field stays terminated within its buffer.
TEST(GlobalSettingsTest, BinaryGarbageNeverHangsOrOverflows) {
    std::mt19937 rng(20261123);
    for (int round = 0; round < 300; ++round) {
        std::string bytes(1 + rng() % 2000, '\0');
        for (char& b : bytes) b = static_cast<char>(rng());
        if (round % 3 == 1) {
            // Mostly separators and short words, with the header.
            for (char& b : bytes) b = " \n\t[]-0123456789abcdefSerialPathDevPID"[rng() % 38];
            bytes = "[TavrineA.ini] " + bytes;
        } else if (round % 3 == 2) {
            bytes = "[TavrineA.ini]\nDebugEnableBits 1\n[String]\n" + bytes;
        }
        ReadResult r = Read(bytes);
        EXPECT_NE(nullptr, memchr(r.settings.UinputPath, '\0', kTextMax));
        for (const auto& slot : r.settings.CustomSerialPath)
            EXPECT_NE(nullptr, memchr(slot, '\0', kTextMax));
        for (const auto& slot : r.settings.DevPID) {
            ASSERT_NE(nullptr, memchr(slot, '\0', kPidTextMax));
            EXPECT_TRUE(strcmp(slot, "NULL") == 0 ||
                        strspn(slot, "0123456789abcdefABCDEF") == strlen(slot))
                << slot;
        }
    }
}

TEST(GlobalSettingsTest, ReadsTheDataDirectoryFile) {
    TempDataDir dir;
    GlobalSettings s = Defaults();
    {
        LogCapture capture;
        coretest::Quiet([&] { ReadGlobalSettings(&s); });
        ASSERT_EQ(1u, capture.lines().size());
        EXPECT_TRUE(capture.lines()[0].is_error);
        EXPECT_EQ(
            "Failed to open the file: " + dir.File("TavrineA.ini") + ", set parameter to default.",
            capture.lines()[0].message);
    }
    EXPECT_TRUE(SameRecord(Defaults(), s));

    ASSERT_TRUE(coretest::WriteFile(dir.File("TavrineA.ini"),
                                    kHead + "ScanInterface 4 [String] [EndOfFile]"));
    {
        LogCapture capture;
        coretest::Quiet([&] { ReadGlobalSettings(&s); });
        EXPECT_EQ(1, capture.Count("File: read - " + dir.File("TavrineA.ini")));
    }
    EXPECT_EQ(4, s.ScanInterface);
}

// The settings file is read only when it is a regular file at its path: a symbolic link
// to a file elsewhere is not followed and a FIFO is not waited on; both count as a file
// that cannot be opened, and the defaults stay.
TEST(GlobalSettingsTest, LinkOrFifoAtTheSettingsPathIsNotRead) {
    TempDataDir dir;
    const std::string elsewhere = dir.File("elsewhere.ini");
    ASSERT_TRUE(coretest::WriteFile(elsewhere, kHead + "ScanInterface 4 [String] [EndOfFile]"));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), dir.File("TavrineA.ini").c_str()));
    GlobalSettings s = Defaults();
    {
        LogCapture capture;
        coretest::Quiet([&] { ReadGlobalSettings(&s); });
        EXPECT_EQ(1, capture.Count("Failed to open the file: " + dir.File("TavrineA.ini") +
                                   ", set parameter to default."));
    }
    EXPECT_TRUE(SameRecord(Defaults(), s));

    ASSERT_EQ(0, unlink(dir.File("TavrineA.ini").c_str()));
    ASSERT_EQ(0, mkfifo(dir.File("TavrineA.ini").c_str(), 0600));
    coretest::ChildResult child = coretest::RunInChild([] {
        alarm(5);  // a blocked open ends the child by SIGALRM
        GlobalSettings settings = Defaults();
        ReadGlobalSettings(&settings);
        if (!SameRecord(Defaults(), settings)) _exit(3);
    });
    ASSERT_TRUE(child.exited) << "signal " << child.status;
    EXPECT_EQ(coretest::kReturned, child.status);
}

TEST(GlobalSettingsTest, PrintOutByCategory) {
    GlobalSettings s = Defaults();
    snprintf(s.CustomSerialPath[2], kTextMax, "/dev/ttyS2");
    snprintf(s.UinputPath, kTextMax, "/dev/uinput");
    s.MaxDeviceNums = 2;
    s.ScanInterface = 1;
    s.DeviceBaudRate = 9600;
    s.SkipFirstByte = true;
    {
        LogCapture capture(LOG_MAIN | LOG_PARAM);
        DebugEnableBits = 0x5;
        coretest::Quiet([&] { PrintGlobalSettings(&s); });
        std::vector<std::string> messages;
        for (const auto& line : capture.lines()) messages.push_back(line.message);
        const std::vector<std::string> expected = {
            "Daemon Version: [2.5.6720.]",
            "DebugMode[5], ShowDebugPosition[1]",
            "MaxDeviceNums[2], ScanInterface[1], DeviceBaudRate[9600]",
            "UseDriverCalib[0]",
            "SkipFirstByte[1]",
            "ShiftByteBothEnd[0]",
            "CustomSerialPath[2] = /dev/ttyS2",
            "UinputPath = /dev/uinput",
        };
        EXPECT_EQ(expected, messages);
    }
    {
        LogCapture capture(LOG_MAIN);
        coretest::Quiet([&] { PrintGlobalSettings(&s); });
        ASSERT_EQ(1u, capture.lines().size());
        EXPECT_EQ("Daemon Version: [2.5.6720.]", capture.lines()[0].message);
    }
}

}  // namespace
