#include "log/debug_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <thread>

#include "core/paths.h"
#include "support/test_util.h"

namespace {

using namespace testutil;
const std::string kPrefix = "\\[[0-2][0-9]:[0-5][0-9]:[0-5][0-9]:[0-9]{3}\\]-: ";

struct LogFileFixture : public ::testing::Test {  // this run's log file in a temporary directory
    void SetUp() override { BuildLogFileName(); }
    TempDir dir;
    LogCapture log_globals{0, 0};  // the log file only; BuildLogFileName logs nothing
};

// A message longer than a line is cut, never written past the line.
TEST_F(LogFileFixture, LongMessagesAreCut) {
    DebugLog(LOG_MAIN, "%s", std::string(2000, 'L').c_str());
    DebugErrorLog(LOG_MAIN, "%s", std::string(2000, 'L').c_str());
    EXPECT_TRUE(std::regex_match(
        ReadFile(LogFilePath),
        std::regex(kPrefix + "<Main> L{511}\n" + kPrefix + "<Main> \\[E\\] L{511}: .+\n")));
}

// A link, FIFO, directory or missing directory at the log path: the file line alone is lost.
TEST_F(LogFileFixture, LogPathThatIsNotARegularFileIsNotWritten) {
    const std::string victim = dir.File("victim"), fifo = dir.File("f.log"), sub = dir.File("d");
    ASSERT_TRUE(WriteFile(victim, "keep me") && !symlink(victim.c_str(), LogFilePath) &&
                !mkfifo(fifo.c_str(), 0600) && !mkdir(sub.c_str(), 0700));
    for (const std::string& path : {std::string(LogFilePath), fifo, sub, sub + "/no/x.log"}) {
        snprintf(LogFilePath, kLogPathMax, "%s", path.c_str());
        ChildResult child = RunInChild([] {
            alarm(5);  // a blocked open ends the child by SIGALRM
            LogCapture capture(0xFFFFFFFF, 0);
            DebugErrorLog(LOG_MAIN, "lost");
            ShowDebugPosition = 2;
            DebugLog(LOG_MAIN, "kept");
            if (capture.lines().size() != 1 || capture.CountExact("kept") != 1) _exit(3);
        });
        EXPECT_TRUE(child.exited && child.status == kReturned) << path;
        EXPECT_TRUE(std::regex_match(child.out, std::regex(kPrefix + "<Main> "))) << path;
    }
    EXPECT_EQ("keep me", ReadFile(victim));
}

// Two threads writing 1000 lines each: every line arrives whole, none is lost.
TEST_F(LogFileFixture, LinesOfTwoThreadsNeverMix) {
    const auto writer = [](char c) {
        for (int i = 0; i < 1000; ++i) DebugLog(LOG_PIPE, "%c%04d %099d", c, i, c == 'b');
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join(), b.join();
    const std::string text = ReadFile(LogFilePath);
    const std::regex whole(kPrefix + "<Pipe> (a[0-9]{4} 0{99}|b[0-9]{4} 0{98}1)\n");
    EXPECT_EQ(2000, std::distance(std::sregex_iterator(text.begin(), text.end(), whole), {}));
    EXPECT_EQ(text.size(), 2000 * (text.find('\n') + 1));  // nothing between the whole lines
}

// Earlier logs go; a data directory that is not one plain word is never handed to the shell.
TEST_F(LogFileFixture, RemoveOldLogsDeletesOnlyLogFilesOfAPlainDataDirectory) {
    const std::string names[] = {"Tavrine_2026.11.16_9.log", "Tavrine_x", "TavrineA.ini", "k.log"};
    for (const std::string& name : names) ASSERT_TRUE(WriteFile(dir.File(name), "x"));
    Quiet(RemoveOldLogs);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(i >= 2, FileExists(dir.File(names[i]))) << names[i];
    const std::string spaced = dir.File("Tavrine_x b");  // rm would take <dir>/Tavrine_x
    ASSERT_TRUE(!mkdir(spaced.c_str(), 0700) && WriteFile(dir.File(names[1]), "x"));
    SetDataDirForTest(spaced.c_str());
    Quiet(RemoveOldLogs);
    SetDataDirForTest(dir.path().c_str());
    EXPECT_TRUE(FileExists(dir.File(names[1])));
}

}  // namespace
