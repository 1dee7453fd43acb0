// The start-up steps: the command line, the single-instance and root checks, the versions.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/command_line.h"
#include "core/environment.h"
#include "core/single_instance.h"
#include "support/test_util.h"

namespace {

using namespace testutil;

GlobalSettings Zeroed() {
    GlobalSettings settings;
    memset(&settings, 0, sizeof(settings));
    return settings;
}

// ParseCommandLine over the words (the program name is added in front) from a zeroed record.
GlobalSettings Parse(std::vector<std::string> words) {
    GlobalSettings settings = Zeroed();
    words.insert(words.begin(), "TavrineD");
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    ParseCommandLine(static_cast<int>(words.size()), argv.data(), &settings);
    return settings;
}

// Each row: the words; the log globals after them (from 1 and 1); the flags they set (v -v,
// V -V, f -f, k -k, h -h; every other byte of the record stays); and the exit status and a
// piece of standard output of the start-up flags: usage before everything, then the -f/-k
// conflict, then the version; otherwise start-up goes on.
TEST(CommandLineTest, OptionsChangeExactlyTheirFieldsAndStartupFlagsExit) {
    LogCapture restore;  // the log globals are put back at the end
    const std::string version = "Tavrine version: [", both = "can not be set at the same time";
    const struct {
        std::vector<std::string> words;
        uint32_t bits;
        uint8_t position;
        std::string set;
        int status;
        std::string out;
    } cases[] = {{{"-v"}, 1, 1, "v", 0, version},
                 {{"-V"}, 1, 1, "V", 0, version},
                 {{"-h", "-k", "-f"}, 1, 1, "hkf", 0, "Usage: TavrineD [option]"},
                 {{"-v", "-k", "-f"}, 1, 1, "vkf", 1, both},
                 {{"-D", "-k"}, 0xFFFFF, 0, "fk", 1, both},
                 {{"-f"}, 1, 1, "f", kReturned, ""},
                 {{"-k"}, 1, 1, "k", kReturned, ""},
                 {{"-E"}, 0xFFFF, 1, "f", kReturned, ""},
                 {{"-d400000"}, 0x400000, 1, "", kReturned, ""},
                 {{"-p", "258"}, 1, 2, "", kReturned, ""},             // kept in one byte
                 {{"-D", "-p", "2"}, 0xFFFFF, 2, "f", kReturned, ""},  // applied in the order given
                 // Ignored: unknown options, missing arguments, plain words.
                 {{"-z", "x"}, 1, 1, "", kReturned, ""},
                 {{"-d"}, 1, 1, "", kReturned, ""},
                 {{"plain"}, 1, 1, "", kReturned, ""},
                 {{"--long"}, 1, 1, "", kReturned, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.words));
        DebugEnableBits = ShowDebugPosition = 1;
        const GlobalSettings settings = Parse(c.words);
        GlobalSettings expected = Zeroed();
        for (const char flag : c.set) {
            (flag == 'v'   ? expected.ShowVersion
             : flag == 'V' ? expected.ShowFullVersion
             : flag == 'f' ? expected.ForceRestart
             : flag == 'k' ? expected.KillRunning
                           : expected.ShowUsage) = 1;
        }
        EXPECT_EQ(0, memcmp(&expected, &settings, sizeof(GlobalSettings)));
        EXPECT_TRUE(DebugEnableBits == c.bits && ShowDebugPosition == c.position);
        const ChildResult child = RunInChild([&] { HandleStartupFlags(&settings); });
        EXPECT_TRUE(child.exited && child.status == c.status) << child.status;
        EXPECT_TRUE(c.out.empty() ? child.out.empty() : child.out.find(c.out) != std::string::npos)
            << child.out;
    }
}

// A -r, -u or -z argument must fit 63 characters; a longer one is refused and nothing
// changes (a cut path would name another file). The refusal goes to standard error at once
// (standard output may be lost when the process detaches) and into the debug log after the
// last option, so a later -p or -D chooses where it is logged.
TEST(CommandLineTest, OverlongTextOptionIsRefusedOnStandardErrorAndInTheLog) {
    LogCapture restore;
    const std::string fits = "/" + std::string(62, 'a');  // 63 characters
    const GlobalSettings settings = Parse({"-r", fits, "-u", fits});
    EXPECT_TRUE(fits == settings.CustomSerialPath[0] && fits == settings.UinputPath);
    EXPECT_EQ(kCustomSerialPathBit | kCustomUinputPathBit, settings.CustomPathMask);
    for (const char* option : {"-r", "-u", "-z"}) {
        const std::string message = std::string("Error: The argument of option '") + option[1] +
                                    "' is longer than 63 characters, it is ignored.";
        LogCapture log(0xFFFFFFFFu, 3);  // no output until -p chooses one
        const ChildResult child = RunInChild([&] {
            dup2(STDOUT_FILENO, STDERR_FILENO);  // standard error on the captured pipe
            UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
            dup2(null_fd.get(), STDOUT_FILENO);  // standard output and log prefixes dropped
            const GlobalSettings zero = Zeroed(), s = Parse({option, fits + "b", "-p", "1"});
            _exit(memcmp(&s, &zero, sizeof(s)) != 0 ? 3 : log.CountExact(message) == 1 ? 0 : 4);
        });
        EXPECT_TRUE(child.exited && child.status == 0) << option << " " << child.status;
        EXPECT_EQ(message + "\n", child.out);
    }
}

// A PID file that is missing or names no other daemon (a live process of another name, a dead
// one, 0 and -1 that kill(2) takes as process groups, no number): -k with a PID file has
// nothing to stop and exits 0, -f carries on, and nothing is killed. (A running daemon is
// stopped or kept by the process tests, on the real binary.)
TEST(SingleInstanceTest, StalePidFileKillsNothing) {
    TempDir dir;
    const pid_t alive = fork(), dead = alive ? fork() : 0;  // named as this test program
    if (alive == 0 || dead == 0) _exit(alive ? 0 : pause());
    waitpid(dead, nullptr, 0);
    const std::string pids[] = {std::to_string(alive), std::to_string(dead), "0", "-1", "x", ""};
    for (const std::string& pid : pids) {
        unlink(dir.File("TouchPID").c_str());  // "": no PID file
        ASSERT_TRUE(pid.empty() || WriteFile(dir.File("TouchPID"), pid + " "));
        for (const uint8_t kill_running : {1, 0}) {
            const ChildResult child = RunInChild([&] {
                GlobalSettings settings = Zeroed();
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
    for (const uid_t uid : {0, 65534}) {
        const ChildResult child = RunInChild([uid] {
            if (setuid(uid) != 0) _exit(3);
            CheckRootPermission();
        });
        EXPECT_TRUE(child.exited && child.status == (uid ? 255 : kReturned)) << child.status;
    }
}

// Missing pieces are 0, empty pieces skipped as strtok does, huge numbers clamped.
TEST(EnvironmentTest, KernelVersionFromProcVersionTextAndAndroidRelease) {
    const struct {
        std::string text;
        int32_t major, minor, patch, old;
    } kernels[] = {{"Linux version 2.6.34-xyz (b@h) (gcc version 4.4.3) #1", 2, 6, 34, 1},
                   {"Linux version 2.6.35 (b@h) #2", 2, 6, 35, 0},
                   {"Linux version 6.1.0-18-amd64 (d@k)", 6, 1, 0, 0},
                   {"Linux version 2.4.20 #1", 2, 4, 20, 0},
                   {"Linux version 4.19", 4, 19, 0, 0},
                   {"Linux", 0, 0, 0, 0},
                   {"Linux version x.y.z", 0, 0, 0, 0},
                   {"Linux version 99999999999999999999.1.2", INT32_MAX, 1, 2, 0},
                   {"Linux version 3..10.1", 3, 10, 1, 0}};
    for (const auto& c : kernels) {
        KernelVersionInfo v = {-7, -7, -7};
        ParseKernelVersion(c.text.data(), c.text.size(), &v);
        EXPECT_TRUE(v.major == c.major && v.minor == c.minor && v.patch == c.patch) << c.text;
        EXPECT_EQ(c.old, IsOldKernel(v)) << c.text;
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
