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

const std::string kLongest = "/" + std::string(62, 'a');  // 63 characters + NUL = 64
const std::string kTooLong = kLongest + "a";

// One row a value the daemon may put into a command line: device nodes and configured
// serial paths, product ids from lsusb and the settings file, and the shell's own
// metacharacters that must never get through.
const TokenCase kCases[] = {
    {"/dev/hidraw0", true, false},
    {"/dev/ttyUSB-0.1", true, false},
    {"relative/path_1", true, false},
    {kLongest.c_str(), true, false},
    {kTooLong.c_str(), false, false},  // would not fit the 64-byte buffers
    {"3c7a", true, true, "3c7a"},
    {"00AB", true, true, "00ab"},
    // shorter ids are taken by the settings file and the binding, padded as the kernel shows them
    {"E5", true, false, "00e5"},
    // product ids of the wrong length or with non-hex characters
    {"3c7a0", true, false},
    {"3c7g", true, false},
    {"0x3c", true, false},
    {" 3c7", false, false},
    {"3c7;", false, false},
    // shell metacharacters and blanks
    {"/dev/ttyS0;reboot", false, false},
    {"/dev/ttyS0 /data", false, false},
    {"/dev/ttyS0\n", false, false},
    {"/dev/$(id)", false, false},
    {"/dev/`id`", false, false},
    {"/dev/tty|sh", false, false},
    {"/dev/tty>x", false, false},
    {"/dev/tty*", false, false},
    {"'/dev/tty'", false, false},
    {"/dev/tty\\x", false, false},
    {"~/tty", false, false},
    {"/dev/\xc3\xa9", false, false},  // UTF-8 letter: not ASCII
    // a leading '-' would read as an option of rm or grep
    {"-rf", false, false},
    {"/dev/tty-0", true, false},
    {"", false, false},
};

TEST(ShellTokenTest, TableOfValues) {
    for (const TokenCase& c : kCases) {
        SCOPED_TRACE(std::string("[") + c.text + "]");
        EXPECT_EQ(c.path_ok, IsPlainPathToken(c.text));
        EXPECT_EQ(c.id_ok, IsProductIdToken(c.text));
        char form[5] = "xxxx";
        EXPECT_EQ(c.id_form[0] != '\0', NormalizeProductId(c.text, form));
        EXPECT_STREQ(c.id_form, form);
    }
    EXPECT_FALSE(IsPlainPathToken(nullptr));
    EXPECT_FALSE(IsProductIdToken(nullptr));
    char form[5] = "xxxx";
    EXPECT_FALSE(NormalizeProductId(nullptr, form));
}

}  // namespace
