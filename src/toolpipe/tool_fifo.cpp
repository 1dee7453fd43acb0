// The tool's named pipes: creation, opening, closing and the write towards the tool.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

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

}  // namespace

int CreateFifo(const char* path, mode_t mode, int flags) {
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
    // The process umask narrowed the mode given to mknod; set it in full on the FIFO
    // that was opened (never through a path that could have been replaced).
    if (created) fchmod(fd.get(), mode);
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
