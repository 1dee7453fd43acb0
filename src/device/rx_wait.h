// Interruptible waits of a receive thread (private to src/device and src/toolpipe).
// Every wait returns early when the calling thread's stop request is raised, so a
// thread asked to end never sits out a long sleep first.
#pragma once

// Sleeps ms milliseconds. 0 when the time passed, -1 when the stop request was raised.
int RxThreadSleep(int ms);
// Waits up to ms milliseconds (ms < 0: no limit) for fd to become readable; an
// interruption by another signal continues with the time that is left.
// 1 readable, 0 time-out, -1 stop request, error or a descriptor select cannot hold.
int RxWaitReadable(int fd, int ms);
// True when the stop request came from SIGUSR1 (not from the thread itself).
bool RxThreadStoppedBySignal();
