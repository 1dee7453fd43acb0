#include "core/shell_token.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct TokenCase {
    const char* text;
    bool path_ok;              // IsPlainPathToken
    bool id_ok;                // IsProductIdToken
    const char* id_form = "";  // NormalizeProductId ("" = refused)
};

// One row a value the daemon may put into a command line: device nodes and configured
// serial paths, product ids from lsusb and the settings file, and the shell's own
// metacharacters that must never get through.
const TokenCase kCases[] = {
    {"/dev/hidraw0", true, false},
    {"/dev/ttyS3", true, false},
    {"/dev/serio_raw1", true, false},
    {"/dev/ttyUSB-0.1", true, false},
    {"/dev/input/uinput", true, false},
    {"relative/path_1", true, false},
    {"3c7a", true, true, "3c7a"},
    {"00AB", true, true, "00ab"},
    {"fFfF", true, true, "ffff"},
    {"0001", true, true, "0001"},
    // shorter ids are taken by the settings file and the binding, padded as the kernel shows them
    {"3c7", true, false, "03c7"},
    {"E5", true, false, "00e5"},
    {"7", true, false, "0007"},
    // product ids of the wrong length or with non-hex characters
    {"3c7a0", true, false},
    {"3c7g", true, false},
    {"0x3c", true, false},
    {"3c 7", false, false},
    {" 3c7", false, false},
    {"3c7a ", false, false},
    {"3c7;", false, false},
    // shell metacharacters and blanks
    {"/dev/ttyS0;reboot", false, false},
    {"/dev/ttyS0 /data", false, false},
    {"/dev/ttyS0\t", false, false},
    {"/dev/ttyS0\n", false, false},
    {"/dev/$(id)", false, false},
    {"/dev/`id`", false, false},
    {"/dev/tty|sh", false, false},
    {"/dev/tty&", false, false},
    {"/dev/tty>x", false, false},
    {"/dev/tty<x", false, false},
    {"/dev/tty*", false, false},
    {"/dev/tty?", false, false},
    {"/dev/tty[0]", false, false},
    {"'/dev/tty'", false, false},
    {"\"/dev/tty\"", false, false},
    {"/dev/tty\\x", false, false},
    {"~/tty", false, false},
    {"/dev/tty#x", false, false},
    {"/dev/tty=x", false, false},
    {"/dev/tty:0", false, false},
    {"/dev/tty,0", false, false},
    {"/dev/\xc3\xa9", false, false},  // UTF-8 letter: not ASCII
    {"/dev/tty\x7f", false, false},
    // a leading '-' would read as an option of rm or grep
    {"-rf", false, false},
    {"-", false, false},
    {"/dev/tty-0", true, false},
    {"", false, false},
};

TEST(ShellTokenTest, TableOfValues) {
    for (const TokenCase& c : kCases) {
        EXPECT_EQ(c.path_ok, IsPlainPathToken(c.text)) << "path [" << c.text << "]";
        EXPECT_EQ(c.id_ok, IsProductIdToken(c.text)) << "id [" << c.text << "]";
        char form[5] = "xxxx";
        EXPECT_EQ(c.id_form[0] != '\0', NormalizeProductId(c.text, form)) << c.text;
        EXPECT_STREQ(c.id_form, form) << c.text;
    }
    EXPECT_FALSE(IsPlainPathToken(nullptr));
    EXPECT_FALSE(IsProductIdToken(nullptr));
    char form[5] = "xxxx";
    EXPECT_FALSE(NormalizeProductId(nullptr, form));
}

TEST(ShellTokenTest, PathMustFitTheSixtyFourByteBuffers) {
    const std::string longest = "/" + std::string(62, 'a');  // 63 characters + NUL = 64
    EXPECT_TRUE(IsPlainPathToken(longest.c_str()));
    const std::string too_long = longest + "a";  // 64 characters
    EXPECT_FALSE(IsPlainPathToken(too_long.c_str()));
    const std::string far_too_long = "/" + std::string(4096, 'b');
    EXPECT_FALSE(IsPlainPathToken(far_too_long.c_str()));
}

TEST(ShellTokenTest, ProductIdStopsAtAnEarlyNul) {
    // Four bytes of storage may hold a short id: the check must not read past its NUL.
    const char short_id[3] = {'3', 'c', '\0'};
    EXPECT_FALSE(IsProductIdToken(short_id));
    const char nul_inside[6] = {'3', 'c', '\0', 'a', '\0', '\0'};
    EXPECT_FALSE(IsProductIdToken(nul_inside));
}

}  // namespace
