// Start-up (data files, shell commands, PID file, kernel version) and the plug-and-play check.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "core/data_file.h"
#include "core/device_node.h"
#include "core/environment.h"
#include "core/manager.h"
#include "core/paths.h"
#include "core/pnp_signal.h"
#include "core/shell.h"
#include "core/shell_token.h"
#include "core/single_instance.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"
#include "support/touch_test_util.h"

namespace {

using namespace testutil;

// A link, FIFO (no reader), directory, second link or another user's file is refused untouched.
TEST(DataFileTest, LinksFifosDirectoriesAndOtherUsersFilesAreRefusedUntouched) {
    TempDir dir;
    const std::string victim = dir.File("victim"), foreign = dir.File("foreign");
    const bool root = geteuid() == 0;  // only root can give a file to another user
    ASSERT_TRUE(WriteFile(victim, "keep me") && WriteFile(foreign, "keep me") &&
                (!root || !chown(foreign.c_str(), 65534, 65534)) &&
                !symlink(victim.c_str(), dir.File("link").c_str()) &&
                !symlink(dir.File("nowhere").c_str(), dir.File("dangling").c_str()) &&
                !mkfifo(dir.File("fifo").c_str(), 0600) && !mkdir(dir.File("dir").c_str(), 0700) &&
                !link(victim.c_str(), dir.File("hard").c_str()));
    for (const char* name : {"link", "dangling", "fifo", "dir", "hard", root ? "foreign" : "dir"}) {
        const std::string path = dir.File(name);
        for (const int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_TRUNC, O_RDWR | O_CREAT | O_EXCL})
            EXPECT_EQ(-1, OpenDataFile(path.c_str(), flags)) << path << flags;
        EXPECT_EQ(nullptr, FopenDataFile(path.c_str(), "w+")) << path;
    }
    EXPECT_TRUE(ReadFile(victim) == "keep me" && ReadFile(foreign) == "keep me" &&
                !FileExists(dir.File("nowhere")));
}

// A serial port the daemon opens never becomes its controlling terminal (the port's hang-up
// would SIGHUP the daemon); a plain open of the same terminal does, as the control.
TEST(DeviceNodeTest, SerialPortNeverBecomesTheControllingTerminal) {
    const TtyResult control =
        OpenOfTerminalAcquiresIt([](const char* p) { return OpenCloexec(p, O_RDWR); });
    if (control == TtyResult::kSkipped) GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_EQ(TtyResult::kAcquired, control);
    EXPECT_EQ(TtyResult::kNotAcquired, OpenOfTerminalAcquiresIt([](const char* p) {
                  return OpenDeviceNode(p, O_RDWR | O_NONBLOCK, kNodeTerminal);
              }));
}

// PID file and command capture hard-linked elsewhere: that file keeps every byte.
TEST(DataFileTest, DaemonFilesHardLinkedElsewhereAreNeverWritten) {
    TempDir elsewhere, data;  // the last one made is the data directory
    const std::string victim = elsewhere.File("victim");
    const std::pair<std::string, std::function<void()>> cases[] = {
        {PidFilePath(), [] { WritePidFile(); }},
        {DrvLogPath(), [] {  // the capture (standard output and error) is made afresh
             FILE* out = RunShellCommand("echo o; echo e >&2", DrvLogPath());
             char text[8] = {};
             EXPECT_TRUE(out && fread(text, 1, sizeof(text) - 1, out) == 4 && !fclose(out));
             EXPECT_STREQ("o\ne\n", text);
         }}};
    for (const auto& [path, write] : cases) {
        ASSERT_TRUE(WriteFile(victim, "keep me") && link(victim.c_str(), path.c_str()) == 0);
        LogCapture log(LOG_MAIN, 2);  // standard output and system log
        Quiet(write);
        EXPECT_EQ("keep me", ReadFile(victim)) << path;
    }
}

// Settings values for a command line: IsPlainPathToken, IsProductIdToken, NormalizeProductId.
TEST(ShellTokenTest, TableOfValues) {
    const std::string longest = "/" + std::string(62, 'a'), too_long = longest + "a";
    const std::tuple<const char*, bool, bool, std::string> cases[] = {  // path, id, id form
        {"/dev/ttyUSB-0.1", 1, 0, ""}, {"relative/path_1", 1, 0, ""}, {longest.c_str(), 1, 0, ""},
        {too_long.c_str(), 0, 0, ""}, {"3c7a", 1, 1, "3c7a"}, {"00AB", 1, 1, "00ab"},
        {"E5", 1, 0, "00e5"}, {"3c7a0", 1, 0, ""}, {"3c7g", 1, 0, ""}, {"0x3c", 1, 0, ""},
        {" 3c7", 0, 0, ""}, {"/dev/ttyS0;reboot", 0, 0, ""}, {"/dev/$(id)", 0, 0, ""},
        {"/dev/\xc3\xa9", 0, 0, ""}, {"-rf", 0, 0, ""}, {"", 0, 0, ""}, {nullptr, 0, 0, ""}};
    for (const auto& [text, path_ok, id_ok, id_form] : cases) {
        char form[5] = "xxxx";
        EXPECT_TRUE(IsPlainPathToken(text) == path_ok && IsProductIdToken(text) == id_ok &&
                    NormalizeProductId(text, form) == !id_form.empty() && id_form == form)
            << (text ? text : "");
    }
}

// A command past its time limit is killed (-1); a background child does not hold the wait.
TEST(ShellWait, TimeLimitAndPromptReturn) {
    const int64_t start = NowMs();
    EXPECT_TRUE(RunShell("sleep 5", 300) == -1 &&
                RunShell("sleep 5 & exit 3", 10000) == W_EXITCODE(3, 0));
    EXPECT_LT(NowMs() - start, 3000);
}

// A PID file missing or naming no daemon (0 and -1 are groups): no kill; -k exits 0, -f goes on.
TEST(SingleInstanceTest, StalePidFileKillsNothing) {
    TempDir dir;
    const pid_t alive = fork();  // named as this test program
    if (alive == 0) _exit(pause());
    for (const std::string& pid : {std::to_string(alive), std::string("0"), std::string("-1"),
                                   std::string("x"), std::string()}) {
        unlink(dir.File("TouchPID").c_str());  // "": no PID file
        ASSERT_TRUE(pid.empty() || WriteFile(dir.File("TouchPID"), pid + " "));
        for (const uint8_t kill_running : {1, 0}) {
            GlobalSettings settings{};
            settings.KillRunning = kill_running, settings.ForceRestart = !kill_running;
            const ChildResult child = RunInChild([&] { CheckSingleInstance(&settings); });
            const int status = kill_running && !pid.empty() ? 0 : kReturned;
            EXPECT_TRUE(child.exited && child.status == status) << pid << int(kill_running);
        }
        EXPECT_EQ(0, waitpid(alive, nullptr, WNOHANG)) << pid;  // still running
    }
    kill(alive, SIGKILL), waitpid(alive, nullptr, 0);
}

// Missing pieces are 0, empty ones skipped, huge ones clamped; "-" is "Linux" without version.
TEST(EnvironmentTest, KernelVersionFromProcVersionText) {
    const std::tuple<std::string, int32_t, int32_t, int32_t, int32_t> kernels[] = {
        {"2.6.34-xyz (b@h) #1", 2, 6, 34, 1}, {"2.6.35 #2", 2, 6, 35, 0},
        {"6.1.0-18-amd64", 6, 1, 0, 0}, {"2.4.20 #1", 2, 4, 20, 0}, {"x.y.z", 0, 0, 0, 0},
        {"99999999999999999999.1.2", INT32_MAX, 1, 2, 0}, {"3..10.1", 3, 10, 1, 0},
        {"-", 0, 0, 0, 0}};
    for (const auto& [version, major, minor, patch, old] : kernels) {
        const std::string text = version == "-" ? "Linux" : "Linux version " + version;
        KernelVersionInfo v = {-7, -7, -7};
        ParseKernelVersion(text.data(), text.size(), &v);
        EXPECT_TRUE(v.major == major && v.minor == minor && v.patch == patch &&
                    IsOldKernel(v) == old) << text;
    }
}

// A silent RS232 controller mid-touch is lifted; a request raised during its check waits a pass.
TEST(ManagerTest, CheckOfASilentSerialControllerWhileAnotherRequestArrives) {
    ASSERT_EQ(0, InstallSigUsr2Handler());
    GlobalSettings settings = DevTestSettings();
    settings.ScanInterface = 4;
    CManager manager(&settings);
    FakeController controller(false);
    std::atomic<int> loopbacks{0};
    controller.SetResponder([&](const Bytes& packet) {  // the loop-back goes unanswered
        if (packet.size() >= 3 && packet[2] == 0x41 && loopbacks++ == 0) kill(getpid(), SIGUSR2);
        return std::vector<TimedReply>{};
    });
    controller.Start();
    CDeviceObject* device = manager.DeviceListHead = new CDeviceObject("/dev/ttyS99", &settings);
    manager.DeviceCount = 1;
    AttachPort(device, &controller, DEV_RS232);
    device->BaudRate = 9600;  // 5-byte point packets
    UniqueFd touch;
    touchtest::MakeEventPair(&device->UinputTouchFd, &touch);
    std::vector<int32_t> ids;  // tracking ids, read as they come (the queue is bounded)
    const auto drain = [&] {
        for (const touchtest::Ev& e : touchtest::Drain(touch.get()))
            if (e.type == EV_ABS && e.code == ABS_MT_TRACKING_ID) ids.push_back(e.value);
    };
    LogCapture log(LOG_MAIN | LOG_THREAD | LOG_EVENT);
    Quiet([&] {
        StartRxLoopThread(device);
        std::atomic<bool> streaming{true};
        std::thread touches([&] {  // contact 0 down, again and again
            for (; streaming; usleep(2000), drain()) controller.Send(Bytes{0x81, 0x0F, 0x7F, 0, 0});
        });
        WaitUntil([&] { return log.Contains("Send SLOT Multi Event ID[0]"); }, 5000);
        bDeviceExistCheck.store(1);
        ScanLoopPass(&manager);
        streaming = false;
        touches.join();
    });
    drain();  // the lifts written after the last touch
    EXPECT_TRUE(manager.DeviceCount == 0 && manager.DeviceListHead == nullptr &&
                bDeviceExistCheck.load() == 1);  // the request raised during the check
    EXPECT_TRUE(ids.size() >= 2 && ids.front() >= 0 && ids.back() == -1);
    log.Clear();
    Quiet([&] { ScanLoopPass(&manager); });
    EXPECT_EQ("Receive signal SIGUSR2. Set bDeviceExistCheck true.\nEntering DevicePnPCheck\n",
              log.Text());
    EXPECT_EQ(0, bDeviceExistCheck.load());
}

// The check drops devices without port or USB node; an answering serial controller stays.
TEST(ManagerTest, AnsweringSerialControllerIsKept) {
    GlobalSettings settings = DevTestSettings();
    CManager manager(&settings);
    FakeController controller(false);
    controller.SetResponder([](const Bytes& p) {
        return p.size() >= 3 && p[2] == 0x41 ? std::vector<TimedReply>{{5, {0x0A, 0x01, 0x41}}}
                                             : std::vector<TimedReply>{};
    });
    controller.Start();
    const std::tuple<const char*, uint8_t, int> rows[] = {  // port: none, /dev/null, controller
        {"/dev/hidraw7", DEV_USB, 0}, {"/dev/ttyS99", DEV_RS232, 2},
        {"/nonexistent/hidraw1", DEV_USB, 1}, {"/dev/serio_raw0", DEV_PS2, 1},
        {"/dev/null", DEV_USB, 1}, {"/dev/ttyS0", DEV_RS232, 0}};
    CDeviceObject* d[7] = {};
    for (int i = 5; i >= 0; --i) {
        const auto& [path, interface, port] = rows[i];
        d[i] = new CDeviceObject(path, &settings);
        d[i]->DevInterface = interface, d[i]->pNext = d[i + 1];
        if (port == 1) d[i]->m_Port_fd.reset(OpenCloexec("/dev/null", O_RDWR));
        if (port == 2) AttachPort(d[i], &controller, DEV_RS232);
    }
    manager.DeviceListHead = d[0], manager.DeviceCount = 6;
    Quiet([&] { StartRxLoopThread(d[1]), DevicePnPCheck(&manager); });
    ASSERT_TRUE(manager.DeviceCount == 3 && manager.DeviceListHead == d[1] && d[1]->pNext == d[3] &&
                d[3]->pNext == d[4] && !d[4]->pNext && d[1]->bThreadCreated);
    Quiet([&] { delete d[1], delete d[3], delete d[4]; });
    controller.Stop();
}

}  // namespace
