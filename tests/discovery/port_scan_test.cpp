// One pass of the USB and serial scans: which nodes are looked at and what the pass leaves
// in the settings and the manager's device list; the serial probe of one port against a
// pty whose master side plays a controller that answers only at some line speeds; and the
// list itself (lookup, append failure, unlinking) with bare records linked by hand. No
// test here writes to a real serial port of the host.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <termios.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "config/global_settings.h"
#include "core/manager.h"
#include "core/paths.h"
#include "core/unique_fd.h"
#include "device/device_object.h"
#include "discovery/device_list.h"
#include "discovery/serial_scan.h"
#include "discovery/usb_scan.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {


const Bytes kBootLoaderReply = {0x0A, 0x04, 0x39, 0x01, 0x00, 0x00};
const Bytes kAppIAPReply = {0x0A, 0x04, 0x39, 0x00, 0x00, 0x00};
const Bytes kLoopbackReply = {0x0A, 0x01, 0x41};

// A serial controller on the master side of a pty: answers the loop-back (41) only at
// loopback_speed and the IAP-type query (39) only at iap_speed (0: never), reading the
// slave's line speed back through the master, and records (command, speed) of each command.
class PtyController {
  public:
    explicit PtyController(speed_t loopback_speed = 0, Bytes loopback_reply = kLoopbackReply,
                           speed_t iap_speed = 0, Bytes iap_reply = kBootLoaderReply) {
        // The slave held open keeps the line up between the probe's opens.
        EXPECT_TRUE(testutil::OpenPty(&pty_));
        struct termios line;
        EXPECT_EQ(0, tcgetattr(pty_.slave.get(), &line));
        cfmakeraw(&line);
        cfsetspeed(&line, B38400);
        EXPECT_EQ(0, tcsetattr(pty_.slave.get(), TCSANOW, &line));
        const int master = pty_.master.release();  // the controller owns it
        controller_.reset(new FakeController(master));
        controller_->SetResponder([=, &seen = seen_](const Bytes& packet) {
            struct termios now;
            tcgetattr(master, &now);
            const speed_t speed = cfgetospeed(&now);
            seen.push_back({packet[2], speed});  // read only after Stop()
            std::vector<TimedReply> replies;
            if (packet[2] == 0x41 && speed == loopback_speed) replies.push_back({0, loopback_reply});
            if (packet[2] == 0x39 && speed == iap_speed) replies.push_back({0, iap_reply});
            return replies;
        });
        line_at_start = Line();
        controller_->Start();
    }

    const std::string& slave_path() const { return pty_.slave_path; }
    void Stop() { controller_->Stop(); }
    const std::vector<std::pair<uint8_t, speed_t>>& Seen() const { return seen_; }
    // The slave's line settings, to compare before and after a probe.
    std::string Line() const {
        struct termios t;
        memset(&t, 0, sizeof(t));
        EXPECT_EQ(0, tcgetattr(pty_.slave.get(), &t));
        return testing::PrintToString(std::make_tuple(t.c_iflag, t.c_oflag, t.c_cflag,
                                                      t.c_lflag, cfgetospeed(&t))) +
               std::string(reinterpret_cast<const char*>(t.c_cc), sizeof(t.c_cc));
    }
    std::string line_at_start;

  private:
    testutil::Pty pty_;
    std::vector<std::pair<uint8_t, speed_t>> seen_;
    std::unique_ptr<FakeController> controller_;  // stops before seen_ goes
};

class PortScanTest : public testing::Test {
  protected:
    void SetUp() override {
        SetDataDirForTest(data_.path().c_str());
        memset(&settings_, 0, sizeof(settings_));
        settings_.MaxDeviceNums = 1;
        settings_.NewDevIAPType = IAP_BFW;  // every serial and USB pass sets it back to IAP_FW
        settings_.DeviceBaudRate = 1234;
        for (int i = 0; i < kSerialPathSlots; ++i) {
            snprintf(settings_.CustomSerialPath[i], kTextMax, "default");
        }
    }
    void TearDown() override {
        while (manager_.DeviceListHead) RemoveDevice(&manager_, &manager_.DeviceListHead);
    }
    // Links bare records for paths at the tail, keeping the count in step.
    void LinkByHand(const std::vector<std::string>& paths) {
        CDeviceObject** link = &manager_.DeviceListHead;
        while (*link) link = &(*link)->pNext;
        for (const std::string& path : paths) {
            *link = new CDeviceObject(path.c_str(), &settings_);
            link = &(*link)->pNext;
            manager_.DeviceCount++;
        }
    }
    std::vector<std::string> ListPaths() const {
        std::vector<std::string> paths;
        for (CDeviceObject* d = manager_.DeviceListHead; d; d = d->pNext)
            paths.push_back(d->PortPath);
        return paths;
    }
    CDeviceObject** LinkOf(const std::string& path) {
        CDeviceObject** link = &manager_.DeviceListHead;
        while (*link && path != (*link)->PortPath) link = &(*link)->pNext;
        return link;
    }

    testutil::TempDir data_;
    GlobalSettings settings_;
    CManager manager_{&settings_};
};

TEST_F(PortScanTest, CheckUSBDeviceRejectsWhatIsNotAHidrawNode) {
    testutil::LogCapture log;
    const std::string plain = data_.path() + "/hidraw_plain_file";
    ASSERT_TRUE(testutil::WriteFile(plain, ""));
    for (const std::string& path :
         {std::string("/nonexistent/hidraw0"), plain, std::string("/dev/null")}) {
        EXPECT_EQ(-1, CheckUSBDevice(&manager_, path.c_str())) << path;
    }
    EXPECT_TRUE(log.Contains("Refused device node [" + plain + "]: not a character device"));
    EXPECT_TRUE(log.Contains("Failed to get HIDRAW Device Info at /dev/null!"));
    EXPECT_EQ(0, manager_.DeviceCount);
}

// Custom serial paths replace the standard ports: a missing path is skipped, a silent
// controller is probed at every speed and not kept, and a path the list already owns is
// not probed again.
TEST_F(PortScanTest, CustomSerialPathsReplaceTheStandardPorts) {
    PtyController silent, owned(B9600);
    testutil::LogCapture log;
    settings_.MaxDeviceNums = 3;
    settings_.CustomPathMask = kCustomSerialPathBit | kCustomUinputPathBit;
    snprintf(settings_.CustomSerialPath[0], kTextMax, "/nonexistent/ttyUSB0");
    snprintf(settings_.CustomSerialPath[2], kTextMax, "%s", silent.slave_path().c_str());
    snprintf(settings_.CustomSerialPath[4], kTextMax, "%s", owned.slave_path().c_str());
    LinkByHand({owned.slave_path()});
    ScanRS232Port(&manager_);
    silent.Stop();
    owned.Stop();
    EXPECT_EQ(IAP_FW, settings_.NewDevIAPType);
    EXPECT_EQ(8u, silent.Seen().size());  // loop-back and IAP query at each of four speeds
    EXPECT_TRUE(owned.Seen().empty());
    EXPECT_EQ(0, log.Count("Scan RS232 Path [/dev/ttyS"));
    EXPECT_EQ(1, manager_.DeviceCount);
    EXPECT_EQ(1234u, settings_.DeviceBaudRate);
}

// Serial paths that do not name a terminal are refused before a probe byte is written: a
// file whose bytes 3-5 read back like a loop-back reply is not taken for a controller, and
// the settings file named as a port keeps every byte.
TEST_F(PortScanTest, CustomSerialPathsThatAreNotTerminalsAreNeverWritten) {
    const std::string lure = data_.path() + "/lure";
    const std::string lure_bytes("\x01\x02\x03\x0a\x01\x41\x0a\x01\x41", 9);
    ASSERT_TRUE(testutil::WriteFile(lure, lure_bytes));
    const std::string ini = IniFilePath();
    const std::string ini_bytes = "[TavrineA.ini]\nDeviceNums 2\n[String]\n[EndOfFile]";
    ASSERT_TRUE(testutil::WriteFile(ini, ini_bytes));
    testutil::LogCapture log;
    settings_.MaxDeviceNums = 2;
    settings_.CustomPathMask = kCustomSerialPathBit;
    snprintf(settings_.CustomSerialPath[0], kTextMax, "%s", lure.c_str());
    snprintf(settings_.CustomSerialPath[1], kTextMax, "%s", ini.c_str());
    snprintf(settings_.CustomSerialPath[2], kTextMax, "/dev/null");
    ScanRS232Port(&manager_);
    ScanRS232Port(&manager_);
    EXPECT_EQ(0, manager_.DeviceCount);
    EXPECT_EQ(lure_bytes, testutil::ReadFile(lure));
    EXPECT_EQ(ini_bytes, testutil::ReadFile(ini));
    EXPECT_EQ(2, log.Count("Refused device node [" + lure + "]: not a character device"));
    EXPECT_EQ(2, log.Count("Refused device node [" + ini + "]: not a character device"));
    EXPECT_EQ(2, log.Count("Refused device node [/dev/null]: not a terminal"));
}

TEST_F(PortScanTest, IsPortObjExistedComparesWholePaths) {
    EXPECT_EQ(-1, IsPortObjExisted(&manager_, "/dev/hidraw0"));  // empty list
    LinkByHand({"/dev/hidraw0", "/dev/ttyS1", "/dev/serio_raw2"});
    for (const char* path : {"/dev/hidraw0", "/dev/ttyS1", "/dev/serio_raw2"}) {
        EXPECT_EQ(0, IsPortObjExisted(&manager_, path)) << path;
    }
    for (const char* path : {"/dev/hidraw", "/dev/hidraw00", "/dev/ttyS10", ""}) {
        EXPECT_EQ(-1, IsPortObjExisted(&manager_, path)) << path;
    }
}

// Head, middle, tail, then the last one; the log names the removed path (a kept copy:
// the object's text is gone once it is destroyed) and the count left.
TEST_F(PortScanTest, RemoveDeviceAtHeadMiddleAndTail) {
    testutil::LogCapture log;
    const std::string long_path = "/dev/" + std::string(70, 'x');  // longer than PortPath holds
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1", "/dev/hidraw2", long_path, "/dev/hidraw4"});
    const std::string kept = "/dev/" + std::string(58, 'x');
    struct Step {
        std::string path;
        std::vector<std::string> left;
    };
    const Step steps[] = {
        {"/dev/hidraw0", {"/dev/hidraw1", "/dev/hidraw2", kept, "/dev/hidraw4"}},
        {"/dev/hidraw2", {"/dev/hidraw1", kept, "/dev/hidraw4"}},
        {"/dev/hidraw4", {"/dev/hidraw1", kept}},
        {kept, {"/dev/hidraw1"}},
        {"/dev/hidraw1", {}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.path);
        RemoveDevice(&manager_, LinkOf(s.path));
        EXPECT_EQ(s.left, ListPaths());
        EXPECT_EQ(static_cast<int>(s.left.size()), manager_.DeviceCount);
        EXPECT_TRUE(log.Contains("Device [" + s.path + "] was removed, existed device amount = " +
                                 std::to_string(s.left.size())));
    }
    RemoveDevice(&manager_, &manager_.DeviceListHead);  // nothing to remove: no change
    EXPECT_EQ(0, manager_.DeviceCount);
}

TEST_F(PortScanTest, AddandInitDeviceFailureLeavesListAndCount) {
    settings_.MaxDeviceNums = 4;
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1"});
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/hidraw7", &manager_.DeviceListHead));
    EXPECT_EQ(2, manager_.DeviceCount);
    EXPECT_EQ((std::vector<std::string>{"/dev/hidraw0", "/dev/hidraw1"}), ListPaths());
    while (manager_.DeviceListHead) RemoveDevice(&manager_, &manager_.DeviceListHead);
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/ttyS3", &manager_.DeviceListHead));
    EXPECT_EQ(nullptr, manager_.DeviceListHead);
    EXPECT_EQ(0, manager_.DeviceCount);
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
        PtyController controller(c.loopback_speed, c.loopback_reply, c.iap_speed, c.iap_reply);
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
        EXPECT_EQ(controller.line_at_start, controller.Line()) << "line settings not restored";
    }
}

}  // namespace
