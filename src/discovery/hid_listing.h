// Helpers of the kernel HID driver binding: command listings read word by word, the
// checks that keep settings text out of shell commands, and the /sys and /proc root.
#pragma once

#include <stddef.h>
#include <stdio.h>

constexpr int kListingWordMax = 128;

// The output of one shell command captured in DrvLogPath(), read word by word.
struct CmdListing {
    FILE* stream;
};

// Runs command through RunShellCommand. false when it gave no output stream (the command
// failed, e.g. a grep that found nothing): the listing then counts as empty.
bool OpenListing(CmdListing* listing, const char* command);
// Next whitespace-separated word (at most kListingWordMax - 1 characters). false at the end.
bool NextListingWord(CmdListing* listing, char (&word)[kListingWordMax]);
// Closes the stream and removes the capture file.
void CloseListing(CmdListing* listing);

// 1 when text is a module or directory name: 1 to 63 of [A-Za-z0-9_-].
int IsModuleName(const char* text);
// Case-insensitive substring test.
bool ContainsNoCase(const char* haystack, const char* needle);

// Kernel file paths (absolute paths such as "/sys/bus/hid/drivers/hid-generic") under the
// root prefix, "" in the daemon. Returns out.
const char* KernelPath(char* out, size_t cap, const char* path);
// Tests point the /sys paths at a temporary tree; nullptr or "" restores the real root.
void SetKernelRootForTest(const char* root);
