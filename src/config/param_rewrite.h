// The one way the settings file is changed: a copy with the change applied is written to
// IniTempPath() and renamed over IniFilePath().
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// Largest settings file the daemon rewrites; a larger one is left as it is.
constexpr uint32_t kMaxSettingsFileBytes = 1u << 20;

// Writes bytes [0, start) of settings, then middle, then bytes [end, size) of settings, then
// tail, into IniTempPath() and renames it over IniFilePath().
// settings: the settings file open for reading, with SettingsFileMutex held by the caller
// for the whole call; nullptr writes a new file from middle and tail alone (start = end = 0).
// TempFileMutex is taken after the caller's SettingsFileMutex and released before return.
// Returns 0; or -1 when the offsets do not fit the file (start > end, end beyond its size),
// the file is too large, or any open, read, write or the rename fails. On -1 the settings
// file is untouched and no temporary file is left behind.
int RewriteSettingsFile(FILE* settings, uint32_t start, uint32_t end, const char* middle,
                        size_t middle_len, const char* tail);

// Size of the open settings file, or -1 when it cannot be told.
int64_t SettingsFileSize(FILE* settings);
