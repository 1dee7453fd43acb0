// Kernel HID driver binding against stand-in commands first on PATH and a temporary /sys tree.
#include "discovery/hid_binding.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "core/paths.h"
#include "discovery/hid_listing.h"
#include "discovery/usb_bus_watch.h"
#include "support/test_util.h"

namespace {

const std::string kGeneric = "/sys/bus/hid/drivers/hid-generic";
const std::string kBusMt = "/sys/bus/hid/drivers/hid-multitouch";
const std::string kModuleMt = "/sys/module/hid_multitouch/drivers/hid:hid-multitouch";

// Each stand-in call is logged as one letter: u busybox lsusb, m lsmod, i cat of the input
// devices, p modprobe hid-multitouch (P anything else; g: hid-generic was taught before).
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
        std::string calls;
        for (char c : testutil::ReadFile(dir.File("calls"))) {
            if (calls.empty() || calls.back() != c) calls += c;
        }
        return calls;
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
        {"Bus 001 Device 001: ID 1d6b:0002 Hub\n", "", {kGeneric, kBusMt}, false, "u", "-", "-", "-"},
        {one, is1, {kGeneric, kBusMt}, false, "umi", "-", "-", "-"},
        {one, "", {kGeneric}, false, "umipgm", id1, "-", id1},
        {one, is2 + "N: Name=\"x\"\n" + is1, {kGeneric, kBusMt}, false, "umi", "-", "-", "-"},
        {one, is2, {kGeneric, kBusMt}, false, "umi", id1, id1, "-"},
        {one, "I: Bus=0003 Vendor=046d Product=0001 Version=0210\n", {kGeneric, kBusMt}, false, "umi", id1, id1, "-"},
        {one, "I: Bus=0003 Vendor=3c7a\n", {kGeneric, kBusMt}, false, "umi", id1, id1, "-"},
        {"Bus 001 Device 004: ID 3c7a:000a A\n", "I: Bus=0003 Vendor=3c7a Product=000A Version=0210\n",
         {kGeneric, kBusMt}, false, "umi", a, a, "-"},
        {one, "", {}, true, "umipm", "-", "-", "-"},
        {"Bus 001 Device 004: ID 3c7a:00ab A\n", "", {kGeneric, kBusMt + "/0003:3C7A:00AB.0001"}, false,
         "umi", ab, "-", "-"},
        {"Bus 001 Device 004: ID 3c7a:0002 A\nBus 002 Device 003: ID 3c7a:0001 B\n", "", {kGeneric},
         false, "umipgmim", id1, "-", id1},
        {"Bus 001 Device 004: ID 3c7a:01\nBus 001 Device 005: ID 3c7a:0;id\n", "", {kGeneric, kBusMt},
         false, "u", "-", "-", "-"},
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
        EXPECT_EQ(c.generic + c.bus_mt + c.module,
                  rig.NewId(kGeneric) + rig.NewId(kBusMt) + rig.NewId(kModuleMt));
        EXPECT_FALSE(testutil::FileExists(DrvLogPath()));
    }
}

// Ids reach the kernel as four lower-case hex digits; nothing else reaches a shell.
TEST(HidBinding, IdsAreOneToFourHexDigitsInTheKernelsForm) {
    HidRig rig;
    std::filesystem::create_directories(rig.root + kGeneric);
    std::filesystem::create_directories(rig.root + kBusMt);
    EXPECT_EQ(0, AddPIDintoModuleRoutine("3c7a", "7E5"));
    EXPECT_EQ("3 3c7a 07e5 103\n", rig.NewId(kGeneric));
    unlink(rig.dir.File("calls").c_str());
    const std::string marker = rig.dir.File("injected");
    const std::pair<std::string, std::string> bad[] = {
        {"3c7a", "0001; touch " + marker}, {"3c7a", "0001 > " + marker}, {"3c7a", "00012"},
        {"3c7a", "zz01"}, {"3c7a", ""}, {"3c7a;touch " + marker, "0001"}, {"3c7", "0001"},
    };
    for (const auto& ids : bad) {
        const char *vid = ids.first.c_str(), *pid = ids.second.c_str();
        SCOPED_TRACE(ids.first + ":" + ids.second);
        EXPECT_EQ(-1, AddPIDintoModuleRoutine(vid, pid));
        EXPECT_EQ(-1, AddPidToSysHIDGeneric(vid, pid));
        EXPECT_EQ(-1, AddPidToSysModule(vid, pid));
        EXPECT_EQ(-1, AddPidToModule(vid, pid));
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
