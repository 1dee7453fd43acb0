// The tool's named pipes: creation, opening, closing and the write towards the tool.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/environment.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "discovery/probe_exchange.h"
#include "log/debug_log.h"
#include "toolpipe/tool_pipe.h"

namespace {

constexpr int kHexDumpMax = kCmdBufSize;  // bytes shown in a log line

void OpenPipe(UniqueFd* pipe, const char* path, mode_t mode) {
    if (pipe->valid()) return;
    pipe->reset(CreateFifo(path, mode, O_RDWR | O_NONBLOCK));
    if (pipe->valid()) {
        TLOG(LOG_PIPE, "DevCreateAppPipe(): %s, OK", path);
    } else {
        TLOG_ERR(LOG_PIPE, "DevCreateAppPipe(): %s, Failed", path);
    }
}

// The directory part of path (the text before its last '/'; "." when it has none).
bool DirectoryOf(const char* path, char* dir, size_t size) {
    const char* slash = strrchr(path, '/');
    if (!slash) return snprintf(dir, size, ".") > 0;
    const size_t len = slash == path ? 1 : static_cast<size_t>(slash - path);
    if (len >= size) return false;
    memcpy(dir, path, len);
    dir[len] = '\0';
    return true;
}

// The directory of a tool pipe on plain Linux: it must belong to root (or the daemon's
// user) and let nobody outside its group read or write it. dir_st receives its status.
bool DirectoryFenced(const char* path, struct stat* dir_st) {
    char dir[kDataPathMax];
    if (!DirectoryOf(path, dir, sizeof(dir)) || stat(dir, dir_st) != 0) {
        TLOG_ERR(LOG_MAIN, "Tool pipe [%s] refused: its directory cannot be examined", path);
        return false;
    }
    if (dir_st->st_uid != 0 && dir_st->st_uid != geteuid()) {
        TLOG(LOG_MAIN, "Tool pipe [%s] refused: directory %s is owned by uid %lu", path, dir,
             static_cast<unsigned long>(dir_st->st_uid));
        return false;
    }
    if ((dir_st->st_mode & (S_IROTH | S_IWOTH)) != 0) {
        TLOG(LOG_MAIN,
             "Tool pipe [%s] refused: directory %s (mode %04o) can be read or written by users "
             "outside its group; make it 0750 or 0770",
             path, dir, static_cast<unsigned>(dir_st->st_mode & 07777));
        return false;
    }
    return true;
}

}  // namespace

int CreateFifo(const char* path, mode_t mode, int flags) {
    // On plain Linux no SELinux policy stands between the pipes and local users: the
    // directory fences them, and nobody outside the owner and group gets any access.
    const bool linux_fence = OnPlainLinux();
    struct stat dir_st;
    if (linux_fence && !DirectoryFenced(path, &dir_st)) return -1;
    if (linux_fence) mode &= ~static_cast<mode_t>(S_IRWXO);

    struct stat st;
    bool created = false;
    int attempts = 0;
    // lstat: a symbolic link at the path counts as present and is refused below.
    while (lstat(path, &st) != 0) {
        if (attempts == kCreateFifoAttempts) {
            TLOG_ERR(LOG_PIPE, "CreateFifo: cannot create [%s]", path);
            return -1;
        }
        ++attempts;
        if (mknod(path, mode | S_IFIFO, 0) == 0) created = true;
    }
    // Nothing but a FIFO is ever opened (a device node's open may have effects of its own);
    // the descriptor is checked again below in case the path changed in between.
    if (!S_ISFIFO(st.st_mode)) {
        TLOG(LOG_PIPE, "CreateFifo: [%s] is not a FIFO", path);
        return -1;
    }
    UniqueFd fd(OpenCloexec(path, flags | O_NOFOLLOW | O_NOCTTY));  // a tty there is no ctty
    if (!fd.valid()) return -1;
    if (fstat(fd.get(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        TLOG(LOG_PIPE, "CreateFifo: [%s] is not a FIFO", path);
        return -1;
    }
    // A FIFO someone else made may already be open at their end, whatever its mode now.
    if (st.st_uid != 0 && st.st_uid != geteuid()) {
        TLOG(LOG_MAIN, "Tool pipe [%s] refused: owned by uid %lu, not by root", path,
             static_cast<unsigned long>(st.st_uid));
        return -1;
    }
    if (created) {
        // The process umask narrowed the mode given to mknod; set it in full on the FIFO
        // that was opened (never through a path that could have been replaced). On Linux the
        // pipe joins the directory's group: the users an integrator lets run the tool.
        fchmod(fd.get(), mode);
        if (linux_fence && fchown(fd.get(), static_cast<uid_t>(-1), dir_st.st_gid) != 0) {
            TLOG_ERR(LOG_MAIN, "Tool pipe [%s]: cannot give it group %lu", path,
                     static_cast<unsigned long>(dir_st.st_gid));
        }
    } else if (linux_fence && (st.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        // Users outside the group may have opened it already: a new mode would not
        // close their descriptors, so the pipe is not used at all.
        TLOG(LOG_MAIN,
             "Tool pipe [%s] refused: mode %04o lets users outside its group read or write "
             "it; remove it and the daemon creates it anew",
             path, static_cast<unsigned>(st.st_mode & 07777));
        return -1;
    }
    return fd.release();
}

void DevCreateAppPipe(CDeviceObject* device) {
    OpenPipe(&device->m_fdPipeIn, PipeInPath(), kPipeInMode);
    OpenPipe(&device->m_fdPipeOut, PipeOutPath(), kPipeOutMode);
}

void DevCloseAppPipe(CDeviceObject* device) {
    device->m_fdPipeIn.reset();
    device->m_fdPipeOut.reset();
}

void WriteToTool(CDeviceObject* device, const uint8_t* bytes, int count) {
    if (!bytes || count <= 0) return;
    char text[4 * kHexDumpMax + 1];
    HexDumpBytes(bytes, count < kHexDumpMax ? count : kHexDumpMax, text);
    if (!device->m_fdPipeOut.valid()) {
        TLOG_ERR(LOG_PIPE, "m_fdPipeOut is invalid");
        return;
    }
    int ret =
        static_cast<int>(WriteRetry(device->m_fdPipeOut.get(), bytes, static_cast<size_t>(count)));
    TLOG(LOG_PIPE, "Write to PipeOut(Tool) %d bytes: %s", ret, text);
}
