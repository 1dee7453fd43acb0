// Parse232CmdPacket, DispatchCmd and WaitDeviceResponse.
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
#include "support/disc_log_capture.h"

namespace {

using Bytes = std::vector<uint8_t>;

int Parse(const Bytes& bytes) {
    return Parse232CmdPacket(bytes.data(), static_cast<int>(bytes.size()));
}

long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

TEST(Parse232CmdPacket, CompletesPacketsAndStopsAtTheAwaitedOne) {
    DiscLogCapture log;
    ResetSerialReplyParser();
    EXPECT_EQ(1, Parse({0x55, 0x0A, 0x01, 0x41}));
    EXPECT_TRUE(log.Contains("Get 0x41 Cmd"));

    // An application-firmware IAP reply completes without ending the wait.
    ResetSerialReplyParser();
    EXPECT_EQ(0, Parse({0x0A, 0x03, 0x39, 0x00, 0x00}));
    EXPECT_EQ(0, SerialReplyParser.state);
    EXPECT_EQ(0, SerialReplyParser.index);
    EXPECT_EQ(1, Parse({0x0A, 0x01, 0x41}));  // ready for the next 0x0A

    // Bytes after the packet that ended the wait are left unlooked at.
    ResetSerialReplyParser();
    EXPECT_EQ(1, Parse({0x0A, 0x01, 0x41, 0x0A, 0x05, 0x01}));
    EXPECT_EQ(0, SerialReplyParser.state);

    // A boot-loader IAP reply ends the wait.
    ResetSerialReplyParser();
    EXPECT_EQ(1, Parse({0x0A, 0x04, 0x39, 0x01, 0x00, 0x00}));
    EXPECT_TRUE(log.Contains("Target device is bootloader"));
}

TEST(Parse232CmdPacket, StateCarriesAcrossCallsAtEverySplit) {
    const Bytes stream = {0x33, 0x0A, 0x03, 0x39, 0x00, 0x00, 0x77, 0x0A, 0x01, 0x41};
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        ResetSerialReplyParser();
        int first = Parse232CmdPacket(stream.data(), static_cast<int>(cut));
        int second = Parse232CmdPacket(stream.data() + cut, static_cast<int>(stream.size() - cut));
        EXPECT_EQ(cut == stream.size() ? 1 : 0, first);
        EXPECT_EQ(cut == stream.size() ? 0 : 1, second);
    }
    // One byte at a time: only the last byte ends the wait.
    ResetSerialReplyParser();
    for (size_t i = 0; i < stream.size(); ++i) {
        EXPECT_EQ(i + 1 == stream.size() ? 1 : 0, Parse232CmdPacket(&stream[i], 1));
    }
}

TEST(DispatchCmd, RepliedFlagByCommand) {
    struct Case {
        uint8_t cmd, b3, b4;
        uint8_t replied;
    };
    const Case cases[] = {{0x39, 0, 0, 0}, {0x39, 1, 0, 1}, {0x39, 0, 2, 1},
                          {0x41, 0, 0, 1}, {0x42, 1, 1, 0}, {0x00, 0, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cmd * 1000 + c.b3 * 10 + c.b4);
        ResetSerialReplyParser();
        SerialReplyParser.replied = 1 - c.replied;
        SerialReplyParser.packet[0] = 0x0A;
        SerialReplyParser.packet[2] = c.cmd;
        SerialReplyParser.packet[3] = c.b3;
        SerialReplyParser.packet[4] = c.b4;
        DispatchCmd();
        EXPECT_EQ(c.replied, SerialReplyParser.replied);
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

TEST(WaitDeviceResponse, ReplyNoReplyAndSplitReply) {
    DiscLogCapture log;
    {
        StreamPair pair = MakeStreamPair();
        ResetSerialReplyParser();
        EXPECT_EQ(-1, WaitDeviceResponse(pair.port.get()));
        EXPECT_TRUE(log.Contains("WaitDeviceResponse, fd is not readable"));
        EXPECT_TRUE(log.Contains("WaitDeviceResponse return with -1"));
    }
    {
        StreamPair pair = MakeStreamPair();
        ResetSerialReplyParser();
        const uint8_t reply[] = {0x00, 0x0A, 0x01, 0x41};
        ASSERT_EQ(4, write(pair.peer.get(), reply, 4));
        EXPECT_EQ(0, WaitDeviceResponse(pair.port.get()));
        EXPECT_TRUE(log.Contains("Read 4 bytes from device: [00][0A][01][41]"));
    }
    {
        // The second half arrives during the 50 ms pause after the first read.
        StreamPair pair = MakeStreamPair();
        ResetSerialReplyParser();
        const uint8_t first[] = {0x0A, 0x01};
        const uint8_t second[] = {0x41};
        ASSERT_EQ(2, write(pair.peer.get(), first, 2));
        int peer = pair.peer.get();
        std::thread late([&] {
            struct timespec ts = {0, 20 * 1000000L};
            nanosleep(&ts, nullptr);
            (void)write(peer, second, 1);
        });
        EXPECT_EQ(0, WaitDeviceResponse(pair.port.get()));
        late.join();
    }
    {
        // Data that never ends the wait: -1 once the port has nothing more.
        StreamPair pair = MakeStreamPair();
        ResetSerialReplyParser();
        const uint8_t other[] = {0x0A, 0x02, 0x42, 0x00};
        ASSERT_EQ(4, write(pair.peer.get(), other, 4));
        EXPECT_EQ(-1, WaitDeviceResponse(pair.port.get()));
    }
}

// A port that keeps delivering bytes that never end the wait holds it at most
// kWaitResponseLimitMs (plus one pause). /dev/zero never runs dry and never forms a packet.
TEST(WaitDeviceResponse, TimeBoundUnderEndlessTraffic) {
    ASSERT_EQ(1000, kWaitResponseLimitMs);
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
