// Opening and closing the virtual input devices: the "/dev/uinput" fallback, the
// configured-path rule and the refusal of paths that are not the uinput device.
#include "output/uinput_device.h"

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

// A missing node: an unconfigured path falls back to "/dev/uinput" for every later device, a
// configured one (bit 1 of CustomPathMask) stays; the open never creates the node.
TEST(UinputOpen, FallbackToDevUinputUnlessThePathIsConfigured) {
    if (access("/dev/uinput", F_OK) == 0) GTEST_SKIP() << "host has /dev/uinput";
    testutil::TempDir dir;
    const std::string missing = dir.File("no_such_node");
    for (bool configured : {false, true}) {
        SCOPED_TRACE(configured);
        TouchRig rig;
        rig.settings.CustomPathMask = configured ? kCustomUinputPathBit : 0;
        snprintf(rig.settings.UinputPath, sizeof(rig.settings.UinputPath), "%s", missing.c_str());
        EXPECT_EQ(-1, CreateTouchDevice(rig.dev.get()));
        EXPECT_EQ(configured ? missing : "/dev/uinput", std::string(rig.settings.UinputPath));
        EXPECT_FALSE(rig.dev->UinputTouchFd.valid() || testutil::FileExists(missing));
    }
}

// A configured path that names anything but the uinput device (a file, a link to it, another
// device) is refused before a byte is written, for both devices.
TEST(UinputOpen, PathThatIsNotTheUinputDeviceIsRefusedUntouched) {
    testutil::TempDir dir;
    const std::string file = dir.File("uinput"), link = dir.File("link");
    ASSERT_TRUE(testutil::WriteFile(file, "settings"));
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    for (const std::string& path : {file, link, std::string("/dev/null")}) {
        SCOPED_TRACE(path);
        TouchRig rig;
        rig.settings.CustomPathMask = kCustomUinputPathBit;
        snprintf(rig.settings.UinputPath, sizeof(rig.settings.UinputPath), "%s", path.c_str());
        EXPECT_EQ(-1, CreateTouchDevice(rig.dev.get()));
        EXPECT_EQ(-1, CreatePenDevice(rig.dev.get()));
        EXPECT_FALSE(rig.dev->UinputTouchFd.valid() || rig.dev->UinputPenFd.valid());
    }
    EXPECT_EQ("settings", testutil::ReadFile(file));
}

// Closing releases both descriptors; twice is harmless.
TEST(UinputOpen, DescriptorsAreReleasedOnClose) {
    TouchRig rig;
    const int touch_fd = rig.dev->UinputTouchFd.get(), pen_fd = rig.dev->UinputPenFd.get();
    CloseUinputDevices(rig.dev.get());
    CloseUinputDevices(rig.dev.get());
    EXPECT_EQ(-1, fcntl(touch_fd, F_GETFD));
    EXPECT_EQ(-1, fcntl(pen_fd, F_GETFD));
}
