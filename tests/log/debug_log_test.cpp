#include "log/debug_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <thread>

#include "support/test_util.h"

namespace {

using namespace testutil;
const std::string kPrefix = "\\[[0-2][0-9]:[0-5][0-9]:[0-5][0-9]:[0-9]{3}\\]-: ";

struct LogFileFixture : public ::testing::Test {  // this run's log file in a temporary directory
    void SetUp() override { BuildLogFileName(); }
    TempDir dir;
    LogCapture log_globals{0, 0};  // the log file only; BuildLogFileName logs nothing
};

// Two threads writing 1000 overlong messages each: every line arrives whole, none is lost.
TEST_F(LogFileFixture, LinesOfTwoThreadsNeverMix) {
    const std::string longer(2000, 'L');  // each message is cut to what a line holds
    const auto writer = [&](char c) {
        for (int i = 0; i < 1000; ++i) DebugLog(LOG_PIPE, "%c%04d %s", c, i, longer.c_str());
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join(), b.join();
    const std::string text = ReadFile(LogFilePath);
    const std::regex whole(kPrefix + "<Pipe> [ab][0-9]{4} L{505}\n");
    EXPECT_TRUE(std::distance(std::sregex_iterator(text.begin(), text.end(), whole), {}) == 2000 &&
                text.size() == 2000 * (text.find('\n') + 1));  // nothing between the whole lines
}

// A link or FIFO at the log path is neither written nor waited on; the console line stays.
TEST_F(LogFileFixture, LogPathThatIsNotARegularFileIsNotWritten) {
    const std::string victim = dir.File("victim"), fifo = dir.File("f.log"), link = LogFilePath;
    ASSERT_TRUE(WriteFile(victim, "keep me") && !symlink(victim.c_str(), link.c_str()) &&
                !mkfifo(fifo.c_str(), 0600));
    for (const std::string& path : {link, fifo}) {  // a blocked open ends the child by SIGALRM
        snprintf(LogFilePath, kLogPathMax, "%s", path.c_str());
        auto child = RunInChild([] { alarm(5), LogCapture(~0u, 2), DebugLog(LOG_MAIN, "kept"); });
        EXPECT_TRUE(child.exited && std::regex_match(child.out, std::regex(kPrefix + "<Main> ")));
    }
    EXPECT_EQ("keep me", ReadFile(victim));
}

// Earlier logs go, the settings file beside them stays.
TEST_F(LogFileFixture, RemoveOldLogsDeletesOnlyLogFiles) {
    ASSERT_TRUE(WriteFile(dir.File("Tavrine_x"), "x") && WriteFile(dir.File("TavrineA.ini"), "x"));
    Quiet(RemoveOldLogs);
    EXPECT_TRUE(!FileExists(dir.File("Tavrine_x")) && FileExists(dir.File("TavrineA.ini")));
}

}  // namespace
