#include "core/pnp_signal.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include "core/environment.h"
#include "log/debug_log.h"
#include "support/core_test_util.h"

namespace {

using coretest::LogCapture;

const char* kReceived = "Receive signal SIGUSR2. Set bDeviceExistCheck true.";

TEST(PnpSignalTest, EachSignalIsCountedAndLoggedOnce) {
    struct sigaction old_action;
    ASSERT_EQ(0, sigaction(SIGUSR2, nullptr, &old_action));
    ASSERT_EQ(0, InstallSigUsr2Handler());
    struct sigaction installed;
    ASSERT_EQ(0, sigaction(SIGUSR2, nullptr, &installed));
    EXPECT_EQ(&OnSignalUSR2, installed.sa_handler);
    EXPECT_TRUE(installed.sa_flags & SA_RESTART);
    EXPECT_FALSE(installed.sa_flags & SA_RESETHAND);  // stays installed

    LogCapture log;
    uint32_t none = 1;
    coretest::Quiet([&] { none = LogReceivedSigUsr2(); });
    EXPECT_EQ(0u, none);
    EXPECT_TRUE(log.lines().empty());

    bDeviceExistCheck.store(0);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, raise(SIGUSR2));  // delivered before raise returns
    EXPECT_EQ(1, bDeviceExistCheck.load());
    uint32_t counted = 0;
    coretest::Quiet([&] { counted = LogReceivedSigUsr2(); });
    EXPECT_EQ(3u, counted);
    EXPECT_EQ(3, log.Count(kReceived));
    EXPECT_EQ(3u, log.lines().size());

    // The count starts again from zero; the flag is the scan loop's to clear.
    coretest::Quiet([&] { counted = LogReceivedSigUsr2(); });
    EXPECT_EQ(0u, counted);
    EXPECT_EQ(3u, log.lines().size());
    EXPECT_EQ(1, bDeviceExistCheck.load());

    // Other signal numbers reaching the handler change nothing.
    bDeviceExistCheck.store(0);
    OnSignalUSR2(SIGUSR1);
    OnSignalUSR2(SIGHUP);
    EXPECT_EQ(0, bDeviceExistCheck.load());
    coretest::Quiet([&] { counted = LogReceivedSigUsr2(); });
    EXPECT_EQ(0u, counted);

    ASSERT_EQ(0, sigaction(SIGUSR2, &old_action, nullptr));
}

}  // namespace
