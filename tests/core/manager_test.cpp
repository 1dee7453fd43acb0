#include "core/manager.h"

#include <gtest/gtest.h>
#include <linux/input.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "config/global_settings.h"
#include "core/environment.h"
#include "core/pnp_signal.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "support/test_util.h"
#include "support/dev_test_util.h"
#include "support/touch_test_util.h"

namespace {

using testutil::LogCapture;
using testutil::TempDir;

std::vector<std::string> Messages(const LogCapture& log) {
    std::vector<std::string> messages;
    for (const auto& line : log.lines()) messages.push_back(line.message);
    return messages;
}

// A pass that must not scan logs nothing at all, with every category on: any scan, driver
// binding or check would log its entry.
TEST(ManagerTest, PassWithoutScanningDoesNothing) {
    struct Case {
        uint8_t scan_interface;
        int8_t max_devices;
        int16_t device_count;
    };
    const Case cases[] = {
        {4, 1, 0}, {255, 3, 0},  // no interface chosen
        {1, 2, 2}, {2, 1, 5},    // the device limit is reached
        {0, 0, 0}, {3, -1, 0},   // a limit of 0 or below never scans
    };
    bDeviceExistCheck.store(0);
    for (const Case& c : cases) {
        GlobalSettings settings = DevTestSettings();
        settings.ScanInterface = c.scan_interface;
        settings.MaxDeviceNums = c.max_devices;
        LogCapture log;
        CManager manager(&settings);
        log.Clear();
        manager.DeviceCount = c.device_count;
        testutil::Quiet([&] { ScanLoopPass(&manager); });
        EXPECT_TRUE(log.lines().empty())
            << int(c.scan_interface) << " " << int(c.max_devices) << ": "
            << (log.lines().empty() ? "" : log.lines()[0].message);
        EXPECT_EQ(c.device_count, manager.DeviceCount);
    }
}

// Signals received between two passes: one line each, then one check, and the flag is
// cleared; the next pass does nothing.
TEST(ManagerTest, SignalsAreLoggedOnceEachAndAnsweredInTheNextPass) {
    struct sigaction old_action;
    ASSERT_EQ(0, sigaction(SIGUSR2, nullptr, &old_action));
    ASSERT_EQ(0, InstallSigUsr2Handler());
    GlobalSettings settings = DevTestSettings();
    settings.ScanInterface = 4;
    CManager manager(&settings);
    bDeviceExistCheck.store(0);

    LogCapture log;
    for (int i = 0; i < 4; ++i) ASSERT_EQ(0, raise(SIGUSR2));
    testutil::Quiet([&] { ScanLoopPass(&manager); });
    const std::string received = "Receive signal SIGUSR2. Set bDeviceExistCheck true.";
    EXPECT_EQ((std::vector<std::string>{received, received, received, received,
                                        "Entering DevicePnPCheck"}),
              Messages(log));
    EXPECT_EQ(0, bDeviceExistCheck.load());

    log.Clear();
    testutil::Quiet([&] { ScanLoopPass(&manager); });
    EXPECT_TRUE(log.lines().empty());

    ASSERT_EQ(0, sigaction(SIGUSR2, &old_action, nullptr));
}

// Builds a bare device record, with an open socket as its port when with_port.
CDeviceObject* NewDevice(GlobalSettings* settings, const std::string& path, uint8_t interface,
                         bool with_port) {
    CDeviceObject* device = new CDeviceObject(path.c_str(), settings);
    device->DevInterface = interface;
    if (with_port) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            device->m_Port_fd.reset(fds[0]);
            UniqueFd peer(fds[1]);  // closed here: the port only needs to be a valid descriptor
        }
    }
    return device;
}

// (The lifts written for a removed device are checked with the silent serial controller.)
TEST(ManagerTest, PnpCheckRemovesEveryGoneDeviceAndKeepsTheRest) {
    TempDir dir;
    const std::string present = dir.File("hidraw_present");
    ASSERT_TRUE(testutil::WriteFile(present, ""));
    GlobalSettings settings = DevTestSettings();
    CManager manager(&settings);

    // Chain: gone (no port), gone (node deleted), PS/2, present USB, gone (no port).
    CDeviceObject* devices[] = {
        NewDevice(&settings, "/dev/hidraw7", DEV_USB, false),
        NewDevice(&settings, dir.File("hidraw_unplugged"), DEV_USB, true),
        NewDevice(&settings, "/dev/serio_raw0", DEV_PS2, true),
        NewDevice(&settings, present, DEV_USB, true),
        NewDevice(&settings, "/dev/ttyS0", DEV_RS232, false),
    };
    for (int i = 0; i < 4; ++i) devices[i]->pNext = devices[i + 1];
    manager.DeviceListHead = devices[0];
    manager.DeviceCount = 5;

    LogCapture log;
    testutil::Quiet([&] { DevicePnPCheck(&manager); });

    ASSERT_EQ(2, manager.DeviceCount);
    ASSERT_EQ(devices[2], manager.DeviceListHead);
    ASSERT_EQ(devices[3], manager.DeviceListHead->pNext);
    EXPECT_EQ(nullptr, manager.DeviceListHead->pNext->pNext);
    EXPECT_EQ(2, log.CountExact("Port_fd is unavailable"));
    EXPECT_EQ(1, log.CountExact("USB Device [" + dir.File("hidraw_unplugged") + "] is removed"));

    testutil::Quiet([&] {
        delete devices[2];
        delete devices[3];
    });
}

// An RS232 controller that stops answering while it still streams touches, and a second
// plug-and-play request raised while the check of the first runs (two controllers dropping
// together). The receive thread is stopped before the lifts are written, so the last frame on
// the touch device lifts every contact; the request raised during the check is kept and
// answered by the next pass.
TEST(ManagerTest, CheckOfASilentSerialControllerWhileAnotherRequestArrives) {
    struct sigaction old_action;
    ASSERT_EQ(0, sigaction(SIGUSR2, nullptr, &old_action));
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
    UniqueFd touch_peer;
    touchtest::MakeEventPair(&device->UinputTouchFd, &touch_peer);
    manager.DeviceListHead = device;
    manager.DeviceCount = 1;

    // Everything written to the touch device, read as it comes (its queue is bounded).
    std::vector<touchtest::Ev> events;
    std::atomic<size_t> received_count{0};
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        bool more = true;
        while (more) {
            more = reading;  // one more read after the last writer is done
            for (const touchtest::Ev& e : touchtest::Drain(touch_peer.get())) events.push_back(e);
            received_count = events.size();
            usleep(1000);
        }
    });
    int stopped = -1;
    int lifted = -1;
    std::string log_text;
    {
        testutil::LogCapture log;
        DebugEnableBits = LOG_MAIN | LOG_THREAD | LOG_EVENT;
        testutil::Quiet([&] {
            StartRxLoopThread(device);
            std::atomic<bool> streaming{true};
            std::thread touches([&] {
                while (streaming) {
                    controller.Send(Bytes{0x81, 0x0F, 0x7F, 0x00, 0x00});  // contact 0 down
                    usleep(2000);
                }
            });
            for (int i = 0; i < 500 && received_count == 0; ++i) usleep(10000);
            bDeviceExistCheck.store(1);
            ScanLoopPass(&manager);
            streaming = false;
            touches.join();
        });
        // The release's lift is the last one: a starved reader may have seen an earlier
        // lift and re-touch from the receive thread, which is not what is checked here.
        stopped = log.Find("StopReadThread() is processing");
        lifted = log.FindLast("Send SLOT Multi Event ID[0], state[0]");
        log_text = log.Text();
    }
    reading = false;
    reader.join();

    ASSERT_GT(received_count.load(), 0u) << "no touch reached the touch device\n" << log_text;
    EXPECT_EQ(0, manager.DeviceCount) << log_text;
    EXPECT_EQ(nullptr, manager.DeviceListHead);
    EXPECT_EQ(1, bDeviceExistCheck.load())
        << "the request raised during the check was lost (loop-backs seen: " << loopbacks
        << ")\n" << log_text;
    ASSERT_GE(lifted, 0) << log_text;
    EXPECT_TRUE(stopped >= 0 && stopped < lifted)
        << "lifts written while the thread still ran\n" << log_text;
    // Replayed as slots: a contact went down, and none is down at the end.
    bool was_down = false;
    bool down[kMaxContacts] = {};
    int slot = 0;
    for (const touchtest::Ev& e : events) {
        if (e.type != EV_ABS) continue;
        if (e.code == ABS_MT_SLOT && e.value >= 0 && e.value < kMaxContacts) slot = e.value;
        if (e.code == ABS_MT_TRACKING_ID) down[slot] = e.value >= 0;
        was_down = was_down || down[slot];
    }
    EXPECT_TRUE(was_down);
    for (int i = 0; i < kMaxContacts; ++i) EXPECT_FALSE(down[i]) << "contact " << i;

    // The next pass answers the kept request: its signal line, then one check.
    testutil::LogCapture log;
    testutil::Quiet([&] { ScanLoopPass(&manager); });
    EXPECT_EQ(0, bDeviceExistCheck.load());
    const int received = log.Find("Receive signal SIGUSR2. Set bDeviceExistCheck true.");
    EXPECT_GE(received, 0);
    EXPECT_GT(log.Find("Entering DevicePnPCheck"), received);
    ASSERT_EQ(0, sigaction(SIGUSR2, &old_action, nullptr));
}

// A serial controller that answers the loop-back is present: the check keeps it, and its
// receive thread goes on.
TEST(ManagerTest, AnsweringSerialControllerIsKept) {
    GlobalSettings settings = DevTestSettings();
    CManager manager(&settings);
    FakeController controller(false);
    controller.SetResponder([](const Bytes& packet) {
        std::vector<TimedReply> replies;
        if (packet.size() >= 3 && packet[2] == 0x41) replies.push_back({5, Bytes{0x0A, 0x01, 0x41}});
        return replies;
    });
    controller.Start();
    CDeviceObject* device = new CDeviceObject("/dev/ttyS99", &settings);
    AttachPort(device, &controller, DEV_RS232);
    manager.DeviceListHead = device;
    manager.DeviceCount = 1;
    testutil::Quiet([&] {
        StartRxLoopThread(device);
        DevicePnPCheck(&manager);
    });
    EXPECT_EQ(1, manager.DeviceCount);
    // A removed device was deleted by the check itself.
    ASSERT_EQ(device, manager.DeviceListHead) << "a present controller was removed";
    EXPECT_TRUE(device->bThreadCreated);
    testutil::Quiet([&] { delete device; });
    controller.Stop();
}

}  // namespace
