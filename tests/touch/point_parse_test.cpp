// Point report parsing and the contact pipeline (transforms, contact numbers, hold filter).
// Neutral settings unless a row sets some, Android 9: contacts show up as slot events.
#include "touch/point_parse.h"

#include <gtest/gtest.h>

#include <map>

#include "support/touch_test_util.h"
#include "touch/contact.h"

using namespace touchtest;

namespace {

void Parse(TouchRig& rig, const Bytes& b) {
    ParsePointPacket(rig.dev.get(), b.data(), static_cast<int>(b.size()));
}

// n 10-byte slots of a 0x06 packet: state, id from first on, X and Y 10 * id, 4 unused bytes.
Bytes Slots(int state, int first, int n) {
    Bytes b;
    for (int id = first; id < first + n; ++id) {
        const auto c = static_cast<uint8_t>(10 * id), h = static_cast<uint8_t>(10 * id >> 8);
        b.insert(b.end(), {static_cast<uint8_t>(state), static_cast<uint8_t>(id), c, h, c, h, 0xEE,
                           0xEE, 0xEE, 0xEE});
    }
    return b;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A 0x06 packet announcing count contacts.
Bytes Frame06(int count, const Bytes& slots) {
    return Bytes{0x06, static_cast<uint8_t>(count)} + slots;
}

void Handle(TouchRig& rig, int id, int state, int x, int y, int z = 0) {
    TouchPoint p = {};
    p.ID = id, p.State = state, p.X = x, p.Y = y, p.Z = z;
    HandleContact(rig.dev.get(), &p);
}

}  // namespace

// Every report layout with the resolution shifts and declared maxima that apply to it, ids
// without a layout, truncated reports and the serial layouts. A shift setting s shifts by
// s - 1, except 0x04 on series 9 (by s) and 0x04 on series 8, 0x17 and pen (never).
TEST(PointParse, ReportsToEvents) {
    VersionGuard version(9);
    struct Case {
        const char* what;
        uint8_t iface;
        int series, shift, max;  // shift and declared logical maximum (0: none) of every report
        std::vector<Bytes> packets;
        const char *touch, *pen = "";
    };
    const auto ignored = [](uint8_t id) { return Pad({id, 0x05, 0x10, 0x00, 0x20, 0x00}, 20); };
    const std::string s11 = "04 01 00 00 03 00 08 00 04 01 00 00 05 00 02 00 01";  // ids 3 and 5
    const uint8_t U = DEV_USB, R = DEV_RS232, P = DEV_PS2;
    // clang-format off
    const Case cases[] = {
        {"0x01 shift 3: 2", U, 0, 3, 0, {Hex("01 05 00 0F 00 08")}, "1:960,512"},
        {"0x01 id in bits 2-6", U, 0, 1, 0, {Hex("01 1D 01 00 02 00")}, "7:1,2"},
        {"0x01 id 10 of SupportPoints 10: dropped", U, 0, 1, 0, {Hex("01 29 01 00 02 00")}, ""},
        {"0x02 series 21 shift 2", U, 21, 2, 0, {Hex("02 05 00 0F 00 08")}, "1:1920,1024"},
        {"0x04 series 8: none", U, 8, 3, 0, {Hex("04 05 00 0F 00 08")}, "1:3840,2048"},
        {"0x04 series 9: itself", U, 9, 2, 0, {Hex("04 05 00 0F 00 08")}, "1:960,512"},
        {"shift -1, no maximum: none", U, 0, -1, 0, {Hex("01 05 00 0F 00 08")}, "1:3840,2048"},
        {"0x01 max 2047 scaled to 4095", U, 0, 0, 2047, {Hex("01 05 FF 07 E8 03")}, "1:4095,2000"},
        {"0x01 above the maximum", U, 0, 0, 2047, {Hex("01 05 FF FF 00 08")}, "1:4095,4095"},
        {"0x06 shift 3", U, 0, 3, 0, {Hex("06 01 01 02 A0 0F D0 07 EE EE EE EE")}, "2:1000,500"},
        {"0x17: 14-byte slots", U, 0, 3, 0, {Hex("17 02 01 04 10 00 99 99 20 00 09 09 09 09 09 09 "
                                              "01 08 30 00 99 99 40 00 09 09 09 09 09 09")}, "4:16,32 8:48,64"},
        {"state bit clear: lift", U, 0, 1, 0, {Hex("01 05 10 00 20 00"), Hex("01 04 10 00 20 00")}, "1:16,32 | 1-"},
        {"ids without a layout", U, 0, 1, 0, {ignored(0), ignored(5), ignored(7), ignored(0x16), ignored(0x18),
                                             ignored(0x7F)}, ""},
        {"series 11 two contacts", U, 11, 2, 0, {Hex(s11 + " 02")}, "3:1024,512 | 3:1024,512 5:256,128"},
        {"series 11 one contact", U, 11, 1, 0, {Hex(s11 + " 01")}, "3:2048,1024"},
        // Pen: tip, barrel, in range; tilt 6000 stays, 59536 is -6000 in 16 bits.
        {"pen sample", U, 22, 3, 0, {Hex("02 23 E8 03 D0 07 00 02 70 17 90 E8")}, "",
         "PEN=1 STYLUS=1 X=1000 Y=2000 TOUCH=1 P=512 TX=6000 TY=-6000"},
        {"pen invert: eraser", U, 23, 1, 0, {Hex("02 25 0A 00 14 00 05 00 00 00 00 00")}, "",
         "X=10 Y=20 P=5 TX=0 TY=0 | RUBBER=0"},
        {"truncated reports: dropped whole", U, 0, 1, 0, {Hex("01 05 10 00 20"), Hex("03"), Hex("04 05 10"),
         Hex("02 05 10 00 20"), Hex("81 0F 7F 00"), Hex("06"), Hex("17")}, ""},
        {"truncated pen", U, 22, 1, 0, {Hex("02 21 0A 00 14 00 05 00 00 00 00")}, "", ""},
        {"truncated series 11", U, 11, 1, 0, {Hex("04 01 00 00 03 00 08 00")}, ""},
        // Serial reports: 7-bit bytes, Y mirrored; the sixth byte of 0xA1 is a contact letter.
        {"RS232 corner", R, 0, 1, 0, {Hex("81 0F 7F 00 00")}, "0:4094,4094"},
        {"RS232 high bits ignored", R, 0, 1, 0, {Hex("81 F1 80 72 81")}, "0:256,3580"},
        {"RS232 contact letter C", R, 0, 1, 0, {Hex("A1 00 10 00 20 43")}, "2:32,4030"},
        {"RS232 letter below 'A'", R, 0, 1, 0, {Hex("A1 00 10 00 20 40")}, ""},
        {"PS/2 reads no letter", P, 0, 1, 0, {Hex("A1 00 10 00 20 43")}, "0:32,4030"},
        {"USB 0x81: no mirror", U, 0, 1, 0, {Hex("81 00 10 00 20")}, "0:32,64"},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig(c.iface);
        CDeviceObject& d = *rig.dev;
        d.Series = c.series;
        d.MouseResShift = d.DigitizerResShift = d.MTouchResShift = d.ParallelResShift =
            static_cast<int8_t>(c.shift);
        d.MouseLogicalMax = d.DigitizerLogicalMax = d.MTouchLogicalMax = d.ParallelLogicalMax =
            c.max;
        for (const Bytes& packet : c.packets) Parse(rig, packet);
        EXPECT_EQ(F(c.touch), rig.TouchEvents());
        EXPECT_EQ(F(c.pen), rig.PenEvents());
    }
}

// Frame headers that do not match what came before: every slot with a valid id is served,
// and once the controller lifts every finger none stays down at the reader, whatever packets
// were lost or over-counted; a later tap still works. Each step gives the slots down at the
// reader after it ("held": scan open, nothing written); an empty packet is silence.
TEST(PointParseFrame, LostAndOverCountedPacketsLeaveNoContactDown) {
    VersionGuard version(9);
    struct Step {
        Bytes packet;
        const char* down;
    };
    struct Case {
        const char* what;
        std::vector<Step> steps;
        int frames;  // SYN_REPORTs written in all
    };
    // clang-format off
    const Case cases[] = {
        {"seven fingers over two packets; slots past the frame's end are never read",
         {{Frame06(7, Slots(1, 0, 5)), "held"}, {Frame06(0, Slots(1, 5, 2) + Slots(1, 200, 3)), "0 1 2 3 4 5 6"},
          {Frame06(7, Slots(0, 0, 5)), "held"}, {Frame06(0, Slots(0, 5, 2)), ""}}, 4},
        {"seven fingers, the second packet lost, then all seven lifted",
         {{Frame06(7, Slots(1, 0, 5)), "held"}, {Frame06(7, Slots(0, 0, 5)), "0 1 2 3 4"},
          {Frame06(0, Slots(0, 5, 2) + Slots(1, 7, 3)), ""}}, 4},
        {"eleven announced with SupportPoints 10, then all eleven lifted",
         {{Frame06(11, Slots(1, 0, 5)), "held"}, {Frame06(0, Slots(1, 5, 5)), "held"},
          {Frame06(0, Slots(1, 10, 1)), "0 1 2 3 4 5 6 7 8 9"}, {Frame06(11, Slots(0, 0, 5)), "held"},
          {Frame06(0, Slots(0, 5, 5)), "held"}, {Frame06(0, Slots(0, 10, 1)), ""}}, 4},
        {"a continuation whose first packet was lost: served contact by contact",
         {{Frame06(0, Slots(1, 0, 2)), "0 1"}, {Frame06(0, Slots(0, 0, 2)), ""}}, 6},
        {"a count of 255, then silence: the held contact is written",
         {{Frame06(255, Slots(1, 0, 1) + Slots(1, 0, 1)), "held"}, {{}, "0"}, {Frame06(1, Slots(0, 0, 1)), ""}}, 4},
        {"half a slot, then silence: only the whole slot is read",
         {{Pad(Frame06(2, Slots(1, 0, 2)), 17), "held"}, {{}, "0"}, {Frame06(1, Slots(0, 0, 1)), ""}}, 4},
        {"contact ids 10 and 255 end the frame; the slot after them is never read",
         {{Frame06(2, Slots(1, 10, 1) + Slots(1, 0, 1)), ""}, {Frame06(2, Slots(1, 255, 1) + Slots(1, 0, 1)), ""}}, 2},
        {"one contact pressed and lifted within one scan: both reach the reader",
         {{Frame06(2, Slots(1, 4, 1) + Slots(0, 4, 1)), ""}}, 4},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        std::map<int, int> tracking;  // slot -> tracking id, as a reader of the node keeps it
        int slot = 0, frames = 0;
        std::vector<Step> steps = c.steps;
        steps.insert(steps.end(),
                     {{Frame06(1, Slots(1, 3, 1)), "3"}, {Frame06(1, Slots(0, 3, 1)), ""}});
        for (size_t i = 0; i < steps.size(); ++i) {
            SCOPED_TRACE(i);
            if (steps[i].packet.empty()) EndMultiContactFrame(rig.dev.get());
            if (!steps[i].packet.empty()) Parse(rig, steps[i].packet);
            const std::vector<Ev> events = rig.TouchEvents();
            std::string down;
            for (const Ev& e : events) {
                frames += e == Syn();
                if (e.type == EV_ABS && e.code == ABS_MT_SLOT) slot = e.value;
                if (e.type == EV_ABS && e.code == ABS_MT_TRACKING_ID) tracking[slot] = e.value;
            }
            for (const auto& t : tracking)
                down += t.second == -1 ? "" : " " + std::to_string(t.first);
            if (std::string(steps[i].down) == "held") {
                EXPECT_TRUE(events.empty() && MultiContactFrameOpen(rig.dev.get()));
            } else {
                EXPECT_EQ(steps[i].down, down.empty() ? down : down.substr(1));
            }
        }
        EXPECT_EQ(c.frames, frames);
        EXPECT_FALSE(MultiContactFrameOpen(rig.dev.get()));
    }
}

// Edge compensation (bands of 205 units from each edge stretched by the given percents),
// direction, orientation ("turn") and the split rectangles (modes 1-8 halves, 9 the custom
// "rect"), applied in that order by HandleContact.
TEST(ContactPipeline, Transforms) {
    VersionGuard version(9);
    struct Case {
        const char* set;
        int x, y, out_x, out_y;
    };
    // clang-format off
    const Case cases[] = {
        {"edge 150 100 100 100", 0, 2000, 0, 2000},      {"edge 150 100 100 100", 100, 2000, 48, 2000},
        {"edge 100 150 100 100", 3991, 1, 4041, 1},      {"edge 100 100 50 200", 3000, 105, 3000, 155},
        {"edge 100 100 50 200", 3000, 4095, 3000, 4095}, {"edge 100 100 100 120", 3000, 3900, 3000, 3901},
        {"edge 0 0 0 0", 10, 4000, 205, 3891},           {"edge -100 100 100 100", 100, 2000, 310, 2000},
        {"dir 1", 100, 200, 3994, 200}, {"dir 2", 100, 200, 100, 3894}, {"dir 3", 100, 200, 3994, 3894},
        {"dir 4", 100, 200, 200, 100},  {"dir 5", 100, 200, 3894, 100}, {"dir 6", 100, 200, 200, 3994},
        {"dir -1", 100, 200, 100, 200}, {"turn 1", 100, 200, 3894, 100}, {"turn 2", 100, 200, 3994, 3894},
        {"turn 3", 100, 200, 200, 3994}, {"split 1", 0, 0, 2047, 0}, {"split 1", 4095, 4095, 4094, 2047},
        {"split 2", 4095, 4095, 2047, 2047}, {"split 3", 4095, 4095, 2047, 4094}, {"split 4", 4095, 4095, 4094, 4094},
        {"split 5", 4095, 4095, 4095, 2047}, {"split 6", 4095, 4095, 4095, 4094}, {"split 7", 4095, 4095, 4094, 4095},
        {"split 8", 4095, 4095, 2047, 4095}, {"split 10", 4095, 4095, 4095, 4095},  // unknown mode
        {"split 9 rect 1000 3000 0 4095", 4095, 4095, 3000, 4095},
        {"split 9 rect 1000 3000 100 200", 0, 2048, 1000, 150},   // 100 + 2048 * 100 / 4095
        {"split 9 rect 3000 1000 0 4095", 4095, 1, 1000, 1},      // a reversed rectangle mirrors
        {"split 9 rect 3000 1000 0 4095", 1, 1, 3000, 1},         // 3000 + (-2000 / 4095)
        {"split 9 rect 500 500 0 4095", 1234, 2345, 1234, 2345},  // zero width or height: unchanged
        {"split 9 rect 0 4095 700 700", 1234, 2345, 1234, 2345},
        {"dir 5 turn 1", 100, 200, 3994, 3894},  // direction first, then a quarter turn
        // edge -> (48, 1000); direction -> (4046, 1000); orientation -> (48, 3094); halved.
        {"edge 150 100 100 100 dir 1 turn 2 split 2", 100, 1000, 24, 1547},
        // Hostile percentages wrap as 32-bit values and still end inside 0-4095.
        {"edge 2147483647 2147483647 -2147483648 -2147483648", 0, 4095, 0, 3891},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.set << " at " << c.x << "," << c.y);
        TouchRig rig;
        DeviceParam& p = rig.dev->Param;
        std::istringstream in(c.set);
        for (std::string key; in >> key;) {
            if (key == "edge") in >> p.EdgeLeft >> p.EdgeRight >> p.EdgeTop >> p.EdgeBottom;
            if (key == "rect")
                in >> p.CustomRectLeft >> p.CustomRectRight >> p.CustomRectTop >>
                    p.CustomRectBottom;
            int split = 0;
            if (key == "split" && in >> split) p.SplitRectMode = static_cast<uint8_t>(split);
            if (key == "dir") in >> p.Direction;
            if (key == "turn") in >> p.Orientation;
            p.EdgeCompensate |= key == "edge";
        }
        Handle(rig, 3, 1, c.x, c.y);
        EXPECT_EQ(F("3:" + std::to_string(c.out_x) + "," + std::to_string(c.out_y)),
                  rig.TouchEvents());
    }
}

// With HoldRange 20 a finger drifting less than 20 units (in X, Y or Z) from the last
// position that passed produces nothing; a lift and another contact always pass. Contact ids
// 20 and above and negative ones never pass, whatever SupportPoints says.
TEST(ContactPipeline, HoldFilterAndContactNumbers) {
    VersionGuard version(9);
    TouchRig rig;
    rig.dev->Param.HoldFilterEnable = 1;
    rig.dev->Param.SupportPoints = 255;
    // clang-format off
    const struct { int id, state, x, y, z; bool passes; } steps[] = {
        {0, 1, 1000, 1000, 0, true}, {0, 1, 1005, 1000, 0, false}, {0, 1, 1015, 1000, 0, false},
        {0, 1, 1000, 981, 0, false}, {0, 1, 1000, 1000, 19, false},
        {1, 1, 1000, 1000, 0, true},  // another contact at the same place
        {0, 1, 1020, 1000, 0, true}, {0, 1, 1035, 1000, 0, false},  // measured from 1020, not 1000
        {0, 1, 1020, 1000, 20, true}, {0, 0, 1021, 1000, 0, true},  // Z alone; a lift never waits
        {20, 1, 100, 100, 0, false}, {31, 1, 100, 100, 0, false}, {255, 1, 100, 100, 0, false},
        {1000, 1, 100, 100, 0, false}, {-1, 1, 100, 100, 0, false},
    };
    // clang-format on
    for (const auto& s : steps) {
        SCOPED_TRACE(testing::Message() << s.id << ": " << s.x << "," << s.y << "," << s.z);
        Handle(rig, s.id, s.state, s.x, s.y, s.z);
        EXPECT_EQ(s.passes, !rig.TouchEvents().empty());
    }
}
