#include "ctl_reply.h"

#include <stdio.h>

namespace {

constexpr int kReportBytes = 64;

int Min(int a, int b) { return a < b ? a : b; }

bool IsPointPacket(const uint8_t* bytes, int len) {
    return len >= 2 && bytes[0] == kCtlSerialHeader && (bytes[1] == 0x82 || bytes[1] == 0x83);
}

}  // namespace

int CtlPacketLength(const uint8_t* bytes, int len) {
    if (len < 2) return len;
    if (IsPointPacket(bytes, len)) return Min(kReportBytes, len);
    int own = bytes[1] + 2;
    if (bytes[0] == kCtlSerialHeader) return Min(own, len);
    if (bytes[0] == kCtlUsbHeader) {
        // A whole report is 64 bytes with zeros after its own length; a merged reply is
        // exactly its own length and may be followed at once by the next reply.
        if (len < kReportBytes || (own < len && bytes[own] == kCtlUsbHeader)) {
            return Min(own, len);
        }
        return kReportBytes;
    }
    return len;
}

int SerialPacketLength(uint8_t first, uint8_t second) {
    if (first != kCtlSerialHeader) return 1;
    if (second == 0x82 || second == 0x83) return kReportBytes;
    return Min(second + 2, kReportBytes);
}

int FindReply(const uint8_t* bytes, int len, uint8_t header, uint8_t command) {
    for (int offset = 0; offset + 3 <= len;) {
        const uint8_t* p = bytes + offset;
        if (p[0] == header && p[2] == command && !IsPointPacket(p, len - offset)) return offset;
        offset += CtlPacketLength(p, len - offset);
    }
    return -1;
}

int ReplyText(const uint8_t* reply, int len, char* text, size_t size) {
    if (size == 0) return 0;
    text[0] = '\0';
    if (len < 4 || reply[1] < 2) return 0;
    int end = Min(Min(len, 3 + reply[1] - 1), 3 + kCtlTextMax);
    size_t used = 0;
    int taken = 0;
    for (int i = 3; i < end && reply[i] != 0; ++i) {
        char piece[5];
        uint8_t b = reply[i];
        int n = (b >= 0x20 && b < 0x7F) ? snprintf(piece, sizeof(piece), "%c", b)
                                        : snprintf(piece, sizeof(piece), "\\x%02x", b);
        if (used + n + 1 > size) break;
        for (int k = 0; k < n; ++k) text[used++] = piece[k];
        ++taken;
    }
    text[used] = '\0';
    return taken;
}

int DecodeToolPoint(const uint8_t* packet, int len, CtlPoint* point) {
    if (len < 6 || !IsPointPacket(packet, len)) return -1;
    point->down = packet[1] & 1;
    point->x = packet[2] | (packet[3] & 0x0F) << 8;
    point->y = packet[4] | (packet[5] & 0x0F) << 8;
    return 0;
}

void FormatHexLine(const uint8_t* bytes, int len, char* text, size_t size) {
    if (size == 0) return;
    size_t used = 0;
    text[0] = '\0';
    for (int i = 0; i < len && used + (i ? 3 : 2) < size; ++i) {
        used += snprintf(text + used, size - used, i ? " %02x" : "%02x", bytes[i]);
    }
}
