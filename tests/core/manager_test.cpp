#include "core/manager.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "core/pnp_signal.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"
#include "support/touch_test_util.h"

namespace {

using namespace testutil;

// No interface chosen or the device limit reached (a limit of 0 or below never scans): the
// pass logs nothing with every category on, since any scan, binding or check logs its entry.
TEST(ManagerTest, PassWithoutScanningDoesNothing) {
    // ScanInterface, MaxDeviceNums, DeviceCount
    const int cases[][3] = {{4, 1, 0}, {255, 3, 0}, {1, 2, 2}, {2, 1, 5}, {0, 0, 0}, {3, -1, 0}};
    bDeviceExistCheck.store(0);
    for (const auto& c : cases) {
        GlobalSettings settings = DevTestSettings();
        settings.ScanInterface = c[0];
        settings.MaxDeviceNums = c[1];
        CManager manager(&settings);
        manager.DeviceCount = c[2];
        LogCapture log;
        Quiet([&] { ScanLoopPass(&manager); });
        EXPECT_TRUE(log.Text().empty() && manager.DeviceCount == c[2])
            << c[0] << c[1] << log.Text();
    }
}

// An RS232 controller that stops answering while it streams touches, and a second request
// raised during the check (two controllers dropping together): the receive thread stops before
// the lifts, so the last frame lifts the contact; the request is answered by the next pass.
TEST(ManagerTest, CheckOfASilentSerialControllerWhileAnotherRequestArrives) {
    ASSERT_EQ(0, InstallSigUsr2Handler());
    GlobalSettings settings = DevTestSettings();
    settings.ScanInterface = 4;
    CManager manager(&settings);
    FakeController controller(false);
    std::atomic<int> loopbacks{0};
    controller.SetResponder([&](const Bytes& packet) {
        // The loop-back goes unanswered; its first copy coincides with the second request.
        if (packet.size() >= 3 && packet[2] == 0x41 && loopbacks++ == 0) kill(getpid(), SIGUSR2);
        return std::vector<TimedReply>{};
    });
    controller.Start();
    CDeviceObject* device = new CDeviceObject("/dev/ttyS99", &settings);
    AttachPort(device, &controller, DEV_RS232);
    device->BaudRate = 9600;  // 5-byte point packets
    UniqueFd touch;
    touchtest::MakeEventPair(&device->UinputTouchFd, &touch);
    manager.DeviceListHead = device;
    manager.DeviceCount = 1;
    std::vector<int32_t> ids;  // tracking ids on the touch device, read as they come
    const auto drain = [&] {   // (its queue is bounded)
        for (const touchtest::Ev& e : touchtest::Drain(touch.get()))
            if (e.type == EV_ABS && e.code == ABS_MT_TRACKING_ID) ids.push_back(e.value);
    };
    LogCapture log(LOG_MAIN | LOG_THREAD | LOG_EVENT);
    Quiet([&] {
        StartRxLoopThread(device);
        std::atomic<bool> streaming{true};
        std::thread touches([&] {  // contact 0 down, again and again
            for (; streaming; usleep(2000), drain()) controller.Send(Bytes{0x81, 0x0F, 0x7F, 0, 0});
        });
        WaitUntil([&] { return log.Contains("Send SLOT Multi Event ID[0]"); }, 5000);
        bDeviceExistCheck.store(1);
        ScanLoopPass(&manager);
        streaming = false;
        touches.join();
    });
    drain();  // the lifts written after the last touch
    EXPECT_TRUE(manager.DeviceCount == 0 && manager.DeviceListHead == nullptr);
    EXPECT_EQ(1, bDeviceExistCheck.load()) << "the request raised during the check was lost";
    // The release's lift is the last one logged (the receive thread may lift and re-touch).
    const int stopped = log.Find("StopReadThread() is processing");
    EXPECT_TRUE(stopped >= 0 && stopped < log.FindLast("Send SLOT Multi Event ID[0], state[0]"));
    ASSERT_GE(ids.size(), 2u) << "no touch reached the touch device";
    EXPECT_TRUE(ids.front() >= 0 && ids.back() == -1);  // only contact 0 ever touches
    log.Clear();
    Quiet([&] { ScanLoopPass(&manager); });
    EXPECT_EQ("Receive signal SIGUSR2. Set bDeviceExistCheck true.\nEntering DevicePnPCheck\n",
              log.Text());
    EXPECT_EQ(0, bDeviceExistCheck.load());
}

// The check unlinks every device without a port or whose USB node is gone and keeps the rest
// in order; a serial controller that answers the loop-back keeps its receive thread.
TEST(ManagerTest, AnsweringSerialControllerIsKept) {
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.File("present"), ""));
    GlobalSettings settings = DevTestSettings();
    CManager manager(&settings);
    FakeController controller(false);
    controller.SetResponder([](const Bytes& packet) {
        if (packet.size() < 3 || packet[2] != 0x41) return std::vector<TimedReply>{};
        return std::vector<TimedReply>{{5, {0x0A, 0x01, 0x41}}};
    });
    controller.Start();
    // Path, interface, and port: none, /dev/null or the controller.
    const std::tuple<std::string, uint8_t, int> rows[] = {
        {"/dev/hidraw7", DEV_USB, 0},      {"/dev/ttyS99", DEV_RS232, 2},
        {dir.File("gone"), DEV_USB, 1},    {"/dev/serio_raw0", DEV_PS2, 1},
        {dir.File("present"), DEV_USB, 1}, {"/dev/ttyS0", DEV_RS232, 0}};
    CDeviceObject* d[7] = {};
    for (int i = 5; i >= 0; --i) {
        d[i] = new CDeviceObject(std::get<0>(rows[i]).c_str(), &settings);
        d[i]->DevInterface = std::get<1>(rows[i]);
        d[i]->pNext = d[i + 1];
        if (std::get<2>(rows[i]) == 1) d[i]->m_Port_fd.reset(OpenCloexec("/dev/null", O_RDWR));
        if (std::get<2>(rows[i]) == 2) AttachPort(d[i], &controller, DEV_RS232);
    }
    manager.DeviceListHead = d[0];
    manager.DeviceCount = 6;
    Quiet([&] { StartRxLoopThread(d[1]), DevicePnPCheck(&manager); });
    EXPECT_EQ(3, manager.DeviceCount);
    ASSERT_TRUE(manager.DeviceListHead == d[1] && d[1]->pNext == d[3] && d[3]->pNext == d[4] &&
                !d[4]->pNext);
    EXPECT_TRUE(d[1]->bThreadCreated);
    Quiet([&] { delete d[1], delete d[3], delete d[4]; });
    controller.Stop();
}

}  // namespace
