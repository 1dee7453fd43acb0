// Packet adjustments before a write, read back from the far end of a socketpair: the
// report-id shift of old kernels, the fixed USB write lengths and the both-ends shift.
#include <gtest/gtest.h>
#include <string.h>

#include "core/environment.h"
#include "device/cmd_channel.h"
#include "device/report_format.h"
#include "support/dev_test_util.h"

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
        EXPECT_EQ(c.expect_result, c.send(&dev));
        ASSERT_TRUE(controller.WaitForPackets(1, 1000));
        EXPECT_EQ(c.expect, controller.Received()[0]);
    }
    bOldKernel = saved;
}

// A packet too long for the shift is left as it is: the buffer holds 65 bytes.
TEST(CommandShift, BothEndsShiftNeverOverflows) {
    uint8_t full[kCmdShiftLimit];
    for (int i = 0; i < kCmdShiftLimit; ++i) full[i] = static_cast<uint8_t>(i + 1);
    uint8_t copy[kCmdShiftLimit];
    memcpy(copy, full, sizeof(full));
    int len = 64;
    ShiftCommandBytes(full, &len, 1, 1);
    EXPECT_EQ(64, len);
    EXPECT_EQ(0, memcmp(full, copy, sizeof(full)));
    len = 63;  // exactly 65 after the shift is still allowed
    ShiftCommandBytes(full, &len, 1, 1);
    EXPECT_EQ(65, len);
    EXPECT_EQ((Bytes{0x00, 0x01}), Bytes(full, full + 2));
    EXPECT_EQ(0x00, full[64]);
}

}  // namespace
