// The command channel and the receive thread on a socketpair with a controller stand-in:
// the bytes that reach the controller per port and kernel, the polling exchange of the
// device's own thread (on time, late, never, endless other traffic, failing writes), the
// blocking style from a sender thread against a real receive thread, the stop of that
// thread by SIGUSR1, and the RS232 presence check.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "core/environment.h"
#include "device/cmd_channel.h"
#include "device/identification.h"
#include "device/report_format.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

TEST(CommandShift, WireBytesByPortAndKernel) {
    struct Case {
        const char* name;
        bool usb;
        int32_t old_kernel;
        bool shift_both_ends;
        int (*send)(CDeviceObject*);
        int expect_result;
        Bytes expect;
    } cases[] = {
        // Old kernels: a leading report id 0 and 7-byte writes.
        {"USB feature, old kernel", true, 1, false, SetFeature, 7, {0x00, 0x05, 0x02, 0, 0, 0, 0}},
        {"USB loop-back, old kernel", true, 1, false, SetLoopbackInside, -1,
         {0x00, 0x03, 0x01, 0x41, 0, 0, 0}},
        {"USB feature", true, 0, false, SetFeature, 6, {0x05, 0x02, 0, 0, 0, 0}},
        {"serial loop-back", false, 0, false, SetLoopbackInside, -1, {0x0A, 0x01, 0x41}},
        // ShiftByteBothEnd on the polled write: 4 bytes go out as 6.
        {"USB raw format, both ends", true, 0, true, SetRawFormat, 0,
         {0x00, 0x03, 0x02, 0x34, 0x00, 0x00}},
    };
    const int32_t saved = bOldKernel;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        bOldKernel = c.old_kernel;
        GlobalSettings settings = DevTestSettings();
        settings.ShiftByteBothEnd = c.shift_both_ends;
        FakeController controller(c.usb);  // never answers
        controller.Start();
        CDeviceObject dev(c.usb ? "/dev/hidraw99" : "/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, c.usb ? DEV_USB : DEV_RS232);
        // Twice: a command leaves the channel free for the next one.
        EXPECT_EQ(c.expect_result, c.send(&dev));
        EXPECT_EQ(c.expect_result, c.send(&dev));
        ASSERT_TRUE(controller.WaitForPackets(2, 1000));
        EXPECT_EQ(c.expect, controller.Received()[0]);
        EXPECT_EQ(c.expect, controller.Received()[1]);
    }
    bOldKernel = saved;
}

// The polling exchange writes again only after a silent 500 ms period, three times at most;
// other traffic, even endless, causes no new write and the exchange still ends after 3 s.
TEST(SelfRecv, WritesAgainOnlyAfterASilentPeriod) {
    struct Case {
        const char* name;
        int reply_delay_ms;  // -1: never answers
        int answer_write;    // the write (1, 2, ...) that is answered
        bool chatter;        // 60 other packets, 100 ms apart, after the first write
        size_t min_writes;
        size_t expect_writes;
        uint8_t expect_replied;
        int min_ms;
        int max_ms;
    } cases[] = {
        {"on time", 10, 1, false, 1, 1, 1, 0, 500},
        // The first period passes in silence: second write; the late reply to the first
        // write arrives in the second period and ends the exchange.
        {"after 600 ms", 600, 1, false, 1, 2, 1, 550, 1100},
        {"answers the second write", 10, 2, false, 2, 2, 1, 450, 1000},
        {"never", -1, 1, false, 3, 3, 0, 1450, 1500},
        {"endless other traffic", -1, 1, true, 1, 1, 0, 2900, 3000},
    };
    DevIgnoreSigusr2();
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(true);
        int writes = 0;
        controller.SetResponder([&c, &writes](const Bytes&) {
            std::vector<TimedReply> replies;
            ++writes;
            if (c.reply_delay_ms >= 0 && writes == c.answer_write) {
                replies.push_back({c.reply_delay_ms, Bytes{0x03, 0x01, 0x41}});
            }
            for (int i = 0; c.chatter && writes == 1 && i < 60; ++i) {
                replies.push_back({100, Bytes{0x03, 0x01, 0x44}});
            }
            return replies;
        });
        controller.Start();
        CDeviceObject dev("/dev/hidraw99", &settings);
        AttachPort(&dev, &controller, DEV_USB);
        dev.SelfHookSubCmd = kAnySubCmd;
        dev.SelfHookCmd = 0x41;
        const uint8_t cmd[3] = {0x03, 0x01, 0x41};
        memcpy(dev.CmdSendBuf, cmd, 3);
        int64_t start = testutil::NowMs();
        SelfRecv(&dev, 3);
        int64_t elapsed = testutil::NowMs() - start;
        controller.Stop();
        EXPECT_EQ(c.expect_replied, dev.bSelfHookReplied.load());
        // A loaded host may delay the late reply's window edge; never a write too many.
        EXPECT_GE(controller.ReceivedCount(), c.min_writes);
        EXPECT_LE(controller.ReceivedCount(), c.expect_writes);
        for (const Bytes& packet : controller.Received()) EXPECT_EQ(Bytes(cmd, cmd + 3), packet);
        EXPECT_GE(elapsed, c.min_ms);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);
        if (c.expect_replied) {
            EXPECT_EQ(0x41, dev.CmdReplyBuf[2]);
        }
    }
}

// A port that fails every write, and no port at all (a closed port, as the firmware-kind
// query may meet): three attempts, each followed by a 500 ms pause (the first two also by a
// read period), then give up: never a busy loop or a hang. No reply means application
// firmware.
TEST(SelfRecv, FailedWritesAreBounded) {
    for (bool pipe_port : {true, false}) {
        SCOPED_TRACE(pipe_port ? "read end of a pipe" : "no port");
        testutil::LogCapture log;
        GlobalSettings settings = DevTestSettings();
        CDeviceObject dev("/dev/hidraw99", &settings);
        dev.DevInterface = DEV_USB;
        dev.CmdHeader = CMD_HEADER_USB;
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        UniqueFd other(fds[1]);
        if (pipe_port) dev.m_Port_fd.reset(fds[0]);  // every write fails with EBADF
        else close(fds[0]);
        int64_t start = testutil::NowMs();
        EXPECT_EQ(0, DevGetIAPType(&dev));
        int64_t elapsed = testutil::NowMs() - start;
        EXPECT_EQ(IAP_FW, dev.IAPType);
        EXPECT_EQ(3, log.Count("Write command to prot failed with ret = -1. The actually len = 4."));
        EXPECT_GE(elapsed, 2400);
        EXPECT_LE(elapsed, 2500 + kLoadSlackMs);
    }
}

TEST(BlockingChannel, CommandFromAnotherThread) {
    struct Case {
        const char* name;
        bool format;  // SetFormat(1), else SetLoopback
        Bytes reply;  // to command number `answer` (1, 2, ...), `copies` times in one write
        int delay_ms;
        int copies;
        int answer;
        int expect_result;
        size_t expect_commands;  // 0: not checked
        int max_ms;
    };
    const Bytes loopback = {0x0A, 0x01, 0x41};
    const Case cases[] = {
        {"on time", false, loopback, 5, 1, 1, 0, 1, 400},
        // The reply to the first attempt comes after its 500 ms wait: the second attempt's
        // wait takes it.
        {"late", false, loopback, 750, 1, 1, 0, 2, 1500},
        // Only the second attempt is answered: sent again, and it succeeds.
        {"second attempt", false, loopback, 5, 1, 2, 0, 2, 900},
        // Delivered back to back, before the woken sender can take the channel lock again.
        {"doubled", false, loopback, 5, 2, 1, 0, 1, 400},
        {"missing", false, loopback, 0, 0, 1, ETIMEDOUT, 3, 1800},
        {"format confirmed", true, {0x0A, 0x02, 0x33, 0x01}, 5, 1, 1, 0, 1, 400},
        // Same reply command with another format: not the awaited hook, never wakes.
        {"other format", true, {0x0A, 0x02, 0x33, 0x02}, 5, 1, 1, ETIMEDOUT, 0, 10000},
    };
    DevIgnoreSigusr2();
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(false);
        auto seen = std::make_shared<int>(0);
        const uint8_t command = c.format ? 0x34 : 0x41;
        controller.SetResponder([&c, seen, command](const Bytes& packet) {
            std::vector<TimedReply> replies;
            if (packet.size() >= 3 && packet[2] == command && ++*seen == c.answer &&
                c.copies > 0) {
                Bytes all;
                for (int i = 0; i < c.copies; ++i) all.insert(all.end(), c.reply.begin(), c.reply.end());
                replies.push_back({c.delay_ms, all});
            }
            return replies;
        });
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, DEV_RS232);
        dev.NoDeviceCheck = 1;
        StartRxLoopThread(&dev);

        int result = -100;
        int64_t start = testutil::NowMs();
        std::thread sender([&] { result = c.format ? SetFormat(&dev, 1) : SetLoopback(&dev); });
        sender.join();
        int64_t elapsed = testutil::NowMs() - start;
        EXPECT_EQ(c.expect_result, result);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);
        if (c.expect_commands) {
            EXPECT_EQ(c.expect_commands, controller.ReceivedCount());
        }
        ASSERT_GE(controller.ReceivedCount(), 1u);
        const Bytes sent = c.format ? Bytes{0x0A, 0x02, 0x34, 0x01} : Bytes{0x0A, 0x01, 0x41};
        EXPECT_EQ(sent, controller.Received()[0]);
        EXPECT_EQ(0, dev.SigHookCmd.load());

        // Whatever happened, the channel is idle again: no wake is left counted (a late or
        // doubled reply), so a following wait without a reply times out.
        usleep(50000);
        EXPECT_EQ(ETIMEDOUT, CmdTimedWait(&dev, 0, 50));

        StopReadThread(&dev);
        controller.Stop();
    }
}

class RxThreadTest : public testing::Test {
  protected:
    void SetUp() override { DevIgnoreSigusr2(); }
    GlobalSettings settings_ = DevTestSettings();
};

TEST_F(RxThreadTest, StopsALoopBlockedOnThePortAndOnlyAThreadThatExists) {
    for (uint8_t interface : {DEV_USB, DEV_RS232}) {
        SCOPED_TRACE(static_cast<int>(interface));
        testutil::LogCapture log;
        FakeController controller(interface == DEV_USB);
        controller.Start();
        CDeviceObject dev("/dev/hidraw99", &settings_);
        AttachPort(&dev, &controller, interface);
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        dev.m_fdPipeIn.reset(fds[0]);
        UniqueFd tool_end(fds[1]);
        StartRxLoopThread(&dev);
        ASSERT_TRUE(dev.bThreadCreated);
        usleep(100000);  // well inside the wait by now
        EXPECT_EQ(1, dev.bThreadRunning.load());
        int64_t start = testutil::NowMs();
        EXPECT_EQ(0, StopReadThread(&dev));
        EXPECT_LT(testutil::NowMs() - start, kStopBoundMs);
        EXPECT_FALSE(dev.bThreadCreated);
        EXPECT_EQ(0, dev.bThreadRunning.load());
        EXPECT_FALSE(log.Contains("Call pthread_kill"));
        // A second stop (the destructor's) has nothing left to do.
        EXPECT_EQ(0, StopReadThread(&dev));
    }
    // A thread never created, as a failed creation may leave the record: the garbage
    // handle is neither signalled nor joined.
    CDeviceObject dev("/dev/hidraw99", &settings_);
    dev.bThreadRunning = 1;
    memset(&dev.ThreadId, 0xA5, sizeof(dev.ThreadId));
    EXPECT_EQ(0, StopReadThread(&dev));
    EXPECT_EQ(0, dev.bThreadRunning.load());
}

// A thread that is no longer marked running is only joined, never signalled: here it is
// still alive and ends by itself when its port reads empty 50 ms later (an unplug).
TEST_F(RxThreadTest, ThreadMarkedEndedIsOnlyJoined) {
    FakeController controller(true);
    CDeviceObject dev("/dev/hidraw_gone_for_test", &settings_);
    AttachPort(&dev, &controller, DEV_USB);
    StartRxLoopThread(&dev);
    usleep(50000);
    dev.bThreadRunning = 0;
    int64_t start = testutil::NowMs();
    std::thread closer([&] {
        usleep(50000);
        shutdown(dev.m_Port_fd.get(), SHUT_RDWR);  // the port now reads empty
    });
    EXPECT_EQ(0, StopReadThread(&dev));
    int64_t elapsed = testutil::NowMs() - start;
    closer.join();
    EXPECT_GE(elapsed, 40);  // it waited for the thread's own end: no signal cut it short
    EXPECT_FALSE(dev.bThreadCreated);
}

// An RS232 receive loop counts its idle 20 ms wake-ups (the input of the presence check);
// traffic resets the count, and the other ports or a disabled check never count.
TEST_F(RxThreadTest, Rs232SilenceCountsIdleWakeUps) {
    struct Case {
        const char* name;
        uint8_t interface;
        uint8_t no_device_check;
        bool traffic;
        unsigned min_count;
        unsigned max_count;
    } cases[] = {
        // About 15 in 300 ms (the loop start runs a shell command).
        {"RS232", DEV_RS232, 0, false, 3, 16},
        {"RS232 with a reply at 200 ms", DEV_RS232, 0, true, 0, 3},
        {"RS232 check off", DEV_RS232, 1, false, 0, 0},
        {"USB", DEV_USB, 0, false, 0, 0},
        {"PS2", DEV_PS2, 0, false, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(false);
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings_);
        AttachPort(&dev, &controller, c.interface);
        dev.NoDeviceCheck = c.no_device_check;
        StartRxLoopThread(&dev);
        if (c.traffic) {
            usleep(200000);
            controller.Send(Bytes{0x0A, 0x01, 0x41});  // unhooked: to the (closed) tool pipe
            usleep(30000);
        } else {
            usleep(300000);
        }
        StopReadThread(&dev);
        EXPECT_GE(dev.IdleWakeCount, c.min_count);
        EXPECT_LE(dev.IdleWakeCount, c.max_count);
    }
}

// About 15 s of silence on an RS232 port asks the scan loop for a presence check.
TEST_F(RxThreadTest, Rs232SilenceRequestsPresenceCheck) {
    testutil::LogCapture log;
    FakeController controller(false);
    controller.Start();
    CDeviceObject dev("/dev/ttyS99", &settings_);
    AttachPort(&dev, &controller, DEV_RS232);
    bDeviceExistCheck = 0;
    int64_t start = testutil::NowMs();
    StartRxLoopThread(&dev);
    while (bDeviceExistCheck.load() == 0 && testutil::NowMs() - start < 40000) usleep(50000);
    int64_t elapsed = testutil::NowMs() - start;
    StopReadThread(&dev);
    EXPECT_EQ(1, bDeviceExistCheck.load());
    EXPECT_GE(elapsed, 14500);
    EXPECT_LE(elapsed, 15000 + 10 * kLoadSlackMs);  // 750 waits, each late on a busy host
    EXPECT_EQ(1, log.Count("Timeout to check RS232 device exist or not."));
    bDeviceExistCheck = 0;
}

}  // namespace
