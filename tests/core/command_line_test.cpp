#include "core/command_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "config/global_settings.h"
#include "log/debug_log.h"
#include "support/test_util.h"

namespace {

using testutil::ChildResult;
using testutil::kReturned;
using testutil::RunInChild;

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

// Each row: the words, the log globals after them, and the settings fields they change
// (every other byte of the record must stay as it was).
TEST(CommandLineTest, OptionsChangeExactlyTheirFields) {
    testutil::LogCapture restore;  // the log globals are put back at the end
    using Change = std::function<void(GlobalSettings*)>;
    const Change none = [](GlobalSettings*) {};
    const Change force = [](GlobalSettings* s) { s->ForceRestart = 1; };
    struct Case {
        std::vector<std::string> words;
        uint32_t bits;
        uint8_t position;
        Change change;
    };
    const Case cases[] = {
        {{"-v"}, 1, 1, [](GlobalSettings* s) { s->ShowVersion = 1; }},
        {{"-f"}, 1, 1, force},
        {{"-k"}, 1, 1, [](GlobalSettings* s) { s->KillRunning = 1; }},
        {{"-h"}, 1, 1, [](GlobalSettings* s) { s->ShowUsage = 1; }},
        {{"-D"}, 0xFFFFF, 0, force},
        {{"-E"}, 0xFFFF, 1, force},
        {{"-d400000"}, 0x400000, 1, none},
        {{"-p", "258"}, 1, 2, none},             // kept in one byte
        {{"-D", "-p", "2"}, 0xFFFFF, 2, force},  // applied in the order given
        // Numbers as the settings file reads them: the leading number, as "%x" and atoi do.
        {{"-d", "zz"}, 1, 1, none},
        {{"-d", "-1"}, 0xFFFFFFFF, 1, none},
        {{"-d", "1FFFFFFFF"}, 1, 1, none},  // beyond 32 bits: unchanged, never wrapped
        {{"-p", "2abc"}, 1, 2, none},
        {{"-r", "/dev/ttyUSB3", "-u", "/dev/uinput"},
         1,
         1,
         [](GlobalSettings* s) {
             snprintf(s->CustomSerialPath[0], kTextMax, "/dev/ttyUSB3");
             snprintf(s->UinputPath, kTextMax, "/dev/uinput");
             s->CustomPathMask = kCustomSerialPathBit | kCustomUinputPathBit;
         }},
        // Ignored: unknown options, missing arguments, plain words.
        {{"-z", "anything"}, 1, 1, none},
        {{"-d"}, 1, 1, none},
        {{"plain", "words"}, 1, 1, none},
        {{"--long"}, 1, 1, none},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.words[0] + (c.words.size() > 1 ? " " + c.words[1] : ""));
        Defaults d;
        Defaults expected;
        Parse(&d.settings, c.words);
        c.change(&expected.settings);
        EXPECT_EQ(0, memcmp(&expected.settings, &d.settings, sizeof(GlobalSettings)));
        EXPECT_EQ(c.bits, DebugEnableBits);
        EXPECT_EQ(c.position, ShowDebugPosition);
    }
}

// A -r, -u or -z argument must fit 63 characters; a longer one is refused and the previous
// value stays (a cut path would name another file). The refusal goes to standard error at
// once (standard output may be lost when the process detaches) and into the debug log after
// the last option, so a later -p or -D chooses where it is logged.
TEST(CommandLineTest, OverlongTextOptionIsRefusedOnStandardErrorAndInTheLog) {
    testutil::LogCapture restore;
    const std::string fits = "/" + std::string(62, 'a');  // 63 characters
    const std::string too_long = fits + "b";              // 64 characters
    Defaults d;
    Parse(&d.settings, {"-r", fits, "-u", fits});
    EXPECT_EQ(fits, d.settings.CustomSerialPath[0]);
    EXPECT_EQ(fits, d.settings.UinputPath);

    for (const char* option : {"-r", "-u", "-z"}) {
        SCOPED_TRACE(option);
        Defaults before;
        Defaults expected;
        const std::string message = std::string("Error: The argument of option '") + option[1] +
                                    "' is longer than 63 characters, it is ignored.";
        testutil::LogCapture log(0xFFFFFFFFu, 3);  // no output until -p chooses one
        ChildResult child = RunInChild([&] {
            // Standard error on the captured pipe, standard output (and log prefixes) dropped.
            dup2(STDOUT_FILENO, STDERR_FILENO);
            UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
            dup2(null_fd.get(), STDOUT_FILENO);
            Parse(&before.settings, {option, too_long, "-p", "1"});
            // The outcome as the exit status: 3 a field changed, 4 not logged once, else 0.
            if (memcmp(&before.settings, &expected.settings, sizeof(GlobalSettings)) != 0) _exit(3);
            _exit(log.CountExact(message) == 1 ? 0 : 4);
        });
        ASSERT_TRUE(child.exited);
        EXPECT_EQ(0, child.status);
        EXPECT_EQ(message + "\n", child.out);
    }
}

// Usage before everything, then the -f/-k conflict, then the version; otherwise start-up
// goes on.
TEST(CommandLineTest, StartupFlagsExitWithTheirStatus) {
    testutil::LogCapture restore;
    const std::string usage = "Usage: TavrineD [option]";
    const std::string version = "Tavrine version: [";
    const std::string both = "can not be set at the same time";
    struct Case {
        std::vector<std::string> words;
        int status;
        std::string out;  // a piece of standard output
    };
    const Case cases[] = {
        {{"-h", "-k", "-f"}, 0, usage}, {{"-D", "-k"}, 1, both},  // -D implies -f
        {{"-v", "-k", "-f"}, 1, both},  {{"-v", "-V"}, 0, version},
        {{"-k"}, kReturned, ""},        {{}, kReturned, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.words.empty() ? "(none)" : c.words[0]);
        Defaults d;
        Parse(&d.settings, c.words);
        ChildResult child = RunInChild([&] { HandleStartupFlags(&d.settings); });
        ASSERT_TRUE(child.exited);
        EXPECT_EQ(c.status, child.status);
        if (c.out.empty()) {
            EXPECT_EQ("", child.out);
        } else {
            EXPECT_NE(std::string::npos, child.out.find(c.out)) << child.out;
        }
    }
}

}  // namespace
