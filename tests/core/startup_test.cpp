// The start-up steps: the command line, the single-instance and root checks, the versions.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>
#include <sstream>

#include "config/global_settings.h"
#include "core/command_line.h"
#include "core/environment.h"
#include "core/single_instance.h"
#include "support/test_util.h"

namespace {

using namespace testutil;

// ParseCommandLine over the words of line from a zeroed record (Parse("") stays zeroed).
GlobalSettings Parse(const std::string& line) {
    std::istringstream in("TavrineD " + line);
    std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    GlobalSettings settings;
    memset(&settings, 0, sizeof(settings));
    ParseCommandLine(static_cast<int>(words.size()), argv.data(), &settings);
    return settings;
}

// Rows: words; log globals after them (from 1, 1); flags set (no other byte changes); exit
// status and output of the start-up flags (usage, then the -f/-k conflict, then version).
TEST(CommandLineTest, OptionsChangeExactlyTheirFieldsAndStartupFlagsExit) {
    LogCapture restore;  // the log globals are put back at the end
    const std::string version = "Tavrine version: [", both = "can not be set at the same time";
    const int go = kReturned;  // start-up goes on
    // Flags: KillRunning, ShowVersion, ShowFullVersion, ForceRestart, ShowUsage.
    const std::tuple<std::string, uint32_t, int, std::string, int, std::string> cases[] = {
        // clang-format off
        {"-v", 1, 1, "01000", 0, version}, {"-V", 1, 1, "00100", 0, version},
        {"-h -k -f", 1, 1, "10011", 0, "Usage: TavrineD [option]"},
        {"-v -k -f", 1, 1, "11010", 1, both}, {"-D -k", 0xFFFFF, 0, "10010", 1, both},
        {"-f", 1, 1, "00010", go, ""}, {"-k", 1, 1, "10000", go, ""}, {"", 1, 1, "00000", go, ""},
        {"-E", 0xFFFF, 1, "00010", go, ""}, {"-d400000", 0x400000, 1, "00000", go, ""},
        {"-p 258", 1, 2, "00000", go, ""},       // kept in one byte
        {"-D -p 2", 0xFFFFF, 2, "00010", go, ""},  // applied in the order given
        // Ignored: unknown options, missing arguments, plain words.
        {"-z x -y", 1, 1, "00000", go, ""}, {"-d", 1, 1, "00000", go, ""},
        {"plain --long", 1, 1, "00000", go, ""},
        // clang-format on
    };
    for (const auto& [words, bits, position, set, status, out] : cases) {
        DebugEnableBits = ShowDebugPosition = 1;
        const GlobalSettings settings = Parse(words), zero = Parse("");
        GlobalSettings rest = settings;
        std::string flags;
        for (uint8_t* flag : {&rest.KillRunning, &rest.ShowVersion, &rest.ShowFullVersion,
                              &rest.ForceRestart, &rest.ShowUsage}) {
            flags += static_cast<char>('0' + *flag);
            *flag = 0;
        }
        EXPECT_TRUE(flags == set && memcmp(&rest, &zero, sizeof(zero)) == 0) << words;
        EXPECT_TRUE(DebugEnableBits == bits && ShowDebugPosition == position) << words;
        const ChildResult child = RunInChild([&] { HandleStartupFlags(&settings); });
        EXPECT_TRUE(child.exited && child.status == status) << words << child.status;
        EXPECT_TRUE(out.empty() ? child.out.empty() : child.out.find(out) != std::string::npos)
            << words << child.out;
    }
}

// A -r, -u or -z argument over 63 characters is refused, not cut (a cut path names another
// file): at once on standard error (standard output may be lost when the process detaches),
// and in the log after the last option, so a later -p or -D chooses where it is logged.
TEST(CommandLineTest, OverlongTextOptionIsRefusedOnStandardErrorAndInTheLog) {
    LogCapture restore;
    const std::string fits = "/" + std::string(62, 'a');  // 63 characters
    const GlobalSettings settings = Parse("-r " + fits + " -u " + fits);
    EXPECT_TRUE(fits == settings.CustomSerialPath[0] && fits == settings.UinputPath);
    EXPECT_EQ(kCustomSerialPathBit | kCustomUinputPathBit, settings.CustomPathMask);
    for (const char* option : {"r", "u", "z"}) {
        const std::string message = std::string("Error: The argument of option '") + option +
                                    "' is longer than 63 characters, it is ignored.";
        LogCapture log(0xFFFFFFFFu, 3);  // no output until -p chooses one
        const ChildResult child = RunInChild([&] {
            dup2(STDOUT_FILENO, STDERR_FILENO);  // standard error on the captured pipe
            UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
            dup2(null_fd.get(), STDOUT_FILENO);  // standard output and log prefixes dropped
            const GlobalSettings zero = Parse(""),
                                 s = Parse(std::string("-") + option + " " + fits + "b -p 1");
            _exit(memcmp(&s, &zero, sizeof(s)) != 0 ? 3 : log.CountExact(message) == 1 ? 0 : 4);
        });
        EXPECT_TRUE(child.exited && child.status == 0) << option << " " << child.status;
        EXPECT_EQ(message + "\n", child.out);
    }
}

// A PID file that is missing or names no other daemon (a live process of another name, 0 and
// -1 that kill(2) takes as process groups, no number): -k with a PID file has nothing to stop
// and exits 0, -f carries on, and nothing is killed (the process tests cover a running one).
TEST(SingleInstanceTest, StalePidFileKillsNothing) {
    TempDir dir;
    const pid_t alive = fork();  // named as this test program
    if (alive == 0) _exit(pause());
    for (const std::string& pid : {std::to_string(alive), std::string("0"), std::string("-1"),
                                   std::string("x"), std::string()}) {
        unlink(dir.File("TouchPID").c_str());  // "": no PID file
        ASSERT_TRUE(pid.empty() || WriteFile(dir.File("TouchPID"), pid + " "));
        for (const uint8_t kill_running : {1, 0}) {
            const ChildResult child = RunInChild([&] {
                GlobalSettings settings = Parse("");
                settings.KillRunning = kill_running;
                settings.ForceRestart = !kill_running;
                CheckSingleInstance(&settings);
            });
            const int status = kill_running && !pid.empty() ? 0 : kReturned;
            EXPECT_TRUE(child.exited && child.status == status) << pid << int(kill_running);
        }
        EXPECT_EQ(0, waitpid(alive, nullptr, WNOHANG)) << pid;  // still running
    }
    kill(alive, SIGKILL);
    waitpid(alive, nullptr, 0);
}

TEST(SingleInstanceTest, RootCheckEndsWithStatus255ForOtherUsers) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to switch to another user";
    const ChildResult child =
        RunInChild([] { _exit(setuid(65534) ? 3 : (CheckRootPermission(), 4)); });
    EXPECT_TRUE(child.exited && child.status == 255) << child.status;
}

// Missing pieces are 0, empty pieces skipped as strtok does, huge numbers clamped.
TEST(EnvironmentTest, KernelVersionFromProcVersionTextAndAndroidRelease) {
    const std::tuple<std::string, int32_t, int32_t, int32_t, int32_t> kernels[] = {
        // clang-format off
        {"2.6.34-xyz (b@h) (gcc version 4.4.3) #1", 2, 6, 34, 1}, {"2.6.35 (b@h) #2", 2, 6, 35, 0},
        {"6.1.0-18-amd64 (d@k)", 6, 1, 0, 0}, {"2.4.20 #1", 2, 4, 20, 0}, {"4.19", 4, 19, 0, 0},
        {"x.y.z", 0, 0, 0, 0}, {"99999999999999999999.1.2", INT32_MAX, 1, 2, 0},
        {"3..10.1", 3, 10, 1, 0}, {"-", 0, 0, 0, 0},  // "-": "Linux" alone, short of the prefix
        // clang-format on
    };
    for (const auto& [version, major, minor, patch, old] : kernels) {
        const std::string text = version == "-" ? "Linux" : "Linux version " + version;
        KernelVersionInfo v = {-7, -7, -7};
        ParseKernelVersion(text.data(), text.size(), &v);
        EXPECT_TRUE(v.major == major && v.minor == minor && v.patch == patch) << text;
        EXPECT_EQ(old, IsOldKernel(v)) << text;
    }
    const std::pair<std::string, int32_t> androids[] = {
        {"4.0.4", 4}, {"10", 10}, {"R", 0}, {std::string(200, '8'), INT32_MAX}};
    for (const auto& c : androids) {
        AndroidVersionInfo v = {-7, -7};
        ParseAndroidVersion(c.first.c_str(), &v);
        EXPECT_TRUE(v.major == c.second && v.minor == 0) << c.first;
    }
}

}  // namespace
