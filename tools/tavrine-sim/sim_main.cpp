// tavrine-sim: plays one touch controller on USB (uhid), RS232 or PS/2 (pty) as a script
// says, or as a TavrineD debug log recorded it, answers the commands it receives, and
// records every byte both ways with CLOCK_MONOTONIC times. Options in Usage() and in
// docs/tavrine-sim.1.md.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "log_replay.h"
#include "sim_dump.h"
#include "sim_engine.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void OnStop(int) {
    g_stop = 1;
}

const char kUsage[] =
    "usage: tavrine-sim SCRIPT [OPTIONS]\n"
    "       tavrine-sim --from-log LOG [--fast] [--link PATH] [OPTIONS]\n"
    "       tavrine-sim --help | --version\n"
    "\n"
    "Plays one touch controller of the Tavrine family on USB (through /dev/uhid), on an\n"
    "RS232 port or as a PS/2 port (a pty linked at a path), as SCRIPT says or as a TavrineD\n"
    "debug log recorded it.\n"
    "\n"
    "  --from-log LOG    play the session of LOG (TavrineD -f -d 7fffff -p 0): its port,\n"
    "                    descriptor, replies and reports, spaced as the log's times say\n"
    "  --fast            with --from-log: no pauses between reports (one a millisecond at\n"
    "                    most); the pause after a command is kept, up to 1 s\n"
    "  --link PATH       with --from-log: path of a serial or PS/2 port (default: the log's)\n"
    "  --log FILE        record of every byte and event (default: standard error)\n"
    "  --ready FILE      created once the host can reach the port\n"
    "  --control FIFO    each line written to FIFO is a step action, run at once\n"
    "  --max-ms N        end after N milliseconds\n"
    "  --check           only read the script (or log) and report errors\n"
    "  --dump            print the script as read (for a log: the script it plays) and end\n"
    "\n"
    "Script lines ('#' starts a comment; times in ms, or with ms or s):\n"
    "  port usb | port rs232 PATH | port ps2 PATH\n"
    "  vendor ID  product ID  version N  name TEXT  phys TEXT\n"
    "  descriptor HEX...  descriptor-file FILE    (USB report descriptor, appended)\n"
    "  pad on|off  stamp before|after  burst N  getreport ID reply HEX... | error ERRNO\n"
    "  on PATTERN [times N] [speed BAUD] ACTION [; ACTION]...\n"
    "      ACTION: reply [after TIME] HEX... | reply [after TIME] garbage N\n"
    "            | reply [after TIME] echo | silent | unplug\n"
    "      PATTERN: hex bytes a received packet starts with; xx matches any byte\n"
    "  at TIME STEP | after TIME STEP\n"
    "      STEP: send HEX... | send garbage N | rate N/s for TIME send HEX...\n"
    "          | plug | unplug | note TEXT | clock | exit [STATUS]\n"
    "  wait rx PATTERN | wait open | wait speed BAUD   [timeout TIME [continue]]\n"
    "\n"
    "Exit status: 0 stopped by a signal, --max-ms or exit (or the status exit names);\n"
    "2 bad usage, script or log; 3 a wait timed out; 4 the port could not be set up.\n"
    "See tavrine-sim(1).\n";

int Usage() {
    std::fputs(kUsage, stderr);
    return 2;
}

struct Options {
    std::string script_path, from_log, log_path = "-", ready_path, control_path;
    uint64_t max_ms = 0;
    bool check_only = false, dump = false;
    tvm::ReplayOptions replay;
};

// 0 when the options were read; otherwise the exit status (help and version give 0).
int ParseOptions(int argc, char** argv, Options* o, bool* done) {
    *done = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool has_value = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            *done = true;
            return 0;
        } else if (arg == "--version") {
            std::printf("tavrine-sim %s\n", TAVRINE_VERSION);
            *done = true;
            return 0;
        } else if (arg == "--log" && has_value) {
            o->log_path = argv[++i];
        } else if (arg == "--ready" && has_value) {
            o->ready_path = argv[++i];
        } else if (arg == "--control" && has_value) {
            o->control_path = argv[++i];
        } else if (arg == "--from-log" && has_value) {
            o->from_log = argv[++i];
        } else if (arg == "--link" && has_value && argv[i + 1][0] == '/') {
            o->replay.link = argv[++i];
        } else if (arg == "--fast") {
            o->replay.fast = true;
        } else if (arg == "--max-ms" && has_value) {
            if (!tvm::ParseNumber(argv[++i], 24ull * 3600 * 1000, &o->max_ms)) return Usage();
        } else if (arg == "--check" || arg == "--dump") {
            o->check_only = true;
            o->dump = o->dump || arg == "--dump";
        } else if (o->script_path.empty() && !arg.empty() && arg[0] != '-') {
            o->script_path = arg;
        } else {
            std::fprintf(stderr, "tavrine-sim: unknown option or missing value: %s\n", argv[i]);
            return Usage();
        }
    }
    if (o->script_path.empty() == o->from_log.empty()) return Usage();
    return 0;
}

// Builds the script from the log and tells what it holds, on standard error (and as
// comments in front of a dump).
bool LoadReplay(const Options& o, tvm::Script* script, std::string* comments) {
    tvm::ReplaySummary s;
    std::string error;
    if (!tvm::ScriptFromLog(o.from_log, o.replay, script, &s, &error)) {
        std::fprintf(stderr, "tavrine-sim: %s\n", error.c_str());
        return false;
    }
    static const char* const kPorts[] = {"usb", "rs232", "ps2"};
    char head[512];
    std::snprintf(head, sizeof head,
                  "replay of %s: %s port %s%s%s; %zu commands waited for, %zu replies, "
                  "%zu reports over %.1f s; %zu of %zu lines used",
                  o.from_log.c_str(), kPorts[static_cast<int>(script->port)], s.port_path.c_str(),
                  script->link.empty() ? "" : " linked at ", script->link.c_str(), s.waits,
                  s.answers, s.reports, s.span_ms / 1000.0, s.used, s.lines);
    s.notes.insert(s.notes.begin(), head);
    for (const std::string& line : s.notes) {
        std::fprintf(stderr, "tavrine-sim: %s\n", line.c_str());
        *comments += "# " + line + "\n";
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    bool done = false;
    int status = ParseOptions(argc, argv, &o, &done);
    if (status != 0 || done) return status;

    tvm::Script script;
    std::string comments;
    if (!o.from_log.empty()) {
        if (!LoadReplay(o, &script, &comments)) return 2;
    } else {
        std::string error;
        if (!tvm::LoadScript(o.script_path, &script, &error)) {
            std::fprintf(stderr, "tavrine-sim: %s\n", error.c_str());
            return 2;
        }
    }
    if (o.dump) std::fputs((comments + tvm::DumpScript(script)).c_str(), stdout);
    if (o.check_only) return 0;

    struct sigaction sa {};
    sa.sa_handler = OnStop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    auto log = tvm::EventLog::Create(o.log_path);
    if (!log) return 2;
    tvm::SimEngine engine(script, log.get(), o.max_ms, o.control_path);
    return engine.Run(o.ready_path, &g_stop);
}
