#include "ctl_run.h"

#include <errno.h>
#include <string.h>

#include "core/paths.h"
#include "ctl_reply.h"
#include "ctl_session.h"

namespace {

constexpr uint8_t kCmdReportSwitch = 0x34;  // data 0: reports to the tool, 1: back to touch

struct Session {
    const CtlOptions& options;
    FILE* out;
    FILE* err;
    volatile const int* stop;
    CtlPipes pipes;
    char why[256];
};

int Fail(Session* s, int status) {
    fprintf(s->err, "tavrinectl: %s\n", s->why);
    return status;
}

int Send(Session* s, const uint8_t* bytes, int len) {
    return SendPacket(s->pipes, bytes, len, s->why, sizeof(s->why));
}

int RunRaw(Session* s) {
    DrainPipe(s->pipes.out.get());
    int status = Send(s, s->options.raw, s->options.raw_len);
    if (status != kCtlOk) return Fail(s, status);
    uint8_t bytes[kCtlReadMax];
    int n = ReadUntil(s->pipes.out.get(), bytes, sizeof(bytes), NowMs() + s->options.timeout_ms,
                      s->stop);
    if (n < 0) {
        snprintf(s->why, sizeof(s->why), "%s failed: %s", PipeOutPath(),
                 errno ? strerror(errno) : "the daemon closed it");
        return Fail(s, kCtlNoDaemon);
    }
    if (n == 0) {
        snprintf(s->why, sizeof(s->why), "no answer within %d ms", s->options.timeout_ms);
        return Fail(s, kCtlNoAnswer);
    }
    for (int offset = 0; offset < n;) {
        int len = CtlPacketLength(bytes + offset, n - offset);
        char line[3 * kCtlReadMax + 1];
        FormatHexLine(bytes + offset, len, line, sizeof(line));
        fprintf(s->out, "%s\n", line);
        offset += len;
    }
    return kCtlOk;
}

// Sends the identification command on each header the bus choice allows, splitting the
// time-out between them, and prints the text of the first matching reply.
int RunText(Session* s, uint8_t command) {
    uint8_t headers[2];
    int header_count = 0;
    if (s->options.bus != CtlBus::kSerial) headers[header_count++] = kCtlUsbHeader;
    if (s->options.bus != CtlBus::kUsb) headers[header_count++] = kCtlSerialHeader;
    DrainPipe(s->pipes.out.get());
    long long start = NowMs();
    for (int h = 0; h < header_count; ++h) {
        uint8_t packet[3] = {headers[h], 0x01, command};
        int status = Send(s, packet, sizeof(packet));
        if (status != kCtlOk) return Fail(s, status);
        long long deadline = start + static_cast<long long>(s->options.timeout_ms) * (h + 1) /
                                         header_count;
        uint8_t bytes[kCtlReadMax];
        int n;
        while ((n = ReadUntil(s->pipes.out.get(), bytes, sizeof(bytes), deadline, s->stop)) > 0) {
            // Either header is taken: a late reply to the first try still answers.
            for (int k = 0; k <= h; ++k) {
                int offset = FindReply(bytes, n, headers[k], command);
                if (offset < 0) continue;
                char text[4 * kCtlTextMax + 1];
                ReplyText(bytes + offset, n - offset, text, sizeof(text));
                fprintf(s->out, "%s\n", text);
                return kCtlOk;
            }
        }
        if (n < 0) {
            snprintf(s->why, sizeof(s->why), "%s failed: %s", PipeOutPath(),
                     errno ? strerror(errno) : "the daemon closed it");
            return Fail(s, kCtlNoDaemon);
        }
    }
    snprintf(s->why, sizeof(s->why), "no controller answered command 0x%02x within %d ms",
             command, s->options.timeout_ms);
    return Fail(s, kCtlNoAnswer);
}

// Switches the serial reports to the tool, prints each point as it comes, and switches
// them back whatever ended the loop.
int RunPoints(Session* s) {
    DrainPipe(s->pipes.out.get());
    const uint8_t on[4] = {kCtlSerialHeader, 0x02, kCmdReportSwitch, 0x00};
    const uint8_t off[4] = {kCtlSerialHeader, 0x02, kCmdReportSwitch, 0x01};
    int status = Send(s, on, sizeof(on));
    if (status != kCtlOk) return Fail(s, status);
    long printed = 0;
    status = kCtlOk;
    // A read may end inside a packet: its start waits in front of the next read.
    uint8_t bytes[kCtlReadMax + kCtlMaxPacket];
    int held = 0;
    while (s->options.count == 0 || printed < s->options.count) {
        // With --count the time-out bounds the wait for each point; without it the tool
        // runs until it is interrupted.
        long long deadline =
            s->options.count ? NowMs() + s->options.timeout_ms : NowMs() + 1000;
        int n = ReadUntil(s->pipes.out.get(), bytes + held, kCtlReadMax, deadline, s->stop);
        if (s->stop != nullptr && *s->stop) break;
        if (n < 0) {
            snprintf(s->why, sizeof(s->why), "%s failed: %s", PipeOutPath(),
                     errno ? strerror(errno) : "the daemon closed it");
            status = Fail(s, kCtlNoDaemon);
            break;
        }
        if (n == 0) {
            if (s->options.count == 0) continue;
            snprintf(s->why, sizeof(s->why), "no point within %d ms (%ld of %ld)",
                     s->options.timeout_ms, printed, s->options.count);
            status = Fail(s, kCtlNoAnswer);
            break;
        }
        int total = held + n;
        int offset = 0;
        while (offset < total && (s->options.count == 0 || printed < s->options.count)) {
            if (total - offset < 2) break;
            int len = SerialPacketLength(bytes[offset], bytes[offset + 1]);
            if (len > total - offset) break;
            CtlPoint point;
            if (DecodeToolPoint(bytes + offset, len, &point) == 0) {
                fprintf(s->out, "%s x=%d y=%d\n", point.down ? "down" : "up", point.x, point.y);
                fflush(s->out);
                ++printed;
            }
            offset += len;
        }
        held = total - offset;  // less than one packet (64 bytes) unless --count ended it
        if (held > kCtlMaxPacket) held = 0;
        memmove(bytes, bytes + offset, static_cast<size_t>(held));
    }
    int back = Send(s, off, sizeof(off));
    if (back != kCtlOk) return status != kCtlOk ? status : Fail(s, back);
    return status;
}

}  // namespace

void PrintCtlUsage(FILE* out) {
    fprintf(out,
            "usage: tavrinectl [--usb | --serial] [--timeout MS] COMMAND\n"
            "  raw HEX...           send a command packet, print the reply in hex\n"
            "  version|model|type   print the controller's firmware version, model or type\n"
            "  points [--count N]   print a serial controller's points until Ctrl-C or N\n"
            "pipes: %s, %s\n"
            "exit: 0 ok, 1 no answer, 2 bad arguments, 3 no daemon, 4 pipe error\n",
            PipeInPath(), PipeOutPath());
}

int RunCtl(const CtlOptions& options, FILE* out, FILE* err, volatile const int* stop) {
    if (options.command == CtlCommand::kHelp) {
        PrintCtlUsage(out);
        return kCtlOk;
    }
    Session s{options, out, err, stop, CtlPipes(), {}};
    int pid = 0;
    int status = CheckDaemon(&pid, s.why, sizeof(s.why));
    if (status == kCtlOk) status = OpenCtlPipes(&s.pipes, s.why, sizeof(s.why));
    if (status != kCtlOk) return Fail(&s, status);
    switch (options.command) {
    case CtlCommand::kRaw:
        return RunRaw(&s);
    case CtlCommand::kVersion:
        return RunText(&s, kCtlCmdVersion);
    case CtlCommand::kModel:
        return RunText(&s, kCtlCmdModel);
    case CtlCommand::kType:
        return RunText(&s, kCtlCmdType);
    case CtlCommand::kPoints:
        return RunPoints(&s);
    default:
        snprintf(s.why, sizeof(s.why), "no command given");
        return Fail(&s, kCtlUsage);
    }
}
