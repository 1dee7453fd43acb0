#include "ctl_reply.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// The bytes of hex (two digits a byte), then text, zero-padded to pad bytes.
Bytes P(const std::string& hex, const std::string& text = "", size_t pad = 0) {
    Bytes b;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) b.push_back(std::stoi(hex.substr(i, 2), 0, 16));
    b.insert(b.end(), text.begin(), text.end());
    if (b.size() < pad) b.resize(pad, 0);
    return b;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Replies as the daemon writes them to the output pipe, alone and back to back in one
// read: the offset of the asked one (header, command), or -1.
TEST(CtlReply, FindsTheAskedReplyAmongPacketsOfOneRead) {
    const Bytes loop = P("030141", "", 64), version = P("030644", "V1.23");  // whole, merged
    const Bytes type = P("030946", "PCAP6555", 64), model = P("0A0445", "ABC");
    const Bytes point = P("0A8320084504", "", 64);  // a serial point: byte 2 is 0x20
    const struct {
        Bytes read;
        uint8_t header, command;
        int offset;
    } cases[] = {
        {version, 0x03, 0x44, 0},          {version, 0x0A, 0x44, -1},
        {version, 0x03, 0x45, -1},         {loop + version, 0x03, 0x44, 64},
        {version + loop, 0x03, 0x41, 8},   {version + type, 0x03, 0x46, 8},
        {loop + loop + version, 0x03, 0x44, 128},
        {point + model, 0x0A, 0x45, 64},   {model + point, 0x0A, 0x45, 0},
        {P("0A8245000000", "", 64), 0x0A, 0x45, -1},  // a point whose X low byte is 0x45
        {P("0301"), 0x03, 0x01, -1},                  // too short to hold a command
        {P("55034400"), 0x03, 0x44, -1},              // unknown first byte: read skipped
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.offset, FindReply(c.read.data(), int(c.read.size()), c.header, c.command))
            << testing::PrintToString(c.read);
    }
    for (const Bytes& b : {P("0A3E44"), P("03FF4400"), P("0A8301"), P("03"), P("770102")}) {
        const int len = CtlPacketLength(b.data(), int(b.size()));
        EXPECT_TRUE(len >= 1 && len <= int(b.size())) << len;  // never past the read
    }
    EXPECT_EQ(4, CtlPacketLength(P("0A0233010A0141").data(), 7));  // the switch reply
    CtlPoint point_out;
    EXPECT_EQ(-1, DecodeToolPoint(P("0A0433070132").data(), 6, &point_out));  // not a point
    EXPECT_EQ(-1, DecodeToolPoint(P("0A83200840").data(), 5, &point_out));     // cut short
}

// The text of a reply: up to its length byte, the read and the first 0 byte, at most 63
// characters, non-printable bytes escaped, and whole characters in the caller's buffer.
TEST(CtlReply, TextOfIdentificationReplies) {
    std::string escaped;  // 63 bytes 0x80 fill the tool's own buffer
    for (int i = 0; i < kCtlTextMax; ++i) escaped += "\\x80";
    const struct {
        Bytes reply;
        size_t size;
        std::string text;
    } cases[] = {
        {P("030644", "V1.23"), 300, "V1.23"},
        {P("030946", "PCAP6555", 64), 300, "PCAP6555"},
        {P("0A0445", "ABCDE"), 300, "ABC"},
        {P("0A0645", "A") + P("00") + P("", "CDE"), 300, "A"},
        {P("030144", "", 64), 300, ""},
        {P("0A3E46", "XY"), 300, "XY"},
        {P("0A0544", "A") + P("1BFF") + P("", "B"), 300, "A\\x1b\\xffB"},
        {P("036545", std::string(100, 'a')), 300, std::string(63, 'a')},
        {P("0A0544", "AB") + P("01") + P("", "C"), 5, "AB"},
        {P("0A0544", "ABCD"), 3, "AB"},
        {P("03FF44", std::string(252, '\x80')), 4 * kCtlTextMax + 1, escaped},
    };
    for (const auto& c : cases) {
        std::vector<char> text(c.size, 'z');
        ReplyText(c.reply.data(), int(c.reply.size()), text.data(), c.size);
        EXPECT_EQ(c.text, text.data());
    }
}

}  // namespace
