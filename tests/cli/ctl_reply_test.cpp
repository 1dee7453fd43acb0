#include "ctl_reply.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Padded(Bytes b, size_t size) {
    b.resize(size, 0);
    return b;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

std::string Text(const Bytes& reply, size_t size = 300) {
    std::vector<char> text(size);
    ReplyText(reply.data(), static_cast<int>(reply.size()), text.data(), text.size());
    return text.data();
}

// Replies as the daemon writes them to the output pipe, alone and back to back in one read.
TEST(CtlReply, FindsTheAskedReplyAmongPacketsOfOneRead) {
    const Bytes usb_loopback = Padded({0x03, 0x01, 0x41}, 64);            // whole report
    const Bytes usb_version = {0x03, 0x06, 0x44, 'V', '1', '.', '2', '3'};  // merged reply
    const Bytes usb_type_report = Padded({0x03, 0x09, 0x46, 'P', 'C', 'A', 'P', '6', '5', '5', '5'}, 64);
    const Bytes serial_model = {0x0A, 0x04, 0x45, 'A', 'B', 'C'};
    const Bytes serial_point = Padded({0x0A, 0x83, 0x20, 0x08, 0x45, 0x04}, 64);  // byte 2 0x20
    struct Case {
        Bytes read;
        uint8_t header;
        uint8_t command;
        int offset;
    } cases[] = {
        {usb_version, 0x03, 0x44, 0},
        {usb_version, 0x0A, 0x44, -1},                      // other header
        {usb_version, 0x03, 0x45, -1},                      // other command
        {Concat({usb_loopback, usb_version}), 0x03, 0x44, 64},
        {Concat({usb_version, usb_loopback}), 0x03, 0x41, 8},
        {Concat({usb_version, usb_type_report}), 0x03, 0x46, 8},
        {Concat({usb_loopback, usb_loopback, usb_version}), 0x03, 0x44, 128},
        {Concat({serial_point, serial_model}), 0x0A, 0x45, 64},
        {Concat({serial_model, serial_point}), 0x0A, 0x45, 0},
        // A point packet whose X low byte equals the asked command is no reply.
        {Padded({0x0A, 0x82, 0x45, 0x00, 0x00, 0x00}, 64), 0x0A, 0x45, -1},
        {Bytes{0x03, 0x01}, 0x03, 0x01, -1},               // too short to hold a command
        {Bytes{0x55, 0x03, 0x44, 0x00}, 0x03, 0x44, -1},   // unknown first byte: read skipped
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        const Case& c = cases[i];
        EXPECT_EQ(FindReply(c.read.data(), static_cast<int>(c.read.size()), c.header, c.command),
                  c.offset)
            << "case " << i;
    }
}

TEST(CtlReply, PacketLengthNeverPassesTheRead) {
    const Bytes cases[] = {
        {0x0A, 0x3E, 0x44},      // length byte says 64, three bytes there
        {0x03, 0xFF, 0x44, 0x00},
        {0x0A, 0x83, 0x01},
        {0x03},
        {0x77, 0x01, 0x02},
    };
    for (const Bytes& b : cases) {
        int len = CtlPacketLength(b.data(), static_cast<int>(b.size()));
        EXPECT_GE(len, 1);
        EXPECT_LE(len, static_cast<int>(b.size()));
    }
    // The switch reply 0A 02 33 xx is four bytes long, whatever follows.
    const Bytes serial_reply = {0x0A, 0x02, 0x33, 0x01, 0x0A, 0x01, 0x41};
    EXPECT_EQ(CtlPacketLength(serial_reply.data(), 7), 4);
}

TEST(CtlReply, TextOfIdentificationReplies) {
    const struct {
        Bytes reply;
        std::string text;
    } cases[] = {
        {{0x03, 0x06, 0x44, 'V', '1', '.', '2', '3'}, "V1.23"},
        // The whole 64-byte report of a capacitive controller: the text ends at its length.
        {Padded({0x03, 0x09, 0x46, 'P', 'C', 'A', 'P', '6', '5', '5', '5'}, 64), "PCAP6555"},
        {{0x0A, 0x04, 0x45, 'A', 'B', 'C', 'D', 'E'}, "ABC"},  // length byte 4: three bytes
        {{0x0A, 0x06, 0x45, 'A', 0x00, 'C', 'D', 'E'}, "A"},   // stops at the first 0 byte
        {Padded({0x03, 0x01, 0x44}, 64), ""},                    // answered, no text
        {{0x0A, 0x3E, 0x46, 'X', 'Y'}, "XY"},  // a length past the read is cut at the read
        // Bytes that are not printable are shown escaped, never written raw to a terminal.
        {{0x0A, 0x05, 0x44, 'A', 0x1B, 0xFF, 'B'}, "A\\x1b\\xffB"},
    };
    for (const auto& c : cases) EXPECT_EQ(Text(c.reply), c.text) << c.text;
}

TEST(CtlReply, TextIsBoundedTo63BytesAndToTheCallersBuffer) {
    Bytes reply = {0x03, 101, 0x45};
    for (int i = 0; i < 100; ++i) reply.push_back(static_cast<uint8_t>('a' + i % 26));
    std::string text = Text(reply);
    EXPECT_EQ(text.size(), 63u);
    EXPECT_EQ(text.substr(0, 3), "abc");
    // A small buffer gets whole characters only and a terminating NUL.
    EXPECT_EQ(Text({0x0A, 0x05, 0x44, 'A', 'B', 0x01, 'C'}, 5), "AB");
    EXPECT_EQ(Text({0x0A, 0x05, 0x44, 'A', 'B', 'C', 'D'}, 3), "AB");
    // Even the worst case (63 escaped bytes) fits the tool's own buffer.
    Bytes hostile = {0x03, 0xFF, 0x44};
    hostile.resize(255, 0x80);
    std::vector<char> buffer(4 * kCtlTextMax + 1, 'z');
    EXPECT_EQ(ReplyText(hostile.data(), static_cast<int>(hostile.size()), buffer.data(),
                        buffer.size()),
              kCtlTextMax);
    EXPECT_EQ(std::string(buffer.data()).size(), 4u * kCtlTextMax);
}

// Points are decoded end to end by the run tests; here what is not a whole point.
TEST(CtlReply, OnlyWholePointPacketsDecode) {
    CtlPoint point;
    const Bytes reply = {0x0A, 0x04, 0x33, 0x07, 0x01, 0x32};
    EXPECT_EQ(DecodeToolPoint(reply.data(), 6, &point), -1);
    const Bytes short_point = {0x0A, 0x83, 0x20, 0x08, 0x40};
    EXPECT_EQ(DecodeToolPoint(short_point.data(), 5, &point), -1);
}

}  // namespace
