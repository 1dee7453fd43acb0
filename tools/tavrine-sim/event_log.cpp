#include "event_log.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tvm {

int WriteAll(int fd, const void* data, size_t size) {
    const auto* p = static_cast<const uint8_t*>(data);
    while (size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return 0;
}

uint64_t MonotonicUs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

std::unique_ptr<EventLog> EventLog::Create(const std::string& path) {
    int fd = path == "-"
                 ? fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)
                 : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::fprintf(stderr, "cannot open log %s: %s\n", path.c_str(), std::strerror(errno));
        return nullptr;
    }
    return std::unique_ptr<EventLog>(new EventLog(UniqueFd(fd)));
}

void EventLog::Write(const std::string& kind, const std::string& text) {
    WriteAt(MonotonicUs(), kind, text);
}

void EventLog::WriteAt(uint64_t us, const std::string& kind, const std::string& text) {
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%llu.%06llu ",
                  static_cast<unsigned long long>(us / 1000000u),
                  static_cast<unsigned long long>(us % 1000000u));
    std::string line = stamp + kind;
    if (!text.empty()) line += ' ' + text;
    line += '\n';
    WriteAll(fd_.get(), line.data(), line.size());
}

}  // namespace tvm
