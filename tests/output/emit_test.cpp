// Event emission: the frame rule of each touch protocol, pen and eraser samples, scaling to
// the output range and the release of every contact, read from datagram socketpairs.
// Expected events are written as in the touch tests (touch/rows.h).
#include "output/emit.h"

#include <gtest/gtest.h>

#include "touch/rows.h"

using namespace touchtest;

namespace {

TouchPoint Point(int id, int state, int x, int y) {
    TouchPoint p = {};
    p.ID = id, p.State = state, p.X = x, p.Y = y;
    return p;
}

void Send(TouchRig& rig, int id, int state, int x, int y) {
    TouchPoint p = Point(id, state, x, y);
    DispatchTouchEvent(rig.dev.get(), &p);
}

}  // namespace

// Two fingers down, moving and lifted, slot protocol: Android 4+, and plain Linux (no Android
// found), where each frame also carries the single-touch view of the lowest-numbered touching
// contact that libinput needs (BTN_TOUCH, ABS_X, ABS_Y).
TEST(EmitFrameRule, SlotProtocolWritesOneFramePerScanAndEachLiftOnce) {
    // clang-format off
    const struct { int id, state, x, y; const char* frame; const char* linux_view; } steps[] = {
        {0, 1, 100, 200, "0:100,200", "TOUCH=1 X=100 Y=200"},            // a new contact: at once
        {1, 1, 300, 400, "0:100,200 1:300,400", "TOUCH=1 X=100 Y=200"},  // a state change
        {0, 1, 110, 210, "0:110,210 1:300,400", "TOUCH=1 X=110 Y=210"},  // the next scan (0 is not above 1)
        {1, 1, 310, 410, "", ""},                                        // rising within the scan, unchanged
        {0, 0, 110, 210, "0- 1:310,410", "TOUCH=1 X=310 Y=410"},         // a lift, once; the pointer follows 1
        {1, 1, 320, 420, "", ""}, {1, 0, 320, 420, "1-", "TOUCH=0"},
    };
    // clang-format on
    for (int android : {9, 0}) {
        VersionGuard version(android);
        TouchRig rig;
        for (const auto& s : steps) {
            SCOPED_TRACE(testing::Message() << "android " << android << ": " << s.id << " " << s.state);
            Send(rig, s.id, s.state, s.x, s.y);
            EXPECT_EQ(F(std::string(s.frame) + " " + (android == 0 ? s.linux_view : "")), rig.TouchEvents());
        }
    }
}

// A scan that announced its contact count: nothing is written until it ends (or the next
// begins), then one frame carries every contact, in each protocol: slots, the multi sync
// protocol of Android 3, and type A (also on plain Linux), which ends a lift with an empty frame.
TEST(EmitScan, OneFramePerScanInEveryProtocol) {
    const std::string type_a = "MX=100 MY=200 mt MX=300 MY=400 mt";
    const struct { int android, type; std::string down, up; } cases[] = {
        {9, 2, "0:100,200 1:300,400", "0- 1-"},
        {3, 2, "ID=0 MAJOR=1 MX=100 MY=200 WIDTH=0 mt ID=1 MAJOR=1 MX=300 MY=400 WIDTH=0 mt",
         "ID=0 MAJOR=0 MX=100 MY=200 WIDTH=0 mt ID=1 MAJOR=0 MX=300 MY=400 WIDTH=0 mt"},
        {9, 4, type_a, type_a + " | mt"}, {0, 4, type_a, type_a + " | mt"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "android " << c.android << " type " << c.type);
        VersionGuard version(c.android);
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<uint8_t>(c.type);
        for (int touching : {1, 0}) {
            BeginTouchScan(rig.dev.get());
            Send(rig, 0, touching, 100, 200);
            Send(rig, 1, touching, 300, 400);  // a new contact would write at once outside a scan
            EXPECT_TRUE(rig.TouchEvents().empty());
            if (touching) EndTouchScan(rig.dev.get());
            if (!touching) BeginTouchScan(rig.dev.get());  // the next scan begins: the open one is written
            EXPECT_EQ(F(touching ? c.down : c.up), rig.TouchEvents());
        }
        EndTouchScan(rig.dev.get());  // a scan that took no record writes nothing
        EXPECT_TRUE(rig.TouchEvents().empty());
    }
}

// A settings file may claim 255 contacts: contact numbers from 20 on are never used as an
// index into the 20-entry tables, by any emitter; the last contact id is kept per device;
// positions are scaled to ResolX and ResolY.
TEST(EmitFrameRule, ContactNumbersTablesAndScaling) {
    VersionGuard version(9);
    TouchRig rig, other;
    rig.dev->Param.SupportPoints = 255;
    for (int id : {20, 21, 100, 255, -1}) {
        TouchPoint p = Point(id, 1, 0, 0);
        for (auto emit : {EmitSlotEvent, EmitTypeAEvent, EmitAndroidMultiSyncEvent, EmitPenEvent, EmitEraserEvent})
            emit(rig.dev.get(), &p);
    }
    EXPECT_TRUE(rig.TouchEvents().empty() && rig.PenEvents().empty());
    Send(rig, 0, 1, 1, 1);
    Send(rig, 19, 1, 5, 6);
    Send(other, 0, 1, 3, 3);  // another device's record must not end this one's scan
    Send(rig, 19, 1, 5, 7);   // 19 is not above 19: a frame
    EXPECT_EQ(F("0:1,1 | 0:1,1 19:5,6 | 0:1,1 19:5,7"), rig.TouchEvents());
    rig.dev->Param.ResolX = 1919;
    rig.dev->Param.ResolY = 1079;
    Send(rig, 0, 1, 4095, 2048);  // 1079 * 2048 / 4095 = 539.7 -> 539
    Send(rig, 1, 1, 2048, 4095);  // 1919 * 2048 / 4095 = 959.7 -> 959
    EXPECT_EQ(F("0:1919,539 19:5,7 | 0:1919,539 1:959,1079 19:5,7"), rig.TouchEvents());
}

// Pen and eraser samples in turn at (1000, 2000) tilted (-30, 40): the pen tool is lifted
// before the rubber comes in and back; an eraser whose switch is released while pressing gets
// no BTN_TOUCH 0. On Android 2 and 3 the multi sync protocol makes a pen sample a touch
// contact; type A sends pen and eraser samples to the pen device whatever the version.
TEST(EmitPen, PenAndEraserSamples) {
    const std::string at = " X=1000 Y=2000 ", tilt = " TX=-30 TY=40";
    // clang-format off
    const struct { int android, type; const char* set; int z; std::string pen, touch; } steps[] = {
        {9, 2, "pen state inrange tip barrel", 500, "PEN=1 STYLUS=1" + at + "TOUCH=1 P=500" + tilt, ""},
        {9, 2, "pen state inrange tip invert", 500, "PEN=0 TOUCH=0 | RUBBER=1 STYLUS=0" + at + "TOUCH=1 P=500" + tilt, ""},
        {9, 2, "pen", 0, "RUBBER=0 TOUCH=0 | PEN=0 STYLUS=0" + at + "TOUCH=0 P=0" + tilt, ""},
        {9, 2, "eraser switch", 300, "RUBBER=1" + at + "TOUCH=1 P=300" + tilt, ""},
        {9, 2, "eraser", 7, at + "P=7" + tilt + " | RUBBER=0", ""},
        {2, 2, "pen state inrange tip", 9, "", "ID=0 MAJOR=1 MX=1000 MY=2000 WIDTH=0 mt"},
        {2, 4, "pen state inrange tip", 9, "PEN=1 STYLUS=0" + at + "TOUCH=1 P=9" + tilt, ""},
        {2, 4, "eraser switch", 9, "RUBBER=1" + at + "TOUCH=1 P=9" + tilt, ""},
    };
    // clang-format on
    TouchRig rig;
    for (const auto& s : steps) {
        SCOPED_TRACE(testing::Message() << "android " << s.android << " type " << s.type << ": " << s.set);
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

// Every contact written as touching is lifted, once; a device removed in the middle of a
// scan first gets the contact held in it written.
TEST(EmitRelease, ReleaseAllContactsLiftsEveryTouchingContact) {
    VersionGuard version(9);
    TouchRig rig;
    Send(rig, 0, 1, 100, 200);
    Send(rig, 2, 1, 300, 400);
    (void)rig.TouchEvents();
    ReleaseAllContacts(rig.dev.get());
    EXPECT_EQ(F("0- 2:300,400 | 2-"), rig.TouchEvents());
    ReleaseAllContacts(rig.dev.get());
    EXPECT_TRUE(rig.TouchEvents().empty());
    Send(rig, 0, 1, 100, 200);
    (void)rig.TouchEvents();
    BeginTouchScan(rig.dev.get());
    Send(rig, 1, 1, 300, 400);
    ReleaseAllContacts(rig.dev.get());
    EXPECT_EQ(F("0:100,200 1:300,400 | 0- 1:300,400 | 1-"), rig.TouchEvents());
}
