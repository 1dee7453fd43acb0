// The tool's named pipes in a temporary data directory, and the relay from the input
// pipe to a controller stand-in.
#include "toolpipe/tool_pipe.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "core/paths.h"
#include "device/cmd_channel.h"
#include "device/device_object.h"
#include "support/dev_test_util.h"
#include "support/sec_tty.h"

namespace {

mode_t ModeOf(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return 0;
    return st.st_mode;
}

TEST(CreateFifo, ModesDoNotDependOnTheUmask) {
    DevTempDataDir data;
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
    // An existing FIFO is opened again as it is.
    UniqueFd again(CreateFifo(PipeInPath(), kPipeInMode, O_RDWR | O_NONBLOCK));
    EXPECT_TRUE(again.valid());
    // Both descriptors reach the same FIFO.
    ASSERT_EQ(3, write(again.get(), "abc", 3));
    char buf[8];
    EXPECT_EQ(3, read(in, buf, sizeof(buf)));
}

TEST(CreateFifo, RefusesWhatIsNotAFifo) {
    DevTempDataDir data;
    DevLogCapture log;
    const std::string regular = data.path() + "/regular";
    {
        FILE* f = fopen(regular.c_str(), "we");
        ASSERT_NE(nullptr, f) << regular;
        fputs("settings", f);
        fclose(f);
    }
    EXPECT_EQ(-1, CreateFifo(regular.c_str(), kPipeInMode, O_RDWR | O_NONBLOCK));
    EXPECT_TRUE(S_ISREG(ModeOf(regular)));
    EXPECT_TRUE(log.Contains("is not a FIFO"));

    // A symbolic link to a real FIFO is refused, not followed.
    const std::string target = data.path() + "/real_fifo";
    ASSERT_EQ(0, mkfifo(target.c_str(), 0600));
    const std::string link = data.path() + "/link";
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    EXPECT_EQ(-1, CreateFifo(link.c_str(), kPipeInMode, O_RDWR | O_NONBLOCK));
    EXPECT_EQ(0600u, ModeOf(target) & 07777);  // target's mode untouched

    // A dangling link: nothing is created at its target.
    const std::string dangling = data.path() + "/dangling";
    const std::string nowhere = data.path() + "/nowhere";
    ASSERT_EQ(0, symlink(nowhere.c_str(), dangling.c_str()));
    EXPECT_EQ(-1, CreateFifo(dangling.c_str(), kPipeInMode, O_RDWR | O_NONBLOCK));
    EXPECT_EQ(0u, ModeOf(nowhere));
}

// A terminal at a tool pipe path is refused without becoming the daemon's controlling
// terminal.
TEST(CreateFifo, TerminalIsRefusedWithoutBecomingTheControllingTerminal) {
    DevLogCapture log;
    const auto create = [](const char* path) {
        const int fd = CreateFifo(path, kPipeInMode, O_RDWR | O_NONBLOCK);
        if (fd >= 0) _exit(4);  // a terminal must never be taken for a FIFO
        return fd;
    };
    const sectest::TtyResult result = sectest::OpenOfTerminalAcquiresIt(create);
    if (result == sectest::TtyResult::kSkipped) GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_EQ(sectest::TtyResult::kNotAcquired, result);
}

TEST(CreateFifo, UncreatablePathGivesUpQuickly) {
    DevTempDataDir data;
    const std::string path = data.path() + "/missing_dir/MorvelPipe_in";
    int64_t start = DevNowMs();
    EXPECT_EQ(-1, CreateFifo(path.c_str(), kPipeInMode, O_RDWR | O_NONBLOCK));
    EXPECT_LT(DevNowMs() - start, kStopBoundMs);
}

TEST(AppPipes, OpenedOnceAndClosed) {
    DevTempDataDir data;
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
    EXPECT_FALSE(dev.m_fdPipeIn.valid());
    EXPECT_FALSE(dev.m_fdPipeOut.valid());
    EXPECT_TRUE(S_ISFIFO(ModeOf(PipeInPath())));  // the files stay
    DevLogCapture log;
    WriteToTool(&dev, reply, 4);
    EXPECT_TRUE(log.Contains("m_fdPipeOut is invalid"));
}

class ForwardTest : public testing::Test {
  protected:
    void SetUp() override {
        DevIgnoreSigusr2();
        int fds[2];
        ASSERT_EQ(0, pipe2(fds, O_NONBLOCK | O_CLOEXEC));  // as the FIFO is opened
        tool_.reset(fds[1]);
        pipe_in_ = fds[0];
    }
    void Tool(const Bytes& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  write(tool_.get(), bytes.data(), bytes.size()));
    }
    UniqueFd tool_;
    int pipe_in_ = -1;
};

TEST_F(ForwardTest, UsbShiftWhenConfigured) {
    for (bool shift : {false, true}) {
        SCOPED_TRACE(shift);
        GlobalSettings settings = DevTestSettings();
        settings.ShiftByteBothEnd = shift;
        FakeController controller(true);
        controller.Start();
        CDeviceObject dev("/dev/hidraw99", &settings);
        AttachPort(&dev, &controller, DEV_USB);
        int fds[2];
        ASSERT_EQ(0, pipe2(fds, O_NONBLOCK | O_CLOEXEC));  // as the FIFO is opened
        dev.m_fdPipeIn.reset(fds[0]);
        UniqueFd tool(fds[1]);
        ASSERT_EQ(3, write(tool.get(), "\x03\x01\x41", 3));
        ForwardFromTool(&dev);
        ASSERT_TRUE(controller.WaitForPackets(1, 1000));
        EXPECT_EQ(shift ? (Bytes{0x00, 0x03, 0x01, 0x41, 0x00}) : (Bytes{0x03, 0x01, 0x41}),
                  controller.Received()[0]);
        // An empty pipe: nothing is read, nothing written.
        ForwardFromTool(&dev);
        usleep(20000);
        EXPECT_EQ(1u, controller.ReceivedCount());
    }
    close(pipe_in_);
}

TEST_F(ForwardTest, ReportSwitchByDataByteAndSeries) {
    struct Case {
        int32_t series;
        uint8_t data;
        uint8_t before;
        uint8_t after;
    } cases[] = {{5, 0, 0, 1}, {5, 1, 1, 0},  {8, 0, 0, 1}, {5, 2, 1, 1},
                 {5, 2, 0, 0}, {12, 0, 0, 0}, {12, 1, 1, 1}};
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "series " << c.series << " data " << int(c.data));
        FakeController controller(false);
        controller.Start();
        CDeviceObject dev("/dev/ttyS99", &settings);
        AttachPort(&dev, &controller, DEV_RS232);
        dev.Series = c.series;
        dev.bPointsToTool = c.before;
        int fds[2];
        ASSERT_EQ(0, pipe2(fds, O_NONBLOCK | O_CLOEXEC));  // as the FIFO is opened
        dev.m_fdPipeIn.reset(fds[0]);
        UniqueFd tool(fds[1]);
        const uint8_t cmd[4] = {0x0A, 0x02, 0x34, c.data};
        ASSERT_EQ(4, write(tool.get(), cmd, 4));
        ForwardFromTool(&dev);
        EXPECT_EQ(c.after, dev.bPointsToTool);
        ASSERT_TRUE(controller.WaitForPackets(1, 1000));
        EXPECT_EQ((Bytes{0x0A, 0x02, 0x34, c.data}), controller.Received()[0]);
    }
    close(pipe_in_);
}

// A reset command to an RS232 controller makes the relay search the line speed again:
// the controller stand-in (a pty) answers the loop-back only at 57600 bit/s.
TEST_F(ForwardTest, ResetCommandOnRs232RechecksTheSpeed) {
    DevLogCapture log;
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    int slave = OpenCloexec(ptsname(master), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(slave, 0);
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    dev.DevInterface = DEV_RS232;
    dev.CmdHeader = CMD_HEADER_SERIAL;
    dev.m_Port_fd.reset(slave);
    dev.BaudRate = 9600;
    ASSERT_EQ(0, SetPortBaudRate(slave, 9600, 1));
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
    dev.m_fdPipeIn.reset(pipe_in_);
    const uint8_t reset[5] = {0x0A, 0x03, 0x52, 0x3A, 0xFF};
    ASSERT_EQ(5, write(tool_.get(), reset, 5));
    ForwardFromTool(&dev);
    controller.Stop();
    EXPECT_EQ(57600u, dev.BaudRate);
    EXPECT_TRUE(log.Contains("Catch Reset Command"));
    EXPECT_TRUE(log.Contains("Switch BaudRate from [9600] to [57600]"));
    ASSERT_EQ(3u, speeds.size());
    EXPECT_EQ(static_cast<speed_t>(B9600), speeds[0]);
    EXPECT_EQ(static_cast<speed_t>(B19200), speeds[1]);
    EXPECT_EQ(static_cast<speed_t>(B57600), speeds[2]);
    std::vector<Bytes> got = controller.Received();
    ASSERT_GE(got.size(), 1u);
    EXPECT_EQ((Bytes{0x0A, 0x03, 0x52, 0x3A, 0xFF}), got[0]);
}

// Nobody answers at any speed: three passes over the four speeds, then the line goes
// back to the speed the device had.
TEST(RecheckBaudRate, SilentControllerKeepsTheOldSpeed) {
    DevLogCapture log;
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    dev.DevInterface = DEV_RS232;
    dev.CmdHeader = CMD_HEADER_SERIAL;
    dev.m_Port_fd.reset(OpenCloexec(ptsname(master), O_RDWR | O_NOCTTY | O_NONBLOCK));
    ASSERT_TRUE(dev.m_Port_fd.valid());
    dev.BaudRate = 19200;
    ASSERT_EQ(0, SetPortBaudRate(dev.m_Port_fd.get(), 19200, 1));
    FakeController controller(master);
    controller.Start();
    int64_t start = DevNowMs();
    RecheckBaudRate(&dev);
    int64_t elapsed = DevNowMs() - start;
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

TEST_F(ForwardTest, ResetCommandOnUsbIsOnlyForwarded) {
    DevLogCapture log;
    GlobalSettings settings = DevTestSettings();
    FakeController controller(true);
    controller.Start();
    CDeviceObject dev("/dev/hidraw99", &settings);
    AttachPort(&dev, &controller, DEV_USB);
    dev.m_fdPipeIn.reset(pipe_in_);
    Tool(Bytes{0x03, 0x03, 0x52, 0x3A, 0xFF});
    ForwardFromTool(&dev);
    ASSERT_TRUE(controller.WaitForPackets(1, 1000));
    EXPECT_FALSE(log.Contains("Catch Reset Command"));
    EXPECT_TRUE(log.Contains("Write to device 5 bytes: [03][03][52][3A][FF]"));
}

TEST_F(ForwardTest, FailedWriteIsLogged) {
    DevLogCapture log;
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/ttyS99", &settings);
    dev.DevInterface = DEV_RS232;  // no port
    dev.m_fdPipeIn.reset(pipe_in_);
    Tool(Bytes{0x0A, 0x01, 0x41});
    ForwardFromTool(&dev);
    EXPECT_TRUE(log.Contains("Write 3 byetes into device failed. Return with -1"));
}

}  // namespace
