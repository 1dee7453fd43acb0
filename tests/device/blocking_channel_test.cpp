// The blocking command style end to end: a sender thread (SetLoopback, SetFormat) and a
// real receive thread running DevRxLoop on a socketpair, with a controller stand-in that
// answers on time, late, twice or never.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <memory>
#include <thread>

#include "device/cmd_channel.h"
#include "device/report_format.h"
#include "support/dev_test_util.h"

namespace {

// Answers loop-back command number `answer` (1, 2, ...) after delay_ms, `copies` times
// (0 = never).
std::function<std::vector<TimedReply>(const Bytes&)> LoopbackResponder(int delay_ms, int copies,
                                                                       int answer) {
    auto seen = std::make_shared<int>(0);
    return [delay_ms, copies, answer, seen](const Bytes& packet) {
        std::vector<TimedReply> replies;
        if (packet.size() >= 3 && packet[2] == 0x41 && ++*seen == answer) {
            // All copies in one write: the receive thread delivers them back to back,
            // before the woken sender can take the channel lock again.
            Bytes all;
            for (int i = 0; i < copies; ++i) all.insert(all.end(), {0x0A, 0x01, 0x41});
            if (copies > 0) replies.push_back({delay_ms, all});
        }
        return replies;
    };
}

struct LoopbackCase {
    const char* name;
    int delay_ms;
    int copies;
    int answer;
    int expect_result;
    size_t expect_commands;
    int max_ms;
};

TEST(BlockingChannel, LoopbackFromAnotherThread) {
    DevIgnoreSigusr2();
    const LoopbackCase cases[] = {
        {"on time", 5, 1, 1, 0, 1, 400},
        // The reply to the first attempt comes after its 500 ms wait: the second attempt's
        // wait takes it.
        {"late", 750, 1, 1, 0, 2, 1500},
        // Only the second attempt is answered: sent again, and it succeeds.
        {"second attempt", 5, 1, 2, 0, 2, 900},
        {"doubled", 5, 2, 1, 0, 1, 400},
        {"missing", 0, 0, 1, ETIMEDOUT, 3, 1800},
    };
    GlobalSettings settings = DevTestSettings();
    for (const LoopbackCase& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(false);
        controller.SetResponder(LoopbackResponder(c.delay_ms, c.copies, c.answer));
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, DEV_RS232);
        dev.NoDeviceCheck = 1;
        StartRxLoopThread(&dev);

        int result = -100;
        int64_t start = DevNowMs();
        std::thread sender([&] { result = SetLoopback(&dev); });
        sender.join();
        int64_t elapsed = DevNowMs() - start;
        EXPECT_EQ(c.expect_result, result);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);
        EXPECT_EQ(c.expect_commands, controller.ReceivedCount());
        EXPECT_EQ(0, dev.SigHookCmd.load());

        // Whatever happened, the channel is idle again: no wake is left counted, and a
        // following wait without a reply times out instead of failing at once.
        usleep(50000);
        pthread_mutex_lock(&dev.CmdMutex);
        EXPECT_EQ(0, dev.WakeCount);
        EXPECT_EQ(0, dev.WaiterCount);
        pthread_mutex_unlock(&dev.CmdMutex);
        EXPECT_EQ(ETIMEDOUT, CmdTimedWait(&dev, 0, 50));

        StopReadThread(&dev);
        EXPECT_FALSE(dev.bThreadCreated);
        controller.Stop();
    }
}

TEST(BlockingChannel, SetFormatFromAnotherThreadAcceptsOnlyItsReply) {
    DevIgnoreSigusr2();
    GlobalSettings settings = DevTestSettings();
    struct Case {
        const char* name;
        Bytes reply;
        int expect;
    } cases[] = {
        {"confirmed", Bytes{0x0A, 0x02, 0x33, 0x01}, 0},
        // Same reply command with another format: not the awaited hook, never wakes.
        {"other format", Bytes{0x0A, 0x02, 0x33, 0x02}, ETIMEDOUT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(false);
        Bytes reply = c.reply;
        controller.SetResponder([reply](const Bytes& packet) {
            std::vector<TimedReply> replies;
            if (packet.size() >= 4 && packet[2] == 0x34) replies.push_back({5, reply});
            return replies;
        });
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, DEV_RS232);
        dev.NoDeviceCheck = 1;
        StartRxLoopThread(&dev);
        int result = -100;
        std::thread sender([&] { result = SetFormat(&dev, 1); });
        sender.join();
        EXPECT_EQ(c.expect, result);
        ASSERT_GE(controller.ReceivedCount(), 1u);
        EXPECT_EQ((Bytes{0x0A, 0x02, 0x34, 0x01}), controller.Received()[0]);
        StopReadThread(&dev);
        controller.Stop();
    }
}

TEST(BlockingChannel, WakeWithoutWaiterCountsNothing) {
    DevLogCapture log;
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    dev.CmdReplyBuf[0] = 0x0A;
    int64_t start = DevNowMs();
    CmdWake(&dev);
    int64_t elapsed = DevNowMs() - start;
    EXPECT_EQ(3, log.Count("pthread_signal release mutex and call sleep"));
    EXPECT_GE(elapsed, 14);
    EXPECT_EQ(0, dev.WakeCount);
    EXPECT_EQ(0, dev.SigReplyBuf[0]);  // nothing delivered
    EXPECT_EQ(ETIMEDOUT, CmdTimedWait(&dev, 0, 20));
}

TEST(BlockingChannel, WakeReachesAWaiterWithTheReply) {
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    int result = -100;
    std::thread waiter([&] { result = CmdTimedWait(&dev, 2, 0); });
    // The receive thread's side: a reply is complete in CmdReplyBuf, then the wake.
    for (int i = 0; i < 200; ++i) {
        pthread_mutex_lock(&dev.CmdMutex);
        bool waiting = dev.WaiterCount == 1;
        pthread_mutex_unlock(&dev.CmdMutex);
        if (waiting) break;
        usleep(1000);
    }
    dev.CmdReplyBuf[0] = 0x0A;
    dev.CmdReplyBuf[2] = 0x41;
    int64_t start = DevNowMs();
    CmdWake(&dev);
    waiter.join();
    EXPECT_EQ(0, result);
    EXPECT_LT(DevNowMs() - start, 500);
    pthread_mutex_lock(&dev.CmdMutex);
    EXPECT_EQ(0x41, dev.SigReplyBuf[2]);
    EXPECT_EQ(0, dev.WakeCount);
    EXPECT_EQ(0, dev.WaiterCount);
    pthread_mutex_unlock(&dev.CmdMutex);
}

TEST(BlockingChannel, TimedWaitHonoursItsDeadline) {
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    int64_t start = DevNowMs();
    EXPECT_EQ(ETIMEDOUT, CmdTimedWait(&dev, 0, 200));
    int64_t elapsed = DevNowMs() - start;
    EXPECT_GE(elapsed, 195);
    EXPECT_LE(elapsed, 200 + kLoadSlackMs);
    // A wake already counted when a waiter arrives: -1 at once, the count stays.
    pthread_mutex_lock(&dev.CmdMutex);
    dev.WakeCount = 1;
    pthread_mutex_unlock(&dev.CmdMutex);
    start = DevNowMs();
    EXPECT_EQ(-1, CmdTimedWait(&dev, 1, 0));
    EXPECT_LT(DevNowMs() - start, kStopBoundMs);  // at once, not after the 1 s deadline
    EXPECT_EQ(1, dev.WakeCount);
}

TEST(BlockingChannel, UnregisterClearsOnlyAMatchingHook) {
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    dev.SigHookCmd = 0x33;
    dev.SigHookSubCmd = 1;
    UnRegisSigHookCmd(&dev, 0x41, kAnySubCmd);
    EXPECT_EQ(0x33, dev.SigHookCmd.load());
    EXPECT_EQ(1, dev.SigHookSubCmd.load());
    UnRegisSigHookCmd(&dev, 0x33, 2);
    EXPECT_EQ(0x33, dev.SigHookCmd.load());
    UnRegisSigHookCmd(&dev, 0x33, 1);
    EXPECT_EQ(0, dev.SigHookCmd.load());
    EXPECT_EQ(0, dev.SigHookSubCmd.load());

    dev.SelfHookCmd = 0x39;
    dev.SelfHookSubCmd = 4;
    UnRegisSelfHookCmd(&dev, 0x39, kAnySubCmd);
    EXPECT_EQ(0x39, dev.SelfHookCmd.load());
    UnRegisSelfHookCmd(&dev, 0x39, 4);
    EXPECT_EQ(0, dev.SelfHookCmd.load());
    EXPECT_EQ(0, dev.SelfHookSubCmd.load());
}

}  // namespace
