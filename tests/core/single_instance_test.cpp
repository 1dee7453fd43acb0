#include "core/single_instance.h"

#include <gtest/gtest.h>
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
using testutil::KillAndReap;
using testutil::kReturned;
using testutil::RunInChild;
using testutil::StartNamedSleeper;
using testutil::TempDir;

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
            ASSERT_TRUE(testutil::WriteFile(dir.File("TouchPID"), content));
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
