// Tool pipe forwarding: what the maintenance tool writes into its input pipe, one write at
// a time, relayed by ForwardFromTool to a datagram socketpair standing in for the port.
// The port must receive exactly the bytes read from the pipe (USB with ShiftByteBothEnd:
// framed by one zero byte at each end while the result fits in 65 bytes).
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "fuzz_common.h"
#include "toolpipe/tool_pipe.h"

namespace {

constexpr int kPipeRead = 65;  // one read of the relay
constexpr int kShiftLimit = 65;

void CheckForwarded(const std::vector<uint8_t>& written, bool shifted, int port_fd) {
    uint8_t got[256];
    const ssize_t n = recv(port_fd, got, sizeof(got), MSG_DONTWAIT);
    if (written.empty()) {
        if (n > 0) abort();  // nothing read, nothing forwarded
        return;
    }
    std::vector<uint8_t> want = written;
    if (shifted && static_cast<int>(written.size()) + 2 <= kShiftLimit) {
        want.insert(want.begin(), 0x00);
        want.push_back(0x00);
    }
    if (n != static_cast<ssize_t>(want.size()) || memcmp(got, want.data(), want.size()) != 0) {
        abort();
    }
    if (recv(port_fd, got, sizeof(got), MSG_DONTWAIT) > 0) abort();  // one write per read
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in(data, size);
    const uint8_t mode = in.Byte();
    static const uint8_t kInterfaces[] = {DEV_USB, DEV_PS2, DEV_RS232, DEV_USB};
    const uint8_t interface = kInterfaces[mode & 0x3];
    fuzz::DeviceRig rig(interface);
    CDeviceObject* dev = rig.dev.get();
    rig.settings.ShiftByteBothEnd = (mode >> 2) & 0x1;
    dev->Series = mode >> 3;
    const bool shifted = interface == DEV_USB && rig.settings.ShiftByteBothEnd;

    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK) != 0) abort();
    dev->m_fdPipeIn.reset(pipe_fds[0]);
    UniqueFd tool(pipe_fds[1]);
    int port_fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, port_fds) != 0) {
        abort();
    }
    dev->m_Port_fd.reset(port_fds[0]);
    UniqueFd controller(port_fds[1]);

    while (!in.empty()) {
        std::vector<uint8_t> write_bytes = in.Chunk(kPipeRead);
        // The reset command on an RS232 port starts a line speed search of several
        // seconds; it is kept out so that every input runs in microseconds.
        if (interface == DEV_RS232 && write_bytes.size() >= 5 && write_bytes[3] == 0x3A &&
            write_bytes[4] == 0xFF) {
            write_bytes[4] = 0xFE;
        }
        if (!write_bytes.empty() &&
            write(tool.get(), write_bytes.data(), write_bytes.size()) !=
                static_cast<ssize_t>(write_bytes.size())) {
            abort();
        }
        const uint8_t before = dev->bPointsToTool;
        ForwardFromTool(dev);
        CheckForwarded(write_bytes, shifted, controller.get());

        // The report switch (0x0A 0x02 0x34 <0|1>) applies to series 8 and below only.
        const bool is_switch = write_bytes.size() >= 4 && write_bytes[0] == 0x0A &&
                               write_bytes[1] == 0x02 && write_bytes[2] == 0x34 &&
                               write_bytes[3] <= 1 && dev->Series <= 8;
        const uint8_t want = is_switch ? (write_bytes[3] == 0 ? 1 : 0) : before;
        if (dev->bPointsToTool != want) abort();
    }
    return 0;
}
