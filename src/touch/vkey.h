// Virtual keys: controller key reports mapped to system key codes.
#pragma once

#include <stdint.h>

class CDeviceObject;

// Maps "VKEY_<n>" to the key code named by value ("BACK", "HOME", "MENU", "SEARCH",
// "0x.." hexadecimal, or decimal). Index outside 0-9 ignored; unparsable value: no key.
void ParseVKEYini(CDeviceObject* device, const char* key, const char* value);
// Handles a recognised key report (a command reply in CmdReplyBuf form).
void HandleVKeyReport(CDeviceObject* device, const uint8_t* reply);
// Writes one key event and a SYN_REPORT to the touch device.
void SendVKey(CDeviceObject* device, int32_t value, int index);
