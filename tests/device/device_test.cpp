// The device object against a controller stand-in (socketpair or pty).
#include <gtest/gtest.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "core/environment.h"
#include "device/cmd_channel.h"
#include "device/identification.h"
#include "device/report_format.h"
#include "device/rx_wait.h"
#include "device/setup.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

using Script = std::map<uint8_t, std::vector<Bytes>>;  // command byte -> reply packets
using testutil::Hex;
using testutil::NowMs;
using testutil::Pty;

class CommandTest : public testing::Test {
  protected:
    void SetUp() override {
        DevIgnoreSigusr2();
        snprintf(settings_.UinputPath, sizeof(settings_.UinputPath), "%s/none",
                 data_.path().c_str());
        settings_.CustomPathMask = kCustomUinputPathBit;  // no uinput: set-up ends there
        KernelVersion = {3, 4, 0};
    }
    void TearDown() override { KernelVersion = saved_kernel_; }
    // A device on the daemon end of a started controller stand-in; script answers each
    // command byte with its packets.
    std::unique_ptr<CDeviceObject> Device(
        FakeController* controller, bool usb,
        std::function<std::vector<TimedReply>(const Bytes&)> respond) {
        controller->SetResponder(respond);
        controller->Start();
        auto dev =
            std::make_unique<CDeviceObject>(usb ? "/dev/hidraw99" : "/dev/ttyS99", &settings_);
        AttachPort(dev.get(), controller, usb ? DEV_USB : DEV_RS232);
        return dev;
    }
    testutil::TempDir data_;
    GlobalSettings settings_ = DevTestSettings();
    KernelVersionInfo saved_kernel_ = KernelVersion;
};

// Polling and blocking exchanges, the `answer`th write answered after delay_ms: when writes repeat.
TEST_F(CommandTest, ExchangesWriteAgainOnlyAfterASilentPeriod) {
    // clang-format off
    const struct { std::string mode; const char* reply; int delay_ms, answer, result; size_t min_writes, writes; int min_ms, max_ms; } cases[] = {
        {"poll", "030141", 10, 1, 1, 1, 1, 0, 500}, {"poll", "030141", 600, 1, 1, 1, 2, 550, 1100},
        {"poll", "030141", 10, 2, 1, 2, 2, 450, 1000}, {"poll", "", 0, 1, 0, 3, 3, 1450, 1500},
        {"poll chatter", "", 0, 1, 0, 1, 1, 2900, 3000}, {"poll no port", "", 0, 1, 0, 0, 0, 1450, 1500},
        {"loopback", "0a0141", 5, 1, 0, 1, 1, 0, 400}, {"loopback", "0a0141", 750, 1, 0, 2, 2, 0, 1500},
        {"loopback", "0a0141", 5, 2, 0, 2, 2, 0, 900}, {"loopback", "0a0141 0a0141", 5, 1, 0, 1, 1, 0, 400},
        {"loopback", "", 0, 1, ETIMEDOUT, 3, 3, 0, 1800}, {"format", "0a023301", 5, 1, 0, 1, 1, 0, 400},
        {"format", "0a023302", 5, 1, ETIMEDOUT, 1, 3, 0, 10000},  // another format never wakes the sender
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.mode << ": " << c.reply << " after " << c.delay_ms << " ms");
        const bool poll = c.mode.rfind("poll", 0) == 0, format = c.mode == "format";
        const Bytes command = Hex(poll ? "030141" : format ? "0a023401" : "0a0141");
        testutil::LogCapture log;
        int seen = 0;
        FakeController controller(poll);
        auto dev = Device(&controller, poll, [&c, &seen, command](const Bytes& packet) {
            std::vector<TimedReply> replies;
            if (packet == command && ++seen == c.answer && *c.reply)
                replies.push_back({c.delay_ms, Hex(c.reply)});
            for (int i = 0; c.mode == "poll chatter" && seen == 1 && i < 60; ++i)
                replies.push_back({100, Hex("030144")});
            return replies;
        });
        int result = -100;
        const int64_t start = NowMs();
        if (poll) {
            if (c.mode == "poll no port") dev->m_Port_fd.reset();
            dev->SelfHookSubCmd = kAnySubCmd, dev->SelfHookCmd = 0x41;
            memcpy(dev->CmdSendBuf, command.data(), 3);
            SelfRecv(dev.get(), 3);
            result = dev->bSelfHookReplied.load() && dev->CmdReplyBuf[2] == 0x41;
        } else {
            dev->NoDeviceCheck = 1;
            StartRxLoopThread(dev.get());
            std::thread([&] {
                result = format ? SetFormat(dev.get(), 1) : SetLoopback(dev.get());
            }).join();
        }
        const int64_t elapsed = NowMs() - start;
        EXPECT_EQ(c.result, result);
        // A loaded host may delay the late reply's window edge; never a write too many.
        EXPECT_GE(controller.ReceivedCount(), c.min_writes);
        EXPECT_LE(controller.ReceivedCount(), c.writes);
        EXPECT_EQ(std::vector<Bytes>(controller.ReceivedCount(), command), controller.Received());
        EXPECT_GE(elapsed, c.min_ms);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);
        if (!poll) {
            EXPECT_EQ(0, dev->SigHookCmd.load());
            usleep(50000);  // no wake is left counted (a late or doubled reply)
            EXPECT_EQ(ETIMEDOUT, CmdTimedWait(dev.get(), 0, 50));
            const int64_t stop = NowMs();
            EXPECT_EQ(0, StopReadThread(dev.get()));
            EXPECT_LT(NowMs() - stop, kStopBoundMs);
            EXPECT_FALSE(dev->bThreadCreated ||
                         log.Contains("Call pthread_kill"));  // it was signalled
            EXPECT_EQ(0, StopReadThread(dev.get()));
        }
        controller.Stop();
    }
}

// Runs one command by name and gives what it read (after set-up: what the device learnt).
int RunCommand(CDeviceObject* d, const std::string& call, std::string* out) {
    char text[kTextMax] = "keep";
    uint8_t id = 0, on = 0, count = 0;
    uint16_t word = 0xBEEF;
    int ret = 0;
    const auto get = call == "fw" ? GetFWVersion : call == "model" ? GetModelName : GetTypeName;
    if (call == "fw" || call == "model" || call == "type") ret = get(d, text), *out = text;
    if (call.rfind("ee ", 0) == 0)
        ret = GetEEData(d, std::stoi(call.substr(3), nullptr, 16), &word);
    if (call.rfind("ee ", 0) == 0) *out = std::to_string(word);
    if (call == "rclk") ret = GetRCLKFormat(d, &id, &on, &count);
    if (call == "rclk")
        *out = std::to_string(id) + " " + std::to_string(on) + " " + std::to_string(count);
    if (call == "rclk off") DisableRCLKFunction(d);
    if (call == "feature twice") ret = SetFeature(d) > 0 && SetFeature(d) > 0 ? 0 : -1;
    if (call == "format on its own thread")
        MarkRxThreadOf(d), ret = SetFormat(d, 1), MarkRxThreadOf(nullptr);
    if (call == "setup")
        ret = DevSetup(d),
        *out = std::string(d->TypeName) + " " + d->FWVersion + " " + d->ModelName;
    if (call == "setup")
        *out += " " + std::to_string(d->bPCAP) + " " + std::to_string(d->Param.EventType);
    return ret;
}

// Replies each command takes, and set-up up to the missing uinput: commands sent, what it learns.
TEST_F(CommandTest, RepliesEachCommandAccepts) {
    const Bytes fmt = Hex("030433 078132"), done = Hex("030433");
    std::vector<Bytes> long_text = {Hex("030444 64 5656")};  // 100 'V' in fragments
    for (int left = 98; left > 0; left -= 3)
        long_text.push_back(Hex(left >= 3 ? "030400 565656" : "030300 5656"));
    const std::string unreachable = "UNREACHABLE UNREACHABLE UNREACHABLE";
    // clang-format off
    const struct { bool usb; int32_t series; Script script; const char* call; int result; std::string out; const char *commands, *last; } cases[] = {
        {true, 0, {{0x44, long_text}}, "fw", 0, std::string(63, 'V'), "44", nullptr},
        {true, 0, {{0x45, {Hex("030645 41424344454647")}}}, "model", 0, "ABCDE", "45", nullptr},
        {true, 0, {{0x46, {Hex("030746 504300 58595a")}}}, "type", 0, "PC", "46", nullptr},
        {false, 0, {{0x44, {Hex("0a0144")}}}, "fw", 0, "keep", "44", "0a0144"},  // length byte 1
        {false, 0, {{0x45, {Hex("0a0246 51")}}}, "model", -1, "keep", "45 45 45", nullptr},
        {false, 0, {{0x43, {Hex("0a0443 392301")}}}, "ee 39", 0, "291", "43", "0a0243 39"},
        {false, 0, {{0x43, {Hex("0a0443 392301")}}}, "ee 10", -1, "48879", "43", nullptr},
        {true, 0, {{0x35, {fmt}}}, "rclk", 0, "1 1 50", "35", "030435 07ff00"},
        {true, 0, {{0x35, {Hex("030233 078132")}}}, "rclk", -1, "0 0 0", "35", nullptr},  // length byte not 4
        {true, 0, {{0x35, {fmt}}, {0x34, {done}}}, "rclk off", 0, "", "35 34", "030434 070132"},
        {true, SERIES_LOMBAR, {{0x43, {Hex("030443 392301")}}, {0x34, {done}}}, "rclk off", 0, "", "43 34", "030434 070300"},
        {true, 0, {}, "feature twice", 0, "", "00 00", "050200 000000"},
        {true, 0, {{0x34, {Hex("030233 01")}}}, "format on its own thread", 0, "", "34", "030234 010000"},
        {true, 0, {}, "format on its own thread", -1, "", "34 34 34", nullptr},
        {true, 0, {{0x34, {Hex("030233 02")}}}, "format on its own thread", -1, "", "34 34 34", nullptr},  // another format
        {false, 0, {{0x39, {Hex("0a0439 040000")}}, {0x46, {Hex("0a0646 5043415036")}}, {0x44, {Hex("0a0344 3132")}},
          {0x45, {Hex("0a0345 4d31")}}}, "setup", -1, "PCAP6 12 M1 1 2", "39 46 44 45 46", nullptr},
        {false, 0, {{0x39, {Hex("0a0439 040200")}}}, "setup", -1, unreachable + " 0 2", "39", "0a023902"},  // boot firmware
        {true, 0, {}, "setup", -1, unreachable + " 0 1", "", nullptr},  // USB without a vendor report
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.call << " #" << &c - cases);
        FakeController controller(c.usb);
        auto dev = Device(&controller, c.usb, [&c](const Bytes& packet) {
            std::vector<TimedReply> replies;
            auto it = packet.size() >= 3 ? c.script.find(packet[2]) : c.script.end();
            for (size_t i = 0; it != c.script.end() && i < it->second.size(); ++i)
                replies.push_back({1, it->second[i]});
            return replies;
        });
        dev->Series = c.series;
        std::string out;
        EXPECT_EQ(c.result, RunCommand(dev.get(), c.call, &out));
        EXPECT_EQ(c.out, out);
        controller.WaitForPackets(Hex(c.commands).size(), 1000);  // a command without a reply
        usleep(20000);
        Bytes commands;  // the command byte of each packet received
        for (const Bytes& p : controller.Received()) commands.push_back(p.size() > 2 ? p[2] : 0);
        EXPECT_EQ(Hex(c.commands), commands);
        if (c.last) {
            EXPECT_EQ(Hex(c.last), controller.Received().back());
        }
        EXPECT_EQ(0, dev->SelfHookCmd.load());  // unregistered after each command
    }
}

// Runs the current test again in a fresh process image with `marker` set.
void RunInFreshProcess(const char* marker) {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    const testutil::ChildResult child = testutil::RunInChild([&] {
        setenv(marker, "1", 1);
        execl("/proc/self/exe", "device_tests", filter.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    });
    EXPECT_TRUE(child.exited && child.status == 0) << child.status << "\n" << child.out;
}

// Fresh process: a restore before any save is refused; open at the speed, close restores; no tty.
TEST(SerialPort, OpenAtConfiguredSpeedAndRestoreOnClose) {
    if (!getenv("TAVRINE_DEV_FRESH_CHILD")) return RunInFreshProcess("TAVRINE_DEV_FRESH_CHILD");
    Pty pty;
    ASSERT_TRUE(testutil::OpenPty(&pty));
    struct termios original, line, restored;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &original));
    EXPECT_EQ(-1, SetPortBaudRate(pty.slave.get(), 0, 0));
    GlobalSettings settings = DevTestSettings();
    settings.DeviceBaudRate = 19200;
    CDeviceObject dev(pty.slave_path.c_str(), &settings), not_a_tty("/dev/null", &settings);
    dev.DevInterface = not_a_tty.DevInterface = DEV_RS232;
    ASSERT_EQ(0, OpenPort(&dev));
    const int fd = dev.m_Port_fd.get();
    EXPECT_TRUE((fcntl(fd, F_GETFL) & O_NONBLOCK) && (fcntl(fd, F_GETFD) & FD_CLOEXEC));
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &line));
    EXPECT_EQ(static_cast<speed_t>(B19200), cfgetospeed(&line));
    ClosePort(&dev);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &restored));
    EXPECT_EQ(cfgetospeed(&original), cfgetospeed(&restored));
    EXPECT_EQ(-1, OpenPort(&not_a_tty));
}

// A drain of endless bytes ends; destroy while draining stops at once; nothing left behind.
TEST_F(CommandTest, DestroyDuringOrAfterSetupLeavesNothingBehind) {
    FakeController controller(false);  // a drain on the device's own port: 200 reads at most
    auto drained = Device(&controller, false, nullptr);
    controller.Send(Bytes(300 * kPortReadMax, 0x81));
    int64_t start = NowMs();
    DevCleanPortData(drained.get());
    EXPECT_LE(NowMs() - start, 1000 + kLoadSlackMs);
    EXPECT_GE(NowMs() - start, 900);
    uint8_t rest[kPortReadMax];
    EXPECT_EQ(kPortReadMax, read(drained->m_Port_fd.get(), rest, sizeof(rest)));
    Pty pty;
    ASSERT_TRUE(testutil::OpenPty(&pty));
    const auto count = [](const char* dir) {
        return std::distance(std::filesystem::directory_iterator(dir), {});
    };
    const auto fds = count("/proc/self/fd"), tasks = count("/proc/self/task");
    struct termios raw;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &raw));
    cfmakeraw(&raw);
    ASSERT_EQ(0, tcsetattr(pty.master.get(), TCSANOW, &raw));
    const Bytes queued(4000, 0x81);  // keeps the drain busy some 300 ms
    ASSERT_EQ(4000, write(pty.master.get(), queued.data(), queued.size()));
    std::unique_ptr<CDeviceObject> dev = CDeviceObject::Create(pty.slave_path.c_str(), &settings_);
    ASSERT_NE(nullptr, dev);
    usleep(100000);
    EXPECT_EQ(1, dev->bThreadRunning.load());  // still draining the port
    start = NowMs();
    dev.reset();
    EXPECT_LT(NowMs() - start, kStopBoundMs);
    for (int i = 0; i < 30; ++i) {
        ASSERT_NE(nullptr, CDeviceObject::Create(pty.slave_path.c_str(), &settings_));
        if (i % 2) usleep(2000);  // destroyed at once or a little later
    }
    EXPECT_EQ(nullptr, CDeviceObject::Create("/dev/hidraw_missing_for_test", &settings_));
    EXPECT_EQ(fds, count("/proc/self/fd"));
    EXPECT_EQ(tasks, count("/proc/self/task"));
}

// Lines set and restored from two threads at once (scan probe and speed recheck).
TEST(SetPortBaudRate, SavesAndRestoresFromTwoThreads) {
    Pty a, b;
    ASSERT_TRUE(testutil::OpenPty(&a) && testutil::OpenPty(&b));
    struct termios original, line;
    ASSERT_EQ(0, tcgetattr(a.master.get(), &original));
    const auto work = [](int fd, uint32_t rate, int* failures) {
        for (int i = 0; i < 200; ++i)
            *failures += (SetPortBaudRate(fd, rate, 1) != 0) + (SetPortBaudRate(fd, 0, 0) != 0);
    };
    int failures_a = 0, failures_b = 0;
    std::thread other(work, b.slave.get(), 115200u, &failures_b);
    work(a.slave.get(), 9600u, &failures_a);
    other.join();
    EXPECT_EQ(0, failures_a + failures_b);
    for (Pty* pty : {&a, &b}) {
        ASSERT_EQ(0, tcgetattr(pty->master.get(), &line));
        const speed_t speed = cfgetospeed(&line);
        EXPECT_TRUE(speed == B9600 || speed == B115200 || speed == cfgetospeed(&original)) << speed;
    }
}

}  // namespace
