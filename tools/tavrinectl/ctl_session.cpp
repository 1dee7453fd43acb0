#include "ctl_session.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>

#include "core/paths.h"

long long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int CheckDaemon(int* pid, char* err, size_t err_size) {
    UniqueFd fd(OpenCloexec(PidFilePath(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!fd.valid()) {
        snprintf(err, err_size, "no daemon running: cannot read %s (%s)", PidFilePath(),
                 strerror(errno));
        return kCtlNoDaemon;
    }
    char text[32];
    ssize_t n = ReadRetry(fd.get(), text, sizeof(text) - 1);
    text[n > 0 ? n : 0] = '\0';
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (n <= 0 || end == text || value <= 0 || value > 0x7FFFFFFF) {
        snprintf(err, err_size, "no daemon running: %s holds no process id", PidFilePath());
        return kCtlNoDaemon;
    }
    if (kill(static_cast<pid_t>(value), 0) != 0 && errno == ESRCH) {
        snprintf(err, err_size, "no daemon running: process %ld of %s is gone", value,
                 PidFilePath());
        return kCtlNoDaemon;
    }
    *pid = static_cast<int>(value);
    return kCtlOk;
}

namespace {

int OpenFifo(const char* path, int flags, UniqueFd* fd, char* err, size_t err_size) {
    struct stat st;
    if (stat(path, &st) != 0) {
        snprintf(err, err_size, "no daemon pipe: %s is %s", path,
                 errno == ENOENT ? "missing" : strerror(errno));
        return kCtlNoDaemon;
    }
    if (!S_ISFIFO(st.st_mode)) {
        snprintf(err, err_size, "no daemon pipe: %s is not a FIFO", path);
        return kCtlNoDaemon;
    }
    fd->reset(OpenCloexec(path, flags | O_NONBLOCK | O_NOCTTY));
    if (fd->valid()) return kCtlOk;
    if (errno == ENXIO) {
        snprintf(err, err_size, "no controller: nobody reads %s (the daemon has no device set up)",
                 path);
        return kCtlNoAnswer;
    }
    snprintf(err, err_size, "cannot open %s: %s", path, strerror(errno));
    return kCtlIoError;
}

}  // namespace

int OpenCtlPipes(CtlPipes* pipes, char* err, size_t err_size) {
    // The reading end first: a reply must find it open.
    int status = OpenFifo(PipeOutPath(), O_RDONLY, &pipes->out, err, err_size);
    if (status != kCtlOk) return status;
    return OpenFifo(PipeInPath(), O_WRONLY, &pipes->in, err, err_size);
}

void DrainPipe(int fd) {
    uint8_t bytes[kCtlReadMax];
    for (int i = 0; i < 64 && ReadRetry(fd, bytes, sizeof(bytes)) > 0; ++i) {
    }
}

namespace {

// Bytes still waiting in a pipe, or -1.
int PipeBacklog(int fd) {
    int pending = 0;
    return ioctl(fd, FIONREAD, &pending) == 0 ? pending : -1;
}

}  // namespace

int SendPacket(const CtlPipes& pipes, const uint8_t* bytes, int len, char* err,
               size_t err_size) {
    // The daemon forwards each read of the pipe (up to 65 bytes) as one packet, so a
    // packet written while the previous one still waits would reach the controller glued
    // to it. Wait until the daemon has taken what is there.
    long long deadline = NowMs() + kCtlSendWaitMs;
    int backlog;
    while ((backlog = PipeBacklog(pipes.in.get())) > 0 && NowMs() < deadline) {
        poll(nullptr, 0, 5);
    }
    if (backlog > 0) {
        snprintf(err, err_size, "%s still holds %d bytes after %d ms: the daemon does not read it",
                 PipeInPath(), backlog, kCtlSendWaitMs);
        return kCtlIoError;
    }
    ssize_t n = WriteRetry(pipes.in.get(), bytes, static_cast<size_t>(len));
    if (n == len) return kCtlOk;
    if (n < 0 && errno == EAGAIN) {
        snprintf(err, err_size, "%s is full: the daemon does not read it", PipeInPath());
    } else {
        snprintf(err, err_size, "cannot write %s: %s", PipeInPath(),
                 n < 0 ? strerror(errno) : "short write");
    }
    return kCtlIoError;
}

int ReadUntil(int fd, uint8_t* bytes, int size, long long deadline_ms,
              volatile const int* stop) {
    for (;;) {
        if (stop != nullptr && *stop) return 0;
        long long left = deadline_ms - NowMs();
        if (left <= 0) return 0;
        struct pollfd p = {fd, POLLIN, 0};
        // Short slices so that a stop request is seen soon even without EINTR.
        int ready = poll(&p, 1, static_cast<int>(left < 100 ? left : 100));
        if (ready < 0 && errno != EINTR) return -1;
        if (ready <= 0) continue;
        ssize_t n = ReadRetry(fd, bytes, static_cast<size_t>(size));
        if (n > 0) return static_cast<int>(n);
        if (n == 0) {
            errno = 0;
            return -1;
        }
        if (errno != EAGAIN) return -1;
    }
}
