// Command replies: the merge rules of fragmented USB replies, whole serial replies, the
// tool form of serial reports, the bound of the 128-byte reply buffer, and the routing of a
// complete reply to the virtual keys, a blocked sender, a polling sender or the tool.
#include "touch/cmd_reply.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <thread>
#include <vector>

#include "device/cmd_channel.h"
#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

int Merge(TouchRig& rig, const std::vector<uint8_t>& bytes) {
    return MergeCommandPacket(rig.dev.get(), bytes.data(), static_cast<int>(bytes.size()));
}

void ExpectIdle(const TouchRig& rig) {
    EXPECT_EQ(0, rig.dev->CurIndex);
    EXPECT_EQ(0, rig.dev->RealLen);
    EXPECT_EQ(0, rig.dev->bMerging);
}

std::vector<uint8_t> Reply(const TouchRig& rig, int length) {
    return std::vector<uint8_t>(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + length);
}

// Starts a merge of a reply of n + 3 bytes with command 'E'.
void StartE(TouchRig& rig, int n) {
    ASSERT_EQ(0, Merge(rig, {0x03, 0x04, 'E', static_cast<uint8_t>(n), 0xD0, 0xD1}));
}

}  // namespace

// The 'E' reply with n = 10 in four reads, and the other long-reply commands.
TEST(MergeReply, LongReplyInFourReads) {
    TouchRig rig;
    LogCapture log;
    EXPECT_EQ(0, Merge(rig, {0x03, 0x04, 'E', 10, 0xA0, 0xA1, 0xFF, 0xFF}));
    EXPECT_EQ(5, rig.dev->CurIndex);
    EXPECT_EQ(13, rig.dev->RealLen);
    EXPECT_EQ(1, rig.dev->bMerging);
    EXPECT_TRUE(log.Has("First curIndex=5, RealLen=13"));
    EXPECT_EQ(0, Merge(rig, {0x03, 0x04, 0x00, 0xB0, 0xB1, 0xB2, 0xEE}));
    EXPECT_EQ(8, rig.dev->CurIndex);
    EXPECT_EQ(0, Merge(rig, {0x03, 0x04, 0x00, 0xB3, 0xB4, 0xB5}));
    EXPECT_EQ(11, rig.dev->CurIndex);
    EXPECT_TRUE(log.Has("2nd CurIndex=11, RealLen=13"));
    EXPECT_EQ(13, Merge(rig, {0x03, 0x04, 0x00, 0xB6, 0xB7, 0xB8}));
    EXPECT_TRUE(log.Has("Complete"));
    ExpectIdle(rig);
    const std::vector<uint8_t> want = {0x03, 11,   'E',  0xA0, 0xA1, 0xB0, 0xB1,
                                       0xB2, 0xB3, 0xB4, 0xB5, 0xB6, 0xB7};
    EXPECT_EQ(want, Reply(rig, 13));

    // 'D' and 'F' are first fragments too; n = 2 completes with the first fragment.
    for (uint8_t command : {'D', 'F'}) {
        EXPECT_EQ(5, Merge(rig, {0x03, 0x04, command, 2, 0x11, 0x22}));
        EXPECT_EQ((std::vector<uint8_t>{0x03, 3, command, 0x11, 0x22}), Reply(rig, 5));
        ExpectIdle(rig);
    }
    // A first fragment with L 2 writes only L + 1 header bytes.
    memset(rig.dev->CmdReplyBuf, 0x77, 8);
    EXPECT_EQ(0, Merge(rig, {0x03, 0x02, 'E', 10, 0x11, 0x22}));
    EXPECT_EQ((std::vector<uint8_t>{0x03, 11, 'E', 0x77, 0x77}), Reply(rig, 5));
    EXPECT_EQ(5, rig.dev->CurIndex);
}

TEST(MergeReply, WholeRepliesAndNormalFormat) {
    TouchRig rig;
    LogCapture log;
    // A continuation-looking fragment without a first fragment: copied whole.
    EXPECT_EQ(6, Merge(rig, {0x03, 0x04, 0x00, 0x01, 0x02, 0x03}));
    EXPECT_TRUE(log.Has("Normal format"));
    EXPECT_EQ((std::vector<uint8_t>{0x03, 0x04, 0x00, 0x01, 0x02, 0x03}), Reply(rig, 6));
    // Short reply of another command.
    EXPECT_EQ(4, Merge(rig, {0x03, 0x02, 0x55, 0x01}));
    // L above 4: copied whole whatever the command.
    std::vector<uint8_t> long_reply(64, 0x5A);
    long_reply[0] = 0x03;
    long_reply[1] = 0x3E;
    long_reply[2] = 'E';
    EXPECT_EQ(64, Merge(rig, long_reply));
    EXPECT_EQ(long_reply, Reply(rig, 64));
    ExpectIdle(rig);
    // Serial reply: copied whole.
    EXPECT_EQ(5, Merge(rig, {0x0A, 0x03, 0x41, 0x42, 0x43}));
    EXPECT_EQ((std::vector<uint8_t>{0x0A, 0x03, 0x41, 0x42, 0x43}), Reply(rig, 5));
}

TEST(MergeReply, SerialReportInToolForm) {
    TouchRig rig;
    memset(rig.dev->CmdReplyBuf, 0xCC, sizeof(rig.dev->CmdReplyBuf));
    EXPECT_EQ(64, Merge(rig, {0x81, 0x0F, 0x7F, 0x05, 0x90}));
    std::vector<uint8_t> want(64, 0);
    want[0] = 0x0A;
    want[1] = 0x83;  // 0x81 + 2
    want[2] = 0xFE;  // 2 x 0x7F, low 8 bits
    want[3] = 0x0F;
    want[4] = 0x20;  // 2 x 0x90 = 0x120, low 8 bits
    want[5] = 0x05;
    EXPECT_EQ(want, Reply(rig, 64));
    EXPECT_EQ(0xCC, rig.dev->CmdReplyBuf[64]);  // nothing written past the 64 bytes
    EXPECT_EQ(64, Merge(rig, {0x80, 0, 0, 0, 0}));
    EXPECT_EQ(0x82, rig.dev->CmdReplyBuf[1]);
    EXPECT_EQ(-1, Merge(rig, {0x81, 0x0F, 0x7F, 0x05}));  // too short for the form
}

// Every rule that resets a merge in progress, and the one that leaves it alone.
TEST(MergeReply, ResetRules) {
    struct Case {
        const char* what;
        std::vector<uint8_t> packet;
        int result;
        bool idle_after;
    };
    const Case cases[] = {
        {"unknown header: -1, merge untouched", {0x55, 0x04, 0x00, 1, 2, 3}, -1, false},
        {"serial reply resets", {0x0A, 0x02, 0x41, 0x42}, 4, true},
        {"serial report 0x80 resets", {0x80, 1, 2, 3, 4}, 64, true},
        {"serial report 0x81 resets", {0x81, 1, 2, 3, 4}, 64, true},
        {"L above 4 resets", {0x03, 0x05, 0x00, 1, 2, 3, 4}, 7, true},
        {"unexpected command resets", {0x03, 0x04, 0x31, 1, 2, 3}, -1, true},
        {"fragment without data (L 0) resets", {0x03, 0x00, 0x00}, -1, true},
        {"fragment shorter than its L resets", {0x03, 0x04, 0x00, 1}, -1, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        StartE(rig, 10);
        EXPECT_EQ(c.result, Merge(rig, c.packet));
        if (c.idle_after) {
            ExpectIdle(rig);
        } else {
            EXPECT_EQ(5, rig.dev->CurIndex);
            EXPECT_EQ(13, rig.dev->RealLen);
            EXPECT_EQ(1, rig.dev->bMerging);
        }
    }
    // A controller of the capacitive family never merges.
    TouchRig pcap;
    StartE(pcap, 10);
    pcap.dev->bPCAP = 1;
    EXPECT_EQ(6, Merge(pcap, {0x03, 0x04, 0x00, 1, 2, 3}));
    ExpectIdle(pcap);
    EXPECT_EQ(6, Merge(pcap, {0x03, 0x04, 'E', 10, 1, 2}));
    ExpectIdle(pcap);
}

// Replies announcing more than the 128-byte buffer, and fragments that would run past it,
// are refused with the merge reset; nothing is written past the buffer.
TEST(MergeReply, ReplyBufferBound) {
    TouchRig rig;
    LogCapture log;
    for (int n : {126, 200, 255}) {
        SCOPED_TRACE(n);
        EXPECT_EQ(-1, Merge(rig, {0x03, 0x04, 'E', static_cast<uint8_t>(n), 1, 2}));
        ExpectIdle(rig);
        // The fragments that follow are then plain replies again.
        EXPECT_EQ(6, Merge(rig, {0x03, 0x04, 0x00, 1, 2, 3}));
    }
    EXPECT_TRUE(log.Has("exceeds the reply buffer"));

    // n = 125: a reply of exactly 128 bytes is accepted and delivered.
    EXPECT_EQ(0, Merge(rig, {0x03, 0x04, 'E', 125, 1, 2}));
    int result = 0;
    for (int i = 0; i < 41 && result == 0; ++i) {
        result = Merge(rig, {0x03, 0x04, 0x00, static_cast<uint8_t>(i), 0xAB, 0xCD});
    }
    EXPECT_EQ(128, result);
    EXPECT_EQ(0xCD, rig.dev->CmdReplyBuf[127]);

    // n = 125 again, walked with 1-byte fragments to 126, then a 3-byte one would end at
    // 129: refused.
    EXPECT_EQ(0, Merge(rig, {0x03, 0x04, 'E', 125, 1, 2}));
    for (int i = 0; i < 121; ++i) ASSERT_EQ(0, Merge(rig, {0x03, 0x02, 0x00, 0x44}));
    EXPECT_EQ(126, rig.dev->CurIndex);
    EXPECT_EQ(-1, Merge(rig, {0x03, 0x04, 0x00, 0x91, 0x92, 0x93}));
    ExpectIdle(rig);

    // Whole packets larger than the buffer are refused too.
    std::vector<uint8_t> huge(200, 0x0A);
    EXPECT_EQ(-1, Merge(rig, huge));
    EXPECT_EQ(-1, MergeCommandPacket(rig.dev.get(), huge.data(), 0));
}

TEST(ParseCmdReply, RoutingToHooksAndTool) {
    TouchRig rig;
    int pipe_fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pipe_fds));
    rig.dev->m_fdPipeOut.reset(pipe_fds[0]);
    UniqueFd tool(pipe_fds[1]);
    auto tool_bytes = [&tool]() {
        uint8_t buffer[256];
        ssize_t n = recv(tool.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        return std::vector<uint8_t>(buffer, buffer + (n > 0 ? n : 0));
    };
    auto parse = [&rig](const std::vector<uint8_t>& bytes) {
        ParseCmdPacket(rig.dev.get(), bytes.data(), static_cast<int>(bytes.size()));
    };

    // No hook: the reply goes to the tool, exactly its length.
    rig.dev->SigHookCmd = 0x99;
    rig.dev->SelfHookCmd = 0x99;
    parse({0x03, 0x03, 0x41, 0x01, 0x02});
    EXPECT_EQ((std::vector<uint8_t>{0x03, 0x03, 0x41, 0x01, 0x02}), tool_bytes());

    // Self hook with a sub-command, then with "any".
    rig.dev->SelfHookCmd = 0x41;
    rig.dev->SelfHookSubCmd = 0x02;
    parse({0x03, 0x03, 0x41, 0x01, 0x02});  // wrong sub-command: tool
    EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
    EXPECT_EQ(5u, tool_bytes().size());
    parse({0x03, 0x03, 0x41, 0x02, 0x02});
    EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
    EXPECT_TRUE(tool_bytes().empty());
    rig.dev->bSelfHookReplied = 0;
    rig.dev->SelfHookSubCmd = kAnySubCmd;
    parse({0x0A, 0x03, 0x41, 0x7E, 0x00});
    EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());
    EXPECT_TRUE(tool_bytes().empty());

    // An incomplete merge routes nothing.
    rig.dev->bSelfHookReplied = 0;
    rig.dev->SelfHookCmd = 'E';
    parse({0x03, 0x04, 'E', 10, 1, 2});
    EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
    EXPECT_TRUE(tool_bytes().empty());
}

// A reply matching both hooks wakes the blocked sender only.
TEST(ParseCmdReply, SignalHookWinsOverSelfHook) {
    TouchRig rig;
    rig.dev->SigHookCmd = 0x41;
    rig.dev->SigHookSubCmd = kAnySubCmd;
    rig.dev->SelfHookCmd = 0x41;
    rig.dev->SelfHookSubCmd = 0x01;
    int wait_result = -2;
    std::thread sender([&rig, &wait_result] { wait_result = CmdTimedWait(rig.dev.get(), 5, 0); });
    for (int i = 0; i < 2000; ++i) {  // until the sender sleeps on the condition
        pthread_mutex_lock(&rig.dev->CmdMutex);
        const int waiters = rig.dev->WaiterCount;
        pthread_mutex_unlock(&rig.dev->CmdMutex);
        if (waiters > 0) break;
        usleep(1000);
    }
    const std::vector<uint8_t> reply = {0x03, 0x03, 0x41, 0x01, 0x5A};
    ParseCmdPacket(rig.dev.get(), reply.data(), static_cast<int>(reply.size()));
    sender.join();
    EXPECT_EQ(0, wait_result);
    EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
    EXPECT_EQ(reply, std::vector<uint8_t>(rig.dev->SigReplyBuf, rig.dev->SigReplyBuf + 5));
}

// Key reports are handed to the virtual keys and then routed like any reply.
TEST(ParseCmdReply, VirtualKeyReportsAreRecognisedPerSeries) {
    struct Case {
        int series;
        std::vector<uint8_t> reply;
        bool is_key;
    };
    const Case cases[] = {
        {0, {0x03, 0x04, 0x36, 0x2F, 0x01, 0x02}, true},
        {0, {0x03, 0x04, 0x2F, 0x01, 0x02, 0x00}, false},
        {22, {0x03, 0x04, 0x2F, 0x01, 0x02, 0x00}, true},
        {22, {0x03, 0x04, 0x36, 0x2F, 0x01, 0x02}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.series);
        TouchRig rig;
        rig.dev->Series = c.series;
        rig.dev->VKeyCode[2] = KEY_HOME;
        rig.dev->SelfHookCmd = c.reply[2];
        rig.dev->SelfHookSubCmd = kAnySubCmd;
        ParseCmdPacket(rig.dev.get(), c.reply.data(), static_cast<int>(c.reply.size()));
        if (c.is_key) {
            EXPECT_EQ((std::vector<Ev>{Key(KEY_HOME, 1), Syn()}), rig.TouchEvents());
        } else {
            EXPECT_TRUE(rig.TouchEvents().empty());
        }
        EXPECT_EQ(1, rig.dev->bSelfHookReplied.load());  // routing went on
    }
}
