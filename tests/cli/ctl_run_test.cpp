// tavrinectl against a stand-in daemon: real FIFOs in a temporary data directory, a PID
// file, and a thread that reads the input FIFO and answers into the output FIFO the way
// the daemon's relay does (one write per reply).
#include "ctl_run.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/paths.h"
#include "ctl_session.h"
#include "support/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Padded(Bytes b, size_t size) {
    b.resize(size, 0);
    return b;
}

class CtlRunTest : public ::testing::Test {
protected:
    void TearDown() override { StopDaemon(); }

    // The PID file as the daemon writes it: "%d " padded with NUL to 10 bytes.
    void WritePid(pid_t pid) {
        std::string text = std::to_string(pid) + " ";
        text.resize(10, '\0');
        ASSERT_TRUE(testutil::WriteFile(PidFilePath(), text));
    }
    void MakeFifos() {
        ASSERT_EQ(mkfifo(PipeInPath(), 0622), 0);
        ASSERT_EQ(mkfifo(PipeOutPath(), 0644), 0);
    }

    // Opens both FIFOs read-write as the daemon does and answers every packet read from
    // the input FIFO with what `answer` returns (each element one write).
    void StartDaemon(std::function<std::vector<Bytes>(const Bytes&)> answer) {
        WritePid(getpid());
        MakeFifos();
        in_fd_ = open(PipeInPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        out_fd_ = open(PipeOutPath(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(in_fd_, 0);
        ASSERT_GE(out_fd_, 0);
        running_ = true;
        thread_ = std::thread([this, answer] {
            while (running_) {
                struct pollfd p = {in_fd_, POLLIN, 0};
                if (poll(&p, 1, 20) <= 0) continue;
                uint8_t buf[65];
                ssize_t n = read(in_fd_, buf, sizeof(buf));
                if (n <= 0) continue;
                Bytes packet(buf, buf + n);
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    received_.push_back(packet);
                }
                for (const Bytes& reply : answer(packet)) {
                    ASSERT_EQ(write(out_fd_, reply.data(), reply.size()),
                              static_cast<ssize_t>(reply.size()));
                }
            }
        });
    }
    void StopDaemon() {
        running_ = false;
        if (thread_.joinable()) thread_.join();
        if (in_fd_ >= 0) close(in_fd_);
        if (out_fd_ >= 0) close(out_fd_);
        in_fd_ = out_fd_ = -1;
    }
    // The packets read so far, once at least `least` of them came (or after one second:
    // the tool returns right after its last write, before the stand-in has read it).
    std::vector<Bytes> Received(size_t least = 0) {
        for (int i = 0; i < 200; ++i) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (received_.size() >= least) break;
            }
            usleep(5000);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }

    // Runs the tool with the command line words; output and errors are captured.
    int Run(const std::vector<const char*>& words, volatile const int* stop = nullptr) {
        std::vector<const char*> argv = {"tavrinectl"};
        argv.insert(argv.end(), words.begin(), words.end());
        CtlOptions options;
        char err[256];
        if (ParseCtlArgs(static_cast<int>(argv.size()), argv.data(), &options, err, sizeof(err)) != 0) {
            ADD_FAILURE() << err;
            return -1;
        }
        char* out_text = nullptr;
        char* err_text = nullptr;
        size_t out_size = 0, err_size = 0;
        FILE* out = open_memstream(&out_text, &out_size);
        FILE* errs = open_memstream(&err_text, &err_size);
        long long start = NowMs();
        int status = RunCtl(options, out, errs, stop);
        elapsed_ms_ = NowMs() - start;
        fclose(out);
        fclose(errs);
        out_ = out_text;
        err_ = err_text;
        free(out_text);
        free(err_text);
        return status;
    }

    testutil::TempDir dir_;
    int in_fd_ = -1, out_fd_ = -1;
    std::atomic<bool> running_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::vector<Bytes> received_;
    std::string out_, err_;
    long long elapsed_ms_ = 0;
};

TEST_F(CtlRunTest, NoDaemonHasItsOwnStatusAndReason) {
    // No PID file.
    EXPECT_EQ(Run({"version"}), kCtlNoDaemon);
    EXPECT_NE(err_.find("no daemon running"), std::string::npos) << err_;
    // A PID file whose process is gone.
    pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    WritePid(child);
    EXPECT_EQ(Run({"model"}), kCtlNoDaemon);
    EXPECT_NE(err_.find("is gone"), std::string::npos) << err_;
    // A PID file without a number.
    ASSERT_TRUE(testutil::WriteFile(PidFilePath(), std::string("\0\0\0\0", 4)));
    EXPECT_EQ(Run({"model"}), kCtlNoDaemon);
    EXPECT_NE(err_.find("holds no process id"), std::string::npos) << err_;
    // A living process but no pipes.
    WritePid(getpid());
    EXPECT_EQ(Run({"type"}), kCtlNoDaemon);
    EXPECT_NE(err_.find("MorvelPipe_out is missing"), std::string::npos) << err_;
    // A plain file where a pipe should be.
    ASSERT_TRUE(testutil::WriteFile(PipeOutPath(), "x"));
    EXPECT_EQ(Run({"type"}), kCtlNoDaemon);
    EXPECT_NE(err_.find("not a FIFO"), std::string::npos) << err_;
    unlink(PipeOutPath());
    // FIFOs left behind, but nobody reads the input FIFO: no controller is set up.
    MakeFifos();
    EXPECT_EQ(Run({"raw", "03", "01", "41"}), kCtlNoAnswer);
    EXPECT_NE(err_.find("nobody reads"), std::string::npos) << err_;
    EXPECT_LT(elapsed_ms_, 500);  // found out at once, no waiting
}

TEST_F(CtlRunTest, SilentControllerTimesOutWithinTheLimit) {
    StartDaemon([](const Bytes&) { return std::vector<Bytes>(); });
    EXPECT_EQ(Run({"--timeout", "300", "version"}), kCtlNoAnswer);
    EXPECT_NE(err_.find("no controller answered command 0x44 within 300 ms"), std::string::npos)
        << err_;
    EXPECT_GE(elapsed_ms_, 290);
    EXPECT_LT(elapsed_ms_, 1500);
    EXPECT_EQ(out_, "");
    // Auto-detection asked on both headers, USB first.
    EXPECT_EQ(Received(2), (std::vector<Bytes>{{0x03, 0x01, 0x44}, {0x0A, 0x01, 0x44}}));
}

TEST_F(CtlRunTest, TextsAndRawRepliesOnBothBuses) {
    // A serial controller: USB-header packets get no answer. A stale reply already in
    // the output pipe must not be taken for the answer.
    StartDaemon([](const Bytes& p) {
        if (p == Bytes{0x0A, 0x01, 0x44}) return std::vector<Bytes>{{0x0A, 0x05, 0x44, 'S', '2', '.', '0'}};
        if (p == Bytes{0x0A, 0x01, 0x46}) return std::vector<Bytes>{{0x0A, 0x04, 0x46, 'F', 'E', 'N'}};
        if (p == Bytes{0x03, 0x01, 0x45})  // merged USB reply after an unrelated report
            return std::vector<Bytes>{Padded({0x03, 0x01, 0x41}, 64),
                                      {0x03, 0x06, 0x45, 'M', '-', '1', 0x07, 'Z'}};
        if (p[0] == 0x03 && p[2] == 0x41) return std::vector<Bytes>{Padded({0x03, 0x01, 0x41}, 64)};
        return std::vector<Bytes>();
    });
    const uint8_t stale[] = {0x0A, 0x05, 0x44, 'O', 'L', 'D', '!'};
    ASSERT_EQ(write(out_fd_, stale, sizeof(stale)), static_cast<ssize_t>(sizeof(stale)));

    EXPECT_EQ(Run({"version"}), kCtlOk) << err_;
    EXPECT_EQ(out_, "S2.0\n");
    EXPECT_EQ(Run({"--serial", "type"}), kCtlOk) << err_;
    EXPECT_EQ(out_, "FEN\n");
    EXPECT_EQ(Run({"--usb", "model"}), kCtlOk) << err_;
    EXPECT_EQ(out_, "M-1\\x07Z\n");
    EXPECT_EQ(Run({"raw", "03:01:41"}), kCtlOk) << err_;
    std::string report = "03 01 41";
    for (int i = 3; i < 64; ++i) report += " 00";
    EXPECT_EQ(out_, report + "\n");
    // Exactly the packets asked for went in, in order: the auto-detected version asked on
    // both headers, the others on one.
    EXPECT_EQ(Received(5), (std::vector<Bytes>{{0x03, 0x01, 0x44},
                                              {0x0A, 0x01, 0x44},
                                              {0x0A, 0x01, 0x46},
                                              {0x03, 0x01, 0x45},
                                              {0x03, 0x01, 0x41}}));
}

TEST_F(CtlRunTest, PointsAreSwitchedOnPrintedAndSwitchedBack) {
    // On the switch the controller answers the switch command and sends a touch and a
    // lift (in one write) and a second touch later.
    StartDaemon([](const Bytes& p) {
        if (p == Bytes{0x0A, 0x02, 0x34, 0x00}) {
            Bytes two = Padded({0x0A, 0x83, 0x20, 0x08, 0x40, 0x04}, 64);
            Bytes lift = Padded({0x0A, 0x82, 0x20, 0x08, 0x40, 0x04}, 64);
            two.insert(two.end(), lift.begin(), lift.end());
            return std::vector<Bytes>{{0x0A, 0x02, 0x33, 0x00}, two,
                                      Padded({0x0A, 0x83, 0x04, 0x01, 0x08, 0x03}, 64)};
        }
        return std::vector<Bytes>();
    });
    // The switch back follows whatever ended the loop; with no more points --count waits
    // one time-out per point and fails with the no-answer status.
    EXPECT_EQ(Run({"points", "--count", "4", "--timeout", "200"}), kCtlNoAnswer);
    EXPECT_EQ(out_, "down x=2080 y=1088\nup x=2080 y=1088\ndown x=260 y=776\n");
    EXPECT_NE(err_.find("no point within 200 ms (3 of 4)"), std::string::npos) << err_;
    EXPECT_LT(elapsed_ms_, 1500);
    // Interrupted before anything came: switched on and back, status 0.
    volatile int stop = 1;
    EXPECT_EQ(Run({"points"}, &stop), kCtlOk) << err_;
    const Bytes on = {0x0A, 0x02, 0x34, 0x00}, off = {0x0A, 0x02, 0x34, 0x01};
    EXPECT_EQ(Received(4), (std::vector<Bytes>{on, off, on, off}));
}

TEST_F(CtlRunTest, PointsSplitAcrossReadsAreJoined) {
    // A 4-byte reply, a stray byte and five points in one write: 325 bytes, more than
    // one read of the tool takes, so a point is cut between two reads.
    StartDaemon([](const Bytes& p) {
        if (p != Bytes{0x0A, 0x02, 0x34, 0x00}) return std::vector<Bytes>();
        Bytes all = {0x0A, 0x02, 0x33, 0x00, 0x55};
        for (int i = 0; i < 5; ++i) {
            Bytes point = Padded({0x0A, static_cast<uint8_t>(0x83 - (i == 4)),
                                  static_cast<uint8_t>(2 * i), 0x01, 0x10, 0x02}, 64);
            all.insert(all.end(), point.begin(), point.end());
        }
        return std::vector<Bytes>{all};
    });
    EXPECT_EQ(Run({"points", "--count", "5"}), kCtlOk) << err_;
    EXPECT_EQ(out_,
              "down x=256 y=528\ndown x=258 y=528\ndown x=260 y=528\ndown x=262 y=528\n"
              "up x=264 y=528\n");
}

TEST_F(CtlRunTest, DaemonGoneWhileWaitingIsReported) {
    // The stand-in closes its ends after reading the command: the tool sees the pipe
    // close instead of waiting out its time-out.
    StartDaemon([this](const Bytes&) {
        close(out_fd_);
        out_fd_ = -1;
        return std::vector<Bytes>();
    });
    EXPECT_EQ(Run({"--timeout", "5000", "--usb", "version"}), kCtlNoDaemon);
    EXPECT_NE(err_.find("the daemon closed it"), std::string::npos) << err_;
    EXPECT_LT(elapsed_ms_, 2000);
}

}  // namespace
