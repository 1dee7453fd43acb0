#include "log_replay.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tvm {

namespace {

constexpr uint64_t kDayMs = 24ull * 3600 * 1000;
constexpr uint64_t kReplyWindowMs = 1000;  // reads after a rule's command that answer it
constexpr uint64_t kWaitSlackMs = 10000;   // a replayed command may come this much later
constexpr uint64_t kFastLeadMs = 1000;     // --fast: longest pause kept after a command
constexpr size_t kMaxDescriptor = 4096;
constexpr size_t kListedNotes = 5;  // lines named one by one per kind of skip
constexpr uint8_t kUsbHeader = 0x03;
constexpr uint8_t kSerialHeader = 0x0a;
constexpr const char* kOwnWriteText = "SelfRecv, write down command: ";

// What one line of the log says about the session.
enum class Kind {
    kNone,        // a daemon line the replay does not need
    kAddDevice,   // a device object is created for 'path'
    kInterface,   // 'path' = "USB", "RS232" or "PS2"
    kBaud,        // the device opened 'path' at 'number' bit/s
    kPhys,        // physical address of the USB device
    kVendor,      // vendor id found by the USB scan
    kDescriptor,  // bytes [first, first + bytes.size()) of a report descriptor of 'total'
    kScan,        // the scan found the node 'path'
    kSpeed,       // the line was set to 'number' bit/s
    kLoopback,    // the loop-back command is sent to 'path'
    kRead,        // the daemon read 'bytes' from 'path'
    kProbeRead,   // the probe or loop-back exchange read 'bytes'
    kOwnWrite,    // the device's thread wrote a command and reads its reply itself
    kToolWrite,   // a command written for the maintenance tool
    kByteWrite,   // one byte of a command written byte by byte
    kNoData,      // the port read empty: the controller is gone
};

struct Record {
    Kind kind = Kind::kNone;
    int line = 0;
    uint64_t ms = 0;
    std::string path;
    uint32_t number = 0;
    uint16_t product = 0;
    size_t first = 0;
    size_t total = 0;
    Bytes bytes;
};

// Kinds of skipped lines, each counted and named up to kListedNotes times.
struct SkipList {
    explicit SkipList(std::string text) : what(std::move(text)) {}

    std::string what;
    size_t count = 0;
    std::string lines;

    void Add(int line) {
        if (count++ < kListedNotes) lines += (lines.empty() ? "" : ", ") + std::to_string(line);
    }
    std::string Note() const {
        std::string more = count > kListedNotes ? " ..." : "";
        return what + ": " + std::to_string(count) + " skipped (line" + (count > 1 ? "s " : " ") +
               lines + more + ")";
    }
};

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// Splits "[hh:mm:ss:mmm]-: <Tag> message" (or an untagged "... -:  message") into the
// milliseconds of the day and the message without tag and "[E] ".
bool SplitLine(const std::string& raw, uint64_t* ms_of_day, std::string* message) {
    unsigned h = 0, m = 0, s = 0, ms = 0;
    int end = 0;
    if (std::sscanf(raw.c_str(), "[%2u:%2u:%2u:%3u]-:%n", &h, &m, &s, &ms, &end) != 4 || end == 0 ||
        h > 23 || m > 59 || s > 60 || ms > 999)
        return false;
    size_t pos = raw.find_first_not_of(' ', static_cast<size_t>(end));
    if (pos != std::string::npos && raw[pos] == '<') {
        size_t close = raw.find('>', pos);
        if (close != std::string::npos) pos = raw.find_first_not_of(' ', close + 1);
    }
    *message = pos == std::string::npos ? std::string() : raw.substr(pos);
    if (StartsWith(*message, "[E] ")) message->erase(0, 4);
    *ms_of_day = ((h * 60ull + m) * 60ull + s) * 1000ull + ms;
    return true;
}

// "[06][01]..." as the daemon dumps bytes; false when a group is broken or the count
// differs from 'expected' (a line cut short).
bool ParseDump(const char* text, int expected, Bytes* out) {
    out->clear();
    unsigned value = 0;
    int used = 0;
    // 'used' is set only when a whole group matched: a cut group ends the loop.
    while (*text == '[' && (used = 0, std::sscanf(text, "[%2x]%n", &value, &used)) == 1 &&
           used == 4) {
        out->push_back(static_cast<uint8_t>(value));
        text += used;
    }
    return *text == '\0' && expected == static_cast<int>(out->size()) && !out->empty();
}

// "0501A1..." (the descriptor lines).
bool ParseCompactHex(const char* text, Bytes* out) {
    out->clear();
    unsigned value = 0;
    while (std::isxdigit(static_cast<unsigned char>(text[0])) &&
           std::isxdigit(static_cast<unsigned char>(text[1])) &&
           std::sscanf(text, "%2x", &value) == 1) {
        out->push_back(static_cast<uint8_t>(value));
        text += 2;
    }
    return *text == '\0' && !out->empty();
}

// Reads what 'message' says into 'r'. False when a line the replay needs is damaged.
bool ParseMessage(const std::string& message, Record* r) {
    const char* msg = message.c_str();
    char path[128] = {};
    char word[16] = {};
    unsigned a = 0, b = 0;
    int x = 0, y = 0, z = 0, tail = 0;
    if (std::sscanf(msg, "Add device [%127[^]]], current device amount = %d", path, &x) == 2) {
        r->kind = Kind::kAddDevice;
    } else if (std::sscanf(msg, "DevInterface = %15[A-Z0-9]. Cmd header", word) == 1) {
        r->kind = Kind::kInterface;
        r->path = word;
        return true;
    } else if (std::sscanf(msg, "Set Device [%127[^]]] BaudRate %u", path, &a) == 2) {
        r->kind = Kind::kBaud;
        r->number = a;
    } else if (std::sscanf(msg, "Device Physical address = [%127[^]]].", path) == 1) {
        r->kind = Kind::kPhys;
    } else if (std::sscanf(msg, "Vendor ID %4x is detected.", &a) == 1) {
        r->kind = Kind::kVendor;
        r->number = a;
        return true;
    } else if (std::sscanf(msg, "Descriptor of [%127[^]]] %4x:%4x bytes %d-%d of %d: %n", path, &a,
                           &b, &x, &y, &z, &tail) == 6 &&
               tail > 0) {
        r->kind = Kind::kDescriptor;
        r->number = a;
        r->product = static_cast<uint16_t>(b);
        if (x < 0 || y < x || z <= y || static_cast<size_t>(z) > kMaxDescriptor ||
            !ParseCompactHex(msg + tail, &r->bytes) ||
            r->bytes.size() != static_cast<size_t>(y - x + 1))
            return false;
        r->first = static_cast<size_t>(x);
        r->total = static_cast<size_t>(z);
    } else if (std::sscanf(msg, "----  Scan %*s %*s [%127[^]]]  ----", path) == 1) {
        r->kind = Kind::kScan;
    } else if (std::sscanf(msg, "Set Baudrate to %u", &a) == 1) {
        r->kind = Kind::kSpeed;
        r->number = a;
        return true;
    } else if (std::sscanf(msg, "Entering SetLoopback. Send to device [%127[^]]]", path) == 1) {
        r->kind = Kind::kLoopback;
    } else if (std::sscanf(msg, "Read from device [%127[^]]] %d byte: %n", path, &x, &tail) == 2 &&
               tail > 0) {
        r->kind = Kind::kRead;
        if (!ParseDump(msg + tail, x, &r->bytes)) return false;
    } else if ((tail = 0, std::sscanf(msg, "Read %d bytes from device: %n", &x, &tail)) == 1 &&
               tail > 0) {
        r->kind = Kind::kProbeRead;
        return ParseDump(msg + tail, x, &r->bytes);
    } else if (StartsWith(message, kOwnWriteText)) {
        r->kind = Kind::kOwnWrite;
        const char* dump = msg + std::strlen(kOwnWriteText);
        return ParseDump(dump, static_cast<int>(std::strlen(dump) / 4), &r->bytes);
    } else if ((tail = 0, std::sscanf(msg, "Write to device %d bytes: %n", &x, &tail)) == 1 &&
               tail > 0) {
        r->kind = Kind::kToolWrite;
        return ParseDump(msg + tail, x, &r->bytes);
    } else if (std::sscanf(msg, "Write cmd=0x%x", &a) == 1 && a <= 0xff) {
        r->kind = Kind::kByteWrite;
        r->bytes.assign(1, static_cast<uint8_t>(a));
        return true;
    } else if (StartsWith(message, "Detect no data in port.")) {
        r->kind = Kind::kNoData;
        return true;
    } else {
        return true;
    }
    r->path = path;
    return true;
}

// Turns the records of the chosen port into the script's rules and steps.
class Builder {
  public:
    Builder(const ReplayOptions& options, Script* script, ReplaySummary* summary)
        : options_(options), script_(script), summary_(summary) {}

    void Start(uint64_t ms) { anchor_ms_ = last_ms_ = first_ms_ = ms; }

    void Add(const Record& r) {
        switch (r.kind) {
            case Kind::kAddDevice:
                PlugIfGone(r);
                if (script_->port == PortKind::kUsb) {
                    Step step = Wait(r, StepKind::kWaitOpen);
                    step.timeout_ms = 0;  // the daemon may be started at any time
                    Anchor(step, r.ms);
                }
                break;
            case Kind::kScan:
                PlugIfGone(r);
                break;
            case Kind::kSpeed:
                speed_ = r.number;
                break;
            case Kind::kOwnWrite: {
                OpenRule(r, r.bytes);
                Step step = Wait(r, StepKind::kWaitRx);
                step.prefix = Exact(r.bytes);
                ++summary_->waits;
                Anchor(step, r.ms);
                break;
            }
            case Kind::kToolWrite:
                OpenRule(r, r.bytes);
                break;
            case Kind::kByteWrite:
                AddWrittenByte(r);
                break;
            case Kind::kRead:
            case Kind::kProbeRead:
                AddRead(r);
                break;
            case Kind::kNoData:
                CloseRule();
                if (!gone_) Emit(r, ActionKind::kUnplug);
                gone_ = true;
                break;
            default:
                return;
        }
        ++summary_->used;
        last_ms_ = r.ms;
    }

    // Ends the script: rules get the device's line speed where the log named none.
    void Finish(uint32_t device_baud) {
        CloseRule();
        if (!byte_writes_ && script_->port != PortKind::kUsb && device_baud) {
            Rule rule;
            rule.prefix = Exact({kSerialHeader, 0x01, 0x41});
            rule.replies.push_back(Reply{0, {kSerialHeader, 0x01, 0x41}, 0, false});
            script_->rules.push_back(rule);
            summary_->notes.push_back(
                "no byte-wise command lines (category 0x400000): the loop-back is answered "
                "at " +
                std::to_string(device_baud) + " bit/s by rule");
        }
        for (Rule& rule : script_->rules)
            if (script_->port != PortKind::kUsb && rule.speed == 0) rule.speed = device_baud;
        Step end;
        end.line = 0;
        end.kind = StepKind::kAfter;
        end.action.kind = ActionKind::kNote;
        end.action.text = "replay done: " + std::to_string(summary_->reports) + " reports, " +
                          std::to_string(summary_->answers) + " replies";
        script_->steps.push_back(end);
        summary_->span_ms = last_ms_ - first_ms_;
    }

  private:
    static Pattern Exact(const Bytes& bytes) { return Pattern{bytes, Bytes(bytes.size(), 0xff)}; }

    // Time of a step from the last clock restart. Played fast, the first step after a
    // command keeps its offset (the daemon may still be setting up, as it was then), at
    // most kFastLeadMs, and the steps after it follow at once.
    uint64_t Offset(uint64_t ms) {
        uint64_t offset = ms < anchor_ms_ ? 0 : ms - anchor_ms_;
        if (!options_.fast) return offset;
        if (!fast_lead_taken_) fast_lead_ms_ = std::min(offset, kFastLeadMs);
        fast_lead_taken_ = true;
        return fast_lead_ms_;
    }

    Step Wait(const Record& r, StepKind kind) const {
        Step step;
        step.line = r.line;
        step.kind = kind;
        uint64_t gap = r.ms > last_ms_ ? r.ms - last_ms_ : 0;
        step.timeout_ms = anchored_ ? std::max(kWaitSlackMs, 2 * gap) : 0;
        step.go_on = true;
        return step;
    }

    // A wait, then the clock restarts: later reads count from the moment it passed.
    void Anchor(const Step& wait, uint64_t ms) {
        script_->steps.push_back(wait);
        Step clock;
        clock.line = wait.line;
        clock.kind = StepKind::kAfter;
        clock.action.kind = ActionKind::kClock;
        script_->steps.push_back(clock);
        anchor_ms_ = ms;
        anchored_ = true;
        fast_lead_taken_ = false;
    }

    void Emit(const Record& r, ActionKind kind, const Bytes& bytes = {}) {
        Step step;
        step.line = r.line;
        step.kind = StepKind::kAt;
        step.ms = Offset(r.ms);
        step.action.kind = kind;
        step.action.bytes = bytes;
        script_->steps.push_back(step);
    }

    void PlugIfGone(const Record& r) {
        if (!gone_) return;
        gone_ = false;
        Emit(r, ActionKind::kPlug);
    }

    bool ReplyShaped(const Bytes& bytes) const {
        size_t i = script_->port == PortKind::kUsb && bytes.size() > 1 && bytes[0] == 0 ? 1 : 0;
        return bytes[i] == kSerialHeader ||
               (script_->port == PortKind::kUsb && bytes[i] == kUsbHeader);
    }

    void AddRead(const Record& r) {
        bool in_window = rule_open_ && r.ms <= rule_write_ms_ + kReplyWindowMs;
        if (in_window && (r.kind == Kind::kProbeRead || ReplyShaped(r.bytes))) {
            Rule& rule = script_->rules.back();
            if (rule.replies.empty()) first_reply_ms_ = r.ms;
            uint64_t after = options_.fast ? 0 : r.ms - first_reply_ms_;
            rule.replies.push_back(Reply{after, r.bytes, 0, false});
            ++summary_->answers;
            return;
        }
        if (r.kind == Kind::kProbeRead) return;  // a probe's read with no command before it
        Emit(r, ActionKind::kSend, r.bytes);
        ++summary_->reports;
    }

    // Every command gets a rule used once, in the log's order, so that a command sent
    // again later (by the tool, say) takes the next answer and not this one. On a serial
    // port the rule answers only at the line speed of the moment.
    void OpenRule(const Record& r, const Bytes& command) {
        CloseRule();
        Rule rule;
        rule.line = r.line;
        rule.prefix = Exact(command);
        rule.times_left = 1;
        if (script_->port != PortKind::kUsb) rule.speed = speed_;
        script_->rules.push_back(rule);
        rule_open_ = true;
        rule_write_ms_ = r.ms;
    }

    // A command left unanswered stays unanswered (its rule is silent), unless its line speed
    // is unknown: such a rule could take a later command that was answered.
    void CloseRule() {
        if (rule_open_ && script_->rules.back().replies.empty() &&
            script_->port != PortKind::kUsb && speed_ == 0)
            script_->rules.pop_back();
        rule_open_ = false;
    }

    // Bytes written one at a time (serial ports) form a command from a header byte to the
    // length its second byte gives; bytes before a header are dropped.
    void AddWrittenByte(const Record& r) {
        byte_writes_ = true;
        uint8_t b = r.bytes[0];
        if (group_.empty()) {
            if (b != kSerialHeader && b != kUsbHeader) return;
            group_line_ = r.line;
        }
        group_.push_back(b);
        if (group_.size() < 2 || group_.size() < 2u + group_[1]) return;
        Record write = r;
        write.line = group_line_;
        OpenRule(write, group_);
        group_.clear();
    }

    const ReplayOptions& options_;
    Script* script_;
    ReplaySummary* summary_;
    uint64_t first_ms_ = 0, last_ms_ = 0, anchor_ms_ = 0;
    bool anchored_ = false;
    bool fast_lead_taken_ = false;
    uint64_t fast_lead_ms_ = 0;
    bool gone_ = false;
    bool rule_open_ = false;
    uint64_t rule_write_ms_ = 0, first_reply_ms_ = 0;
    uint32_t speed_ = 0;
    bool byte_writes_ = false;
    Bytes group_;
    int group_line_ = 0;
};

PortKind KindOfPath(const std::string& path) {
    if (StartsWith(path, "/dev/hidraw")) return PortKind::kUsb;
    if (StartsWith(path, "/dev/serio_raw")) return PortKind::kPs2;
    return PortKind::kRs232;
}

}  // namespace

bool ScriptFromLogText(const std::string& text, const std::string& name,
                       const ReplayOptions& options, Script* script, ReplaySummary* summary,
                       std::string* error) {
    *summary = ReplaySummary();
    SkipList unknown("lines without the log's time prefix");
    SkipList damaged("damaged or cut lines");
    SkipList others("reads of other ports");

    std::vector<Record> records;
    std::istringstream lines(text);
    std::string raw;
    uint64_t day = 0, last_of_day = 0;
    int line_no = 0;
    while (std::getline(lines, raw)) {
        ++line_no;
        uint64_t of_day = 0;
        std::string message;
        if (!SplitLine(raw, &of_day, &message)) {
            if (!raw.empty() && raw.find_first_not_of(" \t\r") != std::string::npos)
                unknown.Add(line_no);
            continue;
        }
        if (of_day + kDayMs / 2 < last_of_day) ++day;  // past midnight
        last_of_day = of_day;
        Record r;
        r.line = line_no;
        r.ms = day * kDayMs + of_day;
        if (!ParseMessage(message, &r)) {
            damaged.Add(line_no);
            continue;
        }
        if (r.kind != Kind::kNone) records.push_back(std::move(r));
    }
    summary->lines = static_cast<size_t>(line_no);

    // The port: the first device the daemon created (or, without those lines, read from).
    std::string port;
    for (const Record& r : records)
        if (r.kind == Kind::kAddDevice || (port.empty() && r.kind == Kind::kRead)) {
            port = r.path;
            if (r.kind == Kind::kAddDevice) break;
        }
    if (port.empty()) {
        *error = name + ": no device in the log (no \"Add device\" or \"Read from device\" line)";
        return false;
    }
    summary->port_path = port;
    std::vector<std::string> ports;
    for (const Record& r : records)
        if (r.kind == Kind::kAddDevice &&
            std::find(ports.begin(), ports.end(), r.path) == ports.end())
            ports.push_back(r.path);
    if (ports.size() > 1)
        summary->notes.push_back("the log holds " + std::to_string(ports.size()) +
                                 " ports; replaying " + port +
                                 ", whose commands are all lines without a port name");
    script->port = KindOfPath(port);
    script->link = script->port == PortKind::kUsb ? "" : options.link.empty() ? port : options.link;

    // Facts of the port, and the records that belong to it: probe and loop-back lines name
    // no port, they belong to the port last scanned or sent the loop-back.
    Bytes descriptor;
    std::vector<bool> have;
    uint32_t device_baud = 0;
    std::string current = port;
    std::vector<const Record*> mine;
    for (const Record& r : records) {
        switch (r.kind) {
            case Kind::kInterface:
                if (current == port)
                    script->port = r.path == "USB"   ? PortKind::kUsb
                                   : r.path == "PS2" ? PortKind::kPs2
                                                     : PortKind::kRs232;
                continue;
            case Kind::kVendor:
                if (current == port) script->vendor = static_cast<uint16_t>(r.number);
                continue;
            case Kind::kScan:
            case Kind::kLoopback:
            case Kind::kAddDevice:
                current = r.path;
                break;
            case Kind::kBaud:
                if (r.path == port) device_baud = r.number;
                continue;
            case Kind::kPhys:
                if (current == port && r.path != "NULL") script->phys = r.path;
                continue;
            case Kind::kDescriptor:
                if (r.path != port) continue;
                script->vendor = static_cast<uint16_t>(r.number);
                script->product = r.product;
                descriptor.resize(r.total);
                have.resize(r.total);
                for (size_t i = 0; i < r.bytes.size(); ++i) {
                    descriptor[r.first + i] = r.bytes[i];
                    have[r.first + i] = true;
                }
                continue;
            default:
                break;
        }
        // Lines of a device's own thread name no port: with one device they are its own.
        bool ours = false;
        switch (r.kind) {
            case Kind::kRead:
            case Kind::kAddDevice:
            case Kind::kScan:
            case Kind::kLoopback:
                ours = r.path == port;
                break;
            case Kind::kOwnWrite:
            case Kind::kToolWrite:
            case Kind::kNoData:
                ours = true;
                break;
            default:
                ours = current == port;
                break;
        }
        if (ours) {
            mine.push_back(&r);
        } else if (r.kind == Kind::kRead) {
            others.Add(r.line);
        }
    }
    if (script->port != PortKind::kUsb && script->link.empty()) script->link = port;

    if (script->port == PortKind::kUsb) {
        size_t missing = 0;
        for (bool b : have) missing += b ? 0 : 1;
        if (descriptor.empty() || missing) {
            *error =
                name + ": " +
                (descriptor.empty() ? std::string("no")
                                    : std::to_string(descriptor.size() - missing) + " of " +
                                          std::to_string(descriptor.size()) + " bytes of the") +
                " report descriptor of " + port +
                " in the log (\"Descriptor of\" lines, category 0x2, logged at set-up)";
            return false;
        }
        script->descriptor = descriptor;
    }

    if (options.fast) script->max_burst = 1;
    Builder builder(options, script, summary);
    if (!mine.empty()) builder.Start(mine.front()->ms);
    for (const Record* r : mine) builder.Add(*r);
    builder.Finish(device_baud);

    for (const SkipList* list : {&unknown, &damaged, &others})
        if (list->count) summary->notes.push_back(list->Note());
    if (summary->reports + summary->answers == 0)
        summary->notes.push_back("no data read from the port (category 0x100000)");
    if (summary->waits == 0)
        summary->notes.push_back("no command written by set-up (category 0x200000)");
    if (script->port != PortKind::kUsb && device_baud == 0)
        summary->notes.push_back("no line speed of the port (\"Set Device\", category 0x2)");
    return true;
}

bool ScriptFromLog(const std::string& path, const ReplayOptions& options, Script* script,
                   ReplaySummary* summary, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read log " + path + ": " + std::strerror(errno);
        return false;
    }
    std::ostringstream all;
    all << in.rdbuf();
    size_t slash = path.rfind('/');
    return ScriptFromLogText(all.str(), slash == std::string::npos ? path : path.substr(slash + 1),
                             options, script, summary, error);
}

}  // namespace tvm
