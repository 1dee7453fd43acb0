// The probe's reply readers over real descriptors: ReadDeviceResponse (a SOCK_SEQPACKET
// socketpair keeps the boundaries of the writes, so each piece written below is exactly
// one read of the reader), the IAP-type query, and the serial reply parser with
// WaitDeviceResponse (a stream socketpair, non-blocking as serial ports are opened).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/environment.h"
#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"
#include "discovery/serial_scan.h"
#include "support/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kBootLoaderReply = {0x0A, 0x04, 0x39, 0x01, 0x00, 0x00};
const Bytes kAppIAPReply = {0x0A, 0x04, 0x39, 0x00, 0x00, 0x00};

using testutil::NowMs;

struct PacketPair {
    UniqueFd reader;
    UniqueFd writer;
};

PacketPair MakePacketPair(int type = SOCK_SEQPACKET) {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds));
    PacketPair pair;
    pair.reader.reset(fds[0]);
    pair.writer.reset(fds[1]);
    if (type == SOCK_STREAM) fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    return pair;
}

// Keeps the writer's side of a pair full of one piece, over and over, until destroyed.
class EndlessWriter {
  public:
    EndlessWriter(int fd, const Bytes& piece) : fd_(fd), piece_(piece) {
        while (send(fd_, piece_.data(), piece_.size(), MSG_DONTWAIT) > 0) {
        }
        thread_ = std::thread([this] {
            while (!stop_.load()) {
                if (send(fd_, piece_.data(), piece_.size(), MSG_DONTWAIT) < 0) {
                    struct timespec ts = {0, 500000};
                    nanosleep(&ts, nullptr);
                }
            }
        });
    }
    ~EndlessWriter() {
        stop_ = true;
        thread_.join();
    }

  private:
    int fd_;
    Bytes piece_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// How long fn runs, in ms.
template <typename Fn>
long Elapsed(Fn fn) {
    const int64_t start = NowMs();
    fn();
    return NowMs() - start;
}

// Writes every piece as one packet, runs the reader once; the result and the first
// max(result, 0) bytes of the reply.
std::pair<int, Bytes> ReadPieces(const std::vector<Bytes>& pieces, uint8_t serial, uint8_t cmd) {
    PacketPair pair = MakePacketPair();
    for (const Bytes& piece : pieces) {
        EXPECT_EQ(static_cast<ssize_t>(piece.size()),
                  write(pair.writer.get(), piece.data(), piece.size()));
    }
    ProbeContext context;
    memset(&context, 0xCC, sizeof(context));  // the reader must not rely on a clean buffer
    context.bSerialFraming = serial;
    const int result = ReadDeviceResponse(&context, pair.reader.get(), context.ReplyBuf, cmd);
    return {result, Bytes(context.ReplyBuf, context.ReplyBuf + (result > 0 ? result : 0))};
}

// Reads of one run of the reader: the framing rules of serial (0x0A) and USB (0x03)
// replies, the leading-byte rule, the tries an abandoned packet costs, and fragments.
TEST(ReadDeviceResponse, Replies) {
    const uint8_t C = 0x39;
    const Bytes wrong = {0x03, 0x03, 0x55, 0x00, 0x00};
    Bytes longest(64, 0x5A);  // length byte 62 is the largest legal one: 64 bytes in all
    longest[0] = 0x0A;
    longest[1] = 62;
    struct Case {
        const char* what;
        uint8_t serial;
        std::vector<Bytes> pieces;
        int result;
        Bytes reply;
    };
    // clang-format off
    const Case cases[] = {
        {"serial reply in one read", 1, {{0x0A, 0x04, C, 0x00, 0x01, 0x00}}, 6, {0x0A, 0x04, C, 0x00, 0x01, 0x00}},
        {"a second read led by 0x00 loses it and is ignored", 1, {{0x0A, 0x04, C}, {0x00, 0x01, 0x00}}, -1, {}},
        {"a second read led by a header byte is appended whole", 1, {{0x0A, 0x04, C}, {0x03, 0x01, 0x00}}, 6,
         {0x0A, 0x04, C, 0x03, 0x01, 0x00}},
        {"leading 0x00 dropped", 1, {{0x00, 0x0A, 0x02, C, 0x00}}, 4, {0x0A, 0x02, C, 0x00}},
        {"leading 0x10 or more dropped", 1, {{0x55, 0x0A, 0x01, C}}, 3, {0x0A, 0x01, C}},
        {"leading 0x01-0x0F kept: no packet", 1, {{0x05, 0x0A, 0x01, C}}, -1, {}},
        {"serial length byte 62: 64 bytes", 1, {longest}, 64, longest},
        {"serial length byte 63 is illegal", 1, {{0x0A, 0x3F, C, 0x00}}, -1, {}},
        {"ignored packets cost no try", 1, {Bytes{0x20, 0x21, 0x22}, Bytes{0x20, 0x21, 0x22}, Bytes{0x20, 0x21, 0x22},
                                            Bytes{0x20, 0x21, 0x22}, Bytes{0x20, 0x21, 0x22}, {0x0A, 0x01, C}}, 3, {0x0A, 0x01, C}},
        {"serial framing takes another command; the caller judges it", 1, {{0x0A, 0x02, 0x42, 0x07}}, 4, {0x0A, 0x02, 0x42, 0x07}},
        {"silence", 1, {}, -1, {}},
        {"USB: two abandoned first packets leave a try", 0, {wrong, wrong, {0x03, 0x03, C, 0x01, 0x00}}, 4, {0x03, 0x02, C, 0x00}},
        {"USB: three abandoned first packets use every try", 0, {wrong, wrong, wrong, {0x03, 0x03, C, 0x01, 0x00}}, -1, {}},
        {"USB: length byte above 4 is the whole reply", 0, {{0x03, 0x06, C, 1, 2, 3, 4, 5}}, 8, {0x03, 0x06, C, 1, 2, 3, 4, 5}},
        {"USB: the same after a leading 0x00", 0, {{0x00, 0x03, 0x06, C, 1, 2, 3, 4, 5}}, 8, {0x03, 0x06, C, 1, 2, 3, 4, 5}},
        {"USB: two fragments", 0, {{0x03, 0x04, C, 0x05, 0xD1, 0xD2}, {0x03, 0x04, 0x00, 0xD3, 0xD4, 0xD5}}, 8,
         {0x03, 0x06, C, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5}},
        {"USB: a following fragment must carry command 0x00", 0,
         {{0x03, 0x04, C, 0x05, 0xD1, 0xD2}, {0x03, 0x04, 0x55, 0xD3, 0xD4, 0xD5}}, -1, {}},
        {"USB: a following fragment without a first one", 0, {{0x03, 0x04, 0x00, 0xD3, 0xD4, 0xD5}}, -1, {}},
        {"USB: zero-data reply", 0, {{0x03, 0x02, C, 0x00}}, 3, {0x03, 0x01, C}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto out = ReadPieces(c.pieces, c.serial, C);
        EXPECT_EQ(c.result, out.first);
        EXPECT_EQ(c.reply, out.second);
    }
    // A serial reply whose every byte after the first is a header byte survives any split
    // into two or three reads.
    const Bytes hdr = {0x0A, 0x03, 0x0A, 0x03, 0x0A};
    for (size_t c1 = 1; c1 < hdr.size(); ++c1) {
        for (size_t c2 = c1; c2 < hdr.size(); ++c2) {
            SCOPED_TRACE(c1 * 10 + c2);
            std::vector<Bytes> pieces = {Bytes(hdr.begin(), hdr.begin() + c1)};
            if (c2 > c1) pieces.push_back(Bytes(hdr.begin() + c1, hdr.begin() + c2));
            pieces.push_back(Bytes(hdr.begin() + c2, hdr.end()));
            EXPECT_EQ(std::make_pair(5, hdr), ReadPieces(pieces, 1, 0x0A));
        }
    }
    // A closed peer reads 0 bytes: three reads, then the read's own result.
    PacketPair pair = MakePacketPair();
    pair.writer.reset();
    ProbeContext context = {};
    EXPECT_EQ(0, ReadDeviceResponse(&context, pair.reader.get(), context.ReplyBuf, C));
}

// The IAP-type query written, and the reply (queued before the call) judged.
TEST(IsItBFW, QueryBytesAndReplies) {
    struct Case {
        const char* what;
        int serial;
        int32_t old_kernel;
        Bytes reply;
        int result;
        Bytes written;
    };
    const Bytes query = {0x0A, 0x02, 0x39, 0x02};
    // clang-format off
    const Case cases[] = {
        {"boot loader", 1, 0, kBootLoaderReply, 0, query},
        {"boot loader, second flag byte", 1, 0, {0x0A, 0x04, 0x39, 0x00, 0x02, 0x00}, 0, query},
        {"old kernel: a zero byte at each end", 1, 1, kBootLoaderReply, 0, {0x00, 0x0A, 0x02, 0x39, 0x02, 0x00}},
        {"USB framing", 0, 0, {0x03, 0x05, 0x39, 0x00, 0x01, 0x00, 0x00}, 0, {0x03, 0x02, 0x39, 0x02}},
        {"application firmware", 1, 0, kAppIAPReply, -1, query},
        {"reply to another command", 1, 0, {0x0A, 0x02, 0x41, 0x00}, -1, query},
        {"reply without a command byte", 1, 0, {0x0A, 0x04, 0x00, 0x01, 0x01, 0x00}, -1, query},
        {"silence", 1, 0, {}, -1, query},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
        UniqueFd port(fds[0]), peer(fds[1]);
        ASSERT_EQ(static_cast<ssize_t>(c.reply.size()),
                  write(peer.get(), c.reply.data(), c.reply.size()));
        const int32_t saved = bOldKernel;
        bOldKernel = c.old_kernel;
        ProbeContext context = {};
        context.bSerialFraming = static_cast<uint8_t>(c.serial);
        EXPECT_EQ(c.result, IsItBFW(&context, port.get(), c.serial));
        bOldKernel = saved;
        uint8_t buf[128];
        const ssize_t n = read(peer.get(), buf, sizeof(buf));
        EXPECT_EQ(c.written, Bytes(buf, buf + (n > 0 ? n : 0)));
    }
}

// A port that keeps sending traffic that is never a reply holds the reader at most
// kProbeReadLimitMs: /dev/zero (never runs dry, never forms a packet: a dropped 0x00, then
// no header), and a peer sending packets with an illegal serial length (the merge fails
// over and over without a try being used). For the peer only the upper bound is checked:
// a writer thread descheduled for 12 ms on a busy host looks like silence, which ends the
// reader earlier, as it should.
TEST(ReadDeviceResponse, TimeBoundUnderEndlessTraffic) {
    for (uint8_t serial : {1, 0}) {
        SCOPED_TRACE(serial);
        UniqueFd zero(OpenCloexec("/dev/zero", O_RDONLY));
        ASSERT_TRUE(zero.valid());
        ProbeContext context = {};
        context.bSerialFraming = serial;
        int result = 0;
        const long ms = Elapsed(
            [&] { result = ReadDeviceResponse(&context, zero.get(), context.ReplyBuf, 0x41); });
        EXPECT_EQ(-1, result);
        EXPECT_GE(ms, kProbeReadLimitMs - 2);  // both clocks truncated to ms
        EXPECT_LT(ms, kProbeReadLimitMs + 150);
    }
    PacketPair pair = MakePacketPair();
    EndlessWriter writer(pair.writer.get(), {0x0A, 0x3F, 0x39});
    ProbeContext context = {};
    context.bSerialFraming = 1;
    int result = 0;
    const long ms = Elapsed(
        [&] { result = ReadDeviceResponse(&context, pair.reader.get(), context.ReplyBuf, 0x41); });
    EXPECT_EQ(-1, result);
    EXPECT_LT(ms, kProbeReadLimitMs + 150);
}

// Streams fed in two calls cut at every position and one byte per call: the wait ends
// (1) exactly at the last byte of an awaited reply (the loop-back, or an IAP reply from a
// boot loader), never for other packets or an application-firmware IAP reply.
TEST(Parse232CmdPacket, StopsAtTheAwaitedReplyWhereverTheStreamIsCut) {
    struct Case {
        Bytes stream;
        bool awaited;  // then the stream ends with the awaited packet
    };
    const Case cases[] = {
        {{0x55, 0x0A, 0x01, 0x41}, true},              // loop-back after noise
        {{0x0A, 0x04, 0x39, 0x01, 0x00, 0x00}, true},  // boot loader
        {{0x0A, 0x04, 0x39, 0x00, 0x02, 0x00}, true},  // boot loader
        {{0x0A, 0x03, 0x39, 0x00, 0x00}, false},       // application firmware
        {{0x0A, 0x02, 0x42, 0x00}, false},             // another command
        {{0x33, 0x0A, 0x03, 0x39, 0x00, 0x00, 0x77, 0x0A, 0x01, 0x41}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.stream));
        const int n = static_cast<int>(c.stream.size());
        for (int cut = 0; cut <= n; ++cut) {
            SCOPED_TRACE(cut);
            ResetSerialReplyParser();
            EXPECT_EQ(c.awaited && cut == n ? 1 : 0, Parse232CmdPacket(c.stream.data(), cut));
            EXPECT_EQ(c.awaited && cut < n ? 1 : 0,
                      Parse232CmdPacket(c.stream.data() + cut, n - cut));
        }
        ResetSerialReplyParser();
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(c.awaited && i + 1 == n ? 1 : 0, Parse232CmdPacket(&c.stream[i], 1));
        }
    }
}

// Bytes queued before the wait, and bytes a thread sends 20 ms into it (during the pause
// after the first read).
TEST(WaitDeviceResponse, ReplyNoReplyAndSplitReply) {
    struct Case {
        const char* what;
        Bytes first;
        Bytes late;
        int result;
    };
    const Case cases[] = {
        {"nothing", {}, {}, -1},
        {"loop-back reply after a 0x00", {0x00, 0x0A, 0x01, 0x41}, {}, 0},
        {"loop-back reply in two parts", {0x0A, 0x01}, {0x41}, 0},
        {"a packet that never ends the wait", {0x0A, 0x02, 0x42, 0x00}, {}, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        PacketPair pair = MakePacketPair(SOCK_STREAM);
        ResetSerialReplyParser();
        const int peer = pair.writer.get();
        EXPECT_EQ(static_cast<ssize_t>(c.first.size()),
                  write(peer, c.first.data(), c.first.size()));
        std::thread late([&] {
            struct timespec ts = {0, 20 * 1000000L};
            nanosleep(&ts, nullptr);
            if (!c.late.empty()) (void)write(peer, c.late.data(), c.late.size());
        });
        EXPECT_EQ(c.result, WaitDeviceResponse(pair.reader.get()));
        late.join();
    }
}

// A port that keeps delivering bytes that never end the wait holds it at most
// kWaitResponseLimitMs (plus one pause): /dev/zero, and packets for other commands over
// and over (completed, dispatched, never awaited).
TEST(WaitDeviceResponse, TimeBoundUnderEndlessTraffic) {
    UniqueFd zero(OpenCloexec("/dev/zero", O_RDONLY));
    ASSERT_TRUE(zero.valid());
    ResetSerialReplyParser();
    int result = 0;
    long ms = Elapsed([&] { result = WaitDeviceResponse(zero.get()); });
    EXPECT_EQ(-1, result);
    EXPECT_GE(ms, kWaitResponseLimitMs - 2);  // both clocks truncated to ms
    EXPECT_LT(ms, kWaitResponseLimitMs + 300);

    PacketPair pair = MakePacketPair(SOCK_STREAM);
    ResetSerialReplyParser();
    EndlessWriter writer(pair.writer.get(), {0x0A, 0x02, 0x42, 0x00, 0x55});
    ms = Elapsed([&] { result = WaitDeviceResponse(pair.reader.get()); });
    EXPECT_EQ(-1, result);
    EXPECT_LT(ms, kWaitResponseLimitMs + 300);
}

}  // namespace
