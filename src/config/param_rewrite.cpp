#include "config/param_rewrite.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/global_settings.h"
#include "core/paths.h"
#include "log/debug_log.h"

namespace {

constexpr size_t kCopyChunk = 4096;

bool WriteAll(FILE* out, const char* data, size_t len) {
    return len == 0 || fwrite(data, 1, len, out) == len;
}

// Copies bytes [from, to) of in to out. false on a seek, read or write failure, or when in
// ends before to.
bool CopyRange(FILE* in, FILE* out, uint32_t from, uint32_t to) {
    if (from >= to) return true;
    if (fseek(in, static_cast<long>(from), SEEK_SET) != 0) return false;
    char chunk[kCopyChunk];
    uint32_t left = to - from;
    while (left > 0) {
        size_t want = left < kCopyChunk ? left : kCopyChunk;
        size_t got = fread(chunk, 1, want, in);
        if (got == 0) return false;
        if (!WriteAll(out, chunk, got)) return false;
        left -= static_cast<uint32_t>(got);
    }
    return true;
}

}  // namespace

int64_t SettingsFileSize(FILE* settings) {
    struct stat st;
    if (fstat(fileno(settings), &st) != 0) return -1;
    return static_cast<int64_t>(st.st_size);
}

int RewriteSettingsFile(FILE* settings, uint32_t start, uint32_t end, const char* middle,
                        size_t middle_len, const char* tail) {
    int64_t size = 0;
    if (settings) {
        size = SettingsFileSize(settings);
        if (size < 0 || size > kMaxSettingsFileBytes) {
            TLOG(LOG_INIT, "Settings file %s too large or unreadable, not rewritten",
                 IniFilePath());
            return -1;
        }
    }
    if (start > end || static_cast<int64_t>(end) > size) {
        TLOG(LOG_INIT, "Block offsets [%u, %u) outside the settings file (%lld bytes)", start, end,
             static_cast<long long>(size));
        return -1;
    }
    FILE* temp = LockAndOpenFile(IniTempPath(), "w+", &TempFileMutex);
    if (!temp) {
        TLOG_ERR(LOG_INIT, "Create temp param file failed, please modify param manually");
        return -1;
    }
    bool ok = (!settings || CopyRange(settings, temp, 0, start)) &&
              WriteAll(temp, middle, middle_len) &&
              (!settings || CopyRange(settings, temp, end, static_cast<uint32_t>(size))) &&
              WriteAll(temp, tail, strlen(tail)) && fflush(temp) == 0 && fsync(fileno(temp)) == 0;
    if (ok && rename(IniTempPath(), IniFilePath()) != 0) ok = false;
    if (!ok) {
        TLOG_ERR(LOG_INIT, "Failed to write %s, %s left unchanged", IniTempPath(), IniFilePath());
        unlink(IniTempPath());
    }
    CloseAndUnlockFile(temp, &TempFileMutex);
    return ok ? 0 : -1;
}
