// The serial and PS/2 splitter: packets cut from a byte stream whatever the read
// boundaries, PS/2 acknowledge bytes, the point length by interface and speed, the length
// byte rules and the tool form. Point packets show up as touch events (slot protocol,
// neutral settings); command packets through the self hook and the reply buffer.
#include <gtest/gtest.h>

#include <vector>

#include "device/cmd_channel.h"
#include "support/touch_test_util.h"
#include "touch/reception.h"

using namespace touchtest;

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<Ev> Frame(int id, int x, int y, bool down = true) {
    std::vector<Ev> want;
    if (down) {
        AddSlotDown(&want, id, x, y);
    } else {
        AddSlotUp(&want, id);
    }
    want.push_back(Syn());
    return want;
}

std::vector<Ev> Concat(std::vector<Ev> a, const std::vector<Ev>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

}  // namespace

// Each stream is fed in two reads cut at every position, and one byte per read: the same
// events, the same reply and nothing left half-split every time.
TEST(SerialSplit, SameOutcomeWhereverTheReadIsCut) {
    VersionGuard version(9);
    struct Case {
        const char* what;
        uint8_t iface;
        uint32_t baud;
        bool points_to_tool;
        uint8_t hook;
        Bytes stream;
        std::vector<Ev> touch;
        Bytes reply;  // empty: the hook is not answered
    };
    Bytes longest = {0x0A, 0xFF, 0x55};  // length byte 0xFF: 64 bytes, not 0xFF + 2 wrapped
    for (int i = 3; i < 64; ++i) longest.push_back(static_cast<uint8_t>(i));
    const uint8_t R = DEV_RS232, P = DEV_PS2;
    const std::vector<Ev> corner = Frame(0, 4094, 4094);
    // clang-format off
    const Case cases[] = {
        {"noise, point, reply, point", R, 9600, false, 0x55,
         {0x33, 0x00, 0x81, 0x0F, 0x7F, 0x00, 0x00, 0x0A, 0x03, 0x55, 0x01, 0x02, 0x80, 0x00, 0x10, 0x00, 0x20},
         Concat(corner, Frame(0, 0, 0, false)), {0x0A, 0x03, 0x55, 0x01, 0x02}},
        {"PS/2 acknowledge bytes vanish everywhere", P, 9600, false, 0x55,
         {0xFA, 0x81, 0xFA, 0x0F, 0x7F, 0xFA, 0x00, 0x00, 0xFA, 0x0A, 0xFA, 0x03, 0x55, 0xFA, 0x01, 0x02, 0xFA},
         corner, {0x0A, 0x03, 0x55, 0x01, 0x02}},
        {"RS232 at 9600: 5-byte points", R, 9600, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 0x81, 0x0F, 0x7F, 0x00, 0x00}, Concat(Frame(0, 32, 4030), corner), {}},
        {"PS/2 at 115200: 5-byte points", P, 115200, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 0x81, 0x0F, 0x7F, 0x00, 0x00}, Concat(Frame(0, 32, 4030), corner), {}},
        {"RS232 at 115200: 6-byte points", R, 115200, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 'B'}, Frame(1, 32, 4030), {}},
        {"RS232 at an unknown speed: 6-byte points", R, 0, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 'B'}, Frame(1, 32, 4030), {}},
        {"length byte 0xFF", R, 9600, false, 0x55, longest, {}, longest},
        {"length byte 0: two bytes, the next packet cut cleanly", R, 9600, false, 0x55,
         {0x0A, 0x00, 0x0A, 0x02, 0x55, 0x09}, {}, {0x0A, 0x02, 0x55, 0x09}},
        {"reports switched to the tool go as 64-byte replies", R, 9600, true, 0xFE,
         {0x81, 0x0F, 0x7F, 0x05, 0x10}, {}, {0x0A, 0x83, 0xFE, 0x0F, 0x20, 0x05}},
        {"unknown interface: dropped", DEV_UNKNOWN, 9600, false, 0x55,
         {0x81, 0x0F, 0x7F, 0x00, 0x00, 0x0A, 0x02, 0x55, 0x09}, {}, {}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        for (size_t cut = 0; cut <= c.stream.size() + 1; ++cut) {
            SCOPED_TRACE(cut > c.stream.size() ? "one byte per read" : std::to_string(cut));
            TouchRig rig(c.iface);
            rig.dev->BaudRate = c.baud;
            rig.dev->bPointsToTool = c.points_to_tool;
            rig.dev->SelfHookCmd = c.hook;
            rig.dev->SelfHookSubCmd = kAnySubCmd;
            const int n = static_cast<int>(c.stream.size());
            if (cut > c.stream.size()) {
                for (int i = 0; i < n; ++i) DispatchPortBytes(rig.dev.get(), &c.stream[i], 1);
            } else {
                DispatchPortBytes(rig.dev.get(), c.stream.data(), static_cast<int>(cut));
                DispatchPortBytes(rig.dev.get(), c.stream.data() + cut, n - static_cast<int>(cut));
            }
            EXPECT_EQ(c.touch, rig.TouchEvents());
            EXPECT_EQ(c.reply.empty() ? 0 : 1, rig.dev->bSelfHookReplied.load());
            EXPECT_EQ(c.reply, Bytes(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + c.reply.size()));
            EXPECT_EQ(0, rig.dev->bCmdPacket);
            EXPECT_EQ(0, rig.dev->bPointPacket);
            EXPECT_EQ(0, rig.dev->SerialIndex);
        }
    }
}
