// Helpers of the core, log and settings tests: a fresh temporary data directory, the
// platform log observed through its test sink, and functions run in a forked child with
// their standard output captured.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "core/unique_fd.h"

namespace coretest {

// A fresh directory under /tmp, removed with everything in it when destroyed. Points the
// daemon's data directory at it (SetDataDirForTest) for its lifetime.
class TempDataDir {
  public:
    TempDataDir();
    ~TempDataDir();
    TempDataDir(const TempDataDir&) = delete;
    TempDataDir& operator=(const TempDataDir&) = delete;

    const std::string& path() const { return path_; }
    std::string File(const char* name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

struct LogLine {
    bool is_error;
    std::string message;
};

// Routes the platform log into lines(), with the given categories and output selector;
// restores both when destroyed. Standard output is left alone (the test framework reports
// failures there): run the code under test through Quiet() to drop the log's time prefixes.
class LogCapture {
  public:
    explicit LogCapture(uint32_t categories = 0xFFFFFFFFu, uint8_t position = 1);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<LogLine>& lines() const;
    // Number of captured messages equal to text.
    int Count(const std::string& text) const;
    // Number of captured messages containing text.
    int CountContaining(const std::string& text) const;
    void Clear();

  private:
    uint32_t saved_bits_;
    uint8_t saved_position_;
};

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

// Writes bytes to path (created or truncated). Returns true on success.
bool WriteFile(const std::string& path, const std::string& bytes);
// Whole file content; empty when it cannot be read.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

// Starts a copy of /bin/sleep named name (so its /proc status name is name) for the
// given seconds, in a directory of dir. Returns its pid, or -1.
pid_t StartNamedSleeper(const std::string& dir, const char* name, int seconds);
// SIGKILL and reap a child started by this process; no-op for pid <= 0.
void KillAndReap(pid_t pid);

}  // namespace coretest
