// tavrinectl's argument and reply parsing, and runs against a stand-in daemon behind real
// FIFOs for the replies the VM scenario does not play: cut, merged, stale and hostile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <map>
#include <sstream>
#include <thread>

#include "core/paths.h"
#include "ctl_args.h"
#include "ctl_reply.h"
#include "ctl_run.h"
#include "ctl_session.h"
#include "support/test_util.h"

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
// argv of a command line split at blanks (the words kept in *words).
std::vector<const char*> Argv(const std::string& line, std::vector<std::string>* words) {
    std::istringstream split(line);
    for (std::string word; split >> word;) words->push_back(word);
    std::vector<const char*> argv = {"tavrinectl"};
    for (const std::string& word : *words) argv.push_back(word.c_str());
    return argv;
}

// Command lines and what they set (command, bus, time-out, count, raw bytes in hex), or "!"
// and a piece of the reason they are refused for.
TEST(CtlArgs, CommandLines) {
    std::string bytes64 = "raw", hex64, commas = "raw";
    for (int i = 0; i < 64; ++i) bytes64 += " 5a", hex64 += "5a";
    for (int i = 0; i < 300; ++i) commas += " ,";  // more words than bytes, none a byte
    const std::pair<std::string, std::string> cases[] = {
        {"type --serial --timeout 150", "type serial 150 0 "}, {"points", "points serial 2000 0 "},
        {"--timeout 600000 version", "version auto 600000 0 "}, {"version --help", "help auto 2000 0 "},
        {"raw 030141", "raw auto 2000 0 030141"}, {"raw 0x0a,0x2:34 0", "raw auto 2000 0 0a023400"},
        {"raw A FF --timeout 5", "raw auto 5 0 0aff"}, {bytes64, "raw auto 2000 0 " + hex64},
        {bytes64 + " 00", "!at most 64"}, {"raw " + std::string(130, '1'), "!at most 64"}, {commas, "!"},
        {"", "!no command"}, {"versions", "!unknown command"}, {"--verbose version", "!unknown option"},
        {"version extra", "!unexpected argument"}, {"--usb --serial version", "!exclude"},
        {"--timeout", "!--timeout needs"}, {"--timeout 600001 version", "!--timeout needs"},
        {"--timeout 99999999999999999999 version", "!--timeout needs"},
        {"--timeout 2s version", "!--timeout needs"},
        {"--count 0 points", "!--count needs a number"}, {"--count 3 version", "!only goes with points"},
        {"--usb points", "!serial"}, {"raw", "!no bytes"}, {"raw 03 1g", "!not a hexadecimal byte: \"1g\""},
    };
    const char* const commands[] = {"none", "help", "raw", "version", "model", "type", "points"};
    const char* const buses[] = {"auto", "usb", "serial"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first.substr(0, 40));
        std::vector<std::string> words;
        std::vector<const char*> argv = Argv(c.first, &words);
        CtlOptions o;
        char why[256] = "";
        const int rc = ParseCtlArgs(int(argv.size()), argv.data(), &o, why, sizeof(why));
        std::ostringstream got;
        got << commands[int(o.command)] << " " << buses[int(o.bus)] << " " << o.timeout_ms << " " << o.count
            << " " << std::hex;
        for (int i = 0; i < o.raw_len; ++i) got << (o.raw[i] >> 4) << (o.raw[i] & 15);
        const bool refused = c.second[0] == '!';
        EXPECT_EQ(refused ? -1 : 0, rc) << why;
        EXPECT_TRUE(refused ? strstr(why, c.second.c_str() + 1) != nullptr : got.str() == c.second)
            << (refused ? why : got.str());
    }
}

// Replies as the daemon writes them, alone and back to back in one read: the offset of the
// asked one (header, command) or -1, and no packet length past the read.
TEST(CtlReply, FindsTheAskedReplyAmongPacketsOfOneRead) {
    const Bytes loop = P("030141", "", 64), version = P("030644", "V1.23"), type = P("030946", "PCAP6555", 64);
    const Bytes model = P("0A0445", "ABC"), point = P("0A8320084504", "", 64);  // point byte 2: 0x20
    const struct { Bytes read; uint8_t header, command; int offset; } cases[] = {
        {version, 0x03, 0x44, 0},          {version, 0x0A, 0x44, -1},
        {version, 0x03, 0x45, -1},         {loop + version, 0x03, 0x44, 64},
        {version + loop, 0x03, 0x41, 8},   {version + type, 0x03, 0x46, 8},
        {loop + loop + version, 0x03, 0x44, 128},
        {point + model, 0x0A, 0x45, 64},   {model + point, 0x0A, 0x45, 0},
        {P("0A8245000000", "", 64), 0x0A, 0x45, -1},  // a point whose X low byte is 0x45
        {P("0301"), 0x03, 0x01, -1},       {P("55034400"), 0x03, 0x44, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.offset, FindReply(c.read.data(), int(c.read.size()), c.header, c.command))
            << testing::PrintToString(c.read);
    }
    for (const Bytes& b : {P("0A3E44"), P("03FF4400"), P("0A8301"), P("03"), P("770102")}) {
        const int len = CtlPacketLength(b.data(), int(b.size()));
        EXPECT_TRUE(len >= 1 && len <= int(b.size())) << len;
    }
    EXPECT_EQ(4, CtlPacketLength(P("0A0233010A0141").data(), 7));
    CtlPoint point_out;
    EXPECT_EQ(-1, DecodeToolPoint(P("0A0433070132").data(), 6, &point_out));  // not a point
    EXPECT_EQ(-1, DecodeToolPoint(P("0A83200840").data(), 5, &point_out));     // cut short
}

// A reply's text: up to its length byte, the read and the first 0 byte, at most 63
// characters, non-printable bytes escaped, whole characters in the caller's buffer.
TEST(CtlReply, TextOfIdentificationReplies) {
    std::string escaped;  // 63 bytes 0x80 fill the tool's own buffer
    for (int i = 0; i < kCtlTextMax; ++i) escaped += "\\x80";
    const struct { Bytes reply; size_t size; std::string text; } cases[] = {
        {P("030946", "PCAP6555", 64), 300, "PCAP6555"}, {P("0A0445", "ABCDE"), 300, "ABC"},
        {P("0A0645", "A") + P("00") + P("", "CDE"), 300, "A"}, {P("030144", "", 64), 300, ""},
        {P("0A3E46", "XY"), 300, "XY"}, {P("0A0544", "A") + P("1BFF") + P("", "B"), 300, "A\\x1b\\xffB"},
        {P("036545", std::string(100, 'a')), 300, std::string(63, 'a')},
        {P("0A0544", "AB") + P("01") + P("", "C"), 5, "AB"}, {P("0A0544", "ABCD"), 3, "AB"},
        {P("03FF44", std::string(252, '\x80')), 4 * kCtlTextMax + 1, escaped},
    };
    for (const auto& c : cases) {
        std::vector<char> text(c.size, 'z');
        ReplyText(c.reply.data(), int(c.reply.size()), text.data(), c.size);
        EXPECT_EQ(c.text, text.data());
    }
}

// Runs against a stand-in daemon: a PID file, the FIFOs and (daemon 1) a thread holding both
// open as the daemon does that answers each packet it reads from the map (one write per
// element; "close" closes the output end, "off" marks the points switched back); stale waits
// in the output FIFO beforehand. daemon 0: nobody reads the FIFOs; 2: a plain file at the
// output path; 3: the PID file names a process that has exited.
TEST(CtlRun, CutMergedStaleRepliesAndAGoneDaemon) {
    const Bytes on = P("0A023400"), off = P("0A023401");  // points to the tool, and back
    Bytes five = P("0A02330055");  // the switch reply, a stray byte, five points in one write
    for (uint8_t i = 0; i < 5; ++i) {
        five = five + Bytes{0x0A, uint8_t(0x83 - (i == 4)), uint8_t(2 * i)} + P("011002", "", 61);
    }
    const struct {
        std::string line; int daemon; Bytes stale;
        std::map<Bytes, std::vector<Bytes>> answers; int status; std::string out, err;
    } cases[] = {
        {"--usb model", 1, {}, {{P("030145"), {P("030141", "", 64), P("030645", "M-1\aZ")}}}, kCtlOk,
         "M-1\\x07Z\n", ""},
        {"version", 1, P("0A0544", "OLD!"), {{P("0A0144"), {P("0A0544", "S2.0")}}}, kCtlOk, "S2.0\n", ""},
        {"points --count 5", 1, {}, {{on, {five}}, {off, {P("", "off")}}}, kCtlOk,
         "down x=256 y=528\ndown x=258 y=528\ndown x=260 y=528\ndown x=262 y=528\nup x=264 y=528\n", ""},
        {"points --count 2 --timeout 200", 1, {},
         {{on, {P("0A023300"), P("0A8320084004", "", 64)}}, {off, {P("", "off")}}}, kCtlNoAnswer,
         "down x=2080 y=1088\n", "no point within 200 ms (1 of 2)"},
        {"--timeout 5000 --usb version", 1, {}, {{P("030144"), {P("", "close")}}}, kCtlNoDaemon, "",
         "the daemon closed it"},
        {"raw 03 01 41", 0, {}, {}, kCtlNoAnswer, "", "nobody reads"},
        {"type", 2, {}, {}, kCtlNoDaemon, "", "not a FIFO"},
        {"model", 3, {}, {}, kCtlNoDaemon, "", "is gone"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        testutil::TempDir dir;
        const pid_t gone = c.daemon == 3 ? fork() : getpid();
        if (gone == 0) _exit(0);
        if (c.daemon == 3) waitpid(gone, nullptr, 0);
        ASSERT_TRUE(testutil::WriteFile(PidFilePath(), std::to_string(gone) + std::string(" \0", 2)));
        ASSERT_EQ(0, mkfifo(PipeInPath(), 0622) | mkfifo(PipeOutPath(), 0644));
        ASSERT_TRUE(c.daemon != 2 || (unlink(PipeOutPath()) == 0 && testutil::WriteFile(PipeOutPath(), "x")));
        UniqueFd din, dout;
        std::atomic<bool> running{c.daemon == 1}, switched_back{false};
        if (c.daemon == 1) {
            din.reset(open(PipeInPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
            dout.reset(open(PipeOutPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
            ASSERT_EQ(ssize_t(c.stale.size()), write(dout.get(), c.stale.data(), c.stale.size()));
        }
        std::thread daemon([&] {
            uint8_t buf[65];
            struct pollfd p = {din.get(), POLLIN, 0};
            while (running) {
                const ssize_t n = poll(&p, 1, 20) > 0 ? read(din.get(), buf, sizeof(buf)) : 0;
                const auto found = c.answers.find(Bytes(buf, buf + std::max<ssize_t>(n, 0)));
                if (n <= 0 || found == c.answers.end()) continue;
                for (const Bytes& r : found->second) {
                    if (r == P("", "close")) dout.reset();
                    else if (r == P("", "off")) switched_back = true;
                    else EXPECT_EQ(ssize_t(r.size()), write(dout.get(), r.data(), r.size()));
                }
            }
        });
        std::vector<std::string> words;
        std::vector<const char*> argv = Argv(c.line, &words);
        CtlOptions options;
        char why[256], *out = nullptr, *err = nullptr;
        size_t out_size, err_size;
        EXPECT_EQ(0, ParseCtlArgs(int(argv.size()), argv.data(), &options, why, sizeof(why)));
        FILE *out_file = open_memstream(&out, &out_size), *err_file = open_memstream(&err, &err_size);
        const int64_t start = testutil::NowMs();
        EXPECT_EQ(c.status, RunCtl(options, out_file, err_file, nullptr));
        EXPECT_LT(testutil::NowMs() - start, 2000);  // a gone daemon is not waited out
        fclose(out_file), fclose(err_file);
        EXPECT_EQ(c.out, out);
        EXPECT_NE(std::string(err).find(c.err), std::string::npos) << err;
        free(out), free(err);
        EXPECT_TRUE(c.line.find("points") != 0 || testutil::WaitUntil([&] { return switched_back.load(); }, 1000));
        running = false;
        daemon.join();
    }
}

}  // namespace
