// Reception: the step over a datagram socketpair standing in for the port (nothing to
// read, one report, and the unplug path, run in a child process with its own process
// group since it signals the whole group), and the splitters that turn the bytes of a read
// into point reports (seen as touch events: slot protocol, neutral settings) and command
// replies (seen through the self hook and the reply buffer).
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

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "device/cmd_channel.h"
#include "support/test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<Ev> Frame(int id, int x, int y) {
    std::vector<Ev> want;
    AddSlotDown(&want, id, x, y);
    want.push_back(Syn());
    return want;
}

std::vector<Ev> Concat(std::vector<Ev> a, const std::vector<Ev>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

volatile sig_atomic_t g_usr2_count = 0;
void CountUsr2(int) {
    g_usr2_count = g_usr2_count + 1;
}

// Runs one reception step on a port whose controller has gone, in a child with its own
// process group (the step signals the whole group). prepare runs first in the child.
// Returns the child's failure bits: 1 result, 2 running flag, 4 stop request, 8 SIGUSR2,
// 16 the port path is gone (removed 0) or still there (removed 1), 32 prepare failed; 64
// when the child did not exit.
int RunEmptyReadInChild(
    const std::string& port_path, int removed = -1,
    const std::function<bool()>& prepare = [] { return true; }) {
    const pid_t child = fork();
    if (child == -1) return 64;
    if (child == 0) {
        setpgid(0, 0);
        if (!prepare()) _exit(32);
        struct sigaction action = {};
        action.sa_handler = CountUsr2;
        sigaction(SIGUSR2, &action, nullptr);
        TouchRig rig;
        snprintf(rig.dev->PortPath, sizeof(rig.dev->PortPath), "%s", port_path.c_str());
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) _exit(10);
        rig.dev->m_Port_fd.reset(fds[0]);
        UniqueFd controller(fds[1]);
        controller.reset();  // the controller goes away: the read returns 0
        rig.dev->bThreadRunning = 1;
        int code = 0;
        if (DevReceiveStep(rig.dev.get()) != -1) code |= 1;
        if (rig.dev->bThreadRunning.load() != 0) code |= 2;
        if (!RxThreadStopRequested()) code |= 4;
        if (g_usr2_count != 1) code |= 8;
        struct stat st;
        if (removed >= 0 && (lstat(port_path.c_str(), &st) != 0) != (removed == 1)) code |= 16;
        rig.dev->m_Port_fd.reset();
        _exit(code);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return 64;
    return WEXITSTATUS(status);
}

// In the child: a private mount namespace with an empty tmpfs on /dev, holding what make
// puts there, so the test never touches the host's /dev.
bool PrivateDev(const std::function<bool()>& make) {
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") == 0 && make();
}

}  // namespace

TEST(ReceiveStep, ReadsOneReportAndTreatsNothingReadyAsNoData) {
    VersionGuard version(9);
    TouchRig rig;
    UniqueFd controller;
    MakeEventPair(&rig.dev->m_Port_fd, &controller);
    rig.dev->bThreadRunning = 1;
    EXPECT_EQ(0, DevReceiveStep(rig.dev.get()));  // EAGAIN: not an unplug
    EXPECT_EQ(1, rig.dev->bThreadRunning.load());

    // A hidraw read of a 65-byte report with a leading 0x00, then a datagram of 200 bytes
    // (cut at 65 and still parsed).
    std::vector<uint8_t> report(65, 0);
    const uint8_t touch[] = {0x01, 0x05, 0x34, 0x12, 0x78, 0x06};
    std::copy(touch, touch + 6, report.begin() + 1);
    std::vector<uint8_t> big(200, 0xEE);
    big[0] = 0x01;
    big[1] = 0x04;  // lift of contact 1
    std::vector<Ev> want;
    AddSlotDown(&want, 1, 0x1234, 0x0678);
    want.push_back(Syn());
    AddSlotUp(&want, 1);
    want.push_back(Syn());
    for (const auto& datagram : {report, big}) {
        ASSERT_EQ(static_cast<ssize_t>(datagram.size()),
                  send(controller.get(), datagram.data(), datagram.size(), 0));
        EXPECT_EQ(0, DevReceiveStep(rig.dev.get()));
    }
    EXPECT_EQ(want, rig.TouchEvents());
}

// The unplug: result, stop request and SIGUSR2 whatever the path; the stale node is
// deleted only when it is a device node under /dev, never a file elsewhere, a link, a
// regular file that took a port's name, or a second file named in a path that is not one
// plain word (a shell would delete it).
TEST(ReceiveStep, EmptyReadIsAnUnplugAndRemovesOnlyADeviceNodeUnderDev) {
    {
        testutil::TempDir dir;
        const std::string node = dir.File("hidraw7");
        const std::string victim = dir.File("victim");
        ASSERT_TRUE(testutil::WriteFile(node, "") && testutil::WriteFile(victim, ""));
        for (const std::string& path : {node, node + " " + victim, node + ";rm${IFS}" + victim,
                                        node + "|rm " + victim, node + "$(rm " + victim + ")"}) {
            EXPECT_EQ(0, RunEmptyReadInChild(path)) << path
                                                    << ": bits 1 result, 2 running flag, "
                                                       "4 stop request, 8 SIGUSR2";
            EXPECT_TRUE(testutil::FileExists(victim)) << "removed through [" << path << "]";
            EXPECT_TRUE(testutil::FileExists(node)) << "removed through [" << path << "]";
        }
    }

    if (geteuid() != 0) GTEST_SKIP() << "a private /dev needs root";
    const auto mknode = [](const char* path) {
        return mknod(path, S_IFCHR | 0600, makedev(1, 3)) == 0;
    };
    struct Case {
        const char* port;
        int removed;
        std::function<bool()> make;
    };
    const Case cases[] = {
        {"/dev/hidraw7", 1, [&] { return mknode("/dev/hidraw7"); }},
        {"/dev/ttyTV0", 0,
         [&] { return mknode("/dev/pts0") && symlink("/dev/pts0", "/dev/ttyTV0") == 0; }},
        {"/dev/ttyS5", 0, [] { return testutil::WriteFile("/dev/ttyS5", "keep"); }},
        {"/dev/x/../hidraw7", 0,
         [&] { return mkdir("/dev/x", 0755) == 0 && mknode("/dev/hidraw7"); }},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(0, RunEmptyReadInChild(c.port, c.removed, [&c] { return PrivateDev(c.make); }))
            << c.port << ": bit 16 removal";
    }
}

// Which consumer the bytes of a read go to. Serial and PS/2 streams are fed in two reads
// cut at every position and one byte per read, with the same outcome every time and
// nothing left half-split; a USB read is one report.
TEST(PortBytes, PointsAndRepliesWhateverTheReadBoundaries) {
    VersionGuard version(9);
    struct Case {
        const char* what;
        uint8_t iface;
        uint32_t baud;
        bool skip_first;
        uint8_t raw_points;
        bool to_tool;
        uint8_t hook;
        Bytes stream;
        std::vector<Ev> touch;
        Bytes reply;  // empty: the hook is not answered
    };
    Bytes longest = {0x0A, 0xFF, 0x55};  // length byte 0xFF: 64 bytes, not 0xFF + 2 wrapped
    for (int i = 3; i < 64; ++i) longest.push_back(static_cast<uint8_t>(i));
    const uint8_t U = DEV_USB, R = DEV_RS232, P = DEV_PS2;
    const std::vector<Ev> corner = Frame(0, 4094, 4094);
    const Bytes point = {0x03, 0x81, 0x10, 0x00, 0x20, 0x00};  // as a raw point: touching, id 0
    const Bytes reply = {0x03, 0x02, 0x55, 0x01};
    const Bytes serial_reply = {0x0A, 0x02, 0x55, 0x01};
    const Bytes report = {0x01, 0x01, 0x10, 0x00, 0x20, 0x00};
    // clang-format off
    const Case cases[] = {
        {"0x03 reply", U, 0, false, 0, false, 0x55, reply, {}, reply},
        {"0x0A reply", U, 0, false, 0, false, 0x55, serial_reply, {}, serial_reply},
        {"leading 0x00 dropped", U, 0, false, 0, false, 0x55, {0x00, 0x03, 0x02, 0x55, 0x01}, {}, reply},
        {"SkipFirstByte drops any first byte", U, 0, true, 0, false, 0x55, {0x7E, 0x03, 0x02, 0x55, 0x01}, {}, reply},
        {"without skip the same read is no reply", U, 0, false, 0, false, 0x55, {0x7E, 0x03, 0x02, 0x55, 0x01}, {}, {}},
        {"point report", U, 0, false, 0, false, 0x55, report, Frame(0, 16, 32), {}},
        {"raw points: 0x03 with byte 1 from 0x80 is a point", U, 0, false, 1, false, 0x55, point, Frame(0, 16, 32), {}},
        {"raw points: 0x03 with byte 1 below 0x80 is a reply", U, 0, false, 1, false, 0x55, reply, {}, reply},
        {"raw points: 0x0A is a reply", U, 0, false, 1, false, 0x55, serial_reply, {}, serial_reply},
        {"raw points: other ids are points", U, 0, false, 1, false, 0x55, report, Frame(0, 16, 32), {}},
        {"without raw points 0x03 is a reply", U, 0, false, 0, false, 0x10, point, {}, point},
        {"raw points value 2 drops replies", U, 0, false, 2, false, 0x55, serial_reply, {}, {}},
        {"raw points value 2 drops points", U, 0, false, 2, false, 0x55, report, {}, {}},
        {"noise, point, reply, point", R, 9600, false, 0, false, 0x55,
         {0x33, 0x00, 0x81, 0x0F, 0x7F, 0x00, 0x00, 0x0A, 0x03, 0x55, 0x01, 0x02, 0x80, 0x00, 0x10, 0x00, 0x20},
         Concat(corner, {Abs(ABS_MT_SLOT, 0), Abs(ABS_MT_TRACKING_ID, -1), Syn()}), {0x0A, 0x03, 0x55, 0x01, 0x02}},
        {"PS/2 acknowledge bytes vanish everywhere", P, 9600, false, 0, false, 0x55,
         {0xFA, 0x81, 0xFA, 0x0F, 0x7F, 0xFA, 0x00, 0x00, 0xFA, 0x0A, 0xFA, 0x03, 0x55, 0xFA, 0x01, 0x02, 0xFA},
         corner, {0x0A, 0x03, 0x55, 0x01, 0x02}},
        {"RS232 at 9600: 5-byte points", R, 9600, false, 0, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 0x81, 0x0F, 0x7F, 0x00, 0x00}, Concat(Frame(0, 32, 4030), corner), {}},
        {"PS/2 at 115200: 5-byte points", P, 115200, false, 0, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 0x81, 0x0F, 0x7F, 0x00, 0x00}, Concat(Frame(0, 32, 4030), corner), {}},
        {"RS232 at 115200: 6-byte points", R, 115200, false, 0, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 'B'}, Frame(1, 32, 4030), {}},
        {"RS232 at an unknown speed: 6-byte points", R, 0, false, 0, false, 0x55,
         {0xA1, 0x00, 0x10, 0x00, 0x20, 'B'}, Frame(1, 32, 4030), {}},
        {"length byte 0xFF", R, 9600, false, 0, false, 0x55, longest, {}, longest},
        {"length byte 0: two bytes, the next packet cut cleanly", R, 9600, false, 0, false, 0x55,
         {0x0A, 0x00, 0x0A, 0x02, 0x55, 0x09}, {}, {0x0A, 0x02, 0x55, 0x09}},
        {"reports switched to the tool go as 64-byte replies", R, 9600, false, 0, true, 0xFE,
         {0x81, 0x0F, 0x7F, 0x05, 0x10}, {}, {0x0A, 0x83, 0xFE, 0x0F, 0x20, 0x05}},
        {"unknown interface: dropped", DEV_UNKNOWN, 9600, false, 0, false, 0x55,
         {0x81, 0x0F, 0x7F, 0x00, 0x00, 0x0A, 0x02, 0x55, 0x09}, {}, {}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const size_t n = c.stream.size();
        for (size_t cut = (c.iface == DEV_USB ? n : 0); cut <= n + 1; ++cut) {
            if (c.iface == DEV_USB && cut > n) break;
            SCOPED_TRACE(cut > n ? "one byte per read" : std::to_string(cut));
            TouchRig rig(c.iface);
            rig.settings.SkipFirstByte = c.skip_first;
            rig.dev->SendRawPoints = c.raw_points;
            rig.dev->BaudRate = c.baud;
            rig.dev->bPointsToTool = c.to_tool;
            rig.dev->SelfHookCmd = c.hook;
            rig.dev->SelfHookSubCmd = kAnySubCmd;
            rig.dev->SigHookCmd = 0x99;
            if (cut > n) {
                for (size_t i = 0; i < n; ++i) DispatchPortBytes(rig.dev.get(), &c.stream[i], 1);
            } else {
                DispatchPortBytes(rig.dev.get(), c.stream.data(), static_cast<int>(cut));
                DispatchPortBytes(rig.dev.get(), c.stream.data() + cut, static_cast<int>(n - cut));
            }
            EXPECT_EQ(c.touch, rig.TouchEvents());
            EXPECT_EQ(c.reply.empty() ? 0 : 1, rig.dev->bSelfHookReplied.load());
            if (!c.reply.empty()) {
                EXPECT_EQ(c.reply,
                          Bytes(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + c.reply.size()));
            }
            EXPECT_EQ(0, rig.dev->bCmdPacket);
            EXPECT_EQ(0, rig.dev->bPointPacket);
            EXPECT_EQ(0, rig.dev->SerialIndex);
        }
    }
}
