#include "support/test_util.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "core/paths.h"
#include "support/dev_test_util.h"

namespace testutil {

static std::mutex captured_mutex;
static std::vector<LogLine> captured;

TempDir::TempDir() : saved_data_dir_(DataDir()) {
    char pattern[] = "/tmp/tavrine_test_XXXXXX";
    path_ = mkdtemp(pattern) ? pattern : "";
    SetDataDirForTest(path_.c_str());
}

TempDir::~TempDir() {
    auto remove_one = [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); };
    if (!path_.empty()) nftw(path_.c_str(), remove_one, 16, FTW_DEPTH | FTW_PHYS);
    SetDataDirForTest(saved_data_dir_.c_str());
}

LogCapture::LogCapture(uint32_t categories, uint8_t position)
    : saved_bits_(DebugEnableBits), saved_position_(ShowDebugPosition) {
    Clear();
    SetPlatformLogSinkForTest([](bool is_error, const char* message) {
        std::lock_guard<std::mutex> lock(captured_mutex);
        captured.push_back(LogLine{is_error, message});
    });
    DebugEnableBits = categories;
    ShowDebugPosition = position;
}

LogCapture::~LogCapture() {
    SetPlatformLogSinkForTest(nullptr);
    DebugEnableBits = saved_bits_;
    ShowDebugPosition = saved_position_;
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(captured_mutex);
    return captured;
}

int LogCapture::Count(const std::string& text) const {
    int n = 0;
    for (const LogLine& l : lines()) n += l.message.find(text) != std::string::npos;
    return n;
}

std::string LogCapture::Text() const {
    std::string text;
    for (const LogLine& line : lines()) text += line.message + "\n";
    return text;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(captured_mutex);
    captured.clear();
}

int64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool WaitUntil(const std::function<bool()>& done, int64_t timeout_ms) {
    for (const int64_t deadline = NowMs() + timeout_ms; !done(); usleep(2000))
        if (NowMs() >= deadline) return false;
    return true;
}

bool OpenPty(Pty* pty) {
    pty->master.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    const int m = pty->master.get();
    const char* name = m >= 0 && grantpt(m) == 0 && unlockpt(m) == 0 ? ptsname(m) : nullptr;
    if (!name) return false;
    pty->slave_path = name;
    pty->slave.reset(OpenCloexec(name, O_RDWR | O_NOCTTY | O_NONBLOCK));
    return pty->slave.valid();
}

TtyResult OpenOfTerminalAcquiresIt(const std::function<int(const char*)>& open_path) {
    Pty pty;
    if (!OpenPty(&pty)) return TtyResult::kSkipped;
    pty.slave.reset();  // only the child opens the terminal
    const ChildResult child = RunInChild([&] {
        if (setsid() < 0) _exit(3);
        UniqueFd opened(open_path(pty.slave_path.c_str()));
        _exit(UniqueFd(OpenCloexec("/dev/tty", O_RDWR | O_NOCTTY)).valid() ? 1 : 0);
    });
    if (!child.exited || child.status > 1) return TtyResult::kSkipped;
    return child.status == 1 ? TtyResult::kAcquired : TtyResult::kNotAcquired;
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
    dup2(UniqueFd(OpenCloexec("/dev/null", O_WRONLY)).get(), STDOUT_FILENO);
    body();
    fflush(stdout);
    dup2(saved.get(), STDOUT_FILENO);
}

ChildResult RunInChild(const std::function<void()>& body) {
    ChildResult result{false, -1, ""};
    UniqueFd read_end, write_end;
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = MakePipe(&read_end, &write_end) ? fork() : -1;
    if (pid < 0) return result;
    if (pid == 0) {
        dup2(write_end.get(), STDOUT_FILENO);
        body();
        fflush(stdout);
        _exit(kReturned);
    }
    write_end.reset();
    char buffer[4096];
    for (ssize_t n; (n = ReadRetry(read_end.get(), buffer, sizeof(buffer))) > 0;)
        result.out.append(buffer, n);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    return result;
}

std::vector<uint8_t> Hex(const std::string& text) {
    std::string digits;
    for (char c : text)
        if (!isspace(static_cast<unsigned char>(c))) digits += c;
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    return out;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    FILE* f = fopen(path.c_str(), "wbe");
    if (!f) return false;
    const bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

std::string ReadFile(const std::string& path) {
    std::string content;
    FILE* f = fopen(path.c_str(), "rbe");
    char buffer[4096];
    for (size_t n; f && (n = fread(buffer, 1, sizeof(buffer), f)) > 0;) content.append(buffer, n);
    if (f) fclose(f);
    return content;
}

bool FileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

}  // namespace testutil

FakeController::FakeController(bool seqpacket) : seqpacket_(seqpacket) {
    int fds[2] = {-1, -1};
    socketpair(AF_UNIX, (seqpacket ? SOCK_SEQPACKET : SOCK_STREAM) | SOCK_CLOEXEC, 0, fds);
    daemon_fd_.reset(fds[0]);
    controller_fd_.reset(fds[1]);
    fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
}

void FakeController::Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

std::vector<Bytes> FakeController::Received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

bool FakeController::WaitForPackets(size_t n, int timeout_ms) const {
    return testutil::WaitUntil([&] { return ReceivedCount() >= n; }, timeout_ms);
}

void FakeController::Handle(const Bytes& packet) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(packet);
    }
    if (!respond_) return;
    for (const TimedReply& reply : respond_(packet)) {
        const int64_t end = testutil::NowMs() + reply.delay_ms;
        while (!stop_ && testutil::NowMs() < end) usleep(1000);
        if (stop_) return;
        Send(reply.bytes);
    }
}

void FakeController::Run() {
    uint8_t buffer[256];
    while (!stop_) {
        struct pollfd pfd = {controller_fd_.get(), POLLIN, 0};
        if (poll(&pfd, 1, 10) <= 0) continue;
        const ssize_t n = read(controller_fd_.get(), buffer, sizeof(buffer));
        if (n <= 0) {
            usleep(1000);
        } else if (seqpacket_) {
            Handle(Bytes(buffer, buffer + n));
        } else {  // stream framing: header, length, then length bytes
            stream_.insert(stream_.end(), buffer, buffer + n);
            for (size_t len; stream_.size() >= 2 && stream_.size() >= (len = stream_[1] + 2u);) {
                const Bytes packet(stream_.begin(), stream_.begin() + len);
                stream_.erase(stream_.begin(), stream_.begin() + len);
                Handle(packet);
            }
        }
    }
}

void AttachPort(CDeviceObject* device, FakeController* controller, uint8_t interface) {
    device->DevInterface = interface;
    device->CmdHeader = interface == DEV_USB ? CMD_HEADER_USB : CMD_HEADER_SERIAL;
    device->m_Port_fd.reset(controller->TakeDaemonFd());
}

void StartRxLoopThread(CDeviceObject* device) {
    SetupSigUsr1Handler();
    sigset_t usr1, old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    device->bThreadRunning = 1;
    auto loop = [](void* arg) -> void* {
        DevRxLoop(static_cast<CDeviceObject*>(arg));
        static_cast<CDeviceObject*>(arg)->bThreadRunning = 0;
        return nullptr;
    };
    device->bThreadCreated = pthread_create(&device->ThreadId, nullptr, loop, device) == 0;
    if (!device->bThreadCreated) device->bThreadRunning = 0;
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
}

GlobalSettings DevTestSettings() {
    GlobalSettings settings{};
    settings.NewDevIAPType = IAP_FW;
    settings.MaxDeviceNums = 1;
    return settings;
}

void DevIgnoreSigusr2() {
    signal(SIGUSR2, SIG_IGN);
    setpgid(0, 0);
}
