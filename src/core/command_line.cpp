#include "core/command_line.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "log/debug_log.h"

namespace {

constexpr const char* kProductName = "Tavrine";
constexpr const char* kMakerName = "QEVO";

// Copies a path option into a 64-byte field. A path that does not fit is refused rather
// than cut, since a truncated path names another file. Returns true when stored.
bool StorePathOption(char option, const char* argument, char* field) {
    if (strlen(argument) >= static_cast<size_t>(kTextMax)) {
        printf("\nError: The path of option '%c' is longer than %d characters, it is ignored.\n",
               option, kTextMax - 1);
        return false;
    }
    snprintf(field, kTextMax, "%s", argument);
    return true;
}

}  // namespace

void ParseCommandLine(int argc, char** argv, GlobalSettings* settings) {
    opterr = 0;
    optind = 0;  // a full restart of getopt (glibc, bionic and musl), so a second parse works
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
                unsigned int bits = 0;
                if (sscanf(optarg, "%x", &bits) == 1) DebugEnableBits = bits;
                break;
            }
            case 'p':
                ShowDebugPosition = static_cast<uint8_t>(atoi(optarg));
                break;
            case 'r':
                if (StorePathOption('r', optarg, settings->CustomSerialPath[0])) {
                    settings->CustomPathMask |= kCustomSerialPathBit;
                }
                break;
            case 'u':
                if (StorePathOption('u', optarg, settings->UinputPath)) {
                    settings->CustomPathMask |= kCustomUinputPathBit;
                }
                break;
            case 'z':
                break;  // accepted and ignored
            default:
                break;  // unknown letters and missing arguments are ignored
        }
    }
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
