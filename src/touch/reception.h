// The reception step: one read from the port, split into packets and routed.
#pragma once

#include <stdint.h>

class CDeviceObject;

// Reads up to 65 bytes from the port and dispatches them. Returns 0, or -1 when the port
// read empty (unplugged): the node has then been deleted, SIGUSR2 sent to the process
// group, bThreadRunning cleared and the thread's stop request raised.
int DevReceiveStep(CDeviceObject* device);
// Dispatches bytes already read (no I/O on the port): the splitter of the device's
// interface. Used by DevReceiveStep, the fuzzers and the benchmarks.
void DispatchPortBytes(CDeviceObject* device, const uint8_t* bytes, int count);
// USB splitter: one read is one report.
void ParseUsbPacket(CDeviceObject* device, const uint8_t* bytes, int count);
// Serial and PS/2 splitter; state kept in the device across reads.
void ParseSerialPacket(CDeviceObject* device, const uint8_t* bytes, int count);
