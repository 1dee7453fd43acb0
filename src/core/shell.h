// Shell commands. Every command the daemon runs goes through RunShell: the command runs
// under /bin/sh -c in a process group of its own, inherits no descriptor but 0, 1 and 2
// (the daemon opens everything close-on-exec), and is killed when it outlives its time
// limit, so a stuck `lsusb` or `modprobe` cannot hold the scan loop.
#pragma once

#include <stdio.h>

constexpr int kShellTimeoutMs = 10000;
constexpr size_t kShellCommandMax = 512;

// Runs command and waits for it. Returns the wait status as system(3) does (0 = the
// command succeeded), or -1 when it could not be started or was killed at the time limit.
int RunShell(const char* command, int timeout_ms = kShellTimeoutMs);

// Runs the command once with its output discarded to learn whether it succeeds, then
// again with standard output and error captured in output_path, and returns a stream
// open for reading on the capture, or nullptr (each failure logged). The caller reads
// the stream, closes it and removes output_path.
FILE* RunShellCommand(const char* command, const char* output_path);
