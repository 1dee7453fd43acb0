// The wait of RunShell: the command's own status comes back as soon as it ends (not at
// the deadline), a command past its time limit is killed and reported as -1, and a
// background child left behind by the shell does not hold the wait.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "core/shell.h"
#include "support/test_util.h"

using testutil::NowMs;

TEST(ShellWait, StatusTimeLimitAndPromptReturn) {
    struct Case {
        const char* command;
        int timeout_ms;
        int exit_code;  // -1: RunShell returns -1 (killed)
        long min_ms;
        long max_ms;
    };
    const Case cases[] = {
        {"exit 3", 5000, 3, 0, 2000},
        {"sleep 0.3", 10000, 0, 300, 2500},   // ends long before its limit
        {"sleep 5", 300, -1, 300, 3000},      // killed at its limit
        {"sleep 5 & exit 0", 10000, 0, 0, 2500},  // the background child is not waited for
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        const int64_t start = NowMs();
        const int status = RunShell(c.command, c.timeout_ms);
        const int64_t took = NowMs() - start;
        if (c.exit_code < 0) {
            EXPECT_EQ(-1, status);
        } else {
            ASSERT_TRUE(WIFEXITED(status));
            EXPECT_EQ(c.exit_code, WEXITSTATUS(status));
        }
        EXPECT_GE(took, c.min_ms);
        EXPECT_LE(took, c.max_ms);
    }
}
