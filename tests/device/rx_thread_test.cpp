// The receive thread: its stop by SIGUSR1 from a blocked port read, a thread that ended
// by itself, a thread that never existed, and the RS232 presence check.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "core/environment.h"
#include "device/cmd_channel.h"
#include "support/dev_test_util.h"

namespace {

class RxThreadTest : public testing::Test {
  protected:
    void SetUp() override { DevIgnoreSigusr2(); }
    GlobalSettings settings_ = DevTestSettings();
};

TEST_F(RxThreadTest, StopsALoopBlockedOnThePort) {
    for (uint8_t interface : {DEV_USB, DEV_RS232}) {
        SCOPED_TRACE(static_cast<int>(interface));
        DevLogCapture log;
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
        int64_t start = DevNowMs();
        EXPECT_EQ(0, StopReadThread(&dev));
        EXPECT_LT(DevNowMs() - start, kStopBoundMs);
        EXPECT_FALSE(dev.bThreadCreated);
        EXPECT_EQ(0, dev.bThreadRunning.load());
        EXPECT_FALSE(log.Contains("Call pthread_kill"));
        // A second stop (the destructor's) has nothing left to do.
        EXPECT_EQ(0, StopReadThread(&dev));
    }
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
    int64_t start = DevNowMs();
    std::thread closer([&] {
        usleep(50000);
        shutdown(dev.m_Port_fd.get(), SHUT_RDWR);  // the port now reads empty
    });
    EXPECT_EQ(0, StopReadThread(&dev));
    int64_t elapsed = DevNowMs() - start;
    closer.join();
    EXPECT_GE(elapsed, 40);  // it waited for the thread's own end: no signal cut it short
    EXPECT_FALSE(dev.bThreadCreated);
}

TEST_F(RxThreadTest, NeverCreatedThreadIsNeitherSignalledNorJoined) {
    CDeviceObject dev("/dev/hidraw99", &settings_);
    dev.bThreadRunning = 1;                             // as a failed creation may leave it
    memset(&dev.ThreadId, 0xA5, sizeof(dev.ThreadId));  // garbage handle must not be used
    EXPECT_EQ(0, StopReadThread(&dev));
    EXPECT_EQ(0, dev.bThreadRunning.load());
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
    DevLogCapture log;
    FakeController controller(false);
    controller.Start();
    CDeviceObject dev("/dev/ttyS99", &settings_);
    AttachPort(&dev, &controller, DEV_RS232);
    bDeviceExistCheck = 0;
    int64_t start = DevNowMs();
    StartRxLoopThread(&dev);
    while (bDeviceExistCheck.load() == 0 && DevNowMs() - start < 40000) usleep(50000);
    int64_t elapsed = DevNowMs() - start;
    StopReadThread(&dev);
    EXPECT_EQ(1, bDeviceExistCheck.load());
    EXPECT_GE(elapsed, 14500);
    EXPECT_LE(elapsed, 15000 + 10 * kLoadSlackMs);  // 750 waits, each late on a busy host
    EXPECT_EQ(1, log.Count("Timeout to check RS232 device exist or not."));
    bDeviceExistCheck = 0;
}

}  // namespace
