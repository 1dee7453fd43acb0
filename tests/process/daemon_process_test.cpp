// Starts the real daemon binary, built with its data directory in the build tree, and
// checks the single-instance rules from the outside. The settings file put there sets
// ScanInterface 4, so the daemon never scans a port, and sends its log to the log file.
//
// The test process makes itself a child subreaper: the daemon detaches (daemon(0, 0)), and
// its detached process is then re-parented to the test, which can reap it and read its
// exit status. Every daemon started is killed when the test ends, even on failure.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace {

const std::string kDaemon = TAVRINE_DAEMON_TESTDATA;
const std::string kDataDir = TAVRINE_TEST_DATA_DIR;
const std::string kPidFile = kDataDir + "/TouchPID";
const std::string kIni =
    "[TavrineA.ini]\nDebugEnableBits\t\t3\nShowDebugPosition\t0\nDeviceNums\t\t1\n"
    "ScanInterface\t\t4\n[String]\nSerialPath\t\tdefault\n\n[EndOfFile]";

std::string ProcessName(pid_t pid) {
    std::string status = testutil::ReadFile("/proc/" + std::to_string(pid) + "/status");
    if (status.compare(0, 6, "Name:\t") != 0) return "";
    return status.substr(6, status.find('\n') - 6);
}

// Parent process id from /proc/<pid>/stat (the field after the parenthesised name).
pid_t ParentOf(pid_t pid) {
    std::string stat = testutil::ReadFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return -1;
    char state;
    int ppid = -1;
    if (sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) != 2) return -1;
    return ppid;
}

class DaemonProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "the daemon ends with status 255 unless run as root";
        // One daemon test at a time, also across test processes run in parallel.
        lock_fd_.reset(OpenCloexec((kDataDir + ".lock").c_str(), O_RDWR | O_CREAT, 0644));
        ASSERT_TRUE(lock_fd_.valid());
        ASSERT_EQ(0, flock(lock_fd_.get(), LOCK_EX));
        ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0));
        ASSERT_EQ(0, testutil::RunInChild([] {
                         execl("/bin/rm", "rm", "-rf", kDataDir.c_str(),
                               static_cast<char*>(nullptr));
                     }).status);
        ASSERT_EQ(0, mkdir(kDataDir.c_str(), 0755));
        ASSERT_TRUE(testutil::WriteFile(kDataDir + "/TavrineA.ini", kIni));
    }

    void TearDown() override {
        // Kill every daemon this test started: those it knows and any other child left.
        for (pid_t pid : started_) kill(pid, SIGKILL);
        for (pid_t pid : OwnChildren()) kill(pid, SIGKILL);
        testutil::WaitUntil([&] {
            Reap();
            return OwnChildren().empty();
        }, 3000);
        Reap();
        lock_fd_.reset();
    }

    // Runs the binary with args; returns the exit status of the started process (the
    // daemon's first half exits 0 right after detaching). inherited >= 0 is handed to the
    // daemon as descriptor 7, open across the exec.
    int Run(const std::vector<std::string>& args, int inherited = -1) {
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            const int null_fd = OpenCloexec("/dev/null", O_WRONLY);  // the exec closes it
            dup2(null_fd, STDOUT_FILENO);
            dup2(null_fd, STDERR_FILENO);
            if (inherited >= 0) dup2(inherited, 7);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(kDaemon.c_str()));
            for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(kDaemon.c_str(), argv.data());
            _exit(127);
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        starters_.insert(pid);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Reaps every ended child, recording how it ended.
    void Reap() {
        int status;
        pid_t pid;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) ended_[pid] = status;
    }

    // Live children of the test (detached daemons re-parented to it).
    std::vector<pid_t> OwnChildren() {
        std::vector<pid_t> children;
        DIR* proc = opendir("/proc");
        if (!proc) return children;
        while (struct dirent* e = readdir(proc)) {
            const pid_t pid = atoi(e->d_name);
            if (pid > 0 && ParentOf(pid) == getpid()) children.push_back(pid);
        }
        closedir(proc);
        return children;
    }

    // Waits until the PID file names a live daemon other than not_this; returns its id.
    pid_t WaitForDaemon(pid_t not_this = -1, long timeout_ms = 8000) {
        int pid = 0;
        const bool found = testutil::WaitUntil([&] {
            Reap();
            const std::string text = testutil::ReadFile(kPidFile);
            return text.size() == 10 && sscanf(text.c_str(), "%d", &pid) == 1 && pid > 0 &&
                   pid != not_this && ended_.count(pid) == 0 &&
                   ProcessName(pid).rfind("Tavrine", 0) == 0;
        }, timeout_ms);
        if (!found) return -1;
        started_.insert(pid);
        return pid;
    }

    // Waits until a child other than the given ones has ended; returns its wait status.
    bool WaitForOtherChildEnd(const std::set<pid_t>& known, int* status, long timeout_ms = 8000) {
        return testutil::WaitUntil([&] {
            Reap();
            for (const auto& entry : ended_) {
                if (known.count(entry.first) == 0 && starters_.count(entry.first) == 0) {
                    *status = entry.second;
                    return true;
                }
            }
            return false;
        }, timeout_ms);
    }

    // Waits for pid (a child of the test) to end; returns its wait status or -1.
    int WaitForEnd(pid_t pid, long timeout_ms = 5000) {
        const bool ended = testutil::WaitUntil([&] {
            Reap();
            return ended_.count(pid) > 0;
        }, timeout_ms);
        return ended ? ended_[pid] : -1;
    }

    bool IsRunning(pid_t pid) {
        Reap();
        return ended_.count(pid) == 0 && kill(pid, 0) == 0;
    }

    // Waits until the log file holds text; returns the log.
    std::string WaitForLog(const std::string& text) {
        testutil::WaitUntil([&] { return LogText().find(text) != std::string::npos; }, 5000);
        return LogText();
    }

    std::string LogText() {
        std::string all;
        DIR* dir = opendir(kDataDir.c_str());
        if (!dir) return all;
        while (struct dirent* e = readdir(dir)) {
            if (strncmp(e->d_name, "Tavrine_", 8) == 0)
                all += testutil::ReadFile(kDataDir + "/" + e->d_name);
        }
        closedir(dir);
        return all;
    }

    UniqueFd lock_fd_;
    std::set<pid_t> started_;
    std::set<pid_t> starters_;
    std::map<pid_t, int> ended_;
};

int Count(const std::string& text, const std::string& part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// Start-up in its order, the PID file, and the plug-and-play signal answered while the
// daemon runs on (a SIGUSR2 without its handler would end the daemon).
TEST_F(DaemonProcessTest, DetachesWritesItsPidFileAndLoops) {
    EXPECT_EQ(0, Run({}));
    const pid_t daemon = WaitForDaemon();
    ASSERT_GT(daemon, 0);
    std::string expected = std::to_string(daemon) + " ";
    expected.resize(10, '\0');
    EXPECT_EQ(expected, testutil::ReadFile(kPidFile));
    EXPECT_EQ(getpid(), ParentOf(daemon));  // detached, re-parented to the subreaper

    std::string log = WaitForLog("Entering EndlessScanLoop");
    const std::string steps[] = {
        "<Main> Run process as a background daemon\n",
        "<Main> ===============   Entering GetEnvironment   ===============\n",
        "<Init> File " + kPidFile + " doesn't existed\n",
        "<Main> Entering EndlessScanLoop\n",
    };
    size_t at = 0;
    for (const std::string& step : steps) {
        EXPECT_EQ(1, Count(log, step)) << step;
        const size_t found = log.find(step, at);
        ASSERT_NE(std::string::npos, found) << "out of order: " << step << log;
        at = found + step.size();
    }
    EXPECT_EQ(0, Count(log, "Entering CheckIniDevPID"));  // ScanInterface 4: no scanning

    ASSERT_EQ(0, kill(daemon, SIGUSR2));
    log = WaitForLog("Entering DevicePnPCheck");
    EXPECT_EQ(1, Count(log, "<Main> Receive signal SIGUSR2. Set bDeviceExistCheck true.\n"));
    EXPECT_EQ(1, Count(log, "Entering DevicePnPCheck")) << log;
    EXPECT_TRUE(IsRunning(daemon));
}

// A descriptor the starter leaves open (here the write end of a pipe) is closed by the
// daemon at start: its reader sees the end of the pipe although the daemon runs on, and
// no command the daemon starts can inherit it.
TEST_F(DaemonProcessTest, InheritedDescriptorsAreClosedAtStart) {
    UniqueFd read_end;
    UniqueFd write_end;
    ASSERT_TRUE(testutil::MakePipe(&read_end, &write_end));
    EXPECT_EQ(0, Run({}, write_end.get()));
    write_end.reset();
    const pid_t daemon = WaitForDaemon();
    ASSERT_GT(daemon, 0);
    struct pollfd end = {read_end.get(), POLLIN, 0};
    ASSERT_EQ(1, poll(&end, 1, 5000)) << "the daemon still holds the inherited pipe";
    char byte;
    EXPECT_EQ(0, ReadRetry(read_end.get(), &byte, 1));
    EXPECT_TRUE(IsRunning(daemon));
}

// A second start without -f ends and leaves the first daemon and its PID file; -f replaces
// the running daemon (killed) and carries on; -k kills the running daemon and ends.
TEST_F(DaemonProcessTest, SecondStartEndsForceReplacesKillStops) {
    EXPECT_EQ(0, Run({}));
    const pid_t first = WaitForDaemon();
    ASSERT_GT(first, 0);
    const std::string pid_text = testutil::ReadFile(kPidFile);

    EXPECT_EQ(0, Run({}));
    int status = -1;
    ASSERT_TRUE(WaitForOtherChildEnd({first}, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(IsRunning(first));
    EXPECT_EQ(pid_text, testutil::ReadFile(kPidFile));
    EXPECT_EQ(1, Count(LogText(), "Another daemon pid(" + std::to_string(first) + ") is running"));

    EXPECT_EQ(0, Run({"-f"}));
    const pid_t second = WaitForDaemon(first);
    ASSERT_GT(second, 0);
    status = WaitForEnd(first);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    EXPECT_TRUE(IsRunning(second));

    ended_.clear();
    EXPECT_EQ(0, Run({"-k"}));
    status = WaitForEnd(second);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    int killer = -1;
    ASSERT_TRUE(WaitForOtherChildEnd({second}, &killer));
    EXPECT_TRUE(WIFEXITED(killer) && WEXITSTATUS(killer) == 0) << killer;
    EXPECT_TRUE(OwnChildren().empty());
}

}  // namespace
