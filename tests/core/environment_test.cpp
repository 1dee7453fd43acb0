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

// The length given is all the parser may read: a text cut inside the version gives the
// numbers that were visible.
TEST(EnvironmentTest, KernelVersionStopsAtTheGivenLength) {
    const std::string text = "Linux version 3.10.52-g1f2e";
    struct Case {
        size_t len;
        int32_t major, minor, patch;
    };
    const Case cases[] = {
        {14, 0, 0, 0},  {15, 3, 0, 0},  {16, 3, 0, 0},   {17, 3, 1, 0},
        {18, 3, 10, 0}, {20, 3, 10, 5}, {21, 3, 10, 52},
    };
    for (const Case& c : cases) {
        KernelVersionInfo v = {-7, -7, -7};
        ParseKernelVersion(text.data(), c.len, &v);
        EXPECT_EQ(c.major, v.major) << c.len;
        EXPECT_EQ(c.minor, v.minor) << c.len;
        EXPECT_EQ(c.patch, v.patch) << c.len;
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

// The running kernel, read through "cat /proc/version" into the data directory, matches
// what uname(2) reports, and the capture file is removed afterwards.
TEST(EnvironmentTest, KernelVersionOfTheRunningSystem) {
    TempDataDir dir;
    LogCapture log;
    KernelVersion = {0, 0, 0};
    coretest::Quiet([&] { GetKernelVersion(); });
    struct utsname name;
    ASSERT_EQ(0, uname(&name));
    int major = -1, minor = -1, patch = -1;
    ASSERT_EQ(3, sscanf(name.release, "%d.%d.%d", &major, &minor, &patch));
    EXPECT_EQ(major, KernelVersion.major);
    EXPECT_EQ(minor, KernelVersion.minor);
    EXPECT_EQ(patch, KernelVersion.patch);
    char expected[64];
    snprintf(expected, sizeof(expected), "Kernel_Version = %d.%d.%d", major, minor, patch);
    EXPECT_EQ(1, log.Count(expected));
    EXPECT_EQ(1, log.Count("Entering GetKernelVersion"));
    EXPECT_FALSE(coretest::FileExists(dir.File("tmpDrvLog")));
    KernelVersion = {0, 0, 0};
}

TEST(EnvironmentTest, CpuArchitectureIsLoggedAndCaptureRemoved) {
    TempDataDir dir;
    LogCapture log;
    coretest::Quiet([&] { GetCPUinfo(); });
    struct utsname name;
    ASSERT_EQ(0, uname(&name));
    EXPECT_EQ(1, log.Count(std::string("CPU = ") + name.machine));
    EXPECT_FALSE(coretest::FileExists(dir.File("tmpDrvLog")));
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

TEST(EnvironmentTest, UsbListingLogsEachMakerDeviceWithItsNumber) {
    const std::string listing =
        "Bus 001 Device 001: ID 1d6b:0002\n"
        "Bus 001 Device 004: ID 3c7a:0001\n"
        "Bus 002 Device 002: ID 046d:c52b\n"
        "Bus 002 Device 007: ID 3c7a:00ab\n";
    FILE* stream = fmemopen(const_cast<char*>(listing.data()), listing.size(), "r");
    ASSERT_NE(nullptr, stream);
    LogCapture log;
    coretest::Quiet([&] { ListQEVOUsbDeviceFrom(stream); });
    fclose(stream);
    ASSERT_EQ(2u, log.lines().size());
    EXPECT_EQ("All avaialbe connected USB Device #1. PID: 0001", log.lines()[0].message);
    EXPECT_EQ("All avaialbe connected USB Device #2. PID: 00ab", log.lines()[1].message);

    // No maker's device, and an over-long word: nothing logged, no overflow.
    const std::string other = "Bus 001 Device 001: ID 1d6b:0002 " + std::string(300, 'q');
    stream = fmemopen(const_cast<char*>(other.data()), other.size(), "r");
    ASSERT_NE(nullptr, stream);
    log.Clear();
    coretest::Quiet([&] { ListQEVOUsbDeviceFrom(stream); });
    fclose(stream);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
