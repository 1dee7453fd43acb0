// Kernel HID driver binding with stand-in commands: a temporary directory first on PATH
// holds `busybox`, `lsmod`, `modprobe` and `cat` scripts that print fixed listings and
// record their arguments, and the /sys paths point into a temporary tree, where the
// new_id lines really land. (The real sysfs files are exercised in the VM test bed.)
#include "discovery/hid_binding.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/paths.h"
#include "discovery/hid_listing.h"
#include "discovery/usb_bus_watch.h"
#include "support/test_util.h"

namespace {

using Strings = std::vector<std::string>;

const char* const kGenericDir = "/sys/bus/hid/drivers/hid-generic";
const char* const kBusMtDir = "/sys/bus/hid/drivers/hid-multitouch";
const char* const kModuleMtDir = "/sys/module/hid_multitouch/drivers/hid:hid-multitouch";
const char* const kInputDevices = "cat /proc/bus/input/devices";
const char* const kMissing = "<missing>";

void Mkdir(const std::string& path) {
    std::string partial;
    std::stringstream parts(path);
    std::string part;
    while (std::getline(parts, part, '/')) {
        if (part.empty()) continue;
        partial += "/" + part;
        mkdir(partial.c_str(), 0755);
    }
}

// A private data directory, kernel root and PATH with the stand-in commands.
class HidRig {
  public:
    HidRig() : base_(tmp_.path()), root_(base_ + "/root") {
        Mkdir(base_ + "/data");
        Mkdir(base_ + "/bin");
        Mkdir(root_);
        SetDataDirForTest((base_ + "/data").c_str());
        SetKernelRootForTest(root_.c_str());
        const std::string calls = base_ + "/calls.log";
        const std::string cat = access("/usr/bin/cat", X_OK) == 0 ? "/usr/bin/cat" : "/bin/cat";
        Script("busybox", "echo busybox \"$@\" >> " + calls + "\nif [ \"$1\" = lsusb ]; then " +
                              cat + " " + base_ + "/lsusb.txt; fi\n");
        Script("lsmod",
               "echo lsmod \"$@\" >> " + calls + "\n" + cat + " " + base_ + "/lsmod.txt\n");
        // Records whether hid-generic had been taught before the modprobe ran.
        Script("modprobe", "echo modprobe \"$@\" >> " + calls + "\nif [ -f " + root_ + kGenericDir +
                               "/new_id ]; then echo modprobe-after-generic >> " + calls +
                               "; fi\nif [ -f " + base_ + "/modprobe_fails ]; then exit 1; fi\n" +
                               "mkdir -p '" + root_ + kModuleMtDir + "'\n");
        Script("cat", "if [ \"$1\" = /proc/bus/input/devices ]; then echo cat \"$@\" >> " + calls +
                          "; exec " + cat + " " + base_ + "/input_devices.txt; fi\nexec " + cat +
                          " \"$@\"\n");
        const char* old_path = getenv("PATH");
        saved_path_ = old_path ? old_path : "/usr/bin:/bin";
        setenv("PATH", (base_ + "/bin:" + saved_path_).c_str(), 1);
        Write("lsmod.txt", "Module Size Used by\nhid_generic 16384 0\n");
        Write("input_devices.txt", "I: Bus=0003 Vendor=046d Product=c52b Version=0111\n");
    }
    ~HidRig() {
        setenv("PATH", saved_path_.c_str(), 1);
        SetKernelRootForTest(nullptr);
    }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(base_ + "/" + name) << text;
    }
    void KernelDir(const std::string& path) { Mkdir(root_ + path); }
    std::string KernelFile(const std::string& path) const {
        std::ifstream in(root_ + path);
        if (!in) return kMissing;
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // The recorded commands, consecutive repeats folded (the runner may run a listing
    // command twice: once to learn whether it succeeds, once to capture its output).
    Strings Calls() const {
        std::ifstream in(base_ + "/calls.log");
        Strings calls;
        std::string line;
        while (std::getline(in, line)) {
            if (calls.empty() || calls.back() != line) calls.push_back(line);
        }
        return calls;
    }
    const std::string& base() const { return base_; }
    const std::string& root() const { return root_; }

  private:
    void Script(const std::string& name, const std::string& body) {
        const std::string path = base_ + "/bin/" + name;
        std::ofstream(path) << "#!/bin/sh\n" << body;
        chmod(path.c_str(), 0755);
    }

    testutil::TempDir tmp_;
    std::string base_;
    std::string root_;
    std::string saved_path_;
};

// From the lsusb listing to the new_id lines: which drivers are taught, in which order
// the commands run, and what is left alone.
TEST(HidBinding, FromTheListingToTheDrivers) {
    const std::string generic = kGenericDir, bus_mt = kBusMtDir;
    struct Case {
        const char* what;
        const char* lsusb;
        const char* input_devices;  // nullptr: the controller is not an input device
        Strings dirs;
        bool modprobe_fails;
        Strings calls;
        std::string generic_id, bus_mt_id, module_id;
    };
    const std::string one =
        "Bus 001 Device 004: ID 3c7a:0001 Touch\nBus 001 Device 001: ID 1d6b:0002 Hub\n";
    const std::string id1 = "3 3c7a 0001 103\n";
    const Strings looked = {"busybox lsusb", "lsmod", kInputDevices};
    const Strings probed = {
        "busybox lsusb",          "lsmod", kInputDevices, "modprobe hid-multitouch",
        "modprobe-after-generic", "lsmod"};
    // clang-format off
    const Case cases[] = {
        {"both drivers on the bus", one.c_str(), nullptr, {generic, bus_mt}, false, looked, id1, id1, kMissing},
        {"no controller listed", "Bus 001 Device 001: ID 1d6b:0002 Hub\n", nullptr, {generic, bus_mt}, false,
         {"busybox lsusb"}, kMissing, kMissing, kMissing},
        {"already an input device", one.c_str(), "I: Bus=0003 Vendor=3c7a Product=0001 Version=0210\n",
         {generic, bus_mt}, false, looked, kMissing, kMissing, kMissing},
        {"hid-generic only: modprobe after it is taught, then the module's new_id", one.c_str(), nullptr,
         {generic}, false, probed, id1, kMissing, id1},
        // The controller is an input device only when an "I:" line lists its vendor and
        // (lower-case) product.
        {"listed after another product", one.c_str(), "I: Bus=0003 Vendor=3c7a Product=0002 Version=0210\nN: "
         "Name=\"x\"\nI: Bus=0003 Vendor=3c7a Product=0001 Version=0210\n", {generic, bus_mt}, false, looked,
         kMissing, kMissing, kMissing},
        {"another product only", one.c_str(), "I: Bus=0003 Vendor=3c7a Product=0002 Version=0210\n",
         {generic, bus_mt}, false, looked, id1, id1, kMissing},
        {"another vendor only", one.c_str(), "I: Bus=0003 Vendor=046d Product=0001 Version=0210\n",
         {generic, bus_mt}, false, looked, id1, id1, kMissing},
        {"a line cut after the vendor", one.c_str(), "I: Bus=0003 Vendor=3c7a\n", {generic, bus_mt}, false,
         looked, id1, id1, kMissing},
        {"upper-case product", "Bus 001 Device 004: ID 3c7a:000a A\n", "I: Bus=0003 Vendor=3c7a Product=000A "
         "Version=0210\n", {generic, bus_mt}, false, looked, "3 3c7a 000a 103\n", "3 3c7a 000a 103\n", kMissing},
        {"modprobe fails", one.c_str(), nullptr, {}, true,
         {"busybox lsusb", "lsmod", kInputDevices, "modprobe hid-multitouch", "lsmod"}, kMissing, kMissing, kMissing},
        {"a driver that lists the controller (any case) is not taught", "Bus 001 Device 004: ID 3c7a:00ab A\n",
         nullptr, {generic, bus_mt + "/0003:3C7A:00AB.0001"}, false, looked, "3 3c7a 00ab 103\n", kMissing, kMissing},
        {"two controllers in listing order; one modprobe",
         "Bus 001 Device 004: ID 3c7a:0002 A\nBus 002 Device 003: ID 3c7a:0001 B\n", nullptr, {generic}, false,
         {"busybox lsusb", "lsmod", kInputDevices, "modprobe hid-multitouch", "modprobe-after-generic", "lsmod",
          kInputDevices, "lsmod"}, id1, kMissing, id1},
        {"short and hostile product ids are skipped",
         "Bus 001 Device 004: ID 3c7a:01\nBus 001 Device 005: ID 3c7a:0;id\n", nullptr, {generic, bus_mt}, false,
         {"busybox lsusb"}, kMissing, kMissing, kMissing},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        HidRig rig;
        rig.Write("lsusb.txt", c.lsusb);
        if (c.input_devices) rig.Write("input_devices.txt", c.input_devices);
        if (c.modprobe_fails) rig.Write("modprobe_fails", "");
        for (const std::string& dir : c.dirs) rig.KernelDir(dir);
        CheckVIDinlsusb("3c7a");
        EXPECT_EQ(c.calls, rig.Calls());
        EXPECT_EQ(c.generic_id, rig.KernelFile(generic + "/new_id"));
        EXPECT_EQ(c.bus_mt_id, rig.KernelFile(bus_mt + "/new_id"));
        EXPECT_EQ(c.module_id, rig.KernelFile(std::string(kModuleMtDir) + "/new_id"));
        EXPECT_NE(0, access(DrvLogPath(), F_OK));  // the capture file is removed
    }
}

// Product ids take the settings file's rule, 1 to 4 hexadecimal digits, and reach the kernel
// as the four lower-case digits it lists in /proc/bus/input/devices; the vendor id is four
// digits. Nothing else reaches a shell.
TEST(HidBinding, IdsAreOneToFourHexDigitsInTheKernelsForm) {
    HidRig rig;
    rig.KernelDir(kGenericDir);
    rig.KernelDir(kBusMtDir);
    EXPECT_EQ(0, AddPIDintoModuleRoutine("3c7a", "7E5"));
    const std::string generic_id = std::string(kGenericDir) + "/new_id";
    EXPECT_EQ("3 3c7a 07e5 103\n", rig.KernelFile(generic_id));
    unlink((rig.base() + "/calls.log").c_str());

    const std::string marker = rig.base() + "/injected";
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
        EXPECT_EQ(-1, AddPIDintoModuleRoutine(ids.first.c_str(), ids.second.c_str()));
        EXPECT_EQ(-1, AddPidToSysHIDGeneric(ids.first.c_str(), ids.second.c_str()));
        EXPECT_EQ(-1, AddPidToSysModule(ids.first.c_str(), ids.second.c_str()));
        EXPECT_EQ(-1, AddPidToModule(ids.first.c_str(), ids.second.c_str()));
    }
    EXPECT_EQ(-1, CheckModuleInSystem("usb;reboot", "usbtouchscreen"));
    EXPECT_TRUE(rig.Calls().empty());
    EXPECT_NE(0, access(marker.c_str(), F_OK));
    EXPECT_EQ("3 3c7a 07e5 103\n", rig.KernelFile(generic_id));  // nothing written since
}

// The scan loop binds only when the USB devices changed: the first look, a bus that
// appears, a device or interface added or removed, and a device re-added under the same
// name (a new directory entry) are changes; a second look at the same set is not.
TEST(HidBinding, UsbDeviceSetChangesAreSeenFromTheListing) {
    HidRig rig;
    const std::string bus = rig.root() + "/sys/bus/usb/devices";
    UsbDeviceSet last;
    auto changed = [&] { return UsbDeviceSetChanged(bus.c_str(), &last); };
    EXPECT_TRUE(changed());  // first look: no bus yet
    EXPECT_FALSE(changed());
    for (const char* entry : {"usb1", "1-1", "1-1:1.0"}) {
        Mkdir(bus + "/" + entry);
        EXPECT_TRUE(changed()) << entry;
        EXPECT_FALSE(changed()) << entry;
    }
    // Unplugged and plugged again on the same port between two looks.
    Mkdir(bus + "/replug");
    ASSERT_EQ(0, rmdir((bus + "/1-1").c_str()));
    ASSERT_EQ(0, rename((bus + "/replug").c_str(), (bus + "/1-1").c_str()));
    EXPECT_TRUE(changed());
    EXPECT_FALSE(changed());
    ASSERT_EQ(0, rmdir((bus + "/1-1:1.0").c_str()));
    EXPECT_TRUE(changed());
    EXPECT_EQ(2u, last.count);
}

}  // namespace
