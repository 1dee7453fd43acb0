#include "log/debug_log.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "core/paths.h"
#include "support/test_util.h"

namespace {

using testutil::LogCapture;
using testutil::TempDir;

const char* kPrefixPattern = "\\[[0-2][0-9]:[0-5][0-9]:[0-5][0-9]:[0-9]{3}\\]-: ";

// Collects what reaches file descriptor 1 while it lives (a pipe dup2-ed onto it).
class StdoutCapture {
  public:
    StdoutCapture() {
        fflush(stdout);
        saved_.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
        if (testutil::MakePipe(&read_end_, &write_end_)) {
            fcntl(read_end_.get(), F_SETFL, O_NONBLOCK);
            dup2(write_end_.get(), STDOUT_FILENO);
        }
    }
    ~StdoutCapture() { Restore(); }
    // Restores fd 1 and returns everything written.
    std::string Take() {
        Restore();
        return text_;
    }

  private:
    void Restore() {
        if (!saved_.valid()) return;
        fflush(stdout);
        dup2(saved_.get(), STDOUT_FILENO);
        saved_.reset();
        write_end_.reset();
        char buffer[4096];
        ssize_t n;
        while ((n = ReadRetry(read_end_.get(), buffer, sizeof(buffer))) > 0)
            text_.append(buffer, n);
        read_end_.reset();
    }
    UniqueFd saved_;
    UniqueFd read_end_;
    UniqueFd write_end_;
    std::string text_;
};

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// A temporary data directory with this run's log file named in it.
struct LogFileFixture : public ::testing::Test {
    void SetUp() override {
        BuildLogFileName();
        log_file = LogFilePath;
    }
    void TearDown() override { LogFilePath[0] = '\0'; }
    TempDir dir;
    LogCapture log_globals{0, ShowDebugPosition};  // BuildLogFileName logs nothing
    std::string log_file;
};

TEST_F(LogFileFixture, LogFileNameIsDataDirDateAndHour) {
    // Name it again between two clock readings, so an hour change cannot fool the check.
    time_t before = time(nullptr);
    BuildLogFileName();
    time_t after = time(nullptr);
    std::vector<std::string> allowed;
    for (time_t t : {before, after}) {
        struct tm local;
        localtime_r(&t, &local);
        char name[160];
        snprintf(name, sizeof(name), "%s/Tavrine_%d.%d.%d_%d.log", dir.path().c_str(),
                 local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour);
        allowed.push_back(name);
    }
    EXPECT_TRUE(std::find(allowed.begin(), allowed.end(), std::string(LogFilePath)) !=
                allowed.end())
        << LogFilePath;
}

TEST_F(LogFileFixture, UnwritableFileLosesOnlyTheFileLine) {
    snprintf(LogFilePath, kLogPathMax, "%s/no/such/dir/x.log", dir.path().c_str());
    {
        LogCapture capture(0xFFFFFFFF, 0);
        StdoutCapture out;
        DebugLog(LOG_MAIN, "lost");
        EXPECT_EQ("", out.Take());
        EXPECT_TRUE(capture.lines().empty());
    }
    {
        LogCapture capture(0xFFFFFFFF, 2);
        StdoutCapture out;
        DebugLog(LOG_MAIN, "kept");
        EXPECT_FALSE(out.Take().empty());
        ASSERT_EQ(1u, capture.lines().size());
        EXPECT_EQ("kept", capture.lines()[0].message);
    }
}

// A symbolic link, a FIFO or a directory at the log file path: the file line is lost (as
// for an unwritable file), nothing is written through the link, a FIFO without a reader
// does not block the logging thread, and the other outputs still get the line.
TEST_F(LogFileFixture, LogPathThatIsNotARegularFileIsNotWritten) {
    const std::string victim = dir.File("victim");
    ASSERT_TRUE(testutil::WriteFile(victim, "keep me"));
    ASSERT_EQ(0, symlink(victim.c_str(), log_file.c_str()));
    const std::string fifo = dir.File("fifo.log");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const std::string subdir = dir.File("dir.log");
    ASSERT_EQ(0, mkdir(subdir.c_str(), 0700));

    for (const std::string& path : {log_file, fifo, subdir}) {
        snprintf(LogFilePath, kLogPathMax, "%s", path.c_str());
        testutil::ChildResult child = testutil::RunInChild([] {
            alarm(5);  // a blocked open ends the child by SIGALRM
            DebugEnableBits = 0xFFFFFFFF;
            ShowDebugPosition = 0;
            DebugLog(LOG_MAIN, "lost");
            DebugErrorLog(LOG_MAIN, "lost too");
            LogCapture capture(0xFFFFFFFF, 2);
            DebugLog(LOG_MAIN, "kept");
            fflush(stdout);
            if (capture.CountExact("kept") != 1) _exit(3);
        });
        ASSERT_TRUE(child.exited) << path << ": signal " << child.status;
        EXPECT_EQ(testutil::kReturned, child.status) << path;
        EXPECT_NE(std::string::npos, child.out.find("<Main>")) << path;  // head of "kept"
    }
    EXPECT_EQ("keep me", testutil::ReadFile(victim));
}

TEST_F(LogFileFixture, LongMessageIsTruncatedToTheBuffer) {
    const std::string long_text(2000, 'L');
    LogCapture capture(0xFFFFFFFF, 2);
    StdoutCapture out;
    DebugLog(LOG_MAIN, "%s", long_text.c_str());
    DebugErrorLog(LOG_MAIN, "%s", long_text.c_str());
    out.Take();
    ASSERT_EQ(2u, capture.lines().size());
    EXPECT_EQ(std::string(kLogMessageMax - 1, 'L'), capture.lines()[0].message);
    EXPECT_EQ(std::string(kLogMessageMax - 1, 'L'), capture.lines()[1].message);
    std::vector<std::string> lines = Lines(testutil::ReadFile(log_file));
    ASSERT_EQ(2u, lines.size());
    EXPECT_TRUE(
        std::regex_match(lines[0], std::regex(std::string(kPrefixPattern) + "<Main> L{511}")));
    EXPECT_TRUE(std::regex_match(
        lines[1], std::regex(std::string(kPrefixPattern) + "<Main> \\[E\\] L{511}: .+")));
}

struct WriterArgs {
    char letter;
};

void* WriteLines(void* arg) {
    const char letter = static_cast<WriterArgs*>(arg)->letter;
    const std::string body(100, letter);
    for (int i = 0; i < 1000; ++i) DebugLog(LOG_PIPE, "%c%04d %s", letter, i, body.c_str());
    return nullptr;
}

// Two threads writing 1000 lines each: every line arrives whole, none is lost.
TEST_F(LogFileFixture, LinesOfTwoThreadsNeverMix) {
    DebugEnableBits = 0xFFFFFFFF;
    ShowDebugPosition = 0;
    WriterArgs a = {'a'};
    WriterArgs b = {'b'};
    pthread_t ta, tb;
    ASSERT_EQ(0, pthread_create(&ta, nullptr, WriteLines, &a));
    ASSERT_EQ(0, pthread_create(&tb, nullptr, WriteLines, &b));
    pthread_join(ta, nullptr);
    pthread_join(tb, nullptr);
    std::vector<std::string> lines = Lines(testutil::ReadFile(log_file));
    ASSERT_EQ(2000u, lines.size());
    const std::regex whole(std::string(kPrefixPattern) +
                           "<Pipe> (a[0-9]{4} a{100}|b[0-9]{4} b{100})");
    int next[2] = {0, 0};
    for (const std::string& line : lines) {
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
        const size_t at = line.find("<Pipe> ") + 7;
        const int which = line[at] == 'a' ? 0 : 1;
        EXPECT_EQ(next[which], atoi(line.substr(at + 1, 4).c_str()));  // in order per thread
        ++next[which];
    }
    EXPECT_EQ(1000, next[0]);
    EXPECT_EQ(1000, next[1]);
}

std::vector<std::string> DirEntries(const std::string& path) {
    std::vector<std::string> names;
    DIR* d = opendir(path.c_str());
    if (!d) return names;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(LogFileFixture, RemoveOldLogsDeletesOnlyEarlierLogFiles) {
    for (const char* name :
         {"Tavrine_2026.11.16_9.log", "Tavrine_x", "TavrineA.ini", "TouchPID", "keep.log"}) {
        ASSERT_TRUE(testutil::WriteFile(dir.File(name), "x"));
    }
    {
        LogCapture capture(LOG_MAIN, 1);
        testutil::Quiet([&] { RemoveOldLogs(); });
        EXPECT_EQ(1, capture.CountExact("All old debug logs are removed."));
    }
    EXPECT_EQ((std::vector<std::string>{"TavrineA.ini", "TouchPID", "keep.log"}),
              DirEntries(dir.path()));
    {
        LogCapture capture(LOG_MAIN, 1);
        testutil::Quiet([&] { RemoveOldLogs(); });  // nothing left to remove: rm fails
        ASSERT_EQ(1u, capture.lines().size());
        EXPECT_TRUE(capture.lines()[0].is_error);
        EXPECT_EQ("Remove all old debug log failed.", capture.lines()[0].message);
    }
}

// The data directory stands in the rm command line: a directory whose path is not one
// plain word keeps its old logs rather than handing the shell a second word to remove.
TEST_F(LogFileFixture, RemoveOldLogsRefusesADataDirectoryThatIsNotAPlainPath) {
    const std::string victim = dir.File("a");
    ASSERT_TRUE(testutil::WriteFile(victim, "keep me"));
    const std::string spaced = dir.File("a b");
    ASSERT_EQ(0, mkdir(spaced.c_str(), 0700));
    ASSERT_TRUE(testutil::WriteFile(spaced + "/Tavrine_2026.11.16_9.log", "x"));
    SetDataDirForTest(spaced.c_str());
    {
        LogCapture capture(LOG_MAIN, 1);
        testutil::Quiet([&] { RemoveOldLogs(); });
        EXPECT_EQ(1, capture.CountExact("Data directory [" + spaced +
                                   "] is not a plain path: old debug logs are kept"));
    }
    SetDataDirForTest(dir.path().c_str());
    EXPECT_EQ("keep me", testutil::ReadFile(victim));
    EXPECT_EQ(std::vector<std::string>{"Tavrine_2026.11.16_9.log"}, DirEntries(spaced));
}

}  // namespace
