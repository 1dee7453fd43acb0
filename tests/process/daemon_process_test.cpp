// Starts the real daemon binary (data directory in the build tree; its settings file sets
// ScanInterface 4: no port is scanned). The test is a child subreaper: the detached daemon
// becomes its child, is reaped by it, and every child left is killed when a test ends.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/test_util.h"

namespace {

const std::string kDaemon = TAVRINE_DAEMON_TESTDATA, kDataDir = TAVRINE_TEST_DATA_DIR;
const std::string kPidFile = kDataDir + "/TouchPID";

class DaemonProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "the daemon ends with status 255 unless run as root";
        // One daemon test at a time, also across test programs run in parallel.
        lock_fd_.reset(OpenCloexec((kDataDir + ".lock").c_str(), O_RDWR | O_CREAT, 0644));
        ASSERT_EQ(0, flock(lock_fd_.get(), LOCK_EX));
        ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0));
        ASSERT_EQ(0, system(("rm -rf " + kDataDir + " && mkdir " + kDataDir).c_str()));
        ASSERT_TRUE(testutil::WriteFile(
            kDataDir + "/TavrineA.ini",
            "[TavrineA.ini]\nDebugEnableBits\t\t3\nShowDebugPosition\t0\nDeviceNums\t\t1\n"
            "ScanInterface\t\t4\n[String]\nSerialPath\t\tdefault\n\n[EndOfFile]"));
    }
    void TearDown() override {
        testutil::WaitUntil([&] {
            for (pid_t pid : Children()) kill(pid, SIGKILL);
            return Children().empty();
        }, 3000);
    }
    // Runs the binary; the exit status of the started process (0 once it has detached).
    // inherited >= 0 is handed over as descriptor 7, open across the exec.
    int Run(const char* arg, int inherited = -1) {
        const pid_t pid = fork();
        if (pid == 0) {
            const int null_fd = OpenCloexec("/dev/null", O_WRONLY);
            dup2(null_fd, 1), dup2(null_fd, 2);
            if (inherited >= 0) dup2(inherited, 7);
            execl(kDaemon.c_str(), kDaemon.c_str(), arg, static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    }
    // Live children, after reaping the ended ones: /proc/<pid>/status says PPid: <test>.
    std::vector<pid_t> Children() {
        while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
        std::vector<pid_t> out;
        const std::string ppid = "\nPPid:\t" + std::to_string(getpid()) + "\n";
        DIR* proc = opendir("/proc");
        while (struct dirent* e = proc ? readdir(proc) : nullptr) {
            const std::string path = std::string("/proc/") + e->d_name + "/status";
            if (testutil::ReadFile(path).find(ppid) != std::string::npos)
                out.push_back(atoi(e->d_name));
        }
        if (proc) closedir(proc);
        return out;
    }
    bool Alive(pid_t pid) { return Children(), kill(pid, 0) == 0; }
    // The live daemon the PID file names (other than not_this), -1 after 8 s without one.
    pid_t WaitForDaemon(pid_t not_this = -1) {
        int pid = -1;
        return testutil::WaitUntil([&] {
            return sscanf(testutil::ReadFile(kPidFile).c_str(), "%d", &pid) == 1 &&
                   pid != not_this && Alive(pid);
        }, 8000) ? pid : -1;
    }

    UniqueFd lock_fd_;
};

// The daemon detaches (re-parented to the test), writes its id to the PID file, closes a
// descriptor the starter left open (the reader of that pipe sees its end while the daemon
// runs on) and answers the plug-and-play signal (unhandled, it would end the daemon).
TEST_F(DaemonProcessTest, InheritedDescriptorsAreClosedAtStart) {
    UniqueFd read_end, write_end;
    ASSERT_TRUE(testutil::MakePipe(&read_end, &write_end));
    EXPECT_EQ(0, Run(nullptr, write_end.get()));
    write_end.reset();
    const pid_t daemon = WaitForDaemon();
    ASSERT_GT(daemon, 0);
    const std::string id = std::to_string(daemon) + " ";
    EXPECT_EQ(id + std::string(10 - id.size(), '\0'), testutil::ReadFile(kPidFile));
    EXPECT_EQ(std::vector<pid_t>{daemon}, Children());
    struct pollfd end = {read_end.get(), POLLIN, 0};
    ASSERT_EQ(1, poll(&end, 1, 5000)) << "the daemon still holds the inherited pipe";
    EXPECT_EQ(0, read(read_end.get(), &end, 1));  // its end, not data
    ASSERT_EQ(0, kill(daemon, SIGUSR2));
    EXPECT_TRUE(testutil::WaitUntil([&] {
        return system(("grep -qs DevicePnPCheck " + kDataDir + "/Tavrine_*").c_str()) == 0;
    }, 5000));
    EXPECT_TRUE(Alive(daemon));
}

// A second start without -f ends and leaves the first daemon and its PID file; -f replaces
// the running daemon; -k ends it and itself.
TEST_F(DaemonProcessTest, SecondStartEndsForceReplacesKillStops) {
    EXPECT_EQ(0, Run(nullptr));
    const pid_t first = WaitForDaemon();
    ASSERT_GT(first, 0);
    const std::string pid_text = testutil::ReadFile(kPidFile);
    EXPECT_EQ(0, Run(nullptr));
    EXPECT_TRUE(testutil::WaitUntil([&] { return Children().size() == 1; }, 8000));
    EXPECT_TRUE(Alive(first));
    EXPECT_EQ(pid_text, testutil::ReadFile(kPidFile));
    EXPECT_EQ(0, Run("-f"));
    const pid_t second = WaitForDaemon(first);
    ASSERT_GT(second, 0);
    EXPECT_TRUE(testutil::WaitUntil([&] { return !Alive(first); }, 8000));
    EXPECT_EQ(0, Run("-k"));
    EXPECT_TRUE(testutil::WaitUntil([&] { return Children().empty(); }, 8000));  // both ended
}

}  // namespace
