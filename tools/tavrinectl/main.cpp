// tavrinectl: maintenance tool that talks to a controller through the running daemon's
// tool pipes. See docs/tavrinectl.1.md.
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "ctl_args.h"
#include "ctl_run.h"
#include "ctl_session.h"

namespace {

// Set by SIGINT/SIGTERM; sig_atomic_t is int on the targets, so the runner reads it as one.
volatile sig_atomic_t g_stop_flag = 0;

void OnStop(int) {
    g_stop_flag = 1;
}

void InstallSignals() {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStop;  // no SA_RESTART: a blocked poll returns at once
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sa.sa_handler = SIG_IGN;  // a daemon gone mid-write is an error return, not a death
    sigaction(SIGPIPE, &sa, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    CtlOptions options;
    char err[256];
    if (ParseCtlArgs(argc, argv, &options, err, sizeof(err)) != 0) {
        fprintf(stderr, "tavrinectl: %s\n", err);
        PrintCtlUsage(stderr);
        return kCtlUsage;
    }
    InstallSignals();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return RunCtl(options, stdout, stderr, &g_stop_flag);
}
