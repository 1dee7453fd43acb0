// Helpers of the device, tool pipe, manager and serial-scan tests: a controller stand-in on the
// far end of a socketpair or pty, and a receive thread.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/global_settings.h"
#include "core/unique_fd.h"
#include "device/device_object.h"

using Bytes = std::vector<uint8_t>;

// A stop that works takes a millisecond; the bounds and slack leave room for a loaded host.
constexpr int kStopBoundMs = 500;
constexpr int kLoadSlackMs = 1500;

struct TimedReply {
    int delay_ms;
    Bytes bytes;
};

// The controller end of a port: records each packet the daemon writes and sends back what the
// responder returns for it, each reply after its delay.
class FakeController {
  public:
    // seqpacket: one write is one packet (like hidraw); else a stream cut by its length byte.
    explicit FakeController(bool seqpacket);
    explicit FakeController(int controller_fd) : controller_fd_(controller_fd) {}  // a pty master
    ~FakeController() { Stop(); }

    int TakeDaemonFd() { return daemon_fd_.release(); }
    void SetResponder(std::function<std::vector<TimedReply>(const Bytes&)> respond) {
        respond_ = std::move(respond);
    }
    void Start() {
        thread_ = std::thread([this] { Run(); });
    }
    void Stop();
    std::vector<Bytes> Received() const;
    size_t ReceivedCount() const { return Received().size(); }
    bool WaitForPackets(size_t n, int timeout_ms) const;
    void Send(const Bytes& bytes) {
        (void)!write(controller_fd_.get(), bytes.data(), bytes.size());
    }

  private:
    void Run();
    void Handle(const Bytes& packet);

    bool seqpacket_ = false;
    UniqueFd controller_fd_, daemon_fd_;
    std::function<std::vector<TimedReply>(const Bytes&)> respond_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<Bytes> received_;
    Bytes stream_;
};

// A bare device record on the daemon end of a controller stand-in.
void AttachPort(CDeviceObject* device, FakeController* controller, uint8_t interface);
// Runs DevRxLoop on a thread as Create() does (SIGUSR1 blocked, handler set), for StopReadThread.
void StartRxLoopThread(CDeviceObject* device);
GlobalSettings DevTestSettings();  // every flag cleared
// Ignores SIGUSR2 in a process group of its own: an empty port read signals the whole group.
void DevIgnoreSigusr2();
