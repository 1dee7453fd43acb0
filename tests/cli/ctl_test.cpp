// tavrinectl: arguments, hostile and merged replies, runs against a stand-in daemon's FIFOs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>

#include <iterator>
#include <sstream>
#include <thread>

#include "core/paths.h"
#include "ctl_reply.h"
#include "ctl_run.h"
#include "ctl_session.h"
#include "support/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testutil::WriteFile;

// The bytes of hex, then text, zero-padded to pad bytes; n copies of a text.
Bytes P(const std::string& hex, const std::string& text = "", size_t pad = 0) {
    Bytes b = testutil::Hex(hex);
    b.insert(b.end(), text.begin(), text.end());
    b.resize(std::max(pad, b.size()), 0);
    return b;
}
Bytes operator+(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }
std::string Repeat(const std::string& text, int n) { return n ? text + Repeat(text, n - 1) : ""; }

// ParseCtlArgs over a command line split at blanks.
int Parse(const std::string& line, CtlOptions* o) {
    std::istringstream split("tavrinectl " + line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
    std::vector<const char*> argv;
    for (const std::string& word : words) argv.push_back(word.c_str());
    char why[256];
    return ParseCtlArgs(int(argv.size()), argv.data(), o, why, sizeof(why));
}

// Command lines and what they set (command, bus, time-out, count, raw bytes), or "!": refused.
TEST(CtlArgs, CommandLines) {
    const std::string bytes64 = "raw" + Repeat(" 5a", 64), commas = "raw" + Repeat(" ,", 300);
    const std::pair<std::string, std::string> cases[] = {
        {"type --serial --timeout 150", "type serial 150 0 "},
        {"--count 3 points", "points serial 2000 3 "},
        {"raw 030141 0x0a,0x2:34 0", "raw auto 2000 0 0301410a023400"},
        {"--timeout 600000 version", "version auto 600000 0 "},
        {bytes64, "raw auto 2000 0 " + Repeat("5a", 64)}, {bytes64 + " 00", "!"},
        {"raw " + std::string(130, '1'), "!"}, {commas, "!"} /* more words than bytes */, {"", "!"},
        {"versions", "!"}, {"--verbose version", "!"}, {"version extra", "!"}, {"raw", "!"},
        {"--usb --serial version", "!"}, {"--timeout", "!"}, {"--timeout 2s version", "!"},
        {"--timeout 600001 version", "!"}, {"--timeout 99999999999999999999 version", "!"},
        {"--count 0 points", "!"}, {"--count 3 version", "!"}, {"--usb points", "!"},
        {"raw 03 1g", "!"},
    };
    const char *const commands[] = {"none", "help", "raw", "version", "model", "type", "points"},
                      *const buses[] = {"auto", "usb", "serial"};
    for (const auto& [line, want] : cases) {
        CtlOptions o;
        const int rc = Parse(line, &o);
        std::ostringstream got;
        got << commands[int(o.command)] << " " << buses[int(o.bus)] << " " << o.timeout_ms << " "
            << o.count << " " << std::hex;
        for (int i = 0; i < o.raw_len; ++i) got << (o.raw[i] >> 4) << (o.raw[i] & 15);
        EXPECT_EQ(want, rc ? "!" : got.str()) << line.substr(0, 40);
    }
}

// Replies and points in one read: the asked reply's offset or -1; cut packets are no packets.
TEST(CtlReply, FindsTheAskedReplyAmongPacketsOfOneRead) {
    const Bytes loop = P("030141", "", 64), version = P("030644", "V1.23"),
                model = P("0A0445", "ABC"), point = P("0A8320084504", "", 64);  // byte 2: 0x20
    const struct { Bytes read; uint8_t header, command; int offset; } cases[] = {
        {version, 0x0A, 0x44, -1}, {loop + loop + version, 0x03, 0x44, 128},
        {version + loop, 0x03, 0x41, 8},
        {point + model, 0x0A, 0x45, 64}, {model + point, 0x0A, 0x45, 0},
        {P("0A8245000000", "", 64), 0x0A, 0x45, -1},  // a point whose X low byte is 0x45
        {P("0301"), 0x03, 0x01, -1}, {P("55034400"), 0x03, 0x44, -1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.offset, FindReply(c.read.data(), int(c.read.size()), c.header, c.command))
            << testing::PrintToString(c.read);
    for (const Bytes& b : {P("0A3E44"), P("03FF4400"), P("0A8301"), P("03"), P("770102")}) {
        const int len = CtlPacketLength(b.data(), int(b.size()));
        EXPECT_TRUE(len >= 1 && len <= int(b.size())) << len;
    }
    CtlPoint p;
    EXPECT_TRUE(CtlPacketLength(P("0A0233010A0141").data(), 7) == 4 &&
                DecodeToolPoint(P("0A0433070132").data(), 6, &p) == -1 &&
                DecodeToolPoint(P("0A83200840").data(), 5, &p) == -1);
}

// A reply's text: bounded by length byte, read, NUL, 63 characters and buffer; bytes escaped.
TEST(CtlReply, TextOfIdentificationReplies) {
    const struct { Bytes reply; size_t size; std::string text; } cases[] = {
        {P("030946", "PCAP6555", 64), 300, "PCAP6555"}, {P("0A0445", "ABCDE"), 300, "ABC"},
        {P("0A0645", "A") + P("00", "CDE"), 300, "A"}, {P("0A3E46", "XY"), 300, "XY"},
        {P("0A0544", "A") + P("1BFF", "B"), 300, "A\\x1b\\xffB"},
        {P("036545", std::string(100, 'a')), 300, std::string(63, 'a')},
        {P("0A0544", "AB") + P("01", "C"), 5, "AB"}, {P("0A0544", "ABCD"), 3, "AB"},
        {P("03FF44", std::string(252, '\x80')), 4 * kCtlTextMax + 1, Repeat("\\x80", 63)},
    };
    for (const auto& c : cases) {
        std::vector<char> text(c.size, 'z');
        ReplyText(c.reply.data(), int(c.reply.size()), text.data(), c.size);
        EXPECT_EQ(c.text, text.data());
    }
}

// Stand-in daemon 1 answers after a stale reply, 0 never reads, 2 is a plain file, 3 is gone.
TEST(CtlRun, CutMergedStaleRepliesAndAGoneDaemon) {
    const Bytes close = P("", "close"), stale = P("030544", "OLD!"), version = P("030144");
    Bytes five = P("0A02330055");  // the switch reply, a stray byte, five points in one write
    for (uint8_t i = 0; i < 5; ++i)  // the last one lifted
        five = five + Bytes{0x0A, uint8_t(0x83 - (i == 4)), uint8_t(2 * i)} + P("011002", "", 61);
    const struct {
        std::string line; int daemon; Bytes reply; std::vector<Bytes> sent; int status;
        std::string text;
    } cases[] = {
        {"version", 1, P("030544", "S2.0"), {version}, kCtlOk, "S2.0\n"},
        {"points --count 5", 1, five, {P("0A023400"), P("0A023401")}, kCtlOk,  // on, then off
         "down x=256 y=528\ndown x=258 y=528\ndown x=260 y=528\ndown x=262 y=528\n"
         "up x=264 y=528\n"},
        {"--timeout 5000 version", 1, close, {version}, kCtlNoDaemon, "the daemon closed it"},
        {"raw 03 01 41", 0, {}, {}, kCtlNoAnswer, "nobody reads"},
        {"type", 2, {}, {}, kCtlNoDaemon, "not a FIFO"},
        {"model", 3, {}, {}, kCtlNoDaemon, "is gone"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        testutil::TempDir dir;
        const std::string pid = c.daemon == 3 ? "2147483647" : std::to_string(getpid());
        ASSERT_TRUE(WriteFile(PidFilePath(), pid + std::string(" \0", 2)));
        ASSERT_TRUE(!mkfifo(PipeInPath(), 0622) && (c.daemon == 2 ? WriteFile(PipeOutPath(), "x")
                                                                  : !mkfifo(PipeOutPath(), 0644)));
        UniqueFd din, dout;
        if (c.daemon == 1) {
            din.reset(open(PipeInPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
            dout.reset(open(PipeOutPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
            ASSERT_EQ(ssize_t(stale.size()), write(dout.get(), stale.data(), stale.size()));
        }
        std::vector<Bytes> sent;
        const Bytes& reply = c.reply;
        std::thread daemon([&] {
            uint8_t buf[65];
            pollfd p = {din.get(), POLLIN, 0};
            while (sent.size() < c.sent.size() && poll(&p, 1, 1000) > 0) {
                sent.emplace_back(buf, buf + std::max<ssize_t>(read(din.get(), buf, 65), 0));
                if (sent.size() > 1) continue;
                if (reply == close) dout.reset();
                else EXPECT_EQ(write(dout.get(), &reply[0], reply.size()), ssize_t(reply.size()));
            }
        });
        CtlOptions o;
        char* text = nullptr;  // standard output and error
        size_t size = 0;
        FILE* stream = open_memstream(&text, &size);
        EXPECT_EQ(c.status, Parse(c.line, &o) ? -1 : RunCtl(o, stream, stream, nullptr));
        fclose(stream);
        EXPECT_TRUE(c.status ? strstr(text, c.text.c_str()) != nullptr : c.text == text) << text;
        free(text);
        daemon.join();
        EXPECT_EQ(c.sent, sent);
    }
}

}  // namespace
