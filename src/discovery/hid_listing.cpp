#include "discovery/hid_listing.h"

#include <ctype.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "core/paths.h"
#include "core/shell.h"

namespace {
char kernel_root[128] = "";
}

bool OpenListing(CmdListing* listing, const char* command) {
    listing->stream = RunShellCommand(command, DrvLogPath());
    return listing->stream != nullptr;
}

bool NextListingWord(CmdListing* listing, char (&word)[kListingWordMax]) {
    static_assert(kListingWordMax == 128, "the conversion below reads at most 127 characters");
    if (!listing->stream) return false;
    return fscanf(listing->stream, "%127s", word) == 1;
}

void CloseListing(CmdListing* listing) {
    if (!listing->stream) return;
    fclose(listing->stream);
    listing->stream = nullptr;
    unlink(DrvLogPath());
}

int IsModuleName(const char* text) {
    if (!text) return 0;
    size_t len = strnlen(text, 64);
    if (len == 0 || len > 63) return 0;
    for (size_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (!isalnum(c) && c != '_' && c != '-') return 0;
    }
    return 1;
}

bool ContainsNoCase(const char* haystack, const char* needle) {
    size_t n = strlen(needle);
    if (n == 0) return true;
    for (const char* p = haystack; *p; ++p) {
        if (strncasecmp(p, needle, n) == 0) return true;
    }
    return false;
}

const char* KernelPath(char* out, size_t cap, const char* path) {
    snprintf(out, cap, "%s%s", kernel_root, path);
    return out;
}

void SetKernelRootForTest(const char* root) {
    snprintf(kernel_root, sizeof(kernel_root), "%s", root ? root : "");
}
