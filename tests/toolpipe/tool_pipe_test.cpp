// The tool's named pipes in a temporary data directory, and the relay to a controller stand-in.
#include "toolpipe/tool_pipe.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <termios.h>

#include <functional>

#include "core/environment.h"
#include "core/paths.h"
#include "device/cmd_channel.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

struct ToolPipeTest : testing::Test {
    void SetUp() override { DevIgnoreSigusr2(); }
    void TearDown() override { AndroidVersion = saved_version; }
    void ToolSends(CDeviceObject* dev, const Bytes& in) {  // in the pipe read as dev's input FIFO
        ASSERT_TRUE(testutil::MakePipe(&dev->m_fdPipeIn, &tool));
        ASSERT_EQ(ssize_t(in.size()), write(tool.get(), in.data(), in.size()));
    }
    const AndroidVersionInfo saved_version = AndroidVersion;
    GlobalSettings settings = DevTestSettings();
    UniqueFd tool;
};
using AppPipes = ToolPipeTest;
using CreateFifo = ToolPipeTest;
using ForwardTest = ToolPipeTest;

// A file, links, a terminal, or a FIFO that cannot be made (Android: no directory check first).
TEST_F(CreateFifo, RefusesWhatIsNotAFifo) {
    AndroidVersion = {9, 0};
    testutil::TempDir data;
    testutil::Pty pty;
    const std::string file = data.File("file"), link = data.File("link"), none = data.File("none");
    ASSERT_TRUE(testutil::WriteFile(file, "x") && mkfifo(data.File("fifo").c_str(), 0600) == 0 &&
                testutil::OpenPty(&pty) && symlink("fifo", link.c_str()) == 0 &&
                symlink(none.c_str(), data.File("dangling").c_str()) == 0);
    for (const std::string& path : {file, link, data.File("dangling"), pty.slave_path, data.File("no/fifo")})
        EXPECT_EQ(-1, ::CreateFifo(path.c_str(), kPipeInMode, O_RDWR | O_NONBLOCK)) << path;
    EXPECT_TRUE(testutil::ReadFile(file) == "x" && !testutil::FileExists(none));
}

// Runs body in a child as uid (supplementary group group): its exit status.
int AsUser(uid_t uid, gid_t group, const std::function<int()>& body) {
    const testutil::ChildResult child = testutil::RunInChild([&] {
        _exit(setgroups(1, &group) || setresgid(uid, uid, uid) || setresuid(uid, uid, uid) ? 100 : body());
    });
    return child.exited ? child.status : -1;
}

int Reach() {  // 1: wrote the report switch into the input pipe, 2: opened the output pipe
    UniqueFd in(OpenCloexec(PipeInPath(), O_WRONLY | O_NONBLOCK));
    UniqueFd out(OpenCloexec(PipeOutPath(), O_RDONLY | O_NONBLOCK));
    return (in.valid() && write(in.get(), "\x0a\x02\x34\x00", 4) == 4) | out.valid() << 1;
}

// Who reaches the pipes (and diverts touches); fifo_mode 0: none made in advance.
TEST_F(AppPipes, OnPlainLinuxOnlyRootAndTheDirectorysGroupReachThem) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as other users";
    const gid_t group = 4242;
    const uid_t member = 4243, other = 65534;
    const struct {
        int android; unsigned dir_owner, dir_mode, fifo_owner, fifo_mode; bool opened; int other, member;
    } cases[] = {
        {0, 0, 0755, 0, 0, false, 0, 0},        {0, 0, 01777, 0, 0, false, 0, 0},
        {0, 0, 0750, 0, 0, true, 0, 3},         {0, 0, 0771, 0, 0, true, 0, 3},     {0, 1, 0750, 0, 0, false, 0, 0},
        {0, 0, 0750, 0, 0622, false, 0, 2},     {0, 0, 0770, member, 0666, false, 0, 2},
        {9, 0, 0755, 0, 0, true, 3, 3},         {9, 0, 0777, other, 0666, false, 2, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.android << " " << c.dir_owner << std::oct << " " << c.dir_mode);
        AndroidVersion = {c.android, 0};
        testutil::TempDir data;
        ASSERT_EQ(0, chown(data.path().c_str(), c.dir_owner, group) | chmod(data.path().c_str(), c.dir_mode));
        ASSERT_EQ(0, c.fifo_mode == 0 ? 0 : AsUser(c.fifo_owner, group, [&c] {
            return mkfifo(PipeInPath(), 0) || chmod(PipeInPath(), c.fifo_mode);
        }));
        FakeController controller(false);
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, DEV_RS232);
        DevCreateAppPipe(&dev);
        ASSERT_EQ(c.opened, dev.m_fdPipeIn.valid());
        EXPECT_TRUE(!c.opened || fcntl(dev.m_fdPipeIn.get(), F_GETFD) == FD_CLOEXEC);  // not inherited
        EXPECT_EQ(c.other, AsUser(other, other, Reach));  // the other user first, then the member
        ForwardFromTool(&dev);
        EXPECT_EQ((c.other & 1) && c.opened, dev.bPointsToTool) << "diverted";
        EXPECT_EQ(c.member, AsUser(member, group, Reach));
        ForwardFromTool(&dev);
        EXPECT_EQ(((c.other | c.member) & 1) && c.opened, dev.bPointsToTool);
    }
}

// Packets reach the port (USB: zero-framed if set); serial 0A 02 34 xx diverts touches to series 8.
TEST_F(ForwardTest, RelaysToolPacketsAndSwitchesSerialReports) {
    const struct { uint8_t interface, shift, series, before, after; Bytes in, port; } cases[] = {  // port {}: in
        {DEV_USB, 0, 0, 0, 0, {0x03, 0x01, 0x41}, {}},
        {DEV_USB, 1, 0, 0, 0, {0x03, 0x01, 0x41}, {0x00, 0x03, 0x01, 0x41, 0x00}},
        {DEV_RS232, 0, 5, 0, 1, {0x0A, 0x02, 0x34, 0x00}, {}}, {DEV_RS232, 0, 5, 1, 0, {0x0A, 0x02, 0x34, 0x01}, {}},
        {DEV_RS232, 0, 8, 0, 1, {0x0A, 0x02, 0x34, 0x00}, {}}, {DEV_RS232, 0, 5, 1, 1, {0x0A, 0x02, 0x34, 0x02}, {}},
        {DEV_RS232, 0, 12, 0, 0, {0x0A, 0x02, 0x34, 0x00}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.interface) << " " << c.shift << " " << c.series);
        settings.ShiftByteBothEnd = c.shift;
        FakeController controller(c.interface == DEV_USB);
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, c.interface);
        dev.Series = c.series, dev.bPointsToTool = c.before;
        ToolSends(&dev, c.in);
        ForwardFromTool(&dev);
        ASSERT_TRUE(controller.WaitForPackets(1, 1000));
        EXPECT_EQ(std::vector<Bytes>{c.port.empty() ? c.in : c.port}, controller.Received());
        EXPECT_EQ(c.after, dev.bPointsToTool);
    }
}

// A reset at 19200 bit/s is forwarded, then the speed searched: found at 57600, or none (19200).
TEST_F(ForwardTest, ResetCommandOnRs232RechecksTheSpeed) {
    for (const speed_t answer : {speed_t(B57600), speed_t(B0)}) {
        SCOPED_TRACE(answer);
        CDeviceObject dev("/dev/ttyS99", &settings);
        testutil::Pty pty;
        ASSERT_TRUE(testutil::OpenPty(&pty) && SetPortBaudRate(pty.slave.get(), 19200, 1) == 0);
        dev.DevInterface = DEV_RS232, dev.CmdHeader = CMD_HEADER_SERIAL, dev.BaudRate = 19200;
        dev.m_Port_fd = std::move(pty.slave);
        const int master = pty.master.release();
        const auto speed = [master] { struct termios t; return tcgetattr(master, &t) ? B0 : cfgetospeed(&t); };
        FakeController controller(master);  // owns master
        controller.SetResponder([&](const Bytes& packet) {  // answers a loop-back at that speed only
            return std::vector<TimedReply>(packet == Bytes{0x0A, 0x01, 0x41} && speed() == answer, {1, packet});
        });
        controller.Start();
        ToolSends(&dev, {0x0A, 0x03, 0x52, 0x3A, 0xFF});
        ForwardFromTool(&dev);
        controller.Stop();
        EXPECT_EQ(answer ? 57600u : 19200u, dev.BaudRate);
        EXPECT_EQ(answer ? answer : B19200, speed());
        EXPECT_EQ((Bytes{0x0A, 0x03, 0x52, 0x3A, 0xFF}), controller.Received().at(0));
    }
}

}  // namespace
