// Opening the daemon's own files in the data directory (settings file and its temporary
// copy, PID file, debug log, captured command output). A symbolic link placed at such a
// path is never followed, and only a regular file with one link, owned by the daemon's
// user, is used: a FIFO, device node, socket or directory at the path, a hard link to a
// file elsewhere and a file of another user are refused without blocking and without
// truncating or writing anything.
#pragma once

#include <stdio.h>
#include <sys/types.h>

// open(2) flags O_RDONLY/O_WRONLY/O_RDWR with O_CREAT, O_EXCL, O_APPEND or O_TRUNC;
// the descriptor is close-on-exec and blocking. O_TRUNC takes effect only once the opened
// file has passed the checks. Returns the descriptor or -1: ELOOP for a symbolic link,
// EINVAL for a file that is not regular, EMLINK for a file with more than one link, EPERM
// for a file owned by another user, else the errno of open. Every refusal after the open
// is logged under LOG_MAIN with its reason.
int OpenDataFile(const char* path, int flags, mode_t mode = 0644);

// Logs one warning under LOG_MAIN when the data directory can be written by its group or
// by others (they could then replace or add files the daemon trusts). Returns true when it
// warned; false when the mode is safe or the directory cannot be examined.
bool WarnIfDataDirWritable();

// fopen(3) modes "r", "r+", "w", "w+", "a", "a+" on top of OpenDataFile. nullptr on
// failure (errno as above).
FILE* FopenDataFile(const char* path, const char* mode);
