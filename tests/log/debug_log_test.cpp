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
#include "support/core_test_util.h"

namespace {

using coretest::LogCapture;
using coretest::TempDataDir;

const char* kPrefixPattern = "\\[[0-2][0-9]:[0-5][0-9]:[0-5][0-9]:[0-9]{3}\\]-: ";

// Collects what reaches file descriptor 1 while it lives (a pipe dup2-ed onto it).
class StdoutCapture {
  public:
    StdoutCapture() {
        fflush(stdout);
        saved_.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
        if (coretest::MakePipe(&read_end_, &write_end_)) {
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
        saved_bits = DebugEnableBits;
        saved_position = ShowDebugPosition;
        DebugEnableBits = 0;  // BuildLogFileName logs nothing
        BuildLogFileName();
        log_file = LogFilePath;
    }
    void TearDown() override {
        DebugEnableBits = saved_bits;
        ShowDebugPosition = saved_position;
        LogFilePath[0] = '\0';
    }
    TempDataDir dir;
    std::string log_file;
    uint32_t saved_bits = 0;
    uint8_t saved_position = 0;
};

TEST(DebugLogFormatTest, PrefixHasHourMinuteSecondAndTruncatedMilliseconds) {
    const char* old_tz = getenv("TZ");
    std::string saved_tz = old_tz ? old_tz : "";
    setenv("TZ", "UTC", 1);
    tzset();
    struct Case {
        time_t seconds;
        suseconds_t micros;
        const char* text;
    };
    const Case cases[] = {
        {3723, 45999, "[01:02:03:045]-: "},
        {0, 0, "[00:00:00:000]-: "},
        {86399, 999999, "[23:59:59:999]-: "},
        {1790000000 + 7, 1000, "[14:13:27:001]-: "},
    };
    for (const Case& c : cases) {
        struct timeval tv = {c.seconds, c.micros};
        char out[64];
        size_t n = FormatLogPrefix(out, sizeof(out), &tv);
        EXPECT_EQ(std::string(c.text), std::string(out, n));
    }
    // A small buffer is never overrun.
    char small[8];
    memset(small, 'Z', sizeof(small));
    struct timeval tv = {3723, 0};
    size_t n = FormatLogPrefix(small, 5, &tv);
    EXPECT_EQ(4u, n);
    EXPECT_EQ(std::string("[01:"), std::string(small));
    EXPECT_EQ('Z', small[5]);
    if (old_tz) {
        setenv("TZ", saved_tz.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

TEST(DebugLogFormatTest, TagsByExactCategoryValue) {
    struct Case {
        uint32_t category;
        const char* tag;
    };
    const Case cases[] = {
        {0x1, "<Main>"},
        {0x2, "<Init>"},
        {0x4, "<Param>"},
        {0x8, ""},
        {0x10, "<App>"},
        {0x20, "<Storage>"},
        {0x40, "<Pipe>"},
        {0x100, "<Shm>"},
        {0x200, "<Thread>"},
        {0x800, ""},
        {0x1000, "<Beep>"},
        {0x2000, ""},
        {0x10000, "<Scan>"},
        {0x40000, ""},
        {0x80000, ""},
        {0x100000, "<Data>"},
        {0x200000, "<Port>"},
        {0x400000, ""},
        {0x3, ""},
        {0x10001, ""},
        {0x300000, ""},
        {0, ""},
        {0xFFFFFFFF, ""},
    };
    for (const Case& c : cases) {
        EXPECT_STREQ(c.tag, LogCategoryTag(c.category)) << std::hex << c.category;
    }
}

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
    EXPECT_TRUE(std::regex_match(std::string(LogFilePath),
                                 std::regex(".*/"
                                            "Tavrine_20[0-9]{2}\\.([1-9]|1[0-2])\\.([1-9]|[12][0-9]"
                                            "|3[01])_([0-9]|1[0-9]|2[0-3])\\.log")));
}

TEST_F(LogFileFixture, BannerNamesTheStartTime) {
    LogCapture capture(LOG_MAIN, 1);
    coretest::Quiet([&] { BuildLogFileName(); });
    ASSERT_EQ(1u, capture.lines().size());
    EXPECT_TRUE(std::regex_match(
        capture.lines()[0].message,
        std::regex("\n\t\t\t[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}\n\t\t\t")))
        << capture.lines()[0].message;
}

// Each output selector sends a normal line to its outputs and nowhere else.
TEST_F(LogFileFixture, OutputPositionsOfANormalLine) {
    struct Case {
        uint8_t position;
        bool to_stdout;
        bool to_platform;
        bool to_file;
    };
    const Case cases[] = {
        {0, false, false, true},  {1, true, true, false},     {2, true, true, true},
        {3, false, false, false}, {255, false, false, false},
    };
    for (const Case& c : cases) {
        unlink(log_file.c_str());
        LogCapture capture(0xFFFFFFFF, c.position);
        StdoutCapture out;
        DebugLog(LOG_MAIN, "hello %d [%s]", 5, "x");
        const std::string printed = out.Take();

        const std::string pos = "position " + std::to_string(c.position);
        if (c.to_stdout) {
            EXPECT_TRUE(
                std::regex_match(printed, std::regex(std::string(kPrefixPattern) + "<Main> ")))
                << pos << ": " << printed;
        } else {
            EXPECT_EQ("", printed) << pos;
        }
        if (c.to_platform) {
            ASSERT_EQ(1u, capture.lines().size()) << pos;
            EXPECT_EQ("hello 5 [x]", capture.lines()[0].message);
            EXPECT_FALSE(capture.lines()[0].is_error);
        } else {
            EXPECT_TRUE(capture.lines().empty()) << pos;
        }
        const std::string file = coretest::ReadFile(log_file);
        if (c.to_file) {
            EXPECT_TRUE(std::regex_match(
                file, std::regex(std::string(kPrefixPattern) + "<Main> hello 5 \\[x\\]\n")))
                << pos << ": " << file;
        } else {
            EXPECT_FALSE(coretest::FileExists(log_file)) << pos;
        }
    }
}

TEST_F(LogFileFixture, UntaggedCategoriesWriteTheBlankAlone) {
    for (uint32_t category : {0x8u, 0x800u, 0x3u}) {
        unlink(log_file.c_str());
        LogCapture capture(0xFFFFFFFF, 2);
        StdoutCapture out;
        DebugLog(category, "m");
        EXPECT_TRUE(std::regex_match(out.Take(), std::regex(std::string(kPrefixPattern) + " ")))
            << category;
        EXPECT_TRUE(std::regex_match(coretest::ReadFile(log_file),
                                     std::regex(std::string(kPrefixPattern) + " m\n")))
            << category;
    }
}

TEST_F(LogFileFixture, ErrorLineCarriesMarkAndErrnoText) {
    for (uint8_t position : {0, 1, 2}) {
        unlink(log_file.c_str());
        LogCapture capture(0xFFFFFFFF, position);
        StdoutCapture out;
        errno = ENOENT;
        DebugErrorLog(LOG_INIT, "open %s", "/dev/x");
        EXPECT_EQ(ENOENT, errno);  // the caller's error number survives the log call
        const std::string printed = out.Take();
        const std::string file = coretest::ReadFile(log_file);
        if (position != 0) {
            EXPECT_TRUE(std::regex_match(
                printed, std::regex(std::string(kPrefixPattern) + "<Init> \\[E\\] ")))
                << printed;
            ASSERT_EQ(1u, capture.lines().size());
            EXPECT_TRUE(capture.lines()[0].is_error);
            EXPECT_EQ("open /dev/x", capture.lines()[0].message);
        }
        if (position != 1) {
            EXPECT_TRUE(std::regex_match(
                file, std::regex(std::string(kPrefixPattern) +
                                 "<Init> \\[E\\] open /dev/x: No such file or directory\n")))
                << file;
        }
    }
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
    ASSERT_TRUE(coretest::WriteFile(victim, "keep me"));
    ASSERT_EQ(0, symlink(victim.c_str(), log_file.c_str()));
    const std::string fifo = dir.File("fifo.log");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const std::string subdir = dir.File("dir.log");
    ASSERT_EQ(0, mkdir(subdir.c_str(), 0700));

    for (const std::string& path : {log_file, fifo, subdir}) {
        snprintf(LogFilePath, kLogPathMax, "%s", path.c_str());
        coretest::ChildResult child = coretest::RunInChild([] {
            alarm(5);  // a blocked open ends the child by SIGALRM
            DebugEnableBits = 0xFFFFFFFF;
            ShowDebugPosition = 0;
            DebugLog(LOG_MAIN, "lost");
            DebugErrorLog(LOG_MAIN, "lost too");
            LogCapture capture(0xFFFFFFFF, 2);
            DebugLog(LOG_MAIN, "kept");
            fflush(stdout);
            if (capture.Count("kept") != 1) _exit(3);
        });
        ASSERT_TRUE(child.exited) << path << ": signal " << child.status;
        EXPECT_EQ(coretest::kReturned, child.status) << path;
        EXPECT_NE(std::string::npos, child.out.find("<Main>")) << path;  // head of "kept"
    }
    EXPECT_EQ("keep me", coretest::ReadFile(victim));
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
    std::vector<std::string> lines = Lines(coretest::ReadFile(log_file));
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
    std::vector<std::string> lines = Lines(coretest::ReadFile(log_file));
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
        ASSERT_TRUE(coretest::WriteFile(dir.File(name), "x"));
    }
    {
        LogCapture capture(LOG_MAIN, 1);
        coretest::Quiet([&] { RemoveOldLogs(); });
        EXPECT_EQ(1, capture.Count("All old debug logs are removed."));
    }
    EXPECT_EQ((std::vector<std::string>{"TavrineA.ini", "TouchPID", "keep.log"}),
              DirEntries(dir.path()));
    {
        LogCapture capture(LOG_MAIN, 1);
        coretest::Quiet([&] { RemoveOldLogs(); });  // nothing left to remove: rm fails
        ASSERT_EQ(1u, capture.lines().size());
        EXPECT_TRUE(capture.lines()[0].is_error);
        EXPECT_EQ("Remove all old debug log failed.", capture.lines()[0].message);
    }
}

// The data directory stands in the rm command line: a directory whose path is not one
// plain word keeps its old logs rather than handing the shell a second word to remove.
TEST_F(LogFileFixture, RemoveOldLogsRefusesADataDirectoryThatIsNotAPlainPath) {
    const std::string victim = dir.File("a");
    ASSERT_TRUE(coretest::WriteFile(victim, "keep me"));
    const std::string spaced = dir.File("a b");
    ASSERT_EQ(0, mkdir(spaced.c_str(), 0700));
    ASSERT_TRUE(coretest::WriteFile(spaced + "/Tavrine_2026.11.16_9.log", "x"));
    SetDataDirForTest(spaced.c_str());
    {
        LogCapture capture(LOG_MAIN, 1);
        coretest::Quiet([&] { RemoveOldLogs(); });
        EXPECT_EQ(1, capture.Count("Data directory [" + spaced +
                                   "] is not a plain path: old debug logs are kept"));
    }
    SetDataDirForTest(dir.path().c_str());
    EXPECT_EQ("keep me", coretest::ReadFile(victim));
    EXPECT_EQ(std::vector<std::string>{"Tavrine_2026.11.16_9.log"}, DirEntries(spaced));
}

// Two starts in the same hour: the second removes the first one's file, then names the
// same file again.
TEST_F(LogFileFixture, SecondStartInTheSameHourStartsAFreshFile) {
    ShowDebugPosition = 0;
    DebugEnableBits = LOG_MAIN;
    DebugLog(LOG_MAIN, "first run");
    ASSERT_TRUE(coretest::FileExists(log_file));
    DebugEnableBits = 0;
    RemoveOldLogs();
    EXPECT_FALSE(coretest::FileExists(log_file));
    BuildLogFileName();
    EXPECT_EQ(log_file, std::string(LogFilePath));
}

}  // namespace
