#include "core/device_node.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "core/unique_fd.h"
#include "log/debug_log.h"

namespace {

constexpr unsigned kMiscMajor = 10;
constexpr unsigned kUinputMinor = 223;

// Null when st is a node of the kind (terminals are told apart only once opened), else
// the reason, written into why.
const char* Mismatch(const struct stat& st, DeviceNodeKind kind, char* why, size_t size) {
    if (!S_ISCHR(st.st_mode)) {
        snprintf(why, size, "not a character device (mode %o)", static_cast<unsigned>(st.st_mode));
        return why;
    }
    if (kind == kNodeUinput &&
        (major(st.st_rdev) != kMiscMajor || minor(st.st_rdev) != kUinputMinor)) {
        snprintf(why, size, "character device %u:%u is not uinput (10:223)",
                 static_cast<unsigned>(major(st.st_rdev)),
                 static_cast<unsigned>(minor(st.st_rdev)));
        return why;
    }
    return nullptr;
}

int Refuse(const char* path, DeviceNodeKind kind, const char* why) {
    TLOG(kind == kNodeUinput ? LOG_MAIN : LOG_INIT, "Refused device node [%s]: %s", path, why);
    errno = ENODEV;
    return -1;
}

}  // namespace

int OpenDeviceNode(const char* path, int flags, DeviceNodeKind kind) {
    char why[64];
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    if (Mismatch(st, kind, why, sizeof(why))) return Refuse(path, kind, why);
    UniqueFd fd(OpenCloexec(path, flags | O_NOCTTY));
    if (!fd.valid()) return -1;
    // The path may name something else by now: the descriptor is what counts.
    if (fstat(fd.get(), &st) != 0) return -1;
    if (Mismatch(st, kind, why, sizeof(why))) return Refuse(path, kind, why);
    if (kind == kNodeTerminal && !isatty(fd.get())) return Refuse(path, kind, "not a terminal");
    return fd.release();
}

bool IsDeviceNodeUnderDev(const char* path) {
    static const char kDev[] = "/dev/";
    if (!path || strncmp(path, kDev, sizeof(kDev) - 1) != 0) return false;
    // Every component after "/dev/" must be a name: "/dev/../etc/x" names no device.
    for (const char* part = path + sizeof(kDev) - 1; *part != '\0';) {
        const size_t len = strcspn(part, "/");
        if (len == 0 || (part[0] == '.' && (len == 1 || (len == 2 && part[1] == '.')))) {
            return false;
        }
        part += len;
        if (*part == '/') ++part;
    }
    struct stat st;
    return lstat(path, &st) == 0 && (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode));
}
