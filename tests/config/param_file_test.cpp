// The per-device settings file step: matching, claiming, adding and rewriting blocks, paths
// that must never be written through, and two devices working on the file at once.
#include <gtest/gtest.h>
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

// A default block as the daemon must write it (spelled out by hand), with SupportPoints
// points; address nullptr gives the bare "Physical_Address" line of a single-device file.
std::string Block(int no, const char* address, int points = 10) {
    return "\n[Device_No." + std::to_string(no) + "]\nPhysical_Address" +
           (address ? std::string("\t\t") + address : "") + "\nSupportPoints\t\t\t" +
           std::to_string(points) +
           "\nSendRawPoints\t\t\t0\nDirection\t\t\t0\nOrientation\t\t\t0\nEdgeCompensate\t\t\t0\n"
           "\tEdgeLeft\t\t\t100\n\tEdgeRight\t\t\t100\n\tEdgeTop\t\t\t\t100\n\tEdgeBottom\t\t\t100\n"
           "HoldFilterEnable\t\t0\n\tHoldRange\t\t\t20\nSplitRectMode\t\t\t0\n"
           "\tCustomRectLeft\t\t\t0\n\tCustomRectRight\t\t\t4095\n\tCustomRectTop\t\t\t0\n"
           "\tCustomRectBottom\t\t4095\nNoDeviceCheck              0\nVKEYEnable\t\t0\n"
           "\tVKEYReportMod\t\t1\n\tVKEY_0\t\t\t0\n[EndOfDevice]";
}

// The global part of a generated file (two devices, baud rate 0), before the first block.
std::string Head(const char* debug_bits_hex, int show_position) {
    return std::string("[TavrineA.ini]\nDebugEnableBits\t\t") + debug_bits_hex +
           "\nShowDebugPosition\t" + std::to_string(show_position) +
           "\nDeviceNums\t\t2\nBaudRate\t\t0\n[String]\nSerialPath\t\tdefault\n\n";
}

const char kA[] = "usb-0000:00:1d.0-1/input0", kB[] = "usb-0000:00:1d.0-2/input0",
           kC[] = "/dev/ttyS1";
const std::string kHead = Head("1", 1), kEnd = "\n[EndOfFile]";

class ParamFileTest : public ::testing::Test {
  protected:
    // A device record on address, set up as the device constructor does.
    std::unique_ptr<CDeviceObject> NewDevice(const char* address) {
        settings_.MaxDeviceNums = 2;
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
    testutil::LogCapture silent_{0xFFFFFFFFu, 3};  // every category on, nothing written
    GlobalSettings settings_{};
};

// Bytes in, block number and bytes out. A device finds its block by physical address, claims
// a block with an empty address line, or gets a new block in front of "[EndOfFile]" (at the
// end, with a new end word, when there is none). The device asks for 7 touch points, so a
// block read back shows 7 only when it is the block written for this device.
TEST_F(ParamFileTest, DeviceBlocksBytesInBytesOut) {
    const std::string w200(200, 'W'), a0 = kHead + Block(0, kA);
    std::string full = kHead;  // all ten numbers in use: no block, file unchanged
    for (int i = 0; i <= 9; ++i) full += Block(i, ("a" + std::to_string(i)).c_str());
    // in is body plus the end word when end is set. out: given, or when the device found its
    // block the file unchanged, or for a new block body + the block + the end word.
    const struct {
        const char* name;
        std::string body;
        bool end;
        int no, points;
        std::string out;
    } cases[] = {
        {"match reads its block", a0 + Block(1, kB, 5), true, 1, 5, ""},
        {"empty address line claimed", a0 + Block(1, nullptr) + Block(2, kC), true, 1, 10,
         a0 + Block(1, kB) + Block(2, kC) + kEnd},
        {"unknown address adds a block", a0, true, 1, 7, ""},
        {"numbers go on after the highest", kHead + Block(4, kA), true, 5, 7, ""},
        {"lowest free number once 9 is taken", a0 + Block(9, kC), true, 1, 7, ""},
        {"no end word", a0, false, 1, 7, ""},
        {"altered end word", a0 + "\n[EndOfFile", false, 1, 7, ""},
        {"200-character address", kHead + Block(0, w200.c_str()), true, 1, 7, ""},
        {"two-digit header is no block", kHead + "\n[Device_No.99]" + Block(0, kB).substr(14),
         true, 0, 7, ""},
        {"end word in place of the address", kHead + "\n[Device_No.3]\nPhysical_Address", true,
         4, 7, ""},
        {"every number taken", full, true, -1, 7, full + kEnd},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string in = c.body + (c.end ? kEnd : "");
        const std::string out = !c.out.empty()  ? c.out
                                : c.points == 7 ? c.body + Block(c.no, kB, 7) + kEnd
                                                : in;
        ASSERT_TRUE(WriteFile(IniFilePath(), in));
        auto dev = NewDevice(kB);
        dev->Param.SupportPoints = 7;
        DevIniRoutine(dev.get());
        EXPECT_EQ(dev->Param.Device_No, c.no);
        EXPECT_EQ(dev->Param.SupportPoints, c.points);
        EXPECT_EQ(ReadFile(IniFilePath()), out);
        EXPECT_FALSE(FileExists(IniTempPath()));
        EXPECT_EQ(Start(kB), c.no);  // the next start finds the same block, file unchanged
        EXPECT_EQ(ReadFile(IniFilePath()), out);
    }
}

// Block values are leading numbers stored by the width of their field; -1 keeps a value;
// a block ends at its end word, or without one at the next header.
TEST_F(ParamFileTest, BlockValuesReadByTheirRule) {
    ASSERT_TRUE(WriteFile(IniFilePath(),
                          kHead + "\n[Device_No.0] Physical_Address y ReportMode 1\n[Device_No.1]\n"
                                  "Physical_Address x\nSupportPoints 300\nReportMode 200\n"
                                  "EventType 260\nDetectRotation 129\nBtnType 383\n"
                                  "RightClickEnable 5\nEdgeCompensate -2\nBeepFreq -1\n"
                                  "ResolX 4096a\nEdgeLeft 1\nSplitRectMode 265\nVKEYEnable 5\n"
                                  "[EndOfDevice] 7 ReportMode 1" + kEnd));
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
        const std::string before = kHead + "  # a note\n",
                          after = "\n\n" + Block(1, kA) + Block(2, kC) + "  \t" + kEnd,
                          file = before + "\n[Device_No.0]\nPhysical_Address  " + kB +
                                 "\nReportMode 2\n SupportPoints 10\n" + keys + "[EndOfDevice]" +
                                 after;
        ASSERT_TRUE(WriteFile(IniFilePath(), file));
        auto dev = NewDevice(kB);
        DevIniRoutine(dev.get());
        ASSERT_EQ(dev->Param.Device_No, 0);
        EXPECT_EQ(dev->Param.ReportMode, 2);
        const uint32_t s = dev->Param.BlockStart, e = dev->Param.BlockEnd,
                       n = static_cast<uint32_t>(file.size());
        // Stale offsets, then the offsets of block 0 with the number of another block.
        const uint32_t bad[][3] = {{s + 1, e, 0}, {s, e - 1, 0}, {s, e + 1, 0}, {e, s, 0},
                                   {s, n + 20, 0}, {n + 5, n + 5, 0}, {s, e, 2}};
        for (const auto& b : bad) {
            dev->Param.Device_No = b[2];
            EXPECT_EQ(IniDevParamAddBlock(dev.get(), b[0], b[1]), -1) << b[0] << "," << b[1];
            EXPECT_EQ(ReadFile(IniFilePath()), file);
        }
        dev->Param.Device_No = 0;
        dev->Param.SupportPoints = 20;
        ASSERT_EQ(IniDevParamAddBlock(dev.get(), s, e), 0);
        EXPECT_EQ(ReadFile(IniFilePath()), before + Block(0, kB, 20) + after);
        EXPECT_FALSE(FileExists(IniTempPath()));
    }
}

// An address that could not be read back as one word, or that is a section word, never
// takes a block, in an existing file or a new one; a later device still claims the block.
TEST_F(ParamFileTest, UnmatchableAddressIsNeverMatchedClaimedOrWritten) {
    for (const char* address : {"", "usb 1", "usb\t1", "[EndOfFile]", "[Device_No.0]",
                                "[EndOfDevice]", "[String]", "[Device_No.x]", "SupportPoints"}) {
        for (bool with_file : {true, false}) {
            SCOPED_TRACE(std::string(address) + (with_file ? " in a file" : " no file"));
            const std::string head = with_file ? kHead : Head("ffffffff", 3);
            unlink(IniFilePath());
            if (with_file) WriteFile(IniFilePath(), kHead + Block(0, nullptr) + kEnd);
            EXPECT_EQ(Start(address), -1);
            EXPECT_EQ(Start(address), -1);  // no block on a later start either
            EXPECT_EQ(ReadFile(IniFilePath()), head + Block(0, nullptr) + kEnd);
            EXPECT_EQ(Start(kB), 0);
            EXPECT_EQ(ReadFile(IniFilePath()), head + Block(0, kB) + kEnd);
        }
    }
}

// Links and FIFOs at the settings paths: the file a link names is never read or written, and
// a FIFO never blocks the step. No start takes a block through them.
TEST_F(ParamFileTest, LinksAtTheSettingsPathsAreNeverWrittenThrough) {
    const std::string victim = dir_.File("victim.ini"), full = kHead + Block(0, kA) + kEnd,
                      claimable = kHead + Block(0, nullptr) + kEnd;
    ASSERT_TRUE(WriteFile(victim, full));
    const struct {
        const char* name;
        int (*make)(const char*, const char*);  // (victim, path)
        bool at_temp;
    } cases[] = {{"FIFO", [](const char*, const char* p) { return mkfifo(p, 0600); }, false},
                 {"symbolic link", symlink, false},
                 {"symbolic link at the copy", symlink, true},
                 {"hard link", link, false},
                 {"hard link at the copy", link, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const char* path = c.at_temp ? IniTempPath() : IniFilePath();
        if (c.at_temp) WriteFile(IniFilePath(), claimable);
        ASSERT_EQ(c.make(victim.c_str(), path), 0);
        EXPECT_EQ(Start(kB), -1);
        EXPECT_EQ(ReadFile(victim), full);
        if (c.at_temp) {
            EXPECT_EQ(ReadFile(IniFilePath()), claimable);
        }
        ASSERT_EQ(unlink(path), 0);
        unlink(IniFilePath());
    }
    // A dangling link is replaced by a new regular file; its target is never created.
    ASSERT_EQ(symlink(dir_.File("nowhere.ini").c_str(), IniFilePath()), 0);
    EXPECT_EQ(Start(kA), 0);
    EXPECT_FALSE(FileExists(dir_.File("nowhere.ini")));
    struct stat st;
    ASSERT_EQ(lstat(IniFilePath(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

// Two devices start on a missing file at once: one generates it, the other adds its block.
TEST_F(ParamFileTest, ConcurrentDevicesEndWithOneWellFormedFile) {
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        unlink(IniFilePath());
        int no_b = -2, no_c = -2;
        std::thread tb([&] { no_b = Start(kB); }), tc([&] { no_c = Start(kC); });
        tb.join();
        tc.join();
        EXPECT_FALSE(FileExists(IniTempPath()));
        ASSERT_TRUE((no_b == 0 && no_c == 1) || (no_b == 1 && no_c == 0));
        EXPECT_EQ(ReadFile(IniFilePath()), Head("ffffffff", 3) + Block(0, no_b ? kC : kB) +
                                               Block(1, no_b ? kB : kC) + kEnd);
    }
}

}  // namespace
