#include "support/sec_tty.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/unique_fd.h"
#include "support/test_util.h"

namespace sectest {

TtyResult OpenOfTerminalAcquiresIt(const std::function<int(const char*)>& open_path) {
    testutil::Pty pty;
    if (!testutil::OpenPty(&pty)) return TtyResult::kSkipped;
    pty.slave.reset();  // only the child opens the terminal
    const std::string& slave = pty.slave_path;
    const pid_t child = fork();
    if (child < 0) return TtyResult::kSkipped;
    if (child == 0) {
        if (setsid() < 0) _exit(3);
        UniqueFd opened(open_path(slave.c_str()));
        UniqueFd tty(OpenCloexec("/dev/tty", O_RDWR | O_NOCTTY));
        _exit(tty.valid() ? 1 : 0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) > 1) {
        return TtyResult::kSkipped;
    }
    return WEXITSTATUS(status) == 1 ? TtyResult::kAcquired : TtyResult::kNotAcquired;
}

}  // namespace sectest
