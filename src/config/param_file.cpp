// Maintenance of the settings file by the daemon itself: generation of a new file, matching
// a device to its block by physical address, claiming a block whose address line is empty,
// adding and rewriting blocks. Every change goes through RewriteSettingsFile.
#include <ctype.h>
#include <string.h>
#include <unistd.h>

#include "config/device_param.h"
#include "config/param_rewrite.h"
#include "config/param_words.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "log/debug_log.h"

namespace {

constexpr size_t kBlockTextMax = 2048;  // one block: about 600 bytes plus the address
constexpr size_t kFileTextMax = 4096;   // a generated file: the global part and one block
constexpr int kHeaderWordLen = 14;      // strlen("[TavrineA.ini]")
constexpr int kEndOfFileLen = 11;       // strlen("[EndOfFile]")
constexpr int kSupportPointsLen = 13;   // strlen("SupportPoints")

// An address that may be matched, claimed and written: one word of the file that no reader
// can take for anything but an address. Refused: "" and words with white space (never found
// again); any word beginning with '[' (every word that structures the file does, and the
// readers test some of them by prefix: "[Device", "[Device_No."); "SupportPoints", which
// marks an empty address line. Any process can give a uhid device such a physical address.
bool IsMatchableAddress(const char* address) {
    if (address[0] == '\0' || address[0] == '[') return false;
    if (strcmp(address, "SupportPoints") == 0) return false;
    for (const char* c = address; *c; ++c) {
        if (isspace(static_cast<unsigned char>(*c))) return false;
    }
    return true;
}

// Formats the block text of device numbered block_no into buf. Returns the length, or -1
// when it does not fit cap.
int FormatDeviceBlock(char* buf, size_t cap, const CDeviceObject* device, int block_no) {
    const DeviceParam* p = &device->Param;
    const int max_devices = device->pSettings ? device->pSettings->MaxDeviceNums : 1;
    char address_line[kTextMax + 32];
    // An address that is not matchable leaves the line empty, for a later device to claim.
    if (max_devices == 1 || !IsMatchableAddress(p->Physical_Address)) {
        snprintf(address_line, sizeof(address_line), "Physical_Address\n");
    } else {
        snprintf(address_line, sizeof(address_line), "Physical_Address\t\t%s\n",
                 p->Physical_Address);
    }
    int n = snprintf(buf, cap,
                     "\n[Device_No.%d]\n"
                     "%s"
                     "SupportPoints\t\t\t%d\n"
                     "SendRawPoints\t\t\t%d\n"
                     "Direction\t\t\t%d\n"
                     "Orientation\t\t\t%d\n"
                     "EdgeCompensate\t\t\t%d\n"
                     "\tEdgeLeft\t\t\t%d\n"
                     "\tEdgeRight\t\t\t%d\n"
                     "\tEdgeTop\t\t\t\t%d\n"
                     "\tEdgeBottom\t\t\t%d\n"
                     "HoldFilterEnable\t\t%d\n"
                     "\tHoldRange\t\t\t%d\n"
                     "SplitRectMode\t\t\t%d\n"
                     "\tCustomRectLeft\t\t\t%d\n"
                     "\tCustomRectRight\t\t\t%d\n"
                     "\tCustomRectTop\t\t\t%d\n"
                     "\tCustomRectBottom\t\t%d\n"
                     "NoDeviceCheck              %d\n"
                     "VKEYEnable\t\t%d\n"
                     "\tVKEYReportMod\t\t%d\n"
                     "\tVKEY_0\t\t\t%d\n"
                     "[EndOfDevice]",
                     block_no, address_line, p->SupportPoints, device->SendRawPoints, p->Direction,
                     p->Orientation, p->EdgeCompensate, p->EdgeLeft, p->EdgeRight, p->EdgeTop,
                     p->EdgeBottom, p->HoldFilterEnable, p->HoldRange, p->SplitRectMode,
                     p->CustomRectLeft, p->CustomRectRight, p->CustomRectTop, p->CustomRectBottom,
                     device->NoDeviceCheck, p->VKEYEnable ? 1 : 0, p->VKEYReportMod, 0);
    if (n < 0 || static_cast<size_t>(n) >= cap) return -1;
    return n;
}

// The number a new block gets: one more than the highest block number in the file; when 9
// is taken, the lowest free number. -1 when 0-9 are all taken.
int NextFreeBlockNumber(FILE* settings) {
    if (fseek(settings, 0, SEEK_SET) != 0) return -1;
    unsigned used = 0;
    int highest = -1;
    char word[kTextMax];
    while (ReadIniWord(settings, word) == kIniWordOk) {
        int n = IniBlockNumber(word);
        if (n < 0) continue;
        used |= 1u << n;
        if (n > highest) highest = n;
    }
    if (highest < kMaxBlockNumber) return highest + 1;
    for (int n = 0; n <= kMaxBlockNumber; ++n) {
        if (!(used & (1u << n))) return n;
    }
    return -1;
}

// Reads len bytes at offset of the settings file into buf (terminated). false when short.
bool ReadAt(FILE* settings, uint32_t offset, char* buf, size_t len) {
    ssize_t got = pread(fileno(settings), buf, len, static_cast<off_t>(offset));
    if (got < 0 || static_cast<size_t>(got) != len) return false;
    buf[len] = '\0';
    return true;
}

// True when [start, end) of the settings file is the block numbered block_no as the block
// reader recorded it: a white-space byte, the header, ..., "[EndOfDevice]".
bool IsBlockAt(FILE* settings, uint32_t start, uint32_t end, int block_no) {
    if (end < start + kBlockHeaderLen + 1 + kBlockHeaderLen) return false;
    char head[kBlockHeaderLen + 2];
    char tail[kBlockHeaderLen + 1];
    char expected[kTextMax];
    snprintf(expected, sizeof(expected), "[Device_No.%d]", block_no);
    if (!ReadAt(settings, start, head, kBlockHeaderLen + 1)) return false;
    if (!ReadAt(settings, end - kBlockHeaderLen, tail, kBlockHeaderLen)) return false;
    return isspace(static_cast<unsigned char>(head[0])) && strcmp(head + 1, expected) == 0 &&
           strcmp(tail, kEndOfDeviceWord) == 0;
}

// IniDevParamAddBlock on a settings stream the caller opened with SettingsFileMutex held.
// tail is written after the rest of the file ("" or "\n[EndOfFile]").
int AddBlockLocked(CDeviceObject* device, FILE* settings, uint32_t start, uint32_t end,
                   const char* tail) {
    DeviceParam* p = &device->Param;
    int block_no = p->Device_No;
    if (start == end) {
        if (start < static_cast<uint32_t>(kHeaderWordLen)) {
            TLOG(LOG_INIT, "No block is added at offset %u, before the file header", start);
            return -1;
        }
        block_no = NextFreeBlockNumber(settings);
        if (block_no < 0) {
            TLOG(LOG_INIT, "Block numbers 0-9 are all used, device keeps default parameters");
            return -1;
        }
    } else if (block_no < 0 || block_no > kMaxBlockNumber ||
               !IsBlockAt(settings, start, end, block_no)) {
        TLOG(LOG_INIT, "Block [%d] is not at [%u, %u) of the settings file, not rewritten",
             p->Device_No, start, end);
        return -1;
    }
    char text[kBlockTextMax];
    int len = FormatDeviceBlock(text, sizeof(text), device, block_no);
    if (len < 0) return -1;
    if (RewriteSettingsFile(settings, start, end, text, static_cast<size_t>(len), tail) != 0) {
        return -1;
    }
    if (start == end) {
        p->Device_No = static_cast<int8_t>(block_no);
        p->BlockCounter = static_cast<uint8_t>(block_no);  // the last block this device added
    }
    return 0;
}

bool IsStructuralWord(const char* word) {
    return IniBlockNumber(word) >= 0 || strcmp(word, kEndOfFileWord) == 0;
}

}  // namespace

void WriteDeviceBlock(FILE* stream, const CDeviceObject* device) {
    char text[kBlockTextMax];
    int len = FormatDeviceBlock(text, sizeof(text), device, device->Param.Device_No);
    if (len > 0) fwrite(text, 1, static_cast<size_t>(len), stream);
}

int IniDevGenerateFile(CDeviceObject* device) {
    TLOG(LOG_MAIN, "Entering %s", "IniDevGenerateFile");
    pthread_mutex_lock(&SettingsFileMutex);
    if (access(IniFilePath(), F_OK) == 0) {  // another device generated it meanwhile
        pthread_mutex_unlock(&SettingsFileMutex);
        TLOG(LOG_INIT, "ini parameter file %s exists, not generated again", IniFilePath());
        return 0;
    }
    const int max_devices = device->pSettings ? device->pSettings->MaxDeviceNums : 1;
    char text[kFileTextMax];
    int head = snprintf(text, sizeof(text),
                        "%s\n"
                        "DebugEnableBits\t\t%x\n"
                        "ShowDebugPosition\t%d\n"
                        "DeviceNums\t\t%d\n"
                        "BaudRate\t\t%d\n"
                        "[String]\n"
                        "SerialPath\t\tdefault\n"
                        "\n",
                        kIniHeaderWord, DebugEnableBits, ShowDebugPosition, max_devices,
                        static_cast<int>(device->BaudRate));
    int block = -1;
    if (head > 0 && static_cast<size_t>(head) < sizeof(text)) {
        block = FormatDeviceBlock(text + head, sizeof(text) - static_cast<size_t>(head), device, 0);
    }
    int result = -1;
    if (block > 0) {
        result = RewriteSettingsFile(nullptr, 0, 0, text, static_cast<size_t>(head + block),
                                     "\n[EndOfFile]");
    }
    pthread_mutex_unlock(&SettingsFileMutex);
    if (result != 0) {
        TLOG_ERR(LOG_INIT, "Failed to generate ini file");
        return -1;
    }
    device->Param.Device_No = 0;
    return 0;
}

int IniDevParamAttachPhys(CDeviceObject* device, FILE* stream) {
    if (!IsMatchableAddress(device->Param.Physical_Address)) return -1;
    // The stream stands just after "SupportPoints"; the address goes in front of the byte
    // that ends the empty address line.
    long position = ftell(stream);
    if (position < kSupportPointsLen + 1 + kHeaderWordLen) return -1;
    const uint32_t at = static_cast<uint32_t>(position - (kSupportPointsLen + 1));
    char text[kTextMax + 2];
    int len = snprintf(text, sizeof(text), "\t\t%s", device->Param.Physical_Address);
    if (len < 0 || static_cast<size_t>(len) >= sizeof(text)) return -1;
    return RewriteSettingsFile(stream, at, at, text, static_cast<size_t>(len), "");
}

int IniDevParamAddBlock(CDeviceObject* device, uint32_t start, uint32_t end) {
    TLOG(LOG_INIT, "Entering %s", "IniDevParamAddBlock");
    FILE* settings = LockAndOpenFile(IniFilePath(), "r", &SettingsFileMutex);
    if (!settings) {
        TLOG_ERR(LOG_INIT, "Failed to open parameter file: %s.", IniFilePath());
        return -1;
    }
    int result = AddBlockLocked(device, settings, start, end, "");
    CloseAndUnlockFile(settings, &SettingsFileMutex);
    return result;
}

void IniDevParamPhys(CDeviceObject* device, FILE* stream) {
    TLOG(LOG_INIT, "Entering %s", "IniDevParamPhys");
    DeviceParam* p = &device->Param;
    if (!IsMatchableAddress(p->Physical_Address)) {
        TLOG(LOG_PARAM, "Physical address [%s] cannot be matched, use default setting",
             p->Physical_Address);
        p->Device_No = -1;  // no block: not even one this device generated
        CloseAndUnlockFile(stream, &SettingsFileMutex);
        return;
    }
    char word[kTextMax];
    char key[kTextMax];
    char value[kTextMax];
    bool have_word = false;  // word holds a structural word met in place of a key or value
    long end_of_file_at = -1;
    for (;;) {
        if (!have_word && ReadIniWord(stream, word) != kIniWordOk) break;
        have_word = false;
        if (strcmp(word, kEndOfFileWord) == 0) {
            end_of_file_at = ftell(stream) - (kEndOfFileLen + 1);
            break;
        }
        int block_no = IniBlockNumber(word);
        if (block_no < 0) continue;
        p->LastBlockNo = static_cast<uint8_t>(block_no);
        if (ReadIniWord(stream, key) != kIniWordOk) break;
        if (IsStructuralWord(key)) {
            memcpy(word, key, sizeof(word));
            have_word = true;
            continue;
        }
        if (ReadIniWord(stream, value) != kIniWordOk) break;
        if (IsStructuralWord(value)) {
            memcpy(word, value, sizeof(word));
            have_word = true;
            continue;
        }
        if (strcmp(value, p->Physical_Address) == 0) {
            p->Device_No = static_cast<int8_t>(p->LastBlockNo);
            TLOG(LOG_PARAM, "Found match physical address [%s], device figure [%d] ",
                 p->Physical_Address, p->Device_No);
            CloseAndUnlockFile(stream, &SettingsFileMutex);
            return;
        }
        if (strcmp(value, "SupportPoints") == 0) {
            if (IniDevParamAttachPhys(device, stream) != 0) {
                TLOG(LOG_PARAM, "Add physical address failed, use default setting");
            } else {
                p->Device_No = static_cast<int8_t>(p->LastBlockNo);
                TLOG(LOG_PARAM, "Attach physical address [%s] with device figure [%d]",
                     p->Physical_Address, p->Device_No);
            }
            CloseAndUnlockFile(stream, &SettingsFileMutex);
            return;
        }
    }

    // No block of this device: a new one goes in front of "\n[EndOfFile]", or at the end of
    // a file that lacks that word, followed by a new "\n[EndOfFile]".
    const char* tail = "";
    if (end_of_file_at < kHeaderWordLen) {
        int64_t size = SettingsFileSize(stream);
        if (size < 0 || size > kMaxSettingsFileBytes) {
            TLOG(LOG_PARAM, "Settings file unusable, use default setting");
            CloseAndUnlockFile(stream, &SettingsFileMutex);
            return;
        }
        TLOG(LOG_PARAM, "No %s in %s, the new block goes at its end", kEndOfFileWord,
             IniFilePath());
        end_of_file_at = static_cast<long>(size);
        tail = "\n[EndOfFile]";
    }
    const uint32_t at = static_cast<uint32_t>(end_of_file_at);
    int result = AddBlockLocked(device, stream, at, at, tail);
    CloseAndUnlockFile(stream, &SettingsFileMutex);
    if (result == 0) {
        TLOG(LOG_PARAM, "Generate device parameter block, device figure[%d] ,address[%s]",
             p->Device_No, p->Physical_Address);
    }
}
