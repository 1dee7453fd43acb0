// Command line of tavrinectl: subcommand, bus header choice, time-out, point count and
// the bytes of a raw command. Pure parsing, no I/O.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr int kCtlMaxPacket = 64;           // a command packet is at most 64 bytes
constexpr int kCtlDefaultTimeoutMs = 2000;
constexpr int kCtlMaxTimeoutMs = 600000;    // ten minutes
constexpr long kCtlMaxCount = 1000000;

enum class CtlCommand { kNone, kHelp, kRaw, kVersion, kModel, kType, kPoints };
enum class CtlBus { kAuto, kUsb, kSerial };

struct CtlOptions {
    CtlCommand command = CtlCommand::kNone;
    CtlBus bus = CtlBus::kAuto;
    int timeout_ms = kCtlDefaultTimeoutMs;
    long count = 0;                          // points: 0 = until interrupted
    uint8_t raw[kCtlMaxPacket] = {};
    int raw_len = 0;
};

// Parses argv[1..argc-1]. Returns 0, or -1 with a one-line reason in err.
// Options may stand before or after the subcommand: --usb, --serial, --timeout MS
// (1 to 600000), --count N (1 to 1000000, points only), -h/--help.
int ParseCtlArgs(int argc, const char* const* argv, CtlOptions* options, char* err,
                 size_t err_size);

// Parses hexadecimal bytes from the words: each word holds bytes separated by blanks,
// commas or colons; a byte is one or two hex digits with an optional 0x prefix, and a
// longer run of an even number of digits ("030141") is read two digits a byte.
// Returns the byte count (at most max), or -1 with a reason in err.
int ParseHexBytes(const char* const* words, int word_count, uint8_t* out, int max, char* err,
                  size_t err_size);
