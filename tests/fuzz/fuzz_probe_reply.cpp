// Probe replies from any packets: ReadDeviceResponse over a socketpair (writer closed, so it
// ends on the end of data) keeps its length inside the 128-byte reply buffer; the serial reply
// parser keeps its index inside its packet. Input: a framing byte, a command byte, then
// packets (a length byte and the bytes).
#include <sys/socket.h>

#include "discovery/probe_exchange.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in{data, size};
    ProbeContext context = {{}, static_cast<uint8_t>(in.Byte() & 0x1)};
    const uint8_t cmd = in.Byte();
    std::vector<std::vector<uint8_t>> packets;
    while (!in.empty()) packets.push_back(in.Chunk(65));  // one read of the probe reader + 1
    int fds[2];
    fuzz::Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0);
    UniqueFd port(fds[0]), controller(fds[1]);
    for (const std::vector<uint8_t>& p : packets)
        if (!p.empty()) send(controller.get(), p.data(), p.size(), 0);
    controller.reset();
    uint8_t reply[kReplyBufSize] = {};
    const int length = ReadDeviceResponse(&context, port.get(), reply, cmd);
    fuzz::Check(length >= -1 && length <= kReplyBufSize);

    ResetSerialReplyParser();
    for (const std::vector<uint8_t>& p : packets) {
        Parse232CmdPacket(p.data(), static_cast<int>(p.size()));
        fuzz::Check(SerialReplyParser.index <= sizeof(SerialReplyParser.packet));
    }
    return 0;
}
