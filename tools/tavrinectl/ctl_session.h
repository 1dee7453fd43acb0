// tavrinectl's side of the daemon's tool pipes: is a daemon running, open both FIFOs
// without blocking, send one packet, wait for replies with a deadline.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/unique_fd.h"

// Exit statuses of the tool, one per kind of failure.
enum CtlStatus {
    kCtlOk = 0,
    kCtlNoAnswer = 1,   // no controller answered within the time-out, or none is set up
    kCtlUsage = 2,      // bad arguments
    kCtlNoDaemon = 3,   // no PID file, its process is gone, or a FIFO is missing
    kCtlIoError = 4,    // a pipe could not be read or written
};

constexpr int kCtlReadMax = 256;  // bytes taken from the output pipe per read

// 0 when the PID file names a living process (its pid in *pid), else kCtlNoDaemon with
// the reason in err.
int CheckDaemon(int* pid, char* err, size_t err_size);

struct CtlPipes {
    UniqueFd in;   // written: tool -> controller
    UniqueFd out;  // read: controller -> tool
};

// Opens the output FIFO for reading and the input FIFO for writing, both non-blocking.
// Returns kCtlOk, kCtlNoDaemon (a path is missing or no FIFO), kCtlNoAnswer (nobody
// reads the input FIFO: the daemon has no controller set up) or kCtlIoError.
int OpenCtlPipes(CtlPipes* pipes, char* err, size_t err_size);

// Reads and drops whatever the output pipe holds now (replies nobody asked this run for).
void DrainPipe(int fd);

constexpr int kCtlSendWaitMs = 1000;  // longest wait for the daemon to take the last packet

// Writes one packet in one write, once the input pipe is empty (at most kCtlSendWaitMs).
// Returns kCtlOk or kCtlIoError with the reason in err.
int SendPacket(const CtlPipes& pipes, const uint8_t* bytes, int len, char* err,
               size_t err_size);

// Waits until the output pipe has data or the monotonic deadline (ms) passes, or *stop
// becomes non-zero, then reads once. Returns the byte count, 0 on time-out or stop, -1
// when the pipe failed or every writer closed it (errno set; 0 for a close).
int ReadUntil(int fd, uint8_t* bytes, int size, long long deadline_ms,
              volatile const int* stop);

// CLOCK_MONOTONIC in milliseconds.
long long NowMs();
