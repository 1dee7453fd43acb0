// The reception step over a datagram socketpair standing in for the port: nothing to read,
// one report, the USB splitter's classification, and the unplug path (run in a child
// process with its own process group, since it signals the whole group).
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
#include "support/core_test_util.h"
#include "support/touch_test_util.h"

using namespace touchtest;

namespace {

void MakePort(TouchRig& rig, UniqueFd* controller) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
    rig.dev->m_Port_fd.reset(fds[0]);
    controller->reset(fds[1]);
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

void TouchFile(const std::string& path) {
    UniqueFd fd(OpenCloexec(path.c_str(), O_WRONLY | O_CREAT, 0600));
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
    MakePort(rig, &controller);
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
    char dir_pattern[] = "/tmp/touch_rx_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir_pattern));
    const std::string node = std::string(dir_pattern) + "/hidraw7";
    const std::string victim = std::string(dir_pattern) + "/victim";
    TouchFile(node);
    TouchFile(victim);
    for (const std::string& path : {node, node + " " + victim, node + ";rm${IFS}" + victim,
                                    node + "|rm " + victim, node + "$(rm " + victim + ")"}) {
        EXPECT_EQ(0, RunEmptyReadInChild(path)) << path << ": bits 1 result, 2 running flag, "
                                                           "4 stop request, 8 SIGUSR2";
        EXPECT_EQ(0, access(victim.c_str(), F_OK)) << "removed through [" << path << "]";
        EXPECT_EQ(0, access(node.c_str(), F_OK)) << "removed through [" << path << "]";
    }
    unlink(victim.c_str());
    unlink(node.c_str());
    rmdir(dir_pattern);

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
        {"/dev/ttyS5", 0, [] { return coretest::WriteFile("/dev/ttyS5", "keep"); }},
        {"/dev/x/../hidraw7", 0,
         [&] { return mkdir("/dev/x", 0755) == 0 && mknode("/dev/hidraw7"); }},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(0, RunEmptyReadInChild(c.port, c.removed, [&c] { return PrivateDev(c.make); }))
            << c.port << ": bit 16 removal";
    }
}

// Which consumer a USB read goes to. A point report is seen as touch events, a reply
// through the self hook on command 0x55.
TEST(UsbSplit, ClassificationBySkipAndRawPointSettings) {
    VersionGuard version(9);
    struct Case {
        const char* what;
        bool skip_first;
        uint8_t raw_points;
        std::vector<uint8_t> bytes;
        bool to_point;
        bool to_reply;
    };
    const std::vector<uint8_t> point = {0x03, 0x81, 0x10, 0x00, 0x20, 0x00};  // touching, id 0
    const std::vector<uint8_t> reply = {0x03, 0x02, 0x55, 0x01};
    const std::vector<uint8_t> serial_reply = {0x0A, 0x02, 0x55, 0x01};
    const std::vector<uint8_t> report = {0x01, 0x01, 0x10, 0x00, 0x20, 0x00};
    // clang-format off
    const Case cases[] = {
        // what                                      skip  raw  bytes         point  reply
        {"0x03 reply",                               false, 0, reply,         false, true},
        {"0x0A reply",                               false, 0, serial_reply,  false, true},
        {"leading 0x00 dropped",                     false, 0, {0x00, 0x03, 0x02, 0x55, 0x01}, false, true},
        {"SkipFirstByte drops any first byte",       true,  0, {0x7E, 0x03, 0x02, 0x55, 0x01}, false, true},
        {"without skip the same read is no reply",   false, 0, {0x7E, 0x03, 0x02, 0x55, 0x01}, false, false},
        {"point report",                             false, 0, report,        true,  false},
        {"raw points: 0x03, byte 1 >= 0x80 a point", false, 1, point,         true,  false},
        {"raw points: 0x03, byte 1 = 0x80 a point",  false, 1, {0x03, 0x80, 0x10, 0x00, 0x20, 0x00}, true, false},
        {"raw points: 0x03, byte 1 < 0x80 a reply",  false, 1, reply,         false, true},
        {"raw points: 0x0A is a reply",              false, 1, serial_reply,  false, true},
        {"raw points: other ids are points",         false, 1, report,        true,  false},
        {"without raw points 0x03 is a reply",       false, 0, point,         false, false},
        {"raw points value 2 drops replies",         false, 2, serial_reply,  false, false},
        {"raw points value 2 drops points",          false, 2, report,        false, false},
        {"a lone 0x00 is nothing",                   false, 0, {0x00},        false, false},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        rig.settings.SkipFirstByte = c.skip_first;
        rig.dev->SendRawPoints = c.raw_points;
        rig.dev->SelfHookCmd = 0x55;
        rig.dev->SelfHookSubCmd = kAnySubCmd;
        rig.dev->SigHookCmd = 0x99;
        ParseUsbPacket(rig.dev.get(), c.bytes.data(), static_cast<int>(c.bytes.size()));
        EXPECT_EQ(c.to_point, !rig.TouchEvents().empty());
        EXPECT_EQ(c.to_reply ? 1 : 0, rig.dev->bSelfHookReplied.load());
    }
}
