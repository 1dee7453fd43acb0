// Timestamped record of everything a test program sends, receives or notices.
// One line per entry: "<sec>.<usec> <kind> <text>", with the time taken from
// CLOCK_MONOTONIC so it lines up with evdev traces recorded with that clock.
// Each line is written with one write(2), so a killed process loses nothing.
#pragma once

#include <memory>
#include <string>

#include "core/unique_fd.h"
#include "hex.h"

namespace tvm {

class EventLog {
  public:
    // Opens (truncates) 'path'; "-" means standard error. Null on failure,
    // after printing why to standard error.
    static std::unique_ptr<EventLog> Create(const std::string& path);

    void Write(const std::string& kind, const std::string& text);
    void WriteBytes(const std::string& kind, const Bytes& bytes) { Write(kind, FormatHex(bytes)); }
    // The same with a time taken earlier (microseconds of CLOCK_MONOTONIC).
    void WriteAt(uint64_t us, const std::string& kind, const std::string& text);

  private:
    explicit EventLog(UniqueFd fd) : fd_(std::move(fd)) {}
    UniqueFd fd_;
};

// Microseconds of CLOCK_MONOTONIC.
uint64_t MonotonicUs();

// write(2) of the whole buffer, retried on EINTR and short writes.
// Returns 0 on success, -1 with errno set otherwise.
int WriteAll(int fd, const void* data, size_t size);

}  // namespace tvm
