// Shell commands: what they inherit, which values may stand in a command line, and the wait.
#include "core/shell.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "config/global_settings.h"
#include "core/data_file.h"
#include "core/paths.h"
#include "core/shell_token.h"
#include "support/test_util.h"

namespace {

using namespace testutil;

// Descriptors opened the daemon's ways (data files, settings streams, pipes, sockets) stay in
// the daemon: the command finds 0, 1 and 2 and those the test program was itself started with.
TEST(ShellCaptureTest, CommandInheritsOnlyTheStandardDescriptors) {
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.File("TavrineA.ini"), "[TavrineA.ini]"));
    UniqueFd data(OpenDataFile(dir.File("TouchPID").c_str(), O_RDWR | O_CREAT, 0644)), pipe_in,
        pipe_out;
    FILE* settings = LockAndOpenFile(IniFilePath(), "r", &SettingsFileMutex);
    int pair[2];
    ASSERT_TRUE(data.valid() && settings && MakePipe(&pipe_in, &pipe_out) &&
                socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0);
    UniqueFd sock0(pair[0]), sock1(pair[1]);
    std::set<int> expected = {0, 1, 2}, seen;
    for (int fd = 3, flags; fd < 1024; ++fd)  // left open by whatever started this program
        if ((flags = fcntl(fd, F_GETFD)) >= 0 && !(flags & FD_CLOEXEC)) expected.insert(fd);
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

// Values the daemon may put into a command line: device nodes and configured serial paths,
// product ids from lsusb and the settings file; never a shell metacharacter.
TEST(ShellTokenTest, TableOfValues) {
    const std::string longest = "/" + std::string(62, 'a'), too_long = longest + "a";
    const struct {
        const char* text;
        bool path_ok, id_ok;
        const char* id_form;  // NormalizeProductId ("" = refused)
    } cases[] = {{"/dev/hidraw0", 1, 0, ""},
                 {"/dev/ttyUSB-0.1", 1, 0, ""},
                 {"relative/path_1", 1, 0, ""},
                 {longest.c_str(), 1, 0, ""},
                 {too_long.c_str(), 0, 0, ""},  // 64-byte buffers
                 {"3c7a", 1, 1, "3c7a"},
                 {"00AB", 1, 1, "00ab"},
                 {"E5", 1, 0, "00e5"},  // short ids padded as the kernel shows them
                 {"3c7a0", 1, 0, ""},
                 {"3c7g", 1, 0, ""},
                 {"0x3c", 1, 0, ""},
                 {"/dev/tty-0", 1, 0, ""}};
    for (const auto& c : cases) {
        char form[5] = "xxxx";
        EXPECT_TRUE(IsPlainPathToken(c.text) == c.path_ok && IsProductIdToken(c.text) == c.id_ok &&
                    NormalizeProductId(c.text, form) == (c.id_form[0] != '\0') &&
                    std::string(c.id_form) == form)
            << c.text;
    }
    // Metacharacters, blanks, non-ASCII, and a leading '-' that rm or grep would take as an
    // option.
    for (const char* bad :
         {" 3c7", "3c7;", "/dev/ttyS0;reboot", "/dev/ttyS0 /data", "/dev/tty\n", "/dev/$(id)",
          "/dev/`id`", "/dev/tty|sh", "/dev/tty>x", "/dev/tty*", "'/dev/tty'", "/dev/tty\\x",
          "~/tty", "/dev/\xc3\xa9", "-rf", "", static_cast<const char*>(nullptr)}) {
        char form[5] = "xxxx";
        EXPECT_FALSE(IsPlainPathToken(bad) || IsProductIdToken(bad) ||
                     NormalizeProductId(bad, form))
            << (bad ? bad : "(null)");
    }
}

// The command's own status comes back as soon as it ends, a command past its time limit is
// killed and reported as -1, and a background child of the shell does not hold the wait.
TEST(ShellWait, StatusTimeLimitAndPromptReturn) {
    const struct {
        const char* command;
        int timeout_ms, status;
        long min_ms, max_ms;
    } cases[] = {{"exit 3", 5000, W_EXITCODE(3, 0), 0, 2000},
                 {"sleep 0.3", 10000, 0, 300, 2500},
                 {"sleep 5", 300, -1, 300, 3000},
                 {"sleep 5 & exit 0", 10000, 0, 0, 2500}};
    for (const auto& c : cases) {
        const int64_t start = NowMs();
        EXPECT_EQ(c.status, RunShell(c.command, c.timeout_ms)) << c.command;
        const int64_t took = NowMs() - start;
        EXPECT_TRUE(took >= c.min_ms && took <= c.max_ms) << c.command << " " << took;
    }
}

}  // namespace
