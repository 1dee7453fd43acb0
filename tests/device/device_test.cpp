// The device object against a controller stand-in (socketpair or pty): command exchanges,
// set-up, its receive thread, descriptor bytes and the serial line.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

#if defined(__SANITIZE_THREAD__)
#define DEV_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DEV_UNDER_TSAN 1
#endif
#endif

namespace {

using Script = std::map<uint8_t, std::vector<Bytes>>;  // command byte -> reply packets
using Responder = std::function<std::vector<TimedReply>(const Bytes&)>;
using testutil::NowMs;
using testutil::Hex;
using testutil::Pty;


// The command byte (byte 2) of each packet the controller received.
Bytes Commands(const FakeController& controller) {
    Bytes out;
    for (const Bytes& p : controller.Received()) out.push_back(p.size() > 2 ? p[2] : 0);
    return out;
}

class CommandTest : public testing::Test {
  protected:
    void SetUp() override {
        DevIgnoreSigusr2();
        snprintf(settings_.UinputPath, sizeof(settings_.UinputPath), "%s/no_uinput", data_.path().c_str());
        settings_.CustomPathMask = kCustomUinputPathBit;
        saved_kernel_ = KernelVersion;
        KernelVersion = {3, 4, 0};
    }
    void TearDown() override { KernelVersion = saved_kernel_; }
    // A device on the daemon end of a started controller stand-in.
    std::unique_ptr<CDeviceObject> Device(FakeController* controller, uint8_t interface,
                                          Responder respond = nullptr) {
        if (respond) controller->SetResponder(respond);
        controller->Start();
        auto dev = std::make_unique<CDeviceObject>(interface == DEV_USB ? "/dev/hidraw99" : "/dev/ttyS99", &settings_);
        AttachPort(dev.get(), controller, interface);
        return dev;
    }
    // Answers each command byte with its scripted packets.
    std::unique_ptr<CDeviceObject> Scripted(FakeController* controller, bool usb, Script script) {
        return Device(controller, usb ? DEV_USB : DEV_RS232, [script](const Bytes& packet) {
            std::vector<TimedReply> replies;
            auto it = packet.size() >= 3 ? script.find(packet[2]) : script.end();
            for (size_t i = 0; it != script.end() && i < it->second.size(); ++i) replies.push_back({1, it->second[i]});
            return replies;
        });
    }
    testutil::TempDir data_;
    GlobalSettings settings_ = DevTestSettings();
    KernelVersionInfo saved_kernel_;
};
using SelfRecvTest = CommandTest;
using BlockingChannel = CommandTest;
using RxThreadTest = CommandTest;
using CleanPort = CommandTest;

// The polling exchange writes again only after a silent 500 ms period, three times at most,
// and ends after 3 s even under endless other traffic; a missing port pauses instead.
TEST_F(SelfRecvTest, WritesAgainOnlyAfterASilentPeriod) {
    struct Case { const char* name; int reply_ms; int answered_write; bool chatter; bool no_port;
        size_t min_writes, writes; bool replied; int min_ms, max_ms; } cases[] = {
        {"on time", 10, 1, false, false, 1, 1, true, 0, 500},
        {"after 600 ms", 600, 1, false, false, 1, 2, true, 550, 1100},
        {"answers the second write", 10, 2, false, false, 2, 2, true, 450, 1000},
        {"never", -1, 1, false, false, 3, 3, false, 1450, 1500},
        {"endless other traffic", -1, 1, true, false, 1, 1, false, 2900, 3000},
        {"no port", -1, 1, false, true, 0, 0, false, 1450, 1500},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(true);
        int writes = 0;
        auto dev = Device(&controller, DEV_USB, [&c, &writes](const Bytes&) {
            std::vector<TimedReply> replies;
            if (++writes == c.answered_write && c.reply_ms >= 0) replies.push_back({c.reply_ms, Hex("030141")});
            for (int i = 0; c.chatter && writes == 1 && i < 60; ++i) replies.push_back({100, Hex("030144")});
            return replies;
        });
        if (c.no_port) dev->m_Port_fd.reset();
        dev->SelfHookSubCmd = kAnySubCmd;
        dev->SelfHookCmd = 0x41;
        memcpy(dev->CmdSendBuf, Hex("030141").data(), 3);
        const int64_t start = NowMs();
        SelfRecv(dev.get(), 3);
        const int64_t elapsed = NowMs() - start;
        controller.Stop();
        EXPECT_EQ(c.replied, dev->bSelfHookReplied.load());
        if (c.replied) { EXPECT_EQ(0x41, dev->CmdReplyBuf[2]); }
        // A loaded host may delay the late reply's window edge; never a write too many.
        EXPECT_GE(controller.ReceivedCount(), c.min_writes);
        EXPECT_LE(controller.ReceivedCount(), c.writes);
        EXPECT_EQ(std::vector<Bytes>(controller.ReceivedCount(), Hex("030141")), controller.Received());
        EXPECT_GE(elapsed, c.min_ms);
        EXPECT_LE(elapsed, c.max_ms + kLoadSlackMs);
    }
}

// A command from another thread, its reply delivered by a real receive thread.
TEST_F(BlockingChannel, CommandFromAnotherThread) {
    // reply: sent (in one write) to the `answer`th command.
    struct Case { const char* name; bool format; const char* reply; int delay_ms, answer, result;
        size_t commands; int max_ms; } cases[] = {
        {"on time", false, "0a0141", 5, 1, 0, 1, 400},
        // The reply to the first attempt comes after its 500 ms wait: the second one takes it.
        {"late", false, "0a0141", 750, 1, 0, 2, 1500},
        {"only the second attempt answered", false, "0a0141", 5, 2, 0, 2, 900},
        {"doubled", false, "0a0141 0a0141", 5, 1, 0, 1, 400},
        {"missing", false, "", 0, 1, ETIMEDOUT, 3, 1800},
        {"format confirmed", true, "0a023301", 5, 1, 0, 1, 400},
        // Same reply command with another format: not the awaited hook, never wakes.
        {"other format", true, "0a023302", 5, 1, ETIMEDOUT, 0, 10000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(false);
        auto seen = std::make_shared<int>(0);
        auto dev = Device(&controller, DEV_RS232, [&c, seen](const Bytes& packet) {
            std::vector<TimedReply> replies;
            if (packet.size() >= 3 && packet[2] == (c.format ? 0x34 : 0x41) && ++*seen == c.answer && *c.reply)
                replies.push_back({c.delay_ms, Hex(c.reply)});
            return replies;
        });
        dev->NoDeviceCheck = 1;
        StartRxLoopThread(dev.get());
        int result = -100;
        const int64_t start = NowMs();
        std::thread([&] { result = c.format ? SetFormat(dev.get(), 1) : SetLoopback(dev.get()); }).join();
        EXPECT_EQ(c.result, result);
        EXPECT_LE(NowMs() - start, c.max_ms + kLoadSlackMs);
        if (c.commands) { EXPECT_EQ(c.commands, controller.ReceivedCount()); }
        ASSERT_GE(controller.ReceivedCount(), 1u);
        EXPECT_EQ(Hex(c.format ? "0a023401" : "0a0141"), controller.Received()[0]);
        EXPECT_EQ(0, dev->SigHookCmd.load());
        // No wake is left counted (a late or doubled reply): the next wait times out.
        usleep(50000);
        EXPECT_EQ(ETIMEDOUT, CmdTimedWait(dev.get(), 0, 50));
        StopReadThread(dev.get());
        controller.Stop();
    }
}

// Replies each command takes: text limits (length byte, a 0 byte, 63 characters), a reply
// for another command or address, the right-click format bytes (the long press a user
// turns off), and the report format polled on the device's own thread.
TEST_F(CommandTest, RepliesEachCommandAccepts) {
    using Call = std::function<int(CDeviceObject*, std::string*)>;
    const auto text = [](int (*get)(CDeviceObject*, char*)) -> Call {
        return [get](CDeviceObject* dev, std::string* out) {
            char text[kTextMax] = "keep";
            const int ret = get(dev, text);
            return *out = text, ret;
        };
    };
    const Call own_thread = [](CDeviceObject* dev, std::string*) {
        MarkRxThreadOf(dev);  // this thread plays the device's receive thread
        const int ret = SetFormat(dev, 1);
        return MarkRxThreadOf(nullptr), ret;
    };
    const auto ee = [](uint8_t address) -> Call {
        return [address](CDeviceObject* dev, std::string* out) {
            uint16_t value = 0xBEEF;
            const int ret = GetEEData(dev, address, &value);
            return *out = std::to_string(value), ret;
        };
    };
    const Call rclk = [](CDeviceObject* dev, std::string* out) {
        uint8_t id = 0, on = 0, count = 0;
        const int ret = GetRCLKFormat(dev, &id, &on, &count);
        return *out = std::to_string(id) + " " + std::to_string(on) + " " + std::to_string(count), ret;
    };
    const auto rclk_off = [](int32_t series) -> Call {
        return [series](CDeviceObject* d, std::string*) { d->Series = series; return DisableRCLKFunction(d), 0; };
    };
    const Bytes fmt = Hex("030433 078132"), done = Hex("030433");
    std::vector<Bytes> long_text = {Hex("030444 64 5656")};  // 100 'V' in fragments
    for (int left = 98; left > 0; left -= 3) long_text.push_back(Hex(left >= 3 ? "030400 565656" : "030300 5656"));
    struct Case { const char* name; bool usb; Script script; Call call; int result;
        std::string out; const char* commands; const char* last; } cases[] = {
        {"100 characters", true, {{0x44, long_text}}, text(GetFWVersion), 0, std::string(63, 'V'), "44", nullptr},
        {"length 6", true, {{0x45, {Hex("030645 41424344454647")}}}, text(GetModelName), 0, "ABCDE", "45", nullptr},
        {"stops at 0", true, {{0x46, {Hex("030746 504300 58595a")}}}, text(GetTypeName), 0, "PC", "46", nullptr},
        {"length byte 1: text untouched", false, {{0x44, {Hex("0a0144")}}}, text(GetFWVersion), 0, "keep", "44", "0a0144"},
        {"other command", false, {{0x45, {Hex("0a0246 51")}}}, text(GetModelName), -1, "keep", "45 45 45", nullptr},
        {"EEPROM word", false, {{0x43, {Hex("0a0443 392301")}}}, ee(0x39), 0, "291", "43", "0a0243 39"},
        {"EEPROM other address", false, {{0x43, {Hex("0a0443 392301")}}}, ee(0x10), -1, "48879", "43", nullptr},
        {"right-click get", true, {{0x35, {fmt}}}, rclk, 0, "1 1 50", "35", "030435 07ff00"},
        {"right-click length byte not 4", true, {{0x35, {Hex("030233 078132")}}}, rclk, -1, "0 0 0", "35", nullptr},
        {"right-click off after a query", true, {{0x35, {fmt}}, {0x34, {done}}}, rclk_off(0), 0, "", "35 34", "030434 070132"},
        {"right-click off, series 2: EEPROM word 0x39", true, {{0x43, {Hex("030443 392301")}}, {0x34, {done}}},
         rclk_off(SERIES_LOMBAR), 0, "", "43 34", "030434 070300"},
        {"set feature twice: the command lock is released", true, {},
         [](CDeviceObject* d, std::string*) { return SetFeature(d) > 0 && SetFeature(d) > 0 ? 0 : -1; }, 0, "", "00 00", "050200 000000"},
        {"format on its own thread", true, {{0x34, {Hex("030233 01")}}}, own_thread, 0, "", "34", "030234 010000"},
        {"format on its own thread, silent", true, {}, own_thread, -1, "", "34 34 34", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(c.usb);
        auto dev = Scripted(&controller, c.usb, c.script);
        std::string out;
        EXPECT_EQ(c.result, c.call(dev.get(), &out));
        EXPECT_EQ(c.out, out);
        controller.WaitForPackets(Hex(c.commands).size(), 1000);  // a command without a reply
        EXPECT_EQ(Hex(c.commands), Commands(controller));
        if (c.last) { EXPECT_EQ(Hex(c.last), controller.Received().back()); }
        EXPECT_EQ(0, dev->SelfHookCmd.load());  // unregistered after each command
    }
}

// Set-up up to the virtual devices (none here): the commands in order, what the device learns.
TEST_F(CommandTest, SetupIdentifiesInOrder) {
    const char* unreachable = "UNREACHABLE UNREACHABLE UNREACHABLE";
    struct Case { const char* name; bool usb; Script script; const char* commands;
        std::string texts; int32_t series; int8_t event_type; } cases[] = {
        {"serial", false, {{0x39, {Hex("0a0439 040000")}}, {0x46, {Hex("0a0646 5043415036")}}, {0x44, {Hex("0a0344 3132")}},
          {0x45, {Hex("0a0345 4d31")}}}, "39 46 44 45 46", "PCAP6 12 M1 PCAP", SERIES_PCAP_6555, 2},
        {"boot firmware: no identification", false, {{0x39, {Hex("0a0439 040200")}}}, "39", unreachable, SERIES_BOOT_FIRMWARE, -1},
        {"USB without vendor report", true, {}, "", unreachable, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(c.usb);
        auto dev = Scripted(&controller, c.usb, c.script);
        const int64_t start = NowMs();
        EXPECT_EQ(-1, DevSetup(dev.get()));  // ends at the touch device: no uinput here
        EXPECT_LT(NowMs() - start, 1000 + kLoadSlackMs);
        usleep(20000);
        EXPECT_EQ(Hex(c.commands), Commands(controller));
        if (controller.ReceivedCount()) { EXPECT_EQ(Hex("0a023902"), controller.Received()[0]); }
        EXPECT_EQ(c.texts, std::string(dev->TypeName) + " " + dev->FWVersion + " " + dev->ModelName +
                               (dev->bPCAP ? " PCAP" : ""));
        EXPECT_EQ(c.series, dev->Series);
        if (c.event_type >= 0) { EXPECT_EQ(c.event_type, dev->Param.EventType); }
    }
}

// A receive loop blocked on its port is stopped with one signal and joined; a second stop,
// and the stop of a thread never created (a garbage handle), do nothing.
TEST_F(RxThreadTest, StopsALoopBlockedOnThePortAndOnlyAThreadThatExists) {
    for (uint8_t interface : {DEV_USB, DEV_RS232}) {
        SCOPED_TRACE(static_cast<int>(interface));
        testutil::LogCapture log;
        FakeController controller(interface == DEV_USB);
        auto dev = Device(&controller, interface);
        UniqueFd tool_end;
        ASSERT_TRUE(testutil::MakePipe(&dev->m_fdPipeIn, &tool_end));
        StartRxLoopThread(dev.get());
        ASSERT_TRUE(dev->bThreadCreated);
        usleep(100000);  // well inside the wait by now
        const int64_t start = NowMs();
        EXPECT_EQ(0, StopReadThread(dev.get()));
        EXPECT_LT(NowMs() - start, kStopBoundMs);
        EXPECT_FALSE(dev->bThreadCreated);
        EXPECT_FALSE(log.Contains("Call pthread_kill"));  // no signal to a thread that ended
        EXPECT_EQ(0, StopReadThread(dev.get()));
    }
    CDeviceObject dev("/dev/hidraw99", &settings_);
    dev.bThreadRunning = 1;
    memset(&dev.ThreadId, 0xA5, sizeof(dev.ThreadId));
    EXPECT_EQ(0, StopReadThread(&dev));
    EXPECT_EQ(0, dev.bThreadRunning.load());
}

// Opened non-blocking and close-on-exec at the configured speed; closing writes the saved
// line settings back. A path that names no terminal is refused before any line setting.
TEST(SerialPort, OpenAtConfiguredSpeedAndRestoreOnClose) {
    Pty pty;
    ASSERT_TRUE(testutil::OpenPty(&pty));
    struct termios original, line, restored;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &original));
    GlobalSettings settings = DevTestSettings();
    settings.DeviceBaudRate = 19200;
    CDeviceObject dev(pty.slave_path.c_str(), &settings), not_a_tty("/dev/null", &settings);
    dev.DevInterface = not_a_tty.DevInterface = DEV_RS232;
    ASSERT_EQ(0, OpenPort(&dev));
    const int fd = dev.m_Port_fd.get();
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &line));
    EXPECT_EQ(static_cast<speed_t>(B19200), cfgetospeed(&line));
    ClosePort(&dev);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &restored));
    EXPECT_EQ(cfgetospeed(&original), cfgetospeed(&restored));
    EXPECT_EQ(original.c_lflag, restored.c_lflag);
    EXPECT_EQ(-1, OpenPort(&not_a_tty));
}

// A controller that keeps sending during set-up: the drain ends after its 200 reads.
TEST_F(CleanPort, DrainIsBounded) {
    FakeController controller(false);
    auto dev = Device(&controller, DEV_RS232);
    controller.Send(Bytes(300 * kPortReadMax, 0x81));
    const int64_t start = NowMs();
    DevCleanPortData(dev.get());
    EXPECT_GE(NowMs() - start, 900);
    EXPECT_LE(NowMs() - start, 1000 + kLoadSlackMs);
    uint8_t rest[kPortReadMax];
    EXPECT_EQ(kPortReadMax, read(dev->m_Port_fd.get(), rest, sizeof(rest)));
}

// Runs the current test again in a fresh process image with `marker` set (and `stack` as its stack limit).
void RunInFreshProcess(const char* marker, rlim_t stack) {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        struct rlimit limit = {stack, stack};
        if (stack != 0) setrlimit(RLIMIT_STACK, &limit);
        setenv(marker, "1", 1);
        execl("/proc/self/exe", "device_tests", filter.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// Thread creation fails (a huge stack limit, in a fresh process image): no device.
TEST(CreatedDevice, ThreadCreationFailureGivesNoDevice) {
#ifdef DEV_UNDER_TSAN
    GTEST_SKIP() << "ThreadSanitizer cannot start under a huge stack limit";
#endif
    if (getenv("TAVRINE_DEV_HUGE_STACK_CHILD")) {
        pthread_t probe;
        if (pthread_create(&probe, nullptr, [](void*) -> void* { return nullptr; }, nullptr) == 0) {
            pthread_join(probe, nullptr);
            GTEST_SKIP() << "threads can still be created under this limit";
        }
        Pty pty;
        ASSERT_TRUE(testutil::OpenPty(&pty));
        GlobalSettings settings = DevTestSettings();
        EXPECT_EQ(nullptr, CDeviceObject::Create(pty.slave_path.c_str(), &settings));
        return;
    }
    // 2^45 bytes, or the largest finite limit where rlim_t has 32 bits.
    RunInFreshProcess("TAVRINE_DEV_HUGE_STACK_CHILD", std::min<unsigned long long>(1ULL << 45, RLIM_INFINITY - 1));
}

// Destroying a device while it drains a streaming controller stops its thread at once;
// devices destroyed again and again, and a node that cannot be opened, leave no descriptor
// and no thread behind.
TEST_F(CommandTest, DestroyDuringOrAfterSetupLeavesNothingBehind) {
    Pty pty;
    ASSERT_TRUE(testutil::OpenPty(&pty));
    const auto count = [](const char* dir) { return std::distance(std::filesystem::directory_iterator(dir), {}); };
    const auto fds = count("/proc/self/fd"), tasks = count("/proc/self/task");
    struct termios raw;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &raw));
    cfmakeraw(&raw);
    ASSERT_EQ(0, tcsetattr(pty.master.get(), TCSANOW, &raw));
    const Bytes queued(4000, 0x81);  // keeps the drain busy some 300 ms, then 10 bytes a ms
    ASSERT_EQ(4000, write(pty.master.get(), queued.data(), queued.size()));
    std::atomic<bool> stop{false};
    std::thread streamer([&] { while (!stop && write(pty.master.get(), queued.data(), 10) >= 0) usleep(1000); });
    std::unique_ptr<CDeviceObject> dev = CDeviceObject::Create(pty.slave_path.c_str(), &settings_);
    ASSERT_NE(nullptr, dev);
    usleep(100000);
    EXPECT_EQ(1, dev->bThreadRunning.load());  // still draining the port
    const int64_t start = NowMs();
    dev.reset();
    EXPECT_LT(NowMs() - start, kStopBoundMs);
    stop = true;
    streamer.join();
    for (int i = 0; i < 30; ++i) {
        ASSERT_NE(nullptr, CDeviceObject::Create(pty.slave_path.c_str(), &settings_));
        if (i % 2) usleep(2000);  // destroyed at once or a little later
    }
    EXPECT_EQ(nullptr, CDeviceObject::Create("/dev/hidraw_missing_for_test", &settings_));
    EXPECT_EQ(fds, count("/proc/self/fd"));
    EXPECT_EQ(tasks, count("/proc/self/task"));
}

// Nothing saved yet (a fresh process image): the restore refuses instead of writing speed
// 0, which hangs the line up.
TEST(SetPortBaudRate, RestoreWithoutSaveIsRefused) {
    if (!getenv("TAVRINE_DEV_FRESH_CHILD")) return RunInFreshProcess("TAVRINE_DEV_FRESH_CHILD", 0);
    Pty pty;
    ASSERT_TRUE(testutil::OpenPty(&pty));
    struct termios before, after;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &before));
    EXPECT_EQ(-1, SetPortBaudRate(pty.slave.get(), 0, 0));
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &after));
    EXPECT_EQ(cfgetospeed(&before), cfgetospeed(&after));
}

// Lines set and restored from two threads at once (scan probe and speed recheck): every
// call succeeds and each line ends at a speed one of them set or saved; TSan sees races.
TEST(SetPortBaudRate, SavesAndRestoresFromTwoThreads) {
    Pty a, b;
    ASSERT_TRUE(testutil::OpenPty(&a));
    ASSERT_TRUE(testutil::OpenPty(&b));
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
