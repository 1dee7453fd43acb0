// The command channel and the controller commands against a controller stand-in on a
// socketpair: bytes on the wire, the polling and the blocking exchange, the replies each
// command takes, the set-up sequence (no uinput here: it ends at the virtual devices with
// -1), the stop of a receive thread, and the RS232 presence check.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

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
using Responder = std::function<std::vector<TimedReply>(const Bytes&)>;

// "0a 0141" -> {0x0A, 0x01, 0x41}: spaces between byte pairs are skipped.
Bytes Hex(const char* hex) {
    Bytes out;
    for (unsigned b; sscanf(hex, "%2x", &b) == 1; hex += 2 + (hex[2] == ' ')) out.push_back(b);
    return out;
}

// The command bytes (byte 2) of the packets the controller received: "46 44".
std::string Commands(const FakeController& controller) {
    std::string out;
    char byte[4];
    for (const Bytes& p : controller.Received()) {
        snprintf(byte, sizeof(byte), out.empty() ? "%02x" : " %02x", p.size() > 2 ? p[2] : 0);
        out += byte;
    }
    return out;
}

// Answers each command byte (byte 2 of a packet) with its scripted packets.
Responder Answer(Script script) {
    return [script](const Bytes& packet) {
        std::vector<TimedReply> replies;
        auto it = packet.size() >= 3 ? script.find(packet[2]) : script.end();
        for (size_t i = 0; it != script.end() && i < it->second.size(); ++i)
            replies.push_back({1, it->second[i]});
        return replies;
    };
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
    testutil::TempDir data_;
    GlobalSettings settings_ = DevTestSettings();
    KernelVersionInfo saved_kernel_;
};
using CommandShift = CommandTest;
using SelfRecvTest = CommandTest;
using BlockingChannel = CommandTest;
using RxThreadTest = CommandTest;

TEST_F(CommandShift, WireBytesByPortAndKernel) {
    struct Case { const char* name; bool usb; int32_t old_kernel; bool both_ends;
        int (*send)(CDeviceObject*); int result; const char* wire; } cases[] = {
        // Old kernels: a leading report id 0 and 7-byte writes.
        {"USB feature, old kernel", true, 1, false, SetFeature, 7, "00 0502 00000000"},
        {"USB loop-back, old kernel", true, 1, false, SetLoopbackInside, -1, "00 030141 000000"},
        {"USB feature", true, 0, false, SetFeature, 6, "0502 00000000"},
        {"serial loop-back", false, 0, false, SetLoopbackInside, -1, "0a0141"},
        // ShiftByteBothEnd on the polled write: 4 bytes go out as 6.
        {"USB raw format, both ends", true, 0, true, SetRawFormat, 0, "00 030234 0000"},
    };
    const int32_t saved = bOldKernel;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        bOldKernel = c.old_kernel;
        settings_.ShiftByteBothEnd = c.both_ends;
        FakeController controller(c.usb);  // never answers
        auto dev = Device(&controller, c.usb ? DEV_USB : DEV_RS232);
        // Twice: a command leaves the channel free for the next one.
        EXPECT_EQ(c.result, c.send(dev.get()));
        EXPECT_EQ(c.result, c.send(dev.get()));
        ASSERT_TRUE(controller.WaitForPackets(2, 1000));
        const std::vector<Bytes> got = controller.Received();
        EXPECT_EQ((std::vector<Bytes>{Hex(c.wire), Hex(c.wire)}), std::vector<Bytes>(got.begin(), got.begin() + 2));
    }
    bOldKernel = saved;
}

// The polling exchange writes again only after a silent 500 ms period, three times at most;
// other traffic, even endless, causes no new write and the exchange still ends after 3 s.
// A port whose writes fail pauses 500 ms after each of its three attempts.
TEST_F(SelfRecvTest, WritesAgainOnlyAfterASilentPeriod) {
    struct Case { const char* name; int reply_ms; int answered_write; bool chatter; bool no_port;
        size_t min_writes, writes; bool replied; int min_ms, max_ms; } cases[] = {
        {"on time", 10, 1, false, false, 1, 1, true, 0, 500},
        // The late reply to the first write arrives in the second period and ends it.
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
        const int64_t start = testutil::NowMs();
        SelfRecv(dev.get(), 3);
        const int64_t elapsed = testutil::NowMs() - start;
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

// A command sent from another thread, its reply delivered by a real receive thread.
TEST_F(BlockingChannel, CommandFromAnotherThread) {
    // reply: sent (in one write) to the `answer`th command.
    struct Case { const char* name; bool format; const char* reply; int delay_ms, answer, result;
        size_t commands; int max_ms; } cases[] = {
        {"on time", false, "0a0141", 5, 1, 0, 1, 400},
        // The reply to the first attempt comes after its 500 ms wait: the second one takes it.
        {"late", false, "0a0141", 750, 1, 0, 2, 1500},
        {"only the second attempt answered", false, "0a0141", 5, 2, 0, 2, 900},
        // Back to back, before the woken sender can take the channel lock again.
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
        const int64_t start = testutil::NowMs();
        std::thread([&] { result = c.format ? SetFormat(dev.get(), 1) : SetLoopback(dev.get()); }).join();
        EXPECT_EQ(c.result, result);
        EXPECT_LE(testutil::NowMs() - start, c.max_ms + kLoadSlackMs);
        if (c.commands) { EXPECT_EQ(c.commands, controller.ReceivedCount()); }
        ASSERT_GE(controller.ReceivedCount(), 1u);
        EXPECT_EQ(Hex(c.format ? "0a023401" : "0a0141"), controller.Received()[0]);
        EXPECT_EQ(0, dev->SigHookCmd.load());
        // The channel is idle again: no wake is left counted (a late or doubled reply), so
        // a following wait without a reply times out.
        usleep(50000);
        EXPECT_EQ(ETIMEDOUT, CmdTimedWait(dev.get(), 0, 50));
        StopReadThread(dev.get());
        controller.Stop();
    }
}

// What each command sends and which replies it takes: the text limits (length byte, a 0
// byte, 63 characters), replies for another command or address, the right-click format
// bytes, the report format polled on the device's own thread (blocking would take 9 s), and
// the firmware version that decides whether the other texts are asked.
TEST_F(CommandTest, RepliesEachCommandAccepts) {
    using Call = std::function<int(CDeviceObject*, std::string*)>;
    const auto text = [](int (*get)(CDeviceObject*, char*)) -> Call {
        return [get](CDeviceObject* dev, std::string* out) {
            char text[kTextMax] = "keep";
            const int ret = get(dev, text);
            return *out = text, ret;
        };
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
    const Call own_thread = [](CDeviceObject* dev, std::string*) {
        MarkRxThreadOf(dev);  // this thread plays the device's receive thread
        const int ret = SetFormat(dev, 1);
        return MarkRxThreadOf(nullptr), ret;
    };
    const Bytes fmt = Hex("030433 078132"), done = Hex("030433");
    std::vector<Bytes> long_text = {Hex("030444 64 5656")};  // 100 'V' in fragments
    for (int left = 98; left > 0; left -= 3)
        long_text.push_back(Hex(left >= 3 ? "030400 565656" : "030300 5656"));
    struct Case { const char* name; bool usb; Script script; Call call; int result;
        std::string out; const char* commands; const char* last; } cases[] = {
        {"100 characters", true, {{0x44, long_text}}, text(GetFWVersion), 0, std::string(63, 'V'), "44", nullptr},
        {"length 6", true, {{0x45, {Hex("030645 41424344454647")}}}, text(GetModelName), 0, "ABCDE", "45", nullptr},
        {"stops at 0", true, {{0x46, {Hex("030746 504300 58595a")}}}, text(GetTypeName), 0, "PC", "46", nullptr},
        {"length byte 1: text untouched", false, {{0x44, {Hex("0a0144")}}}, text(GetFWVersion), 0, "keep", "44", "0a0144"},
        {"other command", false, {{0x45, {Hex("0a0246 51")}}}, text(GetModelName), -1, "keep", "45 45 45", nullptr},
        {"EEPROM word", false, {{0x43, {Hex("0a0443 392301")}}}, ee(0x39), 0, "291", "43", "0a0243 39"},
        {"EEPROM other address", false, {{0x43, {Hex("0a0443 392301")}}}, ee(0x10), -1, "48879", "43", nullptr},
        {"right-click set", true, {{0x34, {Hex("030433 078314")}}},
         [](CDeviceObject* d, std::string*) { return SetRCLKFormat(d, 3, 1, 20); }, 0, "", "34", "030434 078314"},
        {"right-click get", true, {{0x35, {fmt}}}, rclk, 0, "1 1 50", "35", "030435 07ff00"},
        {"right-click length byte not 4", true, {{0x35, {Hex("030233 078132")}}}, rclk, -1, "0 0 0", "35", nullptr},
        {"right-click off after a query", true, {{0x35, {fmt}}, {0x34, {done}}},
         [](CDeviceObject* d, std::string*) { return DisableRCLKFunction(d), 0; }, 0, "", "35 34", "030434 070132"},
        {"right-click off, series 2: EEPROM word 0x39", true, {{0x43, {Hex("030443 392301")}}, {0x34, {done}}},
         [](CDeviceObject* d, std::string*) { d->Series = SERIES_LOMBAR; return DisableRCLKFunction(d), 0; }, 0, "", "43 34", "030434 070300"},
        {"format on its own thread", true, {{0x34, {Hex("030233 01")}}}, own_thread, 0, "", "34", "030234 010000"},
        {"format on its own thread, silent", true, {}, own_thread, -1, "", "34 34 34", nullptr},
        {"firmware kind, silent: application firmware", false, {},
         [](CDeviceObject* d, std::string* out) {
             d->IAPType = IAP_BFW;
             const int ret = DevGetIAPType(d);
             return *out = d->IAPType == IAP_FW ? "application" : "boot", ret;
         }, 0, "application", "39 39 39", "0a023902"},
        {"no version: unknown texts", true, {{0x46, {Hex("030646 4c4f4d7878")}}},
         [](CDeviceObject* d, std::string* out) {
             DevGetControllerInfo(d);
             return *out = std::string(d->FWVersion) + d->TypeName + d->ModelName, d->Series;
         }, SERIES_UNKNOWN, "UNKNOWNUNKNOWNUNKNOWN", "46 44 44 44", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(c.usb);
        auto dev = Device(&controller, c.usb ? DEV_USB : DEV_RS232, Answer(c.script));
        std::string out;
        const int64_t start = testutil::NowMs();
        EXPECT_EQ(c.result, c.call(dev.get(), &out));
        EXPECT_LE(testutil::NowMs() - start, 1600 + kLoadSlackMs);  // three silent periods
        EXPECT_EQ(c.out, out);
        EXPECT_EQ(c.commands, Commands(controller));
        if (c.last) { EXPECT_EQ(Hex(c.last), controller.Received().back()); }
        EXPECT_EQ(0, dev->SelfHookCmd.load());  // unregistered after each command
    }
}

// Set-up up to the virtual devices: the commands in their order and what the device learns.
TEST_F(CommandTest, SetupIdentifiesInOrder) {
    const char* unreachable = "UNREACHABLE UNREACHABLE UNREACHABLE";
    struct Case { const char* name; bool usb; Script script; const char* commands;
        std::string texts; int32_t series; int8_t event_type; } cases[] = {
        // Firmware kind, type, version, model, type; serial ports have the vendor report.
        {"serial", false, {{0x39, {Hex("0a0439 040000")}}, {0x46, {Hex("0a0646 5043415036")}}, {0x44, {Hex("0a0344 3132")}},
          {0x45, {Hex("0a0345 4d31")}}}, "39 46 44 45 46", "PCAP6 12 M1 PCAP", SERIES_PCAP_6555, 2},
        {"boot firmware: no identification", false, {{0x39, {Hex("0a0439 040200")}}}, "39", unreachable, SERIES_BOOT_FIRMWARE, -1},
        // A USB node without a readable descriptor has no vendor report: no command at all.
        {"USB without vendor report", true, {}, "", unreachable, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeController controller(c.usb);
        auto dev = Device(&controller, c.usb ? DEV_USB : DEV_RS232, Answer(c.script));
        const int64_t start = testutil::NowMs();
        EXPECT_EQ(-1, DevSetup(dev.get()));  // ends at the touch device: no uinput here
        EXPECT_LT(testutil::NowMs() - start, 1000 + kLoadSlackMs);
        usleep(20000);
        EXPECT_EQ(c.commands, Commands(controller));
        if (controller.ReceivedCount()) { EXPECT_EQ(Hex("0a023902"), controller.Received()[0]); }
        EXPECT_EQ(c.texts, std::string(dev->TypeName) + " " + dev->FWVersion + " " + dev->ModelName +
                               (dev->bPCAP ? " PCAP" : ""));
        EXPECT_EQ(c.series, dev->Series);
        if (c.event_type >= 0) { EXPECT_EQ(c.event_type, dev->Param.EventType); }
    }
}

// A stop request during set-up (here in the silent firmware-kind query) ends it at once:
// nothing more is sent and the later steps never run.
TEST_F(CommandTest, StopDuringSetupEndsIt) {
    FakeController controller(false);
    auto dev = Device(&controller, DEV_RS232);
    SetupSigUsr1Handler();
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    dev->bThreadRunning = 1;
    ASSERT_EQ(0, pthread_create(&dev->ThreadId, nullptr, DevThreadMain, dev.get()));
    dev->bThreadCreated = true;
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    usleep(200000);
    const int64_t start = testutil::NowMs();
    StopReadThread(dev.get());
    EXPECT_LT(testutil::NowMs() - start, kStopBoundMs);
    EXPECT_EQ("39", Commands(controller));
    EXPECT_EQ(0, dev->Param.EventType);
}

// A receive loop blocked on its port is stopped by signal and joined, on each port kind; a
// second stop, and the stop of a thread never created (a garbage handle), do nothing.
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
        EXPECT_EQ(1, dev->bThreadRunning.load());
        const int64_t start = testutil::NowMs();
        EXPECT_EQ(0, StopReadThread(dev.get()));
        EXPECT_LT(testutil::NowMs() - start, kStopBoundMs);
        EXPECT_FALSE(dev->bThreadCreated);
        EXPECT_EQ(0, dev->bThreadRunning.load());
        EXPECT_FALSE(log.Contains("Call pthread_kill"));  // the one signal was delivered
        EXPECT_EQ(0, StopReadThread(dev.get()));
    }
    CDeviceObject dev("/dev/hidraw99", &settings_);
    dev.bThreadRunning = 1;
    memset(&dev.ThreadId, 0xA5, sizeof(dev.ThreadId));
    EXPECT_EQ(0, StopReadThread(&dev));
    EXPECT_EQ(0, dev.bThreadRunning.load());
}

// About 15 s of silence on an RS232 port (750 idle 20 ms wake-ups of its receive loop) ask
// the scan loop for a presence check; traffic starts the count again (here at 5 s: the check
// comes at 20 s); other ports and a disabled check never count.
TEST_F(RxThreadTest, Rs232SilenceRequestsPresenceCheck) {
    struct Port { uint8_t interface, no_check; } ports[] = {
        {DEV_RS232, 0}, {DEV_RS232, 1}, {DEV_USB, 0}, {DEV_PS2, 0}};
    std::vector<std::unique_ptr<FakeController>> controllers;
    std::vector<std::unique_ptr<CDeviceObject>> devs;
    bDeviceExistCheck = 0;
    for (const Port& p : ports) {
        controllers.push_back(std::make_unique<FakeController>(false));
        devs.push_back(Device(controllers.back().get(), p.interface));
        devs.back()->NoDeviceCheck = p.no_check;
        StartRxLoopThread(devs.back().get());
    }
    const int64_t start = testutil::NowMs();
    usleep(5000000);
    EXPECT_EQ(0, bDeviceExistCheck.load());
    controllers[0]->Send(Hex("0a0141"));  // unhooked: to the (closed) tool pipe
    testutil::WaitUntil([] { return bDeviceExistCheck.load() != 0; }, 40000);
    const int64_t elapsed = testutil::NowMs() - start;
    EXPECT_EQ(1, bDeviceExistCheck.load());
    EXPECT_GE(elapsed, 19500);
    EXPECT_LE(elapsed, 20000 + 10 * kLoadSlackMs);  // 750 waits, each late on a busy host
    for (auto& dev : devs) StopReadThread(dev.get());
    for (size_t i = 1; i < devs.size(); ++i) EXPECT_EQ(0u, devs[i]->IdleWakeCount) << i;
    bDeviceExistCheck = 0;
}

}  // namespace
