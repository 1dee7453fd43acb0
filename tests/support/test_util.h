// Helpers of every test folder: a temporary data directory, the captured platform log, whole
// files, ptys, pipes and functions run in a forked child.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "core/unique_fd.h"
#include "log/debug_log.h"

namespace testutil {

// A fresh directory under /tmp that is the data directory while the object lives, then removed.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_, saved_data_dir_;
};

struct LogLine {
    bool is_error;
    std::string message;
};

// Captures the platform log (by default all but the per-event trace) until destroyed. Position 1
// also writes a time prefix to standard output (see Quiet()); 3 writes and captures nothing.
class LogCapture {
  public:
    explicit LogCapture(uint32_t categories = ~uint32_t{LOG_EVENT}, uint8_t position = 1);
    ~LogCapture();
    std::vector<LogLine> lines() const;
    int Count(const std::string& text) const;  // messages containing text
    bool Contains(const std::string& text) const { return Count(text) > 0; }
    std::string Text() const;  // every message, one per line
    void Clear();

  private:
    uint32_t saved_bits_;
    uint8_t saved_position_;
};

int64_t NowMs();  // the monotonic clock
// Polls done every 2 ms until it holds or timeout_ms have passed; returns its last answer.
bool WaitUntil(const std::function<bool()>& done, int64_t timeout_ms);

// A pty: the master, and the slave opened by path (non-blocking, not a controlling terminal).
struct Pty {
    UniqueFd master;
    std::string slave_path;
    UniqueFd slave;
};
bool OpenPty(Pty* pty);  // false when none can be made

// Whether open_path(<a fresh pty's path>) in a child just after setsid() makes that terminal the
// child's controlling one (whoever hangs it up could then SIGHUP the daemon).
enum class TtyResult { kSkipped, kAcquired, kNotAcquired };
TtyResult OpenOfTerminalAcquiresIt(const std::function<int(const char*)>& open_path);

bool MakePipe(UniqueFd* read_end, UniqueFd* write_end);  // close-on-exec; false on failure
void Quiet(const std::function<void()>& body);           // body with standard output on /dev/null

struct ChildResult {
    bool exited;      // false: ended by a signal
    int status;       // exit status, or the signal number
    std::string out;  // everything written to standard output
};
constexpr int kReturned = 42;  // exit status of a child whose body returned
ChildResult RunInChild(const std::function<void()>& body);

std::vector<uint8_t> Hex(const std::string& text);  // "0a 0441" -> {0x0A, 0x04, 0x41}
bool WriteFile(const std::string& path, const std::string& bytes);  // true on success
std::string ReadFile(const std::string& path);                      // empty when unreadable
bool FileExists(const std::string& path);

}  // namespace testutil
