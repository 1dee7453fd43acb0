// "VKEY_<n>" settings: controller key index n (0-9) mapped to a system key code.
#include <errno.h>
#include <limits.h>
#include <linux/input.h>
#include <stdlib.h>
#include <string.h>

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

// Whole text as a number in base; -1 when it is empty, has trailing characters or is out
// of range.
long ParseWhole(const char* text, int base) {
    if (text == nullptr || *text == '\0') return -1;
    errno = 0;
    char* end = nullptr;
    const long value = strtol(text, &end, base);
    if (errno != 0 || end == text || *end != '\0') return -1;
    return value;
}

// The system key code named by value; -1 (no key) for text that is no name and no number,
// and for a number outside the kernel's key codes, which no input device can carry.
int32_t KeyCodeOf(const char* value) {
    if (value == nullptr) return -1;
    for (const KeyName& key : kKeyNames) {
        if (strcmp(value, key.name) == 0) return key.code;
    }
    const long code =
        strncmp(value, "0x", 2) == 0 ? ParseWhole(value + 2, 16) : ParseWhole(value, 10);
    if (code < 0 || code > KEY_MAX) return -1;
    return static_cast<int32_t>(code);
}

// Index after "VKEY_"; -1 when the key is not of that form.
int KeyIndexOf(const char* key) {
    if (key == nullptr || strncmp(key, kKeyPrefix, kKeyPrefixLen) != 0) return -1;
    const long index = ParseWhole(key + kKeyPrefixLen, 10);
    return index > INT_MAX ? -1 : static_cast<int>(index);
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
