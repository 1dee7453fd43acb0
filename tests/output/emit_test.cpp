// Event emission: the frame rule of each touch protocol, pen and eraser samples, scaling to
// the output range and the release of every contact. The descriptors are datagram
// socketpairs; the expected event lists are written by hand from the protocol rules.
#include "output/emit.h"

#include <gtest/gtest.h>

#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

void Send(TouchRig& rig, int id, int state, int x, int y) {
    TouchPoint p = {};
    p.ID = id;
    p.State = state;
    p.X = x;
    p.Y = y;
    DispatchTouchEvent(rig.dev.get(), &p);
}

}  // namespace

// Two fingers down, moving and lifted one after the other, slot protocol: Android 4+, and
// plain Linux (no Android found), where each frame also carries the single-touch view of
// the lowest-numbered touching contact (BTN_TOUCH, ABS_X, ABS_Y) that libinput needs.
TEST(EmitFrameRule, SlotProtocolWritesOneFramePerScanAndEachLiftOnce) {
    for (int android : {9, 0}) {
        SCOPED_TRACE(testing::Message() << "android " << android);
        VersionGuard version(android);
        TouchRig rig;
        // Ends an expected frame; first_x -1: no contact touches any more.
        auto end_frame = [android](std::vector<Ev>* want, int first_x, int first_y) {
            if (android == 0 && first_x < 0) want->push_back(Key(BTN_TOUCH, 0));
            if (android == 0 && first_x >= 0) {
                want->insert(want->end(),
                             {Key(BTN_TOUCH, 1), Abs(ABS_X, first_x), Abs(ABS_Y, first_y)});
            }
            want->push_back(Syn());
        };

        Send(rig, 0, 1, 100, 200);  // new contact: frame at once
        std::vector<Ev> want;
        AddSlotDown(&want, 0, 100, 200);
        end_frame(&want, 100, 200);
        EXPECT_EQ(want, rig.TouchEvents());

        Send(rig, 1, 1, 300, 400);  // second contact: state change, frame with both
        want.clear();
        AddSlotDown(&want, 0, 100, 200);
        AddSlotDown(&want, 1, 300, 400);
        end_frame(&want, 100, 200);
        EXPECT_EQ(want, rig.TouchEvents());

        Send(rig, 0, 1, 110, 210);  // next scan begins (0 is not above 1): frame
        want.clear();
        AddSlotDown(&want, 0, 110, 210);
        AddSlotDown(&want, 1, 300, 400);
        end_frame(&want, 110, 210);
        EXPECT_EQ(want, rig.TouchEvents());

        Send(rig, 1, 1, 310, 410);  // rising within the scan, unchanged: nothing yet
        EXPECT_TRUE(rig.TouchEvents().empty());

        Send(rig, 0, 0, 110, 210);  // lift of 0: written once; the pointer follows 1
        want.clear();
        AddSlotUp(&want, 0);
        AddSlotDown(&want, 1, 310, 410);
        end_frame(&want, 310, 410);
        EXPECT_EQ(want, rig.TouchEvents());

        Send(rig, 1, 1, 320, 420);  // 1 above 0, unchanged: waits
        EXPECT_TRUE(rig.TouchEvents().empty());
        Send(rig, 1, 0, 320, 420);  // lift of 1: slot 0 no longer appears
        want.clear();
        AddSlotUp(&want, 1);
        end_frame(&want, -1, -1);
        EXPECT_EQ(want, rig.TouchEvents());
    }
}

// A scan that announced its contact count: nothing is written until it ends, then one frame
// carries every contact at its new position, in each protocol.
TEST(EmitScan, OneFramePerScanInEveryProtocol) {
    auto multi_sync = [](std::vector<Ev>* out, int id, int touching, int x, int y) {
        out->insert(out->end(), {Abs(ABS_MT_TRACKING_ID, id), Abs(ABS_MT_TOUCH_MAJOR, touching),
                                 Abs(ABS_MT_POSITION_X, x), Abs(ABS_MT_POSITION_Y, y),
                                 Abs(ABS_MT_WIDTH_MAJOR, 0), MtSyn()});
    };
    auto type_a = [](std::vector<Ev>* out, int x, int y) {
        out->insert(out->end(), {Abs(ABS_MT_POSITION_X, x), Abs(ABS_MT_POSITION_Y, y), MtSyn()});
    };
    struct Case {
        const char* what;
        int android;
        int event_type;
        std::vector<Ev> down;  // 0 and 1 come down in one scan
        std::vector<Ev> up;    // both lift in the next
    };
    std::vector<Case> cases(4);
    cases[0] = {"slot", 9, 2, {}, {}};
    AddSlotDown(&cases[0].down, 0, 100, 200);
    AddSlotDown(&cases[0].down, 1, 300, 400);
    AddSlotUp(&cases[0].up, 0);
    AddSlotUp(&cases[0].up, 1);
    // Android 3 still uses the multi sync protocol (Android 4 does not).
    cases[1] = {"Android 3 multi sync", 3, 2, {}, {}};
    multi_sync(&cases[1].down, 0, 1, 100, 200);
    multi_sync(&cases[1].down, 1, 1, 300, 400);
    multi_sync(&cases[1].up, 0, 0, 100, 200);
    multi_sync(&cases[1].up, 1, 0, 300, 400);
    // Type A is kept on plain Linux too: a settings file that asks for it gets it.
    cases[2] = {"type A", 9, 4, {}, {}};
    cases[3] = {"type A, plain Linux", 0, 4, {}, {}};
    for (int i : {2, 3}) {
        type_a(&cases[i].down, 100, 200);
        type_a(&cases[i].down, 300, 400);
        type_a(&cases[i].up, 100, 200);
        type_a(&cases[i].up, 300, 400);
    }
    for (Case& c : cases) {
        c.down.push_back(Syn());
        c.up.push_back(Syn());
    }
    for (int i : {2, 3}) cases[i].up.insert(cases[i].up.end(), {MtSyn(), Syn()});  // empty frame
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VersionGuard version(c.android);
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<uint8_t>(c.event_type);
        BeginTouchScan(rig.dev.get());
        Send(rig, 0, 1, 100, 200);
        Send(rig, 1, 1, 300, 400);  // a new contact would write at once outside a scan
        EXPECT_TRUE(rig.TouchEvents().empty());
        EndTouchScan(rig.dev.get());
        EXPECT_EQ(c.down, rig.TouchEvents());
        BeginTouchScan(rig.dev.get());
        Send(rig, 0, 0, 100, 200);
        Send(rig, 1, 0, 300, 400);
        EXPECT_TRUE(rig.TouchEvents().empty());
        BeginTouchScan(rig.dev.get());  // the next scan begins: the open one is written
        EXPECT_EQ(c.up, rig.TouchEvents());
        EndTouchScan(rig.dev.get());  // a scan that took no record writes nothing
        EXPECT_TRUE(rig.TouchEvents().empty());
    }
}

// A settings file may claim 255 contacts; the 20-entry tables still bound the frame and
// contact numbers from 20 on are never used as an index, by any emitter.
TEST(EmitFrameRule, ContactNumbersBeyondTheTablesAreDropped) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Param.SupportPoints = 255;
    Send(rig, 19, 1, 5, 6);
    std::vector<Ev> want;
    AddSlotDown(&want, 19, 5, 6);
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());
    for (int id : {20, 21, 100, 255, -1}) {
        TouchPoint p = {};
        p.ID = id;
        p.State = 1;
        EmitSlotEvent(rig.dev.get(), &p);
        EmitTypeAEvent(rig.dev.get(), &p);
        EmitAndroidMultiSyncEvent(rig.dev.get(), &p);
        EmitPenEvent(rig.dev.get(), &p);
        EmitEraserEvent(rig.dev.get(), &p);
    }
    EXPECT_TRUE(rig.TouchEvents().empty());
    EXPECT_TRUE(rig.PenEvents().empty());
}

TEST(EmitFrameRule, LastContactIdIsPerDevice) {
    VersionGuard version(9);
    TouchRig first;
    TouchRig second;
    Send(first, 0, 1, 1, 1);
    Send(first, 1, 1, 2, 2);
    (void)first.TouchEvents();
    Send(second, 0, 1, 3, 3);  // another device's record must not end the first one's scan
    (void)second.TouchEvents();
    Send(first, 1, 1, 2, 3);  // 1 is not above 1: frame
    EXPECT_FALSE(first.TouchEvents().empty());
}

TEST(EmitScaling, OutputRangeFromResolXAndResolY) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Param.ResolX = 1919;
    rig.dev->Param.ResolY = 1079;
    Send(rig, 0, 1, 4095, 2048);
    Send(rig, 1, 1, 2048, 4095);
    std::vector<Ev> want;
    AddSlotDown(&want, 0, 1919, 539);  // 1079 * 2048 / 4095 = 539.7 -> 539
    want.push_back(Syn());
    AddSlotDown(&want, 0, 1919, 539);
    AddSlotDown(&want, 1, 959, 1079);  // 1919 * 2048 / 4095 = 959.7 -> 959
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());
}

TEST(EmitPen, PenSampleAndToolChange) {
    VersionGuard version(9);
    TouchRig rig;
    TouchPoint pen = {};
    pen.bPen = pen.State = pen.inrange = pen.tip = pen.barrel = 1;
    pen.X = 1000;
    pen.Y = 2000;
    pen.Z = 500;
    pen.tilt_x = -30;
    pen.tilt_y = 40;
    DispatchTouchEvent(rig.dev.get(), &pen);
    std::vector<Ev> want = {Key(BTN_TOOL_PEN, 1), Key(BTN_STYLUS, 1),  Abs(ABS_X, 1000),
                            Abs(ABS_Y, 2000),     Key(BTN_TOUCH, 1),   Abs(ABS_PRESSURE, 500),
                            Abs(ABS_TILT_X, -30), Abs(ABS_TILT_Y, 40), Syn()};
    EXPECT_EQ(want, rig.PenEvents());
    EXPECT_TRUE(rig.TouchEvents().empty());

    // Inverted: the pen tool is lifted first, then the rubber comes in.
    pen.invert = 1;
    pen.barrel = 0;
    EmitPenEvent(rig.dev.get(), &pen);
    want = {Key(BTN_TOOL_PEN, 0),    Key(BTN_TOUCH, 0),   Syn(),
            Key(BTN_TOOL_RUBBER, 1), Key(BTN_STYLUS, 0),  Abs(ABS_X, 1000),
            Abs(ABS_Y, 2000),        Key(BTN_TOUCH, 1),   Abs(ABS_PRESSURE, 500),
            Abs(ABS_TILT_X, -30),    Abs(ABS_TILT_Y, 40), Syn()};
    EXPECT_EQ(want, rig.PenEvents());

    // Back to the pen, out of range: rubber lifted, pen tool reports in-range 0.
    pen.invert = pen.inrange = pen.tip = pen.State = pen.Z = 0;
    EmitPenEvent(rig.dev.get(), &pen);
    want = {Key(BTN_TOOL_RUBBER, 0), Key(BTN_TOUCH, 0),   Syn(),
            Key(BTN_TOOL_PEN, 0),    Key(BTN_STYLUS, 0),  Abs(ABS_X, 1000),
            Abs(ABS_Y, 2000),        Key(BTN_TOUCH, 0),   Abs(ABS_PRESSURE, 0),
            Abs(ABS_TILT_X, -30),    Abs(ABS_TILT_Y, 40), Syn()};
    EXPECT_EQ(want, rig.PenEvents());
}

TEST(EmitPen, EraserSamples) {
    VersionGuard version(9);
    TouchRig rig;
    TouchPoint eraser = {};
    eraser.bEraser = eraser.eraser = 1;
    eraser.X = 10;
    eraser.Y = 20;
    eraser.Z = 300;
    DispatchTouchEvent(rig.dev.get(), &eraser);
    std::vector<Ev> want = {
        Key(BTN_TOOL_RUBBER, 1), Abs(ABS_X, 10),     Abs(ABS_Y, 20),     Key(BTN_TOUCH, 1),
        Abs(ABS_PRESSURE, 300),  Abs(ABS_TILT_X, 0), Abs(ABS_TILT_Y, 0), Syn()};
    EXPECT_EQ(want, rig.PenEvents());

    eraser.eraser = 0;  // switch released while pressing: no BTN_TOUCH 0 yet
    eraser.Z = 7;
    DispatchTouchEvent(rig.dev.get(), &eraser);
    want = {Abs(ABS_X, 10),     Abs(ABS_Y, 20), Abs(ABS_PRESSURE, 7),    Abs(ABS_TILT_X, 0),
            Abs(ABS_TILT_Y, 0), Syn(),          Key(BTN_TOOL_RUBBER, 0), Syn()};
    EXPECT_EQ(want, rig.PenEvents());

    eraser.Z = 0;
    DispatchTouchEvent(rig.dev.get(), &eraser);
    want = {Abs(ABS_X, 10),
            Abs(ABS_Y, 20),
            Key(BTN_TOUCH, 0),
            Abs(ABS_PRESSURE, 0),
            Abs(ABS_TILT_X, 0),
            Abs(ABS_TILT_Y, 0),
            Syn(),
            Key(BTN_TOOL_RUBBER, 0),
            Syn()};
    EXPECT_EQ(want, rig.PenEvents());
    EXPECT_TRUE(rig.TouchEvents().empty());
}

// Which device a pen or eraser sample reaches: on Android 2 and 3 the multi sync protocol
// makes it a touch contact; type A sends it to the pen device whatever the Android version.
TEST(EmitPen, RoutingByProtocol) {
    struct Case {
        const char* name;
        int android;
        int event_type;
        bool eraser;
        std::vector<Ev> touch;  // first event on each device, or nothing
        std::vector<Ev> pen;
    } cases[] = {
        {"pen, Android 2 multi sync", 2, 2, false, {Abs(ABS_MT_TRACKING_ID, 0)}, {}},
        {"pen, Android 2 type A", 2, 4, false, {}, {Key(BTN_TOOL_PEN, 1)}},
        {"eraser, Android 2 type A", 2, 4, true, {}, {Key(BTN_TOOL_RUBBER, 1)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VersionGuard version(c.android);
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<int8_t>(c.event_type);
        TouchPoint p = {};
        p.bPen = !c.eraser;
        p.bEraser = p.eraser = c.eraser;
        p.inrange = p.tip = p.State = 1;
        DispatchTouchEvent(rig.dev.get(), &p);
        std::vector<Ev> touch = rig.TouchEvents();
        std::vector<Ev> pen = rig.PenEvents();
        if (touch.size() > 1) touch.resize(1);
        if (pen.size() > 1) pen.resize(1);
        EXPECT_EQ(c.touch, touch);
        EXPECT_EQ(c.pen, pen);
    }
}

TEST(EmitRelease, ReleaseAllContactsLiftsEveryTouchingContact) {
    VersionGuard version(9);
    TouchRig rig;
    Send(rig, 0, 1, 100, 200);
    Send(rig, 2, 1, 300, 400);
    (void)rig.TouchEvents();

    ReleaseAllContacts(rig.dev.get());
    std::vector<Ev> want;
    AddSlotUp(&want, 0);  // record for 0: lift, 2 still down
    AddSlotDown(&want, 2, 300, 400);
    want.push_back(Syn());
    AddSlotUp(&want, 2);  // record for 2: lift
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());

    ReleaseAllContacts(rig.dev.get());  // nothing is touching any more
    EXPECT_TRUE(rig.TouchEvents().empty());

    // A device removed in the middle of a scan: the contact held in it is written, then
    // lifted with the others.
    Send(rig, 0, 1, 100, 200);
    (void)rig.TouchEvents();
    BeginTouchScan(rig.dev.get());
    Send(rig, 1, 1, 300, 400);
    ReleaseAllContacts(rig.dev.get());
    want.clear();
    AddSlotDown(&want, 0, 100, 200);
    AddSlotDown(&want, 1, 300, 400);
    want.push_back(Syn());
    AddSlotUp(&want, 0);
    AddSlotDown(&want, 1, 300, 400);
    want.push_back(Syn());
    AddSlotUp(&want, 1);
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());
}
