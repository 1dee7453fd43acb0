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
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "support/core_test_util.h"

namespace {

const std::string kDaemon = TAVRINE_DAEMON_TESTDATA;
const std::string kDataDir = TAVRINE_TEST_DATA_DIR;
const std::string kPidFile = kDataDir + "/TouchPID";
const std::string kIni =
    "[TavrineA.ini]\nDebugEnableBits\t\t3\nShowDebugPosition\t0\nDeviceNums\t\t1\n"
    "ScanInterface\t\t4\n[String]\nSerialPath\t\tdefault\n\n[EndOfFile]";

long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

std::string ProcessName(pid_t pid) {
    std::string status = coretest::ReadFile("/proc/" + std::to_string(pid) + "/status");
    if (status.compare(0, 6, "Name:\t") != 0) return "";
    return status.substr(6, status.find('\n') - 6);
}

// Parent process id from /proc/<pid>/stat (the field after the parenthesised name).
pid_t ParentOf(pid_t pid) {
    std::string stat = coretest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
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
        ASSERT_EQ(0, coretest::RunInChild([] {
                         execl("/bin/rm", "rm", "-rf", kDataDir.c_str(),
                               static_cast<char*>(nullptr));
                     }).status);
        ASSERT_EQ(0, mkdir(kDataDir.c_str(), 0755));
        ASSERT_TRUE(coretest::WriteFile(kDataDir + "/TavrineA.ini", kIni));
    }

    void TearDown() override {
        // Kill every daemon this test started: those it knows and any other child left.
        for (pid_t pid : started_) kill(pid, SIGKILL);
        for (pid_t pid : OwnChildren()) kill(pid, SIGKILL);
        const long deadline = NowMs() + 3000;
        while (!OwnChildren().empty() && NowMs() < deadline) {
            Reap();
            usleep(5000);
        }
        Reap();
        lock_fd_.reset();
    }

    // Runs the binary with args; returns the exit status of the started process (the
    // daemon's first half exits 0 right after detaching). Its standard output goes to out;
    // its standard error to out as well when errors_too, else to /dev/null. inherited >= 0
    // is handed to the daemon as descriptor 7, open across the exec.
    int Run(const std::vector<std::string>& args, std::string* out = nullptr,
            bool errors_too = false, int inherited = -1) {
        UniqueFd read_end;
        UniqueFd write_end;
        if (!coretest::MakePipe(&read_end, &write_end)) return -1;
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            dup2(write_end.get(), STDOUT_FILENO);
            if (inherited >= 0) dup2(inherited, 7);  // after: the pipe above may be number 7
            const int null_fd = OpenCloexec("/dev/null", O_WRONLY);
            // The exec closes null_fd itself.
            dup2(errors_too ? write_end.get() : null_fd, STDERR_FILENO);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(kDaemon.c_str()));
            for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(kDaemon.c_str(), argv.data());
            _exit(127);
        }
        write_end.reset();
        std::string text;
        char buffer[1024];
        ssize_t n;
        // The detached half keeps no copy of the pipe (its output goes to /dev/null), so
        // the read ends when the started process has exited.
        while ((n = ReadRetry(read_end.get(), buffer, sizeof(buffer))) > 0) {
            text.append(buffer, static_cast<size_t>(n));
        }
        read_end.reset();
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        starters_.insert(pid);
        if (out) *out = text;
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
        const long deadline = NowMs() + timeout_ms;
        while (NowMs() < deadline) {
            Reap();
            std::string text = coretest::ReadFile(kPidFile);
            int pid = 0;
            if (text.size() == 10 && sscanf(text.c_str(), "%d", &pid) == 1 && pid > 0 &&
                pid != not_this && ended_.count(pid) == 0 &&
                ProcessName(pid).rfind("Tavrine", 0) == 0) {
                started_.insert(pid);
                return pid;
            }
            usleep(5000);
        }
        return -1;
    }

    // Waits until a child other than the given ones has ended; returns its wait status.
    bool WaitForOtherChildEnd(const std::set<pid_t>& known, int* status, long timeout_ms = 8000) {
        const long deadline = NowMs() + timeout_ms;
        while (NowMs() < deadline) {
            Reap();
            for (const auto& entry : ended_) {
                if (known.count(entry.first) == 0 && starters_.count(entry.first) == 0) {
                    *status = entry.second;
                    return true;
                }
            }
            usleep(5000);
        }
        return false;
    }

    // Waits for pid (a child of the test) to end; returns its wait status or -1.
    int WaitForEnd(pid_t pid, long timeout_ms = 5000) {
        const long deadline = NowMs() + timeout_ms;
        while (NowMs() < deadline) {
            Reap();
            auto it = ended_.find(pid);
            if (it != ended_.end()) return it->second;
            usleep(5000);
        }
        return -1;
    }

    bool IsRunning(pid_t pid) {
        Reap();
        return ended_.count(pid) == 0 && kill(pid, 0) == 0;
    }

    std::string LogText() {
        std::string all;
        DIR* dir = opendir(kDataDir.c_str());
        if (!dir) return all;
        while (struct dirent* e = readdir(dir)) {
            if (strncmp(e->d_name, "Tavrine_", 8) == 0)
                all += coretest::ReadFile(kDataDir + "/" + e->d_name);
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

TEST_F(DaemonProcessTest, DetachesWritesItsPidFileAndLoops) {
    EXPECT_EQ(0, Run({}));
    const pid_t daemon = WaitForDaemon();
    ASSERT_GT(daemon, 0);
    const std::string pid_text = coretest::ReadFile(kPidFile);
    std::string expected = std::to_string(daemon) + " ";
    expected.resize(10, '\0');
    EXPECT_EQ(expected, pid_text);
    EXPECT_EQ(getpid(), ParentOf(daemon));  // detached, re-parented to the subreaper
    EXPECT_EQ("TavrineD_testda", ProcessName(daemon));

    const long deadline = NowMs() + 5000;
    while (Count(LogText(), "Entering EndlessScanLoop") == 0 && NowMs() < deadline) {
        usleep(10000);
    }
    // The start-up steps in their order (the settings file sends the log to the file from
    // the print-out of the settings on).
    const std::string log = LogText();
    const std::string steps[] = {
        "<Main> Daemon Version: [2.5.6720.]\n",
        "<Main> Run process as a background daemon\n",
        "<Main> ===============   Entering GetEnvironment   ===============\n",
        "<Init> Entering GetAndroidVersion\n",
        "<Main> Entering GetKernelVersion\n",
        "<Main> Entering GetCPUinfo\n",
        "<Main> Entering ListQEVOUsbDevice\n",
        "<Main> ---------------  Done with GetEnvironment   ---------------\n",
        "<Init> File " + kPidFile + " doesn't existed\n",
        "<Init> New CManager is called.\n",
        "<Main> Loop in endless scan\n",
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
}

// A descriptor the starter leaves open (here the write end of a pipe) is closed by the
// daemon at start: its reader sees the end of the pipe although the daemon runs on, and
// no command the daemon starts can inherit it.
TEST_F(DaemonProcessTest, InheritedDescriptorsAreClosedAtStart) {
    UniqueFd read_end;
    UniqueFd write_end;
    ASSERT_TRUE(coretest::MakePipe(&read_end, &write_end));
    EXPECT_EQ(0, Run({}, nullptr, false, write_end.get()));
    write_end.reset();
    const pid_t daemon = WaitForDaemon();
    ASSERT_GT(daemon, 0);
    struct pollfd end = {read_end.get(), POLLIN, 0};
    ASSERT_EQ(1, poll(&end, 1, 5000)) << "the daemon still holds the inherited pipe";
    char byte;
    EXPECT_EQ(0, ReadRetry(read_end.get(), &byte, 1));
    EXPECT_TRUE(IsRunning(daemon));
}

// A data directory others may write to is reported once at start, after the settings
// file has chosen the log output (the file here) and before the daemon detaches; a
// directory only root may write to is not.
TEST_F(DaemonProcessTest, WritableDataDirectoryIsReportedOnce) {
    pid_t previous = -1;
    for (mode_t mode : {mode_t{0755}, mode_t{0777}}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(0, chmod(kDataDir.c_str(), mode));
        EXPECT_EQ(0, Run({"-f"}));  // also removes the earlier start's log file
        previous = WaitForDaemon(previous);
        ASSERT_GT(previous, 0);
        const long deadline = NowMs() + 5000;
        while (Count(LogText(), "Entering EndlessScanLoop") == 0 && NowMs() < deadline) {
            usleep(10000);
        }
        const std::string log = LogText();
        const std::string warning = "<Main> Warning: data directory " + kDataDir;
        if (mode == 0755) {
            EXPECT_EQ(0, Count(log, warning)) << log;
            continue;
        }
        EXPECT_EQ(1, Count(log, warning)) << log;
        const size_t at = log.find(warning);
        EXPECT_LT(log.find("<Main> Daemon Version: [2.5.6720.]"), at);
        EXPECT_GT(log.find("<Main> Run process as a background daemon"), at);
    }
}

TEST_F(DaemonProcessTest, SecondStartWithoutForceEndsAndLeavesTheFirst) {
    EXPECT_EQ(0, Run({}));
    const pid_t first = WaitForDaemon();
    ASSERT_GT(first, 0);
    EXPECT_EQ(0, Run({}));
    int status = -1;
    ASSERT_TRUE(WaitForOtherChildEnd({first}, &status));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(IsRunning(first));
    std::string expected = std::to_string(first) + " ";
    expected.resize(10, '\0');
    EXPECT_EQ(expected, coretest::ReadFile(kPidFile));
    EXPECT_EQ(1, Count(LogText(), "Another daemon pid(" + std::to_string(first) + ") is running"));
}

TEST_F(DaemonProcessTest, ForceReplacesTheFirstDaemon) {
    EXPECT_EQ(0, Run({}));
    const pid_t first = WaitForDaemon();
    ASSERT_GT(first, 0);
    EXPECT_EQ(0, Run({"-f"}));
    const pid_t second = WaitForDaemon(first);
    ASSERT_GT(second, 0);
    const int status = WaitForEnd(first);
    ASSERT_NE(-1, status) << "the first daemon is still running";
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
    EXPECT_TRUE(IsRunning(second));
}

TEST_F(DaemonProcessTest, KillStopsTheRunningDaemonAndEnds) {
    EXPECT_EQ(0, Run({}));
    const pid_t daemon = WaitForDaemon();
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(0, Run({"-k"}));
    const int status = WaitForEnd(daemon);
    ASSERT_NE(-1, status) << "the daemon is still running";
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
    int killer = -1;
    ASSERT_TRUE(WaitForOtherChildEnd({daemon}, &killer));
    EXPECT_TRUE(WIFEXITED(killer));
    EXPECT_EQ(0, WEXITSTATUS(killer));
    EXPECT_TRUE(OwnChildren().empty());
}

// An over-long -u, -r or -z is refused where the user sees it, with standard output a pipe:
// on standard error before the daemon detaches, and in its log file. The daemon then runs on.
TEST_F(DaemonProcessTest, OverlongOptionsAreReportedBeforeDetaching) {
    const std::string too_long = "/" + std::string(63, 'x');
    std::string out;
    EXPECT_EQ(0, Run({"-u", too_long, "-r", too_long, "-z", too_long}, &out, true));
    ASSERT_GT(WaitForDaemon(), 0);
    const long deadline = NowMs() + 5000;
    while (Count(LogText(), "Entering EndlessScanLoop") == 0 && NowMs() < deadline) {
        usleep(10000);
    }
    const std::string log = LogText();
    for (char option : {'u', 'r', 'z'}) {
        const std::string message = std::string("Error: The argument of option '") + option +
                                    "' is longer than 63 characters, it is ignored.";
        EXPECT_EQ(1, Count(out, message + "\n")) << out;
        EXPECT_EQ(1, Count(log, "<Main> " + message + "\n")) << log;
    }
}

}  // namespace
