// Reception: the step over a datagram socketpair standing in for the port (nothing to read,
// a report, the unplug), and the splitters that turn the bytes of a read into point reports
// (seen as slot events) and command replies (seen through the self hook and reply buffer).
#include "touch/reception.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "device/cmd_channel.h"
#include "support/touch_test_util.h"
#include "support/test_util.h"

using namespace touchtest;

namespace {

volatile sig_atomic_t g_usr2_count = 0;
void CountUsr2(int) {
    g_usr2_count = g_usr2_count + 1;
}

// One reception step on a port whose controller has gone, in a child with its own process
// group (the step signals the whole group); make, if given, first fills a private /dev (an
// empty tmpfs in a mount namespace of the child's own). Returns the child's failure bits:
// 1 result, 2 running flag, 4 stop request, 8 SIGUSR2, 16 the port path not removed as
// asked (removed 1) or removed (0), 32 set-up failed, 64 the child did not exit.
int RunEmptyReadInChild(const std::string& port, int removed, const std::function<bool()>& make) {
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        if (make && !(unshare(CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") == 0 && make()))
            _exit(32);
        struct sigaction action = {};
        action.sa_handler = CountUsr2;
        sigaction(SIGUSR2, &action, nullptr);
        TouchRig rig;
        snprintf(rig.dev->PortPath, sizeof(rig.dev->PortPath), "%s", port.c_str());
        UniqueFd controller;
        MakeEventPair(&rig.dev->m_Port_fd, &controller);
        controller.reset();  // the controller goes away: the read returns 0
        rig.dev->bThreadRunning = 1;
        int code = DevReceiveStep(rig.dev.get()) != -1;
        code |= (rig.dev->bThreadRunning != 0) << 1 | !RxThreadStopRequested() << 2;
        code |= (g_usr2_count != 1) << 3;
        struct stat st;
        if (removed >= 0 && (lstat(port.c_str(), &st) != 0) != (removed == 1)) code |= 16;
        _exit(code);
    }
    int status = 0;
    const bool exited = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status);
    return exited ? WEXITSTATUS(status) : 64;
}

}  // namespace

// Nothing ready is no unplug; a hidraw read of a 65-byte report with a leading 0x00, and a
// datagram of 200 bytes (cut at 65), are parsed.
TEST(ReceiveStep, ReadsOneReportAndTreatsNothingReadyAsNoData) {
    VersionGuard version(9);
    TouchRig rig;
    UniqueFd controller;
    MakeEventPair(&rig.dev->m_Port_fd, &controller);
    rig.dev->bThreadRunning = 1;
    EXPECT_EQ(0, DevReceiveStep(rig.dev.get()));
    EXPECT_EQ(1, rig.dev->bThreadRunning.load());
    for (const Bytes& datagram : {Pad(Hex("00 01 05 34 12 78 06"), 65), Pad(Hex("01 04"), 200, 0xEE)}) {
        ASSERT_EQ(static_cast<ssize_t>(datagram.size()),
                  send(controller.get(), datagram.data(), datagram.size(), 0));
        EXPECT_EQ(0, DevReceiveStep(rig.dev.get()));
    }
    EXPECT_EQ(F("1:4660,1656 | 1-"), rig.TouchEvents());
}

// The unplug: result, stop request and SIGUSR2 whatever the path; the stale node is deleted
// only when it is a device node under /dev, never a file elsewhere, a link, a regular file
// that took a port's name, or a second file named in a path that is not one plain word.
TEST(ReceiveStep, EmptyReadIsAnUnplugAndRemovesOnlyADeviceNodeUnderDev) {
    testutil::TempDir dir;
    const std::string node = dir.File("hidraw7"), victim = dir.File("victim");
    ASSERT_TRUE(testutil::WriteFile(node, "") && testutil::WriteFile(victim, ""));
    for (const std::string& path : {node, node + " " + victim, node + ";rm${IFS}" + victim,
                                    node + "|rm " + victim, node + "$(rm " + victim + ")"}) {
        EXPECT_EQ(0, RunEmptyReadInChild(path, -1, nullptr)) << path;
        EXPECT_TRUE(testutil::FileExists(victim) && testutil::FileExists(node))
            << "removed through [" << path << "]";
    }
    if (geteuid() != 0) GTEST_SKIP() << "a private /dev needs root";
    const auto mknode = [](const char* path) { return mknod(path, S_IFCHR, makedev(1, 3)) == 0; };
    // clang-format off
    const struct { const char* port; int removed; std::function<bool()> make; } cases[] = {
        {"/dev/hidraw7", 1, [&] { return mknode("/dev/hidraw7"); }},
        {"/dev/ttyTV0", 0, [&] { return mknode("/dev/pts0") && symlink("/dev/pts0", "/dev/ttyTV0") == 0; }},
        {"/dev/ttyS5", 0, [] { return testutil::WriteFile("/dev/ttyS5", "keep"); }},
        {"/dev/x/../hidraw7", 0, [&] { return mkdir("/dev/x", 0755) == 0 && mknode("/dev/hidraw7"); }},
    };
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(0, RunEmptyReadInChild(c.port, c.removed, c.make)) << c.port;
}

// Which consumer the bytes of a read go to. Serial and PS/2 streams are fed in two reads cut
// at every position and one byte per read, with the same outcome every time and nothing left
// half-split; a USB read is one report. Settings: "skip" (SkipFirstByte), "raw" n
// (SendRawPoints), "tool" (reports to the tool), "hook" the self hook's command (else 55).
TEST(PortBytes, PointsAndRepliesWhateverTheReadBoundaries) {
    VersionGuard version(9);
    // The reply: what the hook got in the reply buffer; empty: it was not answered.
    struct Case {
        const char* what;
        uint8_t iface;
        uint32_t baud;
        const char *set, *touch;
        Bytes stream, reply;
    };
    Bytes longest = Hex("0A FF 55");  // length byte 0xFF: 64 bytes, not 0xFF + 2 wrapped
    for (int i = 3; i < 64; ++i) longest.push_back(static_cast<uint8_t>(i));
    const Bytes reply = Hex("03 02 55 01"), serial = Hex("0A 02 55 01"), point = Hex("03 81 10 00 20 00");
    const Bytes report = Hex("01 01 10 00 20 00"), points = Hex("A1 00 10 00 20 81 0F 7F 00 00");
    const uint8_t U = DEV_USB, R = DEV_RS232, P = DEV_PS2;
    // clang-format off
    const Case cases[] = {
        {"0x03 reply", U, 0, "", "", reply, reply}, {"0x0A reply", U, 0, "", "", serial, serial},
        {"leading 0x00 dropped", U, 0, "", "", Hex("00 03 02 55 01"), reply},
        {"SkipFirstByte drops any first byte", U, 0, "skip", "", Hex("7E 03 02 55 01"), reply},
        {"without it the same read is no reply", U, 0, "", "", Hex("7E 03 02 55 01"), {}},
        {"point report", U, 0, "", "0:16,32", report, {}},
        {"raw points: 0x03 with byte 1 from 0x80 is a point", U, 0, "raw 1", "0:16,32", point, {}},
        {"raw points: 0x03 with byte 1 below 0x80 is a reply", U, 0, "raw 1", "", reply, reply},
        {"raw points: 0x0A is a reply", U, 0, "raw 1", "", serial, serial},
        {"raw points: other ids are points", U, 0, "raw 1", "0:16,32", report, {}},
        {"without raw points 0x03 is a reply", U, 0, "hook 10", "", point, point},
        {"raw points 2 drops replies", U, 0, "raw 2", "", serial, {}},
        {"raw points 2 drops points", U, 0, "raw 2", "", report, {}},
        {"noise, point, reply, point", R, 9600, "", "0:4094,4094 | 0-",
         Hex("33 00 81 0F 7F 00 00 0A 03 55 01 02 80 00 10 00 20"), Hex("0A 03 55 01 02")},
        {"PS/2 acknowledge bytes vanish everywhere", P, 9600, "", "0:4094,4094",
         Hex("FA 81 FA 0F 7F FA 00 00 FA 0A FA 03 55 FA 01 02 FA"), Hex("0A 03 55 01 02")},
        {"RS232 at 9600: 5-byte points", R, 9600, "", "0:32,4030 | 0:4094,4094", points, {}},
        {"PS/2 at 115200: 5-byte points", P, 115200, "", "0:32,4030 | 0:4094,4094", points, {}},
        {"RS232 at 115200: 6-byte points", R, 115200, "", "1:32,4030", Hex("A1 00 10 00 20 42"), {}},
        {"RS232 at an unknown speed: 6-byte points", R, 0, "", "1:32,4030", Hex("A1 00 10 00 20 42"), {}},
        {"length byte 0xFF", R, 9600, "", "", longest, longest},
        {"length byte 0: two bytes", R, 9600, "", "", Hex("0A 00 0A 02 55 09"), Hex("0A 02 55 09")},
        {"reports to the tool: 64-byte replies", R, 9600, "tool hook FE", "", Hex("81 0F 7F 05 10"), Hex("0A 83 FE 0F 20 05")},
        {"unknown interface: dropped", DEV_UNKNOWN, 9600, "", "", Hex("81 0F 7F 00 00 0A 02 55 09"), {}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const size_t n = c.stream.size();
        const bool usb = c.iface == DEV_USB;
        for (size_t cut = usb ? n : 0; cut <= (usb ? n : n + 1); ++cut) {
            SCOPED_TRACE(cut > n ? "one byte per read" : std::to_string(cut));
            TouchRig rig(c.iface);
            rig.dev->BaudRate = c.baud;
            int raw = 0, hook = 0x55;
            std::istringstream in(c.set);
            for (std::string key; in >> key;) {
                if (key == "raw") in >> raw;
                if (key == "hook") in >> std::hex >> hook;
                rig.settings.SkipFirstByte |= key == "skip";
                rig.dev->bPointsToTool |= key == "tool";
            }
            rig.dev->SendRawPoints = static_cast<uint8_t>(raw);
            rig.dev->SelfHookCmd = static_cast<uint8_t>(hook), rig.dev->SigHookCmd = 0x99;
            rig.dev->SelfHookSubCmd = kAnySubCmd;
            // Reads as offset and length: two reads cut at cut, or one byte per read.
            std::vector<std::pair<size_t, size_t>> reads = {{0, cut}, {cut, n - cut}};
            if (cut > n) reads.clear();
            for (size_t i = 0; cut > n && i < n; ++i) reads.push_back({i, 1});
            for (const auto& r : reads)
                DispatchPortBytes(rig.dev.get(), &c.stream[0] + r.first, r.second);
            EXPECT_EQ(F(c.touch), rig.TouchEvents());
            EXPECT_EQ(!c.reply.empty(), rig.dev->bSelfHookReplied.load() == 1);
            EXPECT_EQ(c.reply, Bytes(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + c.reply.size()));
            EXPECT_EQ(0, rig.dev->bCmdPacket + rig.dev->bPointPacket + rig.dev->SerialIndex);
        }
    }
}
