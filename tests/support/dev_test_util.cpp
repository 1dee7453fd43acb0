#include "support/dev_test_util.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/test_util.h"

namespace {

void* RxLoopThread(void* arg) {
    DevRxLoop(static_cast<CDeviceObject*>(arg));
    static_cast<CDeviceObject*>(arg)->bThreadRunning = 0;
    return nullptr;
}

}  // namespace

FakeController::FakeController(bool seqpacket) : seqpacket_(seqpacket) {
    int fds[2] = {-1, -1};
    socketpair(AF_UNIX, (seqpacket ? SOCK_SEQPACKET : SOCK_STREAM) | SOCK_CLOEXEC, 0, fds);
    daemon_fd_ = fds[0];
    controller_fd_ = fds[1];
    fcntl(daemon_fd_, F_SETFL, fcntl(daemon_fd_, F_GETFL) | O_NONBLOCK);
}

FakeController::FakeController(int controller_fd)
    : seqpacket_(false), controller_fd_(controller_fd) {}

FakeController::~FakeController() {
    Stop();
    if (controller_fd_ >= 0) close(controller_fd_);
    if (daemon_fd_ >= 0) close(daemon_fd_);
}

int FakeController::TakeDaemonFd() {
    int fd = daemon_fd_;
    daemon_fd_ = -1;
    return fd;
}

void FakeController::SetResponder(std::function<std::vector<TimedReply>(const Bytes&)> respond) {
    respond_ = std::move(respond);
}

void FakeController::Start() {
    thread_ = std::thread([this] { Run(); });
}

void FakeController::Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

std::vector<Bytes> FakeController::Received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

size_t FakeController::ReceivedCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_.size();
}

bool FakeController::WaitForPackets(size_t n, int timeout_ms) const {
    return testutil::WaitUntil([&] { return ReceivedCount() >= n; }, timeout_ms);
}

void FakeController::Send(const Bytes& bytes) {
    ssize_t ret = write(controller_fd_, bytes.data(), bytes.size());
    (void)ret;
}

void FakeController::Handle(const Bytes& packet) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(packet);
    }
    if (!respond_) return;
    for (const TimedReply& reply : respond_(packet)) {
        int64_t end = testutil::NowMs() + reply.delay_ms;
        while (!stop_ && testutil::NowMs() < end) usleep(1000);
        if (stop_) return;
        Send(reply.bytes);
    }
}

void FakeController::Run() {
    uint8_t buffer[256];
    while (!stop_) {
        struct pollfd pfd = {controller_fd_, POLLIN, 0};
        if (poll(&pfd, 1, 10) <= 0) continue;
        ssize_t n = read(controller_fd_, buffer, sizeof(buffer));
        if (n <= 0) {
            usleep(1000);
            continue;
        }
        if (seqpacket_) {
            Handle(Bytes(buffer, buffer + n));
            continue;
        }
        stream_.insert(stream_.end(), buffer, buffer + n);
        // Stream framing: header, length, then length bytes.
        while (stream_.size() >= 2 && stream_.size() >= static_cast<size_t>(stream_[1]) + 2) {
            size_t len = static_cast<size_t>(stream_[1]) + 2;
            Bytes packet(stream_.begin(), stream_.begin() + static_cast<long>(len));
            stream_.erase(stream_.begin(), stream_.begin() + static_cast<long>(len));
            Handle(packet);
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
    sigset_t usr1;
    sigset_t old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    device->bThreadRunning = 1;
    if (pthread_create(&device->ThreadId, nullptr, RxLoopThread, device) == 0) {
        device->bThreadCreated = true;
    } else {
        device->bThreadRunning = 0;
    }
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
}

GlobalSettings DevTestSettings() {
    GlobalSettings settings;
    memset(&settings, 0, sizeof(settings));
    settings.NewDevIAPType = IAP_FW;
    settings.MaxDeviceNums = 1;
    return settings;
}

void DevIgnoreSigusr2() {
    signal(SIGUSR2, SIG_IGN);
    // The unplug path signals the whole process group: keep it to this test process.
    setpgid(0, 0);
}
