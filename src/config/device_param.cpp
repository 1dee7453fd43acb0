// Per-device parameters: construction defaults, the device's block of the settings file
// and its print-out. DevIniRoutine ties a device to its block (see param_file.cpp).
#include "config/device_param.h"

#include <string.h>
#include <unistd.h>

#include "config/param_words.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "touch/vkey.h"

void SetDeviceParamDefaults(DeviceParam* param) {
    param->LastBlockNo = 0;
    param->BlockCounter = 255;
    param->Device_No = -1;  // 255 as an unsigned byte: no block yet
    snprintf(param->Physical_Address, sizeof(param->Physical_Address), "NULL");
    param->BlockStart = 0;
    param->BlockEnd = 0;

    param->SupportPoints = 10;
    param->ReportMode = 1;
    param->EventType = 0;
    param->Orientation = 0;
    param->Direction = 0;
    param->DetectRotation = 0;
    param->BtnType = 0;
    param->ResolX = -1;
    param->ResolY = -1;
    param->BeepState = 0;
    param->BeepDevice = 0;
    param->BeepFreq = 1000;
    param->BeepLen = 200;
    param->RightClickEnable = 1;
    param->RightClickRange = 20;
    param->RightClickDuration = 1500;
    param->EdgeLeft = 100;
    param->EdgeRight = 100;
    param->EdgeTop = 100;
    param->EdgeBottom = 100;
    param->EdgeCompensate = 0;
    param->HoldFilterEnable = 0;
    param->HoldRange = 20;
    param->SplitRectMode = 0;
    param->ScreenNo = 0;
    param->CustomRectLeft = 0;
    param->CustomRectRight = 4095;
    param->CustomRectTop = 0;
    param->CustomRectBottom = 4095;
    param->VKEYEnable = false;
    param->VKEYReportMod = 1;
}

namespace {

// Stores value into the keyed field named key, cut to the field's width. Returns false when
// no field has that key.
bool StoreKeyedValue(DeviceParam* p, const char* key, int32_t value) {
    struct Entry {
        const char* key;
        int32_t* field;
    };
    const Entry wide[] = {
        {"Orientation", &p->Orientation},
        {"Direction", &p->Direction},
        {"ResolX", &p->ResolX},
        {"ResolY", &p->ResolY},
        {"BeepFreq", &p->BeepFreq},
        {"BeepLen", &p->BeepLen},
        {"RightClickRange", &p->RightClickRange},
        {"RightClickDuration", &p->RightClickDuration},
        {"EdgeLeft", &p->EdgeLeft},
        {"EdgeRight", &p->EdgeRight},
        {"EdgeTop", &p->EdgeTop},
        {"EdgeBottom", &p->EdgeBottom},
        {"HoldRange", &p->HoldRange},
        {"CustomRectLeft", &p->CustomRectLeft},
        {"CustomRectRight", &p->CustomRectRight},
        {"CustomRectTop", &p->CustomRectTop},
        {"CustomRectBottom", &p->CustomRectBottom},
        {"VKEYReportMod", &p->VKEYReportMod},
    };
    for (const Entry& e : wide) {
        if (strcmp(key, e.key) == 0) {
            *e.field = value;
            return true;
        }
    }
    const uint8_t low_byte = static_cast<uint8_t>(value & 0xFF);
    const uint16_t low_word = static_cast<uint16_t>(value & 0xFFFF);
    const uint16_t clamped = value > 1 ? 1 : low_word;
    if (strcmp(key, "SupportPoints") == 0)
        p->SupportPoints = low_byte;
    else if (strcmp(key, "ReportMode") == 0)
        p->ReportMode = static_cast<int8_t>(low_byte);
    else if (strcmp(key, "EventType") == 0)
        p->EventType = static_cast<int8_t>(low_byte);
    else if (strcmp(key, "DetectRotation") == 0)
        p->DetectRotation = static_cast<int8_t>(low_byte);
    else if (strcmp(key, "BtnType") == 0)
        p->BtnType = static_cast<int8_t>(low_byte);
    else if (strcmp(key, "BeepState") == 0)
        p->BeepState = low_byte;
    else if (strcmp(key, "BeepDevice") == 0)
        p->BeepDevice = low_byte;
    else if (strcmp(key, "RightClickEnable") == 0)
        p->RightClickEnable = clamped;
    else if (strcmp(key, "EdgeCompensate") == 0)
        p->EdgeCompensate = clamped;
    else if (strcmp(key, "HoldFilterEnable") == 0)
        p->HoldFilterEnable = low_word;
    else if (strcmp(key, "SplitRectMode") == 0)
        p->SplitRectMode = low_byte;
    else if (strcmp(key, "ScreenNo") == 0)
        p->ScreenNo = low_byte;
    else if (strcmp(key, "VKEYEnable") == 0)
        p->VKEYEnable = (value != 0);
    else
        return false;
    return true;
}

// A word that ends the block read when "[EndOfDevice]" is missing: the next block's header
// or the end-of-file word. The block is then not rewritable (BlockStart = BlockEnd = 0).
bool EndsBlockEarly(const char* word) {
    return IniBlockNumber(word) >= 0 || strcmp(word, kEndOfFileWord) == 0;
}

// Reads the next word, or takes the one left over by the previous pair. false at end of file.
bool NextKey(FILE* stream, char key[kTextMax], char pending[kTextMax]) {
    if (pending[0] != '\0') {
        memcpy(key, pending, kTextMax);
        pending[0] = '\0';
        return true;
    }
    return ReadIniWord(stream, key) == kIniWordOk;
}

enum BlockReadEnd { kBlockEndMarker, kBlockUnterminated };

// Numeric loop: "key number" pairs until "[EndOfDevice]" or the "VKEYReportMod" cut-over.
// A value is its leading number; a word with none is no value: it is taken as the next key.
// Returns true at the cut-over (the virtual-key loop follows), false when the block read
// ended; *end tells how.
bool ReadNumericPairs(FILE* stream, DeviceParam* p, char pending[kTextMax], BlockReadEnd* end) {
    char key[kTextMax];
    char value[kTextMax];
    for (;;) {
        if (!NextKey(stream, key, pending) || EndsBlockEarly(key)) {
            *end = kBlockUnterminated;
            return false;
        }
        if (strcmp(key, kEndOfDeviceWord) == 0) {
            *end = kBlockEndMarker;
            return false;
        }
        if (ReadIniWord(stream, value) != kIniWordOk) {
            *end = kBlockUnterminated;
            return false;
        }
        int32_t number = 0;
        if (!ParseLeadingNumber(value, &number)) {
            memcpy(pending, value, kTextMax);
            continue;
        }
        if (number == -1) continue;  // -1 keeps the default
        StoreKeyedValue(p, key, number);
        if (strcmp(key, "VKEYReportMod") == 0) return true;
    }
}

// Virtual-key loop: "key text" pairs until "[EndOfDevice]"; "VKEY_<n>" pairs are handed to
// ParseVKEYini, other pairs are ignored.
void ReadVirtualKeyPairs(CDeviceObject* device, FILE* stream, char pending[kTextMax],
                         BlockReadEnd* end) {
    char key[kTextMax];
    char value[kTextMax];
    for (;;) {
        if (!NextKey(stream, key, pending) || EndsBlockEarly(key)) {
            *end = kBlockUnterminated;
            return;
        }
        if (strcmp(key, kEndOfDeviceWord) == 0) {
            *end = kBlockEndMarker;
            return;
        }
        if (ReadIniWord(stream, value) != kIniWordOk || EndsBlockEarly(value)) {
            *end = kBlockUnterminated;
            return;
        }
        if (strcmp(value, kEndOfDeviceWord) == 0) {  // a key without its value ends the block
            *end = kBlockEndMarker;
            return;
        }
        if (strncmp(key, "VKEY_", 5) == 0) ParseVKEYini(device, key, value);
    }
}

}  // namespace

void IniDevParamRead(CDeviceObject* device) {
    DeviceParam* p = &device->Param;
    TLOG(LOG_INIT, "Entering %s", "IniDevParamRead");
    if (p->Device_No < 0 || p->Device_No > kMaxBlockNumber) {
        TLOG(LOG_PARAM, "Device has no parameter block [%d], keep defaults", p->Device_No);
        return;
    }
    FILE* stream = LockAndOpenFile(IniFilePath(), "r", &SettingsFileMutex);
    if (!stream) {
        TLOG_ERR(LOG_INIT, "Failed to open parameter file: %s.", IniFilePath());
        return;
    }
    char header[kTextMax];
    snprintf(header, sizeof(header), "[Device_No.%d]", p->Device_No);
    char word[kTextMax];
    bool found = false;
    while (ReadIniWord(stream, word) == kIniWordOk) {
        if (strcmp(word, header) == 0) {
            found = true;
            break;
        }
    }
    if (!found) {
        TLOG(LOG_PARAM, "Device.[%d] parameter block not found, keep defaults", p->Device_No);
        CloseAndUnlockFile(stream, &SettingsFileMutex);
        return;
    }
    // The block text written by the daemon starts with the newline in front of the header.
    const long header_end = ftell(stream);
    TLOG(LOG_PARAM, "Read device.[%d] parameters", p->Device_No);

    char pending[kTextMax] = "";
    BlockReadEnd end = kBlockUnterminated;
    if (ReadNumericPairs(stream, p, pending, &end)) {
        ReadVirtualKeyPairs(device, stream, pending, &end);
    }
    long block_end = ftell(stream);
    if (end == kBlockEndMarker && header_end > kBlockHeaderLen && block_end > header_end) {
        p->BlockStart = static_cast<uint32_t>(header_end - (kBlockHeaderLen + 1));
        p->BlockEnd = static_cast<uint32_t>(block_end);
    } else {
        TLOG(LOG_PARAM, "Device.[%d] block has no %s, it will not be rewritten", p->Device_No,
             kEndOfDeviceWord);
        p->BlockStart = 0;
        p->BlockEnd = 0;
    }
    CloseAndUnlockFile(stream, &SettingsFileMutex);
}

void IniDevParamPrint(const CDeviceObject* device) {
    if (!(DebugEnableBits & LOG_PARAM)) return;
    const DeviceParam* p = &device->Param;
    DebugLog(LOG_PARAM, "==============  Entering Device Parameter List  ==============");
    DebugLog(LOG_PARAM, "EventType[%d], BtnType[%d]", p->EventType, p->BtnType);
    DebugLog(LOG_PARAM, "ReportMode[%d], DetectRotation[%d]", p->ReportMode, p->DetectRotation);
    DebugLog(LOG_PARAM, "Direction[%d], Orientation[%d]", p->Direction, p->Orientation);
    DebugLog(LOG_PARAM, "ResolX[%d], ResolY[%d]", p->ResolX, p->ResolY);
    DebugLog(LOG_PARAM, "RightClick[%d], RightClickDuration[%d], RightClickRange[%d]",
             p->RightClickEnable, p->RightClickDuration, p->RightClickRange);
    DebugLog(LOG_PARAM, "EdgeCompensate[%d], Left[%d] Right[%d] Top[%d] Bottom[%d]",
             p->EdgeCompensate, p->EdgeLeft, p->EdgeRight, p->EdgeTop, p->EdgeBottom);
    DebugLog(LOG_PARAM, "HoldFilter[%d], HoldRange[%d]", p->HoldFilterEnable, p->HoldRange);
    if (p->SplitRectMode == 9) {
        DebugLog(LOG_PARAM, "Customized SplitRect, Left[%d] Right[%d] Top[%d] Bottom[%d]",
                 p->CustomRectLeft, p->CustomRectRight, p->CustomRectTop, p->CustomRectBottom);
    } else {
        DebugLog(LOG_PARAM, "SplitRect Mode= %d", p->SplitRectMode);
    }
    DebugLog(LOG_PARAM, "--------------  Done with Device Parameter List  --------------");
}

void DevIniRoutine(CDeviceObject* device) {
    TLOG(LOG_MAIN, "Entering %s", "DevIniRoutine");
    if (access(IniFilePath(), F_OK) != 0) {
        TLOG(LOG_MAIN, "ini parameter file %s doesn't exist.", IniFilePath());
        IniDevGenerateFile(device);
    }
    FILE* stream = LockAndOpenFile(IniFilePath(), "r", &SettingsFileMutex);
    if (!stream) {
        TLOG(LOG_INIT, "Failed to open parameter file: %s.", IniFilePath());
        return;
    }
    char word[kTextMax];
    if (ReadIniWord(stream, word) != kIniWordOk || strcmp(word, kIniHeaderWord) != 0) {
        TLOG_ERR(LOG_INIT, " This is invalid .ini file: %s, set parameters to default.", word);
        CloseAndUnlockFile(stream, &SettingsFileMutex);
        return;
    }
    const int max_devices = device->pSettings ? device->pSettings->MaxDeviceNums : 1;
    if (max_devices < 2) {
        device->Param.Device_No = 0;
        CloseAndUnlockFile(stream, &SettingsFileMutex);
    } else {
        IniDevParamPhys(device, stream);  // closes the stream and releases the mutex
    }
    IniDevParamRead(device);
    IniDevParamPrint(device);
    TLOG(LOG_MAIN, "Leave %s", "DevIniRoutine");
}
