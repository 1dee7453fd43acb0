// Tool pipe forwarding to a socketpair port: the port gets exactly the bytes of each tool write
// (USB with ShiftByteBothEnd: a zero byte at each end while that fits in 65 bytes), no more.
// Input: an interface/shift/series byte, then tool writes (a length byte and the bytes).
#include <sys/socket.h>

#include "fuzz.h"
#include "toolpipe/tool_pipe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in{data, size};
    const uint8_t mode = in.Byte();
    const uint8_t interface = (mode & 0x3) == 1 ? DEV_PS2 : (mode & 0x3) == 2 ? DEV_RS232 : DEV_USB;
    fuzz::DeviceRig rig(interface);
    rig.settings.ShiftByteBothEnd = (mode >> 2) & 0x1;
    rig.dev->Series = mode >> 3;
    int pipe_fds[2], fds[2];
    fuzz::Check(pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK) == 0);
    fuzz::Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) == 0);
    rig.dev->m_fdPipeIn.reset(pipe_fds[0]);
    rig.dev->m_Port_fd.reset(fds[0]);
    UniqueFd tool(pipe_fds[1]), controller(fds[1]);
    while (!in.empty()) {
        std::vector<uint8_t> w = in.Chunk(65);  // one read of the relay
        // Kept out: the reset command on RS232 starts a line speed search of seconds.
        if (interface == DEV_RS232 && w.size() >= 5 && w[3] == 0x3A && w[4] == 0xFF) w[4] = 0xFE;
        fuzz::Check(w.empty() || write(tool.get(), w.data(), w.size()) == ssize_t(w.size()));
        ForwardFromTool(rig.dev.get());
        const bool pad = interface == DEV_USB && rig.settings.ShiftByteBothEnd && !w.empty() &&
                         w.size() + 2 <= 65;
        std::vector<uint8_t> want(w.size() + (pad ? 2 : 0), 0x00);
        std::copy(w.begin(), w.end(), want.begin() + pad);
        uint8_t got[256];
        const ssize_t n = recv(controller.get(), got, sizeof(got), MSG_DONTWAIT);
        fuzz::Check(w.empty() ? n <= 0 : n == ssize_t(want.size()) && !memcmp(got, want.data(), n));
        fuzz::Check(recv(controller.get(), got, sizeof(got), MSG_DONTWAIT) <= 0);
    }
    return 0;
}
