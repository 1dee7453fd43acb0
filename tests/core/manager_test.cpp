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

// A silent RS232 controller mid-touch and a second request raised during its check: the last
// frame lifts the contact, and the request is answered by the next pass.
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
    std::vector<int32_t> ids;  // tracking ids, read as they come (the queue is bounded)
    const auto drain = [&] {
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
    EXPECT_EQ(1, bDeviceExistCheck.load());  // the request raised during the check
    EXPECT_TRUE(ids.size() >= 2 && ids.front() >= 0 && ids.back() == -1);
    log.Clear();
    Quiet([&] { ScanLoopPass(&manager); });
    EXPECT_EQ("Receive signal SIGUSR2. Set bDeviceExistCheck true.\nEntering DevicePnPCheck\n",
              log.Text());  // each signal logged once
    EXPECT_EQ(0, bDeviceExistCheck.load());
}

// The check unlinks devices without a port or USB node and keeps the rest in order; a serial
// controller that answers the loop-back keeps its receive thread.
TEST(ManagerTest, AnsweringSerialControllerIsKept) {
    GlobalSettings settings = DevTestSettings();
    CManager manager(&settings);
    FakeController controller(false);
    controller.SetResponder([](const Bytes& packet) {
        if (packet.size() < 3 || packet[2] != 0x41) return std::vector<TimedReply>{};
        return std::vector<TimedReply>{{5, {0x0A, 0x01, 0x41}}};
    });
    controller.Start();
    // Path, interface, and port: none, /dev/null or the controller.
    const std::tuple<std::string, uint8_t, int> rows[] = {{"/dev/hidraw7", DEV_USB, 0},
                                                          {"/dev/ttyS99", DEV_RS232, 2},
                                                          {"/nonexistent/hidraw1", DEV_USB, 1},
                                                          {"/dev/serio_raw0", DEV_PS2, 1},
                                                          {"/dev/null", DEV_USB, 1},
                                                          {"/dev/ttyS0", DEV_RS232, 0}};
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
