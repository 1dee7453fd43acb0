// One pass of the USB and serial scans: which nodes are looked at and what the pass leaves
// in the settings and the manager's device list; the serial probe of one port against a
// pty whose master side plays a controller that answers only at some line speeds; and the
// list itself (lookup, append failure, unlinking) with bare records linked by hand. No
// test here writes to a real serial port of the host.
#include <gtest/gtest.h>
#include <string.h>
#include <termios.h>

#include <memory>

#include "config/global_settings.h"
#include "core/manager.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "discovery/device_list.h"
#include "discovery/serial_scan.h"
#include "discovery/usb_scan.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

using Speeds = std::vector<speed_t>;
const Bytes kBootLoader = {0x0A, 0x04, 0x39, 0x01, 0x00, 0x00}, kLoopback = {0x0A, 0x01, 0x41};

// A serial controller on the master side of a pty: answers the loop-back (41) only at
// loopback_speed and the IAP-type query (39) only at iap_speed (0: never), reading the
// slave's line speed back through the master; records the speed of each command.
class PtyController {
  public:
    explicit PtyController(speed_t loopback_speed = 0, Bytes loopback = kLoopback,
                           speed_t iap_speed = 0, Bytes iap = kBootLoader) {
        EXPECT_TRUE(testutil::OpenPty(&pty_));  // the slave held open keeps the line up
        struct termios line;
        tcgetattr(pty_.slave.get(), &line);
        cfmakeraw(&line);
        cfsetspeed(&line, B38400);
        tcsetattr(pty_.slave.get(), TCSANOW, &line);
        const int master = pty_.master.release();
        controller_.reset(new FakeController(master));  // which owns master
        controller_->SetResponder([=](const Bytes& packet) {
            struct termios now;
            tcgetattr(master, &now);
            const speed_t speed = cfgetospeed(&now);
            (packet[2] == 0x41 ? loopbacks : queries).push_back(speed);  // read after Stop()
            std::vector<TimedReply> replies;
            if (packet[2] == 0x41 && speed == loopback_speed) replies.push_back({0, loopback});
            if (packet[2] == 0x39 && speed == iap_speed) replies.push_back({0, iap});
            return replies;
        });
        line_at_start = Line();
        controller_->Start();
    }
    const std::string& path() const { return pty_.slave_path; }
    void Stop() { controller_->Stop(); }
    // The slave's line settings (every byte), to compare before and after a probe.
    std::string Line() const {
        struct termios t = {};
        EXPECT_EQ(0, tcgetattr(pty_.slave.get(), &t));
        return std::string(reinterpret_cast<const char*>(&t), sizeof(t));
    }
    std::string line_at_start;
    Speeds loopbacks, queries;

  private:
    testutil::Pty pty_;
    std::unique_ptr<FakeController> controller_;  // stops before the speeds go
};

class PortScanTest : public testing::Test {
  protected:
    void SetUp() override {
        memset(&settings_, 0, sizeof(settings_));
        settings_.MaxDeviceNums = 1;
        settings_.NewDevIAPType = IAP_BFW;  // every serial and USB pass sets it back to IAP_FW
        settings_.DeviceBaudRate = 1234;
        for (auto& path : settings_.CustomSerialPath) snprintf(path, kTextMax, "default");
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
        for (CDeviceObject* d = manager_.DeviceListHead; d; d = d->pNext) paths.push_back(d->PortPath);
        return paths;
    }

    testutil::TempDir data_;
    GlobalSettings settings_;
    CManager manager_{&settings_};
};

// Nodes that are not hidraw devices are refused, and a failed append leaves the list.
TEST_F(PortScanTest, WhatIsNotADeviceNodeIsNotAdded) {
    ASSERT_TRUE(testutil::WriteFile(data_.File("hidraw_plain_file"), ""));
    for (const std::string& path : {std::string("/nonexistent/hidraw0"), data_.File("hidraw_plain_file"),
                                    std::string("/dev/null")}) {
        EXPECT_EQ(-1, CheckUSBDevice(&manager_, path.c_str())) << path;
    }
    EXPECT_EQ(0, manager_.DeviceCount);
    settings_.MaxDeviceNums = 4;
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/ttyS3", &manager_.DeviceListHead));
    EXPECT_EQ(nullptr, manager_.DeviceListHead);
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1"});
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/hidraw7", &manager_.DeviceListHead));
    EXPECT_EQ((std::vector<std::string>{"/dev/hidraw0", "/dev/hidraw1"}), ListPaths());
    EXPECT_EQ(2, manager_.DeviceCount);
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
    snprintf(settings_.CustomSerialPath[2], kTextMax, "%s", silent.path().c_str());
    snprintf(settings_.CustomSerialPath[4], kTextMax, "%s", owned.path().c_str());
    LinkByHand({owned.path()});
    ScanRS232Port(&manager_);
    silent.Stop();
    owned.Stop();
    EXPECT_EQ(IAP_FW, settings_.NewDevIAPType);
    EXPECT_EQ(Speeds({B9600, B19200, B57600, B115200}), silent.loopbacks);
    EXPECT_EQ(silent.loopbacks, silent.queries);
    EXPECT_TRUE(owned.loopbacks.empty() && owned.queries.empty());
    EXPECT_EQ(0, log.Count("Scan RS232 Path [/dev/ttyS"));  // no standard port looked at
    EXPECT_EQ(1, manager_.DeviceCount);
    EXPECT_EQ(1234u, settings_.DeviceBaudRate);
}

// Serial paths that do not name a terminal are refused before a probe byte is written: a
// file whose bytes 3-5 read back like a loop-back reply is not taken for a controller, and
// the settings file named as a port keeps every byte.
TEST_F(PortScanTest, CustomSerialPathsThatAreNotTerminalsAreNeverWritten) {
    const std::string lure = data_.File("lure"), lure_bytes("\x01\x02\x03\x0a\x01\x41\x0a\x01\x41", 9);
    const std::string ini = IniFilePath(), ini_bytes = "[TavrineA.ini]\nDeviceNums 2\n[String]\n[EndOfFile]";
    ASSERT_TRUE(testutil::WriteFile(lure, lure_bytes) && testutil::WriteFile(ini, ini_bytes));
    testutil::LogCapture log;
    settings_.MaxDeviceNums = 2;
    settings_.CustomPathMask = kCustomSerialPathBit;
    snprintf(settings_.CustomSerialPath[0], kTextMax, "/dev/null");  // the first slot counts too
    snprintf(settings_.CustomSerialPath[1], kTextMax, "%s", lure.c_str());
    snprintf(settings_.CustomSerialPath[2], kTextMax, "%s", ini.c_str());
    ScanRS232Port(&manager_);
    ScanRS232Port(&manager_);
    EXPECT_EQ(0, manager_.DeviceCount);
    EXPECT_EQ(lure_bytes, testutil::ReadFile(lure));
    EXPECT_EQ(ini_bytes, testutil::ReadFile(ini));
    EXPECT_EQ(2, log.Count("Refused device node [/dev/null]: not a terminal"));  // not opened
}

// Lookup compares whole paths; unlinking at head, middle and tail (a path longer than
// PortPath holds is kept cut), then the last one, keeps the count in step.
TEST_F(PortScanTest, DeviceListLookupAndRemoval) {
    EXPECT_EQ(-1, IsPortObjExisted(&manager_, "/dev/hidraw0"));  // empty list
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1", "/dev/ttyS2", "/dev/" + std::string(70, 'x'),
                "/dev/serio_raw4"});
    for (const char* path : {"/dev/hidraw0", "/dev/ttyS2", "/dev/serio_raw4"}) {
        EXPECT_EQ(0, IsPortObjExisted(&manager_, path)) << path;
    }
    for (const char* path : {"/dev/hidraw", "/dev/hidraw00", "/dev/ttyS20", ""}) {
        EXPECT_EQ(-1, IsPortObjExisted(&manager_, path)) << path;
    }
    const std::string kept = "/dev/" + std::string(58, 'x');
    const std::pair<std::string, std::vector<std::string>> steps[] = {
        {"/dev/hidraw0", {"/dev/hidraw1", "/dev/ttyS2", kept, "/dev/serio_raw4"}},
        {"/dev/ttyS2", {"/dev/hidraw1", kept, "/dev/serio_raw4"}},
        {"/dev/serio_raw4", {"/dev/hidraw1", kept}},
        {kept, {"/dev/hidraw1"}},
        {"/dev/hidraw1", {}},
    };
    for (const auto& s : steps) {
        CDeviceObject** link = &manager_.DeviceListHead;
        while (*link && s.first != (*link)->PortPath) link = &(*link)->pNext;
        RemoveDevice(&manager_, link);
        EXPECT_EQ(s.second, ListPaths()) << s.first;
        EXPECT_EQ(int(s.second.size()), manager_.DeviceCount) << s.first;
    }
    RemoveDevice(&manager_, &manager_.DeviceListHead);  // nothing to remove: no change
    EXPECT_EQ(0, manager_.DeviceCount);
}

// The speeds tried (9600, 19200, 57600, 115200, or the configured one only), the
// boot-loader query after each unanswered loop-back, the speed kept, and the line left as
// it was found.
class CheckRS232Device : public PortScanTest {};
TEST_F(CheckRS232Device, ProbeAtEachSpeed) {
    const Speeds all = {B9600, B19200, B57600, B115200};
    const struct {
        uint32_t configured;
        speed_t loopback_speed;
        Bytes loopback;
        speed_t iap_speed;
        Bytes iap;
        int result;
        uint32_t kept;  // 1234: untouched
        Speeds loopbacks, queries;
    } cases[] = {
        {0, B57600, kLoopback, 0, kBootLoader, 0, 57600, {B9600, B19200, B57600}, {B9600, B19200}},
        {0, 0, kLoopback, B115200, kBootLoader, 0, 115200, all, all},  // a boot loader
        {0, 0, kLoopback, 0, kBootLoader, -1, 1234, all, all},         // silent
        // A wrong loop-back, and application firmware.
        {0, B9600, {0x0A, 0x01, 0x42}, B9600, {0x0A, 0x04, 0x39, 0x00, 0x00, 0x00}, -1, 1234, all, all},
        {0, B19200, {0x0A, 0x00}, 0, kBootLoader, -1, 1234, all, all},  // no command byte
        {19200, B57600, kLoopback, 0, kBootLoader, -1, 1234, {B19200}, {B19200}},
        {19200, B19200, kLoopback, 0, kBootLoader, 0, 19200, {B19200}, {}},
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

}  // namespace
