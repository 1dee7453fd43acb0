// Event emission: the frame rule of each touch protocol, pen and eraser samples, scaling to
// the output range and the release of every contact, read from datagram socketpairs.
// Expected events are written as in the touch tests (touch/rows.h).
#include "output/emit.h"

#include <gtest/gtest.h>

#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

TouchPoint Point(int id, int state, int x, int y) {
    TouchPoint p = {};
    p.ID = id, p.State = state, p.X = x, p.Y = y;
    return p;
}

}  // namespace

// The touch emitters driven step by step, each step "ops => events" (the events written by
// then, "" none). Ops: "id state x y" a contact record; "other id state x y" one on a second
// device; "begin" and "end" a scan that announced its contact count; "release" every contact.
// A contact record is written at once when it is new or changed state, or when its id is not
// above the last one (a new scan); a lift is written once. Plain Linux (Android 0) adds the
// single-touch view of the lowest touching contact that libinput needs. In a scan, nothing is
// written until it ends (or the next begins); type A ends a lift with an empty frame.
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
        {0, 4, -1, -1, "begin 0 1 100 200 end => MX=100 MY=200 mt; begin 0 0 100 200 end => MX=100 MY=200 mt | mt"},
        // The last contact id is kept per device.
        {9, 2, -1, -1, "0 1 1 1 1 1 2 2 other 0 1 3 3 1 1 2 3 => 0:1,1 | 0:1,1 1:2,2 | 0:1,1 1:2,3"},
        // Scaled to ResolX and ResolY: 1079 * 2048 / 4095 = 539.7 -> 539, 1919 * 2048 / 4095 -> 959.
        {9, 2, 1919, 1079, "0 1 4095 2048 1 1 2048 4095 => 0:1919,539 | 0:1919,539 1:959,1079"},
        // Every contact written as touching is lifted once; a scan still open is written first.
        {9, 2, -1, -1, "0 1 100 200 2 1 300 400 => 0:100,200 | 0:100,200 2:300,400;"
                       "release => 0- 2:300,400 | 2-; release => ; 0 1 100 200 begin 1 1 300 400 => 0:100,200;"
                       "release => 0:100,200 1:300,400 | 0- 1:300,400 | 1-"},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.steps);
        VersionGuard version(c.android);
        TouchRig rig, other;
        rig.dev->Param.EventType = static_cast<int8_t>(c.type);
        rig.dev->Param.ResolX = c.resol_x, rig.dev->Param.ResolY = c.resol_y;
        std::istringstream steps(c.steps);
        for (std::string step; std::getline(steps, step, ';');) {
            SCOPED_TRACE(step);
            std::istringstream ops(step.substr(0, step.find("=>")));
            for (std::string op; ops >> op;) {
                if (op == "begin" || op == "end" || op == "release") {
                    (op == "begin" ? BeginTouchScan
                     : op == "end" ? EndTouchScan
                                   : ReleaseAllContacts)(rig.dev.get());
                    continue;
                }
                TouchRig& target = op == "other" ? other : rig;
                TouchPoint p = {};
                p.ID = op == "other" ? 0 : std::stoi(op);
                if (op == "other") ops >> p.ID;
                ops >> p.State >> p.X >> p.Y;
                DispatchTouchEvent(target.dev.get(), &p);
            }
            EXPECT_EQ(F(step.substr(step.find("=>") + 2)), rig.TouchEvents());
        }
    }
}

// A settings file may claim 255 contacts: contact numbers from 20 on are never used as an
// index into the 20-entry tables, by any emitter, and a frame ends at the tables' end.
TEST(EmitTouch, ContactNumbersBeyondTheTablesAreDropped) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Param.SupportPoints = 255;
    for (int id : {20, 21, 100, 255, -1}) {
        TouchPoint p = Point(id, 1, 0, 0);
        for (auto emit : {EmitSlotEvent, EmitTypeAEvent, EmitAndroidMultiSyncEvent, EmitPenEvent,
                          EmitEraserEvent})
            emit(rig.dev.get(), &p);
    }
    EXPECT_TRUE(rig.TouchEvents().empty() && rig.PenEvents().empty());
    TouchPoint last = Point(19, 1, 5, 6);  // the tables' last entry, alone in the frame
    DispatchTouchEvent(rig.dev.get(), &last);
    EXPECT_EQ(F("19:5,6"), rig.TouchEvents());
}

// Pen and eraser samples in turn at (1000, 2000) tilted (-30, 40): the pen tool is lifted
// before the rubber comes in and back; an eraser whose switch is released gets BTN_TOUCH 0
// only once its pressure is 0. On Android 2 and 3 the multi sync protocol makes a pen sample a
// touch contact; type A sends pen and eraser samples to the pen device whatever the version.
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
        SCOPED_TRACE(testing::Message()
                     << "android " << s.android << " type " << s.type << ": " << s.set);
        VersionGuard version(s.android);
        rig.dev->Param.EventType = static_cast<int8_t>(s.type);
        TouchPoint p = Point(0, 0, 1000, 2000);
        p.Z = s.z, p.tilt_x = -30, p.tilt_y = 40;
        std::istringstream in(s.set);
        for (std::string flag; in >> flag;) {
            p.bPen |= flag == "pen", p.State |= flag == "state", p.inrange |= flag == "inrange";
            p.tip |= flag == "tip", p.barrel |= flag == "barrel", p.invert |= flag == "invert";
            p.bEraser |= flag == "eraser" || flag == "switch", p.eraser |= flag == "switch";
        }
        DispatchTouchEvent(rig.dev.get(), &p);
        EXPECT_EQ(F(s.pen), rig.PenEvents());
        EXPECT_EQ(F(s.touch), rig.TouchEvents());
    }
}
