// The serial reply waiter: reads a non-blocking serial port until a packet that ends the
// wait (a loop-back reply or a boot-loader IAP reply) has been seen.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <time.h>

#include "core/unique_fd.h"
#include "discovery/probe_exchange.h"
#include "discovery/probe_timing.h"
#include "log/debug_log.h"

SerialReplyParserState SerialReplyParser = {};

namespace {

constexpr int kSerialPacketMax = 64;
constexpr int kWaitMs = 50;

long NowMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000L + now.tv_nsec / 1000000L;
}

int WaitEnd(int result) {
    TLOG(LOG_SCAN, "%s return with %d", "WaitDeviceResponse", result);
    return result;
}

}  // namespace

void ResetSerialReplyParser() {
    memset(&SerialReplyParser, 0, sizeof(SerialReplyParser));
}

void DispatchCmd() {
    TLOG(LOG_DATA, "Entering %s", "DispatchCmd");
    const uint8_t* packet = SerialReplyParser.packet;
    switch (packet[2]) {
        case 0x39:
            TLOG(LOG_DATA, "IAP Support return: Recv Data Butter[3]=%x, Buffer[4]=%x", packet[3],
                 packet[4]);
            if (packet[3] != 0 || packet[4] != 0) {
                SerialReplyParser.replied = 1;
                TLOG(LOG_SCAN, "Target device is bootloader");
            } else {
                SerialReplyParser.replied = 0;
            }
            break;
        case 0x41:
            TLOG(LOG_SCAN, "Get 0x41 Cmd");
            SerialReplyParser.replied = 1;
            break;
        default:
            SerialReplyParser.replied = 0;
            break;
    }
}

int Parse232CmdPacket(const uint8_t* bytes, int count) {
    TLOG(LOG_SCAN, "Entering %s", "Parse232CmdPacket");
    SerialReplyParserState& p = SerialReplyParser;
    for (int i = 0; i < count; ++i) {
        const uint8_t byte = bytes[i];
        if (p.state == 0) {
            if (byte != 0x0A) continue;
            memset(p.packet, 0, sizeof(p.packet));
            p.state = 1;
            p.replied = 0;
            p.expected = 0;
            p.packet[0] = 0x0A;
            p.index = 1;
            continue;
        }
        if (p.index >= kSerialPacketMax) {  // only reachable from a corrupted state
            ResetSerialReplyParser();
            continue;
        }
        if (p.expected == 0) {
            const int total = byte + 2;  // computed in int: no wrap-around of the length byte
            p.expected = static_cast<uint8_t>(total < kSerialPacketMax ? total : kSerialPacketMax);
        }
        p.packet[p.index++] = byte;
        if (p.index >= p.expected) {
            p.state = 0;
            p.expected = 0;
            p.index = 0;
            DispatchCmd();
            if (p.replied) return 1;
        }
    }
    return 0;
}

int WaitDeviceResponse(int fd) {
    TLOG(LOG_SCAN, "Entering WaitDeviceResponse");
    struct pollfd pfd = {fd, POLLIN, 0};
    int ready;
    do {
        ready = poll(&pfd, 1, kWaitMs);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0 || !(pfd.revents & POLLIN)) {
        TLOG(LOG_SCAN, "%s, fd is not readable", "WaitDeviceResponse");
        return WaitEnd(-1);
    }
    const long deadline = NowMs() + kWaitResponseLimitMs;
    for (;;) {
        uint8_t bytes[kSerialPacketMax];
        ssize_t got = ReadRetry(fd, bytes, sizeof(bytes));
        if (got <= 0) return WaitEnd(-1);
        if (DebugEnableBits & LOG_SCAN) {
            char dump[4 * kSerialPacketMax + 1];
            HexDumpBytes(bytes, static_cast<int>(got), dump);
            DebugLog(LOG_SCAN, "Read %d bytes from device: %s", static_cast<int>(got), dump);
        }
        if (Parse232CmdPacket(bytes, static_cast<int>(got)) == 1) return WaitEnd(0);
        if (NowMs() >= deadline) {
            TLOG(LOG_SCAN, "No awaited reply within %d ms", kWaitResponseLimitMs);
            return WaitEnd(-1);
        }
        SelectSleep(0, kWaitMs);
    }
}
