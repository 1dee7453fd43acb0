// The device object from pure inputs (resolution shifts and report ids from descriptor
// bytes, series from model and type names, event protocol by kernel, interface by path),
// its serial port on a pty, and the creation and destruction of its thread.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "core/environment.h"
#include "device/descriptor.h"
#include "device/identification.h"
#include "device/setup.h"
#include "support/dev_test_util.h"
#include "support/test_util.h"

#if defined(__SANITIZE_THREAD__)
#define DEV_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DEV_UNDER_TSAN 1
#endif
#endif

namespace {

using testutil::OpenPty;
using testutil::Pty;

// "85 01 0501" -> {0x85, 0x01, 0x05, 0x01}: spaces between byte pairs are skipped.
Bytes Hex(const char* hex) {
    Bytes out;
    for (unsigned b; sscanf(hex, "%2x", &b) == 1; hex += 2 + (hex[2] == ' ')) out.push_back(b);
    return out;
}

// A report: Report ID, Generic Desktop usage page, usage X and a two-byte Logical Maximum.
Bytes Report(uint8_t id, int max) {
    return {0x85, id,   0x05, 0x01, 0x09, 0x30, 0x15, 0x00, 0x26, uint8_t(max & 0xFF),
            uint8_t(max >> 8), 0x75, 0x10, 0x95, 0x01, 0x81, 0x02};
}

TEST(ResolutionShift, WhichLogicalMaximumCountsAndItsShift) {
    struct Case { const char* name; Bytes d; int shift; } cases[] = {
        {"2047", Report(4, 2047), 0}, {"4095", Report(4, 4095), 1}, {"8191", Report(4, 8191), 1},
        {"16383", Report(4, 16383), 2}, {"32767", Report(4, 32767), 3},
        {"65535", Report(4, 65535), 4}, {"no logical maximum", Hex("8501 0501 0930 7510"), -1},
        {"not generic desktop", Hex("8501 050d 26ff7f"), -1},
        {"0x26 before the usage page is stepped over", Hex("8501 26ff7f 0501 26ff0f"), 1},
        {"two-byte usage page", Hex("8501 060100 26ff7f"), -1},
        {"a later usage page keeps it", Hex("8501 0501 050d 26ff3f"), 2},
        {"truncated after 0x26", Hex("8501 0501 26ff"), -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.shift, ResolutionShift(c.d.data(), 0, static_cast<int>(c.d.size())));
    }
}

// Each report id sets its own fields (the others keep 7): 1 mouse, 4 touch, 2 digitizer and
// 6 parallel their shift and logical maximum (2047: no shift, scaled when parsed), 3 the
// vendor report, 5 the feature report; 7 is ignored.
TEST(ReportDescriptor, ReportIdsSetTheirFields) {
    struct Case { std::vector<Bytes> parts; std::vector<int> fields; } cases[] = {
        {{Report(1, 4095), Hex("8503 0600ff 0901"), Report(4, 32767), Hex("8505 0955 b102"), Hex("8507 0501 26ffff")},
         {1, 4095, 3, 7, 7, 7, 7, 1, 1}},
        {{Report(2, 16383), Report(6, 2047)}, {7, 7, 7, 2, 16383, 0, 2047, 0, 0}},
    };
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        CDeviceObject dev("/dev/hidraw99", &settings);
        dev.MouseResShift = dev.MouseLogicalMax = dev.MTouchResShift = dev.DigitizerResShift =
            dev.DigitizerLogicalMax = dev.ParallelResShift = dev.ParallelLogicalMax = 7;
        Bytes d;
        for (const Bytes& part : c.parts) d.insert(d.end(), part.begin(), part.end());
        ApplyReportDescriptor(&dev, d.data(), static_cast<int>(d.size()));
        EXPECT_EQ(c.fields, (std::vector<int>{dev.MouseResShift, dev.MouseLogicalMax, dev.MTouchResShift,
                                              dev.DigitizerResShift, dev.DigitizerLogicalMax, dev.ParallelResShift,
                                              dev.ParallelLogicalMax, dev.bVendorReport, dev.bSetFeature}));
    }
}

// Every row of the series table in its order: the first match wins.
TEST(AllocateSeries, RowsInOrder) {
    struct Case { const char* model; const char* type; int32_t series; } cases[] = {
        {"K2593", "LOM-1", SERIES_LOMBAR}, {"K2593", "DARLOM", SERIES_LOMBAR}, {"JOP7555", "XW", SERIES_JORVAKS},
        {"JOP7555", "xw", SERIES_UNKNOWN}, {"DARELYN", "DAR", SERIES_DARELYN}, {"KVR-4455R", "R1", SERIES_DARELYN},
        {"TOBIN4555", "TOBIN4555", SERIES_TOBIN4555}, {"TOB4455", "TOB4455", SERIES_TOB4455},
        {"Melka2", "Melka", SERIES_MELKA}, {"FEN", "FEN", SERIES_FEN}, {"GLR100", "GLRxx", SERIES_GLR_7255},
        {"GLR725D", "GLRxx", SERIES_GLR_7255_W353HS}, {"GLR725F", "GLRxx", SERIES_GLR_7255_W353HS},
        {"ABC", "GLRxx", SERIES_UNKNOWN}, {"ABC", "GLR PCAP6", SERIES_PCAP_6555}, {"P40", "PCAP40", SERIES_PCAP_9015},
        {"P11", "PCAP11", SERIES_PCAP_9015}, {"Lantre", "PCAP11", SERIES_PCAP_9085},
        {"Lantre-1", "PCAP40", SERIES_PCAP_9085}, {"PCAP", "PCAP4x", SERIES_PCAP_4155},
        {"XYZ", "PCAP4155-X", SERIES_PCAP_4155}, {"Halma", "Halma4455", SERIES_PCAP_4455},
        {"PCAP", "Halma4455", SERIES_PCAP_4455}, {"XYZ", "Halma4455", SERIES_UNKNOWN},
        {"", "PCAP6555", SERIES_PCAP_6555}, {"", "PCAP0415", SERIES_PCAP_0415}, {"", "PCAP2x", SERIES_PCAP_2},
        {"UNKNOWN", "UNKNOWN", SERIES_UNKNOWN}, {"", "", SERIES_UNKNOWN}, {nullptr, nullptr, SERIES_UNKNOWN},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.model ? c.model : "null") + " / " + (c.type ? c.type : ""));
        EXPECT_EQ(c.series, AllocateSeries(c.model, c.type));
    }
}

// The protocol by kernel version and series; a configured one is kept.
TEST(ChooseEventType, ByKernelAndSeries) {
    struct Case { KernelVersionInfo kernel; int32_t series; int8_t configured, chosen; } cases[] = {
        {{2, 6, 35}, 12, 0, 1}, {{2, 6, 32}, 22, 0, 1}, {{2, 6, 36}, 12, 0, 2},
        {{2, 6, 36}, 8, 0, 1},  {{3, 0, 1}, 12, 0, 2},  {{3, 0, 1}, 0, 0, 1},
        {{5, 10, 0}, 9, 0, 2},  {{2, 6, 36}, 12, 4, 4}, {{2, 6, 30}, 12, 2, 2},
    };
    const KernelVersionInfo saved = KernelVersion;
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kernel.major << "." << c.kernel.minor << "."
                                        << c.kernel.patch << " series " << c.series);
        KernelVersion = c.kernel;
        CDeviceObject dev("/dev/hidraw99", &settings);
        dev.Series = c.series;
        dev.Param.EventType = c.configured;
        ChooseEventType(&dev);
        EXPECT_EQ(c.chosen, dev.Param.EventType);
    }
    KernelVersion = saved;
}

TEST(DetectInterface, ByPathPrefix) {
    // An unknown path leaves the command header as it was (0x55).
    struct Case { const char* path; uint8_t interface; int8_t header; } cases[] = {
        {"/dev/hidraw3", DEV_USB, 0x03}, {"/dev/ttyS0", DEV_RS232, 0x0A}, {"/dev/ttyUSB1", DEV_RS232, 0x0A},
        {"/dev/serio_raw0", DEV_PS2, 0x0A}, {"/dev/input/event2", DEV_UNKNOWN, 0x55},
        {"/dev/hidra", DEV_UNKNOWN, 0x55}, {"", DEV_UNKNOWN, 0x55}};
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        CDeviceObject dev(c.path, &settings);
        dev.CmdHeader = 0x55;
        EXPECT_EQ(c.interface, DetectInterface(&dev));
        EXPECT_EQ(c.interface, dev.DevInterface);
        EXPECT_EQ(c.header, dev.CmdHeader);
    }
}

// Opened non-blocking and close-on-exec at the configured speed; closing writes the saved
// line settings back. A path that names no terminal is refused before any line setting.
TEST(SerialPort, OpenAtConfiguredSpeedAndRestoreOnClose) {
    Pty pty;
    ASSERT_TRUE(OpenPty(&pty));
    struct termios original, line, restored;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &original));
    GlobalSettings settings = DevTestSettings();
    settings.DeviceBaudRate = 19200;
    CDeviceObject dev(pty.slave_path.c_str(), &settings), not_a_tty("/dev/null", &settings);
    dev.DevInterface = not_a_tty.DevInterface = DEV_RS232;
    ASSERT_EQ(0, OpenPort(&dev));
    const int fd = dev.m_Port_fd.get();
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(19200u, dev.BaudRate);
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &line));
    EXPECT_EQ(static_cast<speed_t>(B19200), cfgetospeed(&line));
    ClosePort(&dev);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &restored));
    EXPECT_EQ(cfgetospeed(&original), cfgetospeed(&restored));
    EXPECT_EQ(original.c_lflag, restored.c_lflag);
    EXPECT_EQ(-1, OpenPort(&not_a_tty));
}

// A controller that keeps sending during set-up: the drain stops after its 200 reads (5 ms
// apart) with data still waiting, instead of never ending.
TEST(CleanPort, DrainIsBounded) {
    GlobalSettings settings = DevTestSettings();
    FakeController controller(false);
    CDeviceObject dev("/dev/ttyS99", &settings);
    AttachPort(&dev, &controller, DEV_RS232);
    controller.Send(Bytes(300 * kPortReadMax, 0x81));
    const int64_t start = testutil::NowMs();
    DevCleanPortData(&dev);
    const int64_t elapsed = testutil::NowMs() - start;
    EXPECT_GE(elapsed, 900);
    EXPECT_LE(elapsed, 1000 + kLoadSlackMs);
    uint8_t rest[kPortReadMax];
    EXPECT_EQ(kPortReadMax, read(dev.m_Port_fd.get(), rest, sizeof(rest)));
}

// Runs the current test again in a fresh process image with `marker` in its environment
// and, when `stack` is not 0, that stack limit; expects it to pass.
void RunInFreshProcess(const char* marker, rlim_t stack) {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        struct rlimit limit = {stack, stack};
        if (stack != 0) setrlimit(RLIMIT_STACK, &limit);
        setenv(marker, "1", 1);
        execl("/proc/self/exe", "device_tests", filter.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// Thread creation fails (stacks of the size the stack limit asks for cannot be mapped):
// Create() gives nullptr and nothing is left to stop. Checked in a fresh process image.
TEST(CreatedDevice, ThreadCreationFailureGivesNoDevice) {
#ifdef DEV_UNDER_TSAN
    GTEST_SKIP() << "ThreadSanitizer cannot start under a huge stack limit";
#endif
    if (getenv("TAVRINE_DEV_HUGE_STACK_CHILD")) {
        pthread_t probe;
        if (pthread_create(&probe, nullptr, [](void*) -> void* { return nullptr; }, nullptr) == 0) {
            pthread_join(probe, nullptr);
            GTEST_SKIP() << "threads can still be created under this limit";
        }
        testutil::TempDir data;
        Pty pty;
        ASSERT_TRUE(OpenPty(&pty));
        GlobalSettings settings = DevTestSettings();
        EXPECT_EQ(nullptr, CDeviceObject::Create(pty.slave_path.c_str(), &settings));
        return;
    }
    // 2^45 bytes, or the largest finite limit where rlim_t has 32 bits.
    const unsigned long long want = 1ULL << 45;
    RunInFreshProcess("TAVRINE_DEV_HUGE_STACK_CHILD",
                      want < RLIM_INFINITY ? static_cast<rlim_t>(want) : RLIM_INFINITY - 1);
}

// Destroying a device during its set-up (draining the port of a streaming controller) stops
// its thread at once; devices created and destroyed again and again, during set-up or after
// it, and a node that cannot be opened, leave no descriptor and no thread behind.
TEST(CreatedDevice, DestroyDuringOrAfterSetupLeavesNothingBehind) {
    DevIgnoreSigusr2();
    testutil::TempDir data;
    Pty pty;
    ASSERT_TRUE(OpenPty(&pty));
    GlobalSettings settings = DevTestSettings();
    snprintf(settings.UinputPath, sizeof(settings.UinputPath), "%s/no_uinput", data.path().c_str());
    settings.CustomPathMask = kCustomUinputPathBit;
    const auto count = [](const char* dir) {
        int n = 0;
        DIR* d = opendir(dir);
        while (d && readdir(d)) ++n;
        return d ? closedir(d), n : -1;
    };
    const int fds = count("/proc/self/fd"), tasks = count("/proc/self/task");
    struct termios raw;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &raw));
    cfmakeraw(&raw);
    ASSERT_EQ(0, tcsetattr(pty.master.get(), TCSANOW, &raw));
    const Bytes queued(4000, 0x81);  // keeps the drain busy some 300 ms, then 10 bytes a ms
    ASSERT_EQ(4000, write(pty.master.get(), queued.data(), queued.size()));
    std::atomic<bool> stop{false};
    std::thread streamer([&] {
        while (!stop && write(pty.master.get(), queued.data(), 10) >= 0) usleep(1000);
    });
    std::unique_ptr<CDeviceObject> dev = CDeviceObject::Create(pty.slave_path.c_str(), &settings);
    ASSERT_NE(nullptr, dev);
    usleep(100000);
    EXPECT_EQ(1, dev->bThreadRunning.load());  // still draining the port
    const int64_t start = testutil::NowMs();
    dev.reset();
    EXPECT_LT(testutil::NowMs() - start, kStopBoundMs);
    stop = true;
    streamer.join();
    for (int i = 0; i < 30; ++i) {
        ASSERT_NE(nullptr, CDeviceObject::Create(pty.slave_path.c_str(), &settings));
        if (i % 2) usleep(2000);  // destroyed during set-up or after it ended
    }
    EXPECT_EQ(nullptr, CDeviceObject::Create("/dev/hidraw_missing_for_test", &settings));
    EXPECT_EQ(fds, count("/proc/self/fd"));
    EXPECT_EQ(tasks, count("/proc/self/task"));
}

// Raw line at each rate, read back from the master side; a rate not in the table keeps the
// speed bits; restore writes back what the latest configuration found; a descriptor that is
// not a terminal is refused.
TEST(SetPortBaudRate, RawLineAtEachRateAndRestore) {
    Pty pty;
    ASSERT_TRUE(OpenPty(&pty));
    struct termios now;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &now));
    ASSERT_NE(0u, now.c_lflag);  // a fresh pty is cooked: the clearing is visible
    struct Case { uint32_t rate; speed_t speed; tcflag_t cflag; } cases[] = {
        {9600, B9600, 0x8BD}, {19200, B19200, 0x8BE}, {57600, B57600, 0x18B1}, {115200, B115200, 0x18B2},
        {38400, B115200, 0x18B2}};  // not in the table: the speed bits stay
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rate);
        ASSERT_EQ(0, SetPortBaudRate(pty.slave.get(), c.rate, 1));
        ASSERT_EQ(0, tcgetattr(pty.master.get(), &now));
        EXPECT_EQ(c.speed, cfgetospeed(&now));
        EXPECT_EQ(c.cflag, now.c_cflag & 0xFFFF);
        EXPECT_EQ(0u, now.c_iflag | now.c_oflag | now.c_lflag);
    }
    ASSERT_EQ(0, SetPortBaudRate(pty.slave.get(), 9600, 1));
    ASSERT_EQ(0, SetPortBaudRate(pty.slave.get(), 0, 0));
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &now));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&now));
    UniqueFd null_fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(-1, SetPortBaudRate(null_fd.get(), 9600, 1));
}

// Nothing saved yet: the restore refuses instead of writing a zeroed line (speed 0 hangs
// the line up). Checked in a fresh process image, where no save has happened.
TEST(SetPortBaudRate, RestoreWithoutSaveIsRefused) {
    if (!getenv("TAVRINE_DEV_FRESH_CHILD")) return RunInFreshProcess("TAVRINE_DEV_FRESH_CHILD", 0);
    Pty pty;
    ASSERT_TRUE(OpenPty(&pty));
    struct termios before, after;
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &before));
    EXPECT_EQ(-1, SetPortBaudRate(pty.slave.get(), 0, 0));
    ASSERT_EQ(0, tcgetattr(pty.master.get(), &after));
    EXPECT_EQ(cfgetospeed(&before), cfgetospeed(&after));
}

// Lines configured and put back from two threads at once, as the scan loop's probe and a
// receive thread's speed recheck do: every call succeeds and each line ends at a speed one
// of them set or saved. Under ThreadSanitizer an unguarded saved copy is reported here.
TEST(SetPortBaudRate, SavesAndRestoresFromTwoThreads) {
    Pty a, b;
    ASSERT_TRUE(OpenPty(&a));
    ASSERT_TRUE(OpenPty(&b));
    struct termios original, line;
    ASSERT_EQ(0, tcgetattr(a.master.get(), &original));
    const auto work = [](int fd, uint32_t rate, int* failures) {
        for (int i = 0; i < 200; ++i)
            *failures += (SetPortBaudRate(fd, rate, 1) != 0) + (SetPortBaudRate(fd, 0, 0) != 0);
    };
    int failures_a = 0, failures_b = 0;
    std::thread other(work, b.slave.get(), 115200u, &failures_b);
    work(a.slave.get(), 9600u, &failures_a);
    other.join();
    EXPECT_EQ(0, failures_a + failures_b);
    for (Pty* pty : {&a, &b}) {
        ASSERT_EQ(0, tcgetattr(pty->master.get(), &line));
        const speed_t speed = cfgetospeed(&line);
        EXPECT_TRUE(speed == B9600 || speed == B115200 || speed == cfgetospeed(&original)) << speed;
    }
}

}  // namespace
