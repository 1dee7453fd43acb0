// Command exchange on a port without a running receive loop: the probe reply reader with
// its merge rules, the serial reply waiter and parser, and two shared utilities.
#pragma once

#include <stdint.h>

constexpr int kReplyBufSize = 128;

struct ProbeContext {
    uint8_t ReplyBuf[kReplyBufSize];
    uint8_t bSerialFraming;
};

// Process-wide state of Parse232CmdPacket.
struct SerialReplyParserState {
    uint8_t state;     // 0 hunting for 0x0A, 1 collecting
    uint8_t expected;  // total length of the packet being collected, 0 = length unknown
    uint8_t index;
    uint8_t packet[64];
    uint8_t replied;
};
extern SerialReplyParserState SerialReplyParser;
void ResetSerialReplyParser();

// Reads and merges the reply to cmd_byte into reply (kReplyBufSize bytes). Returns the
// reply's length, or 0/-1 when none was completed: after three empty waits of 4 ms, three
// abandoned packets, or at the latest kProbeReadLimitMs (discovery/probe_timing.h) after
// the call, however much unrelated traffic the port sends.
int ReadDeviceResponse(ProbeContext* context, int fd, uint8_t* reply, uint8_t cmd_byte);
int MergeSerialReply(ProbeContext* context, const uint8_t* packet, int count, uint8_t* reply,
                     int* merge_pos);
int MergeReportReply(ProbeContext* context, const uint8_t* packet, int count, uint8_t* reply,
                     int* merge_pos, uint8_t cmd_byte);
// 0 when an awaited serial reply (loop-back, or a boot-loader IAP reply) arrived on the
// non-blocking fd, -1 otherwise; returns at the latest kWaitResponseLimitMs after the
// first data.
int WaitDeviceResponse(int fd);
int Parse232CmdPacket(const uint8_t* bytes, int count);
void DispatchCmd();

// Sleeps by a select() with no descriptors.
int SelectSleep(int seconds, int milliseconds);
// "[%02X]" per byte into text (room for 4 * count + 1 characters); empty for count <= 0.
void HexDumpBytes(const uint8_t* bytes, int count, char* text);
