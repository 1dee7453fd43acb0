// The probe's reply readers over real descriptors: ReadDeviceResponse (a SOCK_SEQPACKET
// socketpair keeps the boundaries of the writes, so each piece written below is exactly
// one read of the reader), the IAP-type query, and the serial reply parser with
// WaitDeviceResponse (a stream socketpair, non-blocking as serial ports are opened).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <atomic>
#include <functional>
#include <thread>

#include "core/environment.h"
#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"
#include "discovery/serial_scan.h"
#include "support/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Hex(const std::string& hex) {
    Bytes b;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) b.push_back(std::stoi(hex.substr(i, 2), 0, 16));
    return b;
}

// A socketpair: [0] the port (non-blocking for a stream, as serial ports are), [1] its peer.
std::pair<UniqueFd, UniqueFd> Pair(int type) {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds));
    if (type == SOCK_STREAM) fcntl(fds[0], F_SETFL, O_NONBLOCK);
    return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

// Writes every piece as one packet, runs the reader once; the result and the first
// max(result, 0) bytes of the reply.
std::pair<int, Bytes> ReadPieces(const std::vector<Bytes>& pieces, uint8_t serial, uint8_t cmd) {
    auto pair = Pair(SOCK_SEQPACKET);
    for (const Bytes& p : pieces) EXPECT_EQ(ssize_t(p.size()), write(pair.second.get(), p.data(), p.size()));
    ProbeContext context;
    memset(&context, 0xCC, sizeof(context));  // the reader must not rely on a clean buffer
    context.bSerialFraming = serial;
    const int result = ReadDeviceResponse(&context, pair.first.get(), context.ReplyBuf, cmd);
    return {result, Bytes(context.ReplyBuf, context.ReplyBuf + std::max(result, 0))};
}

// One run of the reader (command 0x39): the framing rules of serial (0x0A) and USB (0x03)
// replies, the leading-byte rule, the tries an abandoned packet costs, and fragments.
TEST(ReadDeviceResponse, Replies) {
    const std::string longest = "0A3E" + std::string(62 * 2, '5');  // length 62: 64 bytes
    const std::string junk = "202122", wrong = "0303550000";
    const struct {
        uint8_t serial;
        std::vector<std::string> pieces;
        int result;
        std::string reply;
    } cases[] = {
        {1, {"0A0439000100"}, 6, "0A0439000100"},
        {1, {"0A0439", "000100"}, -1, ""},           // a second read led by 0x00 is lost
        {1, {"0A0439", "030100"}, 6, "0A0439030100"},  // led by a header byte: appended
        {1, {"000A023900"}, 4, "0A023900"},          // a leading 0x00 dropped
        {1, {"550A0139"}, 3, "0A0139"},              // and one of 0x10 or more
        {1, {"050A0139"}, -1, ""},                   // 0x01-0x0F kept: no packet
        {1, {longest}, 64, longest},
        {1, {"0A3F3900"}, -1, ""},  // length byte 63 is illegal
        {1, {junk, junk, junk, junk, junk, "0A0139"}, 3, "0A0139"},  // ignored: no try
        {1, {"0A024207"}, 4, "0A024207"},  // another command: the caller judges it
        {1, {}, -1, ""},
        {0, {wrong, wrong, "0303390100"}, 4, "03023900"},  // two abandoned first packets
        {0, {wrong, wrong, wrong, "0303390100"}, -1, ""},  // three use every try
        {0, {"0306390102030405"}, 8, "0306390102030405"},  // length above 4: all of it
        {0, {"000306390102030405"}, 8, "0306390102030405"},
        {0, {"03043905D1D2", "030400D3D4D5"}, 8, "030639D1D2D3D4D5"},  // two fragments
        {0, {"03043905D1D2", "030455D3D4D5"}, -1, ""},  // a following one carries 0x00
        {0, {"030400D3D4D5"}, -1, ""},                    // and needs a first one
        {0, {"03023900"}, 3, "030139"},                   // zero-data reply
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.pieces));
        std::vector<Bytes> pieces;
        for (const std::string& p : c.pieces) pieces.push_back(Hex(p));
        EXPECT_EQ(std::make_pair(c.result, Hex(c.reply)), ReadPieces(pieces, c.serial, 0x39));
    }
    // A serial reply whose every byte after the first is a header byte survives any split
    // into two or three reads.
    const Bytes hdr = Hex("0A030A030A");
    for (size_t c1 = 1; c1 < hdr.size(); ++c1) {
        for (size_t c2 = c1; c2 < hdr.size(); ++c2) {
            std::vector<Bytes> pieces = {Bytes(hdr.begin(), hdr.begin() + c1)};
            if (c2 > c1) pieces.push_back(Bytes(hdr.begin() + c1, hdr.begin() + c2));
            pieces.push_back(Bytes(hdr.begin() + c2, hdr.end()));
            EXPECT_EQ(std::make_pair(5, hdr), ReadPieces(pieces, 1, 0x0A)) << c1 << c2;
        }
    }
    auto closed = Pair(SOCK_SEQPACKET);  // a closed peer reads 0 bytes: the read's result
    closed.second.reset();
    ProbeContext context = {};
    EXPECT_EQ(0, ReadDeviceResponse(&context, closed.first.get(), context.ReplyBuf, 0x39));
}

// The IAP-type query written (serial or USB framing, with a zero byte at each end on an
// old kernel), and the reply queued before the call judged: 0 for a boot loader.
TEST(IsItBFW, QueryBytesAndReplies) {
    const struct {
        int serial, old_kernel;
        std::string reply;
        int result;
        std::string written;
    } cases[] = {
        {1, 0, "0A0439010000", 0, "0A023902"},       {1, 0, "0A0439000200", 0, "0A023902"},
        {1, 1, "0A0439010000", 0, "000A02390200"},   {0, 0, "03053900010000", 0, "03023902"},
        {1, 0, "0A0439000000", -1, "0A023902"},      {1, 0, "0A024100", -1, "0A023902"},
        {1, 0, "0A0400010100", -1, "0A023902"},      {1, 0, "", -1, "0A023902"},
    };
    const int32_t saved = bOldKernel;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        auto pair = Pair(SOCK_STREAM);
        fcntl(pair.second.get(), F_SETFL, O_NONBLOCK);
        const Bytes reply = Hex(c.reply);
        ASSERT_EQ(ssize_t(reply.size()), write(pair.second.get(), reply.data(), reply.size()));
        bOldKernel = c.old_kernel;
        ProbeContext context = {};
        context.bSerialFraming = uint8_t(c.serial);
        EXPECT_EQ(c.result, IsItBFW(&context, pair.first.get(), c.serial));
        uint8_t buf[128];
        const ssize_t n = read(pair.second.get(), buf, sizeof(buf));
        EXPECT_EQ(Hex(c.written), Bytes(buf, buf + std::max<ssize_t>(n, 0)));
    }
    bOldKernel = saved;
}

// Streams fed in two calls cut at every position and one byte per call: the wait ends
// exactly at the last byte of an awaited reply (the loop-back, or an IAP reply from a boot
// loader), never for other packets or an application-firmware IAP reply.
TEST(Parse232CmdPacket, StopsAtTheAwaitedReplyWhereverTheStreamIsCut) {
    const std::pair<std::string, bool> cases[] = {
        {"550A0141", true},     {"0A0439010000", true},  {"0A0439000200", true},
        {"0A03390000", false},   {"0A024200", false},     {"330A03390000770A0141", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const Bytes s = Hex(c.first);
        const int n = int(s.size());
        for (int cut = 0; cut <= n; ++cut) {
            ResetSerialReplyParser();
            EXPECT_EQ(c.second && cut == n, Parse232CmdPacket(s.data(), cut)) << cut;
            EXPECT_EQ(c.second && cut < n, Parse232CmdPacket(s.data() + cut, n - cut)) << cut;
        }
        ResetSerialReplyParser();
        for (int i = 0; i < n; ++i) EXPECT_EQ(c.second && i + 1 == n, Parse232CmdPacket(&s[i], 1));
    }
}

// Bytes queued before the wait, and bytes a thread sends 20 ms into it (during the pause
// after the first read): 0 once the loop-back reply is whole.
TEST(WaitDeviceResponse, ReplyNoReplyAndSplitReply) {
    const struct {
        std::string first, late;
        int result;
    } cases[] = {{"", "", -1}, {"000A0141", "", 0}, {"0A01", "41", 0}, {"0A024200", "", -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first + "|" + c.late);
        auto pair = Pair(SOCK_STREAM);
        ResetSerialReplyParser();
        const Bytes first = Hex(c.first), late = Hex(c.late);
        EXPECT_EQ(ssize_t(first.size()), write(pair.second.get(), first.data(), first.size()));
        std::thread writer([&] {
            usleep(20000);
            EXPECT_EQ(ssize_t(late.size()), write(pair.second.get(), late.data(), late.size()));
        });
        EXPECT_EQ(c.result, WaitDeviceResponse(pair.first.get()));
        writer.join();
    }
}

// A port that keeps delivering bytes that never complete an awaited reply holds each
// reader (ReadDeviceResponse, and WaitDeviceResponse) at most its limit: /dev/zero (never runs dry, never forms a packet), and a peer
// thread sending, over and over, serial packets of illegal length to ReadDeviceResponse
// and packets for another command to WaitDeviceResponse. For the peer only the upper
// bound holds: a writer descheduled on a busy host looks like silence, which ends earlier.
TEST(ReadDeviceResponse, TimeBoundUnderEndlessTraffic) {
    const auto probe = [](uint8_t serial) {
        return [serial](int fd) {
            ProbeContext context = {};
            context.bSerialFraming = serial;
            return ReadDeviceResponse(&context, fd, context.ReplyBuf, 0x41);
        };
    };
    const auto wait = [](int fd) { return ResetSerialReplyParser(), WaitDeviceResponse(fd); };
    const struct {
        std::function<int(int)> reader;
        int limit_ms, slack_ms;
        int type;           // of the socketpair the flood comes through
        std::string flood;  // empty: /dev/zero
    } cases[] = {
        {probe(1), kProbeReadLimitMs, 150, SOCK_STREAM, ""},
        {probe(0), kProbeReadLimitMs, 150, SOCK_STREAM, ""},
        {probe(1), kProbeReadLimitMs, 150, SOCK_SEQPACKET, "0A3F39"},
        {wait, kWaitResponseLimitMs, 300, SOCK_STREAM, ""},
        {wait, kWaitResponseLimitMs, 300, SOCK_STREAM, "0A02420055"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flood + " " + std::to_string(c.limit_ms));
        auto pair = Pair(c.type);
        UniqueFd port(c.flood.empty() ? OpenCloexec("/dev/zero", O_RDONLY) : pair.first.release());
        std::atomic<bool> stop{false};
        const Bytes piece = Hex(c.flood);  // the buffer is filled before the reader starts
        while (!piece.empty() && send(pair.second.get(), piece.data(), piece.size(), MSG_DONTWAIT) > 0) {
        }
        std::thread flood([&] {
            while (!piece.empty() && !stop) {
                if (send(pair.second.get(), piece.data(), piece.size(), MSG_DONTWAIT) < 0) usleep(500);
            }
        });
        const int64_t start = testutil::NowMs();
        EXPECT_EQ(-1, c.reader(port.get()));
        const int64_t ms = testutil::NowMs() - start;
        stop = true;
        flood.join();
        EXPECT_TRUE(!c.flood.empty() || ms >= c.limit_ms - 2) << ms;  // clocks truncated to ms
        EXPECT_LT(ms, c.limit_ms + c.slack_ms);
    }
}

}  // namespace
