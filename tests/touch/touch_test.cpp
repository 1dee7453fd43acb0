// The touch data path on a bare device record; socketpairs stand in for the uinput devices.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <functional>

#include "device/cmd_channel.h"
#include "support/touch_test_util.h"
#include "touch/cmd_reply.h"
#include "touch/contact.h"
#include "touch/point_parse.h"
#include "touch/reception.h"
#include "touch/vkey.h"

using namespace touchtest;

namespace {

// Packets written in hex, separated by commas.
std::vector<Bytes> Packets(const std::string& text) {
    std::vector<Bytes> out;
    std::istringstream in(text);
    for (std::string packet; std::getline(in, packet, ',');) out.push_back(Hex(packet));
    return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// n 10-byte 0x06 slots: state, id from first on, X and Y 10 * id, 4 unused bytes.
Bytes Slots(int state, int first, int n) {
    Bytes b;
    for (int id = first; id < first + n; ++id) {
        const auto c = static_cast<uint8_t>(10 * id), h = static_cast<uint8_t>(10 * id >> 8);
        b = b +
            Bytes{static_cast<uint8_t>(state), static_cast<uint8_t>(id), c, h, c, h, 0, 0, 0, 0};
    }
    return b;
}

Bytes Frame06(int count, const Bytes& slots) {
    return Bytes{0x06, static_cast<uint8_t>(count)} + slots;
}

// A row's settings: each key followed by its values.
void Configure(CDeviceObject* d, const std::string& text) {
    DeviceParam& p = d->Param;
    std::istringstream in(text);
    int n = 0;
    for (std::string key; in >> key;) {
        if (key == "edge") in >> p.EdgeLeft >> p.EdgeRight >> p.EdgeTop >> p.EdgeBottom;
        if (key == "rect")
            in >> p.CustomRectLeft >> p.CustomRectRight >> p.CustomRectTop >> p.CustomRectBottom;
        if (key == "split" && in >> n) p.SplitRectMode = static_cast<uint8_t>(n);
        if (key == "dir") in >> p.Direction;
        if (key == "turn") in >> p.Orientation;
        if (key == "raw" && in >> n) d->SendRawPoints = static_cast<uint8_t>(n);
        if (key == "hook" && in >> std::hex >> n >> std::dec)
            d->SelfHookCmd = static_cast<uint8_t>(n);
        if (key == "sub" && in >> n) d->SelfHookSubCmd = static_cast<uint16_t>(n);
        p.EdgeCompensate |= key == "edge";
        d->pSettings->SkipFirstByte |= key == "skip";
        d->bPointsToTool |= key == "tool";
        d->bPCAP |= key == "pcap";
        if (key == "hold") p.HoldFilterEnable = 1, p.SupportPoints = 255;
    }
}

}  // namespace

// Each report layout with its shift and declared maximum, unknown ids, truncated reports.
TEST(PointParse, ReportsToEvents) {
    VersionGuard version(9);
    const uint8_t U = DEV_USB, R = DEV_RS232;
    // clang-format off
    const struct { uint8_t iface; int series; int8_t shift; int max; const char *packets, *touch, *pen; } cases[] = {
        {U, 0, 3, 0, "01 05 00 0F 00 08", "1:960,512", ""},
        {U, 0, 1, 0, "01 1D 01 00 02 00, 01 29 01 00 02 00", "7:1,2", ""},  // id 10 of 10: dropped
        {U, 21, 2, 0, "02 05 00 0F 00 08", "1:1920,1024", ""},
        {U, 8, 3, 0, "04 05 00 0F 00 08", "1:3840,2048", ""},
        {U, 9, 2, 0, "04 05 00 0F 00 08", "1:960,512", ""},
        {U, 0, -1, 0, "01 05 00 0F 00 08", "1:3840,2048", ""},
        {U, 0, 0, 2047, "01 05 FF 07 E8 03, 01 05 FF FF 00 08", "1:4095,2000 | 1:4095,4095", ""},
        {U, 0, 3, 0, "06 01 01 02 A0 0F D0 07 EE EE EE EE", "2:1000,500", ""},
        {U, 0, 3, 0, "17 02 01 04 10 00 99 99 20 00 09 09 09 09 09 09 01 08 30 00 99 99 40 00 09 09 09 09 09 09",
         "4:16,32 8:48,64", ""},
        {U, 0, 1, 0, "01 05 10 00 20 00, 01 04 10 00 20 00", "1:16,32 | 1-", ""},
        {U, 0, 1, 0, "00 05 10 00 20 00, 05 05 10 00 20 00, 07 05 10 00 20 00, 16 05 10 00 20 00 00 00, "
                     "18 05 10 00 20 00 00 00 00 00 00 00 00 00, 7F 05 10 00 20 00", "", ""},
        {U, 11, 2, 0, "04 01 00 00 03 00 08 00 04 01 00 00 05 00 02 00 01 02",
         "3:1024,512 | 3:1024,512 5:256,128", ""},
        {U, 11, 1, 0, "04 01 00 00 03 00 08 00 04 01 00 00 05 00 02 00 01 01", "3:2048,1024", ""},
        // Tip, barrel, in range; tilt 59536 is -6000 in 16 bits. Invert makes an eraser.
        {U, 22, 3, 0, "02 23 E8 03 D0 07 00 02 70 17 90 E8", "",
         "PEN=1 STYLUS=1 X=1000 Y=2000 TOUCH=1 P=512 TX=6000 TY=-6000"},
        {U, 23, 1, 0, "02 25 0A 00 14 00 05 00 00 00 00 00", "", "X=10 Y=20 P=5 TX=0 TY=0 | RUBBER=0"},
        {U, 0, 1, 0, "01 05 10 00 20, 03, 04 05 10, 02 05 10 00 20, 81 0F 7F 00, 06, 17", "", ""},
        {U, 22, 1, 0, "02 21 0A 00 14 00 05 00 00 00 00", "", ""},
        {U, 11, 1, 0, "04 01 00 00 03 00 08 00", "", ""},
        // Serial: 7-bit bytes, Y mirrored; 0xA1 of RS232 names its contact by a letter from 'A'.
        {R, 0, 1, 0, "81 F1 80 72 81, A1 00 10 00 20 43, A1 00 10 00 20 40", "0:256,3580 | 0:256,3580 2:32,4030", ""},
        {U, 0, 1, 0, "81 00 10 00 20", "0:32,64", ""},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.packets);
        TouchRig rig(c.iface);
        CDeviceObject& d = *rig.dev;
        d.Series = c.series;
        d.MouseResShift = d.DigitizerResShift = d.MTouchResShift = d.ParallelResShift = c.shift;
        d.MouseLogicalMax = d.DigitizerLogicalMax = d.MTouchLogicalMax = c.max;
        d.ParallelLogicalMax = c.max;
        for (const Bytes& b : Packets(c.packets))
            ParsePointPacket(&d, b.data(), static_cast<int>(b.size()));
        EXPECT_EQ(F(c.touch), rig.TouchEvents());
        EXPECT_EQ(F(c.pen), rig.PenEvents());
    }
}

// Lost or over-counted packets: slots down at the reader after each step, then a tap works.
TEST(PointParseFrame, LostAndOverCountedPacketsLeaveNoContactDown) {
    VersionGuard version(9);
    // clang-format off
    struct Step { Bytes packet; const char* down; };
    const struct { const char* what; std::vector<Step> steps; int frames; } cases[] = {
        {"seven over two packets; slots past the frame's end never read",
         {{Frame06(7, Slots(1, 0, 5)), "held"}, {Frame06(0, Slots(1, 5, 2) + Slots(1, 200, 3)), "0 1 2 3 4 5 6"},
          {Frame06(7, Slots(0, 0, 5)), "held"}, {Frame06(0, Slots(0, 5, 2)), ""}}, 4},
        {"seven, the second packet lost, then all seven lifted",
         {{Frame06(7, Slots(1, 0, 5)), "held"}, {Frame06(7, Slots(0, 0, 5)), "0 1 2 3 4"},
          {Frame06(0, Slots(0, 5, 2) + Slots(1, 7, 3)), ""}}, 4},
        {"eleven announced with SupportPoints 10, then all eleven lifted",
         {{Frame06(11, Slots(1, 0, 5)), "held"}, {Frame06(0, Slots(1, 5, 5)), "held"},
          {Frame06(0, Slots(1, 10, 1)), "0 1 2 3 4 5 6 7 8 9"}, {Frame06(11, Slots(0, 0, 5)), "held"},
          {Frame06(0, Slots(0, 5, 5)), "held"}, {Frame06(0, Slots(0, 10, 1)), ""}}, 4},
        {"a continuation whose first packet was lost",
         {{Frame06(0, Slots(1, 0, 2)), "0 1"}, {Frame06(0, Slots(0, 0, 2)), ""}}, 6},
        {"a count of 255 with half a slot more, then silence",
         {{Pad(Frame06(255, Slots(1, 0, 1)), 17), "held"}, {{}, "0"}, {Frame06(1, Slots(0, 0, 1)), ""}}, 4},
        {"ids 10 and 255 end the frame; the slot after them is never read",
         {{Frame06(2, Slots(1, 10, 1) + Slots(1, 0, 1)), ""}, {Frame06(2, Slots(1, 255, 1) + Slots(1, 0, 1)), ""}}, 2},
        {"pressed and lifted within one scan", {{Frame06(2, Slots(1, 4, 1) + Slots(0, 4, 1)), ""}}, 4},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        std::map<int, int> tracking;  // slot -> tracking id, as a reader of the node keeps it
        int slot = 0, frames = 0;
        std::vector<Step> steps = c.steps;  // then a tap
        steps.insert(steps.end(),
                     {{Frame06(1, Slots(1, 3, 1)), "3"}, {Frame06(1, Slots(0, 3, 1)), ""}});
        for (const Step& step : steps) {
            const Bytes& b = step.packet;
            if (b.empty()) EndMultiContactFrame(rig.dev.get());
            ParsePointPacket(rig.dev.get(), b.data(), static_cast<int>(b.size()));
            const std::vector<Ev> events = rig.TouchEvents();
            std::string down;
            for (const Ev& e : events) {
                frames += e == Syn();
                if (e.type == EV_ABS && e.code == ABS_MT_SLOT) slot = e.value;
                if (e.type == EV_ABS && e.code == ABS_MT_TRACKING_ID) tracking[slot] = e.value;
            }
            for (const auto& t : tracking)
                down += t.second == -1 ? "" : " " + std::to_string(t.first);
            const bool held = events.empty() && MultiContactFrameOpen(rig.dev.get());
            EXPECT_EQ(step.down, held ? "held" : down.substr(down.empty() ? 0 : 1))
                << &step - &steps[0];
        }
        EXPECT_EQ(c.frames, frames);
    }
}

// The contact pipeline, one device per run of equal settings. Out: "-" nothing, "*" something.
TEST(ContactPipeline, SettingsShapeContacts) {
    VersionGuard version(9);
    // clang-format off
    const struct { const char* set; int id, state, x, y, z; const char* out; } cases[] = {
        {"edge 100 150 100 100", 3, 1, 3991, 1, 0, "4041,1"}, {"edge 100 100 50 200", 3, 1, 3000, 105, 0, "3000,155"},
        {"edge 100 100 100 120", 3, 1, 3000, 3900, 0, "3000,3901"}, {"edge 0 0 0 0", 3, 1, 10, 4000, 0, "205,3891"},
        {"edge -100 100 100 100", 3, 1, 100, 2000, 0, "310,2000"},
        {"edge 2147483647 2147483647 -2147483648 -2147483648", 3, 1, 0, 4095, 0, "0,3891"},  // wraps, stays inside
        {"dir 1", 3, 1, 100, 200, 0, "3994,200"}, {"dir 2", 3, 1, 100, 200, 0, "100,3894"},
        {"dir 5", 3, 1, 100, 200, 0, "3894,100"}, {"dir -1", 3, 1, 100, 200, 0, "100,200"},
        {"turn 1", 3, 1, 100, 200, 0, "3894,100"}, {"turn 2", 3, 1, 100, 200, 0, "3994,3894"},
        {"turn 3", 3, 1, 100, 200, 0, "200,3994"},
        {"split 1", 3, 1, 4095, 4095, 0, "4094,2047"}, {"split 2", 3, 1, 4095, 4095, 0, "2047,2047"},
        {"split 3", 3, 1, 4095, 4095, 0, "2047,4094"}, {"split 4", 3, 1, 4095, 4095, 0, "4094,4094"},
        {"split 5", 3, 1, 4095, 4095, 0, "4095,2047"}, {"split 6", 3, 1, 4095, 4095, 0, "4095,4094"},
        {"split 7", 3, 1, 4095, 4095, 0, "4094,4095"}, {"split 8", 3, 1, 4095, 4095, 0, "2047,4095"},
        {"split 10", 3, 1, 4095, 4095, 0, "4095,4095"}, {"split 9 rect 1000 3000 100 200", 3, 1, 0, 2048, 0, "1000,150"},
        {"split 9 rect 3000 1000 0 4095", 3, 1, 1, 1, 0, "3000,1"},  // a reversed rectangle mirrors
        {"split 9 rect 500 500 0 4095", 3, 1, 1234, 2345, 0, "1234,2345"},  // no width: unchanged
        {"edge 150 100 100 100 dir 1 turn 2 split 2", 3, 1, 100, 1000, 0, "24,1547"},
        {"hold", 0, 1, 1000, 1000, 0, "*"}, {"hold", 0, 1, 1015, 1000, 0, "-"}, {"hold", 0, 1, 1000, 981, 0, "-"},
        {"hold", 0, 1, 1000, 1000, 19, "-"}, {"hold", 1, 1, 1000, 1000, 0, "*"}, {"hold", 0, 1, 1020, 1000, 0, "*"},
        {"hold", 0, 1, 1035, 1000, 0, "-"}, {"hold", 0, 1, 1020, 1000, 20, "*"}, {"hold", 0, 0, 1021, 1000, 0, "*"},
        {"hold", 20, 1, 100, 100, 0, "-"}, {"hold", -1, 1, 100, 100, 0, "-"},
    };
    // clang-format on
    std::unique_ptr<TouchRig> rig;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.set << ": " << c.id << " at " << c.x << "," << c.y << "," << c.z);
        if (!rig || c.set != cases[&c - cases - 1].set)
            rig.reset(new TouchRig), Configure(rig->dev.get(), c.set);
        TouchPoint p = {};
        p.ID = c.id, p.State = c.state, p.X = c.x, p.Y = c.y, p.Z = c.z;
        HandleContact(rig->dev.get(), &p);
        const std::vector<Ev> events = rig->TouchEvents();
        const std::string out = c.out;
        if (out == "-" || out == "*") {
            EXPECT_EQ(out == "*", !events.empty());
        } else {
            EXPECT_EQ(F(std::to_string(c.id) + ":" + out), events);
        }
    }
}

namespace {

volatile sig_atomic_t g_usr2_count = 0;

// In a child of its own process group, after make fills a private /dev: reception steps with
// nothing ready, a 200-byte datagram (read as 65), then the controller gone. Failure bits: 1
// result, 2 running, 4 stop, 8 SIGUSR2, 16 path (not) removed, 32 set-up, 64 exit, 128 events.
int RunEmptyReadInChild(const std::string& port, int removed, const std::function<bool()>& make) {
    const testutil::ChildResult child = testutil::RunInChild([&] {
        setpgid(0, 0);
        if (make && !(unshare(CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") == 0 && make()))
            _exit(32);
        signal(SIGUSR2, [](int) { g_usr2_count = g_usr2_count + 1; });
        VersionGuard version(9);
        TouchRig rig;
        snprintf(rig.dev->PortPath, sizeof(rig.dev->PortPath), "%s", port.c_str());
        UniqueFd controller;
        MakeEventPair(&rig.dev->m_Port_fd, &controller);
        rig.dev->bThreadRunning = 1;
        const Bytes datagram = Pad(Hex("01 05 34 12 78 06"), 200, 0xEE);
        int code = DevReceiveStep(rig.dev.get()) != 0 || rig.dev->bThreadRunning != 1;
        code |= send(controller.get(), datagram.data(), 200, 0) != 200 ||
                DevReceiveStep(rig.dev.get()) != 0;
        code |= (rig.TouchEvents() != F("1:4660,1656")) << 7;
        controller.reset();
        code |= DevReceiveStep(rig.dev.get()) != -1;
        code |= (rig.dev->bThreadRunning != 0) << 1 | !RxThreadStopRequested() << 2 |
                (g_usr2_count != 1) << 3;
        struct stat st;
        if (removed >= 0 && (lstat(port.c_str(), &st) != 0) != (removed == 1)) code |= 16;
        _exit(code);
    });
    return child.exited ? child.status : 64;
}

}  // namespace

// An empty read is an unplug; only a device node under /dev is deleted, nothing named beside it.
TEST(ReceiveStep, EmptyReadIsAnUnplugAndRemovesOnlyADeviceNodeUnderDev) {
    testutil::TempDir dir;
    const std::string node = dir.File("hidraw7"), victim = dir.File("victim");
    ASSERT_TRUE(testutil::WriteFile(node, "") && testutil::WriteFile(victim, ""));
    for (const std::string& path : {node, node + " " + victim, node + ";rm${IFS}" + victim}) {
        EXPECT_EQ(0, RunEmptyReadInChild(path, -1, nullptr)) << path;
        EXPECT_TRUE(testutil::FileExists(victim) && testutil::FileExists(node)) << path;
    }
    if (geteuid() != 0) GTEST_SKIP() << "a private /dev needs root";
    const auto mknode = [](const char* path) { return mknod(path, S_IFCHR, makedev(1, 3)) == 0; };
    // clang-format off
    const struct { const char* port; int removed; std::function<bool()> make; } cases[] = {
        {"/dev/hidraw7", 1, [&] { return mknode("/dev/hidraw7"); }},
        {"/dev/ttyTV0", 0, [&] { return mknode("/dev/pts0") && symlink("/dev/pts0", "/dev/ttyTV0") == 0; }},
        {"/dev/ttyS5", 0, [] { return testutil::WriteFile("/dev/ttyS5", "keep"); }},
        {"/dev/x/../hidraw7", 0, [&] { return mkdir("/dev/x", 0755) == 0 && mknode("/dev/hidraw7"); }},
    };
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(0, RunEmptyReadInChild(c.port, c.removed, c.make)) << c.port;
}

// Where a read's bytes go, serial streams whole and byte by byte; reply: what the self hook got.
TEST(PortBytes, PointsAndRepliesWhateverTheReadBoundaries) {
    VersionGuard version(9);
    Bytes longest = Hex("0A FF 55");  // length byte 0xFF: 64 bytes, not 0xFF + 2 wrapped
    for (int i = 3; i < 64; ++i) longest.push_back(static_cast<uint8_t>(i));
    const Bytes reply = Hex("03 02 55 01"), serial = Hex("0A 02 55 01"),
                report = Hex("01 01 10 00 20 00");
    const Bytes points = Hex("A1 00 10 00 20 81 0F 7F 00 00"), none;
    const uint8_t U = DEV_USB, R = DEV_RS232, P = DEV_PS2;
    // clang-format off
    const struct { uint8_t iface; uint32_t baud; const char *set, *touch; Bytes stream, reply; } cases[] = {
        {U, 0, "", "", Hex("00 03 02 55 01"), reply}, {U, 0, "skip", "", Hex("7E 03 02 55 01"), reply},
        {U, 0, "", "0:16,32", report, none},
        // Raw points: 0x03 is a point from byte 1 0x80 on, else a reply; 2 drops everything.
        {U, 0, "raw 1", "0:16,32", Hex("03 81 10 00 20 00"), none}, {U, 0, "raw 1", "", reply, reply},
        {U, 0, "raw 1", "", serial, serial}, {U, 0, "raw 1", "0:16,32", report, none},
        {U, 0, "raw 2", "", serial, none},
        {R, 9600, "", "0:4094,4094 | 0-", Hex("33 00 81 0F 7F 00 00 0A 03 55 01 02 80 00 10 00 20"),
         Hex("0A 03 55 01 02")},  // noise, point, reply, point
        {P, 9600, "", "0:4094,4094", Hex("FA 81 FA 0F 7F FA 00 00 FA 0A FA 03 55 FA 01 02 FA"),
         Hex("0A 03 55 01 02")},  // PS/2 acknowledge bytes vanish
        {R, 9600, "", "0:32,4030 | 0:4094,4094", points, none},  // 5-byte points
        {P, 115200, "", "0:32,4030 | 0:4094,4094", points, none},
        {R, 115200, "", "1:32,4030", Hex("A1 00 10 00 20 42"), none},  // 6-byte points
        {R, 9600, "", "", longest, longest}, {R, 9600, "", "", Hex("0A 00 0A 02 55 09"), Hex("0A 02 55 09")},
        {R, 9600, "tool hook FE", "", Hex("81 0F 7F 05 10"), Hex("0A 83 FE 0F 20 05")},  // 64-byte reply
        {DEV_UNKNOWN, 9600, "", "", Hex("81 0F 7F 00 00 0A 02 55 09"), none},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.stream));
        const size_t n = c.stream.size();
        for (size_t per_read : {n, c.iface == DEV_USB ? n : 1}) {  // all at once, one byte each
            TouchRig rig(c.iface);
            rig.dev->BaudRate = c.baud;
            rig.dev->SelfHookCmd = 0x55, rig.dev->SigHookCmd = 0x99,
            rig.dev->SelfHookSubCmd = kAnySubCmd;
            Configure(rig.dev.get(), c.set);
            for (size_t i = 0; i < n; i += per_read)
                DispatchPortBytes(rig.dev.get(), &c.stream[i], per_read);
            EXPECT_EQ(F(c.touch), rig.TouchEvents());
            EXPECT_EQ(!c.reply.empty(), rig.dev->bSelfHookReplied.load() == 1);
            EXPECT_EQ(c.reply, Bytes(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + c.reply.size()));
            EXPECT_EQ(0, rig.dev->bCmdPacket + rig.dev->bPointPacket + rig.dev->SerialIndex);
        }
    }
}

// USB fragments merged in the 128-byte buffer, then routed to the self hook or to the tool.
TEST(ParseCmdReply, FragmentsMergedThenRouted) {
    const std::string E = "03 04 45 0A D0 D1, ";
    std::string exact = "03 04 45 7D 01 02", past = exact, whole = "03 7E 45 01 02";  // 128 bytes
    for (int i = 0; i < 41; ++i) exact += ", 03 04 00 00 AB CD", whole += " 00 AB CD";
    for (int i = 0; i < 121; ++i) past += ", 03 02 00 44";
    past += ", 03 04 00 91 92 93";              // to 129
    std::string wide, long_reply = "03 3E 45";  // 200 bytes; 64 with L above 4
    for (int i = 0; i < 200; ++i) wide += "0A", long_reply += i < 61 ? "5A" : "";
    // clang-format off
    const struct { const char* set; std::string packets, routed; bool merging; } cases[] = {
        {"", "03 04 45 0A A0 A1 FF FF, 03 04 00 B0 B1 B2 EE, 03 04 00 B3 B4 B5, 03 04 00 B6 B7 B8",
         "03 0B 45 A0 A1 B0 B1 B2 B3 B4 B5 B6 B7", false},
        {"", "03 04 44 02 11 22", "03 03 44 11 22", false}, {"", "03 04 46 02 11 22", "03 03 46 11 22", false},
        {"", "03 04 00 01 02 03", "03 04 00 01 02 03", false},  // a continuation alone
        {"", long_reply, long_reply, false}, {"", "81 0F 7F 05", "", false},  // a serial report too short
        {"", E + "55 04 00 01 02 03", "", true},  // an unknown header leaves the merge alone
        {"", E + "0A 02 41 42", "0A 02 41 42", false},  // the rest reset it
        {"", E + "03 05 00 01 02 03 04", "03 05 00 01 02 03 04", false}, {"", E + "03 04 31 01 02 03", "", false},
        {"", E + "03 00 00", "", false}, {"", E + "03 04 00 01", "", false},
        {"pcap", "03 04 45 0A D0 D1", "03 04 45 0A D0 D1", false},  // the capacitive family never merges
        {"", "03 04 45 7E 01 02", "", false}, {"", wide, "", false}, {"", exact, whole, false}, {"", past, "", false},
        {"hook 41 sub 2", "03 03 41 01 02", "03 03 41 01 02", false},
        {"hook 41 sub 2", "03 03 41 02 02", "hooked", false}, {"hook 41", "0A 03 41 7E 00", "hooked", false},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.set + (" " + c.packets.substr(0, 60)));
        TouchRig rig;
        UniqueFd tool;
        MakeEventPair(&rig.dev->m_fdPipeOut, &tool);
        rig.dev->SigHookCmd = rig.dev->SelfHookCmd = 0x99, rig.dev->SelfHookSubCmd = kAnySubCmd;
        Configure(rig.dev.get(), c.set);
        for (const Bytes& b : Packets(c.packets))
            ParseCmdPacket(rig.dev.get(), b.data(), static_cast<int>(b.size()));
        uint8_t buffer[256];
        const ssize_t n = recv(tool.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        EXPECT_EQ(c.routed == "hooked" ? Bytes{} : Hex(c.routed),
                  Bytes(buffer, buffer + std::max<ssize_t>(n, 0)));
        EXPECT_EQ(c.routed == "hooked", rig.dev->bSelfHookReplied.load() == 1);
        EXPECT_EQ(c.merging ? 2 : 0,
                  (rig.dev->bMerging == 1) + (rig.dev->CurIndex + rig.dev->RealLen > 0));
    }
}

// "VKEY_<n>" settings, then key reports ("state:index", hex) counted against VKEYReportMod.
TEST(VirtualKeys, SettingsAndReports) {
    // clang-format off
    const struct { int series, modulus; bool form22; const char *keys, *steps; } cases[] = {
        {0, 1, false, "VKEY_0=BACK VKEY_5=0x2FF VKEY_6=114 VKEY_7=home VKEY_8=0x VKEY_9=HOME VKEY_9=12abc",
         "1:0 K158=1 1:0 K158=1 0:0 K158=0 0:0 . 1:5 K767=1 1:6 K114=1 1:7 . 1:8 . 1:9 K12=1"},
        {0, 1, false, "VKEY_1=BACK VKEY_1= VKEY_2=0x300 VKEY_3=-5 VKEY_4=99999999999999999999 VKEY_5=BACK VKEY_5 "
                      "VKEY_10=BACK VKEY_x=BACK KEY_6=BACK VKEY_9=BACK",  // unmapped, out of range
         "1:0 . 1:1 . 1:2 . 1:3 . 1:4 . 1:5 . 1:0A . 1:6 . 1:0C . 1:FF . 1:9 K158=1"},
        {0, 3, false, "VKEY_1=HOME VKEY_4=MENU",
         "1:1 . 1:1 . 0:1 . 1:1 K102=1 1:1 . 1:1 . 1:1 K102=1 1:4 . 0:1 K102=0 1:4 . 1:4 . 1:4 K139=1"},
        {0, 0, false, "VKEY_0=SEARCH", "1:0 K217=1 0:0 K217=0"},  // modulus 0 and below: 1
        {0, -3, false, "VKEY_0=SEARCH", "1:0 K217=1 0:0 K217=0"},
        {22, 1, true, "VKEY_5=MENU", "1:5 K139=1 0:5 K139=0"}, {0, 1, true, "VKEY_5=MENU", "1:5 ."},
        {22, 1, false, "VKEY_5=MENU", "1:5 ."},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.keys << ": " << c.steps);
        TouchRig rig;
        rig.dev->Series = c.series;
        rig.dev->Param.VKEYReportMod = c.modulus;
        std::istringstream keys(c.keys), in(c.steps);
        for (std::string k; keys >> k;) {
            const size_t eq = k.find('=');
            ParseVKEYini(rig.dev.get(), k.substr(0, eq).c_str(),
                         eq == k.npos ? nullptr : &k[eq + 1]);
        }
        for (std::string report, want; in >> report >> want;) {
            SCOPED_TRACE(report);
            uint8_t state = 0, index = 0;  // common form: bytes 4 and 5; series 22: 3 and 4
            sscanf(report.c_str(), "%hhx:%hhx", &state, &index);
            const Bytes packet = c.form22 ? Bytes{3, 4, 0x2F, state, index, 0}
                                          : Bytes{3, 4, 0x36, 0x2F, state, index};
            ParseCmdPacket(rig.dev.get(), packet.data(), 6);
            EXPECT_EQ(F(want == "." ? "" : want), rig.TouchEvents());
        }
    }
}
