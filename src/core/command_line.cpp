#include "core/command_line.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "config/param_words.h"
#include "log/debug_log.h"

namespace {

constexpr const char* kProductName = "Tavrine";
constexpr const char* kMakerName = "QEVO";
constexpr const char* kRefusalText =
    "Error: The argument of option '%c' is longer than %d characters, it is ignored.";

constexpr int kRefusalsLogged = 8;

// Options refused while the command line is read; logged once it has been applied whole, so
// that -D, -E, -d and -p given after a refused option choose where the refusal is logged.
struct Refusals {
    char option[kRefusalsLogged];
    int count;
};

// A text argument (-r, -u, -z) must fit a 64-byte field: a longer one is refused rather than
// cut, since a truncated path names another file. The message goes to standard error at
// once: it is unbuffered, so it is out before the process detaches and loses its output.
// Returns true when the argument may be used.
bool AcceptTextOption(char option, const char* argument, Refusals* refusals) {
    if (strlen(argument) < static_cast<size_t>(kTextMax)) return true;
    fprintf(stderr, kRefusalText, option, kTextMax - 1);
    fputc('\n', stderr);
    if (refusals->count < kRefusalsLogged) refusals->option[refusals->count++] = option;
    return false;
}

}  // namespace

void ParseCommandLine(int argc, char** argv, GlobalSettings* settings) {
    opterr = 0;
    optind = 0;  // a full restart of getopt (glibc, bionic and musl), so a second parse works
    Refusals refusals = {};
    int option;
    while ((option = getopt(argc, argv, kOptionString)) != -1) {
        switch (option) {
            case 'v':
                settings->ShowVersion = 1;
                break;
            case 'V':
                settings->ShowFullVersion = 1;
                break;
            case 'f':
                settings->ForceRestart = 1;
                break;
            case 'k':
                settings->KillRunning = 1;
                break;
            case 'h':
                settings->ShowUsage = 1;
                break;
            case 'D':
                DebugEnableBits = 0xFFFFF;
                ShowDebugPosition = 0;
                settings->ForceRestart = 1;
                break;
            case 'E':
                DebugEnableBits = 0xFFFF;
                ShowDebugPosition = 1;
                settings->ForceRestart = 1;
                break;
            case 'd': {
                uint32_t bits = 0;  // the leading number, as the settings file reads numbers
                if (ParseLeadingHexNumber(optarg, &bits)) DebugEnableBits = bits;
                break;
            }
            case 'p': {
                int32_t position = 0;  // as atoi: 0 when there is no number
                ParseLeadingNumber(optarg, &position);
                ShowDebugPosition = static_cast<uint8_t>(position);
                break;
            }
            case 'r':
                if (AcceptTextOption('r', optarg, &refusals)) {
                    snprintf(settings->CustomSerialPath[0], kTextMax, "%s", optarg);
                    settings->CustomPathMask |= kCustomSerialPathBit;
                }
                break;
            case 'u':
                if (AcceptTextOption('u', optarg, &refusals)) {
                    snprintf(settings->UinputPath, kTextMax, "%s", optarg);
                    settings->CustomPathMask |= kCustomUinputPathBit;
                }
                break;
            case 'z':
                AcceptTextOption('z', optarg, &refusals);  // otherwise accepted and ignored
                break;
            default:
                break;  // unknown letters and missing arguments are ignored
        }
    }
    for (int i = 0; i < refusals.count; ++i)
        TLOG(LOG_MAIN, kRefusalText, refusals.option[i], kTextMax - 1);
}

void PrintUsage() {
    printf("%s %sD Daemon\n\n", kMakerName, kProductName);
    printf("Usage: %sD [option]\n", kProductName);
    printf("Options:\n");
    printf("-v\t Show version\n");
    printf("-f\t Re-execute daemon %sD\n", kProductName);
    printf("-k\t Kill current running %sD process if it exists\n", kProductName);
    printf("\n");
}

void HandleStartupFlags(const GlobalSettings* settings) {
    if (settings->ShowUsage) {
        PrintUsage();
        exit(0);
    }
    if (settings->KillRunning && settings->ForceRestart) {
        printf("\nError: The paramerers 'f' & 'k' can not be set at the same time!\n");
        exit(1);
    }
    if (settings->ShowVersion) {
        printf("\n\t\t%s version: [%s]\n\n", kProductName, kDaemonVersion);
        exit(0);
    }
    if (settings->ShowFullVersion) {
        printf("\n\t\t%s version: [%s%s]\n\n", kProductName, kDaemonVersion, "");
        exit(0);
    }
}
