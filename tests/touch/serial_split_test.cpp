// The serial and PS/2 splitter: packets cut from a byte stream whatever the read
// boundaries, PS/2 acknowledge bytes, the length byte rules and the bound of SerialBuf.
// Point packets show up as touch events (slot protocol, neutral settings); command packets
// are seen through the self hook and the reply buffer.
#include <gtest/gtest.h>

#include <vector>

#include "device/cmd_channel.h"
#include "support/touch_test_util.h"
#include "touch/reception.h"

using namespace touchtest;

namespace {

void Feed(TouchRig& rig, const std::vector<uint8_t>& bytes) {
    ParseSerialPacket(rig.dev.get(), bytes.data(), static_cast<int>(bytes.size()));
}

std::vector<uint8_t> Reply(const TouchRig& rig, int length) {
    return std::vector<uint8_t>(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + length);
}

void HookOn(TouchRig& rig, uint8_t command) {
    rig.dev->SelfHookCmd = command;
    rig.dev->SelfHookSubCmd = kAnySubCmd;
    rig.dev->bSelfHookReplied = 0;
}

void ExpectIdle(const TouchRig& rig) {
    EXPECT_EQ(0, rig.dev->bCmdPacket);
    EXPECT_EQ(0, rig.dev->bPointPacket);
    EXPECT_EQ(0, rig.dev->SerialIndex);
}

}  // namespace

// A stream of noise, a 5-byte point report, a command packet and a second point report,
// cut into two reads at every position, gives the same packets.
TEST(SerialSplit, SameOutcomeWhereverTheReadIsCut) {
    VersionGuard version(9);
    const std::vector<uint8_t> stream = {0x33, 0x00,                     // noise
                                         0x81, 0x0F, 0x7F, 0x00, 0x00,   // touch 4094,4094
                                         0x0A, 0x03, 0x55, 0x01, 0x02,   // reply
                                         0x80, 0x00, 0x10, 0x00, 0x20};  // lift 32,4030
    std::vector<Ev> want;
    AddSlotDown(&want, 0, 4094, 4094);
    want.push_back(Syn());
    AddSlotUp(&want, 0);
    want.push_back(Syn());
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        TouchRig rig(DEV_RS232);
        rig.dev->BaudRate = 9600;
        HookOn(rig, 0x55);
        ParseSerialPacket(rig.dev.get(), stream.data(), static_cast<int>(cut));
        ParseSerialPacket(rig.dev.get(), stream.data() + cut,
                          static_cast<int>(stream.size() - cut));
        EXPECT_EQ(want, rig.TouchEvents());
        EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
        EXPECT_EQ((std::vector<uint8_t>{0x0A, 0x03, 0x55, 0x01, 0x02}), Reply(rig, 5));
        ExpectIdle(rig);
    }
    // One byte per read.
    TouchRig rig(DEV_RS232);
    rig.dev->BaudRate = 9600;
    HookOn(rig, 0x55);
    for (uint8_t b : stream) Feed(rig, {b});
    EXPECT_EQ(want, rig.TouchEvents());
    EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
}

TEST(SerialSplit, PointLengthByInterfaceAndSpeed) {
    VersionGuard version(9);
    struct Case {
        uint8_t interface;
        uint32_t baud;
        int length;
    };
    const Case cases[] = {{DEV_RS232, 9600, 5},
                          {DEV_PS2, 9600, 5},
                          {DEV_RS232, 115200, 6},
                          {DEV_PS2, 115200, 5},
                          {DEV_RS232, 0, 6}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.interface) << " " << c.baud);
        TouchRig rig(c.interface);
        rig.dev->BaudRate = c.baud;
        Feed(rig, {0xA1, 0x00, 0x10, 0x00, 0x20});
        if (c.length == 5) {
            EXPECT_EQ(6u, rig.TouchEvents().size());  // one new contact
            ExpectIdle(rig);
        } else {
            EXPECT_TRUE(rig.TouchEvents().empty());  // waits for the sixth byte
            Feed(rig, {'B'});                        // contact 1 on RS232
            std::vector<Ev> want;
            AddSlotDown(&want, 1, 32, 4094 - 64);
            want.push_back(Syn());
            EXPECT_EQ(want, rig.TouchEvents());
        }
    }
}

TEST(SerialSplit, Ps2AcknowledgeBytesVanishEverywhere) {
    VersionGuard version(9);
    TouchRig rig(DEV_PS2);
    HookOn(rig, 0x55);
    Feed(rig, {0xFA, 0x81, 0xFA, 0x0F, 0x7F, 0xFA, 0x00, 0x00, 0xFA, 0x0A, 0xFA, 0x03, 0x55, 0xFA,
               0x01, 0x02, 0xFA});
    std::vector<Ev> want;
    AddSlotDown(&want, 0, 4094, 4094);
    want.push_back(Syn());
    EXPECT_EQ(want, rig.TouchEvents());
    EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
    EXPECT_EQ((std::vector<uint8_t>{0x0A, 0x03, 0x55, 0x01, 0x02}), Reply(rig, 5));

    // On RS232 0xFA is an ordinary byte: it starts a point report.
    TouchRig serial(DEV_RS232);
    serial.dev->BaudRate = 9600;
    Feed(serial, {0xFA, 0x00, 0x10, 0x00, 0x20});
    EXPECT_FALSE(serial.TouchEvents().empty());
}

TEST(SerialSplit, CommandLengthByteRules) {
    {
        // 0x0A 0x03: complete after 5 bytes.
        TouchRig rig(DEV_RS232);
        HookOn(rig, 0x55);
        Feed(rig, {0x0A, 0x03, 0x55, 0x01});
        EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
        Feed(rig, {0x02});
        EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
        ExpectIdle(rig);
    }
    {
        // Length byte 0xFF: 64 bytes (not 0xFF + 2 wrapped to 1).
        TouchRig rig(DEV_RS232);
        HookOn(rig, 0x55);
        std::vector<uint8_t> packet = {0x0A, 0xFF, 0x55};
        for (int i = 3; i < 64; ++i) packet.push_back(static_cast<uint8_t>(i));
        Feed(rig, std::vector<uint8_t>(packet.begin(), packet.end() - 1));
        EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
        EXPECT_EQ(64, rig.dev->CmdPacketLen);
        Feed(rig, {packet.back()});
        EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
        EXPECT_EQ(packet, Reply(rig, 64));
        ExpectIdle(rig);
    }
    {
        // Below the cap the length is b + 2: 61 gives 63.
        TouchRig rig(DEV_RS232);
        Feed(rig, {0x0A, 61});
        EXPECT_EQ(63, rig.dev->CmdPacketLen);
    }
    {
        // Length byte 0: a 2-byte packet, complete at once; the next packet is cut cleanly.
        TouchRig rig(DEV_RS232);
        HookOn(rig, 0x55);
        Feed(rig, {0x0A, 0x00});
        ExpectIdle(rig);
        Feed(rig, {0x0A, 0x02, 0x55, 0x09});
        EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
    }
}

// While the tool has switched reports off, a 5-byte report reaches it as a 64-byte reply.
TEST(SerialSplit, PointsToToolGoAsReplies) {
    VersionGuard version(9);
    TouchRig rig(DEV_RS232);
    rig.dev->BaudRate = 9600;
    rig.dev->bPointsToTool = 1;
    HookOn(rig, 0xFE);  // byte 2 of the tool form = 2 x 0x7F
    Feed(rig, {0x81, 0x0F, 0x7F, 0x05, 0x10});
    EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
    EXPECT_EQ((std::vector<uint8_t>{0x0A, 0x83, 0xFE, 0x0F, 0x20, 0x05}), Reply(rig, 6));
    EXPECT_TRUE(rig.TouchEvents().empty());
    ExpectIdle(rig);
}

TEST(SerialSplit, DispatchByInterface) {
    VersionGuard version(9);
    const std::vector<uint8_t> report = {0x81, 0x0F, 0x7F, 0x00, 0x00};
    TouchRig ps2(DEV_PS2);
    DispatchPortBytes(ps2.dev.get(), report.data(), 5);
    EXPECT_FALSE(ps2.TouchEvents().empty());
    TouchRig unknown(DEV_UNKNOWN);
    DispatchPortBytes(unknown.dev.get(), report.data(), 5);
    EXPECT_TRUE(unknown.TouchEvents().empty());
    EXPECT_EQ(0, unknown.dev->SerialIndex);
}
