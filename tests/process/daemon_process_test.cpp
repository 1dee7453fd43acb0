// Starts the real daemon binary on a data directory in the build tree (no port scanned). The
// test is a child subreaper: the detached daemon is its child and is killed at the end.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/test_util.h"

namespace {

const std::string kDaemon = TAVRINE_DAEMON_TESTDATA, kDataDir = TAVRINE_TEST_DATA_DIR;

class DaemonProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "the daemon ends with status 255 unless run as root";
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
    // Live children, after reaping the ended ones (/proc/<pid>/status names the test as PPid).
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
};

// The daemon detaches, writes its PID file, closes a descriptor its starter left open (the
// pipe's reader sees the end) and survives the plug-and-play signal.
TEST_F(DaemonProcessTest, InheritedDescriptorsAreClosedAtStart) {
    UniqueFd read_end, write_end;
    ASSERT_TRUE(testutil::MakePipe(&read_end, &write_end));
    const pid_t starter = fork();
    if (starter == 0) {
        const int null_fd = OpenCloexec("/dev/null", O_WRONLY);
        dup2(null_fd, 1), dup2(null_fd, 2), dup2(write_end.get(), 7);  // 7: open across the exec
        execl(kDaemon.c_str(), kDaemon.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = -1, daemon = -1;
    ASSERT_EQ(starter, waitpid(starter, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;  // it has detached
    write_end.reset();
    ASSERT_TRUE(testutil::WaitUntil([&] {
        return sscanf(testutil::ReadFile(kDataDir + "/TouchPID").c_str(), "%d", &daemon) == 1 &&
               Children() == std::vector<pid_t>{daemon};
    }, 8000));
    const std::string id = std::to_string(daemon) + " ";
    EXPECT_EQ(id + std::string(10 - id.size(), '\0'), testutil::ReadFile(kDataDir + "/TouchPID"));
    struct pollfd end = {read_end.get(), POLLIN, 0};
    ASSERT_EQ(1, poll(&end, 1, 5000)) << "the daemon still holds the inherited pipe";
    EXPECT_EQ(0, read(read_end.get(), &end, 1));  // its end, not data
    ASSERT_EQ(0, kill(daemon, SIGUSR2));
    EXPECT_TRUE(testutil::WaitUntil([&] {
        return system(("grep -qs DevicePnPCheck " + kDataDir + "/Tavrine_*").c_str()) == 0;
    }, 5000));
    EXPECT_EQ(std::vector<pid_t>{daemon}, Children());  // still running
}

}  // namespace
