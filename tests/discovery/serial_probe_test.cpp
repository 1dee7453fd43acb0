// The serial probe: IsItBFW over a socketpair, and CheckRS232Device against a pty whose
// master side plays a controller that answers only at some line speeds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <termios.h>

#include <string>
#include <tuple>
#include <vector>

#include "config/global_settings.h"
#include "core/environment.h"
#include "core/manager.h"
#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/serial_scan.h"
#include "support/disc_pty_controller.h"

namespace {

// The settings of a line that a probe must leave as it found them.
std::string Line(const struct termios& t) {
    return testing::PrintToString(std::make_tuple(t.c_iflag, t.c_oflag, t.c_cflag, t.c_lflag,
                                                  cfgetospeed(&t))) +
           std::string(reinterpret_cast<const char*>(t.c_cc), sizeof(t.c_cc));
}

using Bytes = std::vector<uint8_t>;
using disc::kAppIAPReply;
using disc::kBootLoaderReply;
using disc::kLoopbackReply;
using disc::PtyController;

// The IAP-type query written, and the reply (queued before the call) judged.
TEST(IsItBFW, QueryBytesAndReplies) {
    struct Case {
        const char* what;
        int serial;
        int32_t old_kernel;
        Bytes reply;
        int result;
        Bytes written;
    };
    const Bytes query = {0x0A, 0x02, 0x39, 0x02};
    const Case cases[] = {
        {"boot loader", 1, 0, kBootLoaderReply, 0, query},
        {"boot loader, second flag byte", 1, 0, {0x0A, 0x04, 0x39, 0x00, 0x02, 0x00}, 0, query},
        {"old kernel: a zero byte at each end", 1, 1, kBootLoaderReply, 0, {0x00, 0x0A, 0x02, 0x39, 0x02, 0x00}},
        {"USB framing", 0, 0, {0x03, 0x05, 0x39, 0x00, 0x01, 0x00, 0x00}, 0, {0x03, 0x02, 0x39, 0x02}},
        {"application firmware", 1, 0, kAppIAPReply, -1, query},
        {"reply to another command", 1, 0, {0x0A, 0x02, 0x41, 0x00}, -1, query},
        {"reply without a command byte", 1, 0, {0x0A, 0x04, 0x00, 0x01, 0x01, 0x00}, -1, query},
        {"silence", 1, 0, {}, -1, query},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
        UniqueFd port(fds[0]), peer(fds[1]);
        ASSERT_EQ(static_cast<ssize_t>(c.reply.size()), write(peer.get(), c.reply.data(), c.reply.size()));
        const int32_t saved = bOldKernel;
        bOldKernel = c.old_kernel;
        ProbeContext context = {};
        context.bSerialFraming = static_cast<uint8_t>(c.serial);
        EXPECT_EQ(c.result, IsItBFW(&context, port.get(), c.serial));
        bOldKernel = saved;
        uint8_t buf[128];
        const ssize_t n = read(peer.get(), buf, sizeof(buf));
        EXPECT_EQ(c.written, Bytes(buf, buf + (n > 0 ? n : 0)));
    }
}

// The speeds tried (9600, 19200, 57600, 115200, or the configured one only), the
// boot-loader query after each unanswered loop-back, the speed kept, and the line left as
// it was found.
TEST(CheckRS232Device, ProbeAtEachSpeed) {
    using Speeds = std::vector<speed_t>;
    const Speeds all = {B9600, B19200, B57600, B115200};
    struct Case {
        const char* what;
        uint32_t configured;
        speed_t loopback_speed;
        Bytes loopback_reply;
        speed_t iap_speed;
        Bytes iap_reply;
        int result;
        uint32_t kept;  // 1234: untouched
        Speeds loopbacks;
        Speeds queries;
    };
    // clang-format off
    const Case cases[] = {
        {"loop-back at 57600", 0, B57600, kLoopbackReply, 0, kBootLoaderReply, 0, 57600, {B9600, B19200, B57600}, {B9600, B19200}},
        {"boot loader at 115200", 0, 0, kLoopbackReply, B115200, kBootLoaderReply, 0, 115200, all, all},
        {"silent", 0, 0, kLoopbackReply, 0, kBootLoaderReply, -1, 1234, all, all},
        {"wrong loop-back, application firmware", 0, B9600, {0x0A, 0x01, 0x42}, B9600, kAppIAPReply, -1, 1234, all, all},
        {"loop-back without its command byte", 0, B19200, {0x0A, 0x00}, 0, kBootLoaderReply, -1, 1234, all, all},
        {"configured 19200, answers at 57600", 19200, B57600, kLoopbackReply, 0, kBootLoaderReply, -1, 1234, {B19200}, {B19200}},
        {"configured 19200, answers at 19200", 19200, B19200, kLoopbackReply, 0, kBootLoaderReply, 0, 19200, {B19200}, {}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        PtyController controller;
        controller.loopback_speed = c.loopback_speed;
        controller.loopback_reply = c.loopback_reply;
        controller.iap_speed = c.iap_speed;
        controller.iap_reply = c.iap_reply;
        const struct termios before = controller.SlaveLine();
        controller.Start();
        GlobalSettings settings;
        memset(&settings, 0, sizeof(settings));
        settings.MaxDeviceNums = 1;
        settings.BaudRate = c.configured;
        settings.DeviceBaudRate = 1234;
        for (int i = 0; i < kSerialPathSlots; ++i) {
            snprintf(settings.CustomSerialPath[i], kTextMax, "default");
        }
        CManager manager(&settings);
        EXPECT_EQ(c.result, CheckRS232Device(&manager, controller.slave_path().c_str()));
        controller.Stop();
        EXPECT_EQ(c.kept, settings.DeviceBaudRate);
        Speeds loopbacks, queries;
        for (const auto& seen : controller.Seen()) {
            if (seen.first == 0x41) loopbacks.push_back(seen.second);
            if (seen.first == 0x39) queries.push_back(seen.second);
        }
        EXPECT_EQ(c.loopbacks, loopbacks);
        EXPECT_EQ(c.queries, queries);
        EXPECT_EQ(Line(before), Line(controller.SlaveLine()));
    }
}

}  // namespace
