// Helpers of the device, tool pipe, manager and serial-scan tests: a controller stand-in on
// the far end of a socketpair or pty, and a receive thread.
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
#include "device/device_object.h"

using Bytes = std::vector<uint8_t>;

// Time bounds of the tests. A stop that works takes about a millisecond, one that does
// not takes seconds or never ends; the bounds leave room for a loaded host (these tests
// run beside others on two CPUs). Durations get the same slack above their nominal value.
constexpr int kStopBoundMs = 500;
constexpr int kLoadSlackMs = 1500;

// The controller side of a port. Every packet (one read) the daemon writes is recorded;
// respond() returns the packets to send back, each after its delay.
struct TimedReply {
    int delay_ms;
    Bytes bytes;
};

class FakeController {
  public:
    // seqpacket: one write is one packet (like a hidraw node); otherwise a byte stream
    // whose commands are cut by their length byte (header, length, payload).
    explicit FakeController(bool seqpacket);
    // Uses an existing descriptor (a pty master) as the controller side; stream framing.
    explicit FakeController(int controller_fd);
    ~FakeController();

    int TakeDaemonFd();  // the caller (a UniqueFd) now owns it
    void SetResponder(std::function<std::vector<TimedReply>(const Bytes&)> respond);
    void Start();
    void Stop();
    std::vector<Bytes> Received() const;
    size_t ReceivedCount() const;
    bool WaitForPackets(size_t n, int timeout_ms) const;
    // Writes bytes to the daemon side right away.
    void Send(const Bytes& bytes);

  private:
    void Run();
    void Handle(const Bytes& packet);

    bool seqpacket_;
    int controller_fd_ = -1;
    int daemon_fd_ = -1;
    std::function<std::vector<TimedReply>(const Bytes&)> respond_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<Bytes> received_;
    Bytes stream_;
};

// A bare device record on the daemon end of a controller stand-in.
void AttachPort(CDeviceObject* device, FakeController* controller, uint8_t interface);

// Starts DevRxLoop on a real thread the way Create() does (SIGUSR1 blocked, handler
// installed) and records it in the device so that StopReadThread can stop it.
void StartRxLoopThread(CDeviceObject* device);

// Settings with every flag cleared.
GlobalSettings DevTestSettings();

// Ignores SIGUSR2 for the whole test process and puts it in a process group of its own:
// the reception step sends SIGUSR2 to the process group when a port reads empty.
void DevIgnoreSigusr2();
