// The set-up sequence up to the virtual devices (this host has no uinput, so set-up ends
// there with -1): which commands reach the controller, in which order, and the stop
// request between the steps.
#include "device/setup.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <map>

#include "core/environment.h"
#include "device/identification.h"
#include "support/dev_test_util.h"

namespace {

class SetupTest : public testing::Test {
  protected:
    void SetUp() override {
        DevIgnoreSigusr2();
        settings_ = DevTestSettings();
        snprintf(settings_.UinputPath, sizeof(settings_.UinputPath), "%s/no_uinput",
                 data_.path().c_str());
        settings_.CustomPathMask = kCustomUinputPathBit;
        saved_kernel_ = KernelVersion;
        KernelVersion = {3, 4, 0};
    }
    void TearDown() override { KernelVersion = saved_kernel_; }
    DevTempDataDir data_;
    GlobalSettings settings_;
    KernelVersionInfo saved_kernel_;
};

std::function<std::vector<TimedReply>(const Bytes&)> SerialScript(
    std::map<uint8_t, Bytes> replies) {
    return [replies](const Bytes& packet) {
        std::vector<TimedReply> out;
        auto it = packet.size() >= 3 ? replies.find(packet[2]) : replies.end();
        if (it != replies.end()) out.push_back({1, it->second});
        return out;
    };
}

TEST_F(SetupTest, SerialControllerIsIdentifiedInOrder) {
    FakeController controller(false);
    controller.SetResponder(SerialScript({
        {0x39, Bytes{0x0A, 0x04, 0x39, 0x04, 0x00, 0x00}},
        {0x46, Bytes{0x0A, 0x06, 0x46, 'P', 'C', 'A', 'P', '6'}},
        {0x44, Bytes{0x0A, 0x03, 0x44, '1', '2'}},
        {0x45, Bytes{0x0A, 0x03, 0x45, 'M', '1'}},
    }));
    controller.Start();
    CDeviceObject dev("/dev/ttyS99", &settings_);
    AttachPort(&dev, &controller, DEV_RS232);
    int64_t start = DevNowMs();
    EXPECT_EQ(-1, DevSetup(&dev));  // ends at the touch device: no uinput here
    EXPECT_LT(DevNowMs() - start, 1000 + kLoadSlackMs);
    EXPECT_EQ(1, dev.bVendorReport);  // serial ports have it without a descriptor
    EXPECT_EQ(SERIES_PCAP_6555, dev.Series);
    EXPECT_EQ(2, dev.Param.EventType);
    std::vector<Bytes> sent = controller.Received();
    ASSERT_EQ(5u, sent.size());
    const uint8_t order[5] = {0x39, 0x46, 0x44, 0x45, 0x46};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(order[i], sent[i][2]) << i;
    EXPECT_EQ((Bytes{0x0A, 0x02, 0x39, 0x02}), sent[0]);
}

TEST_F(SetupTest, BootFirmwareSkipsIdentification) {
    FakeController controller(false);
    controller.SetResponder(SerialScript({{0x39, Bytes{0x0A, 0x04, 0x39, 0x04, 0x02, 0x00}}}));
    controller.Start();
    CDeviceObject dev("/dev/ttyS99", &settings_);
    AttachPort(&dev, &controller, DEV_RS232);
    EXPECT_EQ(-1, DevSetup(&dev));
    EXPECT_EQ(SERIES_BOOT_FIRMWARE, dev.Series);
    EXPECT_EQ(IAP_BFW, dev.IAPType);
    EXPECT_STREQ("UNREACHABLE", dev.TypeName);
    EXPECT_EQ(1u, controller.ReceivedCount());
}

// A USB node without a readable descriptor has no vendor report: no command at all.
TEST_F(SetupTest, UsbWithoutVendorReportSendsNothingBeforeTheDevices) {
    FakeController controller(true);
    controller.Start();
    CDeviceObject dev("/dev/hidraw99", &settings_);
    AttachPort(&dev, &controller, DEV_USB);
    EXPECT_EQ(-1, DevSetup(&dev));
    EXPECT_EQ(0, dev.bVendorReport);
    EXPECT_EQ(1, dev.Param.EventType);
    usleep(20000);
    EXPECT_EQ(0u, controller.ReceivedCount());
}

// A stop request during set-up ends it at the next step with -2: nothing more is sent.
TEST_F(SetupTest, StopDuringSetupEndsIt) {
    FakeController controller(false);  // silent: the firmware-kind query takes 1.5 s
    controller.Start();
    CDeviceObject dev("/dev/ttyS99", &settings_);
    AttachPort(&dev, &controller, DEV_RS232);
    static int result;
    result = 100;
    SetupSigUsr1Handler();
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    dev.bThreadRunning = 1;
    ASSERT_EQ(0, pthread_create(
                     &dev.ThreadId, nullptr,
                     [](void* arg) -> void* {
                         result = DevSetup(static_cast<CDeviceObject*>(arg));
                         return nullptr;
                     },
                     &dev));
    dev.bThreadCreated = true;
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    usleep(200000);
    int64_t start = DevNowMs();
    StopReadThread(&dev);
    EXPECT_LT(DevNowMs() - start, kStopBoundMs);
    EXPECT_EQ(-2, result);
    EXPECT_EQ(1u, controller.ReceivedCount());  // only the first query went out
    EXPECT_EQ(0, dev.Param.EventType);          // later steps never ran
}

}  // namespace
