// The controller command channel: how a sender gets the reply to a command that it wrote
// to a port the receive thread also reads.
//   polling  (SelfRecv): the sender reads the port itself through the reception step until
//            its self hook is seen. On the device's own thread.
//   blocking (CmdTimedWait / CmdWake): the sender sleeps on CmdCond; the receive thread
//            wakes it when the signal hook matches. From another thread.
//   direct   (SetLoopbackInside): write, then WaitDeviceResponse on the port.
#pragma once

#include <stdint.h>

class CDeviceObject;

constexpr int kCmdShiftLimit = 65;
constexpr uint16_t kAnySubCmd = 0xFFFF;

// Writes CmdSendBuf (len bytes) and polls the port until the self hook is seen: at most
// three writes, 500 ms read periods. The outcome is in bSelfHookReplied and CmdReplyBuf.
void SelfRecv(CDeviceObject* device, int len);
// Sleeps until woken by a reply or until now + seconds + (ms + 1) ms. 0 when woken (the
// reply is in SigReplyBuf), else the error number (ETIMEDOUT) or -1.
int CmdTimedWait(CDeviceObject* device, int seconds, int ms);
// Wakes a blocked sender (receive thread, on a signal-hook match).
void CmdWake(CDeviceObject* device);
void UnRegisSigHookCmd(CDeviceObject* device, uint16_t cmd, uint16_t sub_cmd);
void UnRegisSelfHookCmd(CDeviceObject* device, uint16_t cmd, uint16_t sub_cmd);

// Pads packet with `before` zero bytes in front and `after` behind; *len is updated.
// A result above kCmdShiftLimit is refused (logged) and nothing changes. packet must
// have room for kCmdShiftLimit bytes.
void ShiftCommandBytes(uint8_t* packet, int* len, int before, int after);
// On old kernels (bOldKernel) moves the first 64 bytes up by one and puts 0x00 in front.
void ShiftReportId(uint8_t* packet);
// Length of a blocking/direct command on this device: 6 or 7 on USB, own_len otherwise.
int FixedCommandLength(const CDeviceObject* device, int own_len);

int SetFeature(CDeviceObject* device);
int SetLoopback(CDeviceObject* device);
int SetLoopbackInside(CDeviceObject* device);
void RecheckBaudRate(CDeviceObject* device);
