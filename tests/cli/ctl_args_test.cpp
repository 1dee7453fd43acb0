#include "ctl_args.h"

#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

namespace {

// Splits a command line at blanks (no quoting needed by these cases).
struct Argv {
    explicit Argv(const std::string& line) {
        words.push_back("tavrinectl");
        size_t pos = 0;
        while (pos < line.size()) {
            size_t end = line.find(' ', pos);
            if (end == std::string::npos) end = line.size();
            if (end > pos) words.push_back(line.substr(pos, end - pos));
            pos = end + 1;
        }
        for (auto& w : words) pointers.push_back(w.c_str());
    }
    std::vector<std::string> words;
    std::vector<const char*> pointers;
};

int Parse(const std::string& line, CtlOptions* options, std::string* why) {
    Argv argv(line);
    char err[256];
    int rc = ParseCtlArgs(static_cast<int>(argv.pointers.size()), argv.pointers.data(), options,
                          err, sizeof(err));
    *why = err;
    return rc;
}

TEST(CtlArgs, AcceptedCommandLines) {
    struct Case {
        const char* line;
        CtlCommand command;
        CtlBus bus;
        int timeout_ms;
        long count;
    } cases[] = {
        {"version", CtlCommand::kVersion, CtlBus::kAuto, 2000, 0},
        {"--usb model", CtlCommand::kModel, CtlBus::kUsb, 2000, 0},
        {"type --serial --timeout 150", CtlCommand::kType, CtlBus::kSerial, 150, 0},
        {"--timeout 600000 version", CtlCommand::kVersion, CtlBus::kAuto, 600000, 0},
        {"points", CtlCommand::kPoints, CtlBus::kSerial, 2000, 0},  // points is serial only
        {"points --count 5 --serial", CtlCommand::kPoints, CtlBus::kSerial, 2000, 5},
        {"version --help", CtlCommand::kHelp, CtlBus::kAuto, 2000, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        CtlOptions options;
        std::string why;
        ASSERT_EQ(Parse(c.line, &options, &why), 0) << why;
        EXPECT_EQ(options.command, c.command);
        if (c.command == CtlCommand::kHelp) continue;
        EXPECT_EQ(options.bus, c.bus);
        EXPECT_EQ(options.timeout_ms, c.timeout_ms);
        EXPECT_EQ(options.count, c.count);
    }
}

TEST(CtlArgs, RefusedCommandLinesSayWhy) {
    struct Case {
        const char* line;
        const char* reason;  // a piece of the message
    } cases[] = {
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
    for (const Case& c : cases) {
        CtlOptions options;
        std::string why;
        EXPECT_EQ(Parse(c.line, &options, &why), -1) << c.line;
        EXPECT_NE(why.find(c.reason), std::string::npos) << c.line << " gave: " << why;
    }
}

TEST(CtlArgs, RawBytesInEveryAcceptedSpelling) {
    struct Case {
        const char* line;
        std::vector<uint8_t> bytes;
    } cases[] = {
        {"raw 03 01 41", {0x03, 0x01, 0x41}},
        {"raw 030141", {0x03, 0x01, 0x41}},
        {"raw 0x0a,0x2:34 0", {0x0A, 0x02, 0x34, 0x00}},
        {"raw A FF --timeout 5", {0x0A, 0xFF}},
    };
    for (const Case& c : cases) {
        CtlOptions options;
        std::string why;
        ASSERT_EQ(Parse(c.line, &options, &why), 0) << c.line << ": " << why;
        ASSERT_EQ(options.command, CtlCommand::kRaw);
        EXPECT_EQ(std::vector<uint8_t>(options.raw, options.raw + options.raw_len), c.bytes)
            << c.line;
    }
}

TEST(CtlArgs, RawPacketIsBoundedTo64Bytes) {
    std::string line = "raw";
    for (int i = 0; i < 64; ++i) line += " 5a";
    CtlOptions options;
    std::string why;
    ASSERT_EQ(Parse(line, &options, &why), 0) << why;
    EXPECT_EQ(options.raw_len, 64);
    EXPECT_EQ(options.raw[63], 0x5A);
    // One more byte, as a separate word or inside a run of digits, is refused.
    EXPECT_EQ(Parse(line + " 00", &options, &why), -1);
    EXPECT_NE(why.find("at most 64"), std::string::npos) << why;
    EXPECT_EQ(Parse("raw " + std::string(130, '1'), &options, &why), -1);
    EXPECT_NE(why.find("at most 64"), std::string::npos) << why;
    // Many words each holding no byte do not overrun the word table.
    std::string commas = "raw";
    for (int i = 0; i < 300; ++i) commas += " ,";
    EXPECT_EQ(Parse(commas, &options, &why), -1);
}

}  // namespace
