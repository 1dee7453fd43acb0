// Compact table rows for the touch and output tests: bytes as hex ("01 05 10 00"), and the
// events a reader gets as text: "id:x,y" a touching slot, "id-" a lifted slot, NAME=value
// one event (names below; Kcode=value a key), "mt" SYN_MT_REPORT, '|' SYN_REPORT, and one
// SYN_REPORT ending any text that is not empty.
#pragma once

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/touch_test_util.h"

namespace touchtest {

using Bytes = std::vector<uint8_t>;

inline Bytes H(const std::string& hex) {
    Bytes out;
    std::istringstream in(hex);
    for (std::string b; in >> b;) out.push_back(static_cast<uint8_t>(std::stoul(b, nullptr, 16)));
    return out;
}

inline Bytes Pad(Bytes bytes, size_t n, uint8_t fill = 0) {
    bytes.resize(n, fill);
    return bytes;
}

inline std::vector<Ev> F(const std::string& text) {
    // clang-format off
    static const std::map<std::string, Ev> names = {
        {"X", Abs(ABS_X, 0)}, {"Y", Abs(ABS_Y, 0)}, {"P", Abs(ABS_PRESSURE, 0)},
        {"TX", Abs(ABS_TILT_X, 0)}, {"TY", Abs(ABS_TILT_Y, 0)}, {"MX", Abs(ABS_MT_POSITION_X, 0)},
        {"MY", Abs(ABS_MT_POSITION_Y, 0)}, {"ID", Abs(ABS_MT_TRACKING_ID, 0)},
        {"MAJOR", Abs(ABS_MT_TOUCH_MAJOR, 0)}, {"WIDTH", Abs(ABS_MT_WIDTH_MAJOR, 0)},
        {"PEN", Key(BTN_TOOL_PEN, 0)}, {"RUBBER", Key(BTN_TOOL_RUBBER, 0)},
        {"STYLUS", Key(BTN_STYLUS, 0)}, {"TOUCH", Key(BTN_TOUCH, 0)}};
    // clang-format on
    std::vector<Ev> out;
    std::istringstream in(text);
    for (std::string t; in >> t;) {
        const std::string name = t.substr(0, t.find('='));
        int id, x, y;
        if (t == "|" || t == "mt") {
            out.push_back(t == "mt" ? MtSyn() : Syn());
        } else if (name != t) {  // NAME=value, or Kcode=value for a key code
            Ev e = isdigit(name[1]) ? Key(static_cast<uint16_t>(std::stoi(name.substr(1))), 0)
                                    : names.at(name);
            e.value = std::stoi(t.substr(name.size() + 1));
            out.push_back(e);
        } else if (t.back() == '-') {
            AddSlotUp(&out, std::stoi(t));
        } else if (sscanf(t.c_str(), "%d:%d,%d", &id, &x, &y) == 3) {
            AddSlotDown(&out, id, x, y);
        } else {
            ADD_FAILURE() << "bad event token " << t;
        }
    }
    if (!out.empty()) out.push_back(Syn());
    return out;
}

}  // namespace touchtest
