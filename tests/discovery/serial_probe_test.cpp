// The serial probe: CheckIAPReply, IsItBFW over a socketpair, and CheckRS232Device against
// a pty whose master side plays a controller that answers only at some line speeds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <termios.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/global_settings.h"
#include "core/environment.h"
#include "core/manager.h"
#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/serial_scan.h"
#include "support/disc_log_capture.h"
#include "support/disc_pty_controller.h"

namespace {

using Bytes = std::vector<uint8_t>;
using disc::kAppIAPReply;
using disc::kBootLoaderReply;
using disc::kLoopbackReply;
using disc::PtyController;

TEST(CheckIAPReply, Table) {
    struct Case {
        Bytes reply;
        int result;
        const char* message;  // nullptr: no message expected
    };
    const Case cases[] = {
        {{0x0A, 0x04, 0x39, 0x01, 0x00, 0x00}, 0, "The content of target device is BootLoader"},
        {{0x0A, 0x04, 0x39, 0x00, 0x02, 0x00}, 0, "The content of target device is BootLoader"},
        {{0x03, 0x04, 0x39, 0xFF, 0xFF, 0x00}, 0, "The content of target device is BootLoader"},
        {{0x0A, 0x04, 0x39, 0x00, 0x00, 0x07}, -1, nullptr},
        {{0x0A, 0x02, 0x41, 0x00, 0x00, 0x00}, -1, "IAP CmdHeader Dismatch"},
        {{0x0A, 0x04, 0x00, 0x01, 0x01, 0x00}, -1, "IAP CmdHeader Dismatch"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.reply));
        DiscLogCapture log;
        uint8_t reply[kReplyBufSize] = {};
        memcpy(reply, c.reply.data(), c.reply.size());
        EXPECT_EQ(c.result, CheckIAPReply(reply));
        if (c.message) {
            EXPECT_EQ(1, log.Count(c.message));
        } else {
            EXPECT_EQ(0, log.Count("BootLoader"));
            EXPECT_EQ(0, log.Count("Dismatch"));
        }
    }
}

// --- IsItBFW over a socketpair: the reply is queued before the call -----------------------

struct BfwOutcome {
    int result;
    Bytes written;
};

BfwOutcome RunIsItBFW(int serial, int32_t old_kernel, const Bytes& reply) {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    UniqueFd port(fds[0]), peer(fds[1]);
    fcntl(port.get(), F_SETFL, O_NONBLOCK);
    if (!reply.empty()) {
        EXPECT_EQ(static_cast<ssize_t>(reply.size()),
                  write(peer.get(), reply.data(), reply.size()));
    }
    const int32_t saved = bOldKernel;
    bOldKernel = old_kernel;
    ProbeContext context = {};
    context.bSerialFraming = static_cast<uint8_t>(serial);
    BfwOutcome out;
    out.result = IsItBFW(&context, port.get(), serial);
    bOldKernel = saved;
    uint8_t buf[128];
    fcntl(peer.get(), F_SETFL, O_NONBLOCK);
    ssize_t n = read(peer.get(), buf, sizeof(buf));
    if (n > 0) out.written.assign(buf, buf + n);
    return out;
}

TEST(IsItBFW, QueryBytesAndReplies) {
    DiscLogCapture log;
    BfwOutcome bfw = RunIsItBFW(1, 0, kBootLoaderReply);
    EXPECT_EQ(0, bfw.result);
    EXPECT_EQ((Bytes{0x0A, 0x02, 0x39, 0x02}), bfw.written);
    EXPECT_EQ(2, log.Count("Write cmd=0x2"));  // written a byte at a time, each logged
    EXPECT_EQ(1, log.Count("Write cmd=0xA"));
    EXPECT_EQ(1, log.Count("Write cmd=0x39"));
    EXPECT_TRUE(log.Contains("The content of target device is BootLoader"));

    // Old kernels: one zero byte at each end.
    BfwOutcome old = RunIsItBFW(1, 1, kBootLoaderReply);
    EXPECT_EQ(0, old.result);
    EXPECT_EQ((Bytes{0x00, 0x0A, 0x02, 0x39, 0x02, 0x00}), old.written);

    // USB framing, written in one piece.
    log.Clear();
    BfwOutcome usb = RunIsItBFW(0, 0, {0x03, 0x05, 0x39, 0x00, 0x01, 0x00, 0x00});
    EXPECT_EQ(0, usb.result);
    EXPECT_EQ((Bytes{0x03, 0x02, 0x39, 0x02}), usb.written);
    EXPECT_EQ(0, log.Count("Write cmd="));

    log.Clear();
    EXPECT_EQ(-1, RunIsItBFW(1, 0, kAppIAPReply).result);
    EXPECT_EQ(0, log.Count("BootLoader"));
    EXPECT_EQ(0, log.Count("Dismatch"));
    EXPECT_EQ(-1, RunIsItBFW(1, 0, {0x0A, 0x02, 0x41, 0x00}).result);
    EXPECT_TRUE(log.Contains("IAP CmdHeader Dismatch"));
    EXPECT_EQ(-1, RunIsItBFW(1, 0, {}).result);  // silence
}

TEST(IsItBFW, ShortWriteIsReported) {
    DiscLogCapture log;
    UniqueFd read_only(OpenCloexec("/dev/null", O_RDONLY));
    ASSERT_TRUE(read_only.valid());
    ProbeContext context = {};
    context.bSerialFraming = 1;
    EXPECT_EQ(-1, IsItBFW(&context, read_only.get(), 1));
    EXPECT_TRUE(log.Contains("Send get IAP type cmd failed with ret=0"));
}

// --- CheckRS232Device against a pty --------------------------------------------------------

GlobalSettings ProbeSettings(uint32_t baud) {
    GlobalSettings settings;
    memset(&settings, 0, sizeof(settings));
    settings.MaxDeviceNums = 1;
    settings.BaudRate = baud;
    settings.DeviceBaudRate = 1234;  // sentinel: untouched unless a controller answers
    for (int i = 0; i < kSerialPathSlots; ++i) {
        snprintf(settings.CustomSerialPath[i], kTextMax, "default");
    }
    return settings;
}

void ExpectSameLine(const struct termios& a, const struct termios& b) {
    EXPECT_EQ(a.c_iflag, b.c_iflag);
    EXPECT_EQ(a.c_oflag, b.c_oflag);
    EXPECT_EQ(a.c_cflag, b.c_cflag);
    EXPECT_EQ(a.c_lflag, b.c_lflag);
    EXPECT_EQ(cfgetospeed(&a), cfgetospeed(&b));
    EXPECT_EQ(0, memcmp(a.c_cc, b.c_cc, sizeof(a.c_cc)));
}

std::vector<speed_t> SpeedsOf(const std::vector<std::pair<uint8_t, speed_t>>& seen, uint8_t cmd) {
    std::vector<speed_t> speeds;
    for (const auto& s : seen) {
        if (s.first == cmd) speeds.push_back(s.second);
    }
    return speeds;
}

TEST(CheckRS232Device, SearchStopsAtTheSpeedThatAnswers) {
    DiscLogCapture log;
    PtyController controller;
    controller.loopback_speed = B57600;
    const struct termios before = controller.SlaveLine();
    controller.Start();
    GlobalSettings settings = ProbeSettings(0);
    CManager manager(&settings);
    EXPECT_EQ(0, CheckRS232Device(&manager, controller.slave_path().c_str()));
    controller.Stop();

    EXPECT_EQ(57600u, settings.DeviceBaudRate);
    auto seen = controller.Seen();
    EXPECT_EQ((std::vector<speed_t>{B9600, B19200, B57600}), SpeedsOf(seen, 0x41));
    // Below 57600 the boot-loader query followed the unanswered loop-back.
    EXPECT_EQ((std::vector<speed_t>{B9600, B19200}), SpeedsOf(seen, 0x39));
    ExpectSameLine(before, controller.SlaveLine());
    int i9600 = log.Find("Baudrate [9600]");
    int i19200 = log.Find("Baudrate [19200]", i9600);
    int i57600 = log.Find("Baudrate [57600]", i19200);
    EXPECT_GE(i9600, 0);
    EXPECT_GT(i19200, i9600);
    EXPECT_GT(i57600, i19200);
    EXPECT_FALSE(log.Contains("Baudrate [115200]"));
}

TEST(CheckRS232Device, SilentOrWrongAnswersAreNeverAccepted) {
    struct Case {
        const char* name;
        speed_t loopback_speed;
        Bytes loopback_reply;
        speed_t iap_speed;
        Bytes iap_reply;
    };
    const Case cases[] = {
        {"silent", 0, kLoopbackReply, 0, kBootLoaderReply},
        // Loop-back answered at 9600 with another command, IAP answered as application firmware.
        {"wrong loop-back", B9600, {0x0A, 0x01, 0x42}, B9600, kAppIAPReply},
        {"loop-back without its command byte", B19200, {0x0A, 0x00}, 0, kBootLoaderReply},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PtyController controller;
        controller.loopback_speed = c.loopback_speed;
        controller.loopback_reply = c.loopback_reply;
        controller.iap_speed = c.iap_speed;
        controller.iap_reply = c.iap_reply;
        const struct termios before = controller.SlaveLine();
        controller.Start();
        GlobalSettings settings = ProbeSettings(0);
        CManager manager(&settings);
        EXPECT_EQ(-1, CheckRS232Device(&manager, controller.slave_path().c_str()));
        controller.Stop();
        EXPECT_EQ(1234u, settings.DeviceBaudRate);
        EXPECT_EQ((std::vector<speed_t>{B9600, B19200, B57600, B115200}),
                  SpeedsOf(controller.Seen(), 0x41));
        ExpectSameLine(before, controller.SlaveLine());
    }
}

TEST(CheckRS232Device, ConfiguredSpeedOnly) {
    for (speed_t answer : {B57600, B19200}) {
        DiscLogCapture log;
        PtyController controller;
        controller.loopback_speed = answer;
        controller.Start();
        GlobalSettings settings = ProbeSettings(19200);
        CManager manager(&settings);
        int result = CheckRS232Device(&manager, controller.slave_path().c_str());
        controller.Stop();
        EXPECT_EQ(answer == B19200 ? 0 : -1, result);
        EXPECT_EQ(answer == B19200 ? 19200u : 1234u, settings.DeviceBaudRate);
        EXPECT_EQ(std::vector<speed_t>{B19200}, SpeedsOf(controller.Seen(), 0x41));
        EXPECT_EQ(1, log.Count("Set Baudrate to [19200]"));
        EXPECT_EQ(0, log.Count("Baudrate [9600]"));
    }
}

TEST(CheckRS232Device, BootLoaderAcceptedThroughTheIAPReply) {
    DiscLogCapture log;
    PtyController controller;
    controller.iap_speed = B115200;
    const struct termios before = controller.SlaveLine();
    controller.Start();
    GlobalSettings settings = ProbeSettings(0);
    CManager manager(&settings);
    EXPECT_EQ(0, CheckRS232Device(&manager, controller.slave_path().c_str()));
    controller.Stop();
    EXPECT_EQ(115200u, settings.DeviceBaudRate);
    EXPECT_EQ((std::vector<speed_t>{B9600, B19200, B57600, B115200}),
              SpeedsOf(controller.Seen(), 0x39));
    EXPECT_TRUE(log.Contains("The content of target device is BootLoader"));
    ExpectSameLine(before, controller.SlaveLine());
}

TEST(CheckRS232Device, PortThatCannotBeOpened) {
    DiscLogCapture log;
    GlobalSettings settings = ProbeSettings(0);
    CManager manager(&settings);
    EXPECT_EQ(-1, CheckRS232Device(&manager, "/nonexistent/ttyS9"));
    EXPECT_TRUE(
        log.Contains("Open port [/nonexistent/ttyS9] failed with fd=-1. This may be caused "
                     "by executing with non-root permission."));
    EXPECT_EQ(1234u, settings.DeviceBaudRate);
}

}  // namespace
