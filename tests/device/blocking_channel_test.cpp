// The blocking command style end to end: a sender thread (SetLoopback, SetFormat) and a
// real receive thread running DevRxLoop on a socketpair, with a controller stand-in that
// answers on time, late, twice, wrongly or never.
#include <errno.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "device/cmd_channel.h"
#include "device/report_format.h"
#include "support/dev_test_util.h"

namespace {

TEST(BlockingChannel, CommandFromAnotherThread) {
    struct Case {
        const char* name;
        bool format;  // SetFormat(1), else SetLoopback
        Bytes reply;  // to command number `answer` (1, 2, ...), `copies` times in one write
        int delay_ms;
        int copies;
        int answer;
        int expect_result;
        size_t expect_commands;  // 0: not checked
        int max_ms;
    };
    const Bytes loopback = {0x0A, 0x01, 0x41};
    const Case cases[] = {
        {"on time", false, loopback, 5, 1, 1, 0, 1, 400},
        // The reply to the first attempt comes after its 500 ms wait: the second attempt's
        // wait takes it.
        {"late", false, loopback, 750, 1, 1, 0, 2, 1500},
        // Only the second attempt is answered: sent again, and it succeeds.
        {"second attempt", false, loopback, 5, 1, 2, 0, 2, 900},
        // Delivered back to back, before the woken sender can take the channel lock again.
        {"doubled", false, loopback, 5, 2, 1, 0, 1, 400},
        {"missing", false, loopback, 0, 0, 1, ETIMEDOUT, 3, 1800},
        {"format confirmed", true, {0x0A, 0x02, 0x33, 0x01}, 5, 1, 1, 0, 1, 400},
        // Same reply command with another format: not the awaited hook, never wakes.
        {"other format", true, {0x0A, 0x02, 0x33, 0x02}, 5, 1, 1, ETIMEDOUT, 0, 10000},
    };
    DevIgnoreSigusr2();
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(false);
        auto seen = std::make_shared<int>(0);
        const uint8_t command = c.format ? 0x34 : 0x41;
        controller.SetResponder([&c, seen, command](const Bytes& packet) {
            std::vector<TimedReply> replies;
            if (packet.size() >= 3 && packet[2] == command && ++*seen == c.answer &&
                c.copies > 0) {
                Bytes all;
                for (int i = 0; i < c.copies; ++i) all.insert(all.end(), c.reply.begin(), c.reply.end());
                replies.push_back({c.delay_ms, all});
            }
            return replies;
        });
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, DEV_RS232);
        dev.NoDeviceCheck = 1;
        StartRxLoopThread(&dev);

        int result = -100;
        int64_t start = DevNowMs();
        std::thread sender([&] { result = c.format ? SetFormat(&dev, 1) : SetLoopback(&dev); });
        sender.join();
        int64_t elapsed = DevNowMs() - start;
        EXPECT_EQ(c.expect_result, result);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);
        if (c.expect_commands) {
            EXPECT_EQ(c.expect_commands, controller.ReceivedCount());
        }
        ASSERT_GE(controller.ReceivedCount(), 1u);
        const Bytes sent = c.format ? Bytes{0x0A, 0x02, 0x34, 0x01} : Bytes{0x0A, 0x01, 0x41};
        EXPECT_EQ(sent, controller.Received()[0]);
        EXPECT_EQ(0, dev.SigHookCmd.load());

        // Whatever happened, the channel is idle again: no wake is left counted (a late or
        // doubled reply), so a following wait without a reply times out.
        usleep(50000);
        EXPECT_EQ(ETIMEDOUT, CmdTimedWait(&dev, 0, 50));

        StopReadThread(&dev);
        controller.Stop();
    }
}

}  // namespace
