// Files of the data directory (a link, FIFO, directory, terminal or another user's file at
// the path is refused untouched) and shell commands.
#include "core/data_file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <set>

#include "config/global_settings.h"
#include "core/paths.h"
#include "core/shell.h"
#include "core/shell_token.h"
#include "core/single_instance.h"
#include "support/test_util.h"

namespace {

using namespace testutil;

TEST(DataFileTest, LinksFifosDirectoriesAndOtherUsersFilesAreRefusedUntouched) {
    TempDir dir;
    const std::string victim = dir.File("victim"), foreign = dir.File("foreign");
    const bool root = geteuid() == 0;  // only root can give a file to another user
    ASSERT_TRUE(WriteFile(victim, "keep me") && WriteFile(foreign, "keep me") &&
                (!root || !chown(foreign.c_str(), 65534, 65534)) &&
                !symlink(victim.c_str(), dir.File("link").c_str()) &&
                !symlink(dir.File("nowhere").c_str(), dir.File("dangling").c_str()) &&
                !mkfifo(dir.File("fifo").c_str(), 0600) &&  // no reader: a plain open blocks
                !mkdir(dir.File("dir").c_str(), 0700) &&
                !link(victim.c_str(), dir.File("hard").c_str()));  // as if from elsewhere
    // Each name and the errno of its refusal (0: any).
    const std::pair<const char*, int> rows[] = {{"link", ELOOP},  {"dangling", 0},
                                                {"fifo", 0},      {"dir", 0},
                                                {"hard", EMLINK}, {"foreign", EPERM}};
    for (const auto& row : rows) {
        if (!root && row.second == EPERM) continue;
        const std::string path = dir.File(row.first);
        for (const int flags :
             {O_RDONLY, O_WRONLY | O_CREAT | O_TRUNC, O_RDWR | O_CREAT | O_EXCL}) {
            errno = 0;
            EXPECT_EQ(-1, OpenDataFile(path.c_str(), flags)) << path << flags;
            EXPECT_TRUE(!row.second || errno == row.second || errno == EEXIST) << path << errno;
        }
        EXPECT_EQ(nullptr, FopenDataFile(path.c_str(), "w+")) << path;  // the stream form
    }
    EXPECT_TRUE(ReadFile(victim) == "keep me" && ReadFile(foreign) == "keep me");
    EXPECT_FALSE(FileExists(dir.File("nowhere")));
}

// The PID file, debug log and command capture, each a hard link to a file elsewhere: that file
// keeps every byte; the capture is made afresh and still gets standard output and error.
TEST(DataFileTest, DaemonFilesHardLinkedElsewhereAreNeverWritten) {
    TempDir elsewhere, data;  // the last one made is the data directory
    const std::string victim = elsewhere.File("victim"), log_file = data.File("Tavrine_1.log");
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", log_file.c_str());
    const std::pair<std::string, std::function<void()>> cases[] = {
        {PidFilePath(), [] { WritePidFile(); }},
        {log_file, [] { TLOG(LOG_MAIN, "a line for the log file"); }},
        {DrvLogPath(), [] {
             FILE* out = RunShellCommand("echo out; echo err 1>&2", DrvLogPath());
             char text[16] = "";
             EXPECT_TRUE(out && fread(text, 1, sizeof(text) - 1, out) == 8 && fclose(out) == 0);
             EXPECT_STREQ("out\nerr\n", text);
         }}};
    for (const auto& c : cases) {
        unlink(c.first.c_str());  // an earlier row's log lines may have made the log file
        ASSERT_TRUE(WriteFile(victim, "keep me") && link(victim.c_str(), c.first.c_str()) == 0);
        LogCapture log(LOG_MAIN, 2);  // standard output, system log and file
        Quiet(c.second);
        EXPECT_EQ("keep me", ReadFile(victim)) << c.first;
        EXPECT_EQ(c.first != DrvLogPath(), log.Contains("Refused data file [" + c.first + "]"));
    }
    LogFilePath[0] = '\0';
}

TEST(DataFileTest, WarnsOnceWhenTheDataDirectoryIsWritableByGroupOrOthers) {
    TempDir dir;
    for (const mode_t mode : {0755, 0720, 0702, 01777}) {
        ASSERT_EQ(0, chmod(dir.path().c_str(), mode));
        LogCapture log(LOG_MAIN, 1);
        bool warned = false;
        Quiet([&] { warned = WarnIfDataDirWritable(); });
        EXPECT_TRUE(warned == (mode != 0755) && log.lines().size() == warned) << mode;
    }
    SetDataDirForTest((dir.path() + "/missing").c_str());
    EXPECT_FALSE(WarnIfDataDirWritable());
}

// The control: a plain open of the same terminal makes it the controlling terminal.
TEST(DataFileTest, TerminalIsRefusedWithoutBecomingTheControllingTerminal) {
    const TtyResult control =
        OpenOfTerminalAcquiresIt([](const char* path) { return OpenCloexec(path, O_RDWR); });
    if (control == TtyResult::kSkipped) GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_EQ(TtyResult::kAcquired, control);
    for (int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_APPEND}) {
        EXPECT_EQ(TtyResult::kNotAcquired, OpenOfTerminalAcquiresIt([flags](const char* path) {
                      if (OpenDataFile(path, flags) >= 0) _exit(4);  // must never open
                      return -1;
                  }));
    }
}

// Descriptors opened the daemon's ways (data files, settings streams, pipes, sockets) stay in
// the daemon: the command finds 0, 1 and 2 and those the test program was itself started with.
TEST(ShellCaptureTest, CommandInheritsOnlyTheStandardDescriptors) {
    std::set<int> expected = {0, 1, 2}, seen;  // before the daemon's descriptors are opened
    for (int fd = 3, flags; fd < 1024; ++fd)   // left open by whatever started this program
        if ((flags = fcntl(fd, F_GETFD)) >= 0 && !(flags & FD_CLOEXEC)) expected.insert(fd);
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.File("TavrineA.ini"), "[TavrineA.ini]"));
    UniqueFd data(OpenDataFile(PidFilePath(), O_RDWR | O_CREAT, 0644)), pipe_in, pipe_out;
    FILE* settings = LockAndOpenFile(IniFilePath(), "r", &SettingsFileMutex);
    int pair[2];
    ASSERT_TRUE(data.valid() && settings && MakePipe(&pipe_in, &pipe_out) &&
                socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0);
    UniqueFd sock0(pair[0]), sock1(pair[1]);
    FILE* stream = nullptr;  // the listing leaves out the directory ls reads
    Quiet([&] {
        stream = RunShellCommand("ls -l /proc/self/fd | awk '/->/ && !/\\/fd$/ {print $(NF-2)}'",
                                 DrvLogPath());
    });
    CloseAndUnlockFile(settings, &SettingsFileMutex);
    ASSERT_NE(nullptr, stream);
    for (int fd; fscanf(stream, "%d", &fd) == 1;) seen.insert(fd);
    fclose(stream);
    EXPECT_EQ(expected, seen);
}

// Values for a command line: device nodes, serial paths, product ids (short ones padded).
TEST(ShellTokenTest, TableOfValues) {
    const std::string longest = "/" + std::string(62, 'a'), too_long = longest + "a";  // 64 bytes
    // The text; IsPlainPathToken; IsProductIdToken; NormalizeProductId ("" = refused).
    const std::tuple<const char*, bool, bool, std::string> cases[] = {
        // clang-format off
        {"/dev/hidraw0", 1, 0, ""}, {"/dev/ttyUSB-0.1", 1, 0, ""}, {"relative/path_1", 1, 0, ""},
        {longest.c_str(), 1, 0, ""}, {too_long.c_str(), 0, 0, ""}, {"3c7a", 1, 1, "3c7a"},
        {"00AB", 1, 1, "00ab"}, {"E5", 1, 0, "00e5"}, {"3c7a0", 1, 0, ""}, {"3c7g", 1, 0, ""},
        {"0x3c", 1, 0, ""}, {"/dev/tty-0", 1, 0, ""},
        // Metacharacters, blanks, non-ASCII, a leading '-' that rm or grep takes as an option.
        {" 3c7", 0, 0, ""}, {"3c7;", 0, 0, ""}, {"/dev/ttyS0;reboot", 0, 0, ""}, {"a b", 0, 0, ""},
        {"/dev/tty\n", 0, 0, ""}, {"/dev/$(id)", 0, 0, ""}, {"/dev/`id`", 0, 0, ""}, {"a|sh", 0, 0, ""},
        {"a>x", 0, 0, ""}, {"a*", 0, 0, ""}, {"'a'", 0, 0, ""}, {"a\\x", 0, 0, ""}, {"~/a", 0, 0, ""},
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

// The command's own status comes back as soon as it ends, a command past its time limit is
// killed and reported as -1, and a background child of the shell does not hold the wait.
TEST(ShellWait, StatusTimeLimitAndPromptReturn) {
    // The command, its time limit, RunShell's answer, and the least and most time it takes.
    const std::tuple<const char*, int, int, int, int> cases[] = {
        {"exit 3", 5000, W_EXITCODE(3, 0), 0, 2000},
        {"sleep 0.3", 10000, 0, 300, 2500},
        {"sleep 5", 300, -1, 300, 3000},
        {"sleep 5 & exit 0", 10000, 0, 0, 2500}};
    for (const auto& [command, timeout_ms, status, min_ms, max_ms] : cases) {
        const int64_t start = NowMs();
        EXPECT_EQ(status, RunShell(command, timeout_ms)) << command;
        const int64_t took = NowMs() - start;
        EXPECT_TRUE(took >= min_ms && took <= max_ms) << command << " " << took;
    }
}

}  // namespace
