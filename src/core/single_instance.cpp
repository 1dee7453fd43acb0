#include "core/single_instance.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/data_file.h"
#include "core/paths.h"
#include "core/unique_fd.h"
#include "log/debug_log.h"

namespace {

constexpr const char* kNamePrefix = "Tavrine";
constexpr size_t kNamePrefixLen = 7;

// Reads the process id at the start of the PID file. Returns 0 when the file opened
// (id set, -1 when it holds no number), -1 when it does not exist or cannot be read.
int ReadPidFile(pid_t* old_pid) {
    FILE* stream = FopenDataFile(PidFilePath(), "r");
    if (!stream) {
        if (errno != ENOENT) {
            TLOG_ERR(LOG_MAIN, "PID file %s is not a regular file or cannot be read",
                     PidFilePath());
        }
        return -1;
    }
    int value = -1;
    if (fscanf(stream, "%d", &value) != 1) value = -1;
    fclose(stream);
    *old_pid = value;
    return 0;
}

// Another daemon runs under old_pid: a positive id (never 0 or negative, which kill(2)
// would take as a process group), alive, not ourselves, and named Tavrine*.
bool IsOtherDaemonRunning(pid_t old_pid) {
    if (old_pid <= 0) return false;
    if (kill(old_pid, 0) != 0) return false;
    if (old_pid == getpid()) return false;
    return IsDaemonProcess(old_pid);
}

}  // namespace

void CheckRootPermission() {
    if (getuid() != 0) {
        TLOG(LOG_INIT,
             "Errot: Permission is not root. Please execute driver with root permission!");
        exit(-1);
    }
}

bool IsDaemonProcess(pid_t pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/status", static_cast<int>(pid));
    FILE* stream = fopen(path, "re");
    if (!stream) {
        TLOG(LOG_MAIN, "Check Process Name failed");
        return false;
    }
    char first[kTextMax] = "";
    char second[kTextMax] = "";
    const int words = fscanf(stream, "%63s %63s", first, second);
    fclose(stream);
    if (words >= 1 && strncmp(first, kNamePrefix, kNamePrefixLen) == 0) return true;
    if (words >= 2 && strncmp(second, kNamePrefix, kNamePrefixLen) == 0) return true;
    return false;
}

void CheckSingleInstance(GlobalSettings* settings) {
    pid_t old_pid = -1;
    if (ReadPidFile(&old_pid) != 0) {
        TLOG(LOG_INIT, "File %s doesn't existed", PidFilePath());
        return;
    }
    const pid_t own_pid = getpid();
    TLOG(LOG_MAIN, "Current PID = %d", static_cast<int>(own_pid));

    if (!IsOtherDaemonRunning(old_pid)) {
        if (settings->KillRunning) exit(0);  // nothing to stop
        return;
    }
    TLOG(LOG_MAIN, "Another daemon pid(%d) is running", static_cast<int>(old_pid));
    if (settings->ForceRestart) {
        kill(old_pid, SIGKILL);
        TLOG(LOG_MAIN, "Daemon pid(%d) was killed, keep executing new driver with pid(%d)",
             static_cast<int>(old_pid), static_cast<int>(own_pid));
        return;
    }
    if (settings->KillRunning) {
        kill(old_pid, SIGKILL);
        TLOG(LOG_MAIN, "Daemon pid(%d) was killed.", static_cast<int>(old_pid));
        exit(0);
    }
    TLOG(LOG_MAIN, "\n\t %s is under processing. \n\n", kNamePrefix);
    exit(0);
}

void WritePidFile() {
    char buffer[kPidFileBytes];
    memset(buffer, 0, sizeof(buffer));
    snprintf(buffer, sizeof(buffer), "%d ", static_cast<int>(getpid()));
    UniqueFd fd(OpenDataFile(PidFilePath(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (!fd.valid()) {
        TLOG(LOG_MAIN, "Open %s failed, maybe /data/ is not writable.", PidFilePath());
        return;
    }
    if (WriteRetry(fd.get(), buffer, sizeof(buffer)) != static_cast<ssize_t>(sizeof(buffer))) {
        TLOG_ERR(LOG_MAIN, "Write %s failed", PidFilePath());
    }
}
