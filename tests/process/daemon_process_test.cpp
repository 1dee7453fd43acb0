// Starts the real daemon (build-tree data directory, no port scanned); the test is a subreaper.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>
#include <sstream>

#include "support/test_util.h"

namespace {

using namespace testutil;
const std::string kDaemon = TAVRINE_DAEMON_TESTDATA, kDataDir = TAVRINE_TEST_DATA_DIR,
                  kPidFile = kDataDir + "/TouchPID";

class DaemonProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "the daemon ends with status 255 unless run as root";
        // One daemon test at a time, also across test programs run in parallel.
        lock_fd_.reset(OpenCloexec((kDataDir + ".lock").c_str(), O_RDWR | O_CREAT, 0644));
        ASSERT_TRUE(!flock(lock_fd_.get(), LOCK_EX) && !prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) &&
                    !system(("rm -rf " + kDataDir + " && mkdir " + kDataDir).c_str()) &&
                    WriteFile(kDataDir + "/TavrineA.ini", "[TavrineA.ini] DebugEnableBits 3 "
                              "ShowDebugPosition 0 DeviceNums 1 ScanInterface 4\n[EndOfFile]"));
    }
    void TearDown() override {  // every child left is killed, and what those leave behind
        WaitUntil([&] { return Children(SIGKILL).empty(); }, 3000);
    }
    // Exit status of the start (0 once detached); inherited >= 0 is left open as descriptor 7.
    int Run(const char* arg, int inherited = -1) {
        return RunInChild([&] {
            const int null_fd = OpenCloexec("/dev/null", O_WRONLY);
            dup2(null_fd, 1), dup2(null_fd, 2), inherited < 0 || dup2(inherited, 7);
            execl(kDaemon.c_str(), kDaemon.c_str(), arg, static_cast<char*>(nullptr));
        }).status;
    }
    std::vector<pid_t> Children(int signal = 0) {  // the live ones (sent signal), ended ones reaped
        while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
        std::istringstream list(ReadFile("/proc/thread-self/children"));  // the test's one thread
        const std::vector<pid_t> live{std::istream_iterator<pid_t>(list), {}};
        for (pid_t pid : live) kill(pid, signal);
        return live;
    }
    bool Alive(pid_t pid) { return Children(), kill(pid, 0) == 0; }
    pid_t WaitForDaemon(pid_t not_this = -1) {  // the live one the PID file names, -1 after 8 s
        int pid = -1;
        const auto named = [&] { return sscanf(ReadFile(kPidFile).c_str(), "%d", &pid) == 1; };
        return WaitUntil([&] { return named() && pid != not_this && Alive(pid); }, 8000) ? pid : -1;
    }
    UniqueFd lock_fd_;
};

// The daemon detaches, writes its PID file, closes inherited descriptors, survives SIGUSR2.
TEST_F(DaemonProcessTest, InheritedDescriptorsAreClosedAtStart) {
    UniqueFd read_end, write_end;
    ASSERT_TRUE(MakePipe(&read_end, &write_end));
    EXPECT_EQ(0, Run(nullptr, write_end.get()));
    write_end.reset();
    const pid_t daemon = WaitForDaemon();
    ASSERT_GT(daemon, 0);  // the PID file: its id, a blank, NULs to 10 bytes
    EXPECT_EQ((std::to_string(daemon) + " " + std::string(9, 0)).substr(0, 10), ReadFile(kPidFile));
    EXPECT_EQ(std::vector<pid_t>{daemon}, Children());
    struct pollfd end = {read_end.get(), POLLIN, 0};  // the pipe's end, not data
    EXPECT_TRUE(poll(&end, 1, 5000) == 1 && read(read_end.get(), &end, 1) == 0);
    ASSERT_EQ(0, kill(daemon, SIGUSR2));
    EXPECT_TRUE(WaitUntil([&] {
        return system(("grep -qs DevicePnPCheck " + kDataDir + "/Tavrine_*").c_str()) == 0;
    }, 5000) && Alive(daemon));
}

// A second start without -f ends and leaves the first daemon; -f replaces it.
TEST_F(DaemonProcessTest, SecondStartEndsForceReplaces) {
    EXPECT_EQ(0, Run(nullptr));
    const pid_t first = WaitForDaemon();
    ASSERT_TRUE(first > 0 && Run(nullptr) == 0);
    EXPECT_TRUE(WaitUntil([&] { return Children().size() == 1; }, 8000));
    EXPECT_EQ(first, WaitForDaemon());  // alive, and still in the PID file
    ASSERT_EQ(0, Run("-f"));
    EXPECT_TRUE(WaitForDaemon(first) > 0 && WaitUntil([&] { return !Alive(first); }, 8000));
}

}  // namespace
