// The controller simulator's script: which port to play, what the controller answers to
// each command it receives (the reply table), and a list of timed or waiting steps. The
// language, with examples, is documented in docs/tavrine-sim.1.md; every directive is
// parsed here and written back by DumpScript (sim_dump.h).
//
// The first 'on' rule whose prefix starts a received packet and that has uses left answers
// it; later rules with the same prefix serve once the earlier ones are used up. Received
// packets no rule matches are only logged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hex.h"

namespace tvm {

enum class PortKind { kUsb, kRs232, kPs2 };

// Bytes a received packet must start with; a mask byte of 0 matches any.
struct Pattern {
    Bytes bytes;
    Bytes mask;
};

bool Matches(const Pattern& pattern, const Bytes& packet);
std::string FormatPattern(const Pattern& pattern);

struct Reply {
    uint64_t after_ms = 0;
    Bytes bytes;
    size_t garbage_len = 0;  // > 0: send this many pseudo-random bytes instead
    bool echo = false;       // send the received packet back
};

struct Rule {
    int line = 0;
    Pattern prefix;
    int64_t times_left = -1;  // -1: unlimited
    uint32_t speed = 0;       // serial: answer only at this line speed; 0 = any
    std::vector<Reply> replies;
    bool unplug = false;
};

struct GetReportRule {
    int line = 0;
    uint8_t report_id = 0;
    Bytes data;
    uint16_t error = 0;  // non-zero: answer with this errno and no data
};

enum class ActionKind { kSend, kSendGarbage, kRate, kPlug, kUnplug, kExit, kNote, kClock };

struct Action {
    ActionKind kind = ActionKind::kNote;
    Bytes bytes;
    size_t garbage_len = 0;
    uint64_t rate_per_s = 0;
    uint64_t duration_ms = 0;
    int status = 0;
    std::string text;
};

enum class StepKind { kAt, kAfter, kWaitRx, kWaitOpen, kWaitSpeed };

struct Step {
    int line = 0;
    StepKind kind = StepKind::kAt;
    uint64_t ms = 0;          // kAt, kAfter
    uint64_t timeout_ms = 0;  // waits; 0 = no limit
    bool go_on = false;       // waits: at the time-out go on with the next step instead of ending
    Pattern prefix;           // kWaitRx
    uint32_t speed = 0;       // kWaitSpeed
    Action action;            // kAt, kAfter
};

struct Script {
    PortKind port = PortKind::kUsb;
    std::string link;  // serial and PS/2: path linked to the pty slave
    uint16_t vendor = 0x3c7a;
    uint16_t product = 0x0001;
    uint32_t version = 0x0100;
    std::string name = "Tavrine Test Controller";
    std::string phys = "usb-tavrine-sim/input0";
    Bytes descriptor;
    bool pad_reports = true;    // USB: pad input reports to their declared size
    uint32_t max_burst = 0;     // timed steps run per wake-up at most; 0 = no limit
    bool stamp_before = false;  // USB: 'tx' lines carry the time before the write
    std::vector<Rule> rules;
    std::vector<GetReportRule> get_reports;
    std::vector<Step> steps;
};

// Parses 'text'. 'base_dir' resolves relative descriptor-file paths.
// On failure returns false and sets 'error' to "N: expected ..., found '...'" (N the line).
bool ParseScript(const std::string& text, const std::string& base_dir, Script* script,
                 std::string* error);

// Parses one step action ("send 06 01 ...", "unplug", ...), as written
// after "at <time>" in a script; used for commands sent at run time.
bool ParseActionLine(const std::string& line, Action* action, std::string* error);

// Reads and parses a script file; errors read "FILE:N: expected ..., found '...'".
bool LoadScript(const std::string& path, Script* script, std::string* error);

}  // namespace tvm
