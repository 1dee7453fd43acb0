#include "ctl_args.h"

#include <gtest/gtest.h>
#include <string.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

// Command lines (words split at blanks) and what they set: command, bus, time-out, point
// count and raw bytes in hex; or "!" and a piece of the reason they are refused for.
TEST(CtlArgs, CommandLines) {
    std::string bytes64 = "raw", hex64, commas = "raw";
    for (int i = 0; i < 64; ++i) bytes64 += " 5a", hex64 += "5a";
    for (int i = 0; i < 300; ++i) commas += " ,";  // more words than bytes, none a byte
    const std::pair<std::string, std::string> cases[] = {
        {"version", "version auto 2000 0 "},
        {"--usb model", "model usb 2000 0 "},
        {"type --serial --timeout 150", "type serial 150 0 "},
        {"--timeout 600000 version", "version auto 600000 0 "},
        {"points", "points serial 2000 0 "},  // points is serial only
        {"points --count 5 --serial", "points serial 2000 5 "},
        {"version --help", "help auto 2000 0 "},
        {"raw 03 01 41", "raw auto 2000 0 030141"},
        {"raw 030141", "raw auto 2000 0 030141"},
        {"raw 0x0a,0x2:34 0", "raw auto 2000 0 0a023400"},
        {"raw A FF --timeout 5", "raw auto 5 0 0aff"},
        {bytes64, "raw auto 2000 0 " + hex64},
        {bytes64 + " 00", "!at most 64"},
        {"raw " + std::string(130, '1'), "!at most 64"},
        {commas, "!"},
        {"", "!no command"},
        {"versions", "!unknown command"},
        {"--verbose version", "!unknown option"},
        {"version extra", "!unexpected argument"},
        {"--usb --serial version", "!exclude"},
        {"--timeout", "!--timeout needs a number"},
        {"--timeout 600001 version", "!--timeout needs a number"},
        {"--timeout 99999999999999999999 version", "!--timeout needs a number"},
        {"--timeout 2s version", "!--timeout needs a number"},
        {"--count 0 points", "!--count needs a number"},
        {"--count 3 version", "!only goes with points"},
        {"--usb points", "!serial"},
        {"raw", "!no bytes"},
        {"raw 03 1g", "!not a hexadecimal byte: \"1g\""},
    };
    const char* const commands[] = {"none", "help", "raw", "version", "model", "type", "points"};
    const char* const buses[] = {"auto", "usb", "serial"};
    for (const auto& c : cases) {
        std::istringstream split(c.first);
        std::vector<std::string> words;
        for (std::string word; split >> word;) words.push_back(word);
        std::vector<const char*> argv = {"tavrinectl"};
        for (const std::string& word : words) argv.push_back(word.c_str());
        CtlOptions o;
        char why[256] = "";
        const int rc = ParseCtlArgs(int(argv.size()), argv.data(), &o, why, sizeof(why));
        std::ostringstream got;
        got << commands[int(o.command)] << " " << buses[int(o.bus)] << " " << o.timeout_ms << " "
            << o.count << " " << std::hex;
        for (int i = 0; i < o.raw_len; ++i) got << (o.raw[i] >> 4) << (o.raw[i] & 15);
        const bool refused = c.second[0] == '!';
        EXPECT_EQ(refused ? -1 : 0, rc) << c.first.substr(0, 40) << ": " << why;
        EXPECT_TRUE(refused ? strstr(why, c.second.c_str() + 1) != nullptr : got.str() == c.second)
            << c.first.substr(0, 40) << ": " << (refused ? why : got.str());
    }
}

}  // namespace
