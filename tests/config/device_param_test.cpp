// Per-device parameters: defaults, the block reader's rules, DevIniRoutine and the print-out.
// Every test runs on its own temporary data directory.
#include "config/device_param.h"

#include <gtest/gtest.h>
#include <linux/input.h>
#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

#include "core/paths.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "support/conf_test_util.h"

namespace {

using conftest::ConfDataDir;
using conftest::ConfLogRecorder;
using conftest::DefaultBlock;
using conftest::ReadBytes;
using conftest::WriteBytes;

const std::string kGlobalPart =
    "[TavrineA.ini]\nDebugEnableBits\t\t1\nDeviceNums\t\t2\n[String]\nSerialPath\t\tdefault\n";

// A settings file with the given device blocks (each one "\n[Device_No.n]...[EndOfDevice]").
std::string FileWith(const std::string& blocks) {
    return kGlobalPart + "\n" + blocks + "\n[EndOfFile]";
}

std::string Block(int no, const std::string& body) {
    return "\n[Device_No." + std::to_string(no) + "]\n" + body + "\n[EndOfDevice]";
}

// The settings file mutex must never be left taken by a reader.
void ExpectSettingsMutexFree() {
    ASSERT_EQ(pthread_mutex_trylock(&SettingsFileMutex), 0);
    pthread_mutex_unlock(&SettingsFileMutex);
    ASSERT_EQ(pthread_mutex_trylock(&TempFileMutex), 0);
    pthread_mutex_unlock(&TempFileMutex);
}

class DeviceParamTest : public ::testing::Test {
  protected:
    DeviceParamTest() { settings_.MaxDeviceNums = 1; }

    // Writes file, reads block no into a fresh device, returns nothing; dev_ holds the result.
    void ReadBlock(const std::string& file, int no) {
        ASSERT_TRUE(WriteBytes(IniFilePath(), file));
        dev_.reset(new CDeviceObject("/dev/hidraw0", &settings_));
        dev_->Param.Device_No = static_cast<int8_t>(no);
        IniDevParamRead(dev_.get());
        ExpectSettingsMutexFree();
    }

    ConfDataDir dir_;
    GlobalSettings settings_{};
    std::unique_ptr<CDeviceObject> dev_;
};

TEST_F(DeviceParamTest, DefaultsOfEveryField) {
    DeviceParam p;
    memset(&p, 0x5A, sizeof(p));
    SetDeviceParamDefaults(&p);
    EXPECT_EQ(p.BlockCounter, 255);
    EXPECT_EQ(p.Device_No, -1);
    EXPECT_EQ(static_cast<uint8_t>(p.Device_No), 255);
    EXPECT_STREQ(p.Physical_Address, "NULL");
    const std::vector<std::pair<const char*, std::pair<int64_t, int64_t>>> fields = {
        {"SupportPoints", {p.SupportPoints, 10}},
        {"ReportMode", {p.ReportMode, 1}},
        {"EventType", {p.EventType, 0}},
        {"Orientation", {p.Orientation, 0}},
        {"Direction", {p.Direction, 0}},
        {"DetectRotation", {p.DetectRotation, 0}},
        {"BtnType", {p.BtnType, 0}},
        {"ResolX", {p.ResolX, -1}},
        {"ResolY", {p.ResolY, -1}},
        {"BeepState", {p.BeepState, 0}},
        {"BeepDevice", {p.BeepDevice, 0}},
        {"BeepFreq", {p.BeepFreq, 1000}},
        {"BeepLen", {p.BeepLen, 200}},
        {"RightClickEnable", {p.RightClickEnable, 1}},
        {"RightClickRange", {p.RightClickRange, 20}},
        {"RightClickDuration", {p.RightClickDuration, 1500}},
        {"EdgeLeft", {p.EdgeLeft, 100}},
        {"EdgeRight", {p.EdgeRight, 100}},
        {"EdgeTop", {p.EdgeTop, 100}},
        {"EdgeBottom", {p.EdgeBottom, 100}},
        {"EdgeCompensate", {p.EdgeCompensate, 0}},
        {"HoldFilterEnable", {p.HoldFilterEnable, 0}},
        {"HoldRange", {p.HoldRange, 20}},
        {"SplitRectMode", {p.SplitRectMode, 0}},
        {"ScreenNo", {p.ScreenNo, 0}},
        {"CustomRectLeft", {p.CustomRectLeft, 0}},
        {"CustomRectRight", {p.CustomRectRight, 4095}},
        {"CustomRectTop", {p.CustomRectTop, 0}},
        {"CustomRectBottom", {p.CustomRectBottom, 4095}},
        {"VKEYEnable", {p.VKEYEnable, 0}},
        {"VKEYReportMod", {p.VKEYReportMod, 1}},
        {"BlockStart", {p.BlockStart, 0}},
        {"BlockEnd", {p.BlockEnd, 0}},
    };
    for (const auto& f : fields) EXPECT_EQ(f.second.first, f.second.second) << f.first;
}

struct ReaderCase {
    const char* name;
    const char* body;
    std::function<void(const CDeviceObject&)> check;
};

TEST_F(DeviceParamTest, ReaderRuleFamilies) {
    const ReaderCase cases[] = {
        {"values cut to their field width",
         "SupportPoints 300\nReportMode 200\nEventType 260\nHoldFilterEnable 70000\n"
         "SplitRectMode 265\nScreenNo -2\nBeepState 511\nBeepDevice 256\nDetectRotation 129\n"
         "BtnType 383",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.Param.SupportPoints, 44);
             EXPECT_EQ(d.Param.ReportMode, -56);
             EXPECT_EQ(d.Param.EventType, 4);
             EXPECT_EQ(d.Param.HoldFilterEnable, 4464);
             EXPECT_EQ(d.Param.SplitRectMode, 9);
             EXPECT_EQ(d.Param.ScreenNo, 254);
             EXPECT_EQ(d.Param.BeepState, 255);
             EXPECT_EQ(d.Param.BeepDevice, 0);
             EXPECT_EQ(d.Param.DetectRotation, -127);
             EXPECT_EQ(d.Param.BtnType, 127);
         }},
        {"clamped above 1, 16-bit pattern below", "RightClickEnable 5\nEdgeCompensate 2",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.Param.RightClickEnable, 1);
             EXPECT_EQ(d.Param.EdgeCompensate, 1);
         }},
        {"negative clamped keys keep their 16-bit pattern",
         "RightClickEnable -3\nEdgeCompensate -2",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.Param.RightClickEnable, 0xFFFD);
             EXPECT_EQ(d.Param.EdgeCompensate, 0xFFFE);
         }},
        {"zero switches right click off", "RightClickEnable 0",
         [](const CDeviceObject& d) { EXPECT_EQ(d.Param.RightClickEnable, 0); }},
        {"-1 keeps the default", "BeepFreq -1\nResolX -1\nEdgeLeft -1\nEdgeTop 5",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.Param.BeepFreq, 1000);
             EXPECT_EQ(d.Param.ResolX, -1);
             EXPECT_EQ(d.Param.EdgeLeft, 100);
             EXPECT_EQ(d.Param.EdgeTop, 5);
         }},
        {"32-bit keys take the value",
         "Orientation 90 Direction -2 ResolX 4096 ResolY 2048 BeepFreq 440 BeepLen 50 "
         "RightClickRange 30 RightClickDuration 2000 EdgeLeft 1 EdgeRight 2 EdgeTop 3 "
         "EdgeBottom 4 HoldRange 7 CustomRectLeft 11 CustomRectRight 12 CustomRectTop 13 "
         "CustomRectBottom 70000 VKEYEnable 5",
         [](const CDeviceObject& d) {
             const DeviceParam& p = d.Param;
             EXPECT_EQ(p.Orientation, 90);
             EXPECT_EQ(p.Direction, -2);
             EXPECT_EQ(p.ResolX, 4096);
             EXPECT_EQ(p.ResolY, 2048);
             EXPECT_EQ(p.BeepFreq, 440);
             EXPECT_EQ(p.BeepLen, 50);
             EXPECT_EQ(p.RightClickRange, 30);
             EXPECT_EQ(p.RightClickDuration, 2000);
             EXPECT_EQ(p.EdgeLeft, 1);
             EXPECT_EQ(p.EdgeRight, 2);
             EXPECT_EQ(p.EdgeTop, 3);
             EXPECT_EQ(p.EdgeBottom, 4);
             EXPECT_EQ(p.HoldRange, 7);
             EXPECT_EQ(p.CustomRectLeft, 11);
             EXPECT_EQ(p.CustomRectRight, 12);
             EXPECT_EQ(p.CustomRectTop, 13);
             EXPECT_EQ(p.CustomRectBottom, 70000);
             EXPECT_TRUE(p.VKEYEnable);
         }},
        {"VKEYReportMod ends the numeric keys, VKEY_ pairs follow it",
         "EdgeLeft 5\nVKEYReportMod 3\nEdgeRight 7\nVKEY_0 BACK\nVKEY_1 0x66\nVKEY_2 MENU",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.Param.EdgeLeft, 5);
             EXPECT_EQ(d.Param.VKEYReportMod, 3);
             EXPECT_EQ(d.Param.EdgeRight, 100);
             EXPECT_EQ(d.VKeyCode[0], KEY_BACK);
             EXPECT_EQ(d.VKeyCode[1], 0x66);
             EXPECT_EQ(d.VKeyCode[2], KEY_MENU);
         }},
        {"VKEY_ pairs before the cut-over are not honoured",
         "VKEY_0 BACK\nVKEYReportMod 2\nVKEY_1 HOME",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.VKeyCode[0], -1);
             EXPECT_EQ(d.VKeyCode[1], KEY_HOME);
             EXPECT_EQ(d.Param.VKEYReportMod, 2);
         }},
        {"VKEYReportMod -1 is skipped and does not cut over", "VKEYReportMod -1\nEdgeLeft 9",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.Param.VKEYReportMod, 1);
             EXPECT_EQ(d.Param.EdgeLeft, 9);
         }},
        {"a value is its leading number; a word with none is read as the next key",
         "Physical_Address\t\tusb-0000:00:1d.0-1/input0\nSupportPoints 7\nEdgeLeft 12abc "
         "EdgeRight 8 EdgeTop 4294967296 EdgeBottom 6",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.Param.SupportPoints, 7);
             EXPECT_EQ(d.Param.EdgeLeft, 12);
             EXPECT_EQ(d.Param.EdgeRight, 8);
             EXPECT_EQ(d.Param.EdgeTop, 100);
             EXPECT_EQ(d.Param.EdgeBottom, 6);
         }},
        {"the bare address line of a single-device file", "Physical_Address\nSupportPoints 6",
         [](const CDeviceObject& d) { EXPECT_EQ(d.Param.SupportPoints, 6); }},
        {"unknown keys, SendRawPoints and NoDeviceCheck are not taken",
         "Foo 3\nSendRawPoints 1\nNoDeviceCheck              1\nEdgeTop 9",
         [](const CDeviceObject& d) {
             EXPECT_EQ(d.SendRawPoints, 0);
             EXPECT_EQ(d.NoDeviceCheck, 0);
             EXPECT_EQ(d.Param.EdgeTop, 9);
         }},
    };
    for (const ReaderCase& c : cases) {
        SCOPED_TRACE(c.name);
        // Blocks 0 and 2 around block 1 carry other values that must not leak into it.
        const std::string file =
            FileWith(Block(0, "SupportPoints 1\nEdgeBottom 1") + Block(1, c.body) +
                     Block(2, "SupportPoints 2\nEdgeBottom 2\nVKEYReportMod 1\nVKEY_3 HOME"));
        ReadBlock(file, 1);
        c.check(*dev_);
        EXPECT_EQ(dev_->VKeyCode[3], -1);
        // The block was terminated, so its offsets are recorded.
        const size_t start = file.find("\n[Device_No.1]");
        EXPECT_EQ(dev_->Param.BlockStart, start);
        EXPECT_EQ(dev_->Param.BlockEnd, file.find("[EndOfDevice]", start) + 13);
    }
}

TEST_F(DeviceParamTest, BlockOffsetsFollowTheHeaderWhereverItStands) {
    // Written block: BlockStart is the newline in front of the header.
    const std::string file = FileWith(DefaultBlock(0, "a") + DefaultBlock(1, "b"));
    ReadBlock(file, 1);
    const size_t start = file.find("\n[Device_No.1]");
    ASSERT_NE(start, std::string::npos);
    EXPECT_EQ(dev_->Param.BlockStart, start);
    EXPECT_EQ(dev_->Param.BlockEnd, file.rfind("[EndOfDevice]") + 13);
    EXPECT_EQ(file.substr(dev_->Param.BlockStart, dev_->Param.BlockEnd - dev_->Param.BlockStart),
              DefaultBlock(1, "b"));
    // Hand-edited: indented header and key and end word on one line.
    const std::string edited = kGlobalPart + "  \t[Device_No.0] EdgeLeft 3 [EndOfDevice]  x\n";
    ReadBlock(edited, 0);
    EXPECT_EQ(dev_->Param.EdgeLeft, 3);
    EXPECT_EQ(dev_->Param.BlockStart, edited.find("[Device_No.0]") - 1);
    EXPECT_EQ(dev_->Param.BlockEnd, edited.find("  x"));
}

struct HostileCase {
    const char* name;
    std::string file;
    int device_no;
    int support_points;  // expected SupportPoints
    bool terminated;     // "[EndOfDevice]" closes the block (offsets recorded)
};

TEST_F(DeviceParamTest, HostileFilesEndTheReadSafely) {
    std::string garbage;
    for (int i = 0; i < 3000; ++i) garbage.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
    const std::string long_key(200, 'S');
    const std::string long_tail = std::string(190, 'x') + "[EndOfDevice]";
    const HostileCase cases[] = {
        {"header followed by nothing", kGlobalPart + "[Device_No.1]", 1, 10, false},
        {"key without value at the end", kGlobalPart + "[Device_No.1]\nSupportPoints", 1, 10,
         false},
        {"value cut by the end of file", kGlobalPart + "[Device_No.1]\nSupportPoints 4", 1, 4,
         false},
        {"200-character words",
         kGlobalPart + "[Device_No.1]\n" + long_key + " 5\nSupportPoints 4\n" + long_tail +
             " 9\nVKEYReportMod 1\n" + long_key + " " + long_tail + "\n[EndOfDevice]",
         1, 4, true},
        {"binary garbage in the block", kGlobalPart + "[Device_No.1]\n" + garbage, 1, 10, false},
        {"binary garbage as the whole file", garbage, 1, 10, false},
        {"non-digit block number is no header",
         kGlobalPart + "[Device_No.x]\nSupportPoints 3\n[EndOfDevice]" +
             Block(1, "SupportPoints 5"),
         1, 5, true},
        {"two-digit block number is no header",
         kGlobalPart + "[Device_No.11]\nSupportPoints 3\n[EndOfDevice]", 1, 10, false},
        {"missing block keeps the defaults", FileWith(Block(0, "SupportPoints 3")), 4, 10, false},
        {"block without end word stops at the next header",
         FileWith("\n[Device_No.1]\nSupportPoints 4\n" + Block(2, "SupportPoints 6")), 1, 4, false},
        {"block without end word stops at the end-of-file word",
         kGlobalPart + "[Device_No.1]\nSupportPoints 4\n[EndOfFile]\nSupportPoints 6", 1, 4, false},
        {"virtual-key pair cut by the end word",
         FileWith(Block(1, "SupportPoints 4\nVKEYReportMod 2\nVKEY_0") +
                  Block(2, "SupportPoints 6")),
         1, 4, true},
        {"no block number at all", kGlobalPart + "[Device_No.-1]\nSupportPoints 3\n[EndOfDevice]",
         -1, 10, false},
    };
    for (const HostileCase& c : cases) {
        SCOPED_TRACE(c.name);
        ReadBlock(c.file, c.device_no);
        EXPECT_EQ(dev_->Param.SupportPoints, c.support_points);
        if (c.terminated) {
            EXPECT_LT(dev_->Param.BlockStart, dev_->Param.BlockEnd);
            EXPECT_LE(dev_->Param.BlockEnd, c.file.size());
        } else {
            EXPECT_EQ(dev_->Param.BlockStart, 0u);
            EXPECT_EQ(dev_->Param.BlockEnd, 0u);
        }
    }
}

TEST_F(DeviceParamTest, MissingFileKeepsDefaultsAndReleasesTheLock) {
    dev_.reset(new CDeviceObject("/dev/hidraw0", &settings_));
    dev_->Param.Device_No = 0;
    IniDevParamRead(dev_.get());
    ExpectSettingsMutexFree();
    EXPECT_EQ(dev_->Param.SupportPoints, 10);
    EXPECT_EQ(dev_->Param.BlockEnd, 0u);
}

TEST_F(DeviceParamTest, SingleDeviceReadsBlockZeroWhateverItsAddress) {
    const std::string file = FileWith(Block(0, "Physical_Address\t\tA\nSupportPoints 3") +
                                      Block(1, "Physical_Address\t\tB\nSupportPoints 4"));
    ASSERT_TRUE(WriteBytes(IniFilePath(), file));
    for (int max : {1, 0, -1}) {
        settings_.MaxDeviceNums = static_cast<int8_t>(max);
        CDeviceObject dev("/dev/hidraw0", &settings_);
        snprintf(dev.Param.Physical_Address, kTextMax, "B");
        DevIniRoutine(&dev);
        ExpectSettingsMutexFree();
        EXPECT_EQ(dev.Param.Device_No, 0) << max;
        EXPECT_EQ(dev.Param.SupportPoints, 3) << max;
    }
    EXPECT_EQ(ReadBytes(IniFilePath()), file);
}

TEST_F(DeviceParamTest, WrongHeaderOrEmptyFileKeepsDefaults) {
    for (const std::string& file : {std::string("[Tavrine.ini]\n") + Block(0, "SupportPoints 3"),
                                    std::string(""), std::string(300, 'Z')}) {
        ASSERT_TRUE(WriteBytes(IniFilePath(), file));
        ConfLogRecorder log;
        CDeviceObject dev("/dev/hidraw0", &settings_);
        DevIniRoutine(&dev);
        ExpectSettingsMutexFree();
        EXPECT_EQ(dev.Param.Device_No, -1);
        EXPECT_EQ(dev.Param.SupportPoints, 10);
        EXPECT_EQ(ReadBytes(IniFilePath()), file);
        if (!file.empty() && file[0] == '[') {
            EXPECT_EQ(log.Count(" This is invalid .ini file: [Tavrine.ini], set parameters to "
                                "default."),
                      1);
        }
    }
}

TEST_F(DeviceParamTest, MissingFileIsGeneratedThenRead) {
    ConfLogRecorder log;
    CDeviceObject dev("/dev/ttyS1", &settings_);
    dev.Param.SupportPoints = 5;  // written into the generated block, then read back
    DevIniRoutine(&dev);
    ExpectSettingsMutexFree();
    EXPECT_EQ(log.Count(std::string("ini parameter file ") + IniFilePath() + " doesn't exist."), 1);
    EXPECT_EQ(log.Count("Entering DevIniRoutine"), 1);
    EXPECT_EQ(log.Count("Leave DevIniRoutine"), 1);
    EXPECT_EQ(dev.Param.Device_No, 0);
    EXPECT_EQ(dev.Param.SupportPoints, 5);
    const std::string file = ReadBytes(IniFilePath());
    EXPECT_EQ(file.substr(0, 15), "[TavrineA.ini]\n");
    EXPECT_EQ(dev.Param.BlockStart, file.find("\n[Device_No.0]"));
    EXPECT_EQ(dev.Param.BlockEnd, file.size() - 12);
}

TEST_F(DeviceParamTest, PrintOutListsTheParameters) {
    CDeviceObject dev("/dev/hidraw0", &settings_);
    dev.Param.EventType = 2;
    dev.Param.ResolX = 1920;
    dev.Param.RightClickEnable = 0;
    dev.Param.SplitRectMode = 3;
    std::vector<std::string> mode_lines;
    {
        ConfLogRecorder log(LOG_PARAM);
        IniDevParamPrint(&dev);
        mode_lines = log.Messages();
    }
    const std::vector<std::string> expected = {
        "==============  Entering Device Parameter List  ==============",
        "EventType[2], BtnType[0]",
        "ReportMode[1], DetectRotation[0]",
        "Direction[0], Orientation[0]",
        "ResolX[1920], ResolY[-1]",
        "RightClick[0], RightClickDuration[1500], RightClickRange[20]",
        "EdgeCompensate[0], Left[100] Right[100] Top[100] Bottom[100]",
        "HoldFilter[0], HoldRange[20]",
        "SplitRect Mode= 3",
        "--------------  Done with Device Parameter List  --------------",
    };
    EXPECT_EQ(mode_lines, expected);

    dev.Param.SplitRectMode = 9;
    dev.Param.CustomRectLeft = 10;
    dev.Param.CustomRectBottom = 2000;
    ConfLogRecorder log(LOG_PARAM);
    IniDevParamPrint(&dev);
    std::vector<std::string> custom = log.Messages();
    ASSERT_EQ(custom.size(), expected.size());
    EXPECT_EQ(custom[8], "Customized SplitRect, Left[10] Right[4095] Top[0] Bottom[2000]");
    {
        ConfLogRecorder silent(LOG_MAIN);  // category 0x4 off: nothing is printed
        IniDevParamPrint(&dev);
        EXPECT_TRUE(silent.Messages().empty());
    }
}

}  // namespace
