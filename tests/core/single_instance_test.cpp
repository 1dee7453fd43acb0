#include "core/single_instance.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "config/global_settings.h"
#include "support/test_util.h"

namespace {

using testutil::ChildResult;
using testutil::FileExists;
using testutil::ReadFile;
using testutil::WriteFile;
using testutil::kReturned;
using testutil::RunInChild;
using testutil::TempDir;

// Starts a copy of /bin/sleep named name (so its /proc status name is name) for the
// given seconds, in a directory of dir. Returns its pid, or -1.
pid_t StartNamedSleeper(const std::string& dir, const char* name, int seconds) {
    const std::string copy = dir + "/" + name;
    if (!FileExists(copy)) {
        std::string bytes = ReadFile("/bin/sleep");
        if (bytes.empty() || !WriteFile(copy, bytes) || chmod(copy.c_str(), 0755) != 0) return -1;
    }
    char arg[16];
    snprintf(arg, sizeof(arg), "%d", seconds);
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        execl(copy.c_str(), name, arg, static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid < 0) return -1;
    // Wait until the exec has happened, so /proc/<pid>/status shows the new name.
    char status_path[64];
    snprintf(status_path, sizeof(status_path), "/proc/%d/status", static_cast<int>(pid));
    for (int i = 0; i < 500; ++i) {
        std::string status = ReadFile(status_path);
        if (status.compare(0, 6 + strlen(name), std::string("Name:\t") + name) == 0) return pid;
        usleep(2000);
    }
    return pid;
}

// SIGKILL and reap a child started by this process; no-op for pid <= 0.
void KillAndReap(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

std::string PidText(pid_t pid) {
    char text[16];
    snprintf(text, sizeof(text), "%d ", static_cast<int>(pid));
    return std::string(text) + std::string(10 - strlen(text), '\0');
}

bool IsAlive(pid_t pid) {
    // A child that died stays a zombie until reaped: look at its state, not only kill(0).
    int status;
    return waitpid(pid, &status, WNOHANG) == 0;
}

struct Flags {
    uint8_t kill;
    uint8_t force;
};

// Runs CheckSingleInstance in a child with the given flags.
ChildResult CheckInChild(Flags flags) {
    return RunInChild([flags] {
        GlobalSettings settings;
        memset(&settings, 0, sizeof(settings));
        settings.KillRunning = flags.kill;
        settings.ForceRestart = flags.force;
        CheckSingleInstance(&settings);
    });
}

// A PID file that is missing or names no other daemon: -k with a PID file has nothing to
// stop and exits 0, every other start carries on. Nothing is ever killed: not a live
// process of another name, not the caller itself, and never a process group (ids 0 and
// -1). (A running daemon is stopped or kept by the process tests, on the real binary.)
TEST(SingleInstanceTest, StalePidFileKillsNothing) {
    TempDir dir;
    const pid_t sleeper = StartNamedSleeper(dir.path(), "sleepy", 30);
    ASSERT_GT(sleeper, 0);
    const pid_t dead = StartNamedSleeper(dir.path(), "TavrineDead", 30);
    KillAndReap(dead);

    const char* kMissing = "(missing)";
    const std::string contents[] = {
        kMissing, PidText(sleeper), PidText(dead), "0 ", "-1 ", "garbage",
    };
    for (const std::string& content : contents) {
        SCOPED_TRACE(content);
        unlink(dir.File("TouchPID").c_str());
        if (content != kMissing) {
            ASSERT_TRUE(WriteFile(dir.File("TouchPID"), content));
        }
        for (Flags flags : {Flags{1, 0}, Flags{0, 0}, Flags{0, 1}}) {
            ChildResult child = CheckInChild(flags);
            ASSERT_TRUE(child.exited);  // not killed by a group signal
            const bool ends = flags.kill && content != kMissing;
            EXPECT_EQ(ends ? 0 : kReturned, child.status) << int(flags.kill) << int(flags.force);
        }
        EXPECT_TRUE(IsAlive(sleeper));
    }
    KillAndReap(sleeper);
}

TEST(SingleInstanceTest, RootCheckEndsWithStatus255ForOtherUsers) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to switch to another user";
    ChildResult root = RunInChild([] { CheckRootPermission(); });
    ASSERT_TRUE(root.exited);
    EXPECT_EQ(kReturned, root.status);

    TempDir dir;
    ChildResult other = RunInChild([] {
        if (setuid(65534) != 0) _exit(3);
        CheckRootPermission();
    });
    ASSERT_TRUE(other.exited);
    EXPECT_EQ(255, other.status);
}

}  // namespace
