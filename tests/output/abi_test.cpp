// The records the daemon hands to the kernel, read byte by byte (little-endian) at the
// offsets the kernel reads them from, never through the structures the code uses, so a 32-bit
// build (4-byte long and time_t) proves the same layout as a 64-bit one.
// input_event: two kernel longs (seconds, microseconds), type u16, code u16, value s32.
// uinput_user_dev: name[80], id (bustype, vendor, product, version: u16 each) at 80,
// ff_effects_max u32 at 88, absmax[64] at 92, absmin at 348, absfuzz at 604, absflat at 860.
#include <gtest/gtest.h>
#include <linux/uinput.h>
#include <time.h>

#include <map>
#include <sstream>

#include "output/emit.h"
#include "output/uinput_device.h"
#include "support/test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

constexpr size_t kLong = sizeof(unsigned long);
constexpr size_t kEventSize = 2 * kLong + 8;
static_assert(sizeof(struct input_event) == kEventSize && sizeof(struct uinput_user_dev) == 1116,
              "kernel records");
#if !defined(__ANDROID__)
// stat() of the data files and directory listings must not fail with EOVERFLOW on 32-bit
// targets (large files, 64-bit inode numbers): the build asks for 64-bit offsets.
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "64-bit file offsets and inodes");
#endif

int64_t Le(const uint8_t* p, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
    return width == 4 ? static_cast<int32_t>(v) : static_cast<int64_t>(v);
}

}  // namespace

// Events of one emitter call: whole records per write, each with the same stamp (seconds
// between before and after, microseconds below 10^6) and its type, code and signed value.
TEST(KernelRecordLayout, InputEventBytesAtTheKernelOffsets) {
    const Ev cases[] = {{EV_ABS, ABS_MT_POSITION_X, 4095}, {EV_ABS, ABS_MT_TRACKING_ID, -1},
                        {EV_ABS, ABS_TILT_Y, -59535},      {EV_KEY, BTN_TOOL_RUBBER, 1},
                        {EV_MSC, MSC_SCAN, 0x7FFFFFFF},    {EV_SYN, SYN_REPORT, 0}};
    TouchRig rig;
    const int64_t before = time(nullptr);
    StampEventTime(rig.dev.get());
    for (const Ev& c : cases)
        WriteInputEvent(rig.dev.get(), rig.dev->UinputTouchFd.get(), c.type, c.code, c.value);
    const int64_t after = time(nullptr);
    uint8_t buffer[16 * kEventSize];
    const ssize_t n = recv(rig.TouchFd(), buffer, sizeof(buffer), MSG_DONTWAIT);
    ASSERT_EQ(static_cast<ssize_t>(sizeof(cases) / sizeof(cases[0]) * kEventSize), n);
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        SCOPED_TRACE(i);
        const uint8_t* r = buffer + i * kEventSize;
        const uint8_t* tail = r + 2 * kLong;
        const Ev got = {static_cast<uint16_t>(Le(tail, 2)), static_cast<uint16_t>(Le(tail + 2, 2)),
                        static_cast<int32_t>(Le(tail + 4, 4))};
        EXPECT_EQ(cases[i], got);
        EXPECT_TRUE(Le(r, kLong) >= before && Le(r, kLong) <= after &&
                    Le(r + kLong, kLong) < 1000000);
        EXPECT_EQ(0, memcmp(buffer, r, 2 * kLong)) << "one stamp per call";
    }
}

// The touch record per protocol and Android version, and the pen record's tilt condition,
// written to a regular file standing in for the uinput node (the ioctls then fail, so
// nothing counts as created). Axes "name=max" or "name=min:max" (names as in touch/rows.h);
// every other axis all 0.
TEST(KernelRecordLayout, UinputUserDevPerProtocolAndVersion) {
    // clang-format off
    const std::map<std::string, int> names = {
        {"MX", ABS_MT_POSITION_X}, {"MY", ABS_MT_POSITION_Y}, {"TOOL", ABS_MT_TOOL_TYPE},
        {"SLOT", ABS_MT_SLOT}, {"ID", ABS_MT_TRACKING_ID}, {"MAJOR", ABS_MT_TOUCH_MAJOR},
        {"WIDTH", ABS_MT_WIDTH_MAJOR}, {"X", ABS_X}, {"Y", ABS_Y}, {"P", ABS_PRESSURE},
        {"TX", ABS_TILT_X}, {"TY", ABS_TILT_Y}};
    const std::string mt = "TOOL=1 SLOT=20 ID=20", old = "TOOL=1 ID=20 MAJOR=1 WIDTH=1";
    const std::string pen = "X=4095 Y=4095 TOOL=1 P=1023", tilt = " TX=-6000:6000 TY=-6000:6000";
    const struct { bool pen; int android, kernel_major, kernel_minor, type, resol_x, resol_y; std::string axes; } cases[] = {
        // Android 4+, slot protocol; Android 2 and 3: no slot, the touch major that marks a lift.
        {false, 9, 4, 19, 2, -1, -1, "MX=4095 MY=4095 " + mt}, {false, 2, 4, 19, 1, 1919, 1079, "MX=1919 MY=1079 " + old},
        {false, 3, 4, 19, 2, -1, -1, "MX=4095 MY=4095 " + old}, {false, 9, 4, 19, 4, -1, 799, "MX=4095 MY=799 TOOL=1"},
        // Plain Linux: slots, and ABS_X/ABS_Y of the single-touch view in the output range.
        {false, 0, 4, 19, 1, 1919, -1, "MX=1919 MY=4095 X=1919 Y=4095 " + mt},
        {false, 0, 4, 19, 4, -1, -1, "MX=4095 MY=4095 TOOL=1"},
        // Pen: tilt from kernel 3.2 on (major above 2, minor above 1), or with no Android found;
        // positions in the output range.
        {true, 9, 3, 2, 2, -1, -1, pen + tilt}, {true, 9, 4, 1, 2, -1, -1, pen}, {true, 9, 2, 6, 2, -1, -1, pen},
        {true, 0, 2, 6, 2, -1, -1, pen + tilt},
        {true, 9, 4, 19, 2, 1919, 1079, "X=1919 Y=1079 TOOL=1 P=1023" + tilt},
    };
    // clang-format on
    testutil::TempDir dir;
    const std::string path = dir.File("uinput");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.axes);
        VersionGuard version(c.android, c.kernel_major, c.kernel_minor);
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<int8_t>(c.type);
        rig.dev->Param.ResolX = c.resol_x, rig.dev->Param.ResolY = c.resol_y;
        (c.pen ? rig.dev->UinputPenFd : rig.dev->UinputTouchFd) =
            UniqueFd(OpenCloexec(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        EXPECT_EQ(-1, c.pen ? SetUpPenDevice(rig.dev.get()) : SetUpTouchDevice(rig.dev.get()));
        EXPECT_FALSE(rig.dev->bTouchDeviceCreated || rig.dev->bPenDeviceCreated);
        const std::string text = testutil::ReadFile(path);
        ASSERT_EQ(1116u, text.size()) << "exactly one record written";
        const uint8_t* r = reinterpret_cast<const uint8_t*>(text.data());
        const std::string name = c.pen ? "MorvelTouch_VirtualPen" : "MorvelTouch_VirtualDevice";
        EXPECT_EQ(name + std::string(80 - name.size(), '\0'), text.substr(0, 80));
        const std::vector<int64_t> id = {Le(r + 80, 2), Le(r + 82, 2), Le(r + 84, 2),
                                         Le(r + 86, 2)};
        EXPECT_EQ((std::vector<int64_t>{BUS_VIRTUAL, 0x3C7A, c.pen ? 0x30 : 0x20, 1}), id);
        EXPECT_EQ(0, Le(r + 88, 4)) << "ff_effects_max";
        std::map<int, std::vector<int64_t>> want;  // axis -> absmax, absmin, absfuzz, absflat
        std::istringstream in(c.axes);
        for (std::string axis; in >> axis;) {
            const size_t eq = axis.find('='), colon = axis.find(':');
            const bool min = colon != std::string::npos;
            const int max = std::stoi(axis.substr(min ? colon + 1 : eq + 1));
            want[names.at(axis.substr(0, eq))] = {max, min ? std::stoi(axis.substr(eq + 1)) : 0, 0,
                                                  0};
        }
        for (int axis = 0; axis < ABS_CNT; ++axis) {
            const uint8_t* a = r + 92 + 4 * axis;
            const std::vector<int64_t> got = {Le(a, 4), Le(a + 256, 4), Le(a + 512, 4),
                                              Le(a + 768, 4)};
            EXPECT_EQ(want.count(axis) ? want[axis] : std::vector<int64_t>(4, 0), got) << axis;
        }
    }
}
