// The probe reply reader and its two merge rules: a command reply read straight from a
// port that has no receive loop yet.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <time.h>

#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"
#include "log/debug_log.h"

namespace {

constexpr int kReadTries = 3;
constexpr int kReadWaitMs = 4;
constexpr int kReplyPacketMax = 64;
constexpr int kSerialLengthMax = 62;  // length byte of a 64-byte serially framed packet

long ElapsedMs(const struct timespec& start) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - start.tv_sec) * 1000L + (now.tv_nsec - start.tv_nsec) / 1000000L;
}

// 1 when fd became readable within timeout_ms, 0 on time-out, -1 on error.
int WaitReadable(int fd, int timeout_ms) {
    struct pollfd pfd = {fd, POLLIN, 0};
    int ready;
    do {
        ready = poll(&pfd, 1, timeout_ms);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return ready;
    return (pfd.revents & POLLIN) ? 1 : -1;
}

int EndRead(int result) {
    TLOG(LOG_SERIAL, "%s return %d", "ReadDeviceResponse", result);
    return result;
}

void LogBytes(const char* format, const uint8_t* bytes, int count) {
    if (!(DebugEnableBits & LOG_SERIAL)) return;
    char dump[4 * kReplyBufSize + 1];
    HexDumpBytes(bytes, count < kReplyBufSize ? count : kReplyBufSize, dump);
    DebugLog(LOG_SERIAL, format, count, dump);
}

// Merges one packet (header at packet[0]) into the reply by the context's framing.
// The reply length when complete, 0 when more is needed, -1 when illegal.
int MergePacket(ProbeContext* context, const uint8_t* packet, int count, uint8_t* reply,
                int* merge_pos, uint8_t cmd_byte) {
    if (context->bSerialFraming) return MergeSerialReply(context, packet, count, reply, merge_pos);
    if (packet[1] > 4) {                                    // a USB reply that came in one packet
        memcpy(reply, packet, static_cast<size_t>(count));  // count <= 64 < kReplyBufSize
        return count;
    }
    return MergeReportReply(context, packet, count, reply, merge_pos, cmd_byte);
}

}  // namespace

int ReadDeviceResponse(ProbeContext* context, int fd, uint8_t* reply, uint8_t cmd_byte) {
    TLOG(LOG_SERIAL, "Entering %s", "ReadDeviceResponse");
    memset(reply, 0, 4);
    int merge_pos = 0;
    int tries = kReadTries;
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);

    for (;;) {
        const long left_ms = kProbeReadLimitMs - ElapsedMs(start);
        if (left_ms <= 0) {
            TLOG(LOG_SERIAL, "No complete reply within %d ms", kProbeReadLimitMs);
            return EndRead(-1);
        }
        if (WaitReadable(fd, left_ms < kReadWaitMs ? static_cast<int>(left_ms) : kReadWaitMs) <=
            0) {
            if (--tries <= 0) return EndRead(-1);
            continue;
        }
        uint8_t bytes[kReplyPacketMax + 1];
        memset(bytes, 0, sizeof(bytes));  // so packet[2] of a short packet reads as 0
        const ssize_t got = ReadRetry(fd, bytes, kReplyPacketMax);
        if (got <= 0) {
            if (--tries <= 0) return EndRead(static_cast<int>(got));
            continue;
        }
        int count = static_cast<int>(got);
        LogBytes("Read %d bytes from device: %s", bytes, count);

        // One leading byte that is 0x00 or 0x10 and above is not part of the packet.
        const uint8_t* packet = bytes;
        if (packet[0] == 0x00 || packet[0] >= 0x10) {
            ++packet;
            --count;
        }
        if (count <= 0 || (packet[0] != 0x0A && packet[0] != 0x03)) continue;  // costs no try

        if (reply[2] == 0 && packet[2] != cmd_byte && !context->bSerialFraming) {
            TLOG(LOG_SERIAL, "First packet recvByte[2]=[%02x]. Fail to equal CmdByte [%02x].",
                 packet[2], cmd_byte);
            TLOG(LOG_SERIAL, "Abandon this packet and read again");
            if (--tries <= 0) return EndRead(-1);
            continue;
        }
        const int result = MergePacket(context, packet, count, reply, &merge_pos, cmd_byte);
        if (result > 0) {
            LogBytes("Final Merged Command , %d bytes: %s", reply, result);
            return EndRead(result);
        }
    }
}

int MergeSerialReply(ProbeContext* /*context*/, const uint8_t* packet, int count, uint8_t* reply,
                     int* merge_pos) {
    for (int i = 0; i < count; ++i) {
        if (*merge_pos < 0 || *merge_pos >= kReplyBufSize) return -1;
        reply[(*merge_pos)++] = packet[i];
        if (*merge_pos < 2) continue;
        int length = reply[1];
        if (length > kSerialLengthMax) {
            TLOG(LOG_SERIAL, "Serial packet length %d bigger than %d. Illegal Situation.",
                 length + 2, kReplyPacketMax);
            return -1;
        }
        if (*merge_pos >= length + 2) return length + 2;
    }
    return 0;
}

int MergeReportReply(ProbeContext* /*context*/, const uint8_t* packet, int count, uint8_t* reply,
                     int* merge_pos, uint8_t cmd_byte) {
    if (reply[0] == 0) reply[0] = 0x03;
    int start;
    if (reply[2] == 0 && count > 2 && packet[2] == cmd_byte && cmd_byte != 0) {
        if (count < 4) {
            TLOG(LOG_SERIAL, "Command Incomplete.");
            return 0;
        }
        // The reply ends at index data count + 2 and must fit in the reply buffer.
        if (packet[3] + 3 > kReplyBufSize) {
            TLOG(LOG_SERIAL, "Reply of %d data bytes does not fit in %d bytes", packet[3],
                 kReplyBufSize);
            return -1;
        }
        reply[2] = cmd_byte;
        reply[1] = static_cast<uint8_t>(packet[3] + 1);
        *merge_pos = 2;
        start = 4;
        if (reply[1] == *merge_pos - 1) return reply[1] + 2;  // no data bytes at all
    } else if (count > 2 && (packet[2] != 0 || reply[2] == 0)) {
        // A command byte where a following fragment must have 0, or a following fragment
        // before any first one.
        if (DebugEnableBits & LOG_SERIAL) {
            char dump[4 * kReplyPacketMax + 1];
            HexDumpBytes(packet, count < kReplyPacketMax ? count : kReplyPacketMax, dump);
            DebugErrorLog(LOG_SERIAL, "Illegal Recv Command Packet with %s", dump);
        }
        return -1;
    } else {
        start = 3;
    }

    int last = count > 1 ? packet[1] + 1 : 0;  // a 1-byte packet has no length byte
    if (last > count - 1) last = count - 1;
    for (int i = start; i <= last; ++i) {
        if (*merge_pos < 2 || *merge_pos + 1 >= kReplyBufSize) return -1;
        reply[++(*merge_pos)] = packet[i];
        if (reply[1] == *merge_pos - 1) {
            TLOG(LOG_SERIAL, "Command complete return with %d", reply[1] + 2);
            return reply[1] + 2;
        }
    }
    TLOG(LOG_SERIAL, "Command Incomplete.");
    return 0;
}
