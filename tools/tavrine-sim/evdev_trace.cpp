#include "evdev_trace.h"

#include <sys/ioctl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tvm {

namespace {

struct Name {
    uint16_t type;
    uint16_t code;
    const char* name;
};

const Name kNames[] = {
    {EV_SYN, SYN_REPORT, "SYN_REPORT"},
    {EV_SYN, SYN_MT_REPORT, "SYN_MT_REPORT"},
    {EV_SYN, SYN_DROPPED, "SYN_DROPPED"},
    {EV_KEY, BTN_LEFT, "BTN_LEFT"},
    {EV_KEY, BTN_RIGHT, "BTN_RIGHT"},
    {EV_KEY, BTN_TOOL_PEN, "BTN_TOOL_PEN"},
    {EV_KEY, BTN_TOOL_RUBBER, "BTN_TOOL_RUBBER"},
    {EV_KEY, BTN_TOOL_FINGER, "BTN_TOOL_FINGER"},
    {EV_KEY, BTN_TOUCH, "BTN_TOUCH"},
    {EV_KEY, BTN_STYLUS, "BTN_STYLUS"},
    {EV_KEY, BTN_STYLUS2, "BTN_STYLUS2"},
    {EV_KEY, KEY_BACK, "KEY_BACK"},
    {EV_KEY, KEY_HOMEPAGE, "KEY_HOMEPAGE"},
    {EV_KEY, KEY_MENU, "KEY_MENU"},
    {EV_ABS, ABS_X, "ABS_X"},
    {EV_ABS, ABS_Y, "ABS_Y"},
    {EV_ABS, ABS_PRESSURE, "ABS_PRESSURE"},
    {EV_ABS, ABS_TILT_X, "ABS_TILT_X"},
    {EV_ABS, ABS_TILT_Y, "ABS_TILT_Y"},
    {EV_ABS, ABS_MT_SLOT, "ABS_MT_SLOT"},
    {EV_ABS, ABS_MT_TOUCH_MAJOR, "ABS_MT_TOUCH_MAJOR"},
    {EV_ABS, ABS_MT_WIDTH_MAJOR, "ABS_MT_WIDTH_MAJOR"},
    {EV_ABS, ABS_MT_POSITION_X, "ABS_MT_POSITION_X"},
    {EV_ABS, ABS_MT_POSITION_Y, "ABS_MT_POSITION_Y"},
    {EV_ABS, ABS_MT_TOOL_TYPE, "ABS_MT_TOOL_TYPE"},
    {EV_ABS, ABS_MT_TRACKING_ID, "ABS_MT_TRACKING_ID"},
    {EV_ABS, ABS_MT_PRESSURE, "ABS_MT_PRESSURE"},
    {EV_MSC, MSC_SCAN, "MSC_SCAN"},
};

// Hex lines "<tag> [<type>] bb bb ..." of a bitmask, 8 bytes per line.
std::string MaskLines(const char* tag, int type, const uint8_t* mask, size_t size) {
    std::string text;
    char buf[16];
    for (size_t i = 0; i < size; i += 8) {
        text += tag;
        if (type >= 0) {
            std::snprintf(buf, sizeof buf, " %02x", type);
            text += buf;
        }
        for (size_t j = i; j < i + 8 && j < size; ++j) {
            std::snprintf(buf, sizeof buf, " %02x", mask[j]);
            text += buf;
        }
        text += '\n';
    }
    return text;
}

bool TestBit(const uint8_t* mask, unsigned bit) {
    return mask[bit / 8] & (1u << (bit % 8));
}

}  // namespace

std::string TypeName(uint16_t type) {
    static const char* const kTypes[] = {"EV_SYN", "EV_KEY", "EV_REL", "EV_ABS", "EV_MSC", "EV_SW"};
    return type < sizeof kTypes / sizeof kTypes[0] ? kTypes[type] : "";
}

std::string CodeName(uint16_t type, uint16_t code) {
    for (const Name& n : kNames)
        if (n.type == type && n.code == code) return n.name;
    return "";
}

std::string DescribeDevice(int fd) {
    char name[256] = {};
    input_id id{};
    uint8_t props[(INPUT_PROP_CNT + 7) / 8] = {};
    uint8_t types[(EV_CNT + 7) / 8] = {};
    if (ioctl(fd, EVIOCGNAME(sizeof name - 1), name) < 0 || ioctl(fd, EVIOCGID, &id) < 0 ||
        ioctl(fd, EVIOCGPROP(sizeof props), props) < 0 ||
        ioctl(fd, EVIOCGBIT(0, sizeof types), types) < 0)
        return "";
    char line[320];
    std::string text = "# EVEMU 1.3\n";
    std::snprintf(line, sizeof line, "N: %s\nI: %04x %04x %04x %04x\n", name, id.bustype, id.vendor,
                  id.product, id.version);
    text += line;
    text += MaskLines("P:", -1, props, sizeof props);
    static const struct {
        int type;
        int max;
    } kTypes[] = {{EV_SYN, SYN_MAX}, {EV_KEY, KEY_MAX}, {EV_REL, REL_MAX},
                  {EV_ABS, ABS_MAX}, {EV_MSC, MSC_MAX}, {EV_SW, SW_MAX}};
    uint8_t codes[(KEY_MAX + 8) / 8];
    for (const auto& t : kTypes) {
        if (!TestBit(types, static_cast<unsigned>(t.type))) continue;
        size_t size = static_cast<size_t>(t.max / 8 + 1);
        std::memset(codes, 0, sizeof codes);
        if (ioctl(fd, EVIOCGBIT(t.type, size), codes) < 0) return "";
        text += MaskLines("B:", t.type, codes, size);
    }
    uint8_t abs_bits[(ABS_MAX + 8) / 8] = {};
    if (TestBit(types, EV_ABS) && ioctl(fd, EVIOCGBIT(EV_ABS, sizeof abs_bits), abs_bits) >= 0) {
        for (unsigned code = 0; code <= ABS_MAX; ++code) {
            input_absinfo abs{};
            if (!TestBit(abs_bits, code) || ioctl(fd, EVIOCGABS(code), &abs) < 0) continue;
            std::snprintf(line, sizeof line, "A: %02x %d %d %d %d %d\n", code, abs.minimum,
                          abs.maximum, abs.fuzz, abs.flat, abs.resolution);
            text += line;
        }
    }
    return text;
}

std::string FormatEvent(const input_event& ev) {
    char line[160];
    std::string type = TypeName(ev.type), code = CodeName(ev.type, ev.code);
    int n =
        std::snprintf(line, sizeof line, "E: %lu.%06lu %04x %04x %04d",
                      static_cast<unsigned long>(ev.input_event_sec),
                      static_cast<unsigned long>(ev.input_event_usec), ev.type, ev.code, ev.value);
    std::string text(line, static_cast<size_t>(n));
    if (!type.empty()) text += "\t# " + type + (code.empty() ? "" : " / " + code);
    return text + "\n";
}

bool ParseEventLine(const std::string& line, std::string* time, uint16_t* type, uint16_t* code,
                    int32_t* value) {
    char stamp[32] = {};
    unsigned t = 0, c = 0;
    int v = 0;
    if (std::sscanf(line.c_str(), "E: %31s %x %x %d", stamp, &t, &c, &v) == 4 &&
        std::strchr(stamp, '.')) {
        *time = stamp;
    } else if (std::sscanf(line.c_str(), "E: %x %x %d", &t, &c, &v) == 3) {
        *time = "-";  // a trace with its times stripped
    } else {
        return false;
    }
    if (t > 0xffff || c > 0xffff) return false;
    *type = static_cast<uint16_t>(t);
    *code = static_cast<uint16_t>(c);
    *value = v;
    return true;
}

}  // namespace tvm
