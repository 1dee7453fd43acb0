#include "core/inherited_fds.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/unique_fd.h"

// close_range has the same number on every architecture (Linux 5.9 and later).
#ifndef __NR_close_range
#define __NR_close_range 436
#endif

namespace {

constexpr int kFirstInherited = 3;
constexpr long kDescriptorScanMax = 65536;  // bound of the last fallback

bool CloseThroughProc() {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return false;
    const int own = dirfd(dir);
    while (struct dirent* entry = readdir(dir)) {
        char* end = nullptr;
        const long fd = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd < kFirstInherited || fd == own) continue;
        UniqueFd inherited(static_cast<int>(fd));  // closed at the end of this pass
    }
    closedir(dir);
    return true;
}

}  // namespace

void CloseInheritedDescriptors() {
    if (syscall(__NR_close_range, kFirstInherited, ~0U, 0) == 0) return;
    if (CloseThroughProc()) return;
    struct rlimit limit;
    long last = kDescriptorScanMax;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < static_cast<rlim_t>(last)) {
        last = static_cast<long>(limit.rlim_cur);
    }
    for (long fd = kFirstInherited; fd < last; ++fd) UniqueFd inherited(static_cast<int>(fd));
}
