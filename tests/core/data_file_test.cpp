// Opening files of the data directory: a symbolic link, a FIFO, a directory, a terminal, a
// second link or another user's file at the path is refused at once, and nothing is written,
// created or truncated through it.
#include "core/data_file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "core/paths.h"
#include "core/shell.h"
#include "core/single_instance.h"
#include "log/debug_log.h"
#include "support/test_util.h"

namespace {

using namespace testutil;

TEST(DataFileTest, LinksFifosDirectoriesAndOtherUsersFilesAreRefusedUntouched) {
    TempDir dir;
    const std::string victim = dir.File("victim"), foreign = dir.File("foreign");
    ASSERT_TRUE(WriteFile(victim, "keep me") && WriteFile(foreign, "keep me"));
    const bool root = geteuid() == 0;  // only root can give a file to another user
    ASSERT_TRUE(!root || chown(foreign.c_str(), 65534, 65534) == 0);
    ASSERT_TRUE(!symlink(victim.c_str(), dir.File("link").c_str()) &&
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
    struct stat st;
    EXPECT_TRUE(!FileExists(dir.File("nowhere")) && lstat(dir.File("fifo").c_str(), &st) == 0 &&
                S_ISFIFO(st.st_mode));
}

// The PID file, the debug log and the captured command output, each planted as a hard link
// to a file elsewhere: that file keeps every byte, the refusal is logged (the capture is made
// afresh instead), and the command's standard output and error still reach the reader.
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
             EXPECT_EQ(8u, out ? fread(text, 1, sizeof(text) - 1, out) : 0);
             EXPECT_STREQ("out\nerr\n", text);
             if (out) fclose(out);
         }}};
    for (const auto& c : cases) {
        unlink(c.first.c_str());  // an earlier row's log lines may have made the log file
        ASSERT_TRUE(WriteFile(victim, "keep me") && link(victim.c_str(), c.first.c_str()) == 0);
        LogCapture log(LOG_MAIN, 2);  // standard output, system log and file
        Quiet(c.second);
        EXPECT_EQ("keep me", ReadFile(victim)) << c.first;
        EXPECT_EQ(c.first != DrvLogPath(),
                  log.Contains("Refused data file [" + c.first + "]: 2 links"));
        unlink(c.first.c_str());
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
        const int expected = mode == 0755 ? 0 : 1;
        EXPECT_TRUE(warned == expected && log.lines().size() == size_t(expected)) << mode;
        EXPECT_EQ(expected, log.Count("Warning: data directory " + dir.path())) << mode;
    }
    SetDataDirForTest((dir.path() + "/missing").c_str());
    EXPECT_FALSE(WarnIfDataDirWritable());
}

// A terminal at a data file path is refused without becoming the daemon's controlling
// terminal (the control: a plain open of the same terminal does acquire it).
TEST(DataFileTest, TerminalIsRefusedWithoutBecomingTheControllingTerminal) {
    const auto plain = [](const char* path) { return OpenCloexec(path, O_RDWR | O_NONBLOCK); };
    const TtyResult control = OpenOfTerminalAcquiresIt(plain);
    if (control == TtyResult::kSkipped) GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_EQ(TtyResult::kAcquired, control);
    for (int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_APPEND}) {
        EXPECT_EQ(TtyResult::kNotAcquired, OpenOfTerminalAcquiresIt([flags](const char* path) {
                      const int fd = OpenDataFile(path, flags);
                      if (fd >= 0) _exit(4);  // a terminal must never open as a data file
                      return fd;
                  }))
            << flags;
    }
}

}  // namespace
