#include "sim_dump.h"

#include <algorithm>
#include <cstdio>

namespace tvm {

namespace {

std::string Hex16(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

std::string DumpReply(const Reply& reply) {
    std::string text = "reply ";
    if (reply.after_ms) text += "after " + std::to_string(reply.after_ms) + " ";
    if (reply.echo) return text + "echo";
    return text + (reply.garbage_len ? "garbage " + std::to_string(reply.garbage_len)
                                     : FormatHex(reply.bytes));
}

std::string DumpAction(const Action& a) {
    switch (a.kind) {
        case ActionKind::kSend:
            return "send " + FormatHex(a.bytes);
        case ActionKind::kSendGarbage:
            return "send garbage " + std::to_string(a.garbage_len);
        case ActionKind::kRate:
            return "rate " + std::to_string(a.rate_per_s) + "/s for " +
                   std::to_string(a.duration_ms) + " send " + FormatHex(a.bytes);
        case ActionKind::kPlug:
            return "plug";
        case ActionKind::kUnplug:
            return "unplug";
        case ActionKind::kExit:
            return "exit " + std::to_string(a.status);
        case ActionKind::kNote:
            return "note " + a.text;
        case ActionKind::kClock:
            return "clock";
    }
    return "?";
}

std::string DumpStep(const Step& s) {
    std::string timeout;
    if (s.timeout_ms) timeout = " timeout " + std::to_string(s.timeout_ms);
    if (s.timeout_ms && s.go_on) timeout += " continue";
    switch (s.kind) {
        case StepKind::kAt:
            return "at " + std::to_string(s.ms) + " " + DumpAction(s.action);
        case StepKind::kAfter:
            return "after " + std::to_string(s.ms) + " " + DumpAction(s.action);
        case StepKind::kWaitRx:
            return "wait rx " + FormatPattern(s.prefix) + timeout;
        case StepKind::kWaitOpen:
            return "wait open" + timeout;
        case StepKind::kWaitSpeed:
            return "wait speed " + std::to_string(s.speed) + timeout;
    }
    return "?";
}

}  // namespace

std::string DumpScript(const Script& script) {
    static const char* const kPorts[] = {"usb", "rs232", "ps2"};
    std::string out = "port " + std::string(kPorts[static_cast<int>(script.port)]);
    if (!script.link.empty()) out += " " + script.link;
    out += "\nvendor " + Hex16(script.vendor) + "\nproduct " + Hex16(script.product) +
           "\nversion " + Hex16(script.version) + "\n";
    out += "name " + script.name + "\nphys " + script.phys + "\n";
    constexpr size_t kBytesPerLine = 16;
    for (size_t i = 0; i < script.descriptor.size(); i += kBytesPerLine)
        out += "descriptor " +
               FormatHex(&script.descriptor[i],
                         std::min(kBytesPerLine, script.descriptor.size() - i)) +
               "\n";
    out += std::string("pad ") + (script.pad_reports ? "on" : "off") + "\n";
    if (script.max_burst) out += "burst " + std::to_string(script.max_burst) + "\n";
    if (script.stamp_before) out += "stamp before\n";
    for (const GetReportRule& g : script.get_reports)
        out += "getreport " + std::to_string(g.report_id) +
               (g.error ? " error " + std::to_string(g.error) : " reply " + FormatHex(g.data)) +
               "\n";
    for (const Rule& r : script.rules) {
        out += "on " + FormatPattern(r.prefix);
        if (r.times_left >= 0) out += " times " + std::to_string(r.times_left);
        if (r.speed) out += " speed " + std::to_string(r.speed);
        std::string sep = " ";
        for (const Reply& reply : r.replies) {
            out += sep + DumpReply(reply);
            sep = " ; ";
        }
        if (r.replies.empty() && !r.unplug) out += " silent";
        if (r.unplug) out += sep + "unplug";
        out += "\n";
    }
    for (const Step& s : script.steps) out += DumpStep(s) + "\n";
    return out;
}

}  // namespace tvm
