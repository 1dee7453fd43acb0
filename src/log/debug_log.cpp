#include "log/debug_log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "core/data_file.h"
#include "core/paths.h"
#include "core/shell.h"
#include "core/shell_token.h"
#include "core/unique_fd.h"
#include "log/platform_log.h"

uint32_t DebugEnableBits = 1;
uint8_t ShowDebugPosition = 1;
char LogFilePath[kLogPathMax] = "";

namespace {

constexpr size_t kLineMax = 768;  // prefix + tag + "[E] " + message + errno text + newline

PlatformLogSink g_platform_sink = nullptr;

void ToPlatformLog(bool is_error, const char* message) {
    if (g_platform_sink) {
        g_platform_sink(is_error, message);
    } else {
        PlatformLogWrite(is_error, message);
    }
}

// Appends text to a line buffer without ever writing past it.
void Append(char* line, size_t* len, const char* text) {
    if (*len >= kLineMax - 1) return;
    int n = snprintf(line + *len, kLineMax - *len, "%s", text);
    if (n < 0) return;
    *len += static_cast<size_t>(n) < kLineMax - *len ? static_cast<size_t>(n) : kLineMax - *len - 1;
}

void WriteAll(int fd, const char* data, size_t len) { (void)WriteRetry(fd, data, len); }

void AppendToLogFile(const char* line, size_t len) {
    if (LogFilePath[0] == '\0') return;
    UniqueFd fd(OpenDataFile(LogFilePath, O_WRONLY | O_CREAT | O_APPEND, 0644));
    if (!fd.valid()) return;  // a log file that cannot be opened loses the line silently
    WriteAll(fd.get(), line, len);
}

// Builds "<prefix><tag> " (plus "[E] " for errors) into head.
size_t BuildHead(char* head, uint32_t category, bool is_error) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    size_t len = FormatLogPrefix(head, kLineMax, &now);
    Append(head, &len, LogCategoryTag(category));
    Append(head, &len, " ");
    if (is_error) Append(head, &len, "[E] ");
    return len;
}

void Emit(uint32_t category, bool is_error, int saved_errno, const char* format, va_list args) {
    const uint8_t position = ShowDebugPosition;
    if (position > 2) return;

    char message[kLogMessageMax];
    vsnprintf(message, sizeof(message), format, args);  // truncates, never overflows

    char line[kLineMax];
    size_t head_len = BuildHead(line, category, is_error);

    if (position == 1 || position == 2) {
        WriteAll(STDOUT_FILENO, line, head_len);
        ToPlatformLog(is_error, message);
    }
    if (position == 0 || position == 2) {
        size_t len = head_len;
        Append(line, &len, message);
        if (is_error) {
            char err[96];
            snprintf(err, sizeof(err), ": %s", strerror(saved_errno));
            Append(line, &len, err);
        }
        // Keep room for the newline even when the line was cut.
        if (len >= kLineMax - 1) len = kLineMax - 2;
        line[len++] = '\n';
        AppendToLogFile(line, len);
    }
}

}  // namespace

size_t FormatLogPrefix(char* out, size_t cap, const struct timeval* now) {
    struct tm local;
    time_t seconds = now->tv_sec;
    localtime_r(&seconds, &local);
    int n = snprintf(out, cap, "[%02d:%02d:%02d:%03d]-: ", local.tm_hour, local.tm_min,
                     local.tm_sec, static_cast<int>(now->tv_usec / 1000));
    if (n < 0) return 0;
    return static_cast<size_t>(n) < cap ? static_cast<size_t>(n) : cap - 1;
}

const char* LogCategoryTag(uint32_t category) {
    switch (category) {
        case LOG_MAIN: return "<Main>";
        case LOG_INIT: return "<Init>";
        case LOG_PARAM: return "<Param>";
        case LOG_APP: return "<App>";
        case LOG_STORAGE: return "<Storage>";
        case LOG_PIPE: return "<Pipe>";
        case LOG_SHM: return "<Shm>";
        case LOG_THREAD: return "<Thread>";
        case LOG_BEEP: return "<Beep>";
        case LOG_SCAN: return "<Scan>";
        case LOG_DATA: return "<Data>";
        case LOG_PORT: return "<Port>";
        default: return "";
    }
}

void DebugLog(uint32_t category, const char* format, ...) {
    int saved_errno = errno;
    va_list args;
    va_start(args, format);
    Emit(category, false, saved_errno, format, args);
    va_end(args);
    errno = saved_errno;
}

void DebugErrorLog(uint32_t category, const char* format, ...) {
    int saved_errno = errno;
    va_list args;
    va_start(args, format);
    Emit(category, true, saved_errno, format, args);
    va_end(args);
    errno = saved_errno;
}

void SetPlatformLogSinkForTest(PlatformLogSink sink) { g_platform_sink = sink; }

void RemoveOldLogs() {
    if (!IsPlainPathToken(DataDir())) {
        TLOG(LOG_MAIN, "Data directory [%s] is not a plain path: old debug logs are kept",
             DataDir());
        return;
    }
    char command[kLogPathMax + 16];
    snprintf(command, sizeof(command), "rm %s/%s_*", DataDir(), "Tavrine");
    if (RunShell(command) != 0) {
        TLOG_ERR(LOG_MAIN, "Remove all old debug log failed.");
    } else {
        TLOG(LOG_MAIN, "All old debug logs are removed.");
    }
}

void BuildLogFileName() {
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    snprintf(LogFilePath, sizeof(LogFilePath), "%s/%s_%d.%d.%d_%d.log", DataDir(), "Tavrine",
             local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour);
    char stamp[32] = "";
    ctime_r(&now, stamp);
    TLOG(LOG_MAIN, "\n\t\t\t%s\t\t\t", stamp);
}
