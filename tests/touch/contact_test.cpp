// The contact pipeline: each transform from worked examples, their order, the contact
// number check and the hold filter.
#include "touch/contact.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

struct XY {
    int x;
    int y;
};

TouchPoint At(XY in, int id = 0, int state = 1, int z = 0) {
    TouchPoint p = {};
    p.State = state;
    p.ID = id;
    p.X = in.x;
    p.Y = in.y;
    p.Z = z;
    return p;
}

}  // namespace

TEST(ContactTransform, EdgeCompensation) {
    struct Case {
        int left, right, top, bottom;
        XY in;
        XY out;  // x < 0: only inside 0-4095
    };
    const Case cases[] = {
        {150, 100, 100, 100, {0, 2000}, {0, 2000}},        // 205 - 307 = -102, clamped
        {150, 100, 100, 100, {100, 2000}, {48, 2000}},     // 205 - 157
        {150, 100, 100, 100, {205, 2000}, {205, 2000}},    // outside the band
        {100, 150, 100, 100, {3991, 1}, {4041, 1}},        // 3891 + 150; Y in top band
        {100, 100, 50, 200, {3000, 105}, {3000, 155}},     // 205 - 50
        {100, 100, 50, 200, {3000, 4095}, {3000, 4095}},   // 3891 + 408 -> clamped
        {100, 100, 100, 120, {3000, 3900}, {3000, 3901}},  // 3891 + 10.8 -> 10
        {0, 0, 0, 0, {10, 4000}, {205, 3891}},             // bands collapse to their edge
        {-100, 100, 100, 100, {100, 2000}, {310, 2000}},   // negative percent: 205 + 105
        // Hostile percentages wrap as 32-bit values and still end inside 0-4095.
        {INT_MAX, INT_MAX, INT_MIN, INT_MIN, {0, 0}, {-1, -1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.in.x << "," << c.in.y);
        TouchRig rig;
        DeviceParam& p = rig.dev->Param;
        p.EdgeCompensate = 1;
        p.EdgeLeft = c.left;
        p.EdgeRight = c.right;
        p.EdgeTop = c.top;
        p.EdgeBottom = c.bottom;
        TouchPoint t = At(c.in);
        EdgeCompensate(p, &t);
        if (c.out.x < 0) {
            EXPECT_TRUE(t.X >= 0 && t.X <= 4095 && t.Y >= 0 && t.Y <= 4095) << t.X << "," << t.Y;
        } else {
            EXPECT_EQ(c.out.x, t.X);
            EXPECT_EQ(c.out.y, t.Y);
        }
    }
}

// Direction, orientation and the split rectangles (modes 1-8 halves, 9 the custom
// rectangle), applied in that order.
TEST(ContactTransform, DirectionOrientationAndRectangles) {
    struct Case {
        int direction, orientation, split;
        int rect_left, rect_right, rect_top, rect_bottom;
        XY in;
        XY out;
    };
    // clang-format off
    const Case cases[] = {
        {1, 0, 0, 0, 0, 0, 0, {100, 200}, {3994, 200}},
        {2, 0, 0, 0, 0, 0, 0, {100, 200}, {100, 3894}},
        {3, 0, 0, 0, 0, 0, 0, {100, 200}, {3994, 3894}},
        {4, 0, 0, 0, 0, 0, 0, {100, 200}, {200, 100}},
        {5, 0, 0, 0, 0, 0, 0, {100, 200}, {3894, 100}},
        {6, 0, 0, 0, 0, 0, 0, {100, 200}, {200, 3994}},
        {-1, 0, 0, 0, 0, 0, 0, {100, 200}, {100, 200}},  // ignored unless > 0
        {8, 0, 0, 0, 0, 0, 0, {100, 200}, {100, 200}},   // no known bit
        {0, 1, 0, 0, 0, 0, 0, {100, 200}, {3894, 100}},
        {0, 2, 0, 0, 0, 0, 0, {100, 200}, {3994, 3894}},
        {0, 3, 0, 0, 0, 0, 0, {100, 200}, {200, 3994}},
        {0, 4, 0, 0, 0, 0, 0, {100, 200}, {100, 200}},
        {5, 1, 0, 0, 0, 0, 0, {100, 200}, {3994, 3894}},  // direction first, then a quarter turn
        {0, 0, 1, 0, 0, 0, 0, {0, 0}, {2047, 0}},
        {0, 0, 1, 0, 0, 0, 0, {4095, 4095}, {4094, 2047}},
        {0, 0, 2, 0, 0, 0, 0, {4095, 4095}, {2047, 2047}},
        {0, 0, 3, 0, 0, 0, 0, {4095, 4095}, {2047, 4094}},
        {0, 0, 4, 0, 0, 0, 0, {4095, 4095}, {4094, 4094}},
        {0, 0, 5, 0, 0, 0, 0, {4095, 4095}, {4095, 2047}},
        {0, 0, 6, 0, 0, 0, 0, {4095, 4095}, {4095, 4094}},
        {0, 0, 7, 0, 0, 0, 0, {4095, 4095}, {4094, 4095}},
        {0, 0, 8, 0, 0, 0, 0, {4095, 4095}, {2047, 4095}},
        {0, 0, 10, 0, 0, 0, 0, {4095, 4095}, {4095, 4095}},
        {0, 0, 2, 0, 0, 0, 0, {-3, -3}, {-1, -1}},  // halves truncate toward zero
        {0, 0, 9, 1000, 3000, 0, 4095, {4095, 4095}, {3000, 4095}},
        {0, 0, 9, 1000, 3000, 0, 4095, {2048, 0}, {2000, 0}},
        {0, 0, 9, 1000, 3000, 100, 200, {0, 2048}, {1000, 150}},  // 100 + 2048 * 100 / 4095
        {0, 0, 9, 3000, 1000, 0, 4095, {4095, 1}, {1000, 1}},     // reversed rectangle mirrors
        {0, 0, 9, 3000, 1000, 0, 4095, {1, 1}, {3000, 1}},        // 3000 + (-2000 / 4095)
        {0, 0, 9, 500, 500, 0, 4095, {1234, 2345}, {1234, 2345}},  // zero width: unchanged
        {0, 0, 9, 0, 4095, 700, 700, {1234, 2345}, {1234, 2345}},  // zero height: unchanged
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.direction << " " << c.orientation << " " << c.split
                                        << " " << c.rect_left << " " << c.in.x);
        TouchRig rig;
        DeviceParam& p = rig.dev->Param;
        p.Direction = c.direction;
        p.Orientation = c.orientation;
        p.SplitRectMode = static_cast<uint8_t>(c.split);
        p.CustomRectLeft = c.rect_left;
        p.CustomRectRight = c.rect_right;
        p.CustomRectTop = c.rect_top;
        p.CustomRectBottom = c.rect_bottom;
        TouchPoint t = At(c.in);
        ApplyDirection(p, &t);
        ApplyOrientation(p, &t);
        ApplySplitRect(p, &t);
        EXPECT_EQ(c.out.x, t.X);
        EXPECT_EQ(c.out.y, t.Y);
    }
}

// The transforms in their order through HandleContact, and contact ids that never pass.
TEST(ContactPipeline, OrderAndContactNumberCheck) {
    VersionGuard version(9);
    TouchRig rig;
    DeviceParam& p = rig.dev->Param;
    p.EdgeCompensate = 1;
    p.EdgeLeft = 150;
    p.EdgeRight = p.EdgeTop = p.EdgeBottom = 100;
    p.Direction = 1;      // X = 4094 - X
    p.Orientation = 2;    // both mirrored
    p.SplitRectMode = 2;  // both halved
    // (100, 1000): edge -> (48, 1000); direction -> (4046, 1000);
    // orientation 2 -> (48, 3094); split 2 -> (24, 1547).
    TouchPoint t = At({100, 1000}, 3);
    HandleContact(rig.dev.get(), &t);
    std::vector<Ev> want;
    AddSlotDown(&want, 3, 24, 1547);
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());

    // Contact 10 with SupportPoints 10 is dropped; whatever SupportPoints says, 20 and
    // above and negative ids never pass.
    TouchPoint ten = At({100, 1000}, 10);
    HandleContact(rig.dev.get(), &ten);
    p.SupportPoints = 255;
    for (int id : {20, 31, 255, 1000, -1}) {
        TouchPoint bad = At({100, 1000}, id);
        HandleContact(rig.dev.get(), &bad);
    }
    EXPECT_TRUE(rig.TouchEvents().empty());
}

// With HoldRange 20 a finger drifting less than 20 units (in X, Y or Z) from the last
// position that passed produces nothing; a lift and another contact always pass.
TEST(ContactHoldFilter, DriftIsSwallowedUntilTheRangeIsReached) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Param.HoldFilterEnable = 1;
    struct Step {
        int id, state, x, y, z;
        bool passes;
    };
    const Step steps[] = {
        {0, 1, 1000, 1000, 0, true},  // not yet written as touching
        {0, 1, 1005, 1000, 0, false},  {0, 1, 1015, 1000, 0, false},
        {0, 1, 1000, 981, 0, false},   {0, 1, 1000, 1000, 19, false},
        {1, 1, 1000, 1000, 0, true},   // another contact at the same place
        {0, 1, 1020, 1000, 0, true},   // 20 from the last that passed
        {0, 1, 1035, 1000, 0, false},  // measured from 1020, not 1000
        {0, 1, 1020, 1000, 20, true},  // a change of 20 in Z alone
        {0, 0, 1021, 1000, 0, true},   // a lift never waits
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(testing::Message() << s.id << ": " << s.x << "," << s.y << "," << s.z);
        TouchPoint t = At({s.x, s.y}, s.id, s.state, s.z);
        HandleContact(rig.dev.get(), &t);
        EXPECT_EQ(s.passes, !rig.TouchEvents().empty());
    }
}
