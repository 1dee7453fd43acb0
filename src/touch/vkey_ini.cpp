// "VKEY_<n>" settings: controller key index n (0-9) mapped to a system key code.
#include <linux/input.h>
#include <string.h>

#include "config/param_words.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "touch/vkey.h"

namespace {

constexpr char kKeyPrefix[] = "VKEY_";
constexpr size_t kKeyPrefixLen = sizeof(kKeyPrefix) - 1;

struct KeyName {
    const char* name;
    int32_t code;
};
constexpr KeyName kKeyNames[] = {
    {"BACK", KEY_BACK}, {"HOME", KEY_HOME}, {"MENU", KEY_MENU}, {"SEARCH", KEY_SEARCH}};

// The system key code named by value; -1 (no key) for text that is no name and no number,
// and for a number outside the kernel's key codes, which no input device can carry.
int32_t KeyCodeOf(const char* value) {
    if (value == nullptr) return -1;
    for (const KeyName& key : kKeyNames) {
        if (strcmp(value, key.name) == 0) return key.code;
    }
    // The leading number, as every number of the settings file is read.
    if (strncmp(value, "0x", 2) == 0) {
        uint32_t code = 0;
        if (!ParseLeadingHexNumber(value + 2, &code) || code > KEY_MAX) return -1;
        return static_cast<int32_t>(code);
    }
    int32_t code = -1;
    if (!ParseLeadingNumber(value, &code) || code < 0 || code > KEY_MAX) return -1;
    return code;
}

// Index after "VKEY_"; -1 when the key is not of that form.
int KeyIndexOf(const char* key) {
    if (key == nullptr || strncmp(key, kKeyPrefix, kKeyPrefixLen) != 0) return -1;
    int32_t index = -1;
    if (!ParseLeadingNumber(key + kKeyPrefixLen, &index)) return -1;
    return index;
}

}  // namespace

void ParseVKEYini(CDeviceObject* device, const char* key, const char* value) {
    const int index = KeyIndexOf(key);
    if (index < 0 || index >= kVKeyCount) return;
    const int32_t code = KeyCodeOf(value);
    if (device->VKeyCode[index] != -1) {
        TLOG(LOG_INIT, "Repeat VKEY index [%d]. Original system KEY Code [%d] was replaced by [%d]",
             index, device->VKeyCode[index], code);
    }
    device->VKeyCode[index] = code;
    TLOG(LOG_INIT,
         "Get VKEY. Controller KEY Code [%d] => System KEY Code [%d]. Leaving ParseVKEYini().",
         index, code);
}
