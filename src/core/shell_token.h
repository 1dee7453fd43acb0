// Checks that a value may stand as one word of a shell command line. Every value the
// daemon puts into a command it builds (a port path after "rm", a product id in a new_id
// line or a grep) passes one of these first; a value that fails is refused and the
// command is not run, so no quote, blank, ';', '|', '$' or '`' ever reaches the shell.
#pragma once

// True when path is 1 to 63 characters of [A-Za-z0-9/_.-] and does not begin with '-'
// (a word that would read as an option). nullptr and "" are refused.
bool IsPlainPathToken(const char* path);

// True when id is exactly four hexadecimal digits (either case), e.g. "3c7a" or "00A1".
bool IsProductIdToken(const char* id);

// The one form of a product id, wherever one comes from (the settings file, a listing, a
// caller): 1 to 4 hexadecimal digits of either case, written into out as the four
// lower-case digits that the kernel shows in /proc/bus/input/devices and reads from a
// new_id file ("7E5" gives "07e5"). Returns false, with out "", for anything else.
bool NormalizeProductId(const char* id, char out[5]);
