// The categorised debug log. Every message belongs to one category bit; callers test the
// bit in DebugEnableBits before anything is formatted (use TLOG / TLOG_ERR below).
// ShowDebugPosition chooses the outputs:
//   0  the log file only
//   1  standard output (time prefix and tag only) and the platform log (message)
//   2  standard output, the platform log and the log file
//   other values: nothing is written
// Each line reaches each output with one write(2), so lines of two threads never mix
// inside a line. Messages longer than the 512-byte message buffer are truncated.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

// Category bits. The tag printed in front of a message is chosen by exact equality
// with one of these values; combined values get no tag.
enum : uint32_t {
    LOG_MAIN = 0x1,          // <Main>
    LOG_INIT = 0x2,          // <Init>
    LOG_PARAM = 0x4,         // <Param>
    LOG_EVENT = 0x8,         // every event written to the virtual input devices
    LOG_APP = 0x10,          // <App>
    LOG_STORAGE = 0x20,      // <Storage>
    LOG_PIPE = 0x40,         // <Pipe>
    LOG_SHM = 0x100,         // <Shm>
    LOG_THREAD = 0x200,      // <Thread>
    LOG_CMD = 0x800,         // controller command exchanges
    LOG_BEEP = 0x1000,       // <Beep>
    LOG_VKEY = 0x2000,       // virtual keys
    LOG_SCAN = 0x10000,      // <Scan>
    LOG_EEPROM = 0x40000,    // EEPROM reads
    LOG_MERGE = 0x80000,     // reply merging, hook release, resolution shift
    LOG_DATA = 0x100000,     // <Data>
    LOG_PORT = 0x200000,     // <Port>
    LOG_SERIAL = 0x400000,   // serial and PS/2 reply validation and merging
};

constexpr size_t kLogMessageMax = 512;  // formatted message, terminator included
constexpr size_t kLogPathMax = 128;

extern uint32_t DebugEnableBits;   // default 1
extern uint8_t ShowDebugPosition;  // default 1
extern char LogFilePath[kLogPathMax];

// One normal line. Does not test DebugEnableBits itself.
void DebugLog(uint32_t category, const char* format, ...) __attribute__((format(printf, 2, 3)));
// One error line: "[E] " before the message and the text of the current errno after it.
void DebugErrorLog(uint32_t category, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Deletes the log files of earlier runs ("rm <data>/Tavrine_*").
void RemoveOldLogs();
// Names this run's log file after the local date and hour and logs the start banner.
void BuildLogFileName();

// Fills out with "[hh:mm:ss:mmm]-: " for the given time. Returns the length written.
size_t FormatLogPrefix(char* out, size_t cap, const struct timeval* now);
// The tag of a category, "" when it has none.
const char* LogCategoryTag(uint32_t category);

// The platform log (Android log on Android, syslog with identity "TouchD" elsewhere).
// Tests may replace the sink to observe what reaches it; nullptr restores the default.
using PlatformLogSink = void (*)(bool is_error, const char* message);
void SetPlatformLogSinkForTest(PlatformLogSink sink);

#define TLOG(category, ...)                                                 \
    do {                                                                    \
        if (DebugEnableBits & (category)) DebugLog((category), __VA_ARGS__); \
    } while (0)

#define TLOG_ERR(category, ...)                                                  \
    do {                                                                         \
        if (DebugEnableBits & (category)) DebugErrorLog((category), __VA_ARGS__); \
    } while (0)
