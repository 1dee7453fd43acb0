// The tool's named pipes in a temporary data directory, and the relay from the input pipe to
// a controller stand-in.
#include "toolpipe/tool_pipe.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>

#include <functional>
#include <memory>

#include "core/environment.h"
#include "core/paths.h"
#include "device/cmd_channel.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

struct ToolPipeTest : testing::Test {
    void SetUp() override { DevIgnoreSigusr2(); }
    void TearDown() override { AndroidVersion = saved_version; }
    // A non-blocking pipe with in written to it, its read end the input FIFO of dev.
    UniqueFd ToolPipe(CDeviceObject* dev, const Bytes& in) {
        int fds[2];
        EXPECT_EQ(0, pipe2(fds, O_NONBLOCK | O_CLOEXEC));
        dev->m_fdPipeIn.reset(fds[0]);
        EXPECT_EQ(ssize_t(in.size()), write(fds[1], in.data(), in.size()));
        return UniqueFd(fds[1]);
    }
    // A device of the series on the controller's port.
    std::unique_ptr<CDeviceObject> Device(FakeController* controller, uint8_t interface, int series) {
        std::unique_ptr<CDeviceObject> dev(new CDeviceObject("/dev/ttyS99", &settings));
        AttachPort(dev.get(), controller, interface);
        dev->Series = series;
        return dev;
    }
    const AndroidVersionInfo saved_version = AndroidVersion;
    GlobalSettings settings = DevTestSettings();
};
using AppPipes = ToolPipeTest;
using ForwardTest = ToolPipeTest;

// A file, links and a terminal at a pipe path are refused untouched.
TEST(CreateFifo, RefusesWhatIsNotAFifo) {
    testutil::TempDir data;
    const std::string fifo = data.File("fifo");
    testutil::Pty pty;
    ASSERT_TRUE(testutil::WriteFile(data.File("file"), "x") && mkfifo(fifo.c_str(), 0600) == 0 &&
                symlink(fifo.c_str(), data.File("link").c_str()) == 0 &&
                symlink(data.File("none").c_str(), data.File("dangling").c_str()) == 0 &&
                testutil::OpenPty(&pty));
    const auto create = [](const char* path) { return CreateFifo(path, kPipeInMode, O_RDWR | O_NONBLOCK); };
    for (const std::string& path : {data.File("file"), data.File("link"), data.File("dangling"), pty.slave_path}) {
        EXPECT_EQ(-1, create(path.c_str())) << path;
    }
    EXPECT_EQ("x", testutil::ReadFile(data.File("file")));
    EXPECT_FALSE(testutil::FileExists(data.File("none")));
    EXPECT_NE(testutil::TtyResult::kAcquired, testutil::OpenOfTerminalAcquiresIt(create));
}

// Runs body in a child as uid (supplementary group group): its exit status.
int AsUser(uid_t uid, gid_t group, const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(setgroups(1, &group) || setresgid(uid, uid, uid) || setresuid(uid, uid, uid) ? 100 : body());
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Who reaches a serial controller's tool pipes, and so diverts its touches: on plain Linux
// only root and the data directory's group. Rows: Android (0: plain Linux), directory mode,
// owner and mode of a FIFO already at the input path (0: none), input pipe opened, and what
// the other user and the member reach (bit 0: wrote the switch, bit 1: opened the output).
TEST_F(AppPipes, OnPlainLinuxOnlyRootAndTheDirectorysGroupReachThem) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as other users";
    const gid_t group = 4242;
    const uid_t member = 4243, other = 65534;
    const auto reach = [](uid_t uid, gid_t gid) {
        return AsUser(uid, gid, [] {
            UniqueFd in(OpenCloexec(PipeInPath(), O_WRONLY | O_NONBLOCK));
            UniqueFd out(OpenCloexec(PipeOutPath(), O_RDONLY | O_NONBLOCK));
            return (in.valid() && write(in.get(), "\x0a\x02\x34\x00", 4) == 4) | out.valid() << 1;
        });
    };
    const struct { int android; unsigned dir_mode, fifo_owner, fifo_mode; bool opened; int other, member; } cases[] = {
        {0, 0755, 0, 0, false, 0, 0},     {0, 01777, 0, 0, false, 0, 0},
        {0, 0750, 0, 0, true, 0, 3},      {0, 0771, 0, 0, true, 0, 3},
        {0, 0750, 0, 0622, false, 0, 2},  {0, 0770, member, 0666, false, 0, 2},
        {9, 0755, 0, 0, true, 3, 3},      {9, 0777, other, 0666, false, 2, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.android << std::oct << " " << c.dir_mode << " " << c.fifo_mode);
        AndroidVersion = {c.android, 0};
        testutil::TempDir data;
        ASSERT_EQ(0, chown(data.path().c_str(), 0, group) | chmod(data.path().c_str(), c.dir_mode));
        ASSERT_EQ(0, c.fifo_mode == 0 ? 0 : AsUser(c.fifo_owner, group, [&c] {
            return mkfifo(PipeInPath(), 0) || chmod(PipeInPath(), c.fifo_mode);
        }));
        FakeController controller(false);
        controller.Start();
        auto dev = Device(&controller, DEV_RS232, 5);
        DevCreateAppPipe(dev.get());
        ASSERT_EQ(c.opened, dev->m_fdPipeIn.valid());
        EXPECT_TRUE(!c.opened || fcntl(dev->m_fdPipeIn.get(), F_GETFD) == FD_CLOEXEC);  // not inherited
        EXPECT_EQ(c.other, reach(other, other));  // the other user first, then the member
        ForwardFromTool(dev.get());
        EXPECT_EQ((c.other & 1) && c.opened, dev->bPointsToTool) << "diverted";
        EXPECT_EQ(c.member, reach(member, group));
        ForwardFromTool(dev.get());
        EXPECT_EQ(((c.other | c.member) & 1) && c.opened, dev->bPointsToTool);
    }
}

// The tool's packet reaches the port (USB: framed by zero bytes when configured); a serial
// switch of point reports (0A 02 34 xx) also switches where touches go, for the series that
// support it. A second, empty read sends nothing.
TEST_F(ForwardTest, RelaysToolPacketsAndSwitchesSerialReports) {
    const struct {
        uint8_t interface, shift, series, before, after;  // before, after: bPointsToTool
        Bytes in, port;                                    // port empty: in
    } cases[] = {
        {DEV_USB, 0, 0, 0, 0, {0x03, 0x01, 0x41}, {}}, {DEV_USB, 0, 0, 0, 0, {0x03, 0x03, 0x52, 0x3A, 0xFF}, {}},
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
        auto dev = Device(&controller, c.interface, c.series);
        dev->bPointsToTool = c.before;
        UniqueFd tool = ToolPipe(dev.get(), c.in);
        ForwardFromTool(dev.get());
        ForwardFromTool(dev.get());
        ASSERT_TRUE(controller.WaitForPackets(1, 1000));
        usleep(20000);
        EXPECT_EQ(std::vector<Bytes>{c.port.empty() ? c.in : c.port}, controller.Received());
        EXPECT_EQ(c.after, dev->bPointsToTool);
    }
}

// A reset to an RS232 controller at 19200 bit/s is forwarded, then the speed searched again:
// the pty stand-in answers the loop-back at 57600, or never (three passes, then 19200 again).
TEST_F(ForwardTest, ResetCommandOnRs232RechecksTheSpeed) {
    using Speeds = std::vector<speed_t>;
    Speeds three;
    for (int i = 0; i < 3; ++i) three.insert(three.end(), {B9600, B19200, B57600, B115200});
    for (const auto& c : {std::make_pair(speed_t(B57600), Speeds{B9600, B19200, B57600}),
                          std::make_pair(speed_t(B0), three)}) {
        SCOPED_TRACE(c.first);
        CDeviceObject dev("/dev/ttyS99", &settings);
        testutil::Pty pty;
        ASSERT_TRUE(testutil::OpenPty(&pty) && SetPortBaudRate(pty.slave.get(), 19200, 1) == 0);
        dev.DevInterface = DEV_RS232;
        dev.CmdHeader = CMD_HEADER_SERIAL;
        dev.BaudRate = 19200;
        dev.m_Port_fd = std::move(pty.slave);
        const int master = pty.master.release();
        Speeds tried;                       // written by the controller's thread
        FakeController controller(master);  // owns master; stops before tried goes
        controller.SetResponder([&](const Bytes& packet) {
            std::vector<TimedReply> replies;
            struct termios line;
            if (packet.size() == 3 && packet[2] == 0x41 && tcgetattr(master, &line) == 0) {
                tried.push_back(cfgetospeed(&line));
                if (tried.back() == c.first) replies.push_back({1, {0x0A, 0x01, 0x41}});
            }
            return replies;
        });
        controller.Start();
        UniqueFd tool = ToolPipe(&dev, {0x0A, 0x03, 0x52, 0x3A, 0xFF});
        ForwardFromTool(&dev);
        controller.Stop();
        EXPECT_EQ(c.first ? 57600u : 19200u, dev.BaudRate);
        EXPECT_EQ(c.second, tried);
        EXPECT_EQ((Bytes{0x0A, 0x03, 0x52, 0x3A, 0xFF}), controller.Received().at(0));
        struct termios line;
        ASSERT_EQ(0, tcgetattr(master, &line));
        EXPECT_EQ(c.first ? c.first : B19200, cfgetospeed(&line));
    }
}

}  // namespace
