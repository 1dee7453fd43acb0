#include "support/test_util.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "core/paths.h"

namespace testutil {

namespace {

std::mutex& CapturedMutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<LogLine>& Captured() {
    static std::vector<LogLine> lines;
    return lines;
}

void CaptureSink(bool is_error, const char* message) {
    std::lock_guard<std::mutex> lock(CapturedMutex());
    Captured().push_back(LogLine{is_error, message});
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

TempDir::TempDir() : saved_data_dir_(DataDir()) {
    char pattern[] = "/tmp/tavrine_test_XXXXXX";
    const char* made = mkdtemp(pattern);
    path_ = made ? made : "";
    SetDataDirForTest(path_.c_str());
}

TempDir::~TempDir() {
    if (!path_.empty()) nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    SetDataDirForTest(saved_data_dir_.c_str());
}

LogCapture::LogCapture(uint32_t categories, uint8_t position)
    : saved_bits_(DebugEnableBits), saved_position_(ShowDebugPosition) {
    Clear();
    SetPlatformLogSinkForTest(CaptureSink);
    DebugEnableBits = categories;
    ShowDebugPosition = position;
}

LogCapture::~LogCapture() {
    SetPlatformLogSinkForTest(nullptr);
    DebugEnableBits = saved_bits_;
    ShowDebugPosition = saved_position_;
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(CapturedMutex());
    return Captured();
}

int LogCapture::CountExact(const std::string& text) const {
    int n = 0;
    for (const LogLine& line : lines()) n += line.message == text;
    return n;
}

int LogCapture::Count(const std::string& text) const {
    int n = 0;
    for (const LogLine& line : lines()) n += line.message.find(text) != std::string::npos;
    return n;
}

std::string LogCapture::Text() const {
    std::string text;
    for (const LogLine& line : lines()) text += line.message + "\n";
    return text;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(CapturedMutex());
    Captured().clear();
}

int64_t NowMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool WaitUntil(const std::function<bool()>& done, int64_t timeout_ms) {
    const int64_t deadline = NowMs() + timeout_ms;
    while (!done()) {
        if (NowMs() >= deadline) return false;
        usleep(2000);
    }
    return true;
}

bool OpenPty(Pty* pty) {
    pty->master.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!pty->master.valid() || grantpt(pty->master.get()) != 0 ||
        unlockpt(pty->master.get()) != 0) {
        return false;
    }
    const char* name = ptsname(pty->master.get());
    if (!name) return false;
    pty->slave_path = name;
    pty->slave.reset(OpenCloexec(name, O_RDWR | O_NOCTTY | O_NONBLOCK));
    return pty->slave.valid();
}

TtyResult OpenOfTerminalAcquiresIt(const std::function<int(const char*)>& open_path) {
    Pty pty;
    if (!OpenPty(&pty)) return TtyResult::kSkipped;
    pty.slave.reset();  // only the child opens the terminal
    const std::string& slave = pty.slave_path;
    const pid_t child = fork();
    if (child < 0) return TtyResult::kSkipped;
    if (child == 0) {
        if (setsid() < 0) _exit(3);
        UniqueFd opened(open_path(slave.c_str()));
        UniqueFd tty(OpenCloexec("/dev/tty", O_RDWR | O_NOCTTY));
        _exit(tty.valid() ? 1 : 0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) > 1) {
        return TtyResult::kSkipped;
    }
    return WEXITSTATUS(status) == 1 ? TtyResult::kAcquired : TtyResult::kNotAcquired;
}

bool MakePipe(UniqueFd* read_end, UniqueFd* write_end) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    read_end->reset(fds[0]);
    write_end->reset(fds[1]);
    return true;
}

void Quiet(const std::function<void()>& body) {
    fflush(stdout);
    UniqueFd saved(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
    {
        UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
        dup2(null_fd.get(), STDOUT_FILENO);
    }
    body();
    fflush(stdout);
    dup2(saved.get(), STDOUT_FILENO);
}

ChildResult RunInChild(const std::function<void()>& body) {
    ChildResult result{false, -1, ""};
    UniqueFd read_end;
    UniqueFd write_end;
    if (!MakePipe(&read_end, &write_end)) return result;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return result;
    if (pid == 0) {
        dup2(write_end.get(), STDOUT_FILENO);
        body();
        fflush(stdout);
        _exit(kReturned);
    }
    write_end.reset();
    char buffer[4096];
    ssize_t n;
    while ((n = ReadRetry(read_end.get(), buffer, sizeof(buffer))) > 0) {
        result.out.append(buffer, static_cast<size_t>(n));
    }
    read_end.reset();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    return result;
}

std::vector<uint8_t> Hex(const std::string& text) {
    std::string digits;
    for (char c : text) {
        if (!isspace(static_cast<unsigned char>(c))) digits += c;
    }
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return out;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    FILE* f = fopen(path.c_str(), "wbe");
    if (!f) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

std::string ReadFile(const std::string& path) {
    std::string content;
    FILE* f = fopen(path.c_str(), "rbe");
    if (!f) return content;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), f)) > 0) content.append(buffer, n);
    fclose(f);
    return content;
}

bool FileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

}  // namespace testutil
