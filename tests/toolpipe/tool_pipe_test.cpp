// The tool's named pipes in a temporary data directory, and the relay from the input
// pipe to a controller stand-in.
#include "toolpipe/tool_pipe.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "core/environment.h"
#include "core/paths.h"
#include "device/cmd_channel.h"
#include "device/device_object.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

namespace {

mode_t ModeOf(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return 0;
    return st.st_mode;
}

// Sets the Android major version (0: plain Linux) for one test.
class AndroidGuard {
  public:
    explicit AndroidGuard(int major) : saved_(AndroidVersion) { AndroidVersion = {major, 0}; }
    ~AndroidGuard() { AndroidVersion = saved_; }

  private:
    AndroidVersionInfo saved_;
};

TEST(CreateFifo, ModesDoNotDependOnTheUmask) {
    AndroidGuard android(9);
    testutil::TempDir data;
    mode_t saved = umask(077);
    int in = CreateFifo(PipeInPath(), kPipeInMode, O_RDWR | O_NONBLOCK);
    int out = CreateFifo(PipeOutPath(), kPipeOutMode, O_RDWR | O_NONBLOCK);
    umask(saved);
    UniqueFd in_fd(in), out_fd(out);
    ASSERT_GE(in, 0);
    ASSERT_GE(out, 0);
    EXPECT_TRUE(S_ISFIFO(ModeOf(PipeInPath())));
    EXPECT_EQ(0622u, ModeOf(PipeInPath()) & 07777);
    EXPECT_EQ(0644u, ModeOf(PipeOutPath()) & 07777);
    EXPECT_EQ(FD_CLOEXEC, fcntl(in, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(in, F_GETFL) & O_NONBLOCK);
    // An existing FIFO (a restarted daemon's) is opened again as it is.
    UniqueFd again(CreateFifo(PipeInPath(), kPipeInMode, O_RDWR | O_NONBLOCK));
    EXPECT_TRUE(again.valid());
}

// A regular file, a link to a real FIFO and a dangling link are refused: nothing is
// created, followed or changed.
TEST(CreateFifo, RefusesWhatIsNotAFifo) {
    testutil::TempDir data;
    testutil::LogCapture log;
    const std::string regular = data.path() + "/regular";
    const std::string target = data.path() + "/real_fifo";
    const std::string nowhere = data.path() + "/nowhere";
    const std::string link = data.path() + "/link";
    const std::string dangling = data.path() + "/dangling";
    ASSERT_EQ(0, mkfifo(target.c_str(), 0600));
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    ASSERT_EQ(0, symlink(nowhere.c_str(), dangling.c_str()));
    UniqueFd file(OpenCloexec(regular.c_str(), O_WRONLY | O_CREAT, 0600));
    ASSERT_TRUE(file.valid());
    for (const std::string& path : {regular, link, dangling}) {
        EXPECT_EQ(-1, CreateFifo(path.c_str(), kPipeInMode, O_RDWR | O_NONBLOCK)) << path;
    }
    EXPECT_TRUE(log.Contains("is not a FIFO"));
    EXPECT_TRUE(S_ISREG(ModeOf(regular)));
    EXPECT_EQ(S_IFIFO | 0600u, ModeOf(target));
    EXPECT_EQ(0u, ModeOf(nowhere));
}

// A terminal at a tool pipe path is refused without becoming the daemon's controlling
// terminal.
TEST(CreateFifo, TerminalIsRefusedWithoutBecomingTheControllingTerminal) {
    testutil::LogCapture log;
    const auto create = [](const char* path) {
        const int fd = CreateFifo(path, kPipeInMode, O_RDWR | O_NONBLOCK);
        if (fd >= 0) _exit(4);  // a terminal must never be taken for a FIFO
        return fd;
    };
    const testutil::TtyResult result = testutil::OpenOfTerminalAcquiresIt(create);
    if (result == testutil::TtyResult::kSkipped) GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_EQ(testutil::TtyResult::kNotAcquired, result);
}

constexpr gid_t kToolGroup = 4242;  // the data directory's group: users who may run the tool
constexpr uid_t kMember = 4243;     // a user in that group
constexpr uid_t kOther = 65534;     // a local user outside it

// Runs body in a child with the ids of uid (primary group uid, supplementary group
// group); returns its exit status, or -1.
int AsUser(uid_t uid, gid_t group, const std::function<int()>& body) {
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        const gid_t groups[1] = {group};
        if (setgroups(1, groups) != 0 || setresgid(uid, uid, uid) != 0 ||
            setresuid(uid, uid, uid) != 0) {
            _exit(100);
        }
        _exit(body());
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// A user writes the tool's switch of serial point reports to itself (0A 02 34 00) into
// the input pipe and opens the output pipe for reading. Bits: 1 wrote, 2 could read.
int ReachPipes(uid_t uid, gid_t group) {
    return AsUser(uid, group, [] {
        int bits = 0;
        UniqueFd in(OpenCloexec(PipeInPath(), O_WRONLY | O_NONBLOCK));
        if (in.valid() && write(in.get(), "\x0a\x02\x34\x00", 4) == 4) bits |= 1;
        UniqueFd out(OpenCloexec(PipeOutPath(), O_RDONLY | O_NONBLOCK));
        if (out.valid()) bits |= 2;
        return bits;
    });
}

// Who reaches the tool pipes of a serial controller, by platform, data directory mode and
// what was at the input pipe's path before. A user who reaches the input pipe diverts
// the controller's touches to the output pipe; a user outside the directory's group must
// never manage it on plain Linux, while a member of the group drives the relay as before.
TEST(AppPipes, OnPlainLinuxOnlyRootAndTheDirectorysGroupReachThem) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as other users";
    DevIgnoreSigusr2();
    struct Case {
        const char* what;
        int android;       // 0: plain Linux
        mode_t dir_mode;   // owner root, group kToolGroup
        uid_t fifo_owner;  // with fifo_mode: a FIFO already at the input pipe's path
        mode_t fifo_mode;
        bool in_opened;  // the daemon uses the input pipe
        const char* refusal;
        int other;   // ReachPipes bits of kOther
        int member;  // and of kMember
    };
    // clang-format off
    const Case cases[] = {
        {"linux 0755",              0, 0755,  0,       0,     false, "can be read or written by users outside its group", 0, 0},
        {"linux 1777",              0, 01777, 0,       0,     false, "can be read or written by users outside its group", 0, 0},
        {"linux 0750",              0, 0750,  0,       0,     true,  nullptr, 0, 3},
        {"linux 0771",              0, 0771,  0,       0,     true,  nullptr, 0, 3},
        {"linux old root FIFO 0622", 0, 0750, 0,       0622,  false, "mode 0622 lets users outside its group", 0, 2},
        {"linux planted FIFO 0666", 0, 0770,  kMember, 0666,  false, "owned by uid 4243, not by root", 0, 2},
        {"android 0755",            9, 0755,  0,       0,     true,  nullptr, 3, 3},
        {"android planted FIFO",    9, 0777,  kOther,  0666,  false, "owned by uid 65534, not by root", 2, 2},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        AndroidGuard android(c.android);
        testutil::TempDir data;
        ASSERT_EQ(0, chown(data.path().c_str(), 0, kToolGroup));
        ASSERT_EQ(0, chmod(data.path().c_str(), c.dir_mode));
        if (c.fifo_mode != 0) {
            ASSERT_EQ(0, AsUser(c.fifo_owner, kToolGroup, [&c] {
                          return mkfifo(PipeInPath(), 0) == 0 &&
                                         chmod(PipeInPath(), c.fifo_mode) == 0
                                     ? 0
                                     : 1;
                      }));
        }
        testutil::LogCapture log;
        GlobalSettings settings = DevTestSettings();
        FakeController controller(false);
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, DEV_RS232);
        dev.Series = 5;
        DevCreateAppPipe(&dev);
        EXPECT_EQ(c.in_opened, dev.m_fdPipeIn.valid());
        if (c.refusal) {
            EXPECT_TRUE(log.Contains(c.refusal));
        }
        if (c.in_opened) {
            struct stat in, out;
            ASSERT_EQ(0, stat(PipeInPath(), &in));
            ASSERT_EQ(0, stat(PipeOutPath(), &out));
            EXPECT_EQ(c.android ? 0622u : 0620u, in.st_mode & 07777);
            EXPECT_EQ(c.android ? 0644u : 0640u, out.st_mode & 07777);
            if (!c.android) {
                EXPECT_EQ(kToolGroup, in.st_gid);
            }
        }
        // The other user tries first, then the member; the relay forwards what arrived.
        EXPECT_EQ(c.other, ReachPipes(kOther, kOther));
        if (dev.m_fdPipeIn.valid()) ForwardFromTool(&dev);
        EXPECT_EQ((c.other & 1) && c.in_opened ? 1 : 0, dev.bPointsToTool) << "diverted";
        EXPECT_EQ(c.member, ReachPipes(kMember, kToolGroup));
        if (dev.m_fdPipeIn.valid()) ForwardFromTool(&dev);
        EXPECT_EQ(((c.other | c.member) & 1) && c.in_opened ? 1 : 0, dev.bPointsToTool);
        DevCloseAppPipe(&dev);
    }
}

TEST(AppPipes, OpenedOnceAndClosed) {
    testutil::TempDir data;
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/hidraw99", &settings);
    DevCreateAppPipe(&dev);
    ASSERT_TRUE(dev.m_fdPipeIn.valid());
    ASSERT_TRUE(dev.m_fdPipeOut.valid());
    int in = dev.m_fdPipeIn.get();
    DevCreateAppPipe(&dev);  // already open: kept
    EXPECT_EQ(in, dev.m_fdPipeIn.get());

    const uint8_t reply[4] = {0x03, 0x02, 0x44, 0x31};
    WriteToTool(&dev, reply, 4);
    UniqueFd reader(OpenCloexec(PipeOutPath(), O_RDONLY | O_NONBLOCK));
    uint8_t got[8] = {};
    EXPECT_EQ(4, read(dev.m_fdPipeOut.get(), got, sizeof(got)));  // same FIFO, read back
    EXPECT_EQ(0x44, got[2]);

    DevCloseAppPipe(&dev);
    EXPECT_FALSE(dev.m_fdPipeIn.valid() || dev.m_fdPipeOut.valid());
}

// Gives dev the slave side of a new pty as its RS232 port at baud; returns the master (the
// caller owns it), or -1.
int SerialPortOnPty(CDeviceObject* dev, uint32_t baud) {
    testutil::Pty pty;
    if (!testutil::OpenPty(&pty)) return -1;
    dev->DevInterface = DEV_RS232;
    dev->CmdHeader = CMD_HEADER_SERIAL;
    dev->m_Port_fd = std::move(pty.slave);
    dev->BaudRate = baud;
    if (SetPortBaudRate(dev->m_Port_fd.get(), baud, 1) != 0) return -1;
    return pty.master.release();
}

class ForwardTest : public testing::Test {
  protected:
    void SetUp() override { DevIgnoreSigusr2(); }
    // A pipe as the input FIFO is opened, its read end given to dev; returns the tool's end.
    static UniqueFd ToolPipe(CDeviceObject* dev) {
        int fds[2];
        if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return UniqueFd();
        dev->m_fdPipeIn.reset(fds[0]);
        return UniqueFd(fds[1]);
    }
};

// What the tool writes reaches the port as it is (USB: framed by a zero byte at each end
// when configured); a serial switch of point reports (0A 02 34 xx) also switches where the
// controller's touches go, for the series that support it. An empty pipe sends nothing.
TEST_F(ForwardTest, RelaysToolPacketsAndSwitchesSerialReports) {
    struct Case {
        const char* what;
        uint8_t interface;
        bool shift;
        int32_t series;
        uint8_t before, after;  // bPointsToTool
        Bytes in;
        Bytes port = {};  // empty: the same bytes as written
    };
    const Case cases[] = {
        {"usb", DEV_USB, false, 0, 0, 0, {0x03, 0x01, 0x41}},
        {"usb shifted", DEV_USB, true, 0, 0, 0, {0x03, 0x01, 0x41}, {0x00, 0x03, 0x01, 0x41, 0x00}},
        {"usb reset: only forwarded", DEV_USB, false, 0, 0, 0, {0x03, 0x03, 0x52, 0x3A, 0xFF}},
        {"series 5 to tool", DEV_RS232, false, 5, 0, 1, {0x0A, 0x02, 0x34, 0x00}},
        {"series 5 back", DEV_RS232, false, 5, 1, 0, {0x0A, 0x02, 0x34, 0x01}},
        {"series 8 to tool", DEV_RS232, false, 8, 0, 1, {0x0A, 0x02, 0x34, 0x00}},
        {"unknown data byte", DEV_RS232, false, 5, 1, 1, {0x0A, 0x02, 0x34, 0x02}},
        {"series 12 keeps", DEV_RS232, false, 12, 0, 0, {0x0A, 0x02, 0x34, 0x00}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        testutil::LogCapture log;
        GlobalSettings settings = DevTestSettings();
        settings.ShiftByteBothEnd = c.shift;
        FakeController controller(c.interface == DEV_USB);
        controller.Start();
        CDeviceObject dev(c.interface == DEV_USB ? "/dev/hidraw99" : "/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, c.interface);
        dev.Series = c.series;
        dev.bPointsToTool = c.before;
        UniqueFd tool = ToolPipe(&dev);
        ASSERT_EQ(static_cast<ssize_t>(c.in.size()), write(tool.get(), c.in.data(), c.in.size()));
        ForwardFromTool(&dev);
        ForwardFromTool(&dev);  // the pipe is empty now
        ASSERT_TRUE(controller.WaitForPackets(1, 1000));
        usleep(20000);
        EXPECT_EQ(std::vector<Bytes>{c.port.empty() ? c.in : c.port}, controller.Received());
        EXPECT_EQ(c.after, dev.bPointsToTool);
        EXPECT_FALSE(log.Contains("Catch Reset Command"));
    }
}

// A reset command to an RS232 controller makes the relay search the line speed again:
// the controller stand-in (a pty) answers the loop-back only at 57600 bit/s.
TEST_F(ForwardTest, ResetCommandOnRs232RechecksTheSpeed) {
    testutil::LogCapture log;
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    const int master = SerialPortOnPty(&dev, 9600);
    ASSERT_GE(master, 0);
    FakeController controller(master);  // owns master
    std::vector<speed_t> speeds;
    controller.SetResponder([master, &speeds](const Bytes& packet) {
        std::vector<TimedReply> replies;
        if (packet.size() == 3 && packet[2] == 0x41) {
            struct termios line;
            tcgetattr(master, &line);
            speeds.push_back(cfgetospeed(&line));
            if (cfgetospeed(&line) == B57600) replies.push_back({1, Bytes{0x0A, 0x01, 0x41}});
        }
        return replies;
    });
    controller.Start();
    UniqueFd tool = ToolPipe(&dev);
    const uint8_t reset[5] = {0x0A, 0x03, 0x52, 0x3A, 0xFF};
    ASSERT_EQ(5, write(tool.get(), reset, 5));
    ForwardFromTool(&dev);
    controller.Stop();
    EXPECT_EQ(57600u, dev.BaudRate);
    EXPECT_TRUE(log.Contains("Catch Reset Command"));
    EXPECT_TRUE(log.Contains("Switch BaudRate from [9600] to [57600]"));
    EXPECT_EQ((std::vector<speed_t>{B9600, B19200, B57600}), speeds);
    std::vector<Bytes> got = controller.Received();
    ASSERT_GE(got.size(), 1u);
    EXPECT_EQ((Bytes{0x0A, 0x03, 0x52, 0x3A, 0xFF}), got[0]);
}

// Nobody answers at any speed: three passes over the four speeds, then the line goes
// back to the speed the device had.
TEST(RecheckBaudRate, SilentControllerKeepsTheOldSpeed) {
    testutil::LogCapture log;
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    const int master = SerialPortOnPty(&dev, 19200);
    ASSERT_GE(master, 0);
    FakeController controller(master);
    controller.Start();
    int64_t start = testutil::NowMs();
    RecheckBaudRate(&dev);
    int64_t elapsed = testutil::NowMs() - start;
    controller.Stop();
    EXPECT_EQ(19200u, dev.BaudRate);
    EXPECT_EQ(12, log.Count("Test Baudrate ["));
    EXPECT_TRUE(log.Contains("Recheck BaudRate failed, set to origin baud [19200]"));
    EXPECT_EQ(12u, controller.ReceivedCount());  // one loop-back per speed and pass
    struct termios line;
    ASSERT_EQ(0, tcgetattr(master, &line));
    EXPECT_EQ(static_cast<speed_t>(B19200), cfgetospeed(&line));
    EXPECT_GE(elapsed, 1500);
    EXPECT_LE(elapsed, 2500 + kLoadSlackMs);
}

}  // namespace
