// The USB and serial scans, the serial probe against a pty that plays a controller, and the
// probe's reply readers over socketpairs (SOCK_SEQPACKET: one written piece is one read).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <termios.h>

#include <atomic>
#include <memory>
#include <thread>

#include "config/global_settings.h"
#include "core/environment.h"
#include "core/manager.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "discovery/device_list.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"
#include "discovery/serial_scan.h"
#include "discovery/usb_scan.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

using Speeds = std::vector<speed_t>;
const Speeds kAll = {B9600, B19200, B57600, B115200};

using testutil::Hex;

// A serial controller on a pty master: answers the loop-back (41) with loopback only at
// loopback_speed and the IAP query (39) with iap only at iap_speed; records the speeds.
class PtyController {
  public:
    explicit PtyController(speed_t loopback_speed, std::string loopback = "0A0141", speed_t iap_speed = 0,
                           std::string iap = "") {
        EXPECT_TRUE(testutil::OpenPty(&pty_));  // the slave held open keeps the line up
        const int master = pty_.master.release();
        controller_.reset(new FakeController(master));  // owns master
        controller_->SetResponder([=](const Bytes& packet) {
            struct termios now;
            tcgetattr(master, &now);
            const speed_t speed = cfgetospeed(&now);
            (packet[2] == 0x41 ? loopbacks : queries).push_back(speed);  // read after Stop()
            std::vector<TimedReply> replies;
            if (packet[2] == 0x41 && speed == loopback_speed) replies.push_back({0, Hex(loopback)});
            if (packet[2] == 0x39 && speed == iap_speed) replies.push_back({0, Hex(iap)});
            return replies;
        });
        line_at_start = Line();
        controller_->Start();
    }
    const std::string& path() const { return pty_.slave_path; }
    void Stop() { controller_->Stop(); }
    std::string Line() const {  // every byte of the slave's line settings
        struct termios t = {};
        EXPECT_EQ(0, tcgetattr(pty_.slave.get(), &t));
        return std::string(reinterpret_cast<const char*>(&t), sizeof(t));
    }
    std::string line_at_start;
    Speeds loopbacks, queries;

  private:
    testutil::Pty pty_;
    std::unique_ptr<FakeController> controller_;
};

class PortScanTest : public testing::Test {
  protected:
    void SetUp() override {
        memset(&settings_, 0, sizeof(settings_));
        settings_.MaxDeviceNums = 4;
        for (auto& path : settings_.CustomSerialPath) snprintf(path, kTextMax, "default");
    }
    void TearDown() override {
        while (manager_.DeviceListHead) RemoveDevice(&manager_, &manager_.DeviceListHead);
    }

    testutil::TempDir data_;
    GlobalSettings settings_;
    CManager manager_{&settings_};
};

TEST_F(PortScanTest, CheckUSBDeviceRejectsWhatIsNotAHidrawNode) {
    ASSERT_TRUE(testutil::WriteFile(data_.File("hidraw_plain_file"), ""));
    for (const std::string& path : {std::string("/nonexistent/hidraw0"), data_.File("hidraw_plain_file"),
                                    std::string("/dev/null")}) {
        EXPECT_EQ(-1, CheckUSBDevice(&manager_, path.c_str())) << path;
    }
    EXPECT_EQ(0, manager_.DeviceCount);
}

// Non-terminal serial paths get no probe byte (a lure file whose bytes read back like a
// loop-back, the settings file keeps every byte), and a port the list owns is not probed.
TEST_F(PortScanTest, CustomSerialPathsThatAreNotTerminalsAreNeverWritten) {
    const std::string lure = data_.File("lure"), lure_bytes("\x01\x02\x03\x0a\x01\x41\x0a\x01\x41", 9);
    const std::string ini = IniFilePath(), ini_bytes = "[TavrineA.ini]\nDeviceNums 2\n[String]\n[EndOfFile]";
    ASSERT_TRUE(testutil::WriteFile(lure, lure_bytes) && testutil::WriteFile(ini, ini_bytes));
    PtyController owned(B9600);
    manager_.DeviceListHead = new CDeviceObject(owned.path().c_str(), &settings_);
    manager_.DeviceCount = 1;
    testutil::LogCapture log;
    settings_.CustomPathMask = kCustomSerialPathBit;
    const std::string paths[] = {"/dev/null", lure, ini, owned.path()};
    for (int i = 0; i < 4; ++i) snprintf(settings_.CustomSerialPath[i], kTextMax, "%s", paths[i].c_str());
    ScanRS232Port(&manager_);
    owned.Stop();
    EXPECT_EQ(1, manager_.DeviceCount);
    EXPECT_TRUE(owned.loopbacks.empty() && owned.queries.empty());
    EXPECT_EQ(lure_bytes, testutil::ReadFile(lure));
    EXPECT_EQ(ini_bytes, testutil::ReadFile(ini));
    EXPECT_EQ(1, log.Count("Refused device node [/dev/null]: not a terminal"));  // slot 0 is scanned too
}

// Speeds tried (the configured one only, if set), the boot-loader query after each silent
// loop-back, the speed kept (1234: untouched), and the line left as it was found.
class CheckRS232Device : public PortScanTest {};
TEST_F(CheckRS232Device, ProbeAtEachSpeed) {
    const struct {
        uint32_t configured; speed_t loopback_speed, iap_speed; std::string loopback, iap;
        int result; uint32_t kept; Speeds loopbacks, queries;
    } cases[] = {
        {0, B57600, 0, "0A0141", "", 0, 57600, {B9600, B19200, B57600}, {B9600, B19200}},
        {0, 0, B115200, "", "0A0439010000", 0, 115200, kAll, kAll},
        {0, 0, 0, "", "", -1, 1234, kAll, kAll},
        {0, B9600, B9600, "0A0142", "0A0439000000", -1, 1234, kAll, kAll},
        {0, B19200, 0, "0A00", "", -1, 1234, kAll, kAll},
        {19200, B57600, 0, "0A0141", "", -1, 1234, {B19200}, {B19200}},
        {19200, B19200, 0, "0A0141", "", 0, 19200, {B19200}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.configured << " " << c.loopback_speed << " " << c.iap_speed);
        PtyController controller(c.loopback_speed, c.loopback, c.iap_speed, c.iap);
        settings_.BaudRate = c.configured;
        settings_.DeviceBaudRate = 1234;
        EXPECT_EQ(c.result, ::CheckRS232Device(&manager_, controller.path().c_str()));
        controller.Stop();
        EXPECT_EQ(c.kept, settings_.DeviceBaudRate);
        EXPECT_EQ(c.loopbacks, controller.loopbacks);
        EXPECT_EQ(c.queries, controller.queries);
        EXPECT_EQ(controller.line_at_start, controller.Line()) << "line settings not restored";
    }
}

// A socketpair: [0] the port (non-blocking for a stream, as serial ports are), [1] its peer.
std::pair<UniqueFd, UniqueFd> Pair(int type) {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds));
    if (type == SOCK_STREAM) fcntl(fds[0], F_SETFL, O_NONBLOCK);
    return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

// Serial (0A) and USB (03) framing, the leading-byte rule, the tries, fragments: each piece
// is one read; the result and the first max(result, 0) bytes of the reply.
TEST(ReadDeviceResponse, Replies) {
    const std::string longest = "0A3E" + std::string(62 * 2, '5'), junk = "202122", wrong = "0303550000";
    const struct { uint8_t serial; std::vector<std::string> pieces; int result; std::string reply; } cases[] = {
        {1, {"0A0439000100"}, 6, "0A0439000100"},    {1, {"0A0439", "000100"}, -1, ""},
        {1, {"0A0439", "030100"}, 6, "0A0439030100"}, {1, {"000A023900"}, 4, "0A023900"},
        {1, {"550A0139"}, 3, "0A0139"},              {1, {"050A0139"}, -1, ""},
        {1, {longest}, 64, longest},                 {1, {"0A3F3900"}, -1, ""},
        {1, {junk, junk, junk, junk, junk, "0A0139"}, 3, "0A0139"},
        {1, {"0A024207"}, 4, "0A024207"},            {1, {}, -1, ""},
        {0, {wrong, wrong, "0303390100"}, 4, "03023900"}, {0, {wrong, wrong, wrong, "0303390100"}, -1, ""},
        {0, {"0306390102030405"}, 8, "0306390102030405"}, {0, {"000306390102030405"}, 8, "0306390102030405"},
        {0, {"03043905D1D2", "030400D3D4D5"}, 8, "030639D1D2D3D4D5"},
        {0, {"03043905D1D2", "030455D3D4D5"}, -1, ""}, {0, {"030400D3D4D5"}, -1, ""},
        {0, {"03023900"}, 3, "030139"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.pieces));
        auto pair = Pair(SOCK_SEQPACKET);
        for (const std::string& hex : c.pieces) {
            const Bytes p = Hex(hex);
            EXPECT_EQ(ssize_t(p.size()), write(pair.second.get(), p.data(), p.size()));
        }
        ProbeContext context;
        memset(&context, 0xCC, sizeof(context));  // the reader must not rely on a clean buffer
        context.bSerialFraming = c.serial;
        const int result = ReadDeviceResponse(&context, pair.first.get(), context.ReplyBuf, 0x39);
        EXPECT_EQ(c.result, result);
        EXPECT_EQ(Hex(c.reply), Bytes(context.ReplyBuf, context.ReplyBuf + std::max(result, 0)));
    }
}

// The IAP query written (zero byte at each end on an old kernel); 0 for a boot loader's reply.
TEST(IsItBFW, QueryBytesAndReplies) {
    const struct { int serial, old_kernel; std::string reply; int result; std::string written; } cases[] = {
        {1, 0, "0A0439010000", 0, "0A023902"},     {1, 0, "0A0439000200", 0, "0A023902"},
        {1, 1, "0A0439010000", 0, "000A02390200"}, {0, 0, "03053900010000", 0, "03023902"},
        {1, 0, "0A0439000000", -1, "0A023902"},    {1, 0, "0A024100", -1, "0A023902"},
        {1, 0, "0A0400010100", -1, "0A023902"},    {1, 0, "", -1, "0A023902"},
    };
    const int32_t saved = bOldKernel;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        auto pair = Pair(SOCK_STREAM);
        fcntl(pair.second.get(), F_SETFL, O_NONBLOCK);
        const Bytes reply = Hex(c.reply);
        ASSERT_EQ(ssize_t(reply.size()), write(pair.second.get(), reply.data(), reply.size()));
        bOldKernel = c.old_kernel;
        ProbeContext context = {};
        context.bSerialFraming = uint8_t(c.serial);
        EXPECT_EQ(c.result, IsItBFW(&context, pair.first.get(), c.serial));
        uint8_t buf[128];
        const ssize_t n = read(pair.second.get(), buf, sizeof(buf));
        EXPECT_EQ(Hex(c.written), Bytes(buf, buf + std::max<ssize_t>(n, 0)));
    }
    bOldKernel = saved;
}

// Writes first, then late from a thread 20 ms into the wait; the wait's result.
int WaitWithLateBytes(const std::string& first, const std::string& late) {
    auto pair = Pair(SOCK_STREAM);
    ResetSerialReplyParser();
    const Bytes a = Hex(first), b = Hex(late);
    EXPECT_EQ(ssize_t(a.size()), write(pair.second.get(), a.data(), a.size()));
    std::thread writer([&] {
        usleep(20000);
        EXPECT_EQ(ssize_t(b.size()), write(pair.second.get(), b.data(), b.size()));
    });
    const int result = WaitDeviceResponse(pair.first.get());
    writer.join();
    return result;
}

// 0 once a loop-back or a boot loader's IAP reply is whole, never for other packets.
TEST(WaitDeviceResponse, ReplyNoReplyAndSplitReply) {
    const struct { std::string first, late; int result; } cases[] = {
        {"", "", -1},           {"000A0141", "", 0},   {"0A01", "41", 0},        {"0A024200", "", -1},
        {"0A0439", "010000", 0}, {"0A03390000", "", -1}, {"330A033900", "00770A0141", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(c.result, WaitWithLateBytes(c.first, c.late)) << c.first << "|" << c.late;
}

// Endless traffic that never completes an awaited reply holds each reader at most its limit:
// /dev/zero (flood empty), or a peer thread flooding packets (for it only the upper bound holds).
TEST(ReadDeviceResponse, TimeBoundUnderEndlessTraffic) {
    const auto run = [](int reader, int fd) {  // 0, 1: ReadDeviceResponse of that framing; 2: WaitDeviceResponse
        ProbeContext context = {};
        context.bSerialFraming = uint8_t(reader);
        ResetSerialReplyParser();
        return reader == 2 ? WaitDeviceResponse(fd) : ReadDeviceResponse(&context, fd, context.ReplyBuf, 0x41);
    };
    const std::pair<int, std::string> cases[] = {{1, ""}, {0, ""}, {1, "0A3F39"}, {2, ""}, {2, "0A02420055"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.first << " " << c.second);
        const int limit = c.first == 2 ? kWaitResponseLimitMs : kProbeReadLimitMs, slack = c.first == 2 ? 300 : 150;
        auto pair = Pair(c.first < 2 && !c.second.empty() ? SOCK_SEQPACKET : SOCK_STREAM);
        UniqueFd port(c.second.empty() ? OpenCloexec("/dev/zero", O_RDONLY) : pair.first.release());
        std::atomic<bool> stop{false};
        const Bytes piece = Hex(c.second);  // the buffer is filled before the reader starts
        while (!piece.empty() && send(pair.second.get(), piece.data(), piece.size(), MSG_DONTWAIT) > 0) continue;
        std::thread flood([&] {
            while (!piece.empty() && !stop) {
                if (send(pair.second.get(), piece.data(), piece.size(), MSG_DONTWAIT) < 0) usleep(500);
            }
        });
        const int64_t start = testutil::NowMs();
        EXPECT_EQ(-1, run(c.first, port.get()));
        const int64_t ms = testutil::NowMs() - start;
        stop = true;
        flood.join();
        EXPECT_TRUE(!c.second.empty() || ms >= limit - 2) << ms;  // clocks truncated to ms
        EXPECT_LT(ms, limit + slack);
    }
}

}  // namespace
