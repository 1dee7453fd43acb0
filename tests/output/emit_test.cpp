// Event emission: the frame rule of each touch protocol, pen and eraser samples, scaling to
// the output range and the release of every contact. The descriptors are datagram
// socketpairs; expected slot frames are written as in the touch tests ("id:x,y", "id-", '|').
#include "output/emit.h"

#include <gtest/gtest.h>

#include "touch/rows.h"

using namespace touchtest;

namespace {

TouchPoint Point(int id, int state, int x, int y) {
    TouchPoint p = {};
    p.ID = id;
    p.State = state;
    p.X = x;
    p.Y = y;
    return p;
}

void Send(TouchRig& rig, int id, int state, int x, int y) {
    TouchPoint p = Point(id, state, x, y);
    DispatchTouchEvent(rig.dev.get(), &p);
}

}  // namespace

// Two fingers down, moving and lifted, slot protocol: Android 4+, and plain Linux (no Android
// found), where each frame also carries the single-touch view of the lowest-numbered touching
// contact that libinput needs (BTN_TOUCH 1, ABS_X, ABS_Y; "-": BTN_TOUCH 0, none touches).
TEST(EmitFrameRule, SlotProtocolWritesOneFramePerScanAndEachLiftOnce) {
    struct Step {
        int id, state, x, y;
        const char* frame;  // "": nothing written
        const char* single;
    };
    const Step steps[] = {
        {0, 1, 100, 200, "0:100,200", "100,200"},            // a new contact: at once
        {1, 1, 300, 400, "0:100,200 1:300,400", "100,200"},  // a state change
        {0, 1, 110, 210, "0:110,210 1:300,400", "110,210"},  // the next scan (0 is not above 1)
        {1, 1, 310, 410, "", ""},                            // rising within the scan, unchanged
        {0, 0, 110, 210, "0- 1:310,410", "310,410"},         // a lift, once; the pointer follows 1
        {1, 1, 320, 420, "", ""}, {1, 0, 320, 420, "1-", "-"},
    };
    for (int android : {9, 0}) {
        VersionGuard version(android);
        TouchRig rig;
        for (const Step& s : steps) {
            SCOPED_TRACE(testing::Message() << "android " << android << ": " << s.id << " " << s.state);
            Send(rig, s.id, s.state, s.x, s.y);
            std::vector<Ev> want = F(s.frame), view = {Key(BTN_TOUCH, 0)};
            int x, y;
            if (sscanf(s.single, "%d,%d", &x, &y) == 2) view = {Key(BTN_TOUCH, 1), Abs(ABS_X, x), Abs(ABS_Y, y)};
            if (android == 0 && !want.empty()) want.insert(want.end() - 1, view.begin(), view.end());
            EXPECT_EQ(want, rig.TouchEvents());
        }
    }
}

// A scan that announced its contact count: nothing is written until it ends (or the next
// begins), then one frame carries every contact, in each protocol: slots, the multi sync
// protocol of Android 3, and type A (also on plain Linux), which ends a lift with an empty frame.
TEST(EmitScan, OneFramePerScanInEveryProtocol) {
    const auto expected = [](int android, int type, int touching) {
        if (type == 2 && android >= 4) return F(touching ? "0:100,200 1:300,400" : "0- 1-");
        std::vector<Ev> out;
        for (int id : {0, 1}) {
            const Ev x = Abs(ABS_MT_POSITION_X, 100 + 200 * id), y = Abs(ABS_MT_POSITION_Y, 200 + 200 * id);
            if (type == 4) out.insert(out.end(), {x, y, MtSyn()});
            if (type == 2) out.insert(out.end(), {Abs(ABS_MT_TRACKING_ID, id), Abs(ABS_MT_TOUCH_MAJOR, touching),
                                                  x, y, Abs(ABS_MT_WIDTH_MAJOR, 0), MtSyn()});
        }
        out.push_back(Syn());
        if (type == 4 && !touching) out.insert(out.end(), {MtSyn(), Syn()});
        return out;
    };
    for (const auto& protocol : {std::make_pair(9, 2), std::make_pair(3, 2), std::make_pair(9, 4), std::make_pair(0, 4)}) {
        SCOPED_TRACE(testing::Message() << "android " << protocol.first << " type " << protocol.second);
        VersionGuard version(protocol.first);
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<uint8_t>(protocol.second);
        for (int touching : {1, 0}) {
            BeginTouchScan(rig.dev.get());
            Send(rig, 0, touching, 100, 200);
            Send(rig, 1, touching, 300, 400);  // a new contact would write at once outside a scan
            EXPECT_TRUE(rig.TouchEvents().empty());
            if (touching) EndTouchScan(rig.dev.get());
            else BeginTouchScan(rig.dev.get());  // the next scan begins: the open one is written
            EXPECT_EQ(expected(protocol.first, protocol.second, touching), rig.TouchEvents());
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

// Pen and eraser samples in turn on one device: the pen tool is lifted before the rubber
// comes in and back; an eraser whose switch is released while pressing gets no BTN_TOUCH 0.
TEST(EmitPen, PenAndEraserSamples) {
    VersionGuard version(9);
    TouchRig rig;
    struct Step {
        const char* set;  // the flags set, the rest 0
        int z;
        std::vector<Ev> pen;
    };
    const std::vector<Ev> at = {Abs(ABS_X, 1000), Abs(ABS_Y, 2000)}, tilt = {Abs(ABS_TILT_X, -30), Abs(ABS_TILT_Y, 40)};
    const auto cat = [](std::initializer_list<std::vector<Ev>> parts) {
        std::vector<Ev> out;
        for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
        return out;
    };
    const Ev down = Key(BTN_TOUCH, 1), up = Key(BTN_TOUCH, 0);
    // clang-format off
    const Step steps[] = {
        {"pen state inrange tip barrel", 500, cat({{Key(BTN_TOOL_PEN, 1), Key(BTN_STYLUS, 1)}, at, {down, Abs(ABS_PRESSURE, 500)}, tilt, {Syn()}})},
        {"pen state inrange tip invert", 500, cat({{Key(BTN_TOOL_PEN, 0), up, Syn(), Key(BTN_TOOL_RUBBER, 1), Key(BTN_STYLUS, 0)},
                                                   at, {down, Abs(ABS_PRESSURE, 500)}, tilt, {Syn()}})},
        {"pen", 0, cat({{Key(BTN_TOOL_RUBBER, 0), up, Syn(), Key(BTN_TOOL_PEN, 0), Key(BTN_STYLUS, 0)}, at,
                        {up, Abs(ABS_PRESSURE, 0)}, tilt, {Syn()}})},
        {"eraser switch", 300, cat({{Key(BTN_TOOL_RUBBER, 1)}, at, {down, Abs(ABS_PRESSURE, 300)}, tilt, {Syn()}})},
        {"eraser", 7, cat({at, {Abs(ABS_PRESSURE, 7)}, tilt, {Syn(), Key(BTN_TOOL_RUBBER, 0), Syn()}})},
    };
    // clang-format on
    for (const Step& s : steps) {
        SCOPED_TRACE(s.set);
        TouchPoint p = Point(0, 0, 1000, 2000);
        p.Z = s.z;
        p.tilt_x = -30;
        p.tilt_y = 40;
        std::istringstream in(s.set);
        for (std::string flag; in >> flag;) {
            p.bPen |= flag == "pen";
            p.State |= flag == "state";
            p.inrange |= flag == "inrange";
            p.tip |= flag == "tip";
            p.barrel |= flag == "barrel";
            p.invert |= flag == "invert";
            p.bEraser |= flag == "eraser" || flag == "switch";
            p.eraser |= flag == "switch";
        }
        DispatchTouchEvent(rig.dev.get(), &p);
        EXPECT_EQ(s.pen, rig.PenEvents());
    }
    EXPECT_TRUE(rig.TouchEvents().empty());
}

// On Android 2 and 3 the multi sync protocol makes a pen sample a touch contact; type A sends
// pen and eraser samples to the pen device whatever the Android version.
TEST(EmitPen, RoutingByProtocol) {
    struct Case {
        int event_type;
        bool eraser;
        Ev first_touch, first_pen;  // Ev(): nothing on that device
    } cases[] = {
        {2, false, Abs(ABS_MT_TRACKING_ID, 0), Ev()},
        {4, false, Ev(), Key(BTN_TOOL_PEN, 1)},
        {4, true, Ev(), Key(BTN_TOOL_RUBBER, 1)},
    };
    VersionGuard version(2);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.event_type << " eraser " << c.eraser);
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<int8_t>(c.event_type);
        TouchPoint p = Point(0, 1, 0, 0);
        p.bPen = !c.eraser;
        p.bEraser = p.eraser = c.eraser;
        p.inrange = p.tip = 1;
        DispatchTouchEvent(rig.dev.get(), &p);
        const std::vector<Ev> touch = rig.TouchEvents(), pen = rig.PenEvents();
        EXPECT_EQ(c.first_touch, touch.empty() ? Ev() : touch[0]);
        EXPECT_EQ(c.first_pen, pen.empty() ? Ev() : pen[0]);
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
