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

bool ParseIniNumber(const char* word, int32_t* value) {
    const char* p = word;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = (*p == '-');
        ++p;
    }
    if (*p == '\0') return false;
    int64_t magnitude = 0;
    for (; *p; ++p) {
        if (*p < '0' || *p > '9') return false;
        magnitude = magnitude * 10 + (*p - '0');
        if (magnitude > 2147483648LL) return false;  // beyond any 32-bit value
    }
    int64_t result = negative ? -magnitude : magnitude;
    if (result > INT32_MAX || result < INT32_MIN) return false;
    *value = static_cast<int32_t>(result);
    return true;
}

int IniBlockNumber(const char* word) {
    if (strlen(word) != static_cast<size_t>(kBlockHeaderLen)) return -1;
    if (strncmp(word, "[Device_No.", 11) != 0) return -1;
    if (word[11] < '0' || word[11] > '9' || word[12] != ']') return -1;
    return word[11] - '0';
}
