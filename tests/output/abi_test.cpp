// The records the daemon hands to the kernel (the input events and the uinput_user_dev
// record of each virtual device: names, ids, axis ranges per protocol, Android and kernel
// version), checked byte by byte at the offsets the kernel reads them from, so that a
// 32-bit build (4-byte long and time_t) proves the same layout as a 64-bit one. Nothing here decodes through the structures the
// code under test uses: every field is read from raw bytes, little-endian.
//
// struct input_event: two kernel longs (seconds, microseconds), then type u16, code u16,
// value s32: 16 bytes on 32-bit targets, 24 on 64-bit ones.
// struct uinput_user_dev: name[80] at 0, id (bustype, vendor, product, version: u16 each)
// at 80, ff_effects_max u32 at 88, absmax[64] at 92, absmin at 348, absfuzz at 604,
// absflat at 860: 1116 bytes.
#include <gtest/gtest.h>
#include <linux/input.h>
#include <linux/uinput.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "output/emit.h"
#include "output/uinput_device.h"
#include "support/test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

constexpr size_t kKernelLong = sizeof(unsigned long);
constexpr size_t kEventSize = 2 * kKernelLong + 8;
constexpr size_t kUinputDevSize = 1116;
constexpr size_t kIdOffset = 80;
constexpr size_t kAbsMaxOffset = 92;
constexpr size_t kAbsMinOffset = kAbsMaxOffset + 4 * ABS_CNT;
constexpr size_t kAbsFuzzOffset = kAbsMinOffset + 4 * ABS_CNT;
constexpr size_t kAbsFlatOffset = kAbsFuzzOffset + 4 * ABS_CNT;

static_assert(ABS_CNT == 64, "uinput_user_dev carries 64 axes");
static_assert(sizeof(struct input_event) == kEventSize, "input_event as the kernel reads it");
static_assert(offsetof(struct input_event, type) == 2 * kKernelLong, "type after the time");
static_assert(sizeof(struct uinput_user_dev) == kUinputDevSize, "uinput_user_dev size");
static_assert(kAbsFlatOffset + 4 * ABS_CNT == kUinputDevSize, "uinput_user_dev offsets");
#if !defined(__ANDROID__)
// stat() of the data files and directory listings must not fail with EOVERFLOW on 32-bit
// targets (large files, 64-bit inode numbers): the build asks for 64-bit offsets.
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "64-bit file offsets and inodes");
#endif

uint64_t Le(const uint8_t* p, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
    return v;
}
int32_t LeS32(const uint8_t* p) {
    return static_cast<int32_t>(static_cast<uint32_t>(Le(p, 4)));
}

struct RawEvent {
    uint64_t sec;
    uint64_t usec;
    Ev ev;
};

// Every record queued on fd; each message must be whole kernel-sized records.
std::vector<RawEvent> DrainRaw(int fd) {
    std::vector<RawEvent> out;
    for (;;) {
        uint8_t buffer[64 * kEventSize];
        const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        if (n <= 0) break;
        EXPECT_EQ(0u, static_cast<size_t>(n) % kEventSize) << "whole records per write";
        for (size_t at = 0; at + kEventSize <= static_cast<size_t>(n); at += kEventSize) {
            const uint8_t* record = buffer + at;
            const uint8_t* tail = record + 2 * kKernelLong;
            out.push_back(RawEvent{Le(record, kKernelLong), Le(record + kKernelLong, kKernelLong),
                                   Ev{static_cast<uint16_t>(Le(tail, 2)),
                                      static_cast<uint16_t>(Le(tail + 2, 2)), LeS32(tail + 4)}});
        }
    }
    return out;
}

// The record a device set-up wrote to a regular file standing in for the uinput node (the
// ioctls fail on it after the record is written, so nothing counts as created).
std::vector<uint8_t> CreatedRecord(TouchRig& rig, bool pen) {
    testutil::TempDir dir;
    const std::string path = dir.File("uinput");
    UniqueFd file(OpenCloexec(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    (pen ? rig.dev->UinputPenFd : rig.dev->UinputTouchFd) = std::move(file);
    EXPECT_EQ(-1, pen ? SetUpPenDevice(rig.dev.get()) : SetUpTouchDevice(rig.dev.get()));
    EXPECT_FALSE(rig.dev->bTouchDeviceCreated || rig.dev->bPenDeviceCreated);
    std::vector<uint8_t> bytes(2 * kUinputDevSize, 0);
    UniqueFd fd(OpenCloexec(path.c_str(), O_RDONLY));
    const ssize_t n = fd.valid() ? ReadRetry(fd.get(), bytes.data(), bytes.size()) : -1;
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return bytes;
}

int32_t AbsField(const std::vector<uint8_t>& record, size_t table, int axis) {
    return LeS32(record.data() + table + 4 * static_cast<size_t>(axis));
}

}  // namespace

TEST(KernelRecordLayout, InputEventBytesAtTheKernelOffsets) {
    struct Case {
        uint16_t type;
        uint16_t code;
        int32_t value;
    };
    const Case cases[] = {
        {EV_ABS, ABS_MT_POSITION_X, 4095},
        {EV_ABS, ABS_MT_TRACKING_ID, -1},  // sign kept through the 32-bit value field
        {EV_ABS, ABS_TILT_Y, -59535},
        {EV_KEY, BTN_TOOL_RUBBER, 1},
        {EV_MSC, MSC_SCAN, 0x7FFFFFFF},
        {EV_SYN, SYN_REPORT, 0},
    };
    TouchRig rig;
    const time_t before = time(nullptr);
    StampEventTime(rig.dev.get());
    for (const Case& c : cases)
        WriteInputEvent(rig.dev.get(), rig.dev->UinputTouchFd.get(), c.type, c.code, c.value);
    const time_t after = time(nullptr);

    const std::vector<RawEvent> raw = DrainRaw(rig.TouchFd());
    ASSERT_EQ(sizeof(cases) / sizeof(cases[0]), raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ((Ev{cases[i].type, cases[i].code, cases[i].value}), raw[i].ev);
        // The stamp of one emitter call, seconds then microseconds, each a kernel long.
        EXPECT_GE(raw[i].sec, static_cast<uint64_t>(before));
        EXPECT_LE(raw[i].sec, static_cast<uint64_t>(after));
        EXPECT_LT(raw[i].usec, 1000000u);
        EXPECT_EQ(raw[0].sec, raw[i].sec);
        EXPECT_EQ(raw[0].usec, raw[i].usec);
    }
}

// The touch record per protocol and Android version, and the pen record's tilt condition.
TEST(KernelRecordLayout, UinputUserDevPerProtocolAndVersion) {
    struct AxisWant {
        int axis;
        int min;
        int max;
    };
    struct Case {
        bool pen;
        int android;
        int kernel_major;
        int kernel_minor;
        int event_type;
        int resol_x;
        int resol_y;
        std::vector<AxisWant> axes;
    };
    const AxisWant x_full = {ABS_MT_POSITION_X, 0, 4095};
    const AxisWant y_full = {ABS_MT_POSITION_Y, 0, 4095};
    const AxisWant tool = {ABS_MT_TOOL_TYPE, 0, 1};
    const AxisWant slot = {ABS_MT_SLOT, 0, 20};
    const AxisWant tracking = {ABS_MT_TRACKING_ID, 0, 20};
    const AxisWant major = {ABS_MT_TOUCH_MAJOR, 0, 1};
    const AxisWant width = {ABS_MT_WIDTH_MAJOR, 0, 1};
    const AxisWant pressure = {ABS_PRESSURE, 0, 1023};
    const AxisWant tilt_x = {ABS_TILT_X, -6000, 6000};
    const AxisWant tilt_y = {ABS_TILT_Y, -6000, 6000};
    const AxisWant abs_x = {ABS_X, 0, 4095};
    const AxisWant abs_y = {ABS_Y, 0, 4095};
    // clang-format off
    const Case cases[] = {
        // Android 4+, slot protocol: slot and tracking id 0-20.
        {false, 9, 4, 19, 2, -1, -1, {x_full, y_full, tool, slot, tracking}},
        // Android 2 and 3: tracking id but no slot; the touch major that marks a lift.
        {false, 2, 4, 19, 1, 1919, 1079, {{ABS_MT_POSITION_X, 0, 1919}, {ABS_MT_POSITION_Y, 0, 1079}, tool, tracking, major, width}},
        {false, 3, 4, 19, 2, -1, -1, {x_full, y_full, tool, tracking, major, width}},
        // Type A: neither.
        {false, 9, 4, 19, 4, -1, 799, {x_full, {ABS_MT_POSITION_Y, 0, 799}, tool}},
        // Plain Linux: slots, and ABS_X/ABS_Y of the single-touch view in the output range.
        {false, 0, 4, 19, 1, 1919, -1, {{ABS_MT_POSITION_X, 0, 1919}, y_full, tool, slot, tracking, {ABS_X, 0, 1919}, abs_y}},
        {false, 0, 4, 19, 4, -1, -1, {x_full, y_full, tool}},
        // Pen: tilt from kernel 3.2 on (major above 2, minor above 1), or with no Android found.
        {true, 9, 3, 2, 2, -1, -1, {abs_x, abs_y, tool, pressure, tilt_x, tilt_y}},
        {true, 9, 4, 1, 2, -1, -1, {abs_x, abs_y, tool, pressure}},
        {true, 9, 2, 6, 2, -1, -1, {abs_x, abs_y, tool, pressure}},
        {true, 0, 2, 6, 2, -1, -1, {abs_x, abs_y, tool, pressure, tilt_x, tilt_y}},
        // Pen positions are scaled to ResolX/ResolY.
        {true, 9, 4, 19, 2, 1919, 1079, {{ABS_X, 0, 1919}, {ABS_Y, 0, 1079}, tool, pressure, tilt_x, tilt_y}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.pen ? "pen" : "touch") << " android " << c.android
                                        << " kernel " << c.kernel_major << "." << c.kernel_minor
                                        << " type " << c.event_type);
        VersionGuard version(c.android, c.kernel_major, c.kernel_minor);
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<int8_t>(c.event_type);
        rig.dev->Param.ResolX = c.resol_x;
        rig.dev->Param.ResolY = c.resol_y;
        const std::vector<uint8_t> record = CreatedRecord(rig, c.pen);
        ASSERT_EQ(kUinputDevSize, record.size()) << "exactly one record written";
        // Name: NUL-terminated at offset 0, zero-filled to 80 bytes.
        const std::string name = c.pen ? "MorvelTouch_VirtualPen" : "MorvelTouch_VirtualDevice";
        EXPECT_EQ(name, std::string(record.begin(), record.begin() + static_cast<long>(name.size())));
        for (size_t i = name.size(); i < kIdOffset; ++i) ASSERT_EQ(0, record[i]) << "name byte " << i;
        EXPECT_EQ(static_cast<uint64_t>(BUS_VIRTUAL), Le(&record[kIdOffset], 2));
        EXPECT_EQ(0x3C7Au, Le(&record[kIdOffset + 2], 2));
        EXPECT_EQ(c.pen ? 0x0030u : 0x0020u, Le(&record[kIdOffset + 4], 2));
        EXPECT_EQ(1u, Le(&record[kIdOffset + 6], 2));
        EXPECT_EQ(0u, Le(&record[88], 4)) << "ff_effects_max";
        for (int axis = 0; axis < ABS_CNT; ++axis) {
            AxisWant want = {axis, 0, 0};
            for (const AxisWant& a : c.axes) {
                if (a.axis == axis) want = a;
            }
            EXPECT_EQ(want.max, AbsField(record, kAbsMaxOffset, axis)) << "absmax " << axis;
            EXPECT_EQ(want.min, AbsField(record, kAbsMinOffset, axis)) << "absmin " << axis;
            EXPECT_EQ(0, AbsField(record, kAbsFuzzOffset, axis)) << "absfuzz " << axis;
            EXPECT_EQ(0, AbsField(record, kAbsFlatOffset, axis)) << "absflat " << axis;
        }
    }
}
