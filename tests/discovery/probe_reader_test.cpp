// ReadDeviceResponse and its merges over real descriptors. A SOCK_SEQPACKET socketpair
// keeps the boundaries of the writes, so each piece written below is exactly one read of
// the reader.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"
#include "support/disc_log_capture.h"

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

void Send(int fd, const Bytes& piece) {
    ASSERT_EQ(static_cast<ssize_t>(piece.size()), write(fd, piece.data(), piece.size()));
}

long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

struct ReadOutcome {
    int result;
    Bytes reply;  // the first max(result, 6) bytes of ReplyBuf
    long elapsed_ms;
};

// Writes every piece as one packet, then runs the reader once.
ReadOutcome ReadPieces(const std::vector<Bytes>& pieces, uint8_t serial, uint8_t cmd) {
    PacketPair pair = MakePacketPair();
    for (const Bytes& piece : pieces) Send(pair.writer.get(), piece);
    ProbeContext context;
    memset(&context, 0xCC, sizeof(context));  // the reader must not rely on a clean buffer
    context.bSerialFraming = serial;
    long start = NowMs();
    int result = ReadDeviceResponse(&context, pair.reader.get(), context.ReplyBuf, cmd);
    ReadOutcome out;
    out.result = result;
    out.elapsed_ms = NowMs() - start;
    int shown = result > 6 ? result : 6;
    out.reply.assign(context.ReplyBuf, context.ReplyBuf + shown);
    return out;
}

Bytes Prefix(const Bytes& bytes, size_t n) {
    return Bytes(bytes.begin(), bytes.begin() + n);
}

// --- MergeSerialReply, called directly ---------------------------------------------------

TEST(MergeSerialReply, CompletesAtEverySplitAndNeverEarlier) {
    const Bytes full = {0x0A, 0x04, 0x39, 0x00, 0x01, 0x00};
    for (size_t cut = 1; cut < full.size(); ++cut) {
        SCOPED_TRACE(cut);
        uint8_t reply[kReplyBufSize] = {};
        ProbeContext context = {};
        int pos = 0;
        EXPECT_EQ(0, MergeSerialReply(&context, full.data(), static_cast<int>(cut), reply, &pos));
        EXPECT_EQ(static_cast<int>(cut), pos);
        EXPECT_EQ(6, MergeSerialReply(&context, full.data() + cut,
                                      static_cast<int>(full.size() - cut), reply, &pos));
        EXPECT_EQ(full, Bytes(reply, reply + 6));
    }
    // One byte per call: only the sixth completes.
    uint8_t reply[kReplyBufSize] = {};
    ProbeContext context = {};
    int pos = 0;
    for (size_t i = 0; i < full.size(); ++i) {
        EXPECT_EQ(i + 1 == full.size() ? 6 : 0,
                  MergeSerialReply(&context, &full[i], 1, reply, &pos));
    }
}

TEST(MergeSerialReply, RefusesIllegalLengthsAndNeverWritesPastTheBuffer) {
    DiscLogCapture log;
    ProbeContext context = {};
    {
        uint8_t reply[kReplyBufSize] = {};
        int pos = 0;
        const Bytes bad = {0x0A, 0x3F, 0x39};
        EXPECT_EQ(-1, MergeSerialReply(&context, bad.data(), 3, reply, &pos));
        EXPECT_TRUE(log.Contains("Serial packet length 65 bigger than 64. Illegal Situation."));
    }
    {
        // Length 62 is the largest legal one: 64 bytes in all.
        uint8_t reply[kReplyBufSize] = {};
        Bytes big(64, 0x5A);
        big[0] = 0x0A;
        big[1] = 62;
        int pos = 0;
        EXPECT_EQ(64, MergeSerialReply(&context, big.data(), 64, reply, &pos));
        EXPECT_EQ(64, pos);
    }
    {
        // A merge position outside the buffer is refused before any byte is written.
        uint8_t guarded[kReplyBufSize + 16];
        memset(guarded, 0xEE, sizeof(guarded));
        const Bytes data = {0x0A, 0x01, 0x41};
        for (int pos : {kReplyBufSize, kReplyBufSize + 5, -1}) {
            int p = pos;
            EXPECT_EQ(-1, MergeSerialReply(&context, data.data(), 3, guarded, &p));
        }
        for (uint8_t b : guarded) ASSERT_EQ(0xEE, b);
    }
}

// --- MergeReportReply, called directly --------------------------------------------------

TEST(MergeReportReply, FragmentsAndTheirRules) {
    DiscLogCapture log;
    const uint8_t C = 0x39;
    ProbeContext context = {};
    {
        uint8_t reply[kReplyBufSize] = {};
        int pos = 0;
        const Bytes first = {0x03, 0x04, C, 0x05, 0xD1, 0xD2};
        const Bytes next = {0x03, 0x04, 0x00, 0xD3, 0xD4, 0xD5};
        EXPECT_EQ(0, MergeReportReply(&context, first.data(), 6, reply, &pos, C));
        EXPECT_TRUE(log.Contains("Command Incomplete."));
        EXPECT_EQ(8, MergeReportReply(&context, next.data(), 6, reply, &pos, C));
        EXPECT_EQ((Bytes{0x03, 0x06, C, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5}), Bytes(reply, reply + 8));
        EXPECT_TRUE(log.Contains("Command complete return with 8"));
    }
    {
        // A following fragment must carry 0x00 as its command byte.
        uint8_t reply[kReplyBufSize] = {};
        int pos = 0;
        const Bytes first = {0x03, 0x04, C, 0x05, 0xD1, 0xD2};
        const Bytes wrong = {0x03, 0x04, 0x55, 0xD3, 0xD4, 0xD5};
        EXPECT_EQ(0, MergeReportReply(&context, first.data(), 6, reply, &pos, C));
        EXPECT_EQ(-1, MergeReportReply(&context, wrong.data(), 6, reply, &pos, C));
        EXPECT_TRUE(log.Contains("Illegal Recv Command Packet with [03][04][55][D3][D4][D5]"));
    }
    {
        // A following fragment with nothing merged before it has no place to go.
        uint8_t reply[kReplyBufSize] = {};
        int pos = 0;
        const Bytes next = {0x03, 0x04, 0x00, 0xD3, 0xD4, 0xD5};
        EXPECT_EQ(-1, MergeReportReply(&context, next.data(), 6, reply, &pos, C));
        EXPECT_EQ(0, reply[1]);
    }
    {
        // A zero-data reply is complete with the first fragment.
        uint8_t reply[kReplyBufSize] = {};
        int pos = 0;
        const Bytes only = {0x03, 0x02, C, 0x00};
        EXPECT_EQ(3, MergeReportReply(&context, only.data(), 4, reply, &pos, C));
    }
}

// --- ReadDeviceResponse over a socketpair -------------------------------------------------

TEST(ReadDeviceResponse, SerialReplySplitAtEveryBytePosition) {
    const Bytes full = {0x0A, 0x04, 0x39, 0x00, 0x01, 0x00};
    ReadOutcome whole = ReadPieces({full}, 1, 0x39);
    EXPECT_EQ(6, whole.result);
    EXPECT_EQ(full, Prefix(whole.reply, 6));

    // Pieces that begin with 0x00 lose that byte (the leading-byte rule), so only splits
    // whose second piece starts with a header byte or a byte from 0x01 to 0x0F survive.
    for (size_t cut = 1; cut < full.size(); ++cut) {
        SCOPED_TRACE(cut);
        Bytes a(full.begin(), full.begin() + cut), b(full.begin() + cut, full.end());
        ReadOutcome out = ReadPieces({a, b}, 1, 0x39);
        if (b[0] == 0x0A || b[0] == 0x03) {
            EXPECT_EQ(6, out.result);
            EXPECT_EQ(full, Prefix(out.reply, 6));
        } else {
            EXPECT_EQ(-1, out.result);
        }
    }
    // A reply whose every byte after the first is a header byte survives any split into
    // two or three reads.
    const Bytes hdr = {0x0A, 0x03, 0x0A, 0x03, 0x0A};
    for (size_t c1 = 1; c1 < hdr.size(); ++c1) {
        for (size_t c2 = c1; c2 < hdr.size(); ++c2) {
            SCOPED_TRACE(c1 * 10 + c2);
            std::vector<Bytes> pieces = {Bytes(hdr.begin(), hdr.begin() + c1)};
            if (c2 > c1) pieces.push_back(Bytes(hdr.begin() + c1, hdr.begin() + c2));
            pieces.push_back(Bytes(hdr.begin() + c2, hdr.end()));
            ReadOutcome out = ReadPieces(pieces, 1, 0x0A);
            EXPECT_EQ(5, out.result);
            EXPECT_EQ(hdr, Prefix(out.reply, 5));
        }
    }
}

TEST(ReadDeviceResponse, SerialExamples) {
    DiscLogCapture log;
    // 0x0A 0x04 0x39 then 0x00 0x01 0x00: the second read is ignored, three empty waits.
    ReadOutcome split = ReadPieces({{0x0A, 0x04, 0x39}, {0x00, 0x01, 0x00}}, 1, 0x39);
    EXPECT_EQ(-1, split.result);
    EXPECT_EQ((Bytes{0x0A, 0x04, 0x39}), Prefix(split.reply, 3));
    EXPECT_GE(split.elapsed_ms, 10);
    EXPECT_LT(split.elapsed_ms, kProbeReadLimitMs);

    // A second read that starts with a header byte is appended whole.
    ReadOutcome joined = ReadPieces({{0x0A, 0x04, 0x39}, {0x03, 0x01, 0x00}}, 1, 0x39);
    EXPECT_EQ(6, joined.result);
    EXPECT_EQ((Bytes{0x0A, 0x04, 0x39, 0x03, 0x01, 0x00}), Prefix(joined.reply, 6));

    // Leading 0x00 and leading 0x10 or more are dropped; 0x01..0x0F are not.
    ReadOutcome zero = ReadPieces({{0x00, 0x0A, 0x02, 0x41, 0x00}}, 1, 0x41);
    EXPECT_EQ(4, zero.result);
    EXPECT_EQ((Bytes{0x0A, 0x02, 0x41, 0x00}), Prefix(zero.reply, 4));
    ReadOutcome high = ReadPieces({{0x55, 0x0A, 0x01, 0x41}}, 1, 0x41);
    EXPECT_EQ(3, high.result);
    ReadOutcome low = ReadPieces({{0x05, 0x0A, 0x01, 0x41}}, 1, 0x41);
    EXPECT_EQ(-1, low.result);

    // Length byte 63.
    log.Clear();
    ReadOutcome illegal = ReadPieces({{0x0A, 0x3F, 0x39, 0x00}}, 1, 0x39);
    EXPECT_EQ(-1, illegal.result);
    EXPECT_TRUE(log.Contains("Serial packet length 65 bigger than 64. Illegal Situation."));

    // Ignored packets cost no try: five of them, then the reply.
    std::vector<Bytes> noisy(5, Bytes{0x20, 0x21, 0x22});
    noisy.push_back({0x0A, 0x01, 0x41});
    ReadOutcome after_noise = ReadPieces(noisy, 1, 0x41);
    EXPECT_EQ(3, after_noise.result);

    // Serial framing accepts a first packet for another command; the caller judges it.
    ReadOutcome other = ReadPieces({{0x0A, 0x02, 0x42, 0x07}}, 1, 0x41);
    EXPECT_EQ(4, other.result);
    EXPECT_EQ(0x42, other.reply[2]);
    EXPECT_TRUE(log.Contains("Final Merged Command , 4 bytes: [0A][02][42][07]"));
}

TEST(ReadDeviceResponse, UsbFramingRules) {
    DiscLogCapture log;
    const uint8_t C = 0x39;
    const Bytes wrong = {0x03, 0x03, 0x55, 0x00, 0x00};
    const Bytes good = {0x03, 0x03, C, 0x01, 0x00};

    // Each abandoned first packet uses up a try: two leave room for the reply, three do not.
    ReadOutcome two = ReadPieces({wrong, wrong, good}, 0, C);
    EXPECT_EQ(4, two.result);  // one data byte announced (byte 3), taken from byte 4
    EXPECT_EQ((Bytes{0x03, 0x02, C, 0x00}), Prefix(two.reply, 4));
    EXPECT_EQ(2, log.Count("First packet recvByte[2]=[55]. Fail to equal CmdByte [39]."));
    EXPECT_EQ(2, log.Count("Abandon this packet and read again"));
    ReadOutcome three = ReadPieces({wrong, wrong, wrong, good}, 0, C);
    EXPECT_EQ(-1, three.result);

    // Length byte above 4: the packet is the whole reply, as kept after the leading drop.
    const Bytes whole = {0x03, 0x06, C, 1, 2, 3, 4, 5};
    ReadOutcome w = ReadPieces({whole}, 0, C);
    EXPECT_EQ(8, w.result);
    EXPECT_EQ(whole, Prefix(w.reply, 8));
    Bytes shifted = whole;
    shifted.insert(shifted.begin(), 0x00);
    ReadOutcome s = ReadPieces({shifted}, 0, C);
    EXPECT_EQ(8, s.result);
    EXPECT_EQ(whole, Prefix(s.reply, 8));

    // Fragments.
    log.Clear();
    ReadOutcome frag =
        ReadPieces({{0x03, 0x04, C, 0x05, 0xD1, 0xD2}, {0x03, 0x04, 0x00, 0xD3, 0xD4, 0xD5}}, 0, C);
    EXPECT_EQ(8, frag.result);
    EXPECT_EQ((Bytes{0x03, 0x06, C, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5}), Prefix(frag.reply, 8));
    EXPECT_TRUE(log.Contains("Command complete return with 8"));
    EXPECT_TRUE(log.Contains("ReadDeviceResponse return 8"));
}

TEST(ReadDeviceResponse, GivesUpOnSilenceAndOnClosedPeer) {
    PacketPair pair = MakePacketPair();
    ProbeContext context = {};
    context.bSerialFraming = 1;
    long start = NowMs();
    EXPECT_EQ(-1, ReadDeviceResponse(&context, pair.reader.get(), context.ReplyBuf, 0x41));
    long silent = NowMs() - start;
    EXPECT_GE(silent, 10);                 // three 4 ms waits
    EXPECT_LT(silent, kProbeReadLimitMs);  // silence ends it long before the time bound

    // A closed peer reads 0 bytes: three reads, then the read's own result.
    pair.writer.reset();
    EXPECT_EQ(0, ReadDeviceResponse(&context, pair.reader.get(), context.ReplyBuf, 0x41));
}

// A port that keeps sending traffic that is never a reply holds the reader at most
// kProbeReadLimitMs.
TEST(ReadDeviceResponse, TimeBoundUnderEndlessTraffic) {
    ASSERT_EQ(250, kProbeReadLimitMs);
    // /dev/zero never runs dry and never forms a packet (a dropped 0x00, then no header):
    // the reader keeps reading without using a try until the time bound ends it.
    for (uint8_t serial : {1, 0}) {
        SCOPED_TRACE(serial);
        UniqueFd zero(OpenCloexec("/dev/zero", O_RDONLY));
        ASSERT_TRUE(zero.valid());
        ProbeContext context = {};
        context.bSerialFraming = serial;
        long start = NowMs();
        int result = ReadDeviceResponse(&context, zero.get(), context.ReplyBuf, 0x41);
        long elapsed = NowMs() - start;
        EXPECT_EQ(-1, result);
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

namespace {

}  // namespace
