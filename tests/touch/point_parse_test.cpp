// Point report parsing from byte fixtures, and the contact pipeline (each transform from
// worked examples, their order, the contact number check and the hold filter). The device
// has neutral settings unless a test sets some (no transform, no filter, slot protocol on
// Android 9), so every contact handed over shows up on the touch socketpair as slot
// events, and pen samples on the pen one.
#include "touch/point_parse.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <map>
#include <string>
#include <vector>

#include "support/touch_test_util.h"
#include "touch/contact.h"

using namespace touchtest;

namespace {

using Bytes = std::vector<uint8_t>;

void Parse(TouchRig& rig, const Bytes& bytes) {
    ParsePointPacket(rig.dev.get(), bytes.data(), static_cast<int>(bytes.size()));
}

// One frame with the given contacts (id, x, y) touching.
std::vector<Ev> Down(const std::vector<std::array<int, 3>>& contacts) {
    std::vector<Ev> want;
    for (const auto& c : contacts) AddSlotDown(&want, c[0], c[1], c[2]);
    want.push_back(Syn());
    return want;
}

std::vector<Ev> Concat(std::vector<Ev> a, const std::vector<Ev>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct SlotFields {
    int state, id, x, y;
};

// n slots of the given state with ids from first on, at (10 * id, 10 * id), after more.
std::vector<SlotFields> Slots(int state, int first, int n, std::vector<SlotFields> more = {}) {
    std::vector<SlotFields> out;
    for (int id = first; id < first + n; ++id) out.push_back({state, id, 10 * id, 10 * id});
    out.insert(out.end(), more.begin(), more.end());
    return out;
}

// A 0x06 packet announcing count, with 10-byte slots: state, id, X, Y, 4 unused bytes.
Bytes Frame06(int count, const std::vector<SlotFields>& slots) {
    Bytes bytes = {0x06, static_cast<uint8_t>(count)};
    for (const SlotFields& s : slots) {
        const auto b = [](int v) { return static_cast<uint8_t>(v); };
        bytes.insert(bytes.end(), {b(s.state), b(s.id), b(s.x), b(s.x >> 8), b(s.y), b(s.y >> 8),
                                   0xEE, 0xEE, 0xEE, 0xEE});
    }
    return bytes;
}

// The slots a reader of the event node sees down, from the events it was given so far.
class SlotModel {
  public:
    std::string Apply(const std::vector<Ev>& events) {
        for (const Ev& e : events) {
            if (e.type == EV_ABS && e.code == ABS_MT_SLOT) slot_ = e.value;
            if (e.type == EV_ABS && e.code == ABS_MT_TRACKING_ID) tracking_[slot_] = e.value;
        }
        std::string down;
        for (const auto& entry : tracking_) {
            if (entry.second != -1) down += (down.empty() ? "" : " ") + std::to_string(entry.first);
        }
        return down;
    }

  private:
    int slot_ = 0;
    std::map<int, int> tracking_;
};

int CountSyn(const std::vector<Ev>& events) {
    int n = 0;
    for (const Ev& e : events) n += e == Syn();
    return n;
}

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

// Every report layout with the resolution shifts and declared maxima that apply to it,
// truncated reports, ignored report ids and the serial layouts. Status 0x05 is contact 1
// touching; X 0x0F00 is 3840 and Y 0x0800 is 2048. A shift setting s shifts by s - 1,
// except 0x04 on series 9 (by s) and 0x04 on series 8 and 0x17 and pen reports (never).
TEST(PointParse, ReportsToEvents) {
    VersionGuard version(9);
    struct Case {
        const char* what;
        uint8_t iface;
        int series;
        int shift;  // every resolution shift setting
        int max;    // every declared logical maximum; 0 = none
        std::vector<Bytes> packets;
        std::vector<Ev> touch;
        std::vector<Ev> pen;
    };
    Bytes oversized(64, 0xAB);  // bytes past the layout are ignored
    const Bytes head = {0x01, 0x05, 0x10, 0x00, 0x20, 0x00};
    std::copy(head.begin(), head.end(), oversized.begin());
    const Bytes special = {0x04, 0x01, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04,   // id 3
                           0x01, 0x00, 0x00, 0x05, 0x00, 0x02, 0x00, 0x01, 0x02};  // id 5
    Bytes special_one = special;
    special_one[17] = 1;  // byte 17 not 2: one contact
    const Bytes special_cut(special.begin(), special.begin() + 17);
    const Bytes r0x17 = {0x17, 2,    0x01, 0x04, 0x10, 0x00, 0x99, 0x99, 0x20, 0x00, 9, 9, 9, 9, 9,
                         9,    0x01, 0x08, 0x30, 0x00, 0x99, 0x99, 0x40, 0x00, 9,    9, 9, 9, 9, 9};
    auto ignored = [](uint8_t id) {  // a touching report under an id without a layout
        Bytes b = {id, 0x05, 0x10, 0x00, 0x20, 0x00};
        b.resize(20);
        return b;
    };
    const uint8_t U = DEV_USB, R = DEV_RS232, P = DEV_PS2;
    // clang-format off
    const Case cases[] = {
        {"0x01 shift 1: none",     U, 0, 1, 0, {{0x01, 0x05, 0x00, 0x0F, 0x00, 0x08}}, Down({{1, 3840, 2048}}), {}},
        {"0x01 shift 3: 2",        U, 0, 3, 0, {{0x01, 0x05, 0x00, 0x0F, 0x00, 0x08}}, Down({{1, 960, 512}}), {}},
        {"0x01 id in bits 2-6",    U, 0, 1, 0, {{0x01, 0x1D, 0x01, 0x00, 0x02, 0x00}}, Down({{7, 1, 2}}), {}},
        {"0x01 id 10, SupportPoints 10: dropped", U, 0, 1, 0, {{0x01, 0x29, 0x01, 0x00, 0x02, 0x00}}, {}, {}},
        {"0x02 series 21 shift 2", U, 21, 2, 0, {{0x02, 0x05, 0x00, 0x0F, 0x00, 0x08}}, Down({{1, 1920, 1024}}), {}},
        {"0x04 series 8: none",    U, 8, 3, 0, {{0x04, 0x05, 0x00, 0x0F, 0x00, 0x08}}, Down({{1, 3840, 2048}}), {}},
        {"0x04 series 9: itself",  U, 9, 2, 0, {{0x04, 0x05, 0x00, 0x0F, 0x00, 0x08}}, Down({{1, 960, 512}}), {}},
        // A shift below 0 without a declared maximum: no shift, never 31.
        {"0x01 shift -1",          U, 0, -1, 0, {{0x01, 0x05, 0x00, 0x0F, 0x00, 0x08}}, Down({{1, 3840, 2048}}), {}},
        // Declared maxima too small for a shift are scaled up to 4095.
        {"0x01 max 2047",          U, 0, 0, 2047, {{0x01, 0x05, 0xFF, 0x07, 0xE8, 0x03}}, Down({{1, 4095, 2000}}), {}},
        {"0x02 max 1023",          U, 21, 0, 1023, {{0x02, 0x05, 0xFF, 0x03, 0x00, 0x00}}, Down({{1, 4095, 0}}), {}},
        {"0x01 above the maximum", U, 0, 0, 2047, {{0x01, 0x05, 0xFF, 0xFF, 0x00, 0x08}}, Down({{1, 4095, 4095}}), {}},
        {"0x06 shift 3: 2",        U, 0, 3, 0, {Frame06(1, {{1, 2, 4000, 2000}})}, Down({{2, 1000, 500}}), {}},
        {"0x06 max 2047",          U, 0, 0, 2047, {Frame06(1, {{1, 2, 2047, 512}})}, Down({{2, 4095, 1024}}), {}},
        {"0x17: 14-byte slots",    U, 0, 3, 0, {r0x17}, Down({{4, 16, 32}, {8, 48, 64}}), {}},
        {"0x01 of 64 bytes",       U, 0, 1, 0, {oversized}, Down({{1, 16, 32}}), {}},
        {"0x01 state bit clear: lift", U, 0, 1, 0, {head, {0x01, 0x04, 0x10, 0x00, 0x20, 0x00}},
         Concat(Down({{1, 16, 32}}), {Abs(ABS_MT_SLOT, 1), Abs(ABS_MT_TRACKING_ID, -1), Syn()}), {}},
        {"ids without a layout",   U, 0, 1, 0, {ignored(0x00), ignored(0x05), ignored(0x07),
                                                ignored(0x16), ignored(0x18), ignored(0x7F)}, {}, {}},
        {"series 11 two contacts", U, 11, 2, 0, {special}, Concat(Down({{3, 1024, 512}}), Down({{3, 1024, 512}, {5, 256, 128}})), {}},
        {"series 11 one contact",  U, 11, 1, 0, {special_one}, Down({{3, 2048, 1024}}), {}},
        {"series 11 second cut",   U, 11, 1, 0, {special_cut}, Down({{3, 2048, 1024}}), {}},
        // Pen: tip, barrel, in range; tilt 6000 stays, 6001 becomes 6001 - 65536.
        {"pen sample",             U, 22, 3, 0, {{0x02, 0x23, 0xE8, 0x03, 0xD0, 0x07, 0x00, 0x02, 0x70, 0x17, 0x71, 0x17}}, {},
         {Key(BTN_TOOL_PEN, 1), Key(BTN_STYLUS, 1), Abs(ABS_X, 1000), Abs(ABS_Y, 2000), Key(BTN_TOUCH, 1),
          Abs(ABS_PRESSURE, 512), Abs(ABS_TILT_X, 6000), Abs(ABS_TILT_Y, -59535), Syn()}},
        {"pen invert: eraser",     U, 23, 1, 0, {{0x02, 0x25, 0x0A, 0x00, 0x14, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00}}, {},
         {Abs(ABS_X, 10), Abs(ABS_Y, 20), Abs(ABS_PRESSURE, 5), Abs(ABS_TILT_X, 0), Abs(ABS_TILT_Y, 0), Syn(),
          Key(BTN_TOOL_RUBBER, 0), Syn()}},
        // Reports shorter than their layout are dropped whole.
        {"truncated reports",      U, 0, 1, 0, {{0x01, 0x05, 0x10, 0x00, 0x20}, {0x03}, {0x04, 0x05, 0x10},
                                                {0x02, 0x05, 0x10, 0x00, 0x20}, {0x81, 0x0F, 0x7F, 0x00}, {0x06}, {0x17}}, {}, {}},
        {"truncated pen",          U, 22, 1, 0, {{0x02, 0x21, 0x0A, 0x00, 0x14, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00}}, {}, {}},
        {"truncated series 11",    U, 11, 1, 0, {{0x04, 0x01, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00}}, {}, {}},
        // Serial reports: 7-bit bytes, Y mirrored; the sixth byte of 0xA1 is a contact letter.
        {"RS232 corner",           R, 0, 1, 0, {{0x81, 0x0F, 0x7F, 0x00, 0x00}}, Down({{0, 4094, 4094}}), {}},
        {"RS232 high bits ignored", R, 0, 1, 0, {{0x81, 0xF1, 0x80, 0x72, 0x81}}, Down({{0, 256, 4094 - 514}}), {}},
        {"RS232 contact letter",   R, 0, 1, 0, {{0xA1, 0x00, 0x10, 0x00, 0x20, 'C'}}, Down({{2, 32, 4030}}), {}},
        {"RS232 letter below 'A'", R, 0, 1, 0, {{0xA1, 0x00, 0x10, 0x00, 0x20, 0x40}}, {}, {}},  // id 31
        {"RS232 5-byte 0xA1",      R, 0, 1, 0, {{0xA1, 0x00, 0x10, 0x00, 0x20}}, Down({{0, 32, 4030}}), {}},
        {"PS/2 reads no letter",   P, 0, 1, 0, {{0xA1, 0x00, 0x10, 0x00, 0x20, 'C'}}, Down({{0, 32, 4030}}), {}},
        {"USB 0x81: no mirror",    U, 0, 1, 0, {{0x81, 0x00, 0x10, 0x00, 0x20}}, Down({{0, 32, 64}}), {}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig(c.iface);
        rig.dev->Series = c.series;
        rig.dev->MouseResShift = rig.dev->DigitizerResShift = static_cast<int8_t>(c.shift);
        rig.dev->MTouchResShift = rig.dev->ParallelResShift = static_cast<int8_t>(c.shift);
        rig.dev->MouseLogicalMax = rig.dev->DigitizerLogicalMax = c.max;
        rig.dev->MTouchLogicalMax = rig.dev->ParallelLogicalMax = c.max;
        for (const Bytes& packet : c.packets) Parse(rig, packet);
        EXPECT_EQ(c.touch, rig.TouchEvents());
        EXPECT_EQ(c.pen, rig.PenEvents());
    }
}

// Frame headers that do not match what came before: every slot with a valid id is still
// served, and after the controller lifts every finger none is down at the reader, whatever
// packets were lost or over-counted on the way. Each step gives the slots down at the
// reader after that packet ("" none; "held": the scan is still open, nothing written yet).
TEST(PointParseFrame, LostAndOverCountedPacketsLeaveNoContactDown) {
    VersionGuard version(9);
    struct Step {
        Bytes packet;  // empty: the port falls silent (no further packet)
        const char* down;
    };
    struct Case {
        const char* what;
        std::vector<Step> steps;
        int frames;  // SYN_REPORTs written in all
    };
    const std::vector<Step> tap = {{Frame06(1, {{1, 3, 30, 30}}), "3"},
                                   {Frame06(1, {{0, 3, 30, 30}}), ""}};
    auto with_tap = [&](std::vector<Step> steps) {
        steps.insert(steps.end(), tap.begin(), tap.end());
        return steps;
    };
    Bytes half_slot = Frame06(2, Slots(1, 0, 2));
    half_slot.resize(2 + 10 + 5);  // one whole slot and half of a second
    const Case cases[] = {
        {"seven fingers over two packets; slots past the frame's end are never read",
         with_tap({{Frame06(7, Slots(1, 0, 5)), "held"},
                   {Frame06(0, Slots(1, 5, 2, Slots(1, 200, 3))), "0 1 2 3 4 5 6"},
                   {Frame06(7, Slots(0, 0, 5)), "held"},
                   {Frame06(0, Slots(0, 5, 2)), ""}}),
         4},
        {"seven fingers, the second packet lost, then all seven lifted",
         with_tap({{Frame06(7, Slots(1, 0, 5)), "held"},
                   {Frame06(7, Slots(0, 0, 5)), "0 1 2 3 4"},           // the cut frame is written
                   {Frame06(0, Slots(0, 5, 2, Slots(1, 7, 3))), ""}}),  // 7-9: past the frame
         4},
        {"eleven announced with SupportPoints 10, then all eleven lifted",
         with_tap({{Frame06(11, Slots(1, 0, 5)), "held"},
                   {Frame06(0, Slots(1, 5, 5)), "held"},
                   {Frame06(0, Slots(1, 10, 1)), "0 1 2 3 4 5 6 7 8 9"},  // id 10 ends it
                   {Frame06(11, Slots(0, 0, 5)), "held"},
                   {Frame06(0, Slots(0, 5, 5)), "held"},
                   {Frame06(0, Slots(0, 10, 1)), ""}}),
         4},
        {"a continuation whose first packet was lost: served contact by contact",
         with_tap({{Frame06(0, Slots(1, 0, 2)), "0 1"}, {Frame06(0, Slots(0, 0, 2)), ""}}), 6},
        {"a count of 255, then silence: the held contact is written",
         with_tap({{Frame06(255, Slots(1, 0, 1, Slots(1, 0, 1))), "held"},
                   {{}, "0"},
                   {Frame06(1, Slots(0, 0, 1)), ""}}),
         4},
        {"half a slot, then silence: only the whole slot is read",
         with_tap({{half_slot, "held"}, {{}, "0"}, {Frame06(1, Slots(0, 0, 1)), ""}}), 4},
        {"contact ids 10 and 255 end the frame; the slot after them is never read",
         with_tap({{Frame06(2, {{1, 10, 10, 10}, {1, 0, 10, 10}}), ""},
                   {Frame06(2, {{1, 255, 10, 10}, {1, 0, 10, 10}}), ""}}),
         2},
        {"one contact pressed and lifted within one scan: both reach the reader",
         with_tap({{Frame06(2, {{1, 4, 40, 40}, {0, 4, 40, 40}}), ""}}), 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        SlotModel reader;
        int frames = 0;
        for (size_t i = 0; i < c.steps.size(); ++i) {
            SCOPED_TRACE(i);
            const Step& step = c.steps[i];
            if (step.packet.empty()) {
                EndMultiContactFrame(rig.dev.get());
            } else {
                Parse(rig, step.packet);
            }
            const std::vector<Ev> events = rig.TouchEvents();
            frames += CountSyn(events);
            if (std::string(step.down) == "held") {
                EXPECT_TRUE(events.empty());
                EXPECT_TRUE(MultiContactFrameOpen(rig.dev.get()));
            } else {
                EXPECT_EQ(step.down, reader.Apply(events));
            }
        }
        EXPECT_EQ(c.frames, frames);
        EXPECT_FALSE(MultiContactFrameOpen(rig.dev.get()));
    }
}

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
        SCOPED_TRACE(testing::Message()
                     << "edge " << c.edge.size() << " direction " << c.direction << " orientation "
                     << c.orientation << " split " << c.split << " in " << c.in.x << "," << c.in.y);
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

// With HoldRange 20 a finger drifting less than 20 units (in X, Y or Z) from the last
// position that passed produces nothing; a lift and another contact always pass. Contact
// ids 20 and above and negative ones never pass, whatever SupportPoints says.
TEST(ContactPipeline, HoldFilterAndContactNumbers) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Param.HoldFilterEnable = 1;
    rig.dev->Param.SupportPoints = 255;
    struct Step {
        int id, state, x, y, z;
        bool passes;
    };
    // clang-format off
    const Step steps[] = {
        {0, 1, 1000, 1000, 0, true},   // not yet written as touching
        {0, 1, 1005, 1000, 0, false},
        {0, 1, 1015, 1000, 0, false},
        {0, 1, 1000, 981, 0, false},
        {0, 1, 1000, 1000, 19, false},
        {1, 1, 1000, 1000, 0, true},   // another contact at the same place
        {0, 1, 1020, 1000, 0, true},   // 20 from the last that passed
        {0, 1, 1035, 1000, 0, false},  // measured from 1020, not 1000
        {0, 1, 1020, 1000, 20, true},  // a change of 20 in Z alone
        {0, 0, 1021, 1000, 0, true},   // a lift never waits
        {20, 1, 100, 100, 0, false},   {31, 1, 100, 100, 0, false},  {255, 1, 100, 100, 0, false},
        {1000, 1, 100, 100, 0, false}, {-1, 1, 100, 100, 0, false},
    };
    // clang-format on
    for (const Step& s : steps) {
        SCOPED_TRACE(testing::Message() << s.id << ": " << s.x << "," << s.y << "," << s.z);
        TouchPoint t = At({s.x, s.y}, s.id, s.state, s.z);
        HandleContact(rig.dev.get(), &t);
        EXPECT_EQ(s.passes, !rig.TouchEvents().empty());
    }
}
