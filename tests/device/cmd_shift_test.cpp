// Packet adjustments before a write: the both-ends shift, the old-kernel report-id shift
// and the fixed USB write lengths, read back from the far end of a socketpair.
#include <gtest/gtest.h>
#include <string.h>

#include "core/environment.h"
#include "device/cmd_channel.h"
#include "device/report_format.h"
#include "support/dev_test_util.h"

namespace {

class OldKernelScope {
  public:
    explicit OldKernelScope(int32_t value) : saved_(bOldKernel) { bOldKernel = value; }
    ~OldKernelScope() { bOldKernel = saved_; }

  private:
    int32_t saved_;
};

TEST(CommandShift, PadsBothEndsAndRefusesOverflow) {
    DevLogCapture log;
    uint8_t packet[kCmdShiftLimit] = {0x03, 0x02, 0x34, 0x01};
    int len = 4;
    ShiftCommandBytes(packet, &len, 1, 1);
    ASSERT_EQ(6, len);
    const uint8_t shifted[6] = {0x00, 0x03, 0x02, 0x34, 0x01, 0x00};
    EXPECT_EQ(0, memcmp(packet, shifted, 6));

    // 64 + 1 + 1 = 66 is above the limit: nothing changes, the error is logged.
    uint8_t full[kCmdShiftLimit];
    for (int i = 0; i < kCmdShiftLimit; ++i) full[i] = static_cast<uint8_t>(i + 1);
    uint8_t copy[kCmdShiftLimit];
    memcpy(copy, full, sizeof(full));
    int full_len = 64;
    ShiftCommandBytes(full, &full_len, 1, 1);
    EXPECT_EQ(64, full_len);
    EXPECT_EQ(0, memcmp(full, copy, sizeof(full)));
    EXPECT_EQ(
        1,
        log.Count("Cmd shift length is bigger than 65. May cause overflow. Therefore skip shift"));

    // Exactly 65 is still allowed.
    int edge_len = 63;
    ShiftCommandBytes(full, &edge_len, 1, 1);
    EXPECT_EQ(65, edge_len);
    EXPECT_EQ(0x00, full[0]);
    EXPECT_EQ(0x01, full[1]);
    EXPECT_EQ(0x00, full[64]);
}

TEST(CommandShift, ReportIdShiftAndFixedLengthFollowTheKernel) {
    GlobalSettings settings = DevTestSettings();
    CDeviceObject usb("/dev/hidraw99", &settings);
    usb.DevInterface = DEV_USB;
    CDeviceObject serial("/dev/ttyS99", &settings);
    serial.DevInterface = DEV_RS232;
    {
        OldKernelScope old(1);
        uint8_t packet[kCmdShiftLimit] = {0x03, 0x01, 0x41};
        ShiftReportId(packet);
        const uint8_t expect[4] = {0x00, 0x03, 0x01, 0x41};
        EXPECT_EQ(0, memcmp(packet, expect, 4));
        EXPECT_EQ(7, FixedCommandLength(&usb, 3));
        EXPECT_EQ(3, FixedCommandLength(&serial, 3));
    }
    {
        OldKernelScope current(0);
        uint8_t packet[kCmdShiftLimit] = {0x03, 0x01, 0x41};
        ShiftReportId(packet);
        EXPECT_EQ(0x03, packet[0]);
        EXPECT_EQ(6, FixedCommandLength(&usb, 4));
        EXPECT_EQ(4, FixedCommandLength(&serial, 4));
    }
}

// What the far end of the port receives for the fixed-length commands.
TEST(CommandShift, OldKernelUsbWritesSevenBytes) {
    GlobalSettings settings = DevTestSettings();
    OldKernelScope old(1);
    FakeController controller(true);
    controller.Start();
    CDeviceObject dev("/dev/hidraw99", &settings);
    AttachPort(&dev, &controller, DEV_USB);

    EXPECT_EQ(7, SetFeature(&dev));
    EXPECT_EQ(-1, SetLoopbackInside(&dev));  // nobody answers
    ASSERT_TRUE(controller.WaitForPackets(2, 1000));
    std::vector<Bytes> got = controller.Received();
    EXPECT_EQ((Bytes{0x00, 0x05, 0x02, 0x00, 0x00, 0x00, 0x00}), got[0]);
    EXPECT_EQ((Bytes{0x00, 0x03, 0x01, 0x41, 0x00, 0x00, 0x00}), got[1]);
}

TEST(CommandShift, CurrentKernelUsbWritesSixAndSerialItsOwnLength) {
    GlobalSettings settings = DevTestSettings();
    OldKernelScope current(0);
    FakeController usb_port(true);
    usb_port.Start();
    CDeviceObject usb("/dev/hidraw99", &settings);
    AttachPort(&usb, &usb_port, DEV_USB);
    EXPECT_EQ(6, SetFeature(&usb));
    ASSERT_TRUE(usb_port.WaitForPackets(1, 1000));
    EXPECT_EQ((Bytes{0x05, 0x02, 0x00, 0x00, 0x00, 0x00}), usb_port.Received()[0]);

    FakeController serial_port(false);
    serial_port.Start();
    CDeviceObject serial("/dev/ttyS99", &settings);
    AttachPort(&serial, &serial_port, DEV_RS232);
    EXPECT_EQ(-1, SetLoopbackInside(&serial));
    ASSERT_TRUE(serial_port.WaitForPackets(1, 1000));
    EXPECT_EQ((Bytes{0x0A, 0x01, 0x41}), serial_port.Received()[0]);
}

// The polled write on USB with ShiftByteBothEnd: 4 bytes go out as 6.
TEST(CommandShift, PolledUsbCommandIsShiftedWhenConfigured) {
    GlobalSettings settings = DevTestSettings();
    settings.ShiftByteBothEnd = true;
    FakeController controller(true);
    controller.SetResponder([](const Bytes&) {
        return std::vector<TimedReply>{{0, Bytes{0x03, 0x02, 0x34, 0x00}}};
    });
    controller.Start();
    CDeviceObject dev("/dev/hidraw99", &settings);
    AttachPort(&dev, &controller, DEV_USB);
    EXPECT_EQ(0, SetRawFormat(&dev));
    ASSERT_TRUE(controller.WaitForPackets(1, 1000));
    EXPECT_EQ((Bytes{0x00, 0x03, 0x02, 0x34, 0x00, 0x00}), controller.Received()[0]);
    EXPECT_EQ(1, dev.bSelfHookReplied.load());
}

TEST(CommandShift, InvalidPortSendsNothing) {
    DevLogCapture log;
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/hidraw99", &settings);
    dev.DevInterface = DEV_USB;
    dev.CmdHeader = CMD_HEADER_USB;
    EXPECT_EQ(-1, SetFeature(&dev));
    EXPECT_EQ(-1, SetLoopback(&dev));
    EXPECT_EQ(-1, SetLoopbackInside(&dev));
    EXPECT_EQ(-1, SetFormat(&dev, 1));
    EXPECT_EQ(4, log.Count("m_Port_fd=-1 is invalid"));
    EXPECT_TRUE(log.Contains("Leave SetFeature"));
    EXPECT_EQ(2, log.Count("Leave SetLoopback"));
}

}  // namespace
