// Probe reply readers: the merge rules packet by packet, ReadDeviceResponse over a socketpair
// holding the packets (writer closed: it ends on the end of data, not on its waits), and the
// serial reply parser. Results stay inside the 128-byte reply buffer.
#include <sys/socket.h>

#include "discovery/probe_exchange.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in{data, size};
    const bool serial = in.Byte() & 0x1;
    const uint8_t cmd_byte = in.Byte();
    std::vector<std::vector<uint8_t>> packets;
    while (!in.empty()) packets.push_back(in.Chunk(65));  // one read of the probe reader + 1
    auto check_length = [](int length) { fuzz::Check(length >= -1 && length <= kReplyBufSize); };

    ProbeContext context = {};
    context.bSerialFraming = serial ? 1 : 0;
    uint8_t reply[kReplyBufSize] = {};
    int merge_pos = 0;
    for (const std::vector<uint8_t>& p : packets) {
        if (p.empty()) continue;
        const int n = static_cast<int>(p.size());
        const int result = serial ? MergeSerialReply(&context, p.data(), n, reply, &merge_pos)
                                  : MergeReportReply(&context, p.data(), n, reply, &merge_pos,
                                                     cmd_byte);
        check_length(result);
        fuzz::Check(merge_pos >= 0 && merge_pos <= kReplyBufSize);
        if (result != 0) break;
    }

    int fds[2];
    fuzz::Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0);
    UniqueFd port(fds[0]), controller(fds[1]);
    for (const std::vector<uint8_t>& p : packets) {
        if (!p.empty() && send(controller.get(), p.data(), p.size(), 0) < 0) break;
    }
    controller.reset();
    context = ProbeContext{};
    context.bSerialFraming = serial ? 1 : 0;
    memset(reply, 0xEE, sizeof(reply));
    check_length(ReadDeviceResponse(&context, port.get(), reply, cmd_byte));

    ResetSerialReplyParser();
    for (const std::vector<uint8_t>& p : packets) {
        const int result = Parse232CmdPacket(p.data(), static_cast<int>(p.size()));
        fuzz::Check(result == 0 || result == 1);
        fuzz::Check(SerialReplyParser.index <= sizeof(SerialReplyParser.packet));
    }
    return 0;
}
