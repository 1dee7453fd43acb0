// Compact table rows for the touch tests: bytes as hex ("01 05 10 00"), and the slot-protocol
// frames a reader gets as "id:x,y" (slot down) and "id-" (slot lifted), frames split by '|'.
#pragma once

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

// bytes, filled up to n with fill.
inline Bytes Pad(Bytes bytes, size_t n, uint8_t fill = 0) {
    bytes.resize(n, fill);
    return bytes;
}

inline std::vector<Ev> F(const std::string& frames) {
    std::vector<Ev> out;
    std::istringstream in(frames);
    for (std::string t; in >> t;) {
        int id, x, y;
        if (t == "|") {
            out.push_back(Syn());
        } else if (t.back() == '-') {
            AddSlotUp(&out, std::stoi(t));
        } else if (sscanf(t.c_str(), "%d:%d,%d", &id, &x, &y) == 3) {
            AddSlotDown(&out, id, x, y);
        } else {
            ADD_FAILURE() << "bad frame token " << t;
        }
    }
    if (!out.empty()) out.push_back(Syn());
    return out;
}

}  // namespace touchtest
