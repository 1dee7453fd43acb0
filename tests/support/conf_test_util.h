// Helpers of the settings-file tests: the block text as the daemon must write it (spelled
// out by hand).
#pragma once

#include <string>

namespace conftest {

// The default block text with block number no; address nullptr gives the bare
// "Physical_Address" line of a single-device file.
std::string DefaultBlock(int no, const char* address);
// The global part of a generated file, before the first block.
std::string GeneratedHead(const char* debug_bits_hex, int show_position, int device_nums,
                          int baud_rate);

}  // namespace conftest
