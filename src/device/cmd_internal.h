// Pieces of the command channel shared by the command operations (private to src/device).
#pragma once

#include <stdint.h>
#include <time.h>

class CDeviceObject;

// Clock of CmdCond's deadlines; InitCmdCond sets the condition variable up for it.
clockid_t CmdCondClock();
void InitCmdCond(CDeviceObject* device);

// The polling exchange of SelfRecv; shift_both_ends applies ShiftByteBothEnd on USB.
void SendAndPoll(CDeviceObject* device, int len, bool shift_both_ends);

// CmdTimedWait for a caller that already holds CmdMutex (and keeps holding it on return),
// so that nothing can slip between its write and the start of the wait.
int CmdTimedWaitLocked(CDeviceObject* device, int seconds, int ms);

// Writes a blocking command (built in packet, len bytes) under CmdMutex, waits up to
// seconds + ms for the signal hook, and compares the first `expect_len` bytes of the
// reply that woke it with expect. 0 accepted, -1 short write or another reply, else the
// wait's error number. byte_by_byte writes with 1 ms pauses between the bytes.
int SendAndWaitReply(CDeviceObject* device, const uint8_t* packet, int len, bool byte_by_byte,
                     int seconds, int ms, const uint8_t* expect, int expect_len);

// Builds a packet in a zeroed buffer of kCmdBufSize bytes and returns its own length.
// On USB applies the old-kernel report-id shift and returns the fixed length instead.
int PrepareFixedCommand(const CDeviceObject* device, uint8_t* packet, int own_len);

// Clears CmdSendBuf and CmdReplyBuf before a command operation builds its packet.
void ClearCmdBuffers(CDeviceObject* device);
// Registers the reply a polling sender awaits (sub-command first, so the receive path never
// sees the new command with the old sub-command).
void SetSelfHook(CDeviceObject* device, uint16_t cmd, uint16_t sub_cmd);

// Logs "m_Port_fd=%d is invalid" and leave_line under category when the port descriptor
// is less than 1; true when the command must not be sent.
bool PortInvalid(const CDeviceObject* device, uint32_t category, const char* leave_line);
