// Controller identification: firmware kind, identification texts and the series code.
#pragma once

#include <stdint.h>

class CDeviceObject;

enum : int32_t {
    SERIES_UNKNOWN = 0,
    SERIES_LOMBAR = 2,
    SERIES_JORVAKS = 3,
    SERIES_DARELYN = 4,
    SERIES_TOBIN4555 = 5,
    SERIES_TOB4455 = 6,
    SERIES_MELKA = 7,
    SERIES_FEN = 8,
    SERIES_GLR_7255 = 10,
    SERIES_GLR_7255_W353HS = 11,
    SERIES_PCAP_4155 = 12,
    SERIES_PCAP_4455 = 13,
    SERIES_PCAP_9015 = 19,
    SERIES_BOOT_FIRMWARE = 20,
    SERIES_PCAP_9085 = 21,
    SERIES_PCAP_6555 = 22,
    SERIES_PCAP_0415 = 23,
    SERIES_PCAP_2 = 23,
};

int DevGetIAPType(CDeviceObject* device);
int GetFWVersion(CDeviceObject* device, char* text);
int GetModelName(CDeviceObject* device, char* text);
int GetTypeName(CDeviceObject* device, char* text);
int CheckControllerType(CDeviceObject* device, char* text);
int GetEEData(CDeviceObject* device, uint8_t address, uint16_t* value);
void DevGetControllerInfo(CDeviceObject* device);
// Series code from the model and type names; logs "AllocateSeries: <name>".
int32_t AllocateSeries(const char* model, const char* type);
