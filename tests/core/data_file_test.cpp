// Opening files of the data directory: a symbolic link, a FIFO, a directory, a second link
// or another user's file at the path is refused at once, and nothing is written, created or
// truncated through it. (Regular files are opened by every test that writes the daemon's
// files; that they are close-on-exec is checked by the shell's descriptor test.)
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

using testutil::FileExists;
using testutil::ReadFile;
using testutil::TempDir;
using testutil::WriteFile;

const int kOpens[] = {O_RDONLY, O_WRONLY | O_CREAT | O_TRUNC, O_RDWR | O_CREAT | O_EXCL};

TEST(DataFileTest, LinksFifosDirectoriesAndOtherUsersFilesAreRefusedUntouched) {
    TempDir dir;
    const std::string victim = dir.File("victim");
    ASSERT_TRUE(WriteFile(victim, "keep me"));
    // A second name for the victim (as if in another directory of the same file system),
    // and a file of another user.
    const std::string hard = dir.File("hard");
    ASSERT_EQ(0, link(victim.c_str(), hard.c_str()));
    const std::string foreign = dir.File("foreign");
    ASSERT_TRUE(WriteFile(foreign, "keep me"));
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(0, chown(foreign.c_str(), 65534, 65534));
    }
    const std::string link = dir.File("link");
    ASSERT_EQ(0, symlink(victim.c_str(), link.c_str()));
    const std::string dangling = dir.File("dangling");
    const std::string nowhere = dir.File("created-through-link");
    ASSERT_EQ(0, symlink(nowhere.c_str(), dangling.c_str()));
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));  // no reader, no writer: a plain open blocks
    const std::string subdir = dir.File("subdir");
    ASSERT_EQ(0, mkdir(subdir.c_str(), 0700));

    for (const int flags : kOpens) {
        SCOPED_TRACE(flags);
        errno = 0;
        EXPECT_EQ(-1, OpenDataFile(link.c_str(), flags));
        EXPECT_TRUE(errno == ELOOP || errno == EEXIST) << errno;
        EXPECT_EQ(-1, OpenDataFile(dangling.c_str(), flags));
        EXPECT_EQ(-1, OpenDataFile(fifo.c_str(), flags));
        EXPECT_EQ(-1, OpenDataFile(subdir.c_str(), flags));
        errno = 0;
        EXPECT_EQ(-1, OpenDataFile(hard.c_str(), flags));
        EXPECT_TRUE(errno == EMLINK || errno == EEXIST) << errno;
        if (root) {
            errno = 0;
            EXPECT_EQ(-1, OpenDataFile(foreign.c_str(), flags));
            EXPECT_TRUE(errno == EPERM || errno == EEXIST) << errno;
        }
    }
    // The stream form goes through the same checks.
    for (const std::string& path : {link, dangling, fifo, subdir, hard}) {
        EXPECT_EQ(nullptr, FopenDataFile(path.c_str(), "w+")) << path;
    }
    EXPECT_EQ("keep me", ReadFile(victim));
    EXPECT_EQ("keep me", ReadFile(foreign));
    EXPECT_FALSE(FileExists(nowhere));
    struct stat st;
    ASSERT_EQ(0, lstat(fifo.c_str(), &st));
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

// The daemon's PID file, debug log and captured command output, each planted as a hard
// link to a file outside the data directory: that file keeps every byte, the refusal is
// logged (the captured output is made afresh instead), and the output still reaches its
// reader.
TEST(DataFileTest, DaemonFilesHardLinkedElsewhereAreNeverWritten) {
    TempDir elsewhere;
    TempDir data;  // the last one made is the data directory
    const std::string victim = elsewhere.File("victim");
    const std::string log_file = data.File("Tavrine_2026.11.16_9.log");
    char saved_log_path[kLogPathMax];
    memcpy(saved_log_path, LogFilePath, sizeof(saved_log_path));
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", log_file.c_str());
    struct Case {
        std::string path;
        bool refused;
        std::function<void()> use;
    };
    const Case cases[] = {
        {PidFilePath(), true, [] { WritePidFile(); }},
        {log_file, true, [] { TLOG(LOG_MAIN, "a line for the log file"); }},
        {DrvLogPath(), false,
         [] {
             // Both the command's standard output and error reach the capture.
             FILE* out = RunShellCommand("echo out; echo err 1>&2", DrvLogPath());
             ASSERT_NE(nullptr, out);
             char text[16] = "";
             EXPECT_EQ(8u, fread(text, 1, sizeof(text) - 1, out));
             EXPECT_STREQ("out\nerr\n", text);
             fclose(out);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        ASSERT_TRUE(WriteFile(victim, "keep me"));
        unlink(c.path.c_str());  // an earlier row's log lines may have made the log file
        ASSERT_EQ(0, link(victim.c_str(), c.path.c_str()));
        testutil::LogCapture log(LOG_MAIN, 2);  // standard output, system log and file
        testutil::Quiet(c.use);
        EXPECT_EQ("keep me", ReadFile(victim));
        EXPECT_EQ(c.refused,
                  log.Contains("Refused data file [" + c.path + "]: 2 links"));
        unlink(c.path.c_str());
    }
    memcpy(LogFilePath, saved_log_path, sizeof(saved_log_path));
}

TEST(DataFileTest, WarnsOnceWhenTheDataDirectoryIsWritableByGroupOrOthers) {
    TempDir dir;
    struct Case {
        mode_t mode;
        bool warned;
    };
    const Case cases[] = {{0755, false}, {0720, true}, {0702, true}, {01777, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        ASSERT_EQ(0, chmod(dir.path().c_str(), c.mode));
        testutil::LogCapture log(LOG_MAIN, 1);
        bool warned = !c.warned;
        testutil::Quiet([&] { warned = WarnIfDataDirWritable(); });
        EXPECT_EQ(c.warned, warned);
        EXPECT_EQ(c.warned ? 1u : 0u, log.lines().size());
        EXPECT_EQ(c.warned ? 1 : 0, log.Count("Warning: data directory " + dir.path()));
    }
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0700));
    SetDataDirForTest((dir.path() + "/missing").c_str());
    EXPECT_FALSE(WarnIfDataDirWritable());
}

// A terminal at a data file path is refused without becoming the daemon's controlling
// terminal (the control: a plain open of the same terminal does acquire it).
TEST(DataFileTest, TerminalIsRefusedWithoutBecomingTheControllingTerminal) {
    const auto plain = [](const char* path) { return OpenCloexec(path, O_RDWR | O_NONBLOCK); };
    const testutil::TtyResult control = testutil::OpenOfTerminalAcquiresIt(plain);
    if (control == testutil::TtyResult::kSkipped) GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_EQ(testutil::TtyResult::kAcquired, control);

    for (int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_APPEND}) {
        const auto data_file = [flags](const char* path) {
            const int fd = OpenDataFile(path, flags);
            if (fd >= 0) _exit(4);  // a terminal must never open as a data file
            return fd;
        };
        EXPECT_EQ(testutil::TtyResult::kNotAcquired, testutil::OpenOfTerminalAcquiresIt(data_file))
            << flags;
    }
}

}  // namespace
