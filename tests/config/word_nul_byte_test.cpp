// Words that hold a NUL byte: found by the settings-file fuzzer. The C text of such a word
// ends at the NUL while the stream position is after the whole word, so a header followed
// by a NUL used to match and put the recorded block start in the middle of the header.
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "config/device_param.h"
#include "config/param_words.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "support/conf_test_util.h"

namespace {

std::string NextWord(FILE* f, long* position) {
    char word[kTextMax];
    if (ReadIniWord(f, word) != kIniWordOk) return "<end>";
    *position = ftell(f);
    return word;
}

TEST(WordNulByteTest, AWordHoldingANulNeverEqualsAnyText) {
    struct Case {
        std::string bytes;
        std::string first;
        long first_end;
    };
    const Case cases[] = {
        {std::string("[Device_No.9]\0junk next", 23), kOverlongWord, 18},
        {std::string("\0 next", 6), kOverlongWord, 1},
        {std::string("  a\0\0 next", 10), kOverlongWord, 5},
        {std::string("key\0", 4), kOverlongWord, 4},  // NUL as the file's last byte
        {std::string("plain next", 10), "plain", 5},  // unchanged: no NUL
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes.size());
        std::string copy = c.bytes;
        FILE* f = fmemopen(&copy[0], copy.size(), "r");
        ASSERT_NE(f, nullptr);
        long position = -1;
        EXPECT_EQ(NextWord(f, &position), c.first);
        EXPECT_EQ(position, c.first_end);
        if (c.bytes.find("next") != std::string::npos) {
            EXPECT_EQ(NextWord(f, &position), "next");
        }
        EXPECT_EQ(NextWord(f, &position), "<end>");
        fclose(f);
    }
}

TEST(WordNulByteTest, AHeaderFollowedByANulIsNoBlockHeader) {
    conftest::ConfDataDir dir;
    GlobalSettings settings{};
    settings.MaxDeviceNums = 1;
    const std::string file =
        std::string("[TavrineA.ini]\n[Device_No.0]\0tail\nSupportPoints\t5\n[EndOfDevice]\n", 65);
    ASSERT_TRUE(conftest::WriteBytes(IniFilePath(), file));
    CDeviceObject dev("/dev/hidraw0", &settings);
    dev.Param.Device_No = 0;
    const uint8_t default_points = dev.Param.SupportPoints;
    IniDevParamRead(&dev);
    EXPECT_EQ(dev.Param.SupportPoints, default_points);
    EXPECT_EQ(dev.Param.BlockStart, 0u);
    EXPECT_EQ(dev.Param.BlockEnd, 0u);

    // The same block without the NUL is read and framed from the newline before its header.
    const std::string good = "[TavrineA.ini]\n[Device_No.0]\nSupportPoints\t5\n[EndOfDevice]\n";
    ASSERT_TRUE(conftest::WriteBytes(IniFilePath(), good));
    IniDevParamRead(&dev);
    EXPECT_EQ(dev.Param.SupportPoints, 5);
    EXPECT_EQ(dev.Param.BlockStart, 14u);
    EXPECT_EQ(dev.Param.BlockEnd, good.size() - 1);
}

}  // namespace
