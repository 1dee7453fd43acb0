// The subcommands of tavrinectl, run against the daemon of the build's data directory.
#pragma once

#include <stdio.h>

#include "ctl_args.h"

// Runs one parsed command; results go to out, errors (one line each, "tavrinectl: ...")
// to err. *stop non-zero (set by a signal handler) ends `points` early. Returns a
// CtlStatus.
int RunCtl(const CtlOptions& options, FILE* out, FILE* err, volatile const int* stop);

// Usage text.
void PrintCtlUsage(FILE* out);
