// A pty whose master side plays a serial controller for the discovery tests: it reads the
// commands written to the slave, reads the slave's line speed back through the master
// (tcgetattr), and answers the loop-back or the IAP-type query only at chosen speeds.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/test_util.h"

namespace disc {

using Bytes = std::vector<uint8_t>;

const Bytes kBootLoaderReply = {0x0A, 0x04, 0x39, 0x01, 0x00, 0x00};
const Bytes kAppIAPReply = {0x0A, 0x04, 0x39, 0x00, 0x00, 0x00};
const Bytes kLoopbackReply = {0x0A, 0x01, 0x41};

// The master side of a pty acting as a controller. It reads the commands the probe writes
// to the slave and reads the slave's line speed back (tcgetattr on the master).
class PtyController {
  public:
    speed_t loopback_speed = 0;  // answers the loop-back only at this speed (0: never)
    Bytes loopback_reply = kLoopbackReply;
    speed_t iap_speed = 0;  // answers the IAP-type query only at this speed
    Bytes iap_reply = kBootLoaderReply;

    PtyController() {
        // The slave held open keeps the line up between the probe's opens.
        EXPECT_TRUE(testutil::OpenPty(&pty_));
        struct termios line;
        EXPECT_EQ(0, tcgetattr(pty_.slave.get(), &line));
        cfmakeraw(&line);
        cfsetispeed(&line, B38400);
        cfsetospeed(&line, B38400);
        EXPECT_EQ(0, tcsetattr(pty_.slave.get(), TCSANOW, &line));
    }
    ~PtyController() { Stop(); }

    void Start() {
        thread_ = std::thread([this] { Serve(); });
    }
    void Stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    const std::string& slave_path() const { return pty_.slave_path; }
    struct termios SlaveLine() const {
        struct termios line;
        memset(&line, 0, sizeof(line));
        EXPECT_EQ(0, tcgetattr(pty_.slave.get(), &line));
        return line;
    }
    // (command byte, speed) of every command seen, in order.
    std::vector<std::pair<uint8_t, speed_t>> Seen() {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

  private:
    void Serve() {
        Bytes pending;
        while (!stop_) {
            struct pollfd pfd = {pty_.master.get(), POLLIN, 0};
            if (poll(&pfd, 1, 2) <= 0 || !(pfd.revents & POLLIN)) continue;
            uint8_t buf[256];
            ssize_t n = read(pty_.master.get(), buf, sizeof(buf));
            if (n <= 0) continue;
            pending.insert(pending.end(), buf, buf + n);
            ParseCommands(&pending);
        }
    }
    void ParseCommands(Bytes* pending) {
        for (;;) {
            while (!pending->empty() && (*pending)[0] != 0x0A) pending->erase(pending->begin());
            if (pending->size() < 2) return;
            size_t total = (*pending)[1] + 2u;
            if (pending->size() < total) return;
            uint8_t cmd = (*pending)[2];
            pending->erase(pending->begin(), pending->begin() + total);
            struct termios line;
            tcgetattr(pty_.master.get(), &line);
            speed_t speed = cfgetospeed(&line);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                seen_.push_back({cmd, speed});
            }
            const Bytes* answer = nullptr;
            if (cmd == 0x41 && speed == loopback_speed) answer = &loopback_reply;
            if (cmd == 0x39 && speed == iap_speed) answer = &iap_reply;
            if (answer) (void)write(pty_.master.get(), answer->data(), answer->size());
        }
    }

    testutil::Pty pty_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<std::pair<uint8_t, speed_t>> seen_;
};

}  // namespace disc
