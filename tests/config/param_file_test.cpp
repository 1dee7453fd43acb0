// Settings file maintenance: generation, matching, claiming, adding and rewriting blocks,
// numbering, a missing end word, failures that must leave the file untouched, and two
// devices working on the file at once. Expected files are spelled out byte for byte.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "config/device_param.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "support/conf_test_util.h"

namespace {

using conftest::ConfDataDir;
using conftest::ConfLogRecorder;
using conftest::DefaultBlock;
using conftest::Exists;
using conftest::GeneratedHead;
using conftest::ReadBytes;
using conftest::WriteBytes;

const char kAddrA[] = "usb-0000:00:1d.0-1/input0";
const char kAddrB[] = "usb-0000:00:1d.0-2/input0";
const char kAddrC[] = "/dev/ttyS1";

const std::string kHead = GeneratedHead("1", 1, 2, 0);
const std::string kEnd = "\n[EndOfFile]";

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    if (at != std::string::npos) text.replace(at, from.size(), to);
    return text;
}

int CountOf(const std::string& text, const std::string& word) {
    int n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
    return n;
}

class ParamFileTest : public ::testing::Test {
  protected:
    ParamFileTest() { settings_.MaxDeviceNums = 2; }

    // A device record on address, set up as the device constructor does.
    std::unique_ptr<CDeviceObject> NewDevice(const char* address) {
        std::unique_ptr<CDeviceObject> dev(new CDeviceObject("/dev/hidraw0", &settings_));
        snprintf(dev->Param.Physical_Address, kTextMax, "%s", address);
        return dev;
    }

    // Runs the whole per-device step for address; returns the device's block number.
    int Start(const char* address) {
        auto dev = NewDevice(address);
        DevIniRoutine(dev.get());
        return dev->Param.Device_No;
    }

    ConfDataDir dir_;
    GlobalSettings settings_{};
};

TEST_F(ParamFileTest, GeneratedFileByteForByte) {
    DebugEnableBits = 0x2f;
    ShowDebugPosition = 3;
    for (int max : {1, 2}) {
        SCOPED_TRACE(max);
        unlink(IniFilePath());
        settings_.MaxDeviceNums = static_cast<int8_t>(max);
        auto dev = NewDevice(kAddrA);
        dev->BaudRate = 115200;
        ASSERT_EQ(IniDevGenerateFile(dev.get()), 0);
        EXPECT_EQ(dev->Param.Device_No, 0);
        const std::string expected = GeneratedHead("2f", 3, max, 115200) +
                                     DefaultBlock(0, max == 1 ? nullptr : kAddrA) + kEnd;
        EXPECT_EQ(ReadBytes(IniFilePath()), expected);
        EXPECT_FALSE(Exists(IniTempPath()));
    }
    // Literal check of the single-device file head and tail, independent of the helpers.
    const std::string file = ReadBytes(IniFilePath());
    EXPECT_EQ(file.substr(0, 42), "[TavrineA.ini]\nDebugEnableBits\t\t2f\nShowDeb");
    EXPECT_NE(file.find("SerialPath\t\tdefault\n\n\n[Device_No.0]\nPhysical_Address\t\t"),
              std::string::npos);
    const std::string tail = "\n\tVKEY_0\t\t\t0\n[EndOfDevice]\n[EndOfFile]";
    ASSERT_GT(file.size(), tail.size());
    EXPECT_EQ(file.substr(file.size() - tail.size()), tail);
}

TEST_F(ParamFileTest, GeneratedFileReadsBackThroughTheGlobalReader) {
    DebugEnableBits = 0x407;
    ShowDebugPosition = 3;
    auto dev = NewDevice(kAddrA);
    dev->BaudRate = 57600;
    ASSERT_EQ(IniDevGenerateFile(dev.get()), 0);
    DebugEnableBits = 0;
    ShowDebugPosition = 4;  // no output, and not the value in the file
    GlobalSettings read_back{};
    read_back.MaxDeviceNums = 1;
    FILE* f = fopen(IniFilePath(), "re");
    ASSERT_NE(f, nullptr);
    ReadGlobalSettingsFrom(f, &read_back);
    fclose(f);
    EXPECT_EQ(ShowDebugPosition, 3);
    EXPECT_EQ(DebugEnableBits, 0x407u);
    EXPECT_EQ(read_back.MaxDeviceNums, 2);
    EXPECT_EQ(read_back.BaudRate, 57600u);
}

TEST_F(ParamFileTest, BlockTextCarriesEveryWrittenField) {
    settings_.MaxDeviceNums = 3;
    auto dev = NewDevice("phys-7");
    DeviceParam& p = dev->Param;
    p.Device_No = 7;
    p.SupportPoints = 11;
    dev->SendRawPoints = 1;
    p.Direction = 2;
    p.Orientation = 3;
    p.EdgeCompensate = 1;
    p.EdgeLeft = 41;
    p.EdgeRight = 42;
    p.EdgeTop = 43;
    p.EdgeBottom = 44;
    p.HoldFilterEnable = 1;
    p.HoldRange = 25;
    p.SplitRectMode = 9;
    p.CustomRectLeft = 51;
    p.CustomRectRight = 52;
    p.CustomRectTop = 53;
    p.CustomRectBottom = 54;
    dev->NoDeviceCheck = 1;
    p.VKEYEnable = true;
    p.VKEYReportMod = 4;
    const std::string expected =
        "\n[Device_No.7]\n"
        "Physical_Address\t\tphys-7\n"
        "SupportPoints\t\t\t11\n"
        "SendRawPoints\t\t\t1\n"
        "Direction\t\t\t2\n"
        "Orientation\t\t\t3\n"
        "EdgeCompensate\t\t\t1\n"
        "\tEdgeLeft\t\t\t41\n"
        "\tEdgeRight\t\t\t42\n"
        "\tEdgeTop\t\t\t\t43\n"
        "\tEdgeBottom\t\t\t44\n"
        "HoldFilterEnable\t\t1\n"
        "\tHoldRange\t\t\t25\n"
        "SplitRectMode\t\t\t9\n"
        "\tCustomRectLeft\t\t\t51\n"
        "\tCustomRectRight\t\t\t52\n"
        "\tCustomRectTop\t\t\t53\n"
        "\tCustomRectBottom\t\t54\n"
        "NoDeviceCheck              1\n"
        "VKEYEnable\t\t1\n"
        "\tVKEYReportMod\t\t4\n"
        "\tVKEY_0\t\t\t0\n"
        "[EndOfDevice]";
    FILE* out = tmpfile();
    ASSERT_NE(out, nullptr);
    WriteDeviceBlock(out, dev.get());
    rewind(out);
    char buf[2048] = {};
    size_t n = fread(buf, 1, sizeof(buf) - 1, out);
    fclose(out);
    EXPECT_EQ(std::string(buf, n), expected);
}

TEST_F(ParamFileTest, GenerationNeverOverwritesAnExistingFile) {
    const std::string file = kHead + DefaultBlock(0, kAddrB) + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    auto dev = NewDevice(kAddrA);
    EXPECT_EQ(IniDevGenerateFile(dev.get()), 0);
    EXPECT_EQ(dev->Param.Device_No, -1);
    EXPECT_EQ(ReadBytes(IniFilePath()), file);
}

TEST_F(ParamFileTest, MatchingAddressLeavesTheFileUnchanged) {
    const std::string file = kHead + DefaultBlock(0, kAddrA) + DefaultBlock(1, kAddrB) + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    ConfLogRecorder log;
    auto dev = NewDevice(kAddrB);
    DevIniRoutine(dev.get());
    EXPECT_EQ(dev->Param.Device_No, 1);
    EXPECT_EQ(ReadBytes(IniFilePath()), file);
    EXPECT_EQ(
        log.Count(std::string("Found match physical address [") + kAddrB + "], device figure [1] "),
        1);
    EXPECT_EQ(dev->Param.LastBlockNo, 1);

    // A header in place of the key of an empty block is still a header.
    const std::string empty_first =
        kHead + "\n[Device_No.0]" + DefaultBlock(1, kAddrB) + DefaultBlock(2, kAddrC) + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), empty_first));
    EXPECT_EQ(Start(kAddrB), 1);
    EXPECT_EQ(Start(kAddrC), 2);
    EXPECT_EQ(ReadBytes(IniFilePath()), empty_first);
}

// An address that is no single word could never be found again (every start would add a
// block); one that reads as a word of the file's structure (a uhid device may carry any
// physical address) would end a block or the file early. Neither is ever matched, claimed or
// written: with a claimable block the file stays as it was; with no file, the generated one
// leaves its address line empty. The device keeps its defaults, and a real address claims
// the block afterwards.
TEST_F(ParamFileTest, UnmatchableAddressIsNeverMatchedClaimedOrWritten) {
    const std::string file = kHead + DefaultBlock(0, nullptr) + kEnd;
    auto model = NewDevice(kAddrA);
    ASSERT_EQ(IniDevGenerateFile(model.get()), 0);
    const std::string generated =
        Replace(ReadBytes(IniFilePath()), std::string("\t\t") + kAddrA, "");
    for (const char* address : {"", "usb 1", "usb\t1", "[EndOfFile]", "[Device_No.0]",
                                "[EndOfDevice]", "[String]", "[Device_No.x]", "SupportPoints"}) {
        SCOPED_TRACE(address);
        for (bool with_file : {true, false}) {
            if (with_file) {
                ASSERT_TRUE(WriteBytes(IniFilePath(), file));
            } else {
                unlink(IniFilePath());
            }
            const std::string expected = with_file ? file : generated;
            EXPECT_EQ(Start(address), -1);
            EXPECT_EQ(Start(address), -1);  // no block on a later start either
            EXPECT_EQ(ReadBytes(IniFilePath()), expected);
            EXPECT_EQ(Start(kAddrB), 0);
            EXPECT_EQ(ReadBytes(IniFilePath()),
                      Replace(expected, "Physical_Address\n",
                              std::string("Physical_Address\t\t") + kAddrB + "\n"));
        }
    }
}

TEST_F(ParamFileTest, EmptyAddressLineIsClaimed) {
    // A file generated for one device, then started with two devices allowed.
    settings_.MaxDeviceNums = 1;
    auto first = NewDevice(kAddrA);
    ASSERT_EQ(IniDevGenerateFile(first.get()), 0);
    const std::string generated = ReadBytes(IniFilePath());
    settings_.MaxDeviceNums = 2;
    ConfLogRecorder log;
    EXPECT_EQ(Start(kAddrB), 0);
    const std::string claimed = ReadBytes(IniFilePath());
    EXPECT_EQ(claimed, Replace(generated, "Physical_Address\n",
                               std::string("Physical_Address\t\t") + kAddrB + "\n"));
    EXPECT_EQ(
        log.Count(std::string("Attach physical address [") + kAddrB + "] with device figure [0]"),
        1);
    // The claimed block now matches its own device and nobody else's.
    EXPECT_EQ(Start(kAddrB), 0);
    EXPECT_EQ(ReadBytes(IniFilePath()), claimed);
    EXPECT_FALSE(Exists(IniTempPath()));
}

TEST_F(ParamFileTest, ClaimTouchesOnlyTheEmptyBlock) {
    const std::string bare = DefaultBlock(1, nullptr);
    const std::string file =
        kHead + DefaultBlock(0, kAddrA) + bare + DefaultBlock(2, kAddrC) + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    EXPECT_EQ(Start(kAddrB), 1);
    EXPECT_EQ(ReadBytes(IniFilePath()), kHead + DefaultBlock(0, kAddrA) + DefaultBlock(1, kAddrB) +
                                            DefaultBlock(2, kAddrC) + kEnd);
}

TEST_F(ParamFileTest, UnknownAddressAddsABlockInFrontOfEndOfFile) {
    const std::string file = kHead + DefaultBlock(0, kAddrA) + DefaultBlock(1, kAddrB) + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    ConfLogRecorder log;
    auto dev = NewDevice(kAddrC);
    dev->Param.SupportPoints = 5;
    DevIniRoutine(dev.get());
    EXPECT_EQ(dev->Param.Device_No, 2);
    EXPECT_EQ(dev->Param.BlockCounter, 2);
    const std::string expected =
        kHead + DefaultBlock(0, kAddrA) + DefaultBlock(1, kAddrB) +
        Replace(DefaultBlock(2, kAddrC), "SupportPoints\t\t\t10", "SupportPoints\t\t\t5") + kEnd;
    EXPECT_EQ(ReadBytes(IniFilePath()), expected);
    EXPECT_EQ(log.Count(std::string("Generate device parameter block, device figure[2] ,address[") +
                        kAddrC + "]"),
              1);
    // Read back from its new block.
    EXPECT_EQ(dev->Param.SupportPoints, 5);
    EXPECT_EQ(dev->Param.BlockStart, expected.find("\n[Device_No.2]"));
    EXPECT_EQ(dev->Param.BlockEnd, expected.size() - kEnd.size());
}

TEST_F(ParamFileTest, NewBlockNumbersStayUniqueSingleDigits) {
    // Blocks 0 and 4 exist: new blocks get 5..9, then the free numbers 1, 2, 3; then none.
    const std::string file = kHead + DefaultBlock(0, "a0") + DefaultBlock(4, "a4") + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    const int expected_numbers[] = {5, 6, 7, 8, 9, 1, 2, 3};
    std::vector<std::string> addresses;
    for (int i = 0; i < 8; ++i) {
        addresses.push_back("new-" + std::to_string(i));
        EXPECT_EQ(Start(addresses.back().c_str()), expected_numbers[i]) << i;
    }
    const std::string full = ReadBytes(IniFilePath());
    for (int n = 0; n <= 9; ++n) {
        EXPECT_EQ(CountOf(full, "[Device_No." + std::to_string(n) + "]"), 1) << n;
    }
    EXPECT_EQ(full.substr(full.size() - kEnd.size()), kEnd);
    EXPECT_EQ(CountOf(full, "[EndOfFile]"), 1);
    // All ten numbers are taken: the next device keeps its defaults, nothing is written.
    ConfLogRecorder log;
    auto extra = NewDevice("new-extra");
    extra->Param.SupportPoints = 3;
    DevIniRoutine(extra.get());
    EXPECT_EQ(extra->Param.Device_No, -1);
    EXPECT_EQ(extra->Param.SupportPoints, 3);
    EXPECT_EQ(ReadBytes(IniFilePath()), full);
    EXPECT_EQ(log.Count("Block numbers 0-9 are all used, device keeps default parameters"), 1);
    // A later start of every known device finds its own block and changes nothing.
    for (int i = 0; i < 8; ++i) EXPECT_EQ(Start(addresses[i].c_str()), expected_numbers[i]);
    EXPECT_EQ(Start("a4"), 4);
    EXPECT_EQ(ReadBytes(IniFilePath()), full);
}

TEST_F(ParamFileTest, MissingOrAlteredEndOfFileGetsTheBlockAtTheEnd) {
    const std::string body = kHead + DefaultBlock(0, kAddrA);
    struct Case {
        const char* name;
        std::string file;
    } cases[] = {
        {"missing", body},
        {"missing, trailing newline", body + "\n"},
        {"altered", body + "\n[EndOfFil]"},
        {"lower case", body + "\n[endoffile]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(WriteBytes(IniFilePath(), c.file));
        EXPECT_EQ(Start(kAddrB), 1);
        EXPECT_EQ(ReadBytes(IniFilePath()), c.file + DefaultBlock(1, kAddrB) + kEnd);
        // From now on the file ends normally and the next device goes in front of the end.
        EXPECT_EQ(Start(kAddrC), 2);
        EXPECT_EQ(ReadBytes(IniFilePath()),
                  c.file + DefaultBlock(1, kAddrB) + DefaultBlock(2, kAddrC) + kEnd);
    }
}

TEST_F(ParamFileTest, HostileFilesNeitherHangNorCorruptTheRest) {
    std::string garbage;
    for (int i = 0; i < 3000; ++i) {
        char c = static_cast<char>((i * 131 + 7) & 0xFF);
        garbage.push_back(c == '[' ? 'x' : c);  // no accidental structural words
    }
    const std::string long_word(200, 'W');
    struct Case {
        const char* name;
        std::string file;
        int expected_no;
        bool appended;  // block at the very end plus a new end word (no end word found)
    } cases[] = {
        {"header followed by nothing", "[TavrineA.ini]\n[Device_No.0]", 1, true},
        {"header and key only", "[TavrineA.ini]\n[Device_No.0]\nPhysical_Address", 1, true},
        {"200-character words",
         kHead + "\n[Device_No.0]\n" + long_word + " " + long_word +
             "\nSupportPoints 3\n[EndOfDevice]" + kEnd,
         1, false},
        {"200-character address", kHead + DefaultBlock(0, long_word.c_str()) + kEnd, 1, false},
        {"non-digit block header",
         kHead + DefaultBlock(0, kAddrA) +
             Replace(DefaultBlock(1, "x"), "[Device_No.1]", "[Device_No.x]") + kEnd,
         1, false},
        {"two-digit block header",
         kHead + Replace(DefaultBlock(0, "x"), "[Device_No.0]", "[Device_No.99]") + kEnd, 0, false},
        {"binary garbage after the header", "[TavrineA.ini]\n" + garbage, 0, true},
        {"end word in place of the key", kHead + "\n[Device_No.0]" + kEnd, 1, false},
        {"end word in place of the address", kHead + "\n[Device_No.3]\nPhysical_Address" + kEnd, 4,
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(WriteBytes(IniFilePath(), c.file));
        auto dev = NewDevice(kAddrB);
        dev->Param.SupportPoints = 7;
        DevIniRoutine(dev.get());
        EXPECT_EQ(dev->Param.Device_No, c.expected_no);
        const std::string block = Replace(DefaultBlock(c.expected_no, kAddrB),
                                          "SupportPoints\t\t\t10", "SupportPoints\t\t\t7");
        std::string expected;
        if (c.appended) {
            expected = c.file + block + kEnd;
        } else {
            ASSERT_EQ(c.file.substr(c.file.size() - kEnd.size()), kEnd);
            expected = c.file.substr(0, c.file.size() - kEnd.size()) + block + kEnd;
        }
        EXPECT_EQ(ReadBytes(IniFilePath()), expected);
        // The new block reads back.
        EXPECT_EQ(dev->Param.SupportPoints, 7);
        EXPECT_EQ(dev->Param.BlockEnd, expected.size() - kEnd.size());
    }
}

TEST_F(ParamFileTest, RewriteReplacesOnlyItsBlock) {
    // Block 1 carries a hand-added key and odd spacing that the rewrite replaces; everything
    // before and after it must survive byte for byte.
    const std::string before = kHead + "  # a note\n" + DefaultBlock(0, kAddrA);
    const std::string old_block = "\n[Device_No.1]\nPhysical_Address  " + std::string(kAddrB) +
                                  "\nReportMode 2\n SupportPoints 10\nVKEYReportMod 1\n"
                                  "VKEY_0 HOME\n[EndOfDevice]";
    const std::string after = "\n\n" + DefaultBlock(2, kAddrC) + "  \t" + kEnd;
    const std::string file = before + old_block + after;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    auto dev = NewDevice(kAddrB);
    DevIniRoutine(dev.get());
    ASSERT_EQ(dev->Param.Device_No, 1);
    EXPECT_EQ(dev->Param.ReportMode, 2);
    EXPECT_EQ(dev->Param.BlockStart, before.size());
    EXPECT_EQ(dev->Param.BlockEnd, before.size() + old_block.size());

    // Stale or foreign offsets are refused and change nothing.
    const uint32_t s = dev->Param.BlockStart;
    const uint32_t e = dev->Param.BlockEnd;
    const uint32_t size = static_cast<uint32_t>(file.size());
    const std::pair<uint32_t, uint32_t> bad[] = {
        {s + 1, e},     {s, e - 1},           {s, e + 1}, {e, s},
        {s, size + 20}, {size + 5, size + 5}, {0, 0},     {3, 3},
    };
    for (const auto& b : bad) {
        EXPECT_EQ(IniDevParamAddBlock(dev.get(), b.first, b.second), -1)
            << b.first << "," << b.second;
        EXPECT_EQ(ReadBytes(IniFilePath()), file);
    }
    dev->Param.Device_No = 2;  // offsets of block 1, number of another block
    EXPECT_EQ(IniDevParamAddBlock(dev.get(), s, e), -1);
    EXPECT_EQ(ReadBytes(IniFilePath()), file);
    dev->Param.Device_No = 1;

    dev->Param.SupportPoints = 20;
    ASSERT_EQ(IniDevParamAddBlock(dev.get(), s, e), 0);
    EXPECT_EQ(dev->Param.Device_No, 1);
    const std::string expected =
        before +
        Replace(DefaultBlock(1, kAddrB), "SupportPoints\t\t\t10", "SupportPoints\t\t\t20") + after;
    EXPECT_EQ(ReadBytes(IniFilePath()), expected);
    EXPECT_FALSE(Exists(IniTempPath()));
    EXPECT_EQ(pthread_mutex_trylock(&SettingsFileMutex), 0);
    pthread_mutex_unlock(&SettingsFileMutex);
}

TEST_F(ParamFileTest, UncreatableTemporaryFileLeavesTheFileUntouched) {
    ASSERT_EQ(mkdir(IniTempPath(), 0755), 0);  // the temporary file cannot be opened
    const std::string claimable = kHead + DefaultBlock(0, nullptr) + kEnd;
    const std::string full = kHead + DefaultBlock(0, kAddrA) + kEnd;
    {
        SCOPED_TRACE("claim");
        ASSERT_TRUE(WriteBytes(IniFilePath(), claimable));
        ConfLogRecorder log;
        EXPECT_EQ(Start(kAddrB), -1);
        EXPECT_EQ(ReadBytes(IniFilePath()), claimable);
        EXPECT_EQ(log.Count("Create temp param file failed, please modify param manually"), 1);
        EXPECT_EQ(log.Count("Add physical address failed, use default setting"), 1);
    }
    {
        SCOPED_TRACE("add");
        ASSERT_TRUE(WriteBytes(IniFilePath(), full));
        EXPECT_EQ(Start(kAddrB), -1);
        EXPECT_EQ(ReadBytes(IniFilePath()), full);
    }
    {
        SCOPED_TRACE("rewrite");
        auto dev = NewDevice(kAddrA);
        DevIniRoutine(dev.get());
        ASSERT_EQ(dev->Param.Device_No, 0);
        dev->Param.SupportPoints = 4;
        EXPECT_EQ(IniDevParamAddBlock(dev.get(), dev->Param.BlockStart, dev->Param.BlockEnd), -1);
        EXPECT_EQ(ReadBytes(IniFilePath()), full);
    }
    {
        SCOPED_TRACE("generate");
        ASSERT_EQ(unlink(IniFilePath()), 0);
        ConfLogRecorder log;
        auto dev = NewDevice(kAddrA);
        EXPECT_EQ(IniDevGenerateFile(dev.get()), -1);
        EXPECT_EQ(dev->Param.Device_No, -1);
        EXPECT_FALSE(Exists(IniFilePath()));
        EXPECT_EQ(log.Count("Failed to generate ini file"), 1);
    }
    struct stat st;
    ASSERT_EQ(stat(IniTempPath(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

// Symbolic links at the settings file or its temporary copy: the file a link points to is
// never read as the settings nor written, whatever the device step does. A link at the
// settings path is replaced by the generated file (rename does not follow it); a link at
// the temporary path makes the rewrite fail as an uncreatable temporary file does.
TEST_F(ParamFileTest, LinksAtTheSettingsPathsAreNeverWrittenThrough) {
    const std::string victim = dir_.path() + "/victim.ini";
    const std::string full = kHead + DefaultBlock(0, kAddrA) + kEnd;
    {
        SCOPED_TRACE("link to a settings file");
        ASSERT_TRUE(WriteBytes(victim, full));
        ASSERT_EQ(symlink(victim.c_str(), IniFilePath()), 0);
        EXPECT_NE(Start(kAddrB), 0);  // no block 0 read through the link
        EXPECT_EQ(ReadBytes(victim), full);
        ASSERT_EQ(unlink(IniFilePath()), 0);
    }
    {
        SCOPED_TRACE("dangling link");
        const std::string nowhere = dir_.path() + "/nowhere.ini";
        ASSERT_EQ(symlink(nowhere.c_str(), IniFilePath()), 0);
        EXPECT_EQ(Start(kAddrA), 0);
        EXPECT_FALSE(Exists(nowhere));
        struct stat st;
        ASSERT_EQ(lstat(IniFilePath(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(CountOf(ReadBytes(IniFilePath()), "[Device_No.0]"), 1);
        ASSERT_EQ(unlink(IniFilePath()), 0);
    }
    {
        SCOPED_TRACE("link at the temporary copy");
        ASSERT_EQ(symlink(victim.c_str(), IniTempPath()), 0);
        ConfLogRecorder log;
        EXPECT_EQ(Start(kAddrA), -1);
        EXPECT_EQ(log.Count("Create temp param file failed, please modify param manually"), 1);
        EXPECT_FALSE(Exists(IniFilePath()));
        EXPECT_EQ(ReadBytes(victim), full);
        ASSERT_EQ(unlink(IniTempPath()), 0);
    }
    // Hard links: the same file under a second name. Neither the generation, nor a read,
    // nor the copy made for a new block writes the linked file.
    for (const char* path : {IniFilePath(), IniTempPath()}) {
        SCOPED_TRACE(std::string("hard link at ") + path);
        const std::string claimable = kHead + DefaultBlock(0, nullptr) + kEnd;
        if (path == IniTempPath()) {
            ASSERT_TRUE(WriteBytes(IniFilePath(), claimable));
        }
        ASSERT_EQ(link(victim.c_str(), path), 0);
        EXPECT_EQ(Start(kAddrB), -1);
        EXPECT_EQ(ReadBytes(victim), full);
        if (path == IniTempPath()) {
            EXPECT_EQ(ReadBytes(IniFilePath()), claimable);
        }
        ASSERT_EQ(unlink(path), 0);
    }
}

TEST_F(ParamFileTest, WriteFailureMidCopyLeavesTheFileUntouched) {
    // A file-size limit below the size of the copy makes the writes of the temporary file
    // fail part way (EFBIG), as a full disk would.
    const std::string file = kHead + DefaultBlock(0, kAddrA) + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct sigaction ignore = {};
    struct sigaction saved_action = {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &saved_action), 0);
    struct rlimit small = saved;
    small.rlim_cur = 300;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);

    auto adder = NewDevice(kAddrB);
    DevIniRoutine(adder.get());
    auto rewriter = NewDevice(kAddrA);
    DevIniRoutine(rewriter.get());
    const int rewrite =
        IniDevParamAddBlock(rewriter.get(), rewriter->Param.BlockStart, rewriter->Param.BlockEnd);
    unlink(IniFilePath());
    auto generator = NewDevice(kAddrA);
    const int generated = IniDevGenerateFile(generator.get());
    const bool ini_exists = Exists(IniFilePath());

    setrlimit(RLIMIT_FSIZE, &saved);
    sigaction(SIGXFSZ, &saved_action, nullptr);

    EXPECT_EQ(adder->Param.Device_No, -1);
    EXPECT_EQ(rewriter->Param.Device_No, 0);
    EXPECT_EQ(rewrite, -1);
    EXPECT_EQ(generated, -1);
    EXPECT_FALSE(ini_exists);
    EXPECT_FALSE(Exists(IniTempPath()));
}

TEST_F(ParamFileTest, ReadersWaitForTheSettingsLock) {
    const std::string file = kHead + DefaultBlock(0, kAddrA) + kEnd;
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    std::atomic<bool> done{false};
    int number = -2;
    pthread_mutex_lock(&SettingsFileMutex);
    std::thread worker([&] {
        number = Start(kAddrB);
        done = true;
    });
    usleep(100000);
    EXPECT_FALSE(done.load());
    EXPECT_EQ(ReadBytes(IniFilePath()), file);
    EXPECT_FALSE(Exists(IniTempPath()));
    pthread_mutex_unlock(&SettingsFileMutex);
    worker.join();
    EXPECT_EQ(number, 1);
    EXPECT_EQ(ReadBytes(IniFilePath()),
              kHead + DefaultBlock(0, kAddrA) + DefaultBlock(1, kAddrB) + kEnd);
}

TEST_F(ParamFileTest, ConcurrentDevicesEndWithOneWellFormedFile) {
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        const bool from_scratch = (round % 2) == 0;  // odd rounds: block 0 exists already
        unlink(IniFilePath());
        if (!from_scratch) {
            ASSERT_TRUE(WriteBytes(IniFilePath(), kHead + DefaultBlock(0, kAddrA) + kEnd));
        }
        int no_b = -2;
        int no_c = -2;
        std::thread tb([&] { no_b = Start(kAddrB); });
        std::thread tc([&] { no_c = Start(kAddrC); });
        tb.join();
        tc.join();
        const std::string file = ReadBytes(IniFilePath());
        EXPECT_FALSE(Exists(IniTempPath()));
        if (from_scratch) {
            // One device generated the file, the other added its block after it.
            ASSERT_TRUE((no_b == 0 && no_c == 1) || (no_b == 1 && no_c == 0));
            const char* first = no_b == 0 ? kAddrB : kAddrC;
            const char* second = no_b == 0 ? kAddrC : kAddrB;
            EXPECT_EQ(file, GeneratedHead("ffffffff", 3, 2, 0) + DefaultBlock(0, first) +
                                DefaultBlock(1, second) + kEnd);
        } else {
            ASSERT_TRUE((no_b == 1 && no_c == 2) || (no_b == 2 && no_c == 1));
            EXPECT_EQ(file, kHead + DefaultBlock(0, kAddrA) +
                                DefaultBlock(1, no_b == 1 ? kAddrB : kAddrC) +
                                DefaultBlock(2, no_b == 2 ? kAddrB : kAddrC) + kEnd);
        }
    }
}

}  // namespace
