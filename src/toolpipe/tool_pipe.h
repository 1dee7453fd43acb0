// The relay between the maintenance tool's named pipes and a controller.
#pragma once

#include <stdint.h>
#include <sys/types.h>

class CDeviceObject;

constexpr mode_t kPipeInMode = 0622;
constexpr mode_t kPipeOutMode = 0644;
constexpr int kCreateFifoAttempts = 3;

// Creates the FIFO at path when missing (bounded attempts) and opens it with flags.
// Returns the descriptor (close-on-exec), or -1. Refused (logged under LOG_MAIN): a path
// that is not a FIFO, and a FIFO not owned by root or the daemon's user. On plain Linux
// (OnPlainLinux()) the pipe is also fenced: its directory must belong to root or
// the daemon's user and be neither readable nor writable by others, a new FIFO gets mode
// without the others' bits and the directory's group, and an existing one that others
// may read or write is refused. On Android the modes are used as given (SELinux and the
// /data directory fence the pipes there).
int CreateFifo(const char* path, mode_t mode, int flags);
void DevCreateAppPipe(CDeviceObject* device);
void DevCloseAppPipe(CDeviceObject* device);
// One read from m_fdPipeIn, forwarded to the port.
void ForwardFromTool(CDeviceObject* device);
// Writes bytes to m_fdPipeOut.
void WriteToTool(CDeviceObject* device, const uint8_t* bytes, int count);
