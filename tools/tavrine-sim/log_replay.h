// A TavrineD debug log turned into the script that plays its session back through the same
// kernel path: the port kind and what the controller declared (report descriptor, ids,
// physical address, line speed), the replies it gave to the commands the daemon wrote, and
// every report the daemon read, at the spacing the log's times give.
//
// How the session maps onto the script:
// - every command the daemon wrote (during set-up, for the maintenance tool, or byte by byte
//   in the serial probe and loop-back) is a reply rule `on <command> times 1`, in the log's
//   order, with the reply reads that followed it within a second (none: it stays silent);
//   on a serial port it answers at the line speed of the moment;
// - a command written during set-up ("SelfRecv, write down command") is also a step
//   `wait rx <command>` that restarts the clock (`clock`): the reads that are not replies
//   are sent at their offsets from it (`at <ms> send`), so reports keep their place;
// - "Detect no data in port" unplugs; the port seen again by a scan plugs it back.
#pragma once

#include <string>
#include <vector>

#include "sim_script.h"

namespace tvm {

struct ReplayOptions {
    bool fast = false;  // no pauses between reports (one a millisecond at most); the pause
                        // before the first report after a command is kept, up to 1 s
    std::string link;   // serial and PS/2: path of the port (default: the log's port path)
};

// What a conversion took from the log and what it left out, for the user.
struct ReplaySummary {
    std::string port_path;
    size_t lines = 0;                // lines in the log
    size_t used = 0;                 // lines the script took something from
    size_t reports = 0;              // reads sent on the clock
    size_t answers = 0;              // reads sent as replies to a command
    size_t waits = 0;                // commands the replay waits for
    uint64_t span_ms = 0;            // log time from the port's first to its last event
    std::vector<std::string> notes;  // what was skipped or is missing, one line each
};

// Parses the log 'text' ('name' for messages). False with 'error' set when nothing can be
// played (no port, or a USB port without its descriptor).
bool ScriptFromLogText(const std::string& text, const std::string& name,
                       const ReplayOptions& options, Script* script, ReplaySummary* summary,
                       std::string* error);

// The same for a file.
bool ScriptFromLog(const std::string& path, const ReplayOptions& options, Script* script,
                   ReplaySummary* summary, std::string* error);

}  // namespace tvm
