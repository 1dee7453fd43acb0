// Helpers shared by every test folder: a temporary data directory, the platform log
// observed through its test sink, files read and written whole, ptys, and functions run in
// a forked child.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "core/unique_fd.h"
#include "log/debug_log.h"

namespace testutil {

// A fresh directory under /tmp that is the daemon's data directory (SetDataDirForTest)
// while the object lives; then removed with everything in it, and the data directory
// before it restored.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
    std::string saved_data_dir_;
};

struct LogLine {
    bool is_error;
    std::string message;
};

// Every category but the per-event trace, whose lines would swamp a capture.
constexpr uint32_t kAllButEvents = 0xFFFFFFFFu & ~static_cast<uint32_t>(LOG_EVENT);

// Routes the platform log into lines() with the given categories and output selector, and
// restores both when destroyed. Thread-safe: the receive threads log while tests read.
// Position 1 also writes the time prefix to standard output: run the code under test
// through Quiet() to drop it. Position 3 writes nothing and so captures nothing.
class LogCapture {
  public:
    explicit LogCapture(uint32_t categories = kAllButEvents, uint8_t position = 1);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Number of captured messages equal to text.
    int CountExact(const std::string& text) const;
    // Number of captured messages containing text.
    int Count(const std::string& text) const;
    bool Contains(const std::string& text) const { return Count(text) > 0; }
    // Every captured message, one per line (for a failure message).
    std::string Text() const;
    void Clear();

  private:
    uint32_t saved_bits_;
    uint8_t saved_position_;
};

// Milliseconds on the monotonic clock.
int64_t NowMs();
// Polls done every few milliseconds until it holds or timeout_ms have passed; its last
// answer.
bool WaitUntil(const std::function<bool()>& done, int64_t timeout_ms);

// A fresh pseudo-terminal: the master, and the slave opened by path (non-blocking, never
// as a controlling terminal).
struct Pty {
    UniqueFd master;
    std::string slave_path;
    UniqueFd slave;
};
// False when none can be made.
bool OpenPty(Pty* pty);

// Whether opening a terminal where the daemon expects one of its own files makes it the
// opener's controlling terminal (a daemon that acquires one can be sent SIGHUP by whoever
// hangs the terminal up). Makes a fresh pty, then in a child that has just called setsid()
// runs open_path with the terminal's path (open_path returns a descriptor or -1, which the
// child closes). kSkipped when no pseudo-terminal can be made.
enum class TtyResult { kSkipped, kAcquired, kNotAcquired };
TtyResult OpenOfTerminalAcquiresIt(const std::function<int(const char*)>& open_path);

// A close-on-exec pipe; false when it could not be made.
bool MakePipe(UniqueFd* read_end, UniqueFd* write_end);

// Runs body with file descriptor 1 on /dev/null.
void Quiet(const std::function<void()>& body);

struct ChildResult {
    bool exited;      // ended by exit/_exit (false: killed by a signal)
    int status;       // exit status, or the signal number when !exited
    std::string out;  // everything written to standard output
};

// Runs body in a forked child with standard output on a pipe. When body returns, the
// child ends with status kReturned.
constexpr int kReturned = 42;
ChildResult RunInChild(const std::function<void()>& body);

// "0a 0441" -> {0x0A, 0x04, 0x41}: pairs of hex digits, white space anywhere skipped.
std::vector<uint8_t> Hex(const std::string& text);

// Writes bytes to path (created or truncated). Returns true on success.
bool WriteFile(const std::string& path, const std::string& bytes);
// Whole file content; empty when it cannot be read.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

}  // namespace testutil
