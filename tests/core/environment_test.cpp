#include "core/environment.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>

#include "log/debug_log.h"
#include "support/core_test_util.h"

namespace {

using coretest::LogCapture;
using coretest::TempDataDir;

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
        {prefix + "2.6.32.9-g1234 #1", 2, 6, 32, 1},
        {prefix + "3.0.8 #1 SMP", 3, 0, 8, 0},
        {prefix + "3.10.0-g1f2e (gcc) #1", 3, 10, 0, 0},
        {prefix + "6.1.0-18-amd64 (debian-kernel@lists.debian.org)", 6, 1, 0, 0},
        {prefix + "2.4.20 #1", 2, 4, 20, 0},
        {prefix + "10", 10, 0, 0, 0},  // fewer pieces: the rest is 0
        {prefix + "4.19", 4, 19, 0, 0},
        {prefix, 0, 0, 0, 0},   // nothing after the prefix
        {"Linux", 0, 0, 0, 0},  // shorter than the prefix
        {"", 0, 0, 0, 0},
        {prefix + "x.y.z", 0, 0, 0, 0},                             // garbage
        {prefix + "99999999999999999999.1.2", INT32_MAX, 1, 2, 0},  // clamped, no overflow
        {prefix + "3..10.1", 3, 10, 1, 0},  // empty pieces are skipped as strtok does
    };
    for (const Case& c : cases) {
        KernelVersionInfo v = ParseKernel(c.text);
        EXPECT_EQ(c.major, v.major) << c.text;
        EXPECT_EQ(c.minor, v.minor) << c.text;
        EXPECT_EQ(c.patch, v.patch) << c.text;
        EXPECT_EQ(c.old, IsOldKernel(v)) << c.text;
    }
}

// 64 unterminated bytes placed right before an inaccessible page: a read past them faults.
TEST(EnvironmentTest, KernelVersionNeverReadsPastSixtyFourBytes) {
    const long page = sysconf(_SC_PAGESIZE);
    char* area = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, area);
    ASSERT_EQ(0, mprotect(area + page, page, PROT_NONE));
    char* text = area + page - 64;

    const char* fillers[] = {"7", ".", "\xff", "9."};
    for (const char* filler : fillers) {
        memcpy(text, "Linux version ", 14);
        for (size_t i = 14; i < 64; ++i) text[i] = filler[(i - 14) % strlen(filler)];
        KernelVersionInfo v = {-7, -7, -7};
        ParseKernelVersion(text, 64, &v);
        if (strcmp(filler, "9.") == 0) {
            EXPECT_EQ(9, v.major);
            EXPECT_EQ(9, v.minor);
            EXPECT_EQ(9, v.patch);
        } else if (strcmp(filler, "7") == 0) {
            EXPECT_EQ(INT32_MAX, v.major);  // fifty digits, clamped
        } else {
            EXPECT_EQ(0, v.major) << filler;
        }
    }
    // A length above 64 is capped: only the first 64 bytes are ever looked at (the page
    // after them would fault).
    memcpy(text, "Linux version 5.4.3", 19);
    for (size_t i = 19; i < 64; ++i) text[i] = 'x';
    KernelVersionInfo v = {-7, -7, -7};
    ParseKernelVersion(text, 4096, &v);
    EXPECT_EQ(5, v.major);
    EXPECT_EQ(4, v.minor);
    EXPECT_EQ(3, v.patch);
    munmap(area, 2 * page);
}

TEST(EnvironmentTest, AndroidReleaseGivesMajorAndMinor) {
    struct Case {
        std::string release;
        int32_t major, minor;
    };
    const Case cases[] = {
        {"4.0.4", 4, 0}, {"10", 10, 0}, {"", 0, 0},   {"12.1", 12, 1},
        {"2.3.7", 2, 3}, {"R", 0, 0},   {".5", 5, 0}, {std::string(200, '8'), INT32_MAX, 0},
    };
    for (const Case& c : cases) {
        AndroidVersionInfo v = {-7, -7};
        ParseAndroidVersion(c.release.c_str(), &v);
        EXPECT_EQ(c.major, v.major) << c.release;
        EXPECT_EQ(c.minor, v.minor) << c.release;
    }
}

TEST(EnvironmentTest, OldKernelIsTwoSixUpToThirtyFour) {
    struct Case {
        KernelVersionInfo v;
        int32_t old;
    };
    const Case cases[] = {
        {{2, 6, 34}, 1}, {{2, 6, 0}, 1}, {{2, 6, -1}, 1}, {{2, 6, 35}, 0},
        {{2, 4, 20}, 0}, {{3, 0, 8}, 0}, {{0, 0, 0}, 0},  {{2, 7, 1}, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.old, IsOldKernel(c.v)) << c.v.major << "." << c.v.minor << "." << c.v.patch;
    }
}

// This host has no getprop: the probe logs its failure and leaves the version at 0.0.
TEST(EnvironmentTest, AndroidVersionFailureLeavesZero) {
    if (access("/system/bin/getprop", X_OK) == 0) GTEST_SKIP() << "runs on Android";
    TempDataDir dir;
    LogCapture log;
    AndroidVersion = {0, 0};
    coretest::Quiet([&] { GetAndroidVersion(); });
    EXPECT_EQ(0, AndroidVersion.major);
    EXPECT_EQ(0, AndroidVersion.minor);
    EXPECT_EQ(1, log.Count("Entering GetAndroidVersion"));
    EXPECT_EQ(1, log.Count("Get Android Version failed"));
}

}  // namespace
