#include "core/environment.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

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
        {prefix + "4.19", 4, 19, 0, 0},  // fewer pieces: the rest is 0
        {"Linux", 0, 0, 0, 0},           // shorter than the prefix
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

// 64 unterminated bytes placed right before an inaccessible page: a read past them faults.
TEST(EnvironmentTest, KernelVersionNeverReadsPastSixtyFourBytes) {
    const long page = sysconf(_SC_PAGESIZE);
    char* area = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, area);
    ASSERT_EQ(0, mprotect(area + page, page, PROT_NONE));
    char* text = area + page - 64;

    const char* fillers[] = {"7", "\xff", "9."};
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
        {"4.0.4", 4, 0}, {"10", 10, 0}, {"R", 0, 0}, {std::string(200, '8'), INT32_MAX, 0},
    };
    for (const Case& c : cases) {
        AndroidVersionInfo v = {-7, -7};
        ParseAndroidVersion(c.release.c_str(), &v);
        EXPECT_EQ(c.major, v.major) << c.release;
        EXPECT_EQ(c.minor, v.minor) << c.release;
    }
}

}  // namespace
