#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <sys/stat.h>

#include "config/global_settings.h"
#include "core/unique_fd.h"

pthread_mutex_t SettingsFileMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t TempFileMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// fopen() semantics for "r", "r+", "w", "w+", "a", "a+", but close-on-exec, never following
// a symbolic link placed at the path, and only for a regular file: a FIFO or device node
// put at a settings path is refused instead of blocking the open or being written into.
FILE* OpenNoFollow(const char* path, const char* mode) {
    int flags = 0;
    switch (mode[0]) {
        case 'r': flags = strchr(mode, '+') ? O_RDWR : O_RDONLY; break;
        case 'w': flags = (strchr(mode, '+') ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC; break;
        case 'a': flags = (strchr(mode, '+') ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND; break;
        default: errno = EINVAL; return nullptr;
    }
    UniqueFd fd(OpenCloexec(path, flags | O_NOFOLLOW | O_NONBLOCK, 0644));
    if (!fd.valid()) return nullptr;
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return nullptr;
    }
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    FILE* stream = fdopen(fd.get(), mode);
    if (stream) fd.release();  // the stream owns the descriptor now
    return stream;
}

}  // namespace

FILE* LockAndOpenFile(const char* path, const char* mode, pthread_mutex_t* mutex) {
    pthread_mutex_lock(mutex);
    FILE* stream = OpenNoFollow(path, mode);
    if (!stream) pthread_mutex_unlock(mutex);
    return stream;
}

int CloseAndUnlockFile(FILE* stream, pthread_mutex_t* mutex) {
    if (stream) {
        fclose(stream);
        pthread_mutex_unlock(mutex);
    }
    return 0;
}
