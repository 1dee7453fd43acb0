// Probe reply readers: the two merge rules fed packet by packet, ReadDeviceResponse over a
// datagram socketpair holding the same packets (writer closed, so the reader ends on the
// end of data instead of its waits), and the serial reply parser over the same bytes.
// Results must stay inside the 128-byte reply buffer.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>

#include "discovery/probe_exchange.h"
#include "fuzz_common.h"

namespace {

constexpr int kPacketRead = 64;  // one read of the probe reader

void CheckLength(int length) {
    if (length < -1 || length > kReplyBufSize) abort();
}

void MergeDirectly(const std::vector<std::vector<uint8_t>>& packets, bool serial,
                   uint8_t cmd_byte) {
    ProbeContext context = {};
    context.bSerialFraming = serial ? 1 : 0;
    uint8_t reply[kReplyBufSize] = {};
    int merge_pos = 0;
    for (const std::vector<uint8_t>& packet : packets) {
        if (packet.empty()) continue;
        const int count = static_cast<int>(packet.size());
        const int result =
            serial ? MergeSerialReply(&context, packet.data(), count, reply, &merge_pos)
                   : MergeReportReply(&context, packet.data(), count, reply, &merge_pos,
                                      cmd_byte);
        CheckLength(result);
        if (merge_pos < 0 || merge_pos > kReplyBufSize) abort();
        if (result != 0) return;
    }
}

void ReadFromSocket(const std::vector<std::vector<uint8_t>>& packets, bool serial,
                    uint8_t cmd_byte) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) != 0) abort();
    UniqueFd port(fds[0]);
    UniqueFd controller(fds[1]);
    for (const std::vector<uint8_t>& packet : packets) {
        if (packet.empty()) continue;
        if (send(controller.get(), packet.data(), packet.size(), 0) < 0) break;
    }
    controller.reset();
    ProbeContext context = {};
    context.bSerialFraming = serial ? 1 : 0;
    uint8_t reply[kReplyBufSize];
    memset(reply, 0xEE, sizeof(reply));
    CheckLength(ReadDeviceResponse(&context, port.get(), reply, cmd_byte));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in(data, size);
    const uint8_t mode = in.Byte();
    const bool serial = mode & 0x1;
    const uint8_t cmd_byte = in.Byte();
    std::vector<std::vector<uint8_t>> packets;
    while (!in.empty()) packets.push_back(in.Chunk(kPacketRead + 1));

    MergeDirectly(packets, serial, cmd_byte);
    ReadFromSocket(packets, serial, cmd_byte);

    ResetSerialReplyParser();
    for (const std::vector<uint8_t>& packet : packets) {
        const int result = Parse232CmdPacket(packet.data(), static_cast<int>(packet.size()));
        if (result != 0 && result != 1) abort();
        if (SerialReplyParser.index > sizeof(SerialReplyParser.packet)) abort();
    }
    return 0;
}
