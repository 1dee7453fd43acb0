#include "core/shell.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <poll.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "core/data_file.h"
#include "core/unique_fd.h"
#include "log/debug_log.h"

#ifdef __ANDROID__
#define TAVRINE_SHELL "/system/bin/sh"
#else
#define TAVRINE_SHELL "/bin/sh"
#endif

// pidfd_open has the same number on every architecture (Linux 5.3 and later).
#ifndef __NR_pidfd_open
#define __NR_pidfd_open 434
#endif

namespace {

long MonotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

void SleepMs(long ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// In the child: only async-signal-safe calls between fork and exec. output_fd >= 0
// becomes the command's standard output and error (the only descriptors it inherits
// besides standard input).
[[noreturn]] void ExecShell(const char* command, int output_fd) {
    setpgid(0, 0);
    if (output_fd >= 0) {
        if (dup2(output_fd, 1) < 0 || dup2(output_fd, 2) < 0) _exit(127);
        fcntl(1, F_SETFD, 0);  // dup2 onto itself would keep close-on-exec
        fcntl(2, F_SETFD, 0);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGUSR1, SIG_DFL);
    signal(SIGUSR2, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    execl(TAVRINE_SHELL, "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

// A descriptor that becomes readable when process pid ends (always close-on-exec); invalid
// on kernels before 5.3, where the wait below falls back to polling.
UniqueFd OpenPidFd(pid_t pid) {
    const long fd = syscall(__NR_pidfd_open, pid, 0);
    return UniqueFd(fd >= 0 ? static_cast<int>(fd) : -1);
}

// RunShell with the command's standard output and error on output_fd (-1: inherited).
// The wait sleeps in poll on a pidfd until the child ends or the deadline passes (one
// wake-up per command); without pidfds it polls waitpid at 1, 2, 4 ... 20 ms.
int RunShellTo(const char* command, int output_fd, int timeout_ms) {
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) ExecShell(command, output_fd);
    setpgid(pid, pid);  // also from the parent, so a kill below cannot miss the group
    UniqueFd pidfd = OpenPidFd(pid);

    const long deadline = MonotonicMs() + timeout_ms;
    long pause_ms = 1;
    for (;;) {
        int status = 0;
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) return status;
        if (done < 0 && errno != EINTR) return -1;
        if (MonotonicMs() >= deadline) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            TLOG_ERR(LOG_INIT, "Command [%s] did not finish within %d ms and was killed", command,
                     timeout_ms);
            return -1;
        }
        if (pidfd.valid()) {
            struct pollfd ended = {pidfd.get(), POLLIN, 0};
            const long left = deadline - MonotonicMs();
            const int ready = poll(&ended, 1, left > 0 ? static_cast<int>(left) : 0);
            // Readable and still not reaped (should not happen): poll no more, sleep instead.
            if (ready > 0) pidfd.reset();
            if (ready >= 0 || errno == EINTR) continue;
            pidfd.reset();
        }
        SleepMs(pause_ms);
        if (pause_ms < 20) pause_ms *= 2;
    }
}

}  // namespace

int RunShell(const char* command, int timeout_ms) {
    return RunShellTo(command, -1, timeout_ms);
}

FILE* RunShellCommand(const char* command, const char* output_path) {
    char line[kShellCommandMax];
    memset(line, 0, sizeof(line));
    snprintf(line, sizeof(line), "%s 1>/dev/null 2>/dev/null", command);
    if (RunShell(line) != 0) {
        TLOG(LOG_MAIN, "Command %s output to /dev/null failed.", command);
        return nullptr;
    }
    // The capture file is created here, fresh (O_EXCL, no link followed), and handed to the
    // command as its standard output and error: a redirection by the shell would write
    // through a symbolic link or into a device node placed at the path.
    unlink(output_path);
    UniqueFd capture(OpenDataFile(output_path, O_RDWR | O_CREAT | O_EXCL, 0644));
    if (!capture.valid()) {
        TLOG_ERR(LOG_INIT, "fopen file %s failed", output_path);
        return nullptr;
    }
    if (RunShellTo(command, capture.get(), kShellTimeoutMs) != 0) {
        TLOG(LOG_MAIN, "Couldn't get system kernel version.");
        return nullptr;
    }
    FILE* stream = nullptr;
    if (lseek(capture.get(), 0, SEEK_SET) == 0) stream = fdopen(capture.get(), "r");
    if (!stream) {
        TLOG(LOG_INIT, "fopen file %s failed", output_path);
        return nullptr;
    }
    capture.release();  // the stream owns the descriptor now
    return stream;
}
