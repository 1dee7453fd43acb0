#include "core/command_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "config/global_settings.h"
#include "log/debug_log.h"
#include "support/core_test_util.h"

namespace {

using coretest::ChildResult;
using coretest::kReturned;
using coretest::RunInChild;

// A settings record in the state SetDefaultSettings leaves, without its log-file side
// effects, plus the log globals.
struct Defaults {
    Defaults() {
        memset(&settings, 0, sizeof(settings));
        snprintf(settings.UinputPath, kTextMax, "%s", kDefaultUinputPath);
        for (auto& slot : settings.CustomSerialPath) snprintf(slot, kTextMax, "default");
        for (auto& slot : settings.DevPID) snprintf(slot, kPidTextMax, "NULL");
        settings.MaxDeviceNums = 1;
        DebugEnableBits = 1;
        ShowDebugPosition = 1;
    }
    GlobalSettings settings;
};

// Runs ParseCommandLine over the words (the program name is added in front).
void Parse(GlobalSettings* settings, std::vector<std::string> words) {
    words.insert(words.begin(), "TavrineD");
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    ParseCommandLine(static_cast<int>(words.size()), argv.data(), settings);
}

class CommandLineTest : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_bits_ = DebugEnableBits;
        saved_position_ = ShowDebugPosition;
    }
    void TearDown() override {
        DebugEnableBits = saved_bits_;
        ShowDebugPosition = saved_position_;
    }
    uint32_t saved_bits_ = 0;
    uint8_t saved_position_ = 0;
};

const std::string kUsage =
    "QEVO TavrineD Daemon\n\n"
    "Usage: TavrineD [option]\n"
    "Options:\n"
    "-v\t Show version\n"
    "-f\t Re-execute daemon TavrineD\n"
    "-k\t Kill current running TavrineD process if it exists\n"
    "\n";
const std::string kVersion = "\n\t\tTavrine version: [2.5.6720.]\n\n";
const std::string kBothError =
    "\nError: The paramerers 'f' & 'k' can not be set at the same time!\n";

TEST_F(CommandLineTest, EachFlagOptionSetsItsFieldAndNothingElse) {
    struct Case {
        const char* option;
        uint8_t GlobalSettings::*field;
    };
    const Case cases[] = {
        {"-v", &GlobalSettings::ShowVersion},  {"-V", &GlobalSettings::ShowFullVersion},
        {"-f", &GlobalSettings::ForceRestart}, {"-k", &GlobalSettings::KillRunning},
        {"-h", &GlobalSettings::ShowUsage},
    };
    for (const Case& c : cases) {
        Defaults d;
        Defaults expected;
        Parse(&d.settings, {c.option});
        expected.settings.*c.field = 1;
        EXPECT_EQ(0, memcmp(&expected.settings, &d.settings, sizeof(GlobalSettings))) << c.option;
        EXPECT_EQ(1u, DebugEnableBits) << c.option;
        EXPECT_EQ(1, ShowDebugPosition) << c.option;
    }
}

TEST_F(CommandLineTest, DebugOptionsSetCategoriesOutputsAndForceRestart) {
    struct Case {
        std::vector<std::string> words;
        uint32_t bits;
        uint8_t position;
        uint8_t force;
    };
    const Case cases[] = {
        {{"-D"}, 0xFFFFF, 0, 1},
        {{"-E"}, 0xFFFF, 1, 1},
        {{"-d", "400000"}, 0x400000, 1, 0},
        {{"-d", "ff"}, 0xFF, 1, 0},
        {{"-d400000"}, 0x400000, 1, 0},
        {{"-p", "2"}, 1, 2, 0},
        {{"-p", "0"}, 1, 0, 0},
        {{"-p", "258"}, 1, 2, 0},            // kept in one byte
        {{"-D", "-p", "2"}, 0xFFFFF, 2, 1},  // applied in the order given
        {{"-p", "2", "-E"}, 0xFFFF, 1, 1},
        {{"-d", "zz"}, 1, 1, 0},  // not a hexadecimal number: unchanged
        // Numbers as the settings file reads them: the leading number, as "%x" and atoi do.
        {{"-d", "-1"}, 0xFFFFFFFF, 1, 0},
        {{"-d", "1FFFFFFFF"}, 1, 1, 0},  // beyond 32 bits: unchanged, never wrapped
        {{"-p", "2abc"}, 1, 2, 0},
        {{"-p", "x"}, 1, 0, 0},
    };
    for (const Case& c : cases) {
        Defaults d;
        Parse(&d.settings, c.words);
        EXPECT_EQ(c.bits, DebugEnableBits) << c.words[0];
        EXPECT_EQ(c.position, ShowDebugPosition) << c.words[0];
        EXPECT_EQ(c.force, d.settings.ForceRestart) << c.words[0];
        EXPECT_EQ(0, d.settings.KillRunning);
    }
}

TEST_F(CommandLineTest, PathOptionsFillTheirFieldAndMaskBit) {
    Defaults d;
    Parse(&d.settings, {"-r", "/dev/ttyUSB3", "-u", "/dev/uinput"});
    EXPECT_STREQ("/dev/ttyUSB3", d.settings.CustomSerialPath[0]);
    EXPECT_STREQ("default", d.settings.CustomSerialPath[1]);
    EXPECT_STREQ("/dev/uinput", d.settings.UinputPath);
    EXPECT_EQ(kCustomSerialPathBit | kCustomUinputPathBit, d.settings.CustomPathMask);

    Defaults only_r;
    Parse(&only_r.settings, {"-r", "/dev/ttyS1"});
    EXPECT_EQ(kCustomSerialPathBit, only_r.settings.CustomPathMask);
    EXPECT_STREQ(kDefaultUinputPath, only_r.settings.UinputPath);
}

// A -r, -u or -z argument must fit 63 characters; a longer one is refused and the previous
// value stays (a cut path would name another file). The refusal goes to standard error at
// once (standard output may be lost when the process detaches) and into the debug log after
// the last option, so a later -p or -D chooses where it is logged.
TEST_F(CommandLineTest, OverlongTextOptionIsRefusedOnStandardErrorAndInTheLog) {
    const std::string fits = "/" + std::string(62, 'a');  // 63 characters
    const std::string too_long = fits + "b";              // 64 characters
    Defaults d;
    Parse(&d.settings, {"-r", fits, "-u", fits, "-z", fits});
    EXPECT_EQ(fits, d.settings.CustomSerialPath[0]);
    EXPECT_EQ(fits, d.settings.UinputPath);

    for (const char* option : {"-r", "-u", "-z"}) {
        Defaults before;
        Defaults expected;
        const std::string message = std::string("Error: The argument of option '") + option[1] +
                                    "' is longer than 63 characters, it is ignored.";
        coretest::LogCapture log(0xFFFFFFFFu, 3);  // no output until -p chooses one
        ChildResult child = RunInChild([&] {
            // Standard error on the captured pipe, standard output (and log prefixes) dropped.
            dup2(STDOUT_FILENO, STDERR_FILENO);
            UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
            dup2(null_fd.get(), STDOUT_FILENO);
            Parse(&before.settings, {option, too_long, "-p", "1"});
            // The outcome as the exit status: 3 a field changed, 4 not logged once, else 0.
            if (memcmp(&before.settings, &expected.settings, sizeof(GlobalSettings)) != 0) _exit(3);
            _exit(log.Count(message) == 1 ? 0 : 4);
        });
        ASSERT_TRUE(child.exited);
        EXPECT_EQ(0, child.status) << option;
        EXPECT_EQ(message + "\n", child.out) << option;
    }
}

// Options are applied after the settings file, so they replace what it set.
TEST_F(CommandLineTest, OptionsOverrideTheSettingsFile) {
    std::string file =
        "[TavrineA.ini] DebugEnableBits 7 ShowDebugPosition 0 [String] "
        "SerialPath /dev/ttyS1 SerialPath /dev/ttyS2 UinputPath /dev/file_uinput [EndOfFile]";
    Defaults d;
    FILE* stream = fmemopen(&file[0], file.size(), "r");
    ASSERT_NE(nullptr, stream);
    ShowDebugPosition = 3;  // the reader's own lines go nowhere
    ReadGlobalSettingsFrom(stream, &d.settings);
    fclose(stream);
    ASSERT_EQ(7u, DebugEnableBits);
    ASSERT_STREQ("/dev/file_uinput", d.settings.UinputPath);

    Parse(&d.settings, {"-r", "/dev/ttyUSB0", "-u", "/dev/uinput", "-d", "4", "-p", "2"});
    EXPECT_STREQ("/dev/ttyUSB0", d.settings.CustomSerialPath[0]);
    EXPECT_STREQ("/dev/ttyS2", d.settings.CustomSerialPath[1]);  // the file's second path stays
    EXPECT_STREQ("/dev/uinput", d.settings.UinputPath);
    EXPECT_EQ(kCustomSerialPathBit | kCustomUinputPathBit, d.settings.CustomPathMask);
    EXPECT_EQ(4u, DebugEnableBits);
    EXPECT_EQ(2, ShowDebugPosition);
}

TEST_F(CommandLineTest, IgnoredOptionsChangeNothing) {
    const std::vector<std::vector<std::string>> cases = {
        {"-z", "anything"}, {"-zvalue"}, {"-x"}, {"-q", "-Q"}, {"-d"}, {"-p"}, {"-r"}, {"-u"},
        {"plain", "words"}, {"--long"},
    };
    for (const auto& words : cases) {
        Defaults d;
        Defaults expected;
        ChildResult child = RunInChild([&] {
            dup2(STDOUT_FILENO, STDERR_FILENO);  // getopt's own messages would go to stderr
            Parse(&d.settings, words);
        });
        EXPECT_EQ("", child.out) << words[0];
        Parse(&d.settings, words);
        EXPECT_EQ(0, memcmp(&expected.settings, &d.settings, sizeof(GlobalSettings))) << words[0];
        EXPECT_EQ(1u, DebugEnableBits) << words[0];
        EXPECT_EQ(1, ShowDebugPosition) << words[0];
    }
}

TEST_F(CommandLineTest, StartupFlagsExitWithTheirStatusAndExactOutput) {
    struct Case {
        std::vector<std::string> words;
        int status;
        std::string out;
    };
    const Case cases[] = {
        {{"-h"}, 0, kUsage},
        {{"-h", "-k", "-f"}, 0, kUsage},  // usage is checked first
        {{"-k", "-f"}, 1, kBothError},
        {{"-D", "-k"}, 1, kBothError},
        {{"-k", "-E"}, 1, kBothError},
        {{"-v"}, 0, kVersion},
        {{"-V"}, 0, kVersion},        // the suffix is empty
        {{"-v", "-V"}, 0, kVersion},  // only the short line
        {{"-v", "-k", "-f"}, 1, kBothError},
        {{"-k"}, kReturned, ""},
        {{"-f"}, kReturned, ""},
        {{"-z", "1"}, kReturned, ""},
        {{}, kReturned, ""},
    };
    for (const Case& c : cases) {
        Defaults d;
        Parse(&d.settings, c.words);
        ChildResult child = RunInChild([&] { HandleStartupFlags(&d.settings); });
        const std::string name = c.words.empty() ? "(none)" : c.words[0];
        ASSERT_TRUE(child.exited) << name;
        EXPECT_EQ(c.status, child.status) << name;
        EXPECT_EQ(c.out, child.out) << name;
    }
}

}  // namespace
