// DeviceParam: the values of one "[Device_No.%d]" block of the settings file, with the
// bookkeeping that ties a device to its block. Part of every CDeviceObject.
#pragma once

#include <stdint.h>

#include "config/global_settings.h"

struct DeviceParam {
    // Bookkeeping.
    uint8_t LastBlockNo;     // number of the last block header passed while matching
    uint8_t BlockCounter;    // counter used when the device adds a block of its own
    int8_t Device_No;        // the device's block number; 255 (-1 as s8) = no block yet
    char Physical_Address[kTextMax];
    uint32_t BlockStart;     // offset 14 characters before the end of the block header
    uint32_t BlockEnd;       // offset just after the block's "[EndOfDevice]"

    // Keyed fields, named after their keys.
    uint8_t SupportPoints;
    int8_t ReportMode;
    int8_t EventType;        // 0 choose at set-up, 1 QEVO_Multi, 2 SLOT_Multi, 4 Android type A
    int32_t Orientation;
    int32_t Direction;
    int8_t DetectRotation;
    int8_t BtnType;
    int32_t ResolX;          // -1 = not given
    int32_t ResolY;
    uint8_t BeepState;
    uint8_t BeepDevice;
    int32_t BeepFreq;
    int32_t BeepLen;
    uint16_t RightClickEnable;
    int32_t RightClickRange;
    int32_t RightClickDuration;
    int32_t EdgeLeft;
    int32_t EdgeRight;
    int32_t EdgeTop;
    int32_t EdgeBottom;
    uint16_t EdgeCompensate;
    uint16_t HoldFilterEnable;
    int32_t HoldRange;
    uint8_t SplitRectMode;   // 9 = custom rectangle
    uint8_t ScreenNo;
    int32_t CustomRectLeft;
    int32_t CustomRectRight;
    int32_t CustomRectTop;
    int32_t CustomRectBottom;
    bool VKEYEnable;
    int32_t VKEYReportMod;
};

class CDeviceObject;

// Construction defaults of every field (the physical address is set by the device object).
void SetDeviceParamDefaults(DeviceParam* param);

// The per-device step run by the device constructor: makes sure the settings file exists,
// finds the device's block (by physical address when MaxDeviceNums >= 2), reads and logs it.
void DevIniRoutine(CDeviceObject* device);
// Reads the block numbered Device_No into the keyed fields; records BlockStart/BlockEnd.
void IniDevParamRead(CDeviceObject* device);
void IniDevParamPrint(const CDeviceObject* device);

// Settings file maintenance. Every change is a copy into IniTempPath() renamed over
// IniFilePath(), with SettingsFileMutex held from the opening of the settings file until
// after the rename; on any failure the settings file is left untouched.
//
// Writes a new settings file with one block (number 0) for device; Device_No = 0. Does
// nothing (and returns 0) when the file exists by then. 0 or -1.
int IniDevGenerateFile(CDeviceObject* device);
// Sets Device_No by physical address, completing or adding a block when needed. Always
// closes stream and releases SettingsFileMutex before it returns.
void IniDevParamPhys(CDeviceObject* device, FILE* stream);
// Writes Physical_Address into the empty address line in front of the stream's position
// (just after the word "SupportPoints"). stream is open with SettingsFileMutex held; it
// stays open and the mutex held (the caller closes it). 0 or -1.
int IniDevParamAttachPhys(CDeviceObject* device, FILE* stream);
// start < end: replaces the bytes [start, end) by the device's block text; they must be the
// block numbered Device_No as IniDevParamRead recorded it (BlockStart, BlockEnd), otherwise
// -1 and nothing is written. start == end: inserts a new block there, numbered one more
// than the highest block number in the file (the lowest free one once 9 is taken; -1 when
// 0-9 are all used); Device_No and BlockCounter become that number. 0 or -1.
int IniDevParamAddBlock(CDeviceObject* device, uint32_t start, uint32_t end);
// Writes the block text of the device to stream.
void WriteDeviceBlock(FILE* stream, const CDeviceObject* device);
