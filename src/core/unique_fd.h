// Move-only owner of one file descriptor. The only place in the daemon that closes a
// descriptor: fields hold a UniqueFd, never a raw int that "may be -1".
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    // The descriptor, or -1 when nothing is owned.
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

    // Closes the owned descriptor (if any) and takes ownership of fd.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            int saved = errno;  // closing must not disturb the caller's error report
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

    // Gives up ownership without closing.
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_ = -1;
};

// open(2) with O_CLOEXEC added, retried on EINTR. Returns the descriptor or -1 (errno set).
inline int OpenCloexec(const char* path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// read(2)/write(2) retried on EINTR.
inline ssize_t ReadRetry(int fd, void* buf, size_t len) {
    ssize_t n;
    do {
        n = ::read(fd, buf, len);
    } while (n < 0 && errno == EINTR);
    return n;
}

inline ssize_t WriteRetry(int fd, const void* buf, size_t len) {
    ssize_t n;
    do {
        n = ::write(fd, buf, len);
    } while (n < 0 && errno == EINTR);
    return n;
}
