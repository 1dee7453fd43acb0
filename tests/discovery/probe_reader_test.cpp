// ReadDeviceResponse and its merges over real descriptors. A SOCK_SEQPACKET socketpair
// keeps the boundaries of the writes, so each piece written below is exactly one read of
// the reader.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct PacketPair {
    UniqueFd reader;
    UniqueFd writer;
};

PacketPair MakePacketPair() {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
    PacketPair pair;
    pair.reader.reset(fds[0]);
    pair.writer.reset(fds[1]);
    return pair;
}

long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
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

TEST(MergeSerialReply, CompletesAtEverySplitAndNeverEarlier) {
    const Bytes full = {0x0A, 0x04, 0x39, 0x00, 0x01, 0x00};
    for (size_t cut = 1; cut <= full.size(); ++cut) {
        SCOPED_TRACE(cut);
        uint8_t reply[kReplyBufSize] = {};
        ProbeContext context = {};
        int pos = 0;
        if (cut < full.size()) {  // two calls
            EXPECT_EQ(0, MergeSerialReply(&context, full.data(), static_cast<int>(cut), reply, &pos));
            EXPECT_EQ(6, MergeSerialReply(&context, full.data() + cut,
                                          static_cast<int>(full.size() - cut), reply, &pos));
        } else {  // one byte per call: only the sixth completes
            for (size_t i = 0; i < full.size(); ++i) {
                EXPECT_EQ(i + 1 == full.size() ? 6 : 0,
                          MergeSerialReply(&context, &full[i], 1, reply, &pos));
            }
        }
        EXPECT_EQ(full, Bytes(reply, reply + 6));
    }
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

// A port that keeps sending traffic that is never a reply holds the reader at most
// kProbeReadLimitMs.
TEST(ReadDeviceResponse, TimeBoundUnderEndlessTraffic) {
    // /dev/zero never runs dry and never forms a packet (a dropped 0x00, then no header):
    // the reader keeps reading without using a try until the time bound ends it.
    for (uint8_t serial : {1, 0}) {
        SCOPED_TRACE(serial);
        UniqueFd zero(OpenCloexec("/dev/zero", O_RDONLY));
        ASSERT_TRUE(zero.valid());
        ProbeContext context = {};
        context.bSerialFraming = serial;
        long start = NowMs();
        EXPECT_EQ(-1, ReadDeviceResponse(&context, zero.get(), context.ReplyBuf, 0x41));
        long elapsed = NowMs() - start;
        EXPECT_GE(elapsed, kProbeReadLimitMs - 2);  // both clocks truncated to ms
        EXPECT_LT(elapsed, kProbeReadLimitMs + 150);
    }

    // A peer that keeps sending packets with an illegal serial length: the merge fails
    // over and over without a try being used, and the reader still ends within the bound.
    // (Only the upper bound is checked: a writer thread descheduled for 12 ms on a busy
    // host looks like silence, which ends the reader earlier, as it should.)
    PacketPair pair = MakePacketPair();
    std::atomic<bool> stop{false};
    int writer_fd = pair.writer.get();
    const Bytes piece = {0x0A, 0x3F, 0x39};
    while (send(writer_fd, piece.data(), piece.size(), MSG_DONTWAIT) > 0) {
    }
    std::thread writer([&] {
        while (!stop.load()) {
            if (send(writer_fd, piece.data(), piece.size(), MSG_DONTWAIT) < 0) {
                struct timespec ts = {0, 500000};
                nanosleep(&ts, nullptr);
            }
        }
    });
    ProbeContext context = {};
    context.bSerialFraming = 1;
    long start = NowMs();
    int result = ReadDeviceResponse(&context, pair.reader.get(), context.ReplyBuf, 0x41);
    long elapsed = NowMs() - start;
    stop = true;
    writer.join();
    EXPECT_EQ(-1, result);
    EXPECT_LT(elapsed, kProbeReadLimitMs + 150);
}

}  // namespace
