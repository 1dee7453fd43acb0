// Report format commands: wire bytes, reply parsing and the right-click switch-off.
#include "device/report_format.h"

#include <gtest/gtest.h>

#include <map>

#include "device/identification.h"
#include "device/rx_wait.h"
#include "support/dev_test_util.h"

namespace {

std::function<std::vector<TimedReply>(const Bytes&)> Replies(std::map<uint8_t, Bytes> by_cmd) {
    return [by_cmd](const Bytes& packet) {
        std::vector<TimedReply> replies;
        if (packet.size() <= 2) return replies;
        auto it = by_cmd.find(packet[2]);
        if (it != by_cmd.end()) replies.push_back({1, it->second});
        return replies;
    };
}

class ReportFormatTest : public testing::Test {
  protected:
    void SetUp() override { DevIgnoreSigusr2(); }
    GlobalSettings settings_ = DevTestSettings();
    CDeviceObject dev_{"/dev/hidraw99", &settings_};
};

TEST_F(ReportFormatTest, RightClickFormatBytes) {
    FakeController controller(true);
    controller.SetResponder(Replies({{0x34, Bytes{0x03, 0x04, 0x33, 0x07, 0x83, 0x14}},
                                     {0x35, Bytes{0x03, 0x04, 0x33, 0x07, 0x81, 0x32}}}));
    controller.Start();
    AttachPort(&dev_, &controller, DEV_USB);
    EXPECT_EQ(0, SetRCLKFormat(&dev_, 3, 1, 20));
    uint8_t id = 0, control = 0, count = 0;
    EXPECT_EQ(0, GetRCLKFormat(&dev_, &id, &control, &count));
    EXPECT_EQ(1, id);
    EXPECT_EQ(1, control);
    EXPECT_EQ(50, count);
    std::vector<Bytes> sent = controller.Received();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ((Bytes{0x03, 0x04, 0x34, 0x07, 0x83, 0x14}), sent[0]);
    EXPECT_EQ((Bytes{0x03, 0x04, 0x35, 0x07, 0xFF, 0x00}), sent[1]);
}

TEST_F(ReportFormatTest, DisableRightClickUsesQueryOrEeprom) {
    struct Case {
        const char* name;
        int32_t series;
        std::map<uint8_t, Bytes> replies;
        Bytes expect_last;
    } cases[] = {
        {"query answered",
         0,
         {{0x35, Bytes{0x03, 0x04, 0x33, 0x07, 0x81, 0x32}}, {0x34, Bytes{0x03, 0x04, 0x33}}},
         Bytes{0x03, 0x04, 0x34, 0x07, 0x01, 0x32}},
        {"series 2 reads EEPROM word 0x39",
         SERIES_LOMBAR,
         {{0x43, Bytes{0x03, 0x04, 0x43, 0x39, 0x23, 0x01}}, {0x34, Bytes{0x03, 0x04, 0x33}}},
         Bytes{0x03, 0x04, 0x34, 0x07, 0x03, 0x00}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CDeviceObject dev("/dev/hidraw99", &settings_);
        dev.Series = c.series;
        FakeController controller(true);
        controller.SetResponder(Replies(c.replies));
        controller.Start();
        AttachPort(&dev, &controller, DEV_USB);
        DisableRCLKFunction(&dev);
        std::vector<Bytes> sent = controller.Received();
        ASSERT_EQ(2u, sent.size());
        EXPECT_EQ(c.expect_last, sent[1]);
    }
}

// On the device's own thread (during set-up) SetFormat reads its reply itself: a
// responsive controller confirms within milliseconds, not after a 3 s wait.
TEST_F(ReportFormatTest, SetFormatOnOwnThreadPolls) {
    struct Case {
        const char* name;
        bool answer;
        int expect;
        int max_ms;
    } cases[] = {
        {"answered", true, 0, 300},
        {"silent", false, -1, 1500},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CDeviceObject dev("/dev/hidraw99", &settings_);
        FakeController controller(true);
        if (c.answer) controller.SetResponder(Replies({{0x34, Bytes{0x03, 0x02, 0x33, 0x01}}}));
        controller.Start();
        AttachPort(&dev, &controller, DEV_USB);
        MarkRxThreadOf(&dev);  // this thread plays the device's receive thread
        int64_t start = DevNowMs();
        int ret = SetFormat(&dev, 1);
        int64_t elapsed = DevNowMs() - start;
        MarkRxThreadOf(nullptr);
        EXPECT_EQ(c.expect, ret);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);  // blocking here would take 9 s
        ASSERT_GE(controller.ReceivedCount(), 1u);
        EXPECT_EQ((Bytes{0x03, 0x02, 0x34, 0x01, 0x00, 0x00}), controller.Received()[0]);
        EXPECT_EQ(0, dev.SelfHookCmd.load());
    }
}

}  // namespace
