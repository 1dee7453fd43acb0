#include "hex.h"

#include <cerrno>
#include <cstdlib>

namespace tvm {

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

bool ParseHexByte(const std::string& word, uint8_t* out) {
    std::string digits = word;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
        digits = digits.substr(2);
    if (digits.empty() || digits.size() > 2) return false;
    int value = 0;
    for (char c : digits) {
        int d = HexDigit(c);
        if (d < 0) return false;
        value = value * 16 + d;
    }
    *out = static_cast<uint8_t>(value);
    return true;
}

bool ParseNumber(const std::string& word, uint64_t max, uint64_t* out) {
    if (word.empty() || word[0] == '-' || word[0] == '+') return false;
    bool hex = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    errno = 0;
    char* end = nullptr;
    unsigned long long value = std::strtoull(word.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || end == word.c_str() || *end != '\0' || value > max) return false;
    *out = value;
    return true;
}

std::string FormatHex(const uint8_t* data, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 3);
    for (size_t i = 0; i < size; ++i) {
        if (i) text += ' ';
        text += kDigits[data[i] >> 4];
        text += kDigits[data[i] & 0xf];
    }
    return text;
}

}  // namespace tvm
