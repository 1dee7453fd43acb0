#include "core/shell_token.h"

#include <string.h>

#include "config/global_settings.h"

namespace {

// ASCII ranges written out, so the answer does not depend on the C library's locale.
bool IsHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool IsPathChar(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '/' ||
           c == '_' || c == '-' || c == '.';
}

}  // namespace

bool IsPlainPathToken(const char* path) {
    if (!path || path[0] == '\0' || path[0] == '-') return false;
    const size_t len = strnlen(path, kTextMax);
    if (len >= static_cast<size_t>(kTextMax)) return false;  // does not fit a 64-byte buffer
    for (size_t i = 0; i < len; ++i) {
        if (!IsPathChar(path[i])) return false;
    }
    return true;
}

bool IsProductIdToken(const char* id) {
    if (!id) return false;
    for (int i = 0; i < 4; ++i) {
        if (!IsHexDigit(id[i])) return false;  // also stops at an early NUL
    }
    return id[4] == '\0';
}

bool NormalizeProductId(const char* id, char out[5]) {
    out[0] = '\0';
    if (!id) return false;
    const size_t len = strnlen(id, 5);
    if (len == 0 || len > 4) return false;
    char digits[5] = "0000";
    for (size_t i = 0; i < len; ++i) {
        const char c = id[i];
        if (!IsHexDigit(c)) return false;
        digits[4 - len + i] = (c >= 'A' && c <= 'F') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    memcpy(out, digits, sizeof(digits));
    return true;
}
