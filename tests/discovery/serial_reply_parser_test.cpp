// Parse232CmdPacket and WaitDeviceResponse.
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

long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
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
        {{0x55, 0x0A, 0x01, 0x41}, true},                    // loop-back after noise
        {{0x0A, 0x04, 0x39, 0x01, 0x00, 0x00}, true},        // boot loader
        {{0x0A, 0x04, 0x39, 0x00, 0x02, 0x00}, true},        // boot loader
        {{0x0A, 0x03, 0x39, 0x00, 0x00}, false},             // application firmware
        {{0x0A, 0x02, 0x42, 0x00}, false},                   // another command
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

struct StreamPair {
    UniqueFd port;  // non-blocking, as serial ports are opened
    UniqueFd peer;
};

StreamPair MakeStreamPair() {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    StreamPair pair;
    pair.port.reset(fds[0]);
    pair.peer.reset(fds[1]);
    fcntl(pair.port.get(), F_SETFL, fcntl(pair.port.get(), F_GETFL) | O_NONBLOCK);
    return pair;
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
        StreamPair pair = MakeStreamPair();
        ResetSerialReplyParser();
        const int peer = pair.peer.get();
        EXPECT_EQ(static_cast<ssize_t>(c.first.size()), write(peer, c.first.data(), c.first.size()));
        std::thread late([&] {
            struct timespec ts = {0, 20 * 1000000L};
            nanosleep(&ts, nullptr);
            if (!c.late.empty()) (void)write(peer, c.late.data(), c.late.size());
        });
        EXPECT_EQ(c.result, WaitDeviceResponse(pair.port.get()));
        late.join();
    }
}

// A port that keeps delivering bytes that never end the wait holds it at most
// kWaitResponseLimitMs (plus one pause). /dev/zero never runs dry and never forms a packet.
TEST(WaitDeviceResponse, TimeBoundUnderEndlessTraffic) {
    UniqueFd zero(OpenCloexec("/dev/zero", O_RDONLY));
    ASSERT_TRUE(zero.valid());
    ResetSerialReplyParser();
    long start = NowMs();
    int result = WaitDeviceResponse(zero.get());
    long elapsed = NowMs() - start;
    EXPECT_EQ(-1, result);
    EXPECT_GE(elapsed, kWaitResponseLimitMs - 2);  // both clocks truncated to ms
    EXPECT_LT(elapsed, kWaitResponseLimitMs + 300);

    // Packets for other commands, over and over: completed, dispatched, never awaited.
    StreamPair pair = MakeStreamPair();
    ResetSerialReplyParser();
    std::atomic<bool> stop{false};
    int peer = pair.peer.get();
    const uint8_t junk[] = {0x0A, 0x02, 0x42, 0x00, 0x55};
    while (send(peer, junk, sizeof(junk), MSG_DONTWAIT) > 0) {  // full before the wait starts
    }
    std::thread writer([&] {
        while (!stop.load()) {
            if (send(peer, junk, sizeof(junk), MSG_DONTWAIT) < 0) {
                struct timespec ts = {0, 500000};
                nanosleep(&ts, nullptr);
            }
        }
    });
    start = NowMs();
    result = WaitDeviceResponse(pair.port.get());
    elapsed = NowMs() - start;
    stop = true;
    writer.join();
    EXPECT_EQ(-1, result);
    EXPECT_LT(elapsed, kWaitResponseLimitMs + 300);
}

}  // namespace
