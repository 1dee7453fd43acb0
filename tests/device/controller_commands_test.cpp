// Controller commands against a scripted controller stand-in: identification (reply
// acceptance, the copy limits of the texts, the EEPROM word), the report format commands
// and the set-up sequence up to the virtual devices (this host has no uinput, so set-up ends
// there with -1): which commands reach the controller, in which order, and a stop request
// between the steps.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>

#include "core/environment.h"
#include "device/identification.h"
#include "device/report_format.h"
#include "device/rx_wait.h"
#include "device/setup.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

using ScriptMap = std::map<uint8_t, std::vector<Bytes>>;

// A long USB reply in fragments: first [03, 04, cmd, n, d0, d1], then continuations
// [03, L, 00, L - 1 bytes].
std::vector<Bytes> UsbFragments(uint8_t cmd, const std::string& text) {
    std::vector<Bytes> out;
    out.push_back(Bytes{0x03, 0x04, cmd, static_cast<uint8_t>(text.size()),
                        static_cast<uint8_t>(text[0]), static_cast<uint8_t>(text[1])});
    for (size_t pos = 2; pos < text.size(); pos += 3) {
        size_t n = std::min<size_t>(3, text.size() - pos);  // continuations carry L - 1 <= 3 bytes
        Bytes c = {0x03, static_cast<uint8_t>(n + 1), 0x00};
        c.insert(c.end(), text.begin() + static_cast<long>(pos),
                 text.begin() + static_cast<long>(pos + n));
        out.push_back(c);
    }
    return out;
}

class CommandTest : public testing::Test {
  protected:
    void SetUp() override {
        DevIgnoreSigusr2();
        snprintf(settings_.UinputPath, sizeof(settings_.UinputPath), "%s/no_uinput",
                 data_.path().c_str());
        settings_.CustomPathMask = kCustomUinputPathBit;
        saved_kernel_ = KernelVersion;
        KernelVersion = {3, 4, 0};
    }
    void TearDown() override { KernelVersion = saved_kernel_; }

    // A device on the daemon end of a started controller stand-in that answers each command
    // byte (byte 2 of the packet) with its scripted packets.
    std::unique_ptr<CDeviceObject> Device(FakeController* controller, uint8_t interface,
                                          ScriptMap script) {
        controller->SetResponder([script](const Bytes& packet) {
            std::vector<TimedReply> replies;
            auto it = packet.size() >= 3 ? script.find(packet[2]) : script.end();
            if (it != script.end()) {
                for (const Bytes& b : it->second) replies.push_back({1, b});
            }
            return replies;
        });
        controller->Start();
        auto dev = std::make_unique<CDeviceObject>(
            interface == DEV_USB ? "/dev/hidraw99" : "/dev/ttyS99", &settings_);
        AttachPort(dev.get(), controller, interface);
        return dev;
    }

    testutil::TempDir data_;
    GlobalSettings settings_ = DevTestSettings();
    KernelVersionInfo saved_kernel_;
};

TEST_F(CommandTest, TextCopyLimits) {
    FakeController controller(true);
    auto dev = Device(
        &controller, DEV_USB,
        {
            {0x44, UsbFragments(0x44, std::string(100, 'V'))},                     // 100 characters
            {0x45, {Bytes{0x03, 0x06, 0x45, 'A', 'B', 'C', 'D', 'E', 'F', 'G'}}},  // length 6
            {0x46, {Bytes{0x03, 0x07, 0x46, 'P', 'C', 0x00, 'X', 'Y', 'Z'}}},      // stops at 0
        });
    char text[kTextMax] = {};
    EXPECT_EQ(0, GetFWVersion(dev.get(), text));
    EXPECT_EQ(std::string(63, 'V'), std::string(text));
    memset(text, 0, sizeof(text));
    EXPECT_EQ(0, GetModelName(dev.get(), text));
    EXPECT_STREQ("ABCDE", text);
    memset(text, 0, sizeof(text));
    EXPECT_EQ(0, GetTypeName(dev.get(), text));
    EXPECT_STREQ("PC", text);
    EXPECT_EQ(0, dev->SelfHookCmd.load());  // unregistered after each command
}

TEST_F(CommandTest, EmptyAndRefusedReplies) {
    FakeController controller(false);
    auto dev = Device(&controller, DEV_RS232,
                      {
                          {0x44, {Bytes{0x0A, 0x01, 0x44}}},       // length byte 1: empty text
                          {0x45, {Bytes{0x0A, 0x02, 0x46, 'Q'}}},  // wrong command byte
                          {0x43, {Bytes{0x0A, 0x04, 0x43, 0x39, 0x23, 0x01}}},  // word 0x39
                      });
    char text[kTextMax] = {};
    EXPECT_EQ(0, GetFWVersion(dev.get(), text));
    EXPECT_STREQ("", text);
    snprintf(text, sizeof(text), "keep");
    EXPECT_EQ(-1, GetModelName(dev.get(), text));  // 1.5 s of silence for the 0x45 hook
    EXPECT_STREQ("keep", text);
    uint16_t value = 0xBEEF;
    EXPECT_EQ(0, GetEEData(dev.get(), 0x39, &value));
    EXPECT_EQ(0x0123, value);
    value = 0xBEEF;
    EXPECT_EQ(-1, GetEEData(dev.get(), 0x10, &value));  // the reply is for another address
    EXPECT_EQ(0xBEEF, value);
}

TEST_F(CommandTest, NoVersionMeansUnknownTexts) {
    FakeController controller(true);
    auto dev =
        Device(&controller, DEV_USB, {{0x46, {Bytes{0x03, 0x06, 0x46, 'L', 'O', 'M', 'x', 'x'}}}});
    DevGetControllerInfo(dev.get());
    EXPECT_STREQ("UNKNOWN", dev->FWVersion);
    EXPECT_STREQ("UNKNOWN", dev->TypeName);
    EXPECT_STREQ("UNKNOWN", dev->ModelName);
    EXPECT_EQ(SERIES_UNKNOWN, dev->Series);
    // The model and type commands were not sent after the silent version command.
    for (const Bytes& packet : controller.Received()) EXPECT_NE(0x45, packet[2]);
}

TEST_F(CommandTest, RightClickFormatBytes) {
    FakeController controller(true);
    auto dev = Device(&controller, DEV_USB,
                      {{0x34, {Bytes{0x03, 0x04, 0x33, 0x07, 0x83, 0x14}}},
                       {0x35, {Bytes{0x03, 0x04, 0x33, 0x07, 0x81, 0x32}}}});
    EXPECT_EQ(0, SetRCLKFormat(dev.get(), 3, 1, 20));
    uint8_t id = 0, control = 0, count = 0;
    EXPECT_EQ(0, GetRCLKFormat(dev.get(), &id, &control, &count));
    EXPECT_EQ(1, id);
    EXPECT_EQ(1, control);
    EXPECT_EQ(50, count);
    std::vector<Bytes> sent = controller.Received();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ((Bytes{0x03, 0x04, 0x34, 0x07, 0x83, 0x14}), sent[0]);
    EXPECT_EQ((Bytes{0x03, 0x04, 0x35, 0x07, 0xFF, 0x00}), sent[1]);

    // A reply whose length byte is not 4 is no format, whatever its other bytes.
    FakeController short_reply(true);
    auto other =
        Device(&short_reply, DEV_USB, {{0x35, {Bytes{0x03, 0x02, 0x33, 0x07, 0x81, 0x32}}}});
    EXPECT_EQ(-1, GetRCLKFormat(other.get(), &id, &control, &count));
}

TEST_F(CommandTest, DisableRightClickUsesQueryOrEeprom) {
    struct Case {
        const char* name;
        int32_t series;
        ScriptMap replies;
        Bytes expect_last;
    } cases[] = {
        {"query answered",
         0,
         {{0x35, {Bytes{0x03, 0x04, 0x33, 0x07, 0x81, 0x32}}}, {0x34, {Bytes{0x03, 0x04, 0x33}}}},
         Bytes{0x03, 0x04, 0x34, 0x07, 0x01, 0x32}},
        {"series 2 reads EEPROM word 0x39",
         SERIES_LOMBAR,
         {{0x43, {Bytes{0x03, 0x04, 0x43, 0x39, 0x23, 0x01}}}, {0x34, {Bytes{0x03, 0x04, 0x33}}}},
         Bytes{0x03, 0x04, 0x34, 0x07, 0x03, 0x00}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(true);
        auto dev = Device(&controller, DEV_USB, c.replies);
        dev->Series = c.series;
        DisableRCLKFunction(dev.get());
        std::vector<Bytes> sent = controller.Received();
        ASSERT_EQ(2u, sent.size());
        EXPECT_EQ(c.expect_last, sent[1]);
    }
}

// On the device's own thread (during set-up) SetFormat reads its reply itself: a
// responsive controller confirms within milliseconds, not after a 3 s wait.
TEST_F(CommandTest, SetFormatOnOwnThreadPolls) {
    for (bool answer : {true, false}) {
        SCOPED_TRACE(answer ? "answered" : "silent");
        FakeController controller(true);
        ScriptMap script;
        if (answer) script[0x34] = {Bytes{0x03, 0x02, 0x33, 0x01}};
        auto dev = Device(&controller, DEV_USB, script);
        MarkRxThreadOf(dev.get());  // this thread plays the device's receive thread
        int64_t start = testutil::NowMs();
        int ret = SetFormat(dev.get(), 1);
        int64_t elapsed = testutil::NowMs() - start;
        MarkRxThreadOf(nullptr);
        EXPECT_EQ(answer ? 0 : -1, ret);
        EXPECT_LE(elapsed, (answer ? 300 : 1500) + kLoadSlackMs);  // blocking would take 9 s
        ASSERT_GE(controller.ReceivedCount(), 1u);
        EXPECT_EQ((Bytes{0x03, 0x02, 0x34, 0x01, 0x00, 0x00}), controller.Received()[0]);
        EXPECT_EQ(0, dev->SelfHookCmd.load());
    }
}

TEST_F(CommandTest, SetupIdentifiesASerialControllerInOrder) {
    FakeController controller(false);
    auto dev = Device(&controller, DEV_RS232,
                      {
                          {0x39, {Bytes{0x0A, 0x04, 0x39, 0x04, 0x00, 0x00}}},
                          {0x46, {Bytes{0x0A, 0x06, 0x46, 'P', 'C', 'A', 'P', '6'}}},
                          {0x44, {Bytes{0x0A, 0x03, 0x44, '1', '2'}}},
                          {0x45, {Bytes{0x0A, 0x03, 0x45, 'M', '1'}}},
                      });
    int64_t start = testutil::NowMs();
    EXPECT_EQ(-1, DevSetup(dev.get()));  // ends at the touch device: no uinput here
    EXPECT_LT(testutil::NowMs() - start, 1000 + kLoadSlackMs);
    EXPECT_EQ(1, dev->bVendorReport);  // serial ports have it without a descriptor
    EXPECT_STREQ("PCAP6", dev->TypeName);
    EXPECT_STREQ("12", dev->FWVersion);
    EXPECT_STREQ("M1", dev->ModelName);
    EXPECT_EQ(1u, dev->bPCAP);
    EXPECT_EQ(SERIES_PCAP_6555, dev->Series);
    EXPECT_EQ(2, dev->Param.EventType);
    // Firmware kind, type, version, model, type.
    std::vector<Bytes> sent = controller.Received();
    ASSERT_EQ(5u, sent.size());
    const uint8_t order[5] = {0x39, 0x46, 0x44, 0x45, 0x46};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(order[i], sent[i][2]) << i;
    EXPECT_EQ((Bytes{0x0A, 0x02, 0x39, 0x02}), sent[0]);
}

TEST_F(CommandTest, SetupOfBootFirmwareSkipsIdentification) {
    FakeController controller(false);
    auto dev =
        Device(&controller, DEV_RS232, {{0x39, {Bytes{0x0A, 0x04, 0x39, 0x04, 0x02, 0x00}}}});
    EXPECT_EQ(-1, DevSetup(dev.get()));
    EXPECT_EQ(SERIES_BOOT_FIRMWARE, dev->Series);
    EXPECT_EQ(IAP_BFW, dev->IAPType);
    EXPECT_STREQ("UNREACHABLE", dev->TypeName);
    EXPECT_EQ(1u, controller.ReceivedCount());
}

// A USB node without a readable descriptor has no vendor report: no command at all.
TEST_F(CommandTest, SetupOfUsbWithoutVendorReportSendsNothing) {
    FakeController controller(true);
    auto dev = Device(&controller, DEV_USB, {});
    EXPECT_EQ(-1, DevSetup(dev.get()));
    EXPECT_EQ(0, dev->bVendorReport);
    EXPECT_EQ(1, dev->Param.EventType);
    usleep(20000);
    EXPECT_EQ(0u, controller.ReceivedCount());
}

// A stop request during set-up ends it at the next step with -2: nothing more is sent.
TEST_F(CommandTest, StopDuringSetupEndsIt) {
    FakeController controller(false);  // silent: the firmware-kind query takes 1.5 s
    auto dev = Device(&controller, DEV_RS232, {});
    static int result;
    result = 100;
    SetupSigUsr1Handler();
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    dev->bThreadRunning = 1;
    ASSERT_EQ(0, pthread_create(
                     &dev->ThreadId, nullptr,
                     [](void* arg) -> void* {
                         result = DevSetup(static_cast<CDeviceObject*>(arg));
                         return nullptr;
                     },
                     dev.get()));
    dev->bThreadCreated = true;
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    usleep(200000);
    int64_t start = testutil::NowMs();
    StopReadThread(dev.get());
    EXPECT_LT(testutil::NowMs() - start, kStopBoundMs);
    EXPECT_EQ(-2, result);
    EXPECT_EQ(1u, controller.ReceivedCount());  // only the first query went out
    EXPECT_EQ(0, dev->Param.EventType);         // later steps never ran
}

}  // namespace
