// uinput records read at the kernel's little-endian offsets, not via the code's structures.
#include <gtest/gtest.h>
#include <linux/uinput.h>

#include <map>
#include <sstream>

#include "output/emit.h"
#include "output/uinput_device.h"
#include "support/test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

#if !defined(__ANDROID__)  // stat() on 32-bit targets must not fail with EOVERFLOW
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "64-bit file offsets and inodes");
#endif

static int64_t Le(const uint8_t* p, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
    return width == 4 ? static_cast<int32_t>(v) : static_cast<int64_t>(v);
}

// uinput_user_dev per type, Android and kernel version; axes "name=max" or "name=min:max".
TEST(KernelRecordLayout, UinputUserDevPerProtocolAndVersion) {
    const std::map<int, std::string> names = {{ABS_X, "X"}, {ABS_Y, "Y"}, {ABS_PRESSURE, "P"},
        {ABS_TILT_X, "TX"}, {ABS_TILT_Y, "TY"}, {ABS_MT_SLOT, "SLOT"}, {ABS_MT_TOUCH_MAJOR, "MAJOR"},
        {ABS_MT_WIDTH_MAJOR, "WIDTH"}, {ABS_MT_POSITION_X, "MX"}, {ABS_MT_POSITION_Y, "MY"},
        {ABS_MT_TOOL_TYPE, "TOOL"}, {ABS_MT_TRACKING_ID, "ID"}};
    const std::string old = "MAJOR=1 WIDTH=1 MX=", tilt = "TX=-6000:6000 TY=-6000:6000 TOOL=1";
    const std::string pen = "X=4095 Y=4095 P=1023 ";
    // clang-format off
    const struct { bool pen; int android, kmajor, kminor, type, resol_x, resol_y; std::string axes; } cases[] = {
        {false, 9, 4, 19, 2, -1, -1, "SLOT=20 MX=4095 MY=4095 TOOL=1 ID=20"},
        {false, 2, 4, 19, 1, 1919, 1079, old + "1919 MY=1079 TOOL=1 ID=20"},
        {false, 3, 4, 19, 2, -1, -1, old + "4095 MY=4095 TOOL=1 ID=20"},
        {false, 9, 4, 19, 4, -1, 799, "MX=4095 MY=799 TOOL=1"}, {false, 0, 4, 19, 4, -1, -1, "MX=4095 MY=4095 TOOL=1"},
        {false, 0, 4, 19, 1, 1919, -1, "X=1919 Y=4095 SLOT=20 MX=1919 MY=4095 TOOL=1 ID=20"},
        {true, 9, 3, 2, 2, -1, -1, pen + tilt}, {true, 9, 4, 1, 2, -1, -1, pen + "TOOL=1"},
        {true, 9, 2, 6, 2, -1, -1, pen + "TOOL=1"}, {true, 0, 2, 6, 2, -1, -1, pen + tilt},
        {true, 9, 4, 19, 2, 1919, 1079, "X=1919 Y=1079 P=1023 " + tilt},
    };
    // clang-format on
    testutil::TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.axes);
        VersionGuard version(c.android, c.kmajor, c.kminor);
        TouchRig rig;
        rig.dev->Param.EventType = int8_t(c.type);
        rig.dev->Param.ResolX = c.resol_x, rig.dev->Param.ResolY = c.resol_y;
        (c.pen ? rig.dev->UinputPenFd : rig.dev->UinputTouchFd) =
            UniqueFd(OpenCloexec(dir.File("u").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        EXPECT_EQ(-1, c.pen ? SetUpPenDevice(rig.dev.get()) : SetUpTouchDevice(rig.dev.get()));
        const std::string text = testutil::ReadFile(dir.File("u"));
        ASSERT_EQ(1116u, text.size()) << "exactly one record written";
        const uint8_t* r = reinterpret_cast<const uint8_t*>(text.data());
        const std::string name = c.pen ? "MorvelTouch_VirtualPen" : "MorvelTouch_VirtualDevice";
        const char id[] = {BUS_VIRTUAL, 0, 0x7A, 0x3C, char(c.pen ? 0x30 : 0x20), 0, 1, 0, 0, 0, 0, 0};
        EXPECT_EQ(name + std::string(80 - name.size(), '\0') + std::string(id, 12), text.substr(0, 92));
        std::string axes;
        for (int axis = 0; axis < ABS_CNT; ++axis) {
            const int64_t max = Le(r + 92 + 4 * axis, 4), min = Le(r + 348 + 4 * axis, 4);
            if (max == 0 && min == 0) continue;
            axes += (axes.empty() ? "" : " ") + (names.count(axis) ? names.at(axis) : std::to_string(axis)) + "=" +
                    (min ? std::to_string(min) + ":" : "") + std::to_string(max);
        }
        EXPECT_EQ(c.axes, axes);
    }
}

// Configured non-uinput paths are refused unwritten; a missing unconfigured one falls back.
TEST(UinputOpen, PathThatIsNotTheUinputDeviceIsRefusedUntouched) {
    testutil::TempDir dir;
    const std::string file = dir.File("uinput"), missing = dir.File("none");
    ASSERT_TRUE(testutil::WriteFile(file, "settings"));
    const struct { std::string path; bool configured; std::string kept; } cases[] = {
        {file, true, file}, {"/dev/null", true, "/dev/null"}, {missing, true, missing},
        {missing, false, "/dev/uinput"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        if (!c.configured && access("/dev/uinput", F_OK) == 0) continue;  // it would be opened
        TouchRig rig;
        rig.settings.CustomPathMask = c.configured ? kCustomUinputPathBit : 0;
        snprintf(rig.settings.UinputPath, sizeof(rig.settings.UinputPath), "%s", c.path.c_str());
        EXPECT_TRUE(CreateTouchDevice(rig.dev.get()) == -1 && CreatePenDevice(rig.dev.get()) == -1);
        EXPECT_FALSE(rig.dev->UinputTouchFd.valid() || rig.dev->UinputPenFd.valid());
        EXPECT_EQ(c.kept, rig.settings.UinputPath);
    }
    EXPECT_EQ("settings", testutil::ReadFile(file));
    EXPECT_FALSE(testutil::FileExists(missing));
}

// "ops => events": "id state x y" ("other ..." on a second device), begin/end scan, release all.
TEST(EmitTouch, StepsToFrames) {
    // clang-format off
    const struct { int android, type, resol_x, resol_y; const char* steps; } cases[] = {
        {9, 2, -1, -1, "0 1 100 200 => 0:100,200; 1 1 300 400 => 0:100,200 1:300,400;"
                       "0 1 110 210 => 0:110,210 1:300,400; 1 1 310 410 => ; 0 0 110 210 => 0- 1:310,410;"
                       "1 1 320 420 => ; 1 0 320 420 => 1-"},
        {0, 2, -1, -1, "0 1 100 200 => 0:100,200 TOUCH=1 X=100 Y=200;"
                       "1 1 300 400 => 0:100,200 1:300,400 TOUCH=1 X=100 Y=200;"
                       "0 0 100 200 => 0- 1:300,400 TOUCH=1 X=300 Y=400; 1 0 300 400 => 1- TOUCH=0"},
        {9, 2, -1, -1, "begin 0 1 100 200 1 1 300 400 => ; end => 0:100,200 1:300,400;"
                       "begin 0 0 100 200 1 0 300 400 => ; begin => 0- 1-; end => "},
        {3, 2, -1, -1, "begin 0 1 100 200 1 1 300 400 end"
                       " => ID=0 MAJOR=1 MX=100 MY=200 WIDTH=0 mt ID=1 MAJOR=1 MX=300 MY=400 WIDTH=0 mt;"
                       "begin 0 0 100 200 1 0 300 400 begin"
                       " => ID=0 MAJOR=0 MX=100 MY=200 WIDTH=0 mt ID=1 MAJOR=0 MX=300 MY=400 WIDTH=0 mt"},
        {9, 4, -1, -1, "begin 0 1 100 200 1 1 300 400 end => MX=100 MY=200 mt MX=300 MY=400 mt;"
                       "begin 0 0 100 200 1 0 300 400 begin => MX=100 MY=200 mt MX=300 MY=400 mt | mt; end => "},
        {9, 2, -1, -1, "0 1 1 1 1 1 2 2 other 0 1 3 3 1 1 2 3 => 0:1,1 | 0:1,1 1:2,2 | 0:1,1 1:2,3"},  // per device
        {9, 2, 1919, 1079, "0 1 4095 2048 1 1 2048 4095 => 0:1919,539 | 0:1919,539 1:959,1079"},  // scaled
        {9, 2, -1, -1, "0 1 100 200 2 1 300 400 => 0:100,200 | 0:100,200 2:300,400;"
                       "release => 0- 2:300,400 | 2-; release => ; 0 1 100 200 begin 1 1 300 400 => 0:100,200;"
                       "release => 0:100,200 1:300,400 | 0- 1:300,400 | 1-"},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.steps);
        VersionGuard version(c.android);
        TouchRig rig, other;
        rig.dev->Param.EventType = int8_t(c.type);
        rig.dev->Param.ResolX = c.resol_x, rig.dev->Param.ResolY = c.resol_y;
        std::istringstream steps(c.steps);
        for (std::string step; std::getline(steps, step, ';');) {
            SCOPED_TRACE(step);
            std::istringstream ops(step.substr(0, step.find("=>")));
            for (std::string op; ops >> op;) {
                if (op == "begin" || op == "end" || op == "release") {
                    (op == "begin" ? BeginTouchScan : op == "end" ? EndTouchScan : ReleaseAllContacts)(rig.dev.get());
                    continue;
                }
                TouchPoint p = {};
                op == "other" ? void(ops >> p.ID) : void(p.ID = std::stoi(op));
                ops >> p.State >> p.X >> p.Y;
                DispatchTouchEvent((op == "other" ? other : rig).dev.get(), &p);
            }
            EXPECT_EQ(F(step.substr(step.find("=>") + 2)), rig.TouchEvents());
        }
    }
}

// One tool is lifted before the other; Android 2, 3 make a pen a contact unless type A.
TEST(EmitPen, PenAndEraserSamples) {
    const std::string at = " X=1000 Y=2000 ", tilt = " TX=-30 TY=40";
    // clang-format off
    const struct { int android, type; const char* set; int z; std::string pen, touch; } steps[] = {
        {9, 2, "pen state inrange tip barrel", 500, "PEN=1 STYLUS=1" + at + "TOUCH=1 P=500" + tilt, ""},
        {9, 2, "pen state inrange tip invert", 500, "PEN=0 TOUCH=0 | RUBBER=1 STYLUS=0" + at + "TOUCH=1 P=500" + tilt, ""},
        {9, 2, "pen", 0, "RUBBER=0 TOUCH=0 | PEN=0 STYLUS=0" + at + "TOUCH=0 P=0" + tilt, ""},
        {9, 2, "eraser switch", 300, "RUBBER=1" + at + "TOUCH=1 P=300" + tilt, ""},
        {9, 2, "eraser", 7, at + "P=7" + tilt + " | RUBBER=0", ""},
        {9, 2, "eraser", 0, at + "TOUCH=0 P=0" + tilt + " | RUBBER=0", ""},
        {2, 2, "pen state inrange tip", 9, "", "ID=0 MAJOR=1 MX=1000 MY=2000 WIDTH=0 mt"},
        {2, 4, "pen state inrange tip", 9, "PEN=1 STYLUS=0" + at + "TOUCH=1 P=9" + tilt, ""},
        {2, 4, "eraser switch", 9, "RUBBER=1" + at + "TOUCH=1 P=9" + tilt, ""},
    };
    // clang-format on
    TouchRig rig;
    for (const auto& s : steps) {
        SCOPED_TRACE(testing::Message() << s.android << " " << s.type << ": " << s.set);
        VersionGuard version(s.android);
        rig.dev->Param.EventType = int8_t(s.type);
        TouchPoint p = {};
        p.X = 1000, p.Y = 2000, p.Z = s.z, p.tilt_x = -30, p.tilt_y = 40;
        const auto has = [&s](const char* flag) { return strstr(s.set, flag) != nullptr; };
        p.bPen = has("pen"), p.State = has("state"), p.inrange = has("inrange"), p.tip = has("tip");
        p.barrel = has("barrel"), p.invert = has("invert"), p.bEraser = has("eraser"), p.eraser = has("switch");
        DispatchTouchEvent(rig.dev.get(), &p);
        EXPECT_EQ(F(s.pen), rig.PenEvents());
        EXPECT_EQ(F(s.touch), rig.TouchEvents());
    }
}
