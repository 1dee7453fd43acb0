// Start-up: data files, shell commands, the command line, the PID file, the kernel version.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "config/global_settings.h"
#include "core/command_line.h"
#include "core/data_file.h"
#include "core/environment.h"
#include "core/paths.h"
#include "core/shell.h"
#include "core/shell_token.h"
#include "core/single_instance.h"
#include "support/test_util.h"

namespace {

using namespace testutil;

// A link, FIFO (no reader), directory, second link or another user's file is refused untouched.
TEST(DataFileTest, LinksFifosDirectoriesAndOtherUsersFilesAreRefusedUntouched) {
    TempDir dir;
    const std::string victim = dir.File("victim"), foreign = dir.File("foreign");
    const bool root = geteuid() == 0;  // only root can give a file to another user
    ASSERT_TRUE(WriteFile(victim, "keep me") && WriteFile(foreign, "keep me") &&
                (!root || !chown(foreign.c_str(), 65534, 65534)) &&
                !symlink(victim.c_str(), dir.File("link").c_str()) &&
                !symlink(dir.File("nowhere").c_str(), dir.File("dangling").c_str()) &&
                !mkfifo(dir.File("fifo").c_str(), 0600) && !mkdir(dir.File("dir").c_str(), 0700) &&
                !link(victim.c_str(), dir.File("hard").c_str()));
    for (const char* name : {"link", "dangling", "fifo", "dir", "hard", "foreign"}) {
        if (!root && name == std::string("foreign")) continue;
        const std::string path = dir.File(name);
        for (const int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_TRUNC, O_RDWR | O_CREAT | O_EXCL})
            EXPECT_EQ(-1, OpenDataFile(path.c_str(), flags)) << path << flags;
        EXPECT_EQ(nullptr, FopenDataFile(path.c_str(), "w+")) << path;
    }
    EXPECT_TRUE(ReadFile(victim) == "keep me" && ReadFile(foreign) == "keep me" &&
                !FileExists(dir.File("nowhere")));
}

// PID file, debug log and command capture hard-linked elsewhere: that file keeps every byte.
TEST(DataFileTest, DaemonFilesHardLinkedElsewhereAreNeverWritten) {
    TempDir elsewhere, data;  // the last one made is the data directory
    const std::string victim = elsewhere.File("victim"), log_file = data.File("Tavrine_1.log");
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", log_file.c_str());
    const std::pair<std::string, std::function<void()>> cases[] = {
        {PidFilePath(), [] { WritePidFile(); }},
        {log_file, [] { TLOG(LOG_MAIN, "a line for the log file"); }},
        {DrvLogPath(), [] {  // the capture (standard output and error) is made afresh
             FILE* out = RunShellCommand("echo o; echo e >&2", DrvLogPath());
             char text[8] = {};
             EXPECT_TRUE(out && fread(text, 1, sizeof(text) - 1, out) == 4 && !fclose(out));
             EXPECT_STREQ("o\ne\n", text);
         }}};
    for (const auto& c : cases) {
        unlink(c.first.c_str());  // an earlier row's log lines may have made the log file
        ASSERT_TRUE(WriteFile(victim, "keep me") && link(victim.c_str(), c.first.c_str()) == 0);
        LogCapture log(LOG_MAIN, 2);  // standard output, system log and file
        Quiet(c.second);
        EXPECT_EQ("keep me", ReadFile(victim)) << c.first;
    }
    LogFilePath[0] = '\0';
}

TEST(DataFileTest, WarnsWhenTheDataDirectoryIsWritableByGroupOrOthers) {
    TempDir dir;
    for (const mode_t mode : {0755, 0720, 0702}) {
        ASSERT_EQ(0, chmod(dir.path().c_str(), mode));
        EXPECT_EQ(mode != 0755, WarnIfDataDirWritable()) << mode;
    }
}

// A plain open of a terminal makes it the controlling terminal; a data-file open never does.
TEST(DataFileTest, TerminalIsRefusedWithoutBecomingTheControllingTerminal) {
    const TtyResult control =
        OpenOfTerminalAcquiresIt([](const char* path) { return OpenCloexec(path, O_RDWR); });
    if (control == TtyResult::kSkipped) GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_EQ(TtyResult::kAcquired, control);
    EXPECT_EQ(TtyResult::kNotAcquired, OpenOfTerminalAcquiresIt([](const char* path) {
                  if (OpenDataFile(path, O_WRONLY | O_CREAT | O_APPEND) >= 0) _exit(4);
                  return -1;
              }));
}

// Settings values for a command line: IsPlainPathToken, IsProductIdToken, NormalizeProductId.
TEST(ShellTokenTest, TableOfValues) {
    const std::string longest = "/" + std::string(62, 'a'), too_long = longest + "a";
    const std::tuple<const char*, bool, bool, std::string> cases[] = {
        // clang-format off
        {"/dev/ttyUSB-0.1", 1, 0, ""}, {"relative/path_1", 1, 0, ""}, {longest.c_str(), 1, 0, ""},
        {too_long.c_str(), 0, 0, ""}, {"3c7a", 1, 1, "3c7a"}, {"00AB", 1, 1, "00ab"},
        {"E5", 1, 0, "00e5"}, {"3c7a0", 1, 0, ""}, {"3c7g", 1, 0, ""}, {"0x3c", 1, 0, ""},
        {" 3c7", 0, 0, ""}, {"/dev/ttyS0;reboot", 0, 0, ""}, {"/dev/tty\n", 0, 0, ""},
        {"/dev/$(id)", 0, 0, ""}, {"/dev/`id`", 0, 0, ""}, {"a|sh", 0, 0, ""}, {"a>x", 0, 0, ""},
        {"a*", 0, 0, ""}, {"'a'", 0, 0, ""}, {"a\\x", 0, 0, ""}, {"~/a", 0, 0, ""},
        {"/dev/\xc3\xa9", 0, 0, ""}, {"-rf", 0, 0, ""}, {"", 0, 0, ""}, {nullptr, 0, 0, ""},
        // clang-format on
    };
    for (const auto& [text, path_ok, id_ok, id_form] : cases) {
        char form[5] = "xxxx";
        EXPECT_TRUE(IsPlainPathToken(text) == path_ok && IsProductIdToken(text) == id_ok &&
                    NormalizeProductId(text, form) == !id_form.empty() && id_form == form)
            << (text ? text : "(null)");
    }
}

// A command past its time limit is killed (-1), and a background child does not hold the wait.
TEST(ShellWait, TimeLimitAndPromptReturn) {
    const std::tuple<const char*, int, int> cases[] = {
        {"exit 3", 5000, W_EXITCODE(3, 0)}, {"sleep 5", 300, -1}, {"sleep 5 & exit 0", 10000, 0}};
    for (const auto& [command, timeout_ms, status] : cases) {
        const int64_t start = NowMs();
        EXPECT_EQ(status, RunShell(command, timeout_ms)) << command;
        EXPECT_LE(NowMs() - start, 3000) << command;
    }
}

// A -r or -u path over 63 characters is refused, not cut (a cut path names another file).
TEST(CommandLineTest, OverlongTextOptionIsRefused) {
    LogCapture restore(0xFFFFFFFFu, 3);  // the log globals are put back at the end
    for (const std::string& path : {"/" + std::string(62, 'a'), "/" + std::string(63, 'a')}) {
        std::string words[] = {"TavrineD", "-r", path, "-u", path};
        char* argv[] = {&words[0][0], &words[1][0], &words[2][0],
                        &words[3][0], &words[4][0], nullptr};
        GlobalSettings s{};
        Quiet([&] { ParseCommandLine(5, argv, &s); });
        const std::string kept = path.size() == 63 ? path : "";
        EXPECT_TRUE(kept == s.CustomSerialPath[0] && kept == s.UinputPath &&
                    s.CustomPathMask ==
                        (kept.empty() ? 0 : kCustomSerialPathBit | kCustomUinputPathBit))
            << path.size();
    }
}

// A PID file that is missing or names no other daemon (a live process of another name, 0 and
// -1 that kill(2) takes as process groups, no number): nothing is killed; -k exits 0, -f goes on.
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
                GlobalSettings settings{};
                settings.KillRunning = kill_running;
                settings.ForceRestart = !kill_running;
                CheckSingleInstance(&settings);
            });
            const int status = kill_running && !pid.empty() ? 0 : kReturned;
            EXPECT_TRUE(child.exited && child.status == status) << pid << int(kill_running);
        }
        EXPECT_EQ(0, waitpid(alive, nullptr, WNOHANG)) << pid;  // still running
    }
    kill(alive, SIGKILL), waitpid(alive, nullptr, 0);
}

// Missing pieces are 0, empty pieces skipped as strtok does, huge numbers clamped.
TEST(EnvironmentTest, KernelVersionFromProcVersionText) {
    const std::tuple<std::string, int32_t, int32_t, int32_t, int32_t> kernels[] = {
        // clang-format off
        {"2.6.34-xyz (b@h) (gcc version 4.4.3) #1", 2, 6, 34, 1}, {"2.6.35 (b@h) #2", 2, 6, 35, 0},
        {"6.1.0-18-amd64 (d@k)", 6, 1, 0, 0}, {"2.4.20 #1", 2, 4, 20, 0}, {"x.y.z", 0, 0, 0, 0},
        {"99999999999999999999.1.2", INT32_MAX, 1, 2, 0}, {"3..10.1", 3, 10, 1, 0},
        {"-", 0, 0, 0, 0},  // "-": "Linux" alone, short of the prefix
        // clang-format on
    };
    for (const auto& [version, major, minor, patch, old] : kernels) {
        const std::string text = version == "-" ? "Linux" : "Linux version " + version;
        KernelVersionInfo v = {-7, -7, -7};
        ParseKernelVersion(text.data(), text.size(), &v);
        EXPECT_TRUE(v.major == major && v.minor == minor && v.patch == patch) << text;
        EXPECT_EQ(old, IsOldKernel(v)) << text;
    }
}

}  // namespace
