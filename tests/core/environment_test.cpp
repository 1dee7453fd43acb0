#include "core/environment.h"

#include <gtest/gtest.h>

#include <string>

namespace {

KernelVersionInfo ParseKernel(const std::string& text) {
    KernelVersionInfo v = {-7, -7, -7};
    ParseKernelVersion(text.data(), text.size(), &v);
    return v;
}

TEST(EnvironmentTest, KernelVersionFromProcVersionText) {
    struct Case {
        std::string text;
        int32_t major, minor, patch, old;
    };
    const std::string prefix = "Linux version ";
    const Case cases[] = {
        {prefix + "2.6.34-xyz (builder@host) (gcc version 4.4.3) #1 PREEMPT", 2, 6, 34, 1},
        {prefix + "2.6.35 (builder@host) #2", 2, 6, 35, 0},
        {prefix + "6.1.0-18-amd64 (debian-kernel@lists.debian.org)", 6, 1, 0, 0},
        {prefix + "2.4.20 #1", 2, 4, 20, 0},
        {prefix + "4.19", 4, 19, 0, 0},                             // fewer pieces: the rest is 0
        {"Linux", 0, 0, 0, 0},                                      // shorter than the prefix
        {prefix + "x.y.z", 0, 0, 0, 0},                             // garbage
        {prefix + "99999999999999999999.1.2", INT32_MAX, 1, 2, 0},  // clamped, no overflow
        {prefix + "3..10.1", 3, 10, 1, 0},  // empty pieces are skipped as strtok does
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        KernelVersionInfo v = ParseKernel(c.text);
        EXPECT_EQ(c.major, v.major);
        EXPECT_EQ(c.minor, v.minor);
        EXPECT_EQ(c.patch, v.patch);
        EXPECT_EQ(c.old, IsOldKernel(v));
    }
}

TEST(EnvironmentTest, AndroidReleaseGivesMajorAndMinor) {
    struct Case {
        std::string release;
        int32_t major, minor;
    };
    const Case cases[] = {
        {"4.0.4", 4, 0},
        {"10", 10, 0},
        {"R", 0, 0},
        {std::string(200, '8'), INT32_MAX, 0},
    };
    for (const Case& c : cases) {
        AndroidVersionInfo v = {-7, -7};
        ParseAndroidVersion(c.release.c_str(), &v);
        EXPECT_EQ(c.major, v.major) << c.release;
        EXPECT_EQ(c.minor, v.minor) << c.release;
    }
}

}  // namespace
