#include "ctl_args.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool IsSeparator(char c) { return c == ' ' || c == '\t' || c == ',' || c == ':'; }

// Decimal number in [low, high] spanning the whole text; -1 otherwise.
long ParseBounded(const char* text, long low, long high) {
    if (text == nullptr || *text == '\0') return -1;
    for (const char* p = text; *p; ++p) {
        if (*p < '0' || *p > '9') return -1;
        if (p - text > 9) return -1;  // more than ten digits is out of range anyway
    }
    long value = strtol(text, nullptr, 10);
    return (value < low || value > high) ? -1 : value;
}

CtlCommand CommandByName(const char* name) {
    static const struct {
        const char* name;
        CtlCommand command;
    } kNames[] = {{"raw", CtlCommand::kRaw},     {"version", CtlCommand::kVersion},
                  {"model", CtlCommand::kModel}, {"type", CtlCommand::kType},
                  {"points", CtlCommand::kPoints}, {"help", CtlCommand::kHelp}};
    for (const auto& entry : kNames) {
        if (strcmp(name, entry.name) == 0) return entry.command;
    }
    return CtlCommand::kNone;
}

}  // namespace

int ParseHexBytes(const char* const* words, int word_count, uint8_t* out, int max, char* err,
                  size_t err_size) {
    int count = 0;
    for (int w = 0; w < word_count; ++w) {
        const char* p = words[w];
        while (*p) {
            if (IsSeparator(*p)) {
                ++p;
                continue;
            }
            const char* start = p;
            if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
            const char* digits = p;
            while (*p && !IsSeparator(*p)) {
                if (HexDigit(*p) < 0) {
                    snprintf(err, err_size, "not a hexadecimal byte: \"%.*s\"",
                             static_cast<int>(strcspn(start, " \t,:")), start);
                    return -1;
                }
                ++p;
            }
            long n = p - digits;
            if (n == 0 || (n > 2 && n % 2 != 0) || (n > 2 && digits != start)) {
                snprintf(err, err_size, "not a hexadecimal byte: \"%.*s\"",
                         static_cast<int>(p - start), start);
                return -1;
            }
            for (const char* d = digits; d < p;) {
                if (count >= max) {
                    snprintf(err, err_size, "too many bytes: at most %d", max);
                    return -1;
                }
                int value = HexDigit(*d++);
                if (n != 1) value = value * 16 + HexDigit(*d++);
                out[count++] = static_cast<uint8_t>(value);
            }
        }
    }
    if (count == 0) snprintf(err, err_size, "no bytes given");
    return count == 0 ? -1 : count;
}

int ParseCtlArgs(int argc, const char* const* argv, CtlOptions* options, char* err,
                 size_t err_size) {
    *options = CtlOptions();
    const char* words[kCtlMaxPacket * 2] = {};
    int word_count = 0;
    bool bus_given = false;
    bool count_given = false;
    err[0] = '\0';
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
            options->command = CtlCommand::kHelp;
            return 0;
        }
        if (strcmp(arg, "--usb") == 0 || strcmp(arg, "--serial") == 0) {
            CtlBus bus = arg[2] == 'u' ? CtlBus::kUsb : CtlBus::kSerial;
            if (bus_given && bus != options->bus) {
                snprintf(err, err_size, "--usb and --serial exclude each other");
                return -1;
            }
            options->bus = bus;
            bus_given = true;
        } else if (strcmp(arg, "--timeout") == 0 || strcmp(arg, "--count") == 0) {
            bool is_timeout = arg[2] == 't';
            long value = i + 1 < argc ? ParseBounded(argv[i + 1], 1,
                                                     is_timeout ? kCtlMaxTimeoutMs : kCtlMaxCount)
                                      : -1;
            if (value < 0) {
                snprintf(err, err_size, "%s needs a number from 1 to %ld", arg,
                         is_timeout ? static_cast<long>(kCtlMaxTimeoutMs) : kCtlMaxCount);
                return -1;
            }
            if (is_timeout) {
                options->timeout_ms = static_cast<int>(value);
            } else {
                options->count = value;
                count_given = true;
            }
            ++i;
        } else if (arg[0] == '-' && arg[1] == '-') {
            snprintf(err, err_size, "unknown option %s", arg);
            return -1;
        } else if (options->command == CtlCommand::kNone) {
            options->command = CommandByName(arg);
            if (options->command == CtlCommand::kNone) {
                snprintf(err, err_size, "unknown command \"%s\"", arg);
                return -1;
            }
        } else if (options->command == CtlCommand::kRaw) {
            if (word_count >= static_cast<int>(sizeof(words) / sizeof(words[0]))) {
                snprintf(err, err_size, "too many bytes: at most %d", kCtlMaxPacket);
                return -1;
            }
            words[word_count++] = arg;
        } else {
            snprintf(err, err_size, "unexpected argument \"%s\"", arg);
            return -1;
        }
    }
    switch (options->command) {
    case CtlCommand::kNone:
        snprintf(err, err_size, "no command given");
        return -1;
    case CtlCommand::kRaw:
        options->raw_len =
            ParseHexBytes(words, word_count, options->raw, kCtlMaxPacket, err, err_size);
        if (options->raw_len < 0) return -1;
        break;
    case CtlCommand::kPoints:
        if (options->bus == CtlBus::kUsb) {
            snprintf(err, err_size, "points needs a serial controller; --usb does not fit");
            return -1;
        }
        options->bus = CtlBus::kSerial;
        break;
    default:
        break;
    }
    if (count_given && options->command != CtlCommand::kPoints) {
        snprintf(err, err_size, "--count only goes with points");
        return -1;
    }
    return 0;
}
