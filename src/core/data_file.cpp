#include "core/data_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/paths.h"
#include "core/unique_fd.h"
#include "log/debug_log.h"

namespace {

// The debug log writes its own file through OpenDataFile: a refusal met while one is being
// reported (the log file itself refused) is not reported again.
thread_local bool g_reporting_refusal = false;

int Refuse(const char* path, int error, const char* why) {
    if (!g_reporting_refusal) {
        g_reporting_refusal = true;
        TLOG(LOG_MAIN, "Refused data file [%s]: %s", path, why);
        g_reporting_refusal = false;
    }
    errno = error;
    return -1;
}

}  // namespace

int OpenDataFile(const char* path, int flags, mode_t mode) {
    // O_NONBLOCK: opening a FIFO for writing with no reader (or for reading with no
    // writer) returns at once instead of hanging the caller; cleared again below.
    // O_NOCTTY: a terminal placed at the path never becomes the daemon's controlling one.
    const bool truncate = (flags & O_TRUNC) != 0;
    UniqueFd fd(OpenCloexec(path, (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode));
    if (!fd.valid()) return -1;
    struct stat st;
    if (fstat(fd.get(), &st) != 0) return -1;
    char why[48];
    if (!S_ISREG(st.st_mode)) {
        snprintf(why, sizeof(why), "not a regular file (mode %o)",
                 static_cast<unsigned>(st.st_mode));
        return Refuse(path, EINVAL, why);
    }
    // A second link makes the file reachable under another name, possibly outside the
    // data directory: writing it would change that file too.
    if (st.st_nlink != 1) {
        snprintf(why, sizeof(why), "%lu links", static_cast<unsigned long>(st.st_nlink));
        return Refuse(path, EMLINK, why);
    }
    if (st.st_uid != geteuid()) {
        snprintf(why, sizeof(why), "owned by uid %lu", static_cast<unsigned long>(st.st_uid));
        return Refuse(path, EPERM, why);
    }
    const int status = fcntl(fd.get(), F_GETFL);
    if (status == -1 || fcntl(fd.get(), F_SETFL, status & ~O_NONBLOCK) == -1) return -1;
    if (truncate && ftruncate(fd.get(), 0) != 0) return -1;
    return fd.release();
}

bool WarnIfDataDirWritable() {
    struct stat st;
    if (stat(DataDir(), &st) != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) return false;
    TLOG(LOG_MAIN,
         "Warning: data directory %s (mode %03o) is writable by group or others; they may "
         "replace the settings file, PID file, logs and tool pipes",
         DataDir(), static_cast<unsigned>(st.st_mode & 07777));
    return true;
}

FILE* FopenDataFile(const char* path, const char* mode) {
    int flags = 0;
    const bool update = strchr(mode, '+') != nullptr;
    switch (mode[0]) {
        case 'r':
            flags = update ? O_RDWR : O_RDONLY;
            break;
        case 'w':
            flags = (update ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
            break;
        case 'a':
            flags = (update ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
            break;
        default:
            errno = EINVAL;
            return nullptr;
    }
    UniqueFd fd(OpenDataFile(path, flags));
    if (!fd.valid()) return nullptr;
    FILE* stream = fdopen(fd.get(), mode);
    if (stream) fd.release();  // the stream owns the descriptor now
    return stream;
}
