// Text form of an evdev device and its events, close to evemu's:
//   N: <name>
//   I: <bus> <vendor> <product> <version>        (4-digit hex each)
//   P: <property bitmask bytes>                  (hex, 8 per line)
//   B: <type> <code bitmask bytes>               (hex, 8 per line)
//   A: <code> <min> <max> <fuzz> <flat> <resolution>
//   E: <sec>.<usec> <type> <code> <value>        # <type name> / <code name>
#pragma once

#include <linux/input.h>

#include <cstdint>
#include <string>

namespace tvm {

// The header lines of the open evdev node 'fd'. Empty on ioctl failure.
std::string DescribeDevice(int fd);

// One "E:" line, ending in a newline.
std::string FormatEvent(const input_event& ev);

// "ABS_MT_SLOT" style name of a code, or "" when not in the table.
std::string CodeName(uint16_t type, uint16_t code);
std::string TypeName(uint16_t type);

// Parses an "E:" line. Returns false for any other line.
bool ParseEventLine(const std::string& line, std::string* time, uint16_t* type, uint16_t* code,
                    int32_t* value);

}  // namespace tvm
