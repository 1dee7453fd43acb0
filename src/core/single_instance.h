// One daemon at a time: the root check, the PID file and the liveness test of an older
// daemon named by it.
#pragma once

#include <sys/types.h>

struct GlobalSettings;

constexpr int kPidFileBytes = 10;  // "%d " then NUL bytes

// Ends the process with status 255 unless the real user id is 0.
void CheckRootPermission();

// True when /proc/<pid>/status names a process whose name begins with "Tavrine" (the
// first or the second word of that file, compared over exactly seven bytes).
bool IsDaemonProcess(pid_t pid);

// Reads the PID file. When it names another live daemon: -f kills it and returns,
// -k kills it and exits 0, otherwise exits 0. When it names none: -k exits 0, otherwise
// returns. A missing PID file always returns. Only a process id above 0 is ever signalled.
void CheckSingleInstance(GlobalSettings* settings);

// Writes "%d " with the own process id, padded with NUL bytes to 10 bytes, to the PID file.
void WritePidFile();
