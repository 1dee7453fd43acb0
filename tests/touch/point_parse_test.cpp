// Point report parsing from byte fixtures. The device has neutral settings (no transform,
// no filter, slot protocol on Android 9), so every contact handed over shows up on the
// touch socketpair as the slot events of a new contact, and pen samples on the pen one.
#include "touch/point_parse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

void Parse(TouchRig& rig, const std::vector<uint8_t>& bytes) {
    ParsePointPacket(rig.dev.get(), bytes.data(), static_cast<int>(bytes.size()));
}

// Expected events of one new touching contact in an otherwise empty table.
std::vector<Ev> NewContact(int id, int x, int y) {
    std::vector<Ev> want;
    AddSlotDown(&want, id, x, y);
    want.push_back(Syn());
    return want;
}

int CountSyn(const std::vector<Ev>& events) {
    int n = 0;
    for (const Ev& e : events) n += e == Syn();
    return n;
}

// The events of the last frame (after the second-last SYN_REPORT).
std::vector<Ev> LastFrame(const std::vector<Ev>& events) {
    size_t start = 0;
    for (size_t i = 0; i + 1 < events.size(); ++i) {
        if (events[i] == Syn()) start = i + 1;
    }
    return std::vector<Ev>(events.begin() + static_cast<long>(start), events.end());
}

// One slot of a 0x06 report: state, id, X, Y.
void Slot06(std::vector<uint8_t>* out, int state, int id, int x, int y) {
    const uint8_t slot[10] = {static_cast<uint8_t>(state),
                              static_cast<uint8_t>(id),
                              static_cast<uint8_t>(x),
                              static_cast<uint8_t>(x >> 8),
                              static_cast<uint8_t>(y),
                              static_cast<uint8_t>(y >> 8),
                              0xEE,
                              0xEE,
                              0xEE,
                              0xEE};
    out->insert(out->end(), slot, slot + 10);
}

struct SlotFields {
    int state;
    int id;
    int x;
    int y;
};

// n slots of the given state with ids from first on, at (10 * id, 10 * id), after more.
std::vector<SlotFields> Slots(int state, int first, int n, std::vector<SlotFields> more = {}) {
    std::vector<SlotFields> out;
    for (int id = first; id < first + n; ++id) out.push_back({state, id, 10 * id, 10 * id});
    out.insert(out.end(), more.begin(), more.end());
    return out;
}

// A 0x06 packet announcing count, with the given slots.
std::vector<uint8_t> Frame06(int count, const std::vector<SlotFields>& slots) {
    std::vector<uint8_t> bytes = {0x06, static_cast<uint8_t>(count)};
    for (const SlotFields& slot : slots) Slot06(&bytes, slot.state, slot.id, slot.x, slot.y);
    return bytes;
}

// The slots a reader of the event node sees down, from the events it was given so far.
class SlotModel {
  public:
    std::string Apply(const std::vector<Ev>& events) {
        for (const Ev& e : events) {
            if (e.type != EV_ABS) continue;
            if (e.code == ABS_MT_SLOT) slot_ = e.value;
            if (e.code == ABS_MT_TRACKING_ID) tracking_[slot_] = e.value;
        }
        std::string down;
        for (const auto& entry : tracking_) {
            if (entry.second == -1) continue;
            down += (down.empty() ? "" : " ") + std::to_string(entry.first);
        }
        return down;
    }

  private:
    int slot_ = 0;
    std::map<int, int> tracking_;
};

}  // namespace

TEST(PointParseSingle, MouseDigitizerAndTouchReportsWithTheirShifts) {
    VersionGuard version(9);
    struct Case {
        const char* what;
        int series;
        int mouse_shift;
        int digitizer_shift;
        int mtouch_shift;
        std::vector<uint8_t> bytes;
        int id;
        int x;
        int y;
        int logical_max = 0;  // declared by every coordinate report; 0 = none
    };
    std::vector<uint8_t> oversized(64, 0xAB);  // bytes past the layout are ignored
    const uint8_t head[] = {0x01, 0x05, 0x10, 0x00, 0x20, 0x00};
    std::copy(head, head + 6, oversized.begin());
    // Status 0x05: touching, contact 1. X 0x0F00 (3840), Y 0x0800 (2048).
    // clang-format off
    const Case cases[] = {
        {"0x01 shift 1 -> none",   0,  1, 1, 1, {0x01, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 3840, 2048},
        {"0x03 shift 3 -> 2",      0,  3, 1, 1, {0x03, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 960, 512},
        {"0x01 id bits 2-6",       0,  1, 1, 1, {0x01, 0x1D, 0x01, 0x00, 0x02, 0x00}, 7, 1, 2},
        {"0x02 series 21 2 -> 1",  21, 1, 2, 1, {0x02, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 1920, 1024},
        {"0x04 series 8: none",    8,  1, 1, 3, {0x04, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 3840, 2048},
        {"0x04 series 9: itself",  9,  1, 1, 2, {0x04, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 960, 512},
        // Shifts below 0 without a declared maximum (descriptor gave -1 or announced
        // nothing): no shift, never 31.
        {"0x01 shift field 0",     0,  0, 1, 1, {0x01, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 3840, 2048},
        {"0x01 shift field -1",    0, -1, 1, 1, {0x01, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 3840, 2048},
        {"0x04 series 9 shift -1", 9,  1, 1, -1, {0x04, 0x05, 0x00, 0x0F, 0x00, 0x08}, 1, 3840, 2048},
        // Declared maxima too small for a shift (shift field 0) are scaled up to 4095:
        // 2047 -> 4095 and 1023 -> 4095 at the far corner, 1000 of 2047 -> 2000.
        {"0x01 max 2047 far corner", 0, 0, 1, 1, {0x01, 0x05, 0xFF, 0x07, 0xE8, 0x03}, 1, 4095, 2000, 2047},
        {"0x02 max 1023 far corner", 21, 1, 0, 1, {0x02, 0x05, 0xFF, 0x03, 0x00, 0x00}, 1, 4095, 0, 1023},
        {"0x01 above the maximum", 0, 0, 1, 1, {0x01, 0x05, 0xFF, 0xFF, 0x00, 0x08}, 1, 4095, 4095, 2047},
        {"0x01 of 64 bytes",       0,  1, 1, 1, oversized, 1, 16, 32},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        rig.dev->Series = c.series;
        rig.dev->MouseResShift = static_cast<int8_t>(c.mouse_shift);
        rig.dev->DigitizerResShift = static_cast<int8_t>(c.digitizer_shift);
        rig.dev->MTouchResShift = static_cast<int8_t>(c.mtouch_shift);
        rig.dev->MouseLogicalMax = c.logical_max;
        rig.dev->DigitizerLogicalMax = c.logical_max;
        rig.dev->MTouchLogicalMax = c.logical_max;
        Parse(rig, c.bytes);
        EXPECT_EQ(NewContact(c.id, c.x, c.y), rig.TouchEvents());
    }
}

TEST(PointParseSingle, LiftedStateAndIgnoredReportIds) {
    VersionGuard version(9);
    TouchRig rig;
    Parse(rig, {0x01, 0x05, 0x10, 0x00, 0x20, 0x00});
    (void)rig.TouchEvents();
    Parse(rig, {0x01, 0x04, 0x10, 0x00, 0x20, 0x00});  // state bit clear: lift of contact 1
    std::vector<Ev> want;
    AddSlotUp(&want, 1);
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());
    for (uint8_t id : {0x00, 0x05, 0x07, 0x16, 0x18, 0x7F}) {
        Parse(rig, {id, 0x05, 0x10, 0x00, 0x20, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    }
    EXPECT_TRUE(rig.TouchEvents().empty());
}

TEST(PointParseSingle, Series11SpecialReportWithOneOrTwoContacts) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Series = 11;
    rig.dev->MTouchResShift = 2;                                                          // shift 1
    std::vector<uint8_t> bytes = {0x04, 0x01, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04,   // id 3
                                  0x01, 0x00, 0x00, 0x05, 0x00, 0x02, 0x00, 0x01, 0x02};  // id 5
    Parse(rig, bytes);
    std::vector<Ev> want;
    AddSlotDown(&want, 3, 1024, 512);
    want.push_back(Syn());
    AddSlotDown(&want, 3, 1024, 512);
    AddSlotDown(&want, 5, 256, 128);
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());

    TouchRig single;
    single.dev->Series = 11;
    single.dev->MTouchResShift = 1;  // shift 0
    bytes[17] = 1;                   // byte 17 not 2: one contact
    Parse(single, bytes);
    EXPECT_EQ(NewContact(3, 2048, 1024), single.TouchEvents());
    bytes.resize(17);  // second contact cut off: the first still counts
    TouchRig cut;
    cut.dev->Series = 11;
    cut.dev->MTouchResShift = 1;
    Parse(cut, bytes);
    EXPECT_EQ(NewContact(3, 2048, 1024), cut.TouchEvents());
}

TEST(PointParsePen, PenReportFieldsTiltAndEraserChoice) {
    VersionGuard version(9);
    {
        // Status 0x23: tip, barrel, in range. Tilt 6000 stays, 6001 becomes 6001 - 65536.
        TouchRig rig;
        rig.dev->Series = 22;
        rig.dev->DigitizerResShift = 3;  // pen reports are never shifted
        Parse(rig, {0x02, 0x23, 0xE8, 0x03, 0xD0, 0x07, 0x00, 0x02, 0x70, 0x17, 0x71, 0x17});
        std::vector<Ev> want = {
            Key(BTN_TOOL_PEN, 1),  Key(BTN_STYLUS, 1),      Abs(ABS_X, 1000),
            Abs(ABS_Y, 2000),      Key(BTN_TOUCH, 1),       Abs(ABS_PRESSURE, 512),
            Abs(ABS_TILT_X, 6000), Abs(ABS_TILT_Y, -59535), Syn()};
        EXPECT_EQ(want, rig.PenEvents());
        EXPECT_TRUE(rig.TouchEvents().empty());
    }
    {
        // Status 0x25: tip, invert, in range -> an eraser sample (eraser switch bit clear).
        TouchRig rig;
        rig.dev->Series = 23;
        Parse(rig, {0x02, 0x25, 0x0A, 0x00, 0x14, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00});
        std::vector<Ev> want = {
            Abs(ABS_X, 10),     Abs(ABS_Y, 20), Abs(ABS_PRESSURE, 5),    Abs(ABS_TILT_X, 0),
            Abs(ABS_TILT_Y, 0), Syn(),          Key(BTN_TOOL_RUBBER, 0), Syn()};
        EXPECT_EQ(want, rig.PenEvents());
        EXPECT_EQ(1, rig.dev->HoldContacts[0].tip);
        EXPECT_EQ(1, rig.dev->HoldContacts[0].inrange);
        EXPECT_EQ(1, rig.dev->HoldContacts[0].bEraser);
        EXPECT_EQ(0, rig.dev->HoldContacts[0].bPen);
    }
    {
        // Tilt X above 6000 is negative too; 0xFFFF is -1.
        TouchRig rig;
        rig.dev->Series = 22;
        Parse(rig, {0x02, 0x21, 0, 0, 0, 0, 0, 0, 0x71, 0x17, 0xFF, 0xFF});
        std::vector<Ev> events = rig.PenEvents();
        ASSERT_EQ(9u, events.size());
        EXPECT_EQ(Abs(ABS_TILT_X, -59535), events[6]);
        EXPECT_EQ(Abs(ABS_TILT_Y, -1), events[7]);
    }
    {
        // Eraser switch (bit 3) without invert: still a pen sample.
        TouchRig rig;
        rig.dev->Series = 22;
        Parse(rig, {0x02, 0x29, 0x0A, 0x00, 0x14, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00});
        EXPECT_EQ(Key(BTN_TOOL_PEN, 1), rig.PenEvents().at(0));
        EXPECT_EQ(1, rig.dev->HoldContacts[0].eraser);
    }
}

TEST(PointParseFrame, SevenContactFrameOverTwoPackets) {
    VersionGuard version(9);
    TouchRig rig;
    LogCapture log;
    std::vector<uint8_t> first = {0x06, 7};
    for (int id = 0; id < 5; ++id) Slot06(&first, 1, id, 100 * (id + 1), 50 * (id + 1));
    std::vector<uint8_t> second = {0x06, 0};
    Slot06(&second, 1, 5, 600, 300);
    Slot06(&second, 1, 6, 700, 350);
    Slot06(&second, 1, 200, 1, 1);  // past the frame's end: never read
    Slot06(&second, 1, 201, 1, 1);
    Slot06(&second, 1, 202, 1, 1);

    Parse(rig, first);
    EXPECT_EQ(7, rig.dev->TotalPtsCnt);
    EXPECT_EQ(5, rig.dev->HandledPtsCnt);
    EXPECT_TRUE(rig.TouchEvents().empty());  // the scan is not complete yet
    Parse(rig, second);
    EXPECT_EQ(0, rig.dev->TotalPtsCnt);
    EXPECT_EQ(0, rig.dev->HandledPtsCnt);
    EXPECT_FALSE(log.Has("Get error ContactID."));

    std::vector<Ev> events = rig.TouchEvents();
    EXPECT_EQ(1, CountSyn(events));  // one scan, one frame
    std::vector<Ev> want;
    AddSlotDown(&want, 0, 100, 50);
    AddSlotDown(&want, 1, 200, 100);
    AddSlotDown(&want, 2, 300, 150);
    AddSlotDown(&want, 3, 400, 200);
    AddSlotDown(&want, 4, 500, 250);
    AddSlotDown(&want, 5, 600, 300);
    AddSlotDown(&want, 6, 700, 350);
    want.push_back(Syn());
    EXPECT_EQ(want, LastFrame(events));
}

TEST(PointParseFrame, ShiftOf0x06AndLayoutOf0x17) {
    VersionGuard version(9);
    {
        TouchRig rig;
        rig.dev->ParallelResShift = 3;  // shift 2
        std::vector<uint8_t> bytes = {0x06, 1};
        Slot06(&bytes, 1, 2, 4000, 2000);
        Parse(rig, bytes);
        EXPECT_EQ(NewContact(2, 1000, 500), rig.TouchEvents());
    }
    {
        // Declared maximum 2047 (shift 0): the far corner lands on 4095, not mid-screen.
        TouchRig rig;
        rig.dev->ParallelResShift = 0;
        rig.dev->ParallelLogicalMax = 2047;
        std::vector<uint8_t> bytes = {0x06, 1};
        Slot06(&bytes, 1, 2, 2047, 512);
        Parse(rig, bytes);
        EXPECT_EQ(NewContact(2, 4095, 1024), rig.TouchEvents());
    }
    {
        // 0x17: 14-byte slots, X at slot bytes 2-3, Y at 6-7, never shifted.
        TouchRig rig;
        rig.dev->ParallelResShift = 3;
        std::vector<uint8_t> bytes = {0x17, 2,    0x01, 0x04, 0x10, 0x00, 0x99, 0x99, 0x20, 0x00,
                                      9,    9,    9,    9,    9,    9,    0x01, 0x08, 0x30, 0x00,
                                      0x99, 0x99, 0x40, 0x00, 9,    9,    9,    9,    9,    9};
        Parse(rig, bytes);
        std::vector<Ev> want;
        AddSlotDown(&want, 4, 16, 32);
        AddSlotDown(&want, 8, 48, 64);
        want.push_back(Syn());
        EXPECT_EQ(want, rig.TouchEvents());
        EXPECT_EQ(0, rig.dev->TotalPtsCnt);
    }
}

// Frame headers that do not match what came before: every slot with a valid id is still
// served, and after the controller lifts every finger none is down at the reader, whatever
// packets were lost or over-counted on the way. Each step gives the slots down at the
// reader after that packet ("" none; "held": the scan is still open, nothing written yet).
TEST(PointParseFrame, LostAndOverCountedPacketsLeaveNoContactDown) {
    VersionGuard version(9);
    struct Step {
        std::vector<uint8_t> packet;  // empty: the port falls silent (no further packet)
        const char* down;
    };
    struct Case {
        const char* what;
        int support;
        std::vector<Step> steps;
        int frames;      // SYN_REPORTs written in all
        int mismatches;  // "NumsofContacts mismatch" lines
    };
    const std::vector<Step> tap = {{Frame06(1, {{1, 3, 30, 30}}), "3"},
                                   {Frame06(1, {{0, 3, 30, 30}}), ""}};
    auto with_tap = [&](std::vector<Step> steps) {
        steps.insert(steps.end(), tap.begin(), tap.end());
        return steps;
    };
    const Case cases[] = {
        {"seven fingers, the second packet lost, then all seven lifted", 10,
         with_tap({{Frame06(7, Slots(1, 0, 5)), "held"},
                   {Frame06(7, Slots(0, 0, 5)), "0 1 2 3 4"},           // the cut frame is written
                   {Frame06(0, Slots(0, 5, 2, Slots(1, 7, 3))), ""}}),  // 7-9: past the frame
         4, 1},
        {"eleven announced with SupportPoints 10, then all eleven lifted", 10,
         with_tap({{Frame06(11, Slots(1, 0, 5)), "held"},
                   {Frame06(0, Slots(1, 5, 5)), "held"},
                   {Frame06(0, Slots(1, 10, 1)), "0 1 2 3 4 5 6 7 8 9"},  // id 10 ends it
                   {Frame06(11, Slots(0, 0, 5)), "held"},
                   {Frame06(0, Slots(0, 5, 5)), "held"},
                   {Frame06(0, Slots(0, 10, 1)), ""}}),
         4, 2},
        {"a continuation whose first packet was lost: served contact by contact", 10,
         with_tap({{Frame06(0, Slots(1, 0, 2)), "0 1"}, {Frame06(0, Slots(0, 0, 2)), ""}}), 6, 2},
        {"a count of 255, then silence: the held contact is written", 10,
         with_tap({{Frame06(255, Slots(1, 0, 1, Slots(1, 0, 1))), "held"},
                   {{}, "0"},
                   {Frame06(1, Slots(0, 0, 1)), ""}}),
         4, 1},
        {"one contact pressed and lifted within one scan: both reach the reader", 10,
         with_tap({{Frame06(2, {{1, 4, 40, 40}, {0, 4, 40, 40}}), ""}}), 4, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        LogCapture log;
        rig.dev->Param.SupportPoints = static_cast<uint8_t>(c.support);
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
        EXPECT_EQ(c.mismatches, log.Count("NumsofContacts mismatch, skip packet"));
        EXPECT_FALSE(MultiContactFrameOpen(rig.dev.get()));
    }
}

// Contact ids 10 to 255 never reach the tables, whatever SupportPoints says.
TEST(PointParseFrame, InvalidContactIdsEndTheFrame) {
    VersionGuard version(9);
    for (int support : {10, 255}) {
        TouchRig rig;
        LogCapture log;
        rig.dev->Param.SupportPoints = static_cast<uint8_t>(support);
        const int first_bad = support < 20 ? support : 20;
        for (int id = first_bad; id <= 255; ++id) {
            std::vector<uint8_t> bytes = {0x06, 2};
            Slot06(&bytes, 1, id, 10, 10);
            Slot06(&bytes, 1, 0, 10, 10);  // after the bad slot: not read
            Parse(rig, bytes);
            ASSERT_EQ(0, rig.dev->TotalPtsCnt) << id;
            ASSERT_EQ(0, rig.dev->HandledPtsCnt) << id;
        }
        EXPECT_EQ(256 - first_bad, log.Count("Get error ContactID."));
        EXPECT_TRUE(rig.TouchEvents().empty());
        // Single-contact reports carry ids up to 31: 10..31 are dropped by the pipeline.
        for (int id = first_bad; id < 32; ++id) {
            Parse(rig, {0x01, static_cast<uint8_t>(0x01 | (id << 2)), 1, 0, 1, 0});
        }
        EXPECT_TRUE(rig.TouchEvents().empty());
    }
}

TEST(PointParseBounds, TruncatedReportsAreDroppedOrReadOnlyInWholeSlots) {
    VersionGuard version(9);
    TouchRig rig;
    LogCapture log;
    // Each shorter than its layout; the byte after the count would make it valid.
    const std::vector<std::vector<uint8_t>> short_reports = {
        {0x01, 0x05, 0x10, 0x00, 0x20},
        {0x03},
        {0x04, 0x05, 0x10},
        {0x02, 0x05, 0x10, 0x00, 0x20},
        {0x81, 0x0F, 0x7F, 0x00},
        {0x06},
        {0x17},
    };
    for (const auto& bytes : short_reports) Parse(rig, bytes);
    rig.dev->Series = 22;  // pen layout: 12 bytes
    Parse(rig, {0x02, 0x21, 0x0A, 0x00, 0x14, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00});
    rig.dev->Series = 11;  // special 0x04: 9 bytes
    Parse(rig, {0x04, 0x01, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00});
    EXPECT_TRUE(rig.TouchEvents().empty());
    EXPECT_TRUE(rig.PenEvents().empty());
    EXPECT_GE(log.Count("shorter than its"), 9);

    // A 0x06 packet with one whole slot and half of a second: only the whole one is read.
    std::vector<uint8_t> bytes = {0x06, 2};
    Slot06(&bytes, 1, 0, 10, 10);
    Slot06(&bytes, 1, 1, 20, 20);
    bytes.resize(2 + 10 + 5);
    Parse(rig, bytes);
    EXPECT_TRUE(rig.TouchEvents().empty());  // 1 of 2: the scan waits for its last contact
    EXPECT_EQ(2, rig.dev->TotalPtsCnt);
    EXPECT_EQ(1, rig.dev->HandledPtsCnt);
    EndMultiContactFrame(rig.dev.get());  // no further packet
    EXPECT_EQ(NewContact(0, 10, 10), rig.TouchEvents());

    // A report read from the middle of a larger buffer: bytes past count are not touched.
    std::vector<uint8_t> guarded = {0x01, 0x05, 0x10, 0x00, 0x20, 0x00};
    ParsePointPacket(rig.dev.get(), guarded.data(), 0);
    ParsePointPacket(rig.dev.get(), guarded.data(), -5);
    EXPECT_TRUE(rig.TouchEvents().empty());
}

TEST(PointParseSerial, SerialReportsOnEachInterface) {
    VersionGuard version(9);
    struct Case {
        const char* what;
        uint8_t interface;
        std::vector<uint8_t> bytes;
        int id;
        int x;
        int y;
    };
    const Case cases[] = {
        {"RS232 corner, Y mirrored", DEV_RS232, {0x81, 0x0F, 0x7F, 0x00, 0x00}, 0, 4094, 4094},
        {"RS232 high bits of bytes 1-4 ignored",
         DEV_RS232,
         {0x81, 0xF1, 0x80, 0x72, 0x81},
         0,
         256,
         4094 - ((2 * 128 + 1) * 2)},
        {"RS232 6-byte contact letter",
         DEV_RS232,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 'C'},
         2,
         32,
         4094 - 64},
        {"RS232 letter below 'A' wraps within 0-31",
         DEV_RS232,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 0x40},
         31,
         32,
         4094 - 64},
        {"RS232 5-byte 0xA1 report has no letter",
         DEV_RS232,
         {0xA1, 0x00, 0x10, 0x00, 0x20},
         0,
         32,
         4094 - 64},
        {"PS/2 never reads a letter",
         DEV_PS2,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 'C'},
         0,
         32,
         4094 - 64},
        {"USB report id 0x81: no mirror", DEV_USB, {0x81, 0x00, 0x10, 0x00, 0x20}, 0, 32, 64},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig(c.interface);
        rig.dev->Param.SupportPoints = 20;
        Parse(rig, c.bytes);
        if (c.id < 20) {
            EXPECT_EQ(NewContact(c.id, c.x, c.y), rig.TouchEvents());
        } else {
            EXPECT_TRUE(rig.TouchEvents().empty());  // beyond the contact table: dropped
        }
    }
}
