#include "config/param_words.h"

#include <ctype.h>
#include <string.h>

IniWordResult ReadIniWord(FILE* stream, char word[kTextMax]) {
    word[0] = '\0';
    // "%63s": kTextMax - 1 characters at most, the terminator in the last byte. The %n
    // counts tell a word that holds a NUL byte: its text would stop at the NUL and the
    // stream position would no longer follow the text.
    int word_start = 0;
    int word_end = 0;
    if (fscanf(stream, " %n%63s%n", &word_start, word, &word_end) != 1) {
        word[0] = '\0';
        return kIniWordEnd;
    }
    const bool holds_nul = strlen(word) != static_cast<size_t>(word_end - word_start);
    int next = fgetc(stream);
    if (next == EOF || isspace(next)) {
        if (next != EOF) ungetc(next, stream);
        if (holds_nul) snprintf(word, kTextMax, "%s", kOverlongWord);
        return kIniWordOk;
    }
    // The word goes on: drop the rest of it, so its tail is never taken for a word.
    do {
        next = fgetc(stream);
    } while (next != EOF && !isspace(next));
    if (next != EOF) ungetc(next, stream);
    snprintf(word, kTextMax, "%s", kOverlongWord);
    return kIniWordOk;
}

namespace {

int DigitValue(char c, int base) {
    if (c >= '0' && c <= '9') return c - '0';
    if (base == 16 && c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (base == 16 && c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Sign and magnitude of the leading number in base; false when no digit follows the sign
// (and the prefix) or the magnitude passes limit. ASCII only, whatever the locale.
bool LeadingMagnitude(const char* text, int base, uint64_t limit, bool* negative,
                      uint64_t* magnitude) {
    const char* p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    *negative = *p == '-';
    if (*p == '+' || *p == '-') ++p;
    if (base == 16 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && DigitValue(p[2], 16) >= 0) {
        p += 2;
    }
    if (DigitValue(*p, base) < 0) return false;
    uint64_t sum = 0;
    for (int digit; (digit = DigitValue(*p, base)) >= 0; ++p) {
        sum = sum * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
        if (sum > limit) return false;
    }
    *magnitude = sum;
    return true;
}

}  // namespace

bool ParseLeadingNumber(const char* text, int32_t* value) {
    bool negative = false;
    uint64_t magnitude = 0;
    if (!LeadingMagnitude(text, 10, 2147483648ULL, &negative, &magnitude)) return false;
    if (!negative && magnitude > static_cast<uint64_t>(INT32_MAX)) return false;
    *value = negative ? static_cast<int32_t>(-static_cast<int64_t>(magnitude))
                      : static_cast<int32_t>(magnitude);
    return true;
}

bool ParseLeadingHexNumber(const char* text, uint32_t* value) {
    bool negative = false;
    uint64_t magnitude = 0;
    if (!LeadingMagnitude(text, 16, UINT32_MAX, &negative, &magnitude)) return false;
    const uint32_t bits = static_cast<uint32_t>(magnitude);
    *value = negative ? 0u - bits : bits;
    return true;
}

int IniBlockNumber(const char* word) {
    if (strlen(word) != static_cast<size_t>(kBlockHeaderLen)) return -1;
    if (strncmp(word, "[Device_No.", 11) != 0) return -1;
    if (word[11] < '0' || word[11] > '9' || word[12] != ']') return -1;
    return word[11] - '0';
}
