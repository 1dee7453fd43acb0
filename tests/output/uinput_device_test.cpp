// The virtual input devices: the uinput_user_dev record (names, ids, axis ranges per
// protocol, Android and kernel version), the "/dev/uinput" fallback, the configured-path
// rule and the refusal of paths that are not the uinput device. The host has no uinput
// node: the set-up after the open runs on a regular file in a temporary directory, so the
// record written before UI_DEV_CREATE can be read back; the ioctls fail on it, so the
// set-up reports failure and nothing counts as created.
#include "output/uinput_device.h"

#include <gtest/gtest.h>
#include <linux/uinput.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/core_test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/touch_uinput_XXXXXX";
        path_ = mkdtemp(pattern);
    }
    // The tests leave at most the stand-in file in the directory.
    ~TempDir() {
        unlink((path_ + "/uinput").c_str());
        EXPECT_EQ(0, rmdir(path_.c_str()));
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// Opens an empty regular file standing in for the uinput node, as the open step would.
std::string UseStandIn(UniqueFd* uinput_fd, const TempDir& dir, const char* name) {
    std::string path = dir.path() + "/" + name;
    uinput_fd->reset(OpenCloexec(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK, 0600));
    EXPECT_TRUE(uinput_fd->valid());
    return path;
}

bool ReadRecord(const std::string& path, struct uinput_user_dev* dev) {
    UniqueFd fd(OpenCloexec(path.c_str(), O_RDONLY));
    if (!fd.valid()) return false;
    return ReadRetry(fd.get(), dev, sizeof(*dev)) == static_cast<ssize_t>(sizeof(*dev));
}

struct AxisWant {
    int axis;
    int min;
    int max;
};

void ExpectAxes(const struct uinput_user_dev& dev, const std::vector<AxisWant>& axes) {
    for (int axis = 0; axis < ABS_CNT; ++axis) {
        int min = 0;
        int max = 0;
        for (const AxisWant& a : axes) {
            if (a.axis == axis) {
                min = a.min;
                max = a.max;
            }
        }
        EXPECT_EQ(min, dev.absmin[axis]) << "axis " << axis;
        EXPECT_EQ(max, dev.absmax[axis]) << "axis " << axis;
        EXPECT_EQ(0, dev.absfuzz[axis]) << "axis " << axis;
        EXPECT_EQ(0, dev.absflat[axis]) << "axis " << axis;
    }
}

}  // namespace

// The touch record per protocol and Android version, and the pen record's tilt condition.
TEST(UinputRecord, AxesPerProtocolAndVersion) {
    struct Case {
        bool pen;
        int android;
        int kernel_minor;  // of kernel 4 (3 when -1, 2.6 when -2)
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
    const AxisWant pen_x = {ABS_X, 0, 4095};
    const AxisWant pen_y = {ABS_Y, 0, 4095};
    // clang-format off
    const Case cases[] = {
        // Android 4+, slot protocol: slot and tracking id 0-20.
        {false, 9, 19, 2, -1, -1, {x_full, y_full, tool, slot, tracking}},
        // Android 2 and 3: tracking id but no slot; the touch major that marks a lift.
        {false, 2, 19, 1, 1919, 1079, {{ABS_MT_POSITION_X, 0, 1919}, {ABS_MT_POSITION_Y, 0, 1079}, tool, tracking, major, width}},
        {false, 3, 19, 2, -1, -1, {x_full, y_full, tool, tracking, major, width}},
        // Type A: neither.
        {false, 9, 19, 4, -1, 799, {x_full, {ABS_MT_POSITION_Y, 0, 799}, tool}},
        // Plain Linux: slots, and ABS_X/ABS_Y of the single-touch view in the output range.
        {false, 0, 19, 1, 1919, -1, {{ABS_MT_POSITION_X, 0, 1919}, y_full, tool, slot, tracking,
                                     {ABS_X, 0, 1919}, pen_y}},
        {false, 0, 19, 4, -1, -1, {x_full, y_full, tool}},
        // Pen: tilt from kernel 3.2 on (minor above 1), or with no Android found.
        {true, 9, -1, 2, -1, -1, {pen_x, pen_y, tool, pressure, tilt_x, tilt_y}},
        {true, 9, 1, 2, -1, -1, {pen_x, pen_y, tool, pressure}},
        {true, 9, -2, 2, -1, -1, {pen_x, pen_y, tool, pressure}},
        {true, 0, -2, 2, -1, -1, {pen_x, pen_y, tool, pressure, tilt_x, tilt_y}},
        // Pen positions are scaled to ResolX/ResolY.
        {true, 9, 19, 2, 1919, 1079, {{ABS_X, 0, 1919}, {ABS_Y, 0, 1079}, tool, pressure, tilt_x, tilt_y}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.pen ? "pen" : "touch") << " android " << c.android
                                        << " kernel minor " << c.kernel_minor << " type "
                                        << c.event_type);
        VersionGuard version(c.android, c.kernel_minor == -2 ? 2 : c.kernel_minor == -1 ? 3 : 4,
                             c.kernel_minor == -2 ? 6 : c.kernel_minor == -1 ? 2 : c.kernel_minor);
        TempDir dir;
        TouchRig rig;
        rig.dev->Param.EventType = static_cast<int8_t>(c.event_type);
        rig.dev->Param.ResolX = c.resol_x;
        rig.dev->Param.ResolY = c.resol_y;
        UniqueFd* fd = c.pen ? &rig.dev->UinputPenFd : &rig.dev->UinputTouchFd;
        std::string path = UseStandIn(fd, dir, "uinput");
        // UI_DEV_CREATE fails on a file: nothing counts as created.
        EXPECT_EQ(-1, c.pen ? SetUpPenDevice(rig.dev.get()) : SetUpTouchDevice(rig.dev.get()));
        EXPECT_FALSE(rig.dev->bTouchDeviceCreated || rig.dev->bPenDeviceCreated);

        struct uinput_user_dev dev;  // the pen's name and ids: abi_test.cpp
        ASSERT_TRUE(ReadRecord(path, &dev));
        if (!c.pen) {
            EXPECT_STREQ("MorvelTouch_VirtualDevice", dev.name);
        }
        ExpectAxes(dev, c.axes);
        struct stat st;
        ASSERT_EQ(0, stat(path.c_str(), &st));
        EXPECT_EQ(1116, st.st_size);  // exactly one record
    }
}

TEST(UinputOpen, FallbackToDevUinputUnlessThePathIsConfigured) {
    if (access("/dev/uinput", F_OK) == 0) GTEST_SKIP() << "host has /dev/uinput";
    TempDir dir;
    const std::string missing = dir.path() + "/no_such_node";
    for (bool configured : {false, true}) {
        // Not configured: the path is replaced by "/dev/uinput" for every later device.
        // Configured (bit 1 of CustomPathMask): no fallback, the path stays.
        SCOPED_TRACE(configured);
        TouchRig rig;
        rig.settings.CustomPathMask = configured ? kCustomUinputPathBit : 0;
        snprintf(rig.settings.UinputPath, sizeof(rig.settings.UinputPath), "%s", missing.c_str());
        EXPECT_EQ(-1, CreateTouchDevice(rig.dev.get()));
        EXPECT_EQ(configured ? missing : "/dev/uinput", std::string(rig.settings.UinputPath));
        EXPECT_FALSE(rig.dev->UinputTouchFd.valid());
    }
}

// A configured path that names anything but the uinput device is refused before a byte is
// written: the 1116-byte record never lands in a file or another device.
TEST(UinputOpen, PathThatIsNotTheUinputDeviceIsRefusedUntouched) {
    TempDir dir;
    const std::string file = dir.path() + "/uinput";
    ASSERT_TRUE(coretest::WriteFile(file, "settings"));
    const std::string link = dir.path() + "/link";
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    for (const std::string& path : {file, link, std::string("/dev/null")}) {
        SCOPED_TRACE(path);
        TouchRig rig;
        LogCapture log;
        rig.settings.CustomPathMask = kCustomUinputPathBit;
        snprintf(rig.settings.UinputPath, sizeof(rig.settings.UinputPath), "%s", path.c_str());
        EXPECT_EQ(-1, CreateTouchDevice(rig.dev.get()));
        EXPECT_EQ(-1, CreatePenDevice(rig.dev.get()));
        EXPECT_FALSE(rig.dev->UinputTouchFd.valid());
        EXPECT_EQ(2, log.Count("Refused device node [" + path + "]"));
        EXPECT_TRUE(log.Has("Unable to open assigned uninput path : " + path));
    }
    EXPECT_EQ("settings", coretest::ReadFile(file));
    unlink(link.c_str());
}

TEST(UinputOpen, DescriptorsAreReleasedOnClose) {
    VersionGuard version(9);
    TempDir dir;
    TouchRig rig;
    UseStandIn(&rig.dev->UinputTouchFd, dir, "uinput");
    UseStandIn(&rig.dev->UinputPenFd, dir, "uinput");
    EXPECT_EQ(-1, SetUpTouchDevice(rig.dev.get()));
    EXPECT_EQ(-1, SetUpPenDevice(rig.dev.get()));
    const int touch_fd = rig.dev->UinputTouchFd.get();
    const int pen_fd = rig.dev->UinputPenFd.get();
    CloseUinputDevices(rig.dev.get());
    EXPECT_EQ(-1, fcntl(touch_fd, F_GETFD));
    EXPECT_EQ(-1, fcntl(pen_fd, F_GETFD));
    CloseUinputDevices(rig.dev.get());  // twice is harmless
}
