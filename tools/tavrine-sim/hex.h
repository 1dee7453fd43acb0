// Hexadecimal byte text: parsing of script words and formatting for logs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tvm {

using Bytes = std::vector<uint8_t>;

// Parses one or two hex digits ("7", "0a", "FF", optional "0x" prefix).
// Returns false for anything else.
bool ParseHexByte(const std::string& word, uint8_t* out);

// Parses a number given in decimal (leading zeros allowed, not octal), or
// in hex with a "0x" prefix.
// Returns false on junk or when the value does not fit in 'max'.
bool ParseNumber(const std::string& word, uint64_t max, uint64_t* out);

// "01 0a ff": lower-case two-digit groups separated by one blank.
std::string FormatHex(const uint8_t* data, size_t size);
inline std::string FormatHex(const Bytes& bytes) {
    return FormatHex(bytes.data(), bytes.size());
}

}  // namespace tvm
