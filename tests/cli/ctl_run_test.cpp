// tavrinectl against a stand-in daemon: real FIFOs in a temporary data directory, a PID
// file, and a thread that reads the input FIFO and answers into the output FIFO the way
// the daemon's relay does (one write per reply).
#include "ctl_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "core/paths.h"
#include "ctl_session.h"
#include "support/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Packets = std::vector<Bytes>;

Bytes Padded(Bytes b) {
    b.resize(64, 0);
    return b;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class CtlRunTest : public ::testing::Test {
  protected:
    void TearDown() override {
        running_ = false;
        if (thread_.joinable()) thread_.join();
    }
    // The PID file as the daemon writes it: "%d " padded with NUL to 10 bytes.
    void WritePid(pid_t pid) {
        std::string text = std::to_string(pid) + " ";
        text.resize(10, '\0');
        ASSERT_TRUE(testutil::WriteFile(PidFilePath(), text));
    }
    void MakeFifos() { ASSERT_EQ(0, mkfifo(PipeInPath(), 0622) | mkfifo(PipeOutPath(), 0644)); }
    // Opens both FIFOs read-write as the daemon does and answers every packet read from
    // the input FIFO with what answer returns (each element one write).
    void StartDaemon(std::function<Packets(const Bytes&)> answer) {
        WritePid(getpid());
        MakeFifos();
        din_.reset(open(PipeInPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        dout_.reset(open(PipeOutPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        running_ = true;
        thread_ = std::thread([this, answer] {
            uint8_t buf[65];
            struct pollfd p = {din_.get(), POLLIN, 0};
            while (running_) {
                const ssize_t n = poll(&p, 1, 20) > 0 ? read(din_.get(), buf, sizeof(buf)) : 0;
                if (n <= 0) continue;
                const Bytes packet(buf, buf + n);
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    received_.push_back(packet);
                }
                for (const Bytes& r : answer(packet)) {
                    ASSERT_EQ(ssize_t(r.size()), write(dout_.get(), r.data(), r.size()));
                }
            }
        });
    }
    // The packets read so far, once at least least of them came (or after one second: the
    // tool returns right after its last write, before the stand-in has read it).
    Packets Received(size_t least) {
        testutil::WaitUntil([&] { return Locked().size() >= least; }, 1000);
        return Locked();
    }
    Packets Locked() {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    // Runs the tool with the command line words; its output and errors are kept.
    int Run(std::vector<const char*> argv, volatile const int* stop = nullptr) {
        argv.insert(argv.begin(), "tavrinectl");
        CtlOptions options;
        char why[256];
        EXPECT_EQ(0, ParseCtlArgs(int(argv.size()), argv.data(), &options, why, sizeof(why)));
        char *out = nullptr, *err = nullptr;
        size_t out_size = 0, err_size = 0;
        FILE *out_file = open_memstream(&out, &out_size), *err_file = open_memstream(&err, &err_size);
        const int64_t start = testutil::NowMs();
        const int status = RunCtl(options, out_file, err_file, stop);
        elapsed_ms_ = testutil::NowMs() - start;
        fclose(out_file);
        fclose(err_file);
        out_ = out;
        err_ = err;
        free(out);
        free(err);
        return status;
    }
    // Runs the tool; its status, and a piece of what it said on standard error.
    void Expect(std::vector<const char*> argv, int status, const char* said) {
        EXPECT_EQ(status, Run(argv));
        EXPECT_NE(err_.find(said), std::string::npos) << err_;
    }

    testutil::TempDir dir_;
    UniqueFd din_, dout_;  // the daemon's ends of the FIFOs
    std::atomic<bool> running_{false};
    std::thread thread_;
    std::mutex mutex_;
    Packets received_;
    std::string out_, err_;
    int64_t elapsed_ms_ = 0;
};

TEST_F(CtlRunTest, NoDaemonHasItsOwnStatusAndReason) {
    Expect({"version"}, kCtlNoDaemon, "no daemon running");
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_EQ(child, waitpid(child, nullptr, 0));
    WritePid(child);
    Expect({"model"}, kCtlNoDaemon, "is gone");
    ASSERT_TRUE(testutil::WriteFile(PidFilePath(), std::string(4, '\0')));
    Expect({"model"}, kCtlNoDaemon, "holds no process id");
    WritePid(getpid());
    Expect({"type"}, kCtlNoDaemon, "MorvelPipe_out is missing");
    ASSERT_TRUE(testutil::WriteFile(PipeOutPath(), "x"));
    Expect({"type"}, kCtlNoDaemon, "not a FIFO");
    unlink(PipeOutPath());
    // FIFOs left behind, but nobody reads the input FIFO: found out at once.
    MakeFifos();
    Expect({"raw", "03", "01", "41"}, kCtlNoAnswer, "nobody reads");
    EXPECT_LT(elapsed_ms_, 500);
}

TEST_F(CtlRunTest, SilentControllerTimesOutWithinTheLimit) {
    StartDaemon([](const Bytes&) { return Packets(); });
    Expect({"--timeout", "300", "version"}, kCtlNoAnswer,
           "no controller answered command 0x44 within 300 ms");
    EXPECT_TRUE(elapsed_ms_ >= 290 && elapsed_ms_ < 1500) << elapsed_ms_;
    EXPECT_EQ("", out_);
    // Auto-detection asked on both headers, USB first.
    EXPECT_EQ((Packets{{0x03, 0x01, 0x44}, {0x0A, 0x01, 0x44}}), Received(2));
}

// A serial controller: USB-header packets get no answer, and a stale reply already in the
// output pipe is not taken for the answer. A merged USB reply follows an unrelated report.
TEST_F(CtlRunTest, TextsAndRawRepliesOnBothBuses) {
    StartDaemon([](const Bytes& p) {
        if (p == Bytes{0x0A, 0x01, 0x44}) return Packets{{0x0A, 0x05, 0x44, 'S', '2', '.', '0'}};
        if (p == Bytes{0x0A, 0x01, 0x46}) return Packets{{0x0A, 0x04, 0x46, 'F', 'E', 'N'}};
        if (p == Bytes{0x03, 0x01, 0x45})
            return Packets{Padded({0x03, 0x01, 0x41}), {0x03, 0x06, 0x45, 'M', '-', '1', 7, 'Z'}};
        return p[0] == 0x03 && p[2] == 0x41 ? Packets{Padded({0x03, 0x01, 0x41})} : Packets();
    });
    ASSERT_EQ(7, write(dout_.get(), "\x0a\x05\x44OLD!", 7));
    std::string report = "03 01 41";
    for (int i = 3; i < 64; ++i) report += " 00";
    const std::pair<std::vector<const char*>, std::string> runs[] = {
        {{"version"}, "S2.0\n"},
        {{"--serial", "type"}, "FEN\n"},
        {{"--usb", "model"}, "M-1\\x07Z\n"},
        {{"raw", "03:01:41"}, report + "\n"},
    };
    for (const auto& run : runs) {
        EXPECT_EQ(kCtlOk, Run(run.first)) << err_;
        EXPECT_EQ(run.second, out_);
    }
    // Exactly the packets asked for went in, in order: version on both headers.
    EXPECT_EQ((Packets{{0x03, 0x01, 0x44}, {0x0A, 0x01, 0x44}, {0x0A, 0x01, 0x46},
                       {0x03, 0x01, 0x45}, {0x03, 0x01, 0x41}}),
              Received(5));
}

// Points are switched on, printed and switched back whatever ended the loop. First the
// controller answers the switch, sends a touch and a lift in one write and a second touch
// later: --count 4 waits out one time-out for the fourth and fails. Then a 4-byte reply, a
// stray byte and five points in one write, more than one read of the tool takes: the point
// cut between two reads is joined. Last, an interruption before anything came succeeds.
TEST_F(CtlRunTest, PointsAreSwitchedOnPrintedAndSwitchedBack) {
    const Bytes on = {0x0A, 0x02, 0x34, 0x00}, off = {0x0A, 0x02, 0x34, 0x01};
    const auto switches = std::make_shared<int>(0);  // the thread may outlive this body
    StartDaemon([on, switches](const Bytes& p) {
        if (p != on || ++*switches > 2) return Packets();
        Bytes all = {0x0A, 0x02, 0x33, 0x00};
        if (*switches == 1) {
            return Packets{all, Padded({0x0A, 0x83, 0x20, 0x08, 0x40, 0x04}) +
                                    Padded({0x0A, 0x82, 0x20, 0x08, 0x40, 0x04}),
                           Padded({0x0A, 0x83, 0x04, 0x01, 0x08, 0x03})};
        }
        all.push_back(0x55);
        for (uint8_t i = 0; i < 5; ++i) {
            all = all + Padded({0x0A, uint8_t(0x83 - (i == 4)), uint8_t(2 * i), 0x01, 0x10, 0x02});
        }
        return Packets{all};
    });
    Expect({"points", "--count", "4", "--timeout", "200"}, kCtlNoAnswer,
           "no point within 200 ms (3 of 4)");
    EXPECT_EQ("down x=2080 y=1088\nup x=2080 y=1088\ndown x=260 y=776\n", out_);
    EXPECT_LT(elapsed_ms_, 1500);
    EXPECT_EQ(kCtlOk, Run({"points", "--count", "5"})) << err_;
    EXPECT_EQ("down x=256 y=528\ndown x=258 y=528\ndown x=260 y=528\ndown x=262 y=528\n"
              "up x=264 y=528\n", out_);
    volatile int stop = 1;
    EXPECT_EQ(kCtlOk, Run({"points"}, &stop)) << err_;
    EXPECT_EQ((Packets{on, off, on, off, on, off}), Received(6));
}

// The stand-in closes its output end after reading the command: the tool sees the pipe
// close instead of waiting out its time-out.
TEST_F(CtlRunTest, DaemonGoneWhileWaitingIsReported) {
    StartDaemon([this](const Bytes&) {
        dout_.reset();
        return Packets();
    });
    Expect({"--timeout", "5000", "--usb", "version"}, kCtlNoDaemon, "the daemon closed it");
    EXPECT_LT(elapsed_ms_, 2000);
}

}  // namespace
