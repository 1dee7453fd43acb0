// Probe reply readers on any packets: the merge rules packet by packet, ReadDeviceResponse over
// a socketpair (writer closed: it ends on the end of data) and the serial reply parser. Lengths
// and positions stay inside the 128-byte reply buffer.
#include <sys/socket.h>

#include "discovery/probe_exchange.h"
#include "fuzz.h"

// Input: framing byte, command byte, packets (length byte + bytes).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in{data, size};
    const bool serial = in.Byte() & 0x1;
    const uint8_t cmd = in.Byte();
    std::vector<std::vector<uint8_t>> packets;
    while (!in.empty()) packets.push_back(in.Chunk(65));  // one read of the probe reader + 1
    auto in_buffer = [](int n) { fuzz::Check(n >= -1 && n <= kReplyBufSize); };
    ProbeContext context = {};
    context.bSerialFraming = serial;
    uint8_t reply[kReplyBufSize] = {};
    int pos = 0, result = 0;
    for (size_t i = 0; i < packets.size() && result == 0; ++i) {
        const std::vector<uint8_t>& p = packets[i];
        if (p.empty()) continue;
        const int n = static_cast<int>(p.size());
        result = serial ? MergeSerialReply(&context, p.data(), n, reply, &pos)
                        : MergeReportReply(&context, p.data(), n, reply, &pos, cmd);
        in_buffer(result);
        in_buffer(pos);
    }

    int fds[2];
    fuzz::Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0);
    UniqueFd port(fds[0]), controller(fds[1]);
    for (const std::vector<uint8_t>& p : packets) {
        if (!p.empty() && send(controller.get(), p.data(), p.size(), 0) < 0) break;
    }
    controller.reset();
    context = ProbeContext{};
    context.bSerialFraming = serial;
    in_buffer(ReadDeviceResponse(&context, port.get(), reply, cmd));

    ResetSerialReplyParser();
    for (const std::vector<uint8_t>& p : packets) {
        Parse232CmdPacket(p.data(), static_cast<int>(p.size()));
        fuzz::Check(SerialReplyParser.index <= sizeof(SerialReplyParser.packet));
    }
    return 0;
}
