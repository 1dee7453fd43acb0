// The daemon's command line: options "vVfkhDEd:p:r:u:z:", applied on top of the settings
// file, and the informational options that end the process before it detaches.
#pragma once

struct GlobalSettings;

constexpr const char* kOptionString = "vVfkhDEd:p:r:u:z:";

// Applies the options in the order given. Unknown letters are ignored silently. Numbers are
// read by the settings file's rule (their leading number). A -r, -u or -z argument of more
// than 63 characters is refused and the previous value stays: the refusal is written to
// standard error at once and logged under <Main> after the last option.
void ParseCommandLine(int argc, char** argv, GlobalSettings* settings);

// Acts on the flags, the first that applies wins: -h (usage, exit 0); -k with -f/-D/-E
// (error, exit 1); -v (version, exit 0); -V (full version, exit 0). Otherwise returns.
void HandleStartupFlags(const GlobalSettings* settings);

// Prints the usage text to standard output.
void PrintUsage();
