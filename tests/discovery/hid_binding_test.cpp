// Kernel HID driver binding with stand-in commands: a temporary directory first on PATH
// holds `busybox`, `lsmod`, `modprobe` and `cat` scripts that print fixed listings and
// record their arguments, and the /sys paths point into a temporary tree, where the
// new_id lines really land. (The real sysfs files are exercised in the VM test bed.)
#include "discovery/hid_binding.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/paths.h"
#include "discovery/hid_listing.h"
#include "discovery/usb_bus_watch.h"
#include "support/disc_log_capture.h"

namespace {

const char* const kInputDevices = "cat /proc/bus/input/devices";

class HidBindingTest : public testing::Test {
  protected:
    void SetUp() override {
        base_ = tmp_.path();
        ASSERT_FALSE(base_.empty());
        root_ = base_ + "/root";
        Mkdir(base_ + "/data");
        Mkdir(base_ + "/bin");
        Mkdir(root_);
        SetDataDirForTest((base_ + "/data").c_str());
        SetKernelRootForTest(root_.c_str());

        const std::string calls = base_ + "/calls.log";
        const std::string real_cat = FindRealCat();
        Script("busybox", "echo busybox \"$@\" >> " + calls + "\n" +
                              "if [ \"$1\" = lsusb ]; then " + real_cat + " " + base_ +
                              "/lsusb.txt; fi\n");
        Script("lsmod",
               "echo lsmod \"$@\" >> " + calls + "\n" + real_cat + " " + base_ + "/lsmod.txt\n");
        Script("modprobe",
               "echo modprobe \"$@\" >> " + calls + "\n" +
                   // Records whether hid-generic had been taught before the modprobe ran.
                   "if [ -f " + root_ + "/sys/bus/hid/drivers/hid-generic/new_id ]; then echo " +
                   "modprobe-after-generic >> " + calls + "; fi\n" + "if [ -f " + base_ +
                   "/modprobe_fails ]; then exit 1; fi\n" + "mkdir -p '" + root_ +
                   "/sys/module/hid_multitouch/drivers/hid:hid-multitouch'\n");
        Script("cat", "if [ \"$1\" = /proc/bus/input/devices ]; then echo cat \"$@\" >> " + calls +
                          "; exec " + real_cat + " " + base_ + "/input_devices.txt; fi\n" +
                          "exec " + real_cat + " \"$@\"\n");
        const char* old_path = getenv("PATH");
        saved_path_ = old_path ? old_path : "/usr/bin:/bin";
        setenv("PATH", (base_ + "/bin:" + saved_path_).c_str(), 1);

        Write("lsmod.txt", "Module Size Used by\nhid_generic 16384 0\n");
        Write("input_devices.txt", "I: Bus=0003 Vendor=046d Product=c52b Version=0111\n");
    }
    void TearDown() override {
        setenv("PATH", saved_path_.c_str(), 1);
        SetKernelRootForTest(nullptr);
    }

    static std::string FindRealCat() {
        for (const char* p : {"/usr/bin/cat", "/bin/cat"}) {
            if (access(p, X_OK) == 0) return p;
        }
        return "cat";
    }
    static void Mkdir(const std::string& path) {
        std::string partial;
        std::stringstream parts(path);
        std::string part;
        while (std::getline(parts, part, '/')) {
            if (part.empty()) continue;
            partial += "/" + part;
            mkdir(partial.c_str(), 0755);
        }
    }
    void Script(const std::string& name, const std::string& body) {
        const std::string path = base_ + "/bin/" + name;
        std::ofstream(path) << "#!/bin/sh\n" << body;
        chmod(path.c_str(), 0755);
    }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(base_ + "/" + name) << text;
    }
    // Driver directories, relative to the kernel root.
    void MakeKernelDir(const std::string& path) { Mkdir(root_ + path); }
    // Content of a file under the kernel root; "<missing>" when there is none.
    std::string KernelFile(const std::string& path) const {
        std::ifstream in(root_ + path);
        if (!in) return "<missing>";
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // The recorded commands, consecutive repeats folded (the runner may run a listing
    // command twice: once to learn whether it succeeds, once to capture its output).
    std::vector<std::string> Calls() const {
        std::ifstream in(base_ + "/calls.log");
        std::vector<std::string> calls;
        std::string line;
        while (std::getline(in, line)) {
            if (calls.empty() || calls.back() != line) calls.push_back(line);
        }
        return calls;
    }
    bool CaptureFileGone() const { return access(DrvLogPath(), F_OK) != 0; }

    DiscTempDir tmp_;
    std::string base_;
    std::string root_;
    std::string saved_path_;
};

const char* const kGenericDir = "/sys/bus/hid/drivers/hid-generic";
const char* const kBusMtDir = "/sys/bus/hid/drivers/hid-multitouch";
const char* const kModuleMtDir = "/sys/module/hid_multitouch/drivers/hid:hid-multitouch";
const std::string kGenericNewId = std::string(kGenericDir) + "/new_id";
const std::string kBusMtNewId = std::string(kBusMtDir) + "/new_id";
const std::string kModuleMtNewId = std::string(kModuleMtDir) + "/new_id";

TEST_F(HidBindingTest, LsusbLineLeadsToOneBinding) {
    DiscLogCapture log;
    Write("lsusb.txt",
          "Bus 001 Device 004: ID 3c7a:0001 Touch\nBus 001 Device 001: ID 1d6b:0002 Hub\n");
    MakeKernelDir(kGenericDir);
    MakeKernelDir(kBusMtDir);
    CheckVIDinlsusb("3c7a");

    EXPECT_EQ((std::vector<std::string>{"busybox lsusb", "lsmod", kInputDevices}), Calls());
    EXPECT_EQ(1, log.Count("In lsusb: Get device [3c7a]:[0001]."));
    EXPECT_EQ(1, log.Count("Entering AddPIDintoModuleRoutine() with [3c7a]:[0001]"));
    EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kGenericNewId));
    EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kBusMtNewId));
    EXPECT_EQ("<missing>", KernelFile(kModuleMtNewId));
    EXPECT_TRUE(log.Contains("found inbuilt hid-generic driver in " + root_ + kGenericDir));
    EXPECT_TRUE(log.Contains(
        "found inbuilt hid-multitouch driver in /sys/bus/hid/drivers/hid_multitouch/"));
    EXPECT_TRUE(log.Contains("Entering AddPidToSysHIDGeneric with VID[3c7a] PID[0001]"));
    EXPECT_TRUE(log.Contains("Entering AddPidToSysModule with VID[3c7a] PID[0001]"));
    EXPECT_TRUE(CaptureFileGone());
}

TEST_F(HidBindingTest, TwoLinesTwoBindingsInListingOrder) {
    DiscLogCapture log;
    Write("lsusb.txt", "Bus 001 Device 004: ID 3c7a:0002 A\nBus 002 Device 003: ID 3c7a:0001 B\n");
    MakeKernelDir(kGenericDir);
    CheckVIDinlsusb("3c7a");
    int first = log.Find("Entering AddPIDintoModuleRoutine() with [3c7a]:[0002]");
    int second = log.Find("Entering AddPIDintoModuleRoutine() with [3c7a]:[0001]");
    EXPECT_GE(first, 0);
    EXPECT_GT(second, first);
    std::vector<std::string> calls = Calls();
    EXPECT_EQ(2, std::count(calls.begin(), calls.end(), std::string(kInputDevices)));
    // The first binding's modprobe made the module directory; the second needs none.
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), std::string("modprobe hid-multitouch")));
    EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kGenericNewId));  // the last one written
    EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kModuleMtNewId));
}

TEST_F(HidBindingTest, NoVendorLineDoesNothingElse) {
    DiscLogCapture log;
    Write("lsusb.txt", "Bus 001 Device 001: ID 1d6b:0002 Hub\n");
    MakeKernelDir(kGenericDir);
    CheckVIDinlsusb("3c7a");
    EXPECT_EQ(std::vector<std::string>{"busybox lsusb"}, Calls());
    EXPECT_EQ(0, log.Count("AddPIDintoModuleRoutine"));
    EXPECT_EQ("<missing>", KernelFile(kGenericNewId));
}

TEST_F(HidBindingTest, InputDeviceListingTable) {
    struct Case {
        const char* listing;
        const char* pid;
        int result;
    };
    const Case cases[] = {
        {"I: Bus=0003 Vendor=3c7a Product=0001 Version=0210\n", "0001", 1},
        {"I: Bus=0003 Vendor=3c7a Product=0002 Version=0210\nN: Name=\"x\"\n"
         "I: Bus=0003 Vendor=3c7a Product=0001 Version=0210\n",
         "0001", 1},
        {"I: Bus=0003 Vendor=3c7a Product=0002 Version=0210\n", "0001", 0},
        {"I: Bus=0003 Vendor=046d Product=0001 Version=0210\n", "0001", 0},
        {"I: Bus=0003 Vendor=3c7a Product=000A Version=0210\n", "000a", 0},  // case-sensitive
        {"I: Bus=0003 Vendor=3c7a\n", "0001", 0},                            // no next word
        {"", "0001", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.listing);
        DiscLogCapture log;
        Write("input_devices.txt", c.listing);
        EXPECT_EQ(c.result, CheckPIDinInputDevice(c.pid));
        if (c.result == 1) {
            EXPECT_TRUE(log.Contains(
                std::string("Under 'cat /proc/bus/input/devices', match device [") + c.pid + "]"));
        } else {
            EXPECT_TRUE(log.Contains(std::string("Dismatch device [") + c.pid +
                                     "]. Didn't list under cat /proc/bus/input/devices"));
        }
        EXPECT_TRUE(CaptureFileGone());
    }
}

TEST_F(HidBindingTest, AlreadyAnInputDeviceGetsNoWrites) {
    MakeKernelDir(kGenericDir);
    MakeKernelDir(kBusMtDir);
    Write("input_devices.txt", "I: Bus=0003 Vendor=3c7a Product=0001 Version=0210\n");
    EXPECT_EQ(1, AddPIDintoModuleRoutine("3c7a", "0001"));
    EXPECT_EQ("<missing>", KernelFile(kGenericNewId));
    EXPECT_EQ("<missing>", KernelFile(kBusMtNewId));
    EXPECT_EQ(std::vector<std::string>{kInputDevices}, Calls());
}

TEST_F(HidBindingTest, OnlyHidGenericThenModprobeThenModuleNewId) {
    DiscLogCapture log;
    MakeKernelDir(kGenericDir);
    EXPECT_EQ(0, AddPIDintoModuleRoutine("3c7a", "0001"));
    EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kGenericNewId));
    EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kModuleMtNewId));
    EXPECT_EQ((std::vector<std::string>{kInputDevices, "modprobe hid-multitouch",
                                        "modprobe-after-generic", "lsmod"}),
              Calls());
    EXPECT_TRUE(log.Contains("Do modprobe hid-multitouch success"));
    EXPECT_TRUE(log.Contains("Module hid-multitouch is build-in kernel. Path [" + root_ +
                             "/sys/module/hid_multitouch] is existed in system."));
    EXPECT_TRUE(log.Contains("Entering AddPidToModule with VID[3c7a] PID[0001]"));
}

TEST_F(HidBindingTest, FailedModprobeIsReportedAndBindingStillTried) {
    DiscLogCapture log;
    Write("modprobe_fails", "");
    EXPECT_NE(0, AddPIDintoModuleRoutine("3c7a", "0001"));
    EXPECT_TRUE(log.Contains(
        "Do modprobe hid-multitouch failed. The module hid-multitouch may not exist."));
    EXPECT_TRUE(
        log.Contains("Please rebuild kernel to make hid-multitouch as a module in system."));
    EXPECT_TRUE(log.Contains("Couldn't find hid-multitouch module in lsmod"));
    EXPECT_TRUE(log.Contains("Module hid-multitouch loaded may be failed."));
    EXPECT_TRUE(log.Contains("Add deviceID into hid-multitouch module failed"));
    EXPECT_EQ("<missing>", KernelFile(kModuleMtNewId));
}

TEST_F(HidBindingTest, DriverDirectoriesThatListTheControllerAreNotTaught) {
    {
        // hid-multitouch lists the controller; hid-generic does not: only hid-generic is taught.
        MakeKernelDir(kGenericDir);
        MakeKernelDir(std::string(kBusMtDir) + "/0003:3C7A:0001.0001");
        EXPECT_EQ(1, AddPIDintoModuleRoutine("3c7a", "0001"));
        EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kGenericNewId));
        EXPECT_EQ("<missing>", KernelFile(kBusMtNewId));
    }
    {
        // Listed in lower case under hid-generic: the search ignores case.
        MakeKernelDir(std::string(kGenericDir) + "/0003:3c7a:00ab.0002");
        EXPECT_EQ(0, AddPIDintoModuleRoutine("3c7a", "00AB"));
        EXPECT_EQ("3 3c7a 0001 103\n", KernelFile(kGenericNewId));  // not rewritten
        EXPECT_EQ("3 3c7a 00ab 103\n", KernelFile(kBusMtNewId));
    }
}

TEST_F(HidBindingTest, DirectoryListings) {
    MakeKernelDir(std::string(kModuleMtDir) + "/0003:3C7A:00AB.0001");
    MakeKernelDir(std::string(kBusMtDir) + "/0003:3c7a:00cd.0002");
    MakeKernelDir(std::string(kGenericDir) + "/0003:046D:3C7A.0003");
    EXPECT_EQ(1, IsPidInModule("00ab"));
    EXPECT_EQ(1, IsPidInModule("00AB"));
    EXPECT_EQ(0, IsPidInModule("00ac"));
    EXPECT_EQ(1, IsPidInSysModule("00CD"));
    EXPECT_EQ(0, IsPidInSysModule("00AB"));
    EXPECT_EQ(0, IsPidInSysHIDGeneric("0003"));  // "3C7A:0003" is not listed
    EXPECT_TRUE(CaptureFileGone());
    EXPECT_EQ(0, IsPidInSysHIDGeneric("0001"));
}

TEST_F(HidBindingTest, MissingDirectoryListsNothing) {
    EXPECT_EQ(0, IsPidInModule("0001"));
    EXPECT_EQ(0, IsPidInSysModule("0001"));
    EXPECT_EQ(0, IsPidInSysHIDGeneric("0001"));
}

TEST_F(HidBindingTest, CheckModuleInSystemMessages) {
    {
        DiscLogCapture log;
        Write("lsmod.txt", "Module Size Used by\nusbtouchscreen 20480 0\n");
        EXPECT_EQ(0, CheckModuleInSystem("usbtouchscreen", "usbtouchscreen"));
        EXPECT_TRUE(log.Contains("Found a non-HID compliant module [usbtouchscreen] in lsmod"));
    }
    {
        DiscLogCapture log;
        Write("lsmod.txt", "Module Size Used by\n");
        EXPECT_EQ(-1, CheckModuleInSystem("usbtouchscreen", "usbtouchscreen"));
        int a = log.Find("No non-HID compliant module [usbtouchscreen] found in system");
        int b = log.Find("Check whether it is build-in kernel.", a);
        int c = log.Find(
            "No non-HID compliant module [usbtouchscreen] found both in kernel or module "
            "list. There's no path [" +
                root_ + "/sys/module/usbtouchscreen]",
            b);
        EXPECT_GE(a, 0);
        EXPECT_GT(b, a);
        EXPECT_GT(c, b);
    }
    {
        DiscLogCapture log;
        MakeKernelDir("/sys/module/hid_foo");
        EXPECT_EQ(0, CheckModuleInSystem("hid-foo", "hid_foo"));
        EXPECT_TRUE(log.Contains("Couldn't find hid-foo module in lsmod"));
        EXPECT_TRUE(log.Contains("Module hid-foo is build-in kernel. Path [" + root_ +
                                 "/sys/module/hid_foo] is existed in system."));
    }
}

TEST_F(HidBindingTest, UsbTouchscreenWarningBeforeEachBinding) {
    DiscLogCapture log;
    Write("lsmod.txt", "Module Size Used by\nusbtouchscreen 20480 0\n");
    Write("lsusb.txt", "Bus 001 Device 004: ID 3c7a:0001 A\nBus 001 Device 005: ID 3c7a:0002 B\n");
    MakeKernelDir(kGenericDir);
    MakeKernelDir(kBusMtDir);
    CheckVIDinlsusb("3c7a");
    const std::string warning =
        "A non-HID compliant module [usbtoucscreen] is loaded in system. Please REMOVE it from "
        "system! ";
    int w1 = log.Find(warning);
    int r1 = log.Find("Entering AddPIDintoModuleRoutine() with [3c7a]:[0001]", w1);
    int w2 = log.Find(warning, r1);
    int r2 = log.Find("Entering AddPIDintoModuleRoutine() with [3c7a]:[0002]", w2);
    EXPECT_GE(w1, 0);
    EXPECT_GT(r1, w1);
    EXPECT_GT(w2, r1);
    EXPECT_GT(r2, w2);
    EXPECT_EQ("3 3c7a 0002 103\n", KernelFile(kBusMtNewId));
}

// Product ids take the settings file's rule, 1 to 4 hexadecimal digits, and reach the kernel
// as the four lower-case digits it lists in /proc/bus/input/devices; the vendor id is four
// digits. Nothing else reaches a shell.
TEST_F(HidBindingTest, IdsAreOneToFourHexDigitsInTheKernelsForm) {
    MakeKernelDir(kGenericDir);
    MakeKernelDir(kBusMtDir);
    EXPECT_EQ(0, AddPIDintoModuleRoutine("3c7a", "7E5"));
    EXPECT_EQ("3 3c7a 07e5 103\n", KernelFile(kGenericNewId));
    EXPECT_EQ("3 3c7a 07e5 103\n", KernelFile(kBusMtNewId));
    Write("input_devices.txt", "I: Bus=0003 Vendor=3c7a Product=07e5 Version=0210\n");
    EXPECT_EQ(1, AddPIDintoModuleRoutine("3c7a", "7E5"));  // bound now: nothing written
    unlink((base_ + "/calls.log").c_str());

    const std::string marker = base_ + "/injected";
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"3c7a", "0001; touch " + marker},
        {"3c7a", "0001 > " + marker},
        {"3c7a", "00012"},
        {"3c7a", "zz01"},
        {"3c7a", ""},
        {"3c7a;touch " + marker, "0001"},
        {"3c7", "0001"},
    };
    for (const auto& ids : bad) {
        SCOPED_TRACE(ids.first + ":" + ids.second);
        DiscLogCapture log;
        EXPECT_EQ(-1, AddPIDintoModuleRoutine(ids.first.c_str(), ids.second.c_str()));
        EXPECT_EQ(-1, AddPidToSysHIDGeneric(ids.first.c_str(), ids.second.c_str()));
        EXPECT_EQ(-1, AddPidToSysModule(ids.first.c_str(), ids.second.c_str()));
        EXPECT_EQ(-1, AddPidToModule(ids.first.c_str(), ids.second.c_str()));
        EXPECT_TRUE(log.Contains("a vendor id has 4 hexadecimal digits, a product id 1 to 4"));
    }
    EXPECT_TRUE(Calls().empty());
    EXPECT_NE(0, access(marker.c_str(), F_OK));
    EXPECT_EQ("3 3c7a 07e5 103\n", KernelFile(kGenericNewId));  // nothing written since
    EXPECT_EQ("3 3c7a 07e5 103\n", KernelFile(kBusMtNewId));

    // From a listing: a short entry is skipped, a hostile one is refused.
    DiscLogCapture log;
    Write("lsusb.txt", "Bus 001 Device 004: ID 3c7a:01\nBus 001 Device 005: ID 3c7a:0;id\n");
    CheckVIDinlsusb("3c7a");
    EXPECT_EQ(std::vector<std::string>{"busybox lsusb"}, Calls());
    EXPECT_EQ(1, log.Count("Listed product id [0;id] is not four hexadecimal digits"));
    EXPECT_EQ(0, log.Count("In lsusb: Get device [3c7a]:[0;id]."));
    EXPECT_EQ(0, log.Count("In lsusb: Get device [3c7a]:[01"));
    EXPECT_EQ(-1, CheckModuleInSystem("usb;reboot", "usbtouchscreen"));
    EXPECT_EQ(std::vector<std::string>{"busybox lsusb"}, Calls());
}

// The scan loop binds only when the USB devices changed: the first look, a bus that
// appears, a device or interface added or removed, and a device re-added under the same
// name (a new directory entry) are changes; a second look at the same set is not.
TEST_F(HidBindingTest, UsbDeviceSetChangesAreSeenFromTheListing) {
    const std::string bus = root_ + "/sys/bus/usb/devices";
    UsbDeviceSet last;
    auto changed = [&] { return UsbDeviceSetChanged(bus.c_str(), &last); };
    EXPECT_TRUE(changed());  // first look: no bus yet
    EXPECT_FALSE(changed());
    Mkdir(bus + "/usb1");
    EXPECT_TRUE(changed());
    EXPECT_FALSE(changed());
    Mkdir(bus + "/1-1");
    EXPECT_TRUE(changed());
    Mkdir(bus + "/1-1:1.0");
    EXPECT_TRUE(changed());
    EXPECT_FALSE(changed());
    // Unplugged and plugged again on the same port between two looks.
    Mkdir(bus + "/replug");
    ASSERT_EQ(0, rmdir((bus + "/1-1").c_str()));
    ASSERT_EQ(0, rename((bus + "/replug").c_str(), (bus + "/1-1").c_str()));
    EXPECT_TRUE(changed());
    EXPECT_FALSE(changed());
    ASSERT_EQ(0, rmdir((bus + "/1-1:1.0").c_str()));
    EXPECT_TRUE(changed());
    EXPECT_EQ(2u, last.count);
    EXPECT_TRUE(Calls().empty());  // no command was run
}

}  // namespace
