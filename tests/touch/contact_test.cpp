// The contact pipeline: each transform from worked examples, their order, the contact
// number check and the hold filter.
#include "touch/contact.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

DeviceParam Neutral() {
    DeviceParam p = {};
    p.SupportPoints = 10;
    p.ResolX = -1;
    p.ResolY = -1;
    p.HoldRange = 20;
    return p;
}

struct XY {
    int x;
    int y;
};

TouchPoint At(XY in) {
    TouchPoint p = {};
    p.State = 1;
    p.X = in.x;
    p.Y = in.y;
    return p;
}

}  // namespace

TEST(ContactTransform, EdgeCompensation) {
    struct Case {
        int left, right, top, bottom;
        XY in;
        XY out;
    };
    const Case cases[] = {
        {150, 100, 100, 100, {0, 2000}, {0, 2000}},        // 205 - 307 = -102, clamped
        {150, 100, 100, 100, {100, 2000}, {48, 2000}},     // 205 - 157
        {150, 100, 100, 100, {204, 2000}, {204, 2000}},    // 205 - 1
        {150, 100, 100, 100, {205, 2000}, {205, 2000}},    // outside the band
        {100, 150, 100, 100, {4095, 1}, {4095, 1}},        // 3891 + 306 clamped; Y in top band
        {100, 150, 100, 100, {3991, 1}, {4041, 1}},        // 3891 + 150
        {100, 100, 50, 200, {3000, 105}, {3000, 155}},     // 205 - 50
        {100, 100, 50, 200, {3000, 3991}, {3000, 4091}},   // 3891 + 200
        {100, 100, 50, 200, {3000, 4095}, {3000, 4095}},   // 3891 + 408 -> clamped
        {100, 100, 100, 120, {3000, 3900}, {3000, 3901}},  // 3891 + 10.8 -> 10
        {0, 0, 0, 0, {10, 4000}, {205, 3891}},             // bands collapse to their edge
        {-100, 100, 100, 100, {100, 2000}, {310, 2000}},   // negative percent: 205 + 105
        // Hostile percentages wrap as 32-bit values and still end inside 0-4095.
        {INT_MAX, INT_MAX, INT_MIN, INT_MIN, {0, 0}, {-1, -1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.in.x << "," << c.in.y);
        DeviceParam p = Neutral();
        p.EdgeCompensate = 1;
        p.EdgeLeft = c.left;
        p.EdgeRight = c.right;
        p.EdgeTop = c.top;
        p.EdgeBottom = c.bottom;
        TouchPoint t = At(c.in);
        EdgeCompensate(p, &t);
        if (c.out.x < 0) {
            EXPECT_GE(t.X, 0);
            EXPECT_LE(t.X, 4095);
            EXPECT_GE(t.Y, 0);
            EXPECT_LE(t.Y, 4095);
        } else {
            EXPECT_EQ(c.out.x, t.X);
            EXPECT_EQ(c.out.y, t.Y);
        }
    }
    DeviceParam off = Neutral();
    off.EdgeLeft = 150;
    TouchPoint t = At({0, 5000});
    EdgeCompensate(off, &t);  // switched off: not even clamped
    EXPECT_EQ(0, t.X);
    EXPECT_EQ(5000, t.Y);
}

TEST(ContactTransform, DirectionAndOrientation) {
    struct Case {
        int direction;
        int orientation;
        XY in;
        XY out;
    };
    const Case cases[] = {
        {1, 0, {100, 200}, {3994, 200}},
        {2, 0, {100, 200}, {100, 3894}},
        {3, 0, {100, 200}, {3994, 3894}},
        {4, 0, {100, 200}, {200, 100}},
        {5, 0, {100, 200}, {3894, 100}},
        {6, 0, {100, 200}, {200, 3994}},
        {0, 0, {100, 200}, {100, 200}},
        {-1, 0, {100, 200}, {100, 200}},  // ignored unless > 0
        {8, 0, {100, 200}, {100, 200}},   // no known bit
        {0, 1, {100, 200}, {3894, 100}},
        {0, 2, {100, 200}, {3994, 3894}},
        {0, 3, {100, 200}, {200, 3994}},
        {0, 4, {100, 200}, {100, 200}},
        {0, -1, {100, 200}, {100, 200}},
        {5, 1, {100, 200}, {3994, 3894}},  // direction first: (3894,100), then a quarter turn
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "direction " << c.direction << " orientation " << c.orientation);
        DeviceParam p = Neutral();
        p.Direction = c.direction;
        p.Orientation = c.orientation;
        TouchPoint t = At(c.in);
        ApplyDirection(p, &t);
        ApplyOrientation(p, &t);
        EXPECT_EQ(c.out.x, t.X);
        EXPECT_EQ(c.out.y, t.Y);
    }
}

TEST(ContactTransform, SplitRectangle) {
    struct Case {
        int mode;
        XY in;
        XY out;
    };
    const Case cases[] = {
        {1, {0, 0}, {2047, 0}},           {1, {4095, 4095}, {4094, 2047}},
        {2, {4095, 4095}, {2047, 2047}},  {3, {4095, 4095}, {2047, 4094}},
        {4, {4095, 4095}, {4094, 4094}},  {5, {4095, 4095}, {4095, 2047}},
        {6, {4095, 4095}, {4095, 4094}},  {7, {4095, 4095}, {4094, 4095}},
        {8, {4095, 4095}, {2047, 4095}},  {0, {4095, 4095}, {4095, 4095}},
        {10, {4095, 4095}, {4095, 4095}}, {255, {1, 2}, {1, 2}},
        {2, {-3, -3}, {-1, -1}},  // halves truncate toward zero
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        DeviceParam p = Neutral();
        p.SplitRectMode = static_cast<uint8_t>(c.mode);
        TouchPoint t = At(c.in);
        ApplySplitRect(p, &t);
        EXPECT_EQ(c.out.x, t.X);
        EXPECT_EQ(c.out.y, t.Y);
    }
}

TEST(ContactTransform, CustomRectangle) {
    struct Case {
        int left, right, top, bottom;
        XY in;
        XY out;
    };
    const Case cases[] = {
        {1000, 3000, 0, 4095, {4095, 4095}, {3000, 4095}},
        {1000, 3000, 0, 4095, {2048, 0}, {2000, 0}},
        {1000, 3000, 100, 200, {0, 2048}, {1000, 150}},   // 100 + 2048 * 100 / 4095 = 150.01
        {3000, 1000, 0, 4095, {4095, 1}, {1000, 1}},      // reversed rectangle mirrors
        {3000, 1000, 0, 4095, {1, 1}, {3000, 1}},         // 3000 + (-2000 / 4095) -> 3000
        {500, 500, 0, 4095, {1234, 2345}, {1234, 2345}},  // zero width: unchanged
        {0, 4095, 700, 700, {1234, 2345}, {1234, 2345}},  // zero height: unchanged
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.left << "-" << c.right << " " << c.in.x);
        DeviceParam p = Neutral();
        p.SplitRectMode = 9;
        p.CustomRectLeft = c.left;
        p.CustomRectRight = c.right;
        p.CustomRectTop = c.top;
        p.CustomRectBottom = c.bottom;
        TouchPoint t = At(c.in);
        ApplySplitRect(p, &t);
        EXPECT_EQ(c.out.x, t.X);
        EXPECT_EQ(c.out.y, t.Y);
    }
}

// The transforms in their order, through HandleContact to the touch device.
TEST(ContactPipeline, OrderAndContactNumberCheck) {
    VersionGuard version(9);
    TouchRig rig;
    DeviceParam& p = rig.dev->Param;
    p.EdgeCompensate = 1;
    p.EdgeLeft = 150;
    p.EdgeRight = 100;
    p.EdgeTop = 100;
    p.EdgeBottom = 100;
    p.Direction = 1;      // X = 4094 - X
    p.Orientation = 2;    // both mirrored
    p.SplitRectMode = 2;  // both halved
    // (100, 1000): edge -> (48, 1000); direction -> (4046, 1000);
    // orientation 2 -> (48, 3094); split 2 -> (24, 1547).
    TouchPoint t = At({100, 1000});
    t.ID = 3;
    HandleContact(rig.dev.get(), &t);
    std::vector<Ev> want;
    AddSlotDown(&want, 3, 24, 1547);
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());

    // Contact 10 with SupportPoints 10 is dropped before any transform.
    TouchPoint bad = At({100, 1000});
    bad.ID = 10;
    HandleContact(rig.dev.get(), &bad);
    EXPECT_EQ(100, bad.X);
    EXPECT_TRUE(rig.TouchEvents().empty());
    // Whatever SupportPoints says, 20 and above and negative ids never pass.
    p.SupportPoints = 255;
    for (int id : {20, 31, 255, 1000, -1}) {
        TouchPoint t2 = At({100, 1000});
        t2.ID = id;
        HandleContact(rig.dev.get(), &t2);
        EXPECT_EQ(100, t2.X) << id;
    }
    EXPECT_TRUE(rig.TouchEvents().empty());
}

// With HoldRange 20 a finger drifting 5 units per report produces nothing until it is 20
// units from the last position that passed; a lift always passes.
TEST(ContactHoldFilter, DriftIsSwallowedUntilTheRangeIsReached) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Param.HoldFilterEnable = 1;
    rig.dev->Param.HoldRange = 20;
    auto send = [&rig](int state, int x, int y, int z) {
        TouchPoint t = At({x, y});
        t.State = state;
        t.Z = z;
        HandleContact(rig.dev.get(), &t);
        return rig.TouchEvents();
    };
    std::vector<Ev> first;
    AddSlotDown(&first, 0, 1000, 1000);
    first.push_back(Syn());
    EXPECT_EQ(first, send(1, 1000, 1000, 0));  // not yet written as touching: passes
    EXPECT_TRUE(send(1, 1005, 1000, 0).empty());
    EXPECT_TRUE(send(1, 1010, 1000, 0).empty());
    EXPECT_TRUE(send(1, 1015, 1000, 0).empty());
    EXPECT_TRUE(send(1, 1000, 981, 0).empty());    // 19 in Y
    EXPECT_TRUE(send(1, 1000, 1000, 19).empty());  // 19 in Z
    std::vector<Ev> moved;
    AddSlotDown(&moved, 0, 1020, 1000);
    moved.push_back(Syn());
    EXPECT_EQ(moved, send(1, 1020, 1000, 0));  // 20 from the last that passed
    EXPECT_EQ(1020, rig.dev->HoldContacts[0].X);
    EXPECT_TRUE(send(1, 1035, 1000, 0).empty());  // measured from 1020, not 1000
    std::vector<Ev> pressed;
    AddSlotDown(&pressed, 0, 1020, 1000);
    pressed.push_back(Syn());
    EXPECT_EQ(pressed, send(1, 1020, 1000, 20));  // a change of 20 in Z alone passes
    std::vector<Ev> lift;
    AddSlotUp(&lift, 0);
    lift.push_back(Syn());
    EXPECT_EQ(lift, send(0, 1021, 1000, 0));  // a lift never waits

    // Disabled: every record passes.
    rig.dev->Param.HoldFilterEnable = 0;
    EXPECT_FALSE(send(1, 500, 500, 0).empty());
    EXPECT_EQ(0, HoldFilter(rig.dev.get(), &rig.dev->HoldContacts[0]));
}

TEST(ContactHoldFilter, AnswersPerContact) {
    TouchRig rig;
    rig.dev->Param.HoldFilterEnable = 1;
    rig.dev->Param.HoldRange = 20;
    TouchPoint a = At({100, 100});
    a.ID = 1;
    EXPECT_EQ(0, HoldFilter(rig.dev.get(), &a));  // stored, contact not written yet
    EXPECT_EQ(0, HoldFilter(rig.dev.get(), &a));  // still not written as touching
    rig.dev->LastContacts[1].State = 1;
    EXPECT_EQ(1, HoldFilter(rig.dev.get(), &a));
    TouchPoint b = At({100, 100});
    b.ID = 2;  // another contact at the same place is not held
    EXPECT_EQ(0, HoldFilter(rig.dev.get(), &b));
    rig.dev->Param.HoldRange = 0;  // no move is smaller than 0
    EXPECT_EQ(0, HoldFilter(rig.dev.get(), &a));
}
