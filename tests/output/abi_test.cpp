// The records the daemon hands to the kernel, checked byte by byte at the offsets the kernel
// reads them from, so that a 32-bit build (4-byte long and time_t, unsigned plain char)
// proves the same layout as a 64-bit one. Nothing here decodes through the structures the
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
#include "support/touch_test_util.h"
#include "touch/point_parse.h"

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

bool Contains(const std::vector<Ev>& events, const Ev& want) {
    for (const Ev& e : events) {
        if (e == want) return true;
    }
    return false;
}

// The record the pen device set-up wrote to a regular file standing in for the uinput node
// (the ioctls fail on it, after the record is written).
std::vector<uint8_t> CreatedPenRecord() {
    char pattern[] = "/tmp/abi_uinput_XXXXXX";
    const char* dir = mkdtemp(pattern);
    EXPECT_NE(nullptr, dir);
    if (dir == nullptr) return {};
    const std::string path = std::string(dir) + "/uinput";
    UniqueFd file(OpenCloexec(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));

    TouchRig rig;
    rig.dev->UinputPenFd = std::move(file);
    EXPECT_EQ(-1, SetUpPenDevice(rig.dev.get()));
    std::vector<uint8_t> bytes(2 * kUinputDevSize, 0);
    UniqueFd fd(OpenCloexec(path.c_str(), O_RDONLY));
    const ssize_t n = fd.valid() ? ReadRetry(fd.get(), bytes.data(), bytes.size()) : -1;
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    unlink(path.c_str());
    EXPECT_EQ(0, rmdir(dir));
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

// The pen record (its tilt axes have a negative minimum) read at the kernel's offsets; the
// axis tables of each protocol are checked in uinput_device_test.cpp.
TEST(KernelRecordLayout, UinputUserDevBytesAtTheKernelOffsets) {
    VersionGuard version(9, 4, 19);
    const std::vector<uint8_t> record = CreatedPenRecord();
    ASSERT_EQ(kUinputDevSize, record.size()) << "exactly one record written";
    const std::string name = "MorvelTouch_VirtualPen";
    EXPECT_EQ(name, std::string(record.begin(), record.begin() + static_cast<long>(name.size())));
    for (size_t i = name.size(); i < kIdOffset; ++i) ASSERT_EQ(0, record[i]) << "name byte " << i;
    EXPECT_EQ(static_cast<uint64_t>(BUS_VIRTUAL), Le(&record[kIdOffset], 2));
    EXPECT_EQ(0x3C7Au, Le(&record[kIdOffset + 2], 2));
    EXPECT_EQ(0x0030u, Le(&record[kIdOffset + 4], 2));
    EXPECT_EQ(1u, Le(&record[kIdOffset + 6], 2));
    EXPECT_EQ(0u, Le(&record[88], 4)) << "ff_effects_max";
    EXPECT_EQ(4095, AbsField(record, kAbsMaxOffset, ABS_X));
    EXPECT_EQ(6000, AbsField(record, kAbsMaxOffset, ABS_TILT_X));
    EXPECT_EQ(-6000, AbsField(record, kAbsMinOffset, ABS_TILT_X));
    EXPECT_EQ(0, AbsField(record, kAbsFuzzOffset, ABS_TILT_X));
    EXPECT_EQ(0, AbsField(record, kAbsFlatOffset, ABS_TILT_X));
    EXPECT_EQ(1023, AbsField(record, kAbsMaxOffset, ABS_PRESSURE));
}

// Report bytes of 0x80 and above are the same numbers whether plain char is signed (x86)
// or unsigned (ARM): coordinates, pressure and tilt come out unsigned before any sign rule.
TEST(KernelRecordLayout, HighReportBytesDecodeTheSameOnEveryTarget) {
    VersionGuard version(9, 4, 19);
    struct Case {
        std::vector<uint8_t> report;
        bool pen;
        std::vector<Ev> want;
    } cases[] = {
        // Touch report 0x01, contact 1: X 0x0FFF, Y 0x0C80.
        {{0x01, 0x05, 0xFF, 0x0F, 0x80, 0x0C},
         false,
         {Abs(ABS_MT_POSITION_X, 4095), Abs(ABS_MT_POSITION_Y, 3200), Abs(ABS_MT_TRACKING_ID, 1)}},
        // Pen report: X 0x0FFF, Y 0x0C80, pressure 0x03FF, tilt X 0x8190 (above 6000: minus
        // 65536), tilt Y 0x00F0.
        {{0x02, 0x21, 0xFF, 0x0F, 0x80, 0x0C, 0xFF, 0x03, 0x90, 0x81, 0xF0, 0x00},
         true,
         {Abs(ABS_X, 4095), Abs(ABS_Y, 3200), Abs(ABS_PRESSURE, 1023),
          Abs(ABS_TILT_X, 0x8190 - 65536), Abs(ABS_TILT_Y, 240)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pen ? "pen" : "touch");
        TouchRig rig;
        if (c.pen) rig.dev->Series = 22;  // a series with pen reports
        ParsePointPacket(rig.dev.get(), c.report.data(), static_cast<int>(c.report.size()));
        const std::vector<Ev> events = c.pen ? rig.PenEvents() : rig.TouchEvents();
        for (const Ev& want : c.want) EXPECT_TRUE(Contains(events, want)) << want;
    }
}
