// Command replies: fragments of long replies merged into CmdReplyBuf, then the reply routed
// to the virtual-key handler, a waiting sender (signal or self hook) or the tool's pipe.
#include "touch/cmd_reply.h"

#include <string.h>

#include "device/cmd_channel.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "toolpipe/tool_pipe.h"
#include "touch/vkey.h"

namespace {

constexpr uint8_t kSerialReportTool0 = 0x80;  // 5-byte serial reports collected for the tool
constexpr uint8_t kSerialReportTool1 = 0x81;
constexpr int kToolReportLen = 64;
constexpr int kFirstFragmentHeader = 5;  // [0x03, n + 1, command, d0, d1]
constexpr uint8_t kVKeyReportCmd = 0x2F;
constexpr uint8_t kVKeyReportGroup = 0x36;
constexpr int kVKeySeries = 22;

void ResetMerge(CDeviceObject* device) {
    device->CurIndex = 0;
    device->RealLen = 0;
    device->bMerging = 0;
}

// Byte i of a packet of count bytes, 0 for a byte the packet does not hold.
uint8_t ByteAt(const uint8_t* packet, int count, int i) {
    return i < count ? packet[i] : 0;
}

// Copies a whole packet as the reply. -1 (merge state reset) when it does not fit.
int CopyWholePacket(CDeviceObject* device, const uint8_t* packet, int count) {
    if (count > kCmdBufSize) {
        TLOG(LOG_MERGE, "Reply of %d bytes exceeds the reply buffer, dropped", count);
        ResetMerge(device);
        return -1;
    }
    memcpy(device->CmdReplyBuf, packet, static_cast<size_t>(count));
    return count;
}

// A 5-byte serial report as the 64-byte reply the tool expects.
int BuildToolReport(CDeviceObject* device, const uint8_t* packet, int count) {
    if (count < 5) {
        TLOG(LOG_MERGE, "Error Command Packet");
        return -1;
    }
    uint8_t* reply = device->CmdReplyBuf;
    memset(reply, 0, kToolReportLen);
    reply[0] = CMD_HEADER_SERIAL;
    reply[1] = static_cast<uint8_t>(packet[0] + 2);
    reply[2] = static_cast<uint8_t>(2 * packet[2]);
    reply[3] = packet[1];
    reply[4] = static_cast<uint8_t>(2 * packet[4]);
    reply[5] = packet[3];
    return kToolReportLen;
}

int CompletionTest(CDeviceObject* device) {
    if (device->CurIndex >= device->RealLen) {
        TLOG(LOG_MERGE, "Complete");
        const int length = device->RealLen;
        ResetMerge(device);
        return length;
    }
    TLOG(LOG_MERGE, "Incomplete");
    return 0;
}

// First fragment [0x03, L, 'D'|'E'|'F', n, d0, d1] of a reply of n + 3 bytes.
int TakeFirstFragment(CDeviceObject* device, const uint8_t* packet, int count) {
    const int length = packet[1];
    const int announced = ByteAt(packet, count, 3);
    if (announced + 3 > kCmdBufSize) {
        TLOG(LOG_MERGE, "Reply of %d bytes exceeds the reply buffer, dropped", announced + 3);
        ResetMerge(device);
        return -1;
    }
    device->CurIndex = 0;
    device->RealLen = announced + 3;
    const uint8_t header[kFirstFragmentHeader] = {
        CMD_HEADER_USB, static_cast<uint8_t>(announced + 1), packet[2], ByteAt(packet, count, 4),
        ByteAt(packet, count, 5)};
    const int written = length + 1 < kFirstFragmentHeader ? length + 1 : kFirstFragmentHeader;
    memcpy(device->CmdReplyBuf, header, static_cast<size_t>(written));
    device->CurIndex = kFirstFragmentHeader;
    device->bMerging = 1;
    TLOG(LOG_MERGE, "First curIndex=%d, RealLen=%d", device->CurIndex, device->RealLen);
    return CompletionTest(device);
}

// Continuation fragment [0x03, L, 0x00, L - 1 data bytes].
int TakeContinuation(CDeviceObject* device, const uint8_t* packet, int count) {
    const int data = packet[1] - 1;
    if (data < 0 || 3 + data > count || device->CurIndex + data > kCmdBufSize) {
        TLOG(LOG_MERGE, "Reply fragment of %d bytes does not fit, merge dropped", data);
        ResetMerge(device);
        return -1;
    }
    memcpy(device->CmdReplyBuf + device->CurIndex, packet + 3, static_cast<size_t>(data));
    device->CurIndex += data;
    TLOG(LOG_MERGE, "2nd CurIndex=%d, RealLen=%d\n", device->CurIndex, device->RealLen);
    return CompletionTest(device);
}

int MergeUsbReply(CDeviceObject* device, const uint8_t* packet, int count) {
    if (count < 3) {
        TLOG(LOG_MERGE, "Error Command Packet");
        ResetMerge(device);
        return -1;
    }
    const uint8_t length = packet[1];
    const uint8_t command = packet[2];
    if (length > 4 || device->bPCAP == 1) {
        ResetMerge(device);
        return CopyWholePacket(device, packet, count);
    }
    if (command >= 'D' && command <= 'F') return TakeFirstFragment(device, packet, count);
    if (device->CurIndex == 0) {
        ResetMerge(device);
        const int copied = CopyWholePacket(device, packet, count);
        if (copied > 0) TLOG(LOG_MERGE, "Normal format");
        return copied;
    }
    if (device->CurIndex >= device->RealLen) {
        TLOG(LOG_MERGE, "Complete");
        const int complete = device->RealLen;
        ResetMerge(device);
        return complete;
    }
    if (command != 0 || device->bMerging != 1) {
        ResetMerge(device);
        return -1;
    }
    return TakeContinuation(device, packet, count);
}

bool IsVKeyReport(const CDeviceObject* device, const uint8_t* reply) {
    if (device->Series == kVKeySeries) return reply[2] == kVKeyReportCmd;
    return reply[2] == kVKeyReportGroup && reply[3] == kVKeyReportCmd;
}

bool HookMatches(uint16_t cmd, uint16_t sub_cmd, const uint8_t* reply) {
    return reply[2] == cmd && (reply[3] == sub_cmd || sub_cmd == kAnySubCmd);
}

}  // namespace

int MergeCommandPacket(CDeviceObject* device, const uint8_t* packet, int count) {
    TLOG(LOG_MERGE, "MergeCommandPacket CurIndex=%d, RealLen=%d", device->CurIndex,
         device->RealLen);
    if (count <= 0) {
        TLOG(LOG_MERGE, "Error Command Packet");
        return -1;
    }
    const uint8_t head = packet[0];
    switch (head) {
        case CMD_HEADER_SERIAL:
            ResetMerge(device);
            return CopyWholePacket(device, packet, count);
        case kSerialReportTool0:
        case kSerialReportTool1:
            ResetMerge(device);
            return BuildToolReport(device, packet, count);
        case CMD_HEADER_USB:
            return MergeUsbReply(device, packet, count);
        default:
            TLOG(LOG_MERGE, "Error Command Packet");
            return -1;
    }
}

void ParseCmdPacket(CDeviceObject* device, const uint8_t* packet, int count) {
    TLOG(LOG_DATA, "Entering %s", "ParseCmdPacket");
    const int length = MergeCommandPacket(device, packet, count);
    if (length <= 0) return;
    const uint8_t* reply = device->CmdReplyBuf;

    if (IsVKeyReport(device, reply)) HandleVKeyReport(device, reply);

    if (HookMatches(device->SigHookCmd, device->SigHookSubCmd, reply)) {
        TLOG(LOG_CMD, "Get Signal Hook Command. Move to send signal.");
        CmdWake(device);
        return;
    }
    if (HookMatches(device->SelfHookCmd, device->SelfHookSubCmd, reply)) {
        device->bSelfHookReplied = 1;
        TLOG(LOG_CMD, "Get Self Hook Command. Don't need to write to App, return to self RdWr");
        return;
    }
    TLOG(LOG_CMD, "Get None-Hook Command. Pass to App.");
    WriteToTool(device, reply, length);
}
