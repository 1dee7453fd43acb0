// The global part of the settings file: the header, the global section and the "[String]"
// section. The file is a stream of white-space separated words; line breaks carry no
// meaning.
//
// Hostile input: every word is read into a 64-byte buffer with a bounded conversion; the
// rest of a longer word is consumed and the word is marked over-long, so its tail is
// never taken for a key, and an over-long key or value is ignored (never cut to fit). A
// word holding a NUL byte is ignored the same way, so "[String]\0x" is not "[String]". The
// end of the file inside any section ends the read, keeping what was read. A value is its
// leading number ("2abc" is 2); a value with none is not applied and that word is read as
// the next key, which is how the word "[String]" ends the global section.
#include "config/global_settings.h"

#include <ctype.h>
#include <string.h>

#include "config/param_words.h"
#include "core/data_file.h"
#include "core/paths.h"
#include "core/shell_token.h"
#include "log/debug_log.h"

namespace {

constexpr const char* kHeader = "[TavrineA.ini]";
constexpr const char* kStringSection = "[String]";
constexpr const char* kDeviceHeaderStart = "[Device";
constexpr size_t kDeviceHeaderStartLen = 7;
constexpr const char* kEndOfFile = "[EndOfFile]";
constexpr const char* kEmptyPathSlot = "default";
constexpr const char* kEmptyPidSlot = "NULL";

struct Word {
    char text[kTextMax];
    bool too_long;  // the word had more than 63 characters; text holds only its start
    bool has_nul;   // the word holds a NUL byte; text ends early
    // A word that is too long or holds a NUL byte never matches a key or counts as a value.
    bool Usable() const { return !too_long && !has_nul; }
};

// Word source with one word of look-ahead (a value that is not a number is pushed back).
struct WordReader {
    FILE* stream;
    Word pending;
    bool has_pending;
};

// Reads the next word. Returns false at the end of the stream (or on a read error).
bool NextWord(WordReader* reader, Word* word) {
    if (reader->has_pending) {
        *word = reader->pending;
        reader->has_pending = false;
        return true;
    }
    word->text[0] = '\0';
    word->too_long = false;
    int start = 0;
    int end = 0;
    if (fscanf(reader->stream, " %n%63s%n", &start, word->text, &end) != 1) return false;
    word->has_nul = strlen(word->text) != static_cast<size_t>(end - start);
    const int next = getc(reader->stream);
    if (next == EOF) return true;
    if (isspace(next)) {
        ungetc(next, reader->stream);
        return true;
    }
    // Over-long: drop the rest of the word, so that it is never read as a word of its own.
    word->too_long = true;
    int c = next;
    while (c != EOF && !isspace(c)) c = getc(reader->stream);
    return true;
}

void PushBack(WordReader* reader, const Word& word) {
    reader->pending = word;
    reader->has_pending = true;
}

// The value of a pair: the leading number of the word, by the one rule of param_words.h. A
// word that is too long or holds a NUL byte is no number.
bool DecimalValue(const Word& word, int32_t* value) {
    return word.Usable() && ParseLeadingNumber(word.text, value);
}

bool HexValue(const Word& word, uint32_t* value) {
    return word.Usable() && ParseLeadingHexNumber(word.text, value);
}

bool EndsStringSection(const char* key) {
    return strncmp(key, kDeviceHeaderStart, kDeviceHeaderStartLen) == 0 ||
           strcmp(key, kEndOfFile) == 0;
}

void ApplyGlobalPair(GlobalSettings* settings, const char* key, int32_t value) {
    if (value == -1) return;
    if (strcmp(key, "ShowDebugPosition") == 0) {
        ShowDebugPosition = static_cast<uint8_t>(value);
    } else if (strcmp(key, "BaudRate") == 0) {
        settings->BaudRate = static_cast<uint32_t>(value);
    } else if (strcmp(key, "DeviceNums") == 0) {
        settings->MaxDeviceNums = static_cast<int8_t>(static_cast<uint8_t>(value));
    } else if (strcmp(key, "UseDriverCalib") == 0) {
        settings->UseDriverCalib = value != 0;
    } else if (strcmp(key, "SkipFirstByte") == 0) {
        settings->SkipFirstByte = value != 0;
    } else if (strcmp(key, "ShiftByteBothEnd") == 0) {
        settings->ShiftByteBothEnd = value != 0;
    } else if (strcmp(key, "ScanInterface") == 0) {
        settings->ScanInterface = static_cast<uint8_t>(value);
    }
    // Any other key, "DebugEnableBits" after the first pair included, is ignored.
}

void AddSerialPath(GlobalSettings* settings, const char* value) {
    for (int i = 0; i < kSerialPathSlots; ++i) {
        if (strcmp(settings->CustomSerialPath[i], kEmptyPathSlot) == 0) {
            snprintf(settings->CustomSerialPath[i], kTextMax, "%s", value);
            settings->CustomPathMask |= kCustomSerialPathBit;
            return;
        }
    }
    TLOG(LOG_MAIN, "SerialPath [%s] is ignored: all %d serial path slots are in use.", value,
         kSerialPathSlots);
}

void AddDevPid(GlobalSettings* settings, const char* value) {
    // Product ids end up in shell commands and sysfs writes: 1 to 4 hexadecimal digits are
    // taken, in the form the driver binding writes them (NormalizeProductId).
    char pid[kPidTextMax];
    if (!NormalizeProductId(value, pid)) {
        TLOG(LOG_MAIN, "The PID [%s] is an incorrect form. As a result, skip this PID.", value);
        return;
    }
    for (int i = 0; i < kDevPidSlots; ++i) {
        char* slot = settings->DevPID[i];
        if (strstr(slot, "NULL") || strstr(slot, "null")) {
            snprintf(slot, kPidTextMax, "%s", pid);
            TLOG(LOG_MAIN, "Device[%d] PID [%s] was set to add to module.", i, slot);
            return;
        }
    }
    TLOG(LOG_MAIN, "The PID [%s] is ignored: all %d PID slots are in use.", value, kDevPidSlots);
}

void ApplyStringPair(GlobalSettings* settings, const Word& key, const Word& value) {
    if (!key.Usable()) return;
    if (value.has_nul) return;
    if (value.too_long) {
        TLOG(LOG_MAIN, "The value of [%s] is longer than %d characters, skip it.", key.text,
             kTextMax - 1);
        return;
    }
    if (strcmp(value.text, kEmptyPathSlot) == 0) return;
    if (strstr(key.text, "SerialPath")) {
        AddSerialPath(settings, value.text);
    } else if (strcmp(key.text, "UinputPath") == 0) {
        snprintf(settings->UinputPath, kTextMax, "%s", value.text);
        settings->CustomPathMask |= kCustomUinputPathBit;
    } else if (strstr(key.text, "DevPID")) {
        AddDevPid(settings, value.text);
    }
}

bool IsWord(const Word& word, const char* text) {
    return word.Usable() && strcmp(word.text, text) == 0;
}

// A word that ends the global part of the file: a device block header or the end marker.
bool EndsGlobalPart(const Word& word) {
    return word.Usable() && EndsStringSection(word.text);
}

// The first pair after the header: only "DebugEnableBits" (hexadecimal) is honoured, any
// other first pair is dropped. Returns false when the stream ended.
bool ReadFirstPair(WordReader* reader, Word* key) {
    if (!NextWord(reader, key)) return false;
    if (IsWord(*key, kStringSection) || EndsGlobalPart(*key)) return true;
    Word value;
    if (!NextWord(reader, &value)) return false;
    uint32_t bits = 0;
    if (!HexValue(value, &bits)) {
        PushBack(reader, value);  // not a number: it is the next key
        return true;
    }
    if (IsWord(*key, "DebugEnableBits")) DebugEnableBits = bits;
    return true;
}

// Pairs of key and decimal value, from after first_key up to "[String]". Returns true when
// "[String]" was reached; false when the read must end: the end of the stream, or a device
// block header or the end marker met before any "[String]".
bool ReadGlobalSection(WordReader* reader, GlobalSettings* settings, const Word& first_key) {
    if (IsWord(first_key, kStringSection)) return true;
    if (EndsGlobalPart(first_key)) return false;
    for (;;) {
        Word key;
        if (!NextWord(reader, &key)) return false;
        if (IsWord(key, kStringSection)) return true;
        if (EndsGlobalPart(key)) return false;
        Word value;
        if (!NextWord(reader, &value)) return false;
        int32_t number = 0;
        if (!DecimalValue(value, &number)) {
            PushBack(reader, value);  // not a number: it is the next key
            continue;
        }
        if (key.Usable()) ApplyGlobalPair(settings, key.text, number);
    }
}

void ReadStringSection(WordReader* reader, GlobalSettings* settings) {
    Word key;
    for (;;) {
        if (!NextWord(reader, &key)) return;
        if (EndsGlobalPart(key)) return;
        Word value;
        if (!NextWord(reader, &value)) return;
        ApplyStringPair(settings, key, value);
    }
}

}  // namespace

void SetDefaultSettings(GlobalSettings* settings) {
    DebugEnableBits = 1;
    ShowDebugPosition = 1;
    settings->KillRunning = 0;
    settings->ShowVersion = 0;
    settings->ShowFullVersion = 0;
    settings->ForceRestart = 0;
    settings->ShowUsage = 0;
    snprintf(settings->UinputPath, kTextMax, "%s", kDefaultUinputPath);
    for (int i = 0; i < kSerialPathSlots; ++i) {
        snprintf(settings->CustomSerialPath[i], kTextMax, "%s", kEmptyPathSlot);
    }
    for (int i = 0; i < kDevPidSlots; ++i) {
        snprintf(settings->DevPID[i], kPidTextMax, "%s", kEmptyPidSlot);
    }
    settings->CustomPathMask = 0;
    settings->BaudRate = 0;
    settings->DeviceBaudRate = 0;
    settings->MaxDeviceNums = 1;
    settings->ScanInterface = 0;
    settings->UseDriverCalib = false;
    settings->SkipFirstByte = false;
    settings->ShiftByteBothEnd = false;
    RemoveOldLogs();
    BuildLogFileName();
}

void ReadGlobalSettingsFrom(FILE* stream, GlobalSettings* settings) {
    WordReader reader = {stream, {}, false};
    Word word;
    if (!NextWord(&reader, &word) || !IsWord(word, kHeader)) {
        TLOG_ERR(LOG_MAIN, "Found invalid .ini file: %s, set to default.", word.text);
        return;
    }
    if (!ReadFirstPair(&reader, &word)) return;
    if (!ReadGlobalSection(&reader, settings, word)) return;
    ReadStringSection(&reader, settings);
}

void ReadGlobalSettings(GlobalSettings* settings) {
    const char* path = IniFilePath();
    FILE* stream = FopenDataFile(path, "r");  // no link followed, no FIFO waited on
    if (!stream) {
        TLOG_ERR(LOG_MAIN, "Failed to open the file: %s, set parameter to default.", path);
        return;
    }
    TLOG(LOG_MAIN, "File: read - %s", path);
    ReadGlobalSettingsFrom(stream, settings);
    fclose(stream);
}

void PrintGlobalSettings(const GlobalSettings* settings) {
    TLOG(LOG_MAIN, "Daemon Version: [%s]", kDaemonVersion);
    TLOG(LOG_PARAM, "DebugMode[%X], ShowDebugPosition[%x]", DebugEnableBits, ShowDebugPosition);
    TLOG(LOG_PARAM, "MaxDeviceNums[%d], ScanInterface[%d], DeviceBaudRate[%d]",
         settings->MaxDeviceNums, settings->ScanInterface, settings->DeviceBaudRate);
    TLOG(LOG_PARAM, "UseDriverCalib[%d]", settings->UseDriverCalib);
    TLOG(LOG_PARAM, "SkipFirstByte[%d]", settings->SkipFirstByte);
    TLOG(LOG_PARAM, "ShiftByteBothEnd[%d]", settings->ShiftByteBothEnd);
    for (int i = 0; i < kSerialPathSlots; ++i) {
        if (strcmp(settings->CustomSerialPath[i], kEmptyPathSlot) != 0) {
            TLOG(LOG_PARAM, "CustomSerialPath[%d] = %s", i, settings->CustomSerialPath[i]);
        }
    }
    TLOG(LOG_PARAM, "UinputPath = %s", settings->UinputPath);
}
