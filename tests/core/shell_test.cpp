// Shell commands inherit no descriptor but 0, 1 and 2 (the capture file's refusal of links
// is checked with the other data files).
#include "core/shell.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>

#include "config/global_settings.h"
#include "core/data_file.h"
#include "core/paths.h"
#include "support/test_util.h"

namespace {

using testutil::TempDir;
using testutil::WriteFile;

std::string ReadAll(FILE* stream) {
    std::string text;
    char chunk[256];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), stream)) > 0) text.append(chunk, n);
    return text;
}

// Descriptors of this process that a child would inherit (no close-on-exec flag), besides
// 0, 1 and 2: left open by whatever started the test program, not by the daemon's code.
std::set<int> InheritableOfThisProcess() {
    std::set<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return fds;
    const int own = dirfd(dir);
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const int fd = atoi(entry->d_name);
        if (fd > 2 && fd != own && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) fds.insert(fd);
    }
    closedir(dir);
    return fds;
}

// Descriptors opened the daemon's ways (data files, settings streams, pipes, sockets) stay
// in the daemon: the command lists its own /proc/self/fd and finds 0, 1 and 2, plus the
// one its ls opened to read that directory.
TEST(ShellCaptureTest, CommandInheritsOnlyTheStandardDescriptors) {
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.File("TavrineA.ini"), "[TavrineA.ini]"));
    UniqueFd data(OpenDataFile(dir.File("TouchPID").c_str(), O_RDWR | O_CREAT, 0644));
    ASSERT_TRUE(data.valid());
    FILE* settings = LockAndOpenFile(IniFilePath(), "r", &SettingsFileMutex);
    ASSERT_NE(nullptr, settings);
    UniqueFd pipe_read, pipe_write;
    ASSERT_TRUE(testutil::MakePipe(&pipe_read, &pipe_write));
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair));
    UniqueFd sock0(pair[0]), sock1(pair[1]);

    std::set<int> expected = InheritableOfThisProcess();
    expected.insert({0, 1, 2});
    FILE* stream = nullptr;
    testutil::Quiet([&] { stream = RunShellCommand("ls -l /proc/self/fd", DrvLogPath()); });
    CloseAndUnlockFile(settings, &SettingsFileMutex);
    ASSERT_NE(nullptr, stream);
    const std::string listing = ReadAll(stream);
    fclose(stream);

    // Lines "... N -> target"; the one for the directory ls itself reads is left out.
    std::set<int> seen;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        const size_t arrow = line.find(" -> ");
        if (arrow == std::string::npos || line.compare(line.size() - 3, 3, "/fd") == 0) continue;
        seen.insert(atoi(line.c_str() + line.rfind(' ', arrow - 1) + 1));
    }
    EXPECT_EQ(expected, seen) << listing;
}

}  // namespace
