// RS232 or PS/2 controller played through a pty master. The slave is linked
// at the path the script names (replacing only an old link, never a real
// port), so the host opens it like a real port. The
// line starts in raw mode (a UART does not echo) and the simulator keeps the
// slave open itself, so the host's closes never hang the line up.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sim_port.h"

namespace tvm {

namespace {

constexpr size_t kMaxCommand = 64;
constexpr uint64_t kPartialFlushUs = 100000;
constexpr uint8_t kSerialHeader = 0x0a;

uint32_t BaudOf(speed_t speed) {
    static const struct {
        speed_t code;
        uint32_t baud;
    } kTable[] = {
        {B0, 0},           {B50, 50},         {B75, 75},           {B110, 110},
        {B134, 134},       {B150, 150},       {B200, 200},         {B300, 300},
        {B600, 600},       {B1200, 1200},     {B1800, 1800},       {B2400, 2400},
        {B4800, 4800},     {B9600, 9600},     {B19200, 19200},     {B38400, 38400},
        {B57600, 57600},   {B115200, 115200}, {B230400, 230400},   {B460800, 460800},
        {B500000, 500000}, {B921600, 921600}, {B1000000, 1000000}, {B2000000, 2000000},
    };
    for (const auto& entry : kTable)
        if (entry.code == speed) return entry.baud;
    return 0;
}

class PtyPort final : public SimPort {
  public:
    PtyPort(const Script& script, EventLog* log) : script_(script), log_(log) {}
    ~PtyPort() override { PtyPort::Unplug(); }

    bool Plug() override;
    void Unplug() override;
    bool plugged() const override { return master_.valid(); }
    bool ready() override { return plugged(); }
    int fd() const override { return master_.get(); }
    bool Send(const Bytes& bytes) override;
    bool Service(std::vector<Bytes>* packets) override;
    uint32_t line_speed() override;
    void Tick() override;

  private:
    const char* kind() const { return script_.port == PortKind::kPs2 ? "ps2" : "rs232"; }
    bool Fail(const char* what);
    void SplitPackets(std::vector<Bytes>* packets, bool flush_partial);

    const Script& script_;
    EventLog* log_;
    UniqueFd master_;
    UniqueFd slave_;
    std::string slave_path_;
    Bytes pending_;
    uint64_t last_rx_us_ = 0;
    std::string last_line_;
};

bool PtyPort::Fail(const char* what) {
    log_->Write("error", std::string(what) + ": " + std::strerror(errno));
    Unplug();
    return false;
}

bool PtyPort::Plug() {
    if (plugged()) return true;
    int fd = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return Fail("posix_openpt");
    master_.reset(fd);
    if (grantpt(fd) != 0 || unlockpt(fd) != 0) return Fail("grantpt/unlockpt");
    const char* name = ptsname(fd);
    if (!name) return Fail("ptsname");
    slave_path_ = name;
    int slave = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (slave < 0) return Fail("open pty slave");
    slave_.reset(slave);
    termios tio{};
    if (tcgetattr(fd, &tio) != 0) return Fail("tcgetattr");
    cfmakeraw(&tio);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) return Fail("tcsetattr");
    // An old link (left by an earlier run) is replaced; a real port or file never is.
    struct stat st {};
    if (lstat(script_.link.c_str(), &st) == 0) {
        if (!S_ISLNK(st.st_mode)) {
            errno = EEXIST;
            return Fail(("a file that is not a link is at " + script_.link).c_str());
        }
        if (unlink(script_.link.c_str()) != 0) return Fail("unlink old link");
    }
    if (symlink(name, script_.link.c_str()) != 0) return Fail("symlink");
    last_line_.clear();
    log_->Write("plug", std::string(kind()) + " " + slave_path_ + " linked at " + script_.link);
    return true;
}

void PtyPort::Unplug() {
    if (!plugged()) return;
    char target[128] = {};
    ssize_t n = readlink(script_.link.c_str(), target, sizeof target - 1);
    if (n > 0 && slave_path_ == target) unlink(script_.link.c_str());
    slave_.reset();
    master_.reset();
    pending_.clear();
    log_->Write("unplug", kind());
}

bool PtyPort::Send(const Bytes& bytes) {
    if (!plugged()) {
        log_->WriteBytes("tx-dropped", bytes);
        return false;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(master_.get(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    if (done > 0)
        log_->WriteBytes("tx", Bytes(bytes.begin(), bytes.begin() + static_cast<long>(done)));
    if (done < bytes.size()) {
        log_->WriteBytes("tx-dropped", Bytes(bytes.begin() + static_cast<long>(done), bytes.end()));
        return false;
    }
    return true;
}

// Cuts the received stream into packets: a command packet starts with the
// serial header and carries its length in its second byte; any other byte
// stands alone. A command still incomplete after a pause is passed on as is.
void PtyPort::SplitPackets(std::vector<Bytes>* packets, bool flush_partial) {
    size_t pos = 0;
    while (pos < pending_.size()) {
        size_t size = 1;
        if (pending_[pos] == kSerialHeader) {
            size_t left = pending_.size() - pos;
            size = left >= 2 ? std::min<size_t>(pending_[pos + 1] + 2u, kMaxCommand) : kMaxCommand;
            if (size > left) {
                if (!flush_partial) break;
                size = left;
            }
        }
        packets->emplace_back(pending_.begin() + static_cast<long>(pos),
                              pending_.begin() + static_cast<long>(pos + size));
        pos += size;
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(pos));
}

bool PtyPort::Service(std::vector<Bytes>* packets) {
    uint8_t buf[512];
    while (plugged()) {
        ssize_t n = read(master_.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        if (n <= 0) return Fail("pty read");
        Tick();
        log_->WriteBytes("rx", Bytes(buf, buf + n));
        pending_.insert(pending_.end(), buf, buf + n);
        if (pending_.size() > 4 * kMaxCommand) SplitPackets(packets, true);
        last_rx_us_ = MonotonicUs();
    }
    SplitPackets(packets, MonotonicUs() - last_rx_us_ > kPartialFlushUs);
    return true;
}

uint32_t PtyPort::line_speed() {
    termios tio{};
    if (!plugged() || tcgetattr(master_.get(), &tio) != 0) return 0;
    return BaudOf(cfgetospeed(&tio));
}

void PtyPort::Tick() {
    termios tio{};
    if (!plugged() || tcgetattr(master_.get(), &tio) != 0) return;
    static const char kBits[] = "5678";
    char parity = !(tio.c_cflag & PARENB) ? 'N' : (tio.c_cflag & PARODD) ? 'O' : 'E';
    char text[64];
    std::snprintf(text, sizeof text, "%u %c%c%c", BaudOf(cfgetospeed(&tio)),
                  kBits[(tio.c_cflag & CSIZE) >> 4], parity, (tio.c_cflag & CSTOPB) ? '2' : '1');
    if (last_line_ != text) {
        last_line_ = text;
        log_->Write("line", text);
    }
}

}  // namespace

std::unique_ptr<SimPort> CreatePtyPort(const Script& script, EventLog* log) {
    return std::make_unique<PtyPort>(script, log);
}

}  // namespace tvm
