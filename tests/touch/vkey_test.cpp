// Virtual keys: the "VKEY_<n>" values, and key reports counted against VKEYReportMod.
#include "touch/vkey.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/touch_test_util.h"
#include "touch/cmd_reply.h"

using namespace touchtest;

TEST(VKeyIni, KeysAndValues) {
    struct Case {
        const char* key;
        const char* value;
        int index;  // -1: nothing may change
        int code;
    };
    const Case cases[] = {
        {"VKEY_0", "BACK", 0, 158}, {"VKEY_1", "HOME", 1, 102},
        {"VKEY_2", "MENU", 2, 139}, {"VKEY_3", "SEARCH", 3, 217},
        {"VKEY_4", "0x9e", 4, 158}, {"VKEY_5", "0x2FF", 5, 0x2FF},
        {"VKEY_6", "114", 6, 114},  {"VKEY_7", "home", 7, -1},  // names are case-sensitive
        {"VKEY_8", "0x", 8, -1},                                // no digits
        {"VKEY_9", "12abc", 9, 12},                             // the leading number
        {"VKEY_9", "abc", 9, -1},   {"VKEY_9", "", 9, -1},
        {"VKEY_9", "0x300", 9, -1},  // beyond the kernel's key codes
        {"VKEY_9", "-5", 9, -1},    {"VKEY_9", "99999999999999999999", 9, -1},
        {"VKEY_10", "BACK", -1, 0},  // index outside 0-9
        {"VKEY_-1", "BACK", -1, 0}, {"VKEY_x", "BACK", -1, 0},
        {"VKEY_", "BACK", -1, 0},   {"KEY_1", "BACK", -1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.key << "=" << c.value);
        TouchRig rig;
        ParseVKEYini(rig.dev.get(), c.key, c.value);
        for (int i = 0; i < kVKeyCount; ++i) {
            EXPECT_EQ(i == c.index ? c.code : -1, rig.dev->VKeyCode[i]) << "index " << i;
        }
    }
    TouchRig rig;
    ParseVKEYini(rig.dev.get(), "VKEY_1", nullptr);
    EXPECT_EQ(-1, rig.dev->VKeyCode[1]);
}

TEST(VKeyIni, LaterLineReplaces) {
    TouchRig rig;
    ParseVKEYini(rig.dev.get(), "VKEY_3", "HOME");
    ParseVKEYini(rig.dev.get(), "VKEY_3", "0x9e");
    EXPECT_EQ(158, rig.dev->VKeyCode[3]);
    ParseVKEYini(rig.dev.get(), "VKEY_3", "junk");  // a later unparsable value unmaps the key
    EXPECT_EQ(-1, rig.dev->VKeyCode[3]);
}

// Key reports (state, index), read as replies, counted against VKEYReportMod: a press at
// every mod-th report of a held key, a release only after a press; a release clears every
// count. Series 22 has a form of its own and knows no other.
TEST(VKeyReport, ReportSequences) {
    const auto press = [](int code) {
        return std::vector<Ev>{Key(static_cast<uint16_t>(code), 1), Syn()};
    };
    const auto release = [](int code) {
        return std::vector<Ev>{Key(static_cast<uint16_t>(code), 0), Syn()};
    };
    struct Step {
        int state, index;
        std::vector<Ev> want;
    };
    struct Case {
        const char* what;
        int series;
        bool form22;
        int modulus;
        std::vector<Step> steps;
    };
    // clang-format off
    const Case cases[] = {
        {"modulus 1: every report counts", 0, false, 1,
         {{1, 2, press(KEY_BACK)}, {1, 2, press(KEY_BACK)}, {0, 2, release(KEY_BACK)}, {0, 2, {}}}},
        {"modulus 3: short taps filtered, auto-repeat, counts cleared on release", 0, false, 3,
         {{1, 1, {}}, {1, 1, {}}, {0, 1, {}}, {1, 1, press(KEY_HOME)}, {1, 1, {}}, {1, 1, {}},
          {1, 1, press(KEY_HOME)}, {1, 4, {}}, {0, 1, release(KEY_HOME)},
          {1, 4, {}}, {1, 4, {}}, {1, 4, press(KEY_MENU)}}},
        {"modulus 0 counts as 1", 0, false, 0, {{1, 0, press(KEY_SEARCH)}, {0, 0, release(KEY_SEARCH)}}},
        {"modulus -3 counts as 1", 0, false, -3, {{1, 0, press(KEY_SEARCH)}, {0, 0, release(KEY_SEARCH)}}},
        {"unmapped and out-of-range keys", 0, false, 1,
         {{1, 12, {}}, {1, 255, {}}, {1, 10, {}}, {1, 3, {}}, {1, 9, press(KEY_BACK)}}},
        {"series 22 form", 22, true, 1, {{1, 5, press(KEY_MENU)}, {0, 5, release(KEY_MENU)}}},
        {"series 22 form on another series: no key", 0, true, 1, {{1, 5, {}}}},
        {"common form on series 22: no key", 22, false, 1, {{1, 5, {}}}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        rig.dev->Series = c.series;
        rig.dev->Param.VKEYReportMod = c.modulus;
        const int codes[kVKeyCount] = {KEY_SEARCH, KEY_HOME, KEY_BACK, -1, KEY_MENU,
                                       KEY_MENU,   -1,       -1,       -1, KEY_BACK};
        for (int i = 0; i < kVKeyCount; ++i) rig.dev->VKeyCode[i] = codes[i];
        for (size_t i = 0; i < c.steps.size(); ++i) {
            SCOPED_TRACE(i);
            const uint8_t state = static_cast<uint8_t>(c.steps[i].state);
            const uint8_t index = static_cast<uint8_t>(c.steps[i].index);
            // Common form: byte 4 bit 0 state, byte 5 index; series 22: bytes 3 and 4.
            const uint8_t common[6] = {0x03, 0x04, 0x36, 0x2F, state, index};
            const uint8_t s22[6] = {0x03, 0x04, 0x2F, state, index, 0x00};
            ParseCmdPacket(rig.dev.get(), c.form22 ? s22 : common, 6);
            EXPECT_EQ(c.steps[i].want, rig.TouchEvents());
        }
    }
}
