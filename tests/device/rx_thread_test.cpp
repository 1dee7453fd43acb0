// The receive thread: its stop by SIGUSR1 from every kind of wait, a thread that ended
// by itself, a thread that never existed, the RS232 presence check, and Create().
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
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

// Every wait of the thread honours the stop: here the polling exchange on a silent
// controller, which would otherwise take 1.5 s.
TEST_F(RxThreadTest, StopInterruptsThePollingExchange) {
    FakeController controller(true);
    controller.Start();
    CDeviceObject dev("/dev/hidraw99", &settings_);
    AttachPort(&dev, &controller, DEV_USB);
    SetupSigUsr1Handler();
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    dev.bThreadRunning = 1;
    ASSERT_EQ(0, pthread_create(
                     &dev.ThreadId, nullptr,
                     [](void* arg) -> void* {
                         auto* d = static_cast<CDeviceObject*>(arg);
                         d->CmdSendBuf[0] = 0x03;
                         d->CmdSendBuf[1] = 0x01;
                         d->CmdSendBuf[2] = 0x41;
                         d->SelfHookCmd = 0x41;
                         SelfRecv(d, 3);
                         return nullptr;
                     },
                     &dev));
    dev.bThreadCreated = true;
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    usleep(100000);
    int64_t start = DevNowMs();
    StopReadThread(&dev);
    EXPECT_LT(DevNowMs() - start, kStopBoundMs);
    EXPECT_EQ(1u, controller.ReceivedCount());  // no write after the stop
}

struct PresenceCase {
    const char* name;
    uint8_t interface;
    uint8_t no_device_check;
    bool counts;
};

TEST_F(RxThreadTest, Rs232SilenceCountsIdleWakeUps) {
    const PresenceCase cases[] = {
        {"RS232", DEV_RS232, 0, true},
        {"RS232 check off", DEV_RS232, 1, false},
        {"USB", DEV_USB, 0, false},
        {"PS2", DEV_PS2, 0, false},
    };
    for (const PresenceCase& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(false);
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings_);
        AttachPort(&dev, &controller, c.interface);
        dev.NoDeviceCheck = c.no_device_check;
        StartRxLoopThread(&dev);
        usleep(300000);
        StopReadThread(&dev);
        if (c.counts) {
            // 20 ms idle waits: about 15 in 300 ms (the loop start runs a shell command).
            EXPECT_GE(dev.IdleWakeCount, 3u);
            EXPECT_LE(dev.IdleWakeCount, 16u);
        } else {
            EXPECT_EQ(0u, dev.IdleWakeCount);
        }
    }
}

TEST_F(RxThreadTest, Rs232ActivityResetsTheIdleCount) {
    FakeController controller(false);
    controller.Start();
    CDeviceObject dev("/dev/ttyS99", &settings_);
    AttachPort(&dev, &controller, DEV_RS232);
    StartRxLoopThread(&dev);
    usleep(200000);
    controller.Send(Bytes{0x0A, 0x01, 0x41});  // an unhooked reply: goes to the (closed) tool pipe
    usleep(30000);
    StopReadThread(&dev);
    EXPECT_LE(dev.IdleWakeCount, 3u);
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

TEST_F(RxThreadTest, CreateRefusesAPortThatCannotBeOpened) {
    DevTempDataDir data;
    DevLogCapture log;
    std::unique_ptr<CDeviceObject> dev =
        CDeviceObject::Create("/dev/hidraw_missing_for_test", &settings_);
    EXPECT_EQ(nullptr, dev);
    EXPECT_TRUE(log.Contains("Open file [/dev/hidraw_missing_for_test] failed"));
}

// A real Create() on a pty: interface unknown, the thread runs its set-up, which ends
// because this host has no uinput; destruction then only joins the ended thread.
TEST_F(RxThreadTest, CreateStartsTheThreadAndDestructionJoinsIt) {
    DevTempDataDir data;
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    UniqueFd master_fd(master);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    std::string slave = ptsname(master);
    snprintf(settings_.UinputPath, sizeof(settings_.UinputPath), "%s/no_uinput",
             data.path().c_str());
    settings_.CustomPathMask = kCustomUinputPathBit;
    DevLogCapture log;
    std::unique_ptr<CDeviceObject> dev = CDeviceObject::Create(slave.c_str(), &settings_);
    ASSERT_NE(nullptr, dev);
    EXPECT_TRUE(dev->bThreadCreated);
    EXPECT_TRUE(dev->m_Port_fd.valid());
    EXPECT_EQ(DEV_UNKNOWN, dev->DevInterface);
    EXPECT_STREQ("NULL", dev->Param.Physical_Address);
    int64_t start = DevNowMs();
    while (dev->bThreadRunning.load() != 0 && DevNowMs() - start < 3000) usleep(10000);
    EXPECT_EQ(0, dev->bThreadRunning.load());
    EXPECT_TRUE(log.Contains("<Device thread start running>"));
    EXPECT_TRUE(log.Contains("DevSetup failed with return -1"));
    int fd_number = dev->m_Port_fd.get();
    dev.reset();
    EXPECT_FALSE(log.Contains("Call pthread_kill"));
    EXPECT_EQ(-1, fcntl(fd_number, F_GETFD));  // the port was closed
}

}  // namespace
