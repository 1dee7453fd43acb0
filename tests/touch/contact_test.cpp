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

// Edge compensation (bands of 205 units from each edge stretched by the given percents),
// direction, orientation and the split rectangles (modes 1-8 halves, 9 the custom
// rectangle), applied in that order by HandleContact on its way to the touch device.
TEST(ContactPipeline, Transforms) {
    VersionGuard version(9);
    struct Case {
        std::vector<int> edge;  // left, right, top, bottom percent; empty: off
        int direction, orientation, split;
        std::vector<int> rect;  // custom rectangle left, right, top, bottom
        XY in;
        XY out;
    };
    // clang-format off
    const Case cases[] = {
        {{150, 100, 100, 100}, 0, 0, 0, {}, {0, 2000}, {0, 2000}},        // 205 - 307 = -102, clamped
        {{150, 100, 100, 100}, 0, 0, 0, {}, {100, 2000}, {48, 2000}},     // 205 - 157
        {{150, 100, 100, 100}, 0, 0, 0, {}, {205, 2000}, {205, 2000}},    // outside the band
        {{100, 150, 100, 100}, 0, 0, 0, {}, {3991, 1}, {4041, 1}},        // 3891 + 150; Y in top band
        {{100, 100, 50, 200}, 0, 0, 0, {}, {3000, 105}, {3000, 155}},     // 205 - 50
        {{100, 100, 50, 200}, 0, 0, 0, {}, {3000, 4095}, {3000, 4095}},   // 3891 + 408 -> clamped
        {{100, 100, 100, 120}, 0, 0, 0, {}, {3000, 3900}, {3000, 3901}},  // 3891 + 10.8 -> 10
        {{0, 0, 0, 0}, 0, 0, 0, {}, {10, 4000}, {205, 3891}},             // bands collapse to their edge
        {{-100, 100, 100, 100}, 0, 0, 0, {}, {100, 2000}, {310, 2000}},   // negative percent: 205 + 105
        {{}, 1, 0, 0, {}, {100, 200}, {3994, 200}},
        {{}, 2, 0, 0, {}, {100, 200}, {100, 3894}},
        {{}, 3, 0, 0, {}, {100, 200}, {3994, 3894}},
        {{}, 4, 0, 0, {}, {100, 200}, {200, 100}},
        {{}, 5, 0, 0, {}, {100, 200}, {3894, 100}},
        {{}, 6, 0, 0, {}, {100, 200}, {200, 3994}},
        {{}, -1, 0, 0, {}, {100, 200}, {100, 200}},  // ignored unless > 0
        {{}, 0, 1, 0, {}, {100, 200}, {3894, 100}},
        {{}, 0, 2, 0, {}, {100, 200}, {3994, 3894}},
        {{}, 0, 3, 0, {}, {100, 200}, {200, 3994}},
        {{}, 0, 0, 1, {}, {0, 0}, {2047, 0}},
        {{}, 0, 0, 1, {}, {4095, 4095}, {4094, 2047}},
        {{}, 0, 0, 2, {}, {4095, 4095}, {2047, 2047}},
        {{}, 0, 0, 3, {}, {4095, 4095}, {2047, 4094}},
        {{}, 0, 0, 4, {}, {4095, 4095}, {4094, 4094}},
        {{}, 0, 0, 5, {}, {4095, 4095}, {4095, 2047}},
        {{}, 0, 0, 6, {}, {4095, 4095}, {4095, 4094}},
        {{}, 0, 0, 7, {}, {4095, 4095}, {4094, 4095}},
        {{}, 0, 0, 8, {}, {4095, 4095}, {2047, 4095}},
        {{}, 0, 0, 10, {}, {4095, 4095}, {4095, 4095}},  // unknown mode
        {{}, 0, 0, 9, {1000, 3000, 0, 4095}, {4095, 4095}, {3000, 4095}},
        {{}, 0, 0, 9, {1000, 3000, 100, 200}, {0, 2048}, {1000, 150}},  // 100 + 2048 * 100 / 4095
        {{}, 0, 0, 9, {3000, 1000, 0, 4095}, {4095, 1}, {1000, 1}},     // reversed rectangle mirrors
        {{}, 0, 0, 9, {3000, 1000, 0, 4095}, {1, 1}, {3000, 1}},        // 3000 + (-2000 / 4095)
        {{}, 0, 0, 9, {500, 500, 0, 4095}, {1234, 2345}, {1234, 2345}},  // zero width: unchanged
        {{}, 0, 0, 9, {0, 4095, 700, 700}, {1234, 2345}, {1234, 2345}},  // zero height: unchanged
        {{}, 5, 1, 0, {}, {100, 200}, {3994, 3894}},  // direction first, then a quarter turn
        // edge -> (48, 1000); direction -> (4046, 1000); orientation -> (48, 3094); halved.
        {{150, 100, 100, 100}, 1, 2, 2, {}, {100, 1000}, {24, 1547}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "edge " << c.edge.size() << " direction " << c.direction
                                        << " orientation " << c.orientation << " split " << c.split
                                        << " in " << c.in.x << "," << c.in.y);
        TouchRig rig;
        DeviceParam& p = rig.dev->Param;
        if (!c.edge.empty()) {
            p.EdgeCompensate = 1;
            p.EdgeLeft = c.edge[0];
            p.EdgeRight = c.edge[1];
            p.EdgeTop = c.edge[2];
            p.EdgeBottom = c.edge[3];
        }
        p.Direction = c.direction;
        p.Orientation = c.orientation;
        p.SplitRectMode = static_cast<uint8_t>(c.split);
        if (!c.rect.empty()) {
            p.CustomRectLeft = c.rect[0];
            p.CustomRectRight = c.rect[1];
            p.CustomRectTop = c.rect[2];
            p.CustomRectBottom = c.rect[3];
        }
        TouchPoint t = At(c.in, 3);
        HandleContact(rig.dev.get(), &t);
        std::vector<Ev> want;
        AddSlotDown(&want, 3, c.out.x, c.out.y);
        want.push_back(Syn());
        EXPECT_EQ(want, rig.TouchEvents());
    }
    // Hostile percentages wrap as 32-bit values and still end inside 0-4095.
    DeviceParam p = {};
    p.EdgeCompensate = 1;
    p.EdgeLeft = p.EdgeRight = INT_MAX;
    p.EdgeTop = p.EdgeBottom = INT_MIN;
    TouchPoint t = At({0, 0});
    EdgeCompensate(p, &t);
    EXPECT_TRUE(t.X >= 0 && t.X <= 4095 && t.Y >= 0 && t.Y <= 4095) << t.X << "," << t.Y;
}

// Contact ids that never pass: 10 with SupportPoints 10; whatever SupportPoints says, 20
// and above and negative ids.
TEST(ContactPipeline, ContactNumberCheck) {
    VersionGuard version(9);
    TouchRig rig;
    TouchPoint ten = At({100, 1000}, 10);
    HandleContact(rig.dev.get(), &ten);
    rig.dev->Param.SupportPoints = 255;
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
