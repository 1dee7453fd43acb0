// tavrine-sim: plays one touch controller on USB (uhid), RS232 or PS/2 (pty)
// as a script says, answers the commands it receives from its reply table,
// and records every byte both ways with CLOCK_MONOTONIC times.
//
//   tavrine-sim SCRIPT --log FILE [--ready FILE] [--control FIFO] [--max-ms N]
//               [--check | --dump]
//
// --ready FILE is created once the host can reach the port (USB: the
// hidraw node exists; serial: the link exists). Each line written to
// --control FIFO is a step action ("send 06 ...", "unplug", "exit 0") run at
// once. --max-ms ends the run after N ms. --check only parses the script,
// --dump also prints what it parsed.
// Exit status: 0 when stopped by SIGTERM/SIGINT, --max-ms or 'exit' (or the
// status 'exit' names); 2 for bad usage or script; 3 when a 'wait' timed
// out; 4 when the port or the control FIFO could not be set up.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "sim_dump.h"
#include "sim_engine.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void OnStop(int) {
    g_stop = 1;
}

int Usage() {
    std::fprintf(
        stderr,
        "usage: tavrine-sim SCRIPT --log FILE [--ready FILE] [--control FIFO] [--max-ms N]\n"
        "                   [--check | --dump]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string script_path, log_path = "-", ready_path, control_path;
    uint64_t max_ms = 0;
    bool check_only = false, dump = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool has_value = i + 1 < argc;
        if (arg == "--log" && has_value) {
            log_path = argv[++i];
        } else if (arg == "--ready" && has_value) {
            ready_path = argv[++i];
        } else if (arg == "--control" && has_value) {
            control_path = argv[++i];
        } else if (arg == "--max-ms" && has_value) {
            if (!tvm::ParseNumber(argv[++i], 24ull * 3600 * 1000, &max_ms)) return Usage();
        } else if (arg == "--check" || arg == "--dump") {
            check_only = true;
            dump = arg == "--dump";
        } else if (script_path.empty() && arg[0] != '-') {
            script_path = arg;
        } else {
            return Usage();
        }
    }
    if (script_path.empty()) return Usage();

    tvm::Script script;
    std::string error;
    if (!tvm::LoadScript(script_path, &script, &error)) {
        std::fprintf(stderr, "tavrine-sim: %s\n", error.c_str());
        return 2;
    }
    if (dump) std::fputs(tvm::DumpScript(script).c_str(), stdout);
    if (check_only) return 0;

    struct sigaction sa {};
    sa.sa_handler = OnStop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    auto log = tvm::EventLog::Create(log_path);
    if (!log) return 2;
    tvm::SimEngine engine(script, log.get(), max_ms, control_path);
    return engine.Run(ready_path, &g_stop);
}
