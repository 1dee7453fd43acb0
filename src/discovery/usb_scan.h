// USB HID discovery over /dev/hidraw0..9.
#pragma once

#include <stdint.h>

class CManager;

constexpr uint16_t kVendorQevo = 0x3C7A;
constexpr uint16_t kVendorPartner = 0x5D19;

void ScanUSBPort(CManager* manager);
// 0 when the node is one of the maker's controllers, -1 otherwise.
int CheckUSBDevice(CManager* manager, const char* path);
