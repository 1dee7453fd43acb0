// Opening and closing the virtual input devices: the "/dev/uinput" fallback, the
// configured-path rule and the refusal of paths that are not the uinput device. The record
// the set-up writes is checked in abi_test.cpp.
#include "output/uinput_device.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "support/test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

using testutil::TempDir;

// Opens an empty regular file standing in for the uinput node, as the open step would.
void UseStandIn(UniqueFd* uinput_fd, const TempDir& dir) {
    uinput_fd->reset(OpenCloexec((dir.path() + "/uinput").c_str(),
                                 O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK, 0600));
    EXPECT_TRUE(uinput_fd->valid());
}

}  // namespace

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
        EXPECT_FALSE(testutil::FileExists(missing)) << "the open created the node";
    }
}

// A configured path that names anything but the uinput device is refused before a byte is
// written: the 1116-byte record never lands in a file or another device.
TEST(UinputOpen, PathThatIsNotTheUinputDeviceIsRefusedUntouched) {
    TempDir dir;
    const std::string file = dir.path() + "/uinput";
    ASSERT_TRUE(testutil::WriteFile(file, "settings"));
    const std::string link = dir.path() + "/link";
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    for (const std::string& path : {file, link, std::string("/dev/null")}) {
        SCOPED_TRACE(path);
        TouchRig rig;
        testutil::LogCapture log;
        rig.settings.CustomPathMask = kCustomUinputPathBit;
        snprintf(rig.settings.UinputPath, sizeof(rig.settings.UinputPath), "%s", path.c_str());
        EXPECT_EQ(-1, CreateTouchDevice(rig.dev.get()));
        EXPECT_EQ(-1, CreatePenDevice(rig.dev.get()));
        EXPECT_FALSE(rig.dev->UinputTouchFd.valid());
        EXPECT_EQ(2, log.Count("Refused device node [" + path + "]"));
        EXPECT_TRUE(log.Contains("Unable to open assigned uninput path : " + path));
    }
    EXPECT_EQ("settings", testutil::ReadFile(file));
}

TEST(UinputOpen, DescriptorsAreReleasedOnClose) {
    VersionGuard version(9);
    TempDir dir;
    TouchRig rig;
    UseStandIn(&rig.dev->UinputTouchFd, dir);
    UseStandIn(&rig.dev->UinputPenFd, dir);
    EXPECT_EQ(-1, SetUpTouchDevice(rig.dev.get()));
    EXPECT_EQ(-1, SetUpPenDevice(rig.dev.get()));
    const int touch_fd = rig.dev->UinputTouchFd.get();
    const int pen_fd = rig.dev->UinputPenFd.get();
    CloseUinputDevices(rig.dev.get());
    EXPECT_EQ(-1, fcntl(touch_fd, F_GETFD));
    EXPECT_EQ(-1, fcntl(pen_fd, F_GETFD));
    CloseUinputDevices(rig.dev.get());  // twice is harmless
}
