// The polling exchange: a controller stand-in answers on time, late, or never; the test
// counts the writes it received and bounds the time the exchange took.
#include <gtest/gtest.h>
#include <string.h>

#include "device/cmd_channel.h"
#include "device/identification.h"
#include "support/dev_test_util.h"

namespace {

struct SelfRecvCase {
    const char* name;
    int reply_delay_ms;  // -1: never answers
    int answer_write;    // the write (1, 2, ...) that is answered
    int min_writes;
    int expect_writes;
    uint8_t expect_replied;
    int min_ms;
    int max_ms;
};

TEST(SelfRecv, WritesAgainOnlyAfterASilentPeriod) {
    DevIgnoreSigusr2();
    const SelfRecvCase cases[] = {
        {"on time", 10, 1, 1, 1, 1, 0, 500},
        // The first period (500 ms) passes in silence: second write; the late reply to
        // the first write arrives in the second period and ends the exchange.
        {"after 600 ms", 600, 1, 1, 2, 1, 550, 1100},
        // Only the rewrite is answered: exactly two writes.
        {"answers the second write", 10, 2, 2, 2, 1, 450, 1000},
        // Three writes, three silent periods: about 1.5 s.
        {"never", -1, 1, 3, 3, 0, 1450, 1500},
    };
    GlobalSettings settings = DevTestSettings();
    for (const SelfRecvCase& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(true);
        const int delay = c.reply_delay_ms;
        const int answer_write = c.answer_write;
        int writes = 0;
        controller.SetResponder([delay, answer_write, &writes](const Bytes&) {
            std::vector<TimedReply> replies;
            if (delay >= 0 && ++writes == answer_write) {
                replies.push_back({delay, Bytes{0x03, 0x01, 0x41}});
            }
            return replies;
        });
        controller.Start();
        CDeviceObject dev("/dev/hidraw99", &settings);
        AttachPort(&dev, &controller, DEV_USB);
        dev.SelfHookSubCmd = kAnySubCmd;
        dev.SelfHookCmd = 0x41;
        dev.CmdSendBuf[0] = 0x03;
        dev.CmdSendBuf[1] = 0x01;
        dev.CmdSendBuf[2] = 0x41;
        int64_t start = DevNowMs();
        SelfRecv(&dev, 3);
        int64_t elapsed = DevNowMs() - start;
        controller.Stop();
        EXPECT_EQ(c.expect_replied, dev.bSelfHookReplied.load());
        // A loaded host may delay the late reply's window edge; never a write too many.
        EXPECT_GE(controller.ReceivedCount(), static_cast<size_t>(c.min_writes));
        EXPECT_LE(controller.ReceivedCount(), static_cast<size_t>(c.expect_writes));
        for (const Bytes& packet : controller.Received())
            EXPECT_EQ((Bytes{0x03, 0x01, 0x41}), packet);
        EXPECT_GE(elapsed, c.min_ms);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);
        if (c.expect_replied) {
            EXPECT_EQ(0x41, dev.CmdReplyBuf[2]);
        }
    }
}

// A controller that never stops sending other packets: they cause no new write, and the
// exchange still ends after 3 s.
TEST(SelfRecv, EndlessOtherTrafficIsBounded) {
    DevIgnoreSigusr2();
    GlobalSettings settings = DevTestSettings();
    FakeController controller(true);
    controller.SetResponder([](const Bytes&) {
        std::vector<TimedReply> replies;
        for (int i = 0; i < 60; ++i) replies.push_back({100, Bytes{0x03, 0x01, 0x44}});
        return replies;
    });
    controller.Start();
    CDeviceObject dev("/dev/hidraw99", &settings);
    AttachPort(&dev, &controller, DEV_USB);
    dev.SelfHookSubCmd = kAnySubCmd;
    dev.SelfHookCmd = 0x41;
    const uint8_t cmd[3] = {0x03, 0x01, 0x41};
    memcpy(dev.CmdSendBuf, cmd, 3);
    int64_t start = DevNowMs();
    SelfRecv(&dev, 3);
    int64_t elapsed = DevNowMs() - start;
    controller.Stop();
    EXPECT_EQ(0, dev.bSelfHookReplied.load());
    EXPECT_EQ(1u, controller.ReceivedCount());
    EXPECT_GE(elapsed, 2900);
    EXPECT_LE(elapsed, 3000 + kLoadSlackMs);
}

// A port that fails every write, and no port at all (a closed port, as the firmware-kind
// query may meet): three attempts, each followed by a 500 ms pause (the first two also by a
// read period), then give up: never a busy loop or a hang. No reply means application
// firmware.
TEST(SelfRecv, FailedWritesAreBounded) {
    for (bool pipe_port : {true, false}) {
        SCOPED_TRACE(pipe_port ? "read end of a pipe" : "no port");
        DevLogCapture log;
        GlobalSettings settings = DevTestSettings();
        CDeviceObject dev("/dev/hidraw99", &settings);
        dev.DevInterface = DEV_USB;
        dev.CmdHeader = CMD_HEADER_USB;
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        UniqueFd other(fds[1]);
        if (pipe_port) dev.m_Port_fd.reset(fds[0]);  // every write fails with EBADF
        else close(fds[0]);
        int64_t start = DevNowMs();
        EXPECT_EQ(0, DevGetIAPType(&dev));
        int64_t elapsed = DevNowMs() - start;
        EXPECT_EQ(IAP_FW, dev.IAPType);
        EXPECT_EQ(3, log.Count("Write command to prot failed with ret = -1. The actually len = 4."));
        EXPECT_GE(elapsed, 2400);
        EXPECT_LE(elapsed, 2500 + kLoadSlackMs);
    }
}

}  // namespace
