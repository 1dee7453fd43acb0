#include "ctl_args.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

// Parses line (words split at blanks) into o; the status, and the reason in why.
int Parse(const std::string& line, CtlOptions* o, std::string* why) {
    std::istringstream split(line);
    std::vector<std::string> words;
    for (std::string word; split >> word;) words.push_back(word);
    std::vector<const char*> argv = {"tavrinectl"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    char err[256] = "";
    const int rc = ParseCtlArgs(int(argv.size()), argv.data(), o, err, sizeof(err));
    *why = err;
    return rc;
}

// Command lines with what they set (options before or after the command).
TEST(CtlArgs, CommandLines) {
    using C = CtlCommand;
    using B = CtlBus;
    std::string bytes64 = "raw";
    for (int i = 0; i < 64; ++i) bytes64 += " 5a";
    const struct {
        std::string line;
        C command;
        B bus;
        int timeout_ms;
        long count;
        std::vector<uint8_t> raw;
    } cases[] = {
        {"version", C::kVersion, B::kAuto, 2000, 0, {}},
        {"--usb model", C::kModel, B::kUsb, 2000, 0, {}},
        {"type --serial --timeout 150", C::kType, B::kSerial, 150, 0, {}},
        {"--timeout 600000 version", C::kVersion, B::kAuto, 600000, 0, {}},
        {"points", C::kPoints, B::kSerial, 2000, 0, {}},  // points is serial only
        {"points --count 5 --serial", C::kPoints, B::kSerial, 2000, 5, {}},
        {"version --help", C::kHelp, B::kAuto, 2000, 0, {}},
        {"raw 03 01 41", C::kRaw, B::kAuto, 2000, 0, {0x03, 0x01, 0x41}},
        {"raw 030141", C::kRaw, B::kAuto, 2000, 0, {0x03, 0x01, 0x41}},
        {"raw 0x0a,0x2:34 0", C::kRaw, B::kAuto, 2000, 0, {0x0A, 0x02, 0x34, 0x00}},
        {"raw A FF --timeout 5", C::kRaw, B::kAuto, 5, 0, {0x0A, 0xFF}},
        {bytes64, C::kRaw, B::kAuto, 2000, 0, std::vector<uint8_t>(64, 0x5A)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 40));
        CtlOptions o;
        std::string why;
        ASSERT_EQ(0, Parse(c.line, &o, &why)) << why;
        EXPECT_TRUE(o.command == c.command && o.bus == c.bus);
        EXPECT_EQ(c.timeout_ms, o.timeout_ms);
        EXPECT_EQ(c.count, o.count);
        EXPECT_EQ(c.raw, std::vector<uint8_t>(o.raw, o.raw + o.raw_len));
    }
    // Refused, with a piece of the reason; a packet is at most 64 bytes, also as one run of
    // digits, and many words without a byte do not overrun the word table.
    std::string commas = "raw";
    for (int i = 0; i < 300; ++i) commas += " ,";
    const std::pair<std::string, const char*> refused[] = {
        {bytes64 + " 00", "at most 64"},
        {"raw " + std::string(130, '1'), "at most 64"},
        {commas, ""},
        {"", "no command"},
        {"versions", "unknown command"},
        {"--verbose version", "unknown option"},
        {"version extra", "unexpected argument"},
        {"--usb --serial version", "exclude"},
        {"--timeout", "--timeout needs a number"},
        {"--timeout 600001 version", "--timeout needs a number"},
        {"--timeout 99999999999999999999 version", "--timeout needs a number"},
        {"--timeout 2s version", "--timeout needs a number"},
        {"--count 0 points", "--count needs a number"},
        {"--count 3 version", "only goes with points"},
        {"--usb points", "serial"},
        {"raw", "no bytes"},
        {"raw 03 1g", "not a hexadecimal byte: \"1g\""},
    };
    for (const auto& r : refused) {
        CtlOptions o;
        std::string why;
        EXPECT_EQ(-1, Parse(r.first, &o, &why)) << r.first.substr(0, 40);
        EXPECT_NE(why.find(r.second), std::string::npos) << r.first.substr(0, 40) << ": " << why;
    }
}

}  // namespace
