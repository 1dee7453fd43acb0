// The per-device settings file step: matching, claiming, adding and rewriting blocks, paths
// that must never be written through, and two devices working on the file at once.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "config/device_param.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "support/test_util.h"

namespace {

using testutil::FileExists;
using testutil::ReadFile;
using testutil::WriteFile;

// The default block text with block number no, as the daemon must write it (spelled out by
// hand); address nullptr gives the bare "Physical_Address" line of a single-device file.
std::string DefaultBlock(int no, const char* address) {
    std::string text = "\n[Device_No." + std::to_string(no) + "]\n";
    text += address ? std::string("Physical_Address\t\t") + address + "\n" : "Physical_Address\n";
    text +=
        "SupportPoints\t\t\t10\n"
        "SendRawPoints\t\t\t0\n"
        "Direction\t\t\t0\n"
        "Orientation\t\t\t0\n"
        "EdgeCompensate\t\t\t0\n"
        "\tEdgeLeft\t\t\t100\n"
        "\tEdgeRight\t\t\t100\n"
        "\tEdgeTop\t\t\t\t100\n"
        "\tEdgeBottom\t\t\t100\n"
        "HoldFilterEnable\t\t0\n"
        "\tHoldRange\t\t\t20\n"
        "SplitRectMode\t\t\t0\n"
        "\tCustomRectLeft\t\t\t0\n"
        "\tCustomRectRight\t\t\t4095\n"
        "\tCustomRectTop\t\t\t0\n"
        "\tCustomRectBottom\t\t4095\n"
        "NoDeviceCheck              0\n"
        "VKEYEnable\t\t0\n"
        "\tVKEYReportMod\t\t1\n"
        "\tVKEY_0\t\t\t0\n"
        "[EndOfDevice]";
    return text;
}

// The global part of a generated file, before the first block.
std::string GeneratedHead(const char* debug_bits_hex, int show_position, int device_nums,
                          int baud_rate) {
    return std::string("[TavrineA.ini]\n") + "DebugEnableBits\t\t" + debug_bits_hex + "\n" +
           "ShowDebugPosition\t" + std::to_string(show_position) + "\n" + "DeviceNums\t\t" +
           std::to_string(device_nums) + "\n" + "BaudRate\t\t" + std::to_string(baud_rate) + "\n" +
           "[String]\n" + "SerialPath\t\tdefault\n" + "\n";
}

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

    testutil::TempDir dir_;
    // Every category on, but nothing written anywhere.
    testutil::LogCapture silent_{0xFFFFFFFFu, 3};
    GlobalSettings settings_{};
};

// The per-device step on a settings file: bytes in, block number and bytes out. A device
// finds its block by physical address, claims a block with an empty address line, or gets a
// new block in front of "[EndOfFile]" (at the end, with a new end word, when there is none).
// The new device asks for 7 touch points, so a block read back from the file shows 7 only
// when it is the block written for this device.
TEST_F(ParamFileTest, DeviceBlocksBytesInBytesOut) {
    const std::string w200(200, 'W');
    const std::string mine = Replace(DefaultBlock(9, kAddrB), "[Device_No.9]", "[Device_No.%]");
    auto my_block = [&](int no) {
        return Replace(Replace(mine, "%", std::to_string(no)), "SupportPoints\t\t\t10",
                       "SupportPoints\t\t\t7");
    };
    const std::string a0 = kHead + DefaultBlock(0, kAddrA);
    const std::string five =
        Replace(DefaultBlock(1, kAddrB), "SupportPoints\t\t\t10", "SupportPoints\t\t\t5");
    // in is body plus the end word when end is set. out: given, or for a device that found
    // its block the file unchanged, or for a new block body + the block + the end word.
    const struct {
        const char* name;
        std::string body;
        bool end;
        int no;
        int points;
        std::string out;
    } cases[] = {
        {"match leaves the file", a0 + DefaultBlock(1, kAddrB), true, 1, 10, ""},
        {"match reads its block", a0 + five, true, 1, 5, ""},
        {"empty address line claimed", a0 + DefaultBlock(1, nullptr) + DefaultBlock(2, kAddrC),
         true, 1, 10, a0 + DefaultBlock(1, kAddrB) + DefaultBlock(2, kAddrC) + kEnd},
        {"unknown address adds a block", a0, true, 1, 7, ""},
        {"numbers go on after the highest", kHead + DefaultBlock(4, kAddrA), true, 5, 7, ""},
        {"lowest free number once 9 is taken", a0 + DefaultBlock(9, kAddrC), true, 1, 7, ""},
        {"no end word", a0, false, 1, 7, ""},
        {"altered end word", a0 + "\n[EndOfFile", false, 1, 7, ""},
        {"200-character address", kHead + DefaultBlock(0, w200.c_str()), true, 1, 7, ""},
        {"two-digit header is no block",
         kHead + Replace(DefaultBlock(0, kAddrB), "[Device_No.0]", "[Device_No.99]"), true, 0, 7,
         ""},
        {"end word in place of the address", kHead + "\n[Device_No.3]\nPhysical_Address", true, 4,
         7, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string in = c.body + (c.end ? kEnd : "");
        const std::string out = !c.out.empty()  ? c.out
                                : c.points == 7 ? c.body + my_block(c.no) + kEnd
                                                : in;
        ASSERT_TRUE(WriteFile(IniFilePath(), in));
        auto dev = NewDevice(kAddrB);
        dev->Param.SupportPoints = 7;
        DevIniRoutine(dev.get());
        EXPECT_EQ(dev->Param.Device_No, c.no);
        EXPECT_EQ(dev->Param.SupportPoints, c.points);
        EXPECT_EQ(ReadFile(IniFilePath()), out);
        EXPECT_FALSE(FileExists(IniTempPath()));
        EXPECT_EQ(Start(kAddrB), c.no);  // the next start finds the same block, file unchanged
        EXPECT_EQ(ReadFile(IniFilePath()), out);
    }
    // All ten numbers in use: no block, file unchanged.
    std::string full = kHead;
    for (int i = 0; i <= 9; ++i) full += DefaultBlock(i, ("a" + std::to_string(i)).c_str());
    ASSERT_TRUE(WriteFile(IniFilePath(), full + kEnd));
    EXPECT_EQ(Start(kAddrB), -1);
    EXPECT_EQ(ReadFile(IniFilePath()), full + kEnd);
}

// Block values are leading numbers stored by the width of their field; -1 keeps a value;
// a block ends at its end word, or without one at the next header.
TEST_F(ParamFileTest, BlockValuesReadByTheirRule) {
    ASSERT_TRUE(WriteFile(IniFilePath(),
                           kHead +
                               "\n[Device_No.0] Physical_Address y ReportMode 1\n"
                               "[Device_No.1]\nPhysical_Address x\nSupportPoints 300\n"
                               "ReportMode 200\nEventType 260\nDetectRotation 129\nBtnType 383\n"
                               "RightClickEnable 5\nEdgeCompensate -2\nBeepFreq -1\nResolX 4096a\n"
                               "EdgeLeft 1\nSplitRectMode 265\nVKEYEnable 5\n"
                               "[EndOfDevice] 7 ReportMode 1" +
                               kEnd));
    auto dev = NewDevice("x");
    const int32_t freq = dev->Param.BeepFreq;
    dev->Param.Device_No = 1;
    IniDevParamRead(dev.get());
    const DeviceParam& p = dev->Param;
    EXPECT_EQ((std::vector<int>{p.SupportPoints, p.ReportMode, p.EventType, p.DetectRotation,
                                p.BtnType, p.RightClickEnable, p.EdgeCompensate, p.BeepFreq,
                                p.ResolX, p.EdgeLeft, p.SplitRectMode, p.VKEYEnable}),
              (std::vector<int>{44, -56, 4, -127, 127, 1, 0xFFFE, freq, 4096, 1, 9, 1}));
}

// A rewrite of a block replaces exactly its bytes; stale or foreign offsets change nothing.
// With or without a virtual-key section the block's end word ends it, so the block that
// follows is never read or rewritten as part of it.
TEST_F(ParamFileTest, RewriteReplacesOnlyItsBlock) {
    for (const std::string keys : {"VKEYReportMod 1\nVKEY_0 HOME\n", ""}) {
        SCOPED_TRACE(keys);
        const std::string before = kHead + "  # a note\n";
        const std::string old_block = "\n[Device_No.0]\nPhysical_Address  " + std::string(kAddrB) +
                                      "\nReportMode 2\n SupportPoints 10\n" + keys +
                                      "[EndOfDevice]";
        const std::string after =
            "\n\n" + DefaultBlock(1, kAddrA) + DefaultBlock(2, kAddrC) + "  \t" + kEnd;
        const std::string file = before + old_block + after;
        ASSERT_TRUE(WriteFile(IniFilePath(), file));
        auto dev = NewDevice(kAddrB);
        DevIniRoutine(dev.get());
        ASSERT_EQ(dev->Param.Device_No, 0);
        EXPECT_EQ(dev->Param.ReportMode, 2);
        const uint32_t s = dev->Param.BlockStart;
        const uint32_t e = dev->Param.BlockEnd;
        const uint32_t size = static_cast<uint32_t>(file.size());
        const std::pair<uint32_t, uint32_t> bad[] = {
            {s + 1, e}, {s, e - 1}, {s, e + 1}, {e, s}, {s, size + 20}, {size + 5, size + 5}};
        for (const auto& b : bad) {
            EXPECT_EQ(IniDevParamAddBlock(dev.get(), b.first, b.second), -1)
                << b.first << "," << b.second;
            EXPECT_EQ(ReadFile(IniFilePath()), file);
        }
        dev->Param.Device_No = 2;  // offsets of block 0, number of another block
        EXPECT_EQ(IniDevParamAddBlock(dev.get(), s, e), -1);
        EXPECT_EQ(ReadFile(IniFilePath()), file);
        dev->Param.Device_No = 0;
        dev->Param.SupportPoints = 20;
        ASSERT_EQ(IniDevParamAddBlock(dev.get(), s, e), 0);
        EXPECT_EQ(
            ReadFile(IniFilePath()),
            before +
                Replace(DefaultBlock(0, kAddrB), "SupportPoints\t\t\t10", "SupportPoints\t\t\t20") +
                after);
        EXPECT_FALSE(FileExists(IniTempPath()));
    }
}

TEST_F(ParamFileTest, UnmatchableAddressIsNeverMatchedClaimedOrWritten) {
    const std::string file = kHead + DefaultBlock(0, nullptr) + kEnd;
    auto model = NewDevice(kAddrA);
    ASSERT_EQ(IniDevGenerateFile(model.get()), 0);
    const std::string generated =
        Replace(ReadFile(IniFilePath()), std::string("\t\t") + kAddrA, "");
    for (const char* address : {"", "usb 1", "usb\t1", "[EndOfFile]", "[Device_No.0]",
                                "[EndOfDevice]", "[String]", "[Device_No.x]", "SupportPoints"}) {
        SCOPED_TRACE(address);
        for (bool with_file : {true, false}) {
            if (with_file) {
                ASSERT_TRUE(WriteFile(IniFilePath(), file));
            } else {
                unlink(IniFilePath());
            }
            const std::string expected = with_file ? file : generated;
            EXPECT_EQ(Start(address), -1);
            EXPECT_EQ(Start(address), -1);  // no block on a later start either
            EXPECT_EQ(ReadFile(IniFilePath()), expected);
            EXPECT_EQ(Start(kAddrB), 0);
            EXPECT_EQ(ReadFile(IniFilePath()),
                      Replace(expected, "Physical_Address\n",
                              std::string("Physical_Address\t\t") + kAddrB + "\n"));
        }
    }
}

// Links and FIFOs at the settings paths: the file a link names is never read or written, and
// a FIFO never blocks the step. No start takes a block through them.
TEST_F(ParamFileTest, LinksAtTheSettingsPathsAreNeverWrittenThrough) {
    const std::string victim = dir_.path() + "/victim.ini";
    const std::string full = kHead + DefaultBlock(0, kAddrA) + kEnd;
    const std::string claimable = kHead + DefaultBlock(0, nullptr) + kEnd;
    ASSERT_TRUE(WriteFile(victim, full));
    const struct {
        const char* name;
        int (*make)(const char*, const char*);  // (victim, path)
        bool at_temp;
    } cases[] = {
        {"FIFO", [](const char*, const char* p) { return mkfifo(p, 0600); }, false},
        {"symbolic link", symlink, false},
        {"symbolic link at the copy", symlink, true},
        {"hard link", link, false},
        {"hard link at the copy", link, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const char* path = c.at_temp ? IniTempPath() : IniFilePath();
        if (c.at_temp) {
            ASSERT_TRUE(WriteFile(IniFilePath(), claimable));
        }
        ASSERT_EQ(c.make(victim.c_str(), path), 0);
        EXPECT_EQ(Start(kAddrB), -1);
        EXPECT_EQ(ReadFile(victim), full);
        if (c.at_temp) {
            EXPECT_EQ(ReadFile(IniFilePath()), claimable);
        }
        ASSERT_EQ(unlink(path), 0);
        unlink(IniFilePath());
    }
    // A dangling link is replaced by a new regular file; its target is never created.
    const std::string nowhere = dir_.path() + "/nowhere.ini";
    ASSERT_EQ(symlink(nowhere.c_str(), IniFilePath()), 0);
    EXPECT_EQ(Start(kAddrA), 0);
    EXPECT_FALSE(FileExists(nowhere));
    struct stat st;
    ASSERT_EQ(lstat(IniFilePath(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

// Two devices start on a missing file at once: one generates it, the other adds its block.
TEST_F(ParamFileTest, ConcurrentDevicesEndWithOneWellFormedFile) {
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        unlink(IniFilePath());
        int no_b = -2;
        int no_c = -2;
        std::thread tb([&] { no_b = Start(kAddrB); });
        std::thread tc([&] { no_c = Start(kAddrC); });
        tb.join();
        tc.join();
        EXPECT_FALSE(FileExists(IniTempPath()));
        ASSERT_TRUE((no_b == 0 && no_c == 1) || (no_b == 1 && no_c == 0));
        EXPECT_EQ(ReadFile(IniFilePath()), GeneratedHead("ffffffff", 3, 2, 0) +
                                                DefaultBlock(0, no_b == 0 ? kAddrB : kAddrC) +
                                                DefaultBlock(1, no_b == 0 ? kAddrC : kAddrB) +
                                                kEnd);
    }
}

}  // namespace
