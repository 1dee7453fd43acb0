// Serial and USB scans, the serial probe on a pty, reply readers, HID binding via stand-in commands.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "config/global_settings.h"
#include "core/manager.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "discovery/device_list.h"
#include "discovery/hid_binding.h"
#include "discovery/hid_listing.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"
#include "discovery/serial_scan.h"
#include "discovery/usb_bus_watch.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"
#include "support/touch_test_util.h"

namespace {

using testutil::Hex;
using Speeds = std::vector<speed_t>;
const Speeds kAll = {B9600, B19200, B57600, B115200};

// A pty controller answering loop-back (41) at loopback_speed, IAP query at iap_speed; logs speeds.
struct PtyController {
    PtyController(speed_t loopback_speed, std::string loopback, speed_t iap_speed = 0, std::string iap = "") {
        EXPECT_TRUE(testutil::OpenPty(&pty));  // the slave held open keeps the line up
        const int master = pty.master.release();
        controller.reset(new FakeController(master));  // owns master
        controller->SetResponder([=](const Bytes& packet) {
            struct termios now;
            const speed_t speed = tcgetattr(master, &now) == 0 ? cfgetospeed(&now) : B0;
            (packet[2] == 0x41 ? loopbacks : queries).push_back(speed);  // read after Stop()
            const bool loop = packet[2] == 0x41 && speed == loopback_speed;
            const bool answer = loop || (packet == Hex("0A023902") && speed == iap_speed);
            return std::vector<TimedReply>(answer, {0, Hex(loop ? loopback : iap)});
        });
        line_at_start = Line();
        controller->Start();
    }
    std::string Line() const {  // every byte of the slave's line settings
        struct termios t = {};
        EXPECT_EQ(0, tcgetattr(pty.slave.get(), &t));
        return std::string(reinterpret_cast<const char*>(&t), sizeof(t));
    }
    testutil::Pty pty;
    std::unique_ptr<FakeController> controller;
    std::string line_at_start;
    Speeds loopbacks, queries;
};

class PortScanTest : public testing::Test {
  protected:
    void SetUp() override {
        settings_.MaxDeviceNums = 4;
        for (auto& path : settings_.CustomSerialPath) snprintf(path, kTextMax, "default");
    }
    void TearDown() override { while (manager_.DeviceListHead) RemoveDevice(&manager_, &manager_.DeviceListHead); }
    testutil::TempDir data_;
    GlobalSettings settings_ = {};
    CManager manager_{&settings_};
};

// Non-terminal serial paths (a lure reading back like a loop-back) and owned ports get no byte.
TEST_F(PortScanTest, CustomSerialPathsThatAreNotTerminalsAreNeverWritten) {
    const std::string lure = data_.File("lure"), lure_bytes("\x01\x02\x03\x0a\x01\x41\x0a\x01\x41", 9);
    const std::string ini = IniFilePath(), ini_bytes = "[TavrineA.ini]\nDeviceNums 2\n[String]\n[EndOfFile]";
    ASSERT_TRUE(testutil::WriteFile(lure, lure_bytes) && testutil::WriteFile(ini, ini_bytes));
    PtyController owned(B9600, "0A0141");
    manager_.DeviceListHead = new CDeviceObject(owned.pty.slave_path.c_str(), &settings_);
    manager_.DeviceCount = 1;
    testutil::LogCapture log;
    settings_.CustomPathMask = kCustomSerialPathBit;
    const std::string paths[] = {"/dev/null", lure, ini, owned.pty.slave_path};
    for (int i = 0; i < 4; ++i) snprintf(settings_.CustomSerialPath[i], kTextMax, "%s", paths[i].c_str());
    ScanRS232Port(&manager_);
    owned.controller->Stop();
    EXPECT_EQ(1, manager_.DeviceCount);
    EXPECT_TRUE(owned.loopbacks.empty() && owned.queries.empty());
    EXPECT_TRUE(testutil::ReadFile(lure) == lure_bytes && testutil::ReadFile(ini) == ini_bytes);
    EXPECT_EQ(1, log.Count("Refused device node [/dev/null]: not a terminal"));  // slot 0 is scanned too
}

// Speeds tried, boot-loader query after each silent loop-back, speed kept (1234: untouched), line.
class CheckRS232Device : public PortScanTest {};
TEST_F(CheckRS232Device, ProbeAtEachSpeed) {
    const struct {
        uint32_t configured; speed_t loopback_speed, iap_speed; std::string loopback, iap;
        int result; uint32_t kept; Speeds loopbacks, queries;
    } cases[] = {
        {0, B57600, 0, "0A0141", "", 0, 57600, {B9600, B19200, B57600}, {B9600, B19200}},
        {0, 0, B115200, "", "0A0439000200", 0, 115200, kAll, kAll},
        {0, 0, B9600, "", "0A0442000200", -1, 1234, kAll, kAll},
        {0, B9600, B9600, "0A0142", "0A0439000000", -1, 1234, kAll, kAll},
        {0, B19200, 0, "0A00", "", -1, 1234, kAll, kAll},
        {19200, B57600, 0, "0A0141", "", -1, 1234, {B19200}, {B19200}},
        {19200, B19200, 0, "0A0141", "", 0, 19200, {B19200}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.configured << " " << c.loopback_speed << " " << c.iap_speed);
        PtyController controller(c.loopback_speed, c.loopback, c.iap_speed, c.iap);
        settings_.BaudRate = c.configured, settings_.DeviceBaudRate = 1234;
        EXPECT_EQ(c.result, ::CheckRS232Device(&manager_, controller.pty.slave_path.c_str()));
        controller.controller->Stop();
        EXPECT_EQ(c.kept, settings_.DeviceBaudRate);
        EXPECT_TRUE(c.loopbacks == controller.loopbacks && c.queries == controller.queries)
            << testing::PrintToString(controller.loopbacks) << testing::PrintToString(controller.queries);
        EXPECT_EQ(controller.line_at_start, controller.Line()) << "line settings not restored";
    }
}

// A port stand-in (SOCK_SEQPACKET: each piece, in hex, is one read) and its far end.
std::pair<UniqueFd, UniqueFd> Port(const std::vector<std::string>& pieces) {
    std::pair<UniqueFd, UniqueFd> port;
    touchtest::MakeEventPair(&port.first, &port.second);
    for (const std::string& hex : pieces) {
        const Bytes p = Hex(hex);
        EXPECT_EQ(ssize_t(p.size()), p.empty() ? 0 : write(port.second.get(), p.data(), p.size()));
    }
    return port;
}

// Serial (0A), USB (03) framing, leading byte, tries, fragments: result, first max(result, 0) bytes.
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
        auto port = Port(c.pieces);
        ProbeContext context;
        memset(&context, 0xCC, sizeof(context));  // the reader must not rely on a clean buffer
        context.bSerialFraming = c.serial;
        const int result = ReadDeviceResponse(&context, port.first.get(), context.ReplyBuf, 0x39);
        EXPECT_EQ(c.result, result);
        EXPECT_EQ(Hex(c.reply), Bytes(context.ReplyBuf, context.ReplyBuf + std::max(result, 0)));
    }
}

// Endless bytes hold each reader its limit: /dev/zero (0, 1: framing; 2: waiter), a flood (3).
TEST(ReadDeviceResponse, TimeBoundUnderEndlessTraffic) {
    for (int reader : {0, 1, 2, 3}) {
        SCOPED_TRACE(reader);
        auto port = Port({});
        const Bytes p = Hex("0A02420055");
        std::atomic<bool> stop{false};
        std::thread flood([&] {
            while (reader == 3 && !stop) {
                if (send(port.second.get(), p.data(), p.size(), MSG_DONTWAIT) < 0) usleep(500);
            }
        });
        UniqueFd zero(OpenCloexec("/dev/zero", O_RDONLY));
        const int fd = reader == 3 ? port.first.get() : zero.get();
        ProbeContext context = {};
        context.bSerialFraming = uint8_t(reader);
        ResetSerialReplyParser();
        const int64_t start = testutil::NowMs();
        EXPECT_EQ(-1, reader >= 2 ? WaitDeviceResponse(fd) : ReadDeviceResponse(&context, fd, context.ReplyBuf, 0x41));
        const int64_t ms = testutil::NowMs() - start, limit = reader >= 2 ? kWaitResponseLimitMs : kProbeReadLimitMs;
        stop = true;
        flood.join();
        EXPECT_TRUE(ms >= limit - 2 && ms < limit + (reader >= 2 ? 300 : 150)) << ms;  // clocks truncated to ms
    }
}

const std::string kGeneric = "/sys/bus/hid/drivers/hid-generic", kBusMt = "/sys/bus/hid/drivers/hid-multitouch";
const std::string kModuleMt = "/sys/module/hid_multitouch/drivers/hid:hid-multitouch";

// Calls logged as letters: u lsusb, m lsmod, i input list, p/P modprobe (g: after new_id exists).
struct HidRig {
    HidRig() {
        std::filesystem::create_directories(dir.File("bin"));
        SetKernelRootForTest(root.c_str());
        const std::string cat = access("/usr/bin/cat", X_OK) == 0 ? "/usr/bin/cat " : "/bin/cat ";
        const auto log = [&](const char* letter) { return "printf " + std::string(letter) + " >> " + dir.File("calls"); };
        Script("busybox", log("u") + "\n[ \"$1\" = lsusb ] && exec " + cat + dir.File("lsusb"));
        Script("lsmod", log("m") + "\nexec " + cat + dir.File("lsmod"));
        Script("modprobe", "[ \"$1\" = hid-multitouch ] && " + log("p") + " || " + log("P") + "\n[ -f " + root +
                               kGeneric + "/new_id ] && " + log("g") + "\n[ -f " + dir.File("modprobe_fails") +
                               " ] && exit 1\nmkdir -p '" + root + kModuleMt + "'");
        Script("cat", "[ \"$1\" = /proc/bus/input/devices ] && " + log("i") + " && exec " + cat +
                          dir.File("input") + "\nexec " + cat + "\"$@\"");
        setenv("PATH", (dir.File("bin") + ":" + saved_path).c_str(), 1);
        Write("lsmod", "Module Size Used by\nhid_generic 16384 0\n");
        Write("input", "I: Bus=0003 Vendor=046d Product=c52b Version=0111\n");
    }
    ~HidRig() {
        setenv("PATH", saved_path.c_str(), 1);
        SetKernelRootForTest(nullptr);
    }
    void Write(const std::string& name, const std::string& text) { testutil::WriteFile(dir.File(name), text); }
    void Script(const std::string& name, const std::string& body) {
        Write("bin/" + name, "#!/bin/sh\n" + body + "\n");
        chmod(dir.File("bin/" + name).c_str(), 0755);
    }
    std::string NewId(const std::string& driver) const {  // "-": no new_id file
        const std::string path = root + driver + "/new_id";
        return testutil::FileExists(path) ? testutil::ReadFile(path) : "-";
    }
    std::string Calls() const {  // repeats folded: a listing may run twice
        std::string c = testutil::ReadFile(dir.File("calls"));
        return std::string(c.begin(), std::unique(c.begin(), c.end()));
    }
    testutil::TempDir dir;
    std::string root = dir.File("root");
    std::string saved_path = getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin";
};

// From the lsusb listing to the new_id lines: which drivers are taught, in which order.
TEST(HidBinding, FromTheListingToTheDrivers) {
    const std::string one = "Bus 001 Device 004: ID 3c7a:0001 Touch\nBus 001 Device 001: ID 1d6b:0002 Hub\n";
    const std::string id1 = "3 3c7a 0001 103\n", a = "3 3c7a 000a 103\n", ab = "3 3c7a 00ab 103\n";
    const std::string is1 = "I: Bus=0003 Vendor=3c7a Product=0001 Version=0210\n";
    const std::string is2 = "I: Bus=0003 Vendor=3c7a Product=0002 Version=0210\n";
    const struct {  // input empty: the controller is not an input device
        std::string lsusb, input; std::vector<std::string> dirs; bool modprobe_fails;
        std::string calls, generic, bus_mt, module;
    } cases[] = {
        {one, "", {kGeneric, kBusMt}, false, "umi", id1, id1, "-"},
        {one, "", {kGeneric}, false, "umipgm", id1, "-", id1},
        {one, is2 + "N: Name=\"x\"\n" + is1, {kGeneric, kBusMt}, false, "umi", "-", "-", "-"},
        {one, is2 + "I: Bus=0003 Vendor=046d Product=0001 Version=0210\nI: Bus=0003 Vendor=3c7a\n", {kGeneric, kBusMt},
         false, "umi", id1, id1, "-"},  // another product, another vendor's 0001, a cut line
        {"Bus 001 Device 004: ID 3c7a:000a A\n", "I: Bus=0003 Vendor=3c7a Product=000A\n", {kGeneric, kBusMt}, false,
         "umi", a, a, "-"},
        {one, "", {}, true, "umipm", "-", "-", "-"},
        {"Bus 001 Device 004: ID 3c7a:00ab A\n", "", {kGeneric, kBusMt + "/0003:3C7A:00AB.0001"}, false, "umi", ab, "-", "-"},
        {"Bus 001 Device 004: ID 3c7a:0002 A\nBus 002 Device 003: ID 3c7a:0001 B\n", "", {kGeneric},
         false, "umipgmim", id1, "-", id1},
        {"Bus 001 Device 001: ID 1d6b:0002 Hub\nBus 001 Device 004: ID 3c7a:01\nBus 001 Device 005: ID 3c7a:0;id\n",
         "", {kGeneric, kBusMt}, false, "u", "-", "-", "-"},  // no controller, malformed ids
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lsusb + c.input);
        HidRig rig;
        rig.Write("lsusb", c.lsusb);
        if (!c.input.empty()) rig.Write("input", c.input);
        if (c.modprobe_fails) rig.Write("modprobe_fails", "");
        for (const std::string& d : c.dirs) std::filesystem::create_directories(rig.root + d);
        CheckVIDinlsusb("3c7a");
        EXPECT_EQ(c.calls, rig.Calls());
        EXPECT_EQ(c.generic + c.bus_mt + c.module, rig.NewId(kGeneric) + rig.NewId(kBusMt) + rig.NewId(kModuleMt));
        EXPECT_FALSE(testutil::FileExists(DrvLogPath()));  // the capture file is removed
    }
}

// Ids reach the kernel as four lower-case hex digits; nothing else reaches a shell.
TEST(HidBinding, IdsAreOneToFourHexDigitsInTheKernelsForm) {
    HidRig rig;
    for (const std::string& d : {kGeneric, kBusMt}) std::filesystem::create_directories(rig.root + d);
    EXPECT_EQ(0, AddPIDintoModuleRoutine("3c7a", "7E5"));
    unlink(rig.dir.File("calls").c_str());
    const std::string marker = rig.dir.File("injected");
    const std::pair<std::string, std::string> bad[] = {{"3c7a", "0001; touch " + marker}, {"3c7a", "0001 > " + marker},
        {"3c7a", "00012"}, {"3c7a", "zz01"}, {"3c7a", ""}, {"3c7a;touch " + marker, "0001"}, {"3c7", "0001"}};
    for (const auto& ids : bad) {
        const char *vid = ids.first.c_str(), *pid = ids.second.c_str();
        const std::vector<int> results = {AddPIDintoModuleRoutine(vid, pid), AddPidToSysHIDGeneric(vid, pid),
                                          AddPidToSysModule(vid, pid), AddPidToModule(vid, pid)};
        EXPECT_EQ(std::vector<int>(4, -1), results) << vid << ":" << pid;
    }
    EXPECT_EQ(-1, CheckModuleInSystem("usb;reboot", "usbtouchscreen"));
    EXPECT_EQ("", rig.Calls());
    EXPECT_FALSE(testutil::FileExists(marker));
    EXPECT_EQ("3 3c7a 07e5 103\n", rig.NewId(kGeneric));
}

// A re-plug between two looks (same name, new entry) is a change, or the controller stays unbound.
TEST(HidBinding, UsbDeviceSetChangesAreSeenFromTheListing) {
    testutil::TempDir dir;
    const std::string bus = dir.File("sys/bus/usb/devices");
    UsbDeviceSet last;
    const auto changed = [&] { return UsbDeviceSetChanged(bus.c_str(), &last); };
    EXPECT_TRUE(changed());  // the first look binds
    for (const char* entry : {"usb1", "1-1", "1-1:1.0"}) {
        std::filesystem::create_directories(bus + "/" + entry);
        EXPECT_TRUE(changed()) << entry;
        EXPECT_FALSE(changed()) << entry;
    }
    std::filesystem::create_directories(bus + "/replug");
    ASSERT_EQ(0, rmdir((bus + "/1-1").c_str()) | rename((bus + "/replug").c_str(), (bus + "/1-1").c_str()));
    EXPECT_TRUE(changed());
}

}  // namespace
