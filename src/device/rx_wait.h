// Interruptible waits of a receive thread (private to src/device and src/toolpipe).
// Every wait returns early when the calling thread's stop request is raised, so a
// thread asked to end never sits out a long sleep first.
#pragma once

class CDeviceObject;

// Sleeps ms milliseconds. 0 when the time passed, -1 when the stop request was raised.
int RxThreadSleep(int ms);
// Waits up to ms milliseconds (ms < 0: no limit) for fd to become readable; an
// interruption by another signal continues with the time that is left.
// 1 readable, 0 time-out, -1 stop request, error or a descriptor select cannot hold.
int RxWaitReadable(int fd, int ms);
// True when the stop request came from SIGUSR1 (not from the thread itself).
bool RxThreadStoppedBySignal();

// Marks the calling thread as the receive thread of device (set on its first line, so no
// field written by the creating thread is needed to tell).
void MarkRxThreadOf(const CDeviceObject* device);
// True on the receive thread of device.
bool IsRxThreadOf(const CDeviceObject* device);
