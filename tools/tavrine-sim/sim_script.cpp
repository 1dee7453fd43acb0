#include "sim_script.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tvm {

namespace {

constexpr size_t kMaxDescriptor = 4096;  // HID_MAX_DESCRIPTOR_SIZE
constexpr size_t kMaxPacket = 4096;      // UHID_DATA_MAX
constexpr uint64_t kMaxMs = 24ull * 3600 * 1000;

// The words of one line, with ';' split off as a word of its own.
std::vector<std::string> SplitWords(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    auto flush = [&] {
        if (!word.empty()) words.push_back(word);
        word.clear();
    };
    for (char c : line) {
        if (c == ' ' || c == '\t' || c == '\r') {
            flush();
        } else if (c == ';') {
            flush();
            words.emplace_back(";");
        } else {
            word += c;
        }
    }
    flush();
    return words;
}

std::string Trim(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos) return "";
    size_t end = text.find_last_not_of(" \t\r");
    return text.substr(begin, end - begin + 1);
}

bool ReadFile(const std::string& path, std::string* text) {
    std::ifstream in(path);
    if (!in) return false;
    std::ostringstream all;
    all << in.rdbuf();
    *text = all.str();
    return true;
}

class LineParser {
  public:
    LineParser(std::vector<std::string> words, std::string* error)
        : words_(std::move(words)), error_(error) {}

    bool AtEnd() const { return pos_ >= words_.size(); }
    const std::string& Peek() const { return words_[pos_]; }
    std::string Next() { return AtEnd() ? std::string() : words_[pos_++]; }
    bool Accept(const std::string& word) {
        if (AtEnd() || words_[pos_] != word) return false;
        ++pos_;
        return true;
    }

    bool Fail(const std::string& what) {
        *error_ = what;
        return false;
    }

    // "expected <what>, found '<word>'" for the word at the cursor (or the end of the line).
    bool Expected(const std::string& what) {
        return Fail("expected " + what +
                    (AtEnd() ? " at the end of the line" : ", found '" + Peek() + "'"));
    }

    // A decimal (or 0x hex) number from 0 to max.
    bool Number(uint64_t max, uint64_t* out, const std::string& what) {
        if (AtEnd() || !ParseNumber(Peek(), max, out))
            return Expected(what + " (0 to " + std::to_string(max) + ")");
        ++pos_;
        return true;
    }

    // "250", "250ms" or "2s", as milliseconds.
    bool Duration(uint64_t* ms) {
        if (AtEnd()) return Expected("a time (250, 250ms or 2s)");
        std::string word = Peek();
        uint64_t scale = 1;
        if (word.size() > 2 && word.compare(word.size() - 2, 2, "ms") == 0) {
            word.resize(word.size() - 2);
        } else if (word.size() > 1 && word.back() == 's') {
            word.pop_back();
            scale = 1000;
        }
        uint64_t value = 0;
        if (!ParseNumber(word, kMaxMs / scale, &value))
            return Expected("a time (250, 250ms or 2s, at most 24 hours)");
        ++pos_;
        *ms = value * scale;
        return true;
    }

    // One or more hex bytes, up to the first word that is not one.
    bool HexRun(size_t max, Bytes* out) {
        uint8_t byte = 0;
        size_t start = out->size();
        while (!AtEnd() && ParseHexByte(Peek(), &byte)) {
            if (out->size() >= max)
                return Fail("expected at most " + std::to_string(max) + " bytes");
            out->push_back(byte);
            ++pos_;
        }
        if (out->size() == start) return Expected("hex bytes");
        after_hex_ = AtEnd() || Peek() != ";";
        return true;
    }

    // Like HexRun, where "xx" stands for any byte.
    bool PatternRun(Pattern* out) {
        uint8_t byte = 0;
        while (!AtEnd() && (Peek() == "xx" || ParseHexByte(Peek(), &byte))) {
            if (out->bytes.size() >= kMaxPacket)
                return Fail("pattern longer than " + std::to_string(kMaxPacket));
            bool any = Peek() == "xx";
            out->bytes.push_back(any ? 0 : byte);
            out->mask.push_back(any ? 0 : 0xff);
            ++pos_;
        }
        if (out->bytes.empty()) return Expected("a pattern of hex bytes or xx");
        return true;
    }

    bool End() {
        if (!AtEnd())
            return Expected(after_hex_ ? "hex bytes or the end of the line"
                                       : "the end of the line");
        return true;
    }

  private:
    std::vector<std::string> words_;
    size_t pos_ = 0;
    bool after_hex_ = false;  // the last words read were hex bytes
    std::string* error_;
};

bool ParseReply(LineParser& p, Reply* reply) {
    if (p.Accept("after") && !p.Duration(&reply->after_ms)) return false;
    if (p.Accept("echo")) {
        reply->echo = true;
        return true;
    }
    if (p.Accept("garbage")) {
        uint64_t n = 0;
        if (!p.Number(kMaxPacket, &n, "a garbage length")) return false;
        if (n == 0) return p.Fail("expected a garbage length of 1 or more, found 0");
        reply->garbage_len = n;
        return true;
    }
    return p.HexRun(kMaxPacket, &reply->bytes);
}

bool ParseRule(LineParser& p, int line, Script* script) {
    Rule rule;
    rule.line = line;
    if (!p.PatternRun(&rule.prefix)) return false;
    if (p.Accept("times")) {
        uint64_t n = 0;
        if (!p.Number(1u << 30, &n, "a count")) return false;
        rule.times_left = static_cast<int64_t>(n);
    }
    if (p.Accept("speed")) {
        uint64_t speed = 0;
        if (!p.Number(4000000, &speed, "a line speed in bit/s")) return false;
        if (speed == 0) return p.Fail("expected a line speed in bit/s, found 0");
        rule.speed = static_cast<uint32_t>(speed);
    }
    do {
        if (p.Accept("reply")) {
            Reply reply;
            if (!ParseReply(p, &reply)) return false;
            rule.replies.push_back(reply);
        } else if (p.Accept("unplug")) {
            rule.unplug = true;
        } else if (!p.Accept("silent")) {
            return p.Expected("reply, silent or unplug");
        }
    } while (p.Accept(";"));
    if (!p.End()) return false;
    script->rules.push_back(rule);
    return true;
}

bool ParseGetReport(LineParser& p, int line, Script* script) {
    GetReportRule rule;
    rule.line = line;
    uint64_t id = 0;
    if (!p.Number(255, &id, "a report id")) return false;
    rule.report_id = static_cast<uint8_t>(id);
    if (p.Accept("error")) {
        uint64_t err = 0;
        if (!p.Number(0xffff, &err, "an error number")) return false;
        if (err == 0) return p.Fail("expected an error number of 1 or more, found 0");
        rule.error = static_cast<uint16_t>(err);
    } else if (!p.Accept("reply")) {
        return p.Expected("reply <hex bytes> or error <number>");
    } else if (!p.HexRun(kMaxPacket, &rule.data)) {
        return false;
    }
    if (!p.End()) return false;
    script->get_reports.push_back(rule);
    return true;
}

bool ParseAction(LineParser& p, const std::string& rest_of_line, Action* action) {
    std::string verb = p.Next();
    if (verb == "send") {
        if (p.Accept("garbage")) {
            uint64_t n = 0;
            if (!p.Number(kMaxPacket, &n, "a garbage length")) return false;
            if (n == 0) return p.Fail("expected a garbage length of 1 or more, found 0");
            action->kind = ActionKind::kSendGarbage;
            action->garbage_len = n;
        } else {
            action->kind = ActionKind::kSend;
            if (!p.HexRun(kMaxPacket, &action->bytes)) return false;
        }
    } else if (verb == "rate") {
        std::string word = p.AtEnd() ? std::string() : p.Peek();
        if (word.size() < 3 || word.compare(word.size() - 2, 2, "/s") != 0 ||
            !ParseNumber(word.substr(0, word.size() - 2), 100000, &action->rate_per_s) ||
            action->rate_per_s == 0)
            return p.Expected("a rate of 1/s to 100000/s");
        p.Next();
        if (!p.Accept("for")) return p.Expected("for <time>");
        if (!p.Duration(&action->duration_ms)) return false;
        if (!p.Accept("send")) return p.Expected("send <hex bytes>");
        if (!p.HexRun(kMaxPacket, &action->bytes)) return false;
        action->kind = ActionKind::kRate;
    } else if (verb == "plug") {
        action->kind = ActionKind::kPlug;
    } else if (verb == "unplug") {
        action->kind = ActionKind::kUnplug;
    } else if (verb == "exit") {
        action->kind = ActionKind::kExit;
        uint64_t status = 0;
        if (!p.AtEnd() && !p.Number(255, &status, "an exit status")) return false;
        action->status = static_cast<int>(status);
    } else if (verb == "clock") {
        action->kind = ActionKind::kClock;
    } else if (verb == "note") {
        action->kind = ActionKind::kNote;
        action->text = rest_of_line;
        return true;
    } else {
        return p.Fail(
            "expected an action (send, rate, plug, unplug, exit, note or clock), found '" + verb +
            "'");
    }
    return p.End();
}

// Text after the first 'skip' words of 'line' (for free-text arguments).
std::string RestAfterWords(const std::string& line, int skip) {
    size_t pos = 0;
    for (int i = 0; i < skip; ++i) {
        pos = line.find_first_not_of(" \t", pos);
        if (pos == std::string::npos) return "";
        pos = line.find_first_of(" \t", pos);
        if (pos == std::string::npos) return "";
    }
    return Trim(line.substr(pos));
}

bool ParseTimedStep(LineParser& p, StepKind kind, const std::string& line, int line_no,
                    Script* script) {
    Step step;
    step.line = line_no;
    step.kind = kind;
    if (!p.Duration(&step.ms)) return false;
    if (!ParseAction(p, RestAfterWords(line, 3), &step.action)) return false;
    script->steps.push_back(step);
    return true;
}

bool ParseWait(LineParser& p, int line_no, Script* script) {
    Step step;
    step.line = line_no;
    std::string what = p.Next();
    if (what == "rx") {
        step.kind = StepKind::kWaitRx;
        if (!p.PatternRun(&step.prefix)) return false;
    } else if (what == "open") {
        step.kind = StepKind::kWaitOpen;
    } else if (what == "speed") {
        step.kind = StepKind::kWaitSpeed;
        uint64_t speed = 0;
        if (!p.Number(4000000, &speed, "a line speed in bit/s")) return false;
        step.speed = static_cast<uint32_t>(speed);
    } else {
        return p.Fail("expected rx, open or speed after wait, found '" + what + "'");
    }
    if (p.Accept("timeout")) {
        if (!p.Duration(&step.timeout_ms)) return false;
        step.go_on = p.Accept("continue");
    }
    if (!p.End()) return false;
    script->steps.push_back(step);
    return true;
}

bool ParseId(LineParser& p, uint16_t* out, const char* what) {
    uint64_t value = 0;
    if (!p.Number(0xffff, &value, what)) return false;
    *out = static_cast<uint16_t>(value);
    return p.End();
}

bool AppendDescriptorFile(const std::string& path, const std::string& base_dir, Script* script,
                          std::string* error) {
    std::string full =
        (!path.empty() && path[0] == '/') || base_dir.empty() ? path : base_dir + "/" + path;
    std::string text;
    if (!ReadFile(full, &text)) {
        *error = "cannot read descriptor file " + full + ": " + std::strerror(errno);
        return false;
    }
    std::istringstream lines(text);
    std::string line;
    int line_no = 0;
    while (std::getline(lines, line)) {
        ++line_no;
        line = line.substr(0, line.find('#'));
        LineParser p(SplitWords(line), error);
        if (p.AtEnd()) continue;
        if (!p.HexRun(kMaxDescriptor, &script->descriptor) || !p.End()) {
            *error = full + ":" + std::to_string(line_no) + ": " + *error;
            return false;
        }
    }
    return true;
}

bool ParseLine(const std::string& raw, int line_no, const std::string& base_dir, Script* script,
               std::string* error) {
    std::string line = raw.substr(0, raw.find('#'));
    LineParser p(SplitWords(line), error);
    if (p.AtEnd()) return true;
    std::string verb = p.Next();
    if (verb == "port") {
        std::string kind = p.Next();
        if (kind == "usb") {
            script->port = PortKind::kUsb;
            return p.End();
        }
        if (kind != "rs232" && kind != "ps2")
            return p.Fail("expected usb, rs232 or ps2 after port, found '" + kind + "'");
        script->port = kind == "rs232" ? PortKind::kRs232 : PortKind::kPs2;
        if (p.AtEnd() || p.Peek()[0] != '/') return p.Expected("an absolute link path");
        script->link = p.Next();
        return p.End();
    }
    if (verb == "vendor") return ParseId(p, &script->vendor, "a vendor id");
    if (verb == "product") return ParseId(p, &script->product, "a product id");
    if (verb == "version") {
        uint64_t value = 0;
        if (!p.Number(0xffffffffu, &value, "a version")) return false;
        script->version = static_cast<uint32_t>(value);
        return p.End();
    }
    if (verb == "name" || verb == "phys") {
        std::string text = RestAfterWords(line, 1);
        if (text.empty() || text.size() > 127)
            return p.Fail("expected a text of 1 to 127 characters after " + verb);
        (verb == "name" ? script->name : script->phys) = text;
        return true;
    }
    if (verb == "descriptor") return p.HexRun(kMaxDescriptor, &script->descriptor) && p.End();
    if (verb == "descriptor-file") {
        std::string path = p.Next();
        return p.End() && AppendDescriptorFile(path, base_dir, script, error);
    }
    if (verb == "burst") {
        uint64_t value = 0;
        if (!p.Number(100000, &value, "a step count")) return false;
        script->max_burst = static_cast<uint32_t>(value);
        return p.End();
    }
    if (verb == "stamp") {
        if (p.Accept("before")) {
            script->stamp_before = true;
        } else if (p.Accept("after")) {
            script->stamp_before = false;
        } else {
            return p.Expected("before or after");
        }
        return p.End();
    }
    if (verb == "pad") {
        if (p.Accept("on")) {
            script->pad_reports = true;
        } else if (p.Accept("off")) {
            script->pad_reports = false;
        } else {
            return p.Expected("on or off");
        }
        return p.End();
    }
    if (verb == "getreport") return ParseGetReport(p, line_no, script);
    if (verb == "on") return ParseRule(p, line_no, script);
    if (verb == "at") return ParseTimedStep(p, StepKind::kAt, line, line_no, script);
    if (verb == "after") return ParseTimedStep(p, StepKind::kAfter, line, line_no, script);
    if (verb == "wait") return ParseWait(p, line_no, script);
    return p.Fail(
        "expected a directive (port, vendor, product, version, name, phys, descriptor, "
        "descriptor-file, burst, pad, stamp, getreport, on, at, after or wait), found '" +
        verb + "'");
}

}  // namespace

bool Matches(const Pattern& pattern, const Bytes& packet) {
    if (packet.size() < pattern.bytes.size()) return false;
    for (size_t i = 0; i < pattern.bytes.size(); ++i)
        if ((packet[i] & pattern.mask[i]) != pattern.bytes[i]) return false;
    return true;
}

std::string FormatPattern(const Pattern& pattern) {
    std::string text;
    for (size_t i = 0; i < pattern.bytes.size(); ++i) {
        if (i) text += ' ';
        text += pattern.mask[i] ? FormatHex(&pattern.bytes[i], 1) : "xx";
    }
    return text;
}

bool ParseActionLine(const std::string& line, Action* action, std::string* error) {
    LineParser p(SplitWords(line.substr(0, line.find('#'))), error);
    if (p.AtEnd()) return p.Fail("empty command");
    return ParseAction(p, RestAfterWords(line, 1), action);
}

bool ParseScript(const std::string& text, const std::string& base_dir, Script* script,
                 std::string* error) {
    std::istringstream lines(text);
    std::string line;
    int line_no = 0;
    while (std::getline(lines, line)) {
        ++line_no;
        std::string why;
        if (!ParseLine(line, line_no, base_dir, script, &why)) {
            *error = std::to_string(line_no) + ": " + why;
            return false;
        }
    }
    if (script->port == PortKind::kUsb && script->descriptor.empty()) {
        *error = std::to_string(line_no) +
                 ": expected a descriptor (descriptor or descriptor-file) for a usb port";
        return false;
    }
    return true;
}

bool LoadScript(const std::string& path, Script* script, std::string* error) {
    std::string text;
    if (!ReadFile(path, &text)) {
        *error = "cannot read script " + path + ": " + std::strerror(errno);
        return false;
    }
    size_t slash = path.rfind('/');
    std::string base_dir = slash == std::string::npos ? "." : path.substr(0, slash);
    if (!ParseScript(text, base_dir, script, error)) {
        *error = path + ":" + *error;
        return false;
    }
    return true;
}

}  // namespace tvm
