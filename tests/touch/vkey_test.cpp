// Virtual keys: the "VKEY_<n>" values, and key reports counted against VKEYReportMod.
#include "touch/vkey.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/touch_test_util.h"

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

TEST(VKeyIni, LaterLineReplacesAndLogs) {
    TouchRig rig;
    LogCapture log;
    ParseVKEYini(rig.dev.get(), "VKEY_3", "HOME");
    EXPECT_FALSE(log.Has("Repeat VKEY"));
    EXPECT_TRUE(log.Has(
        "Get VKEY. Controller KEY Code [3] => System KEY Code [102]. Leaving ParseVKEYini()."));
    ParseVKEYini(rig.dev.get(), "VKEY_3", "0x9e");
    EXPECT_EQ(158, rig.dev->VKeyCode[3]);
    EXPECT_TRUE(
        log.Has("Repeat VKEY index [3]. Original system KEY Code [102] was replaced by [158]"));
    // A later unparsable value unmaps the key.
    ParseVKEYini(rig.dev.get(), "VKEY_3", "junk");
    EXPECT_EQ(-1, rig.dev->VKeyCode[3]);
}

namespace {

// Key report of the common form: byte 4 bit 0 state, byte 5 index.
void Report(TouchRig& rig, int state, int index) {
    const uint8_t reply[6] = {
        0x03, 0x04, 0x36, 0x2F, static_cast<uint8_t>(state), static_cast<uint8_t>(index)};
    HandleVKeyReport(rig.dev.get(), reply);
}

std::vector<Ev> Press(int code) {
    return {Key(static_cast<uint16_t>(code), 1), Syn()};
}
std::vector<Ev> Release(int code) {
    return {Key(static_cast<uint16_t>(code), 0), Syn()};
}

}  // namespace

TEST(VKeyReport, EveryReportCountsWithModulusOne) {
    TouchRig rig;
    rig.dev->VKeyCode[2] = KEY_BACK;
    rig.dev->Param.VKEYReportMod = 1;
    Report(rig, 1, 2);
    EXPECT_EQ(Press(KEY_BACK), rig.TouchEvents());
    Report(rig, 1, 2);  // held: repeated
    EXPECT_EQ(Press(KEY_BACK), rig.TouchEvents());
    Report(rig, 0, 2);
    EXPECT_EQ(Release(KEY_BACK), rig.TouchEvents());
    EXPECT_EQ(0, rig.dev->VKeyCount[2]);
    Report(rig, 0, 2);  // a second release: count 0 is below 1, nothing
    EXPECT_TRUE(rig.TouchEvents().empty());
}

TEST(VKeyReport, ShortTapsAreFilteredWithModulusThree) {
    TouchRig rig;
    rig.dev->VKeyCode[1] = KEY_HOME;
    rig.dev->VKeyCode[4] = KEY_MENU;
    rig.dev->Param.VKEYReportMod = 3;
    Report(rig, 1, 1);
    Report(rig, 1, 1);
    Report(rig, 0, 1);  // a tap of 2 reports: nothing, the count stays
    EXPECT_TRUE(rig.TouchEvents().empty());
    EXPECT_EQ(2, rig.dev->VKeyCount[1]);
    Report(rig, 1, 1);  // count 3: press
    EXPECT_EQ(Press(KEY_HOME), rig.TouchEvents());
    Report(rig, 1, 1);
    Report(rig, 1, 1);
    EXPECT_TRUE(rig.TouchEvents().empty());
    Report(rig, 1, 1);  // count 6: auto-repeat
    EXPECT_EQ(Press(KEY_HOME), rig.TouchEvents());
    Report(rig, 1, 4);  // another key counts on its own
    EXPECT_EQ(1, rig.dev->VKeyCount[4]);
    Report(rig, 0, 1);  // release clears every count
    EXPECT_EQ(Release(KEY_HOME), rig.TouchEvents());
    for (int i = 0; i < kVKeyCount; ++i) EXPECT_EQ(0, rig.dev->VKeyCount[i]);
}

TEST(VKeyReport, NonPositiveModulusCountsAsOne) {
    for (int modulus : {0, -3}) {
        TouchRig rig;
        rig.dev->VKeyCode[0] = KEY_SEARCH;
        rig.dev->Param.VKEYReportMod = modulus;
        Report(rig, 1, 0);
        EXPECT_EQ(Press(KEY_SEARCH), rig.TouchEvents());
        Report(rig, 0, 0);
        EXPECT_EQ(Release(KEY_SEARCH), rig.TouchEvents());
    }
}

TEST(VKeyReport, UnmappedAndOutOfRangeKeysAreIgnored) {
    TouchRig rig;
    LogCapture log;
    rig.dev->VKeyCode[9] = KEY_BACK;
    Report(rig, 1, 12);
    Report(rig, 1, 255);
    Report(rig, 1, 10);
    Report(rig, 1, 3);  // no code
    EXPECT_TRUE(rig.TouchEvents().empty());
    EXPECT_TRUE(log.Has("No corresponding system KEYCode to Controller KEYCode [3]"));
    EXPECT_TRUE(log.Has("Get raw VKEY data : ID=12, State=1"));
    Report(rig, 1, 9);
    EXPECT_EQ(Press(KEY_BACK), rig.TouchEvents());
    EXPECT_TRUE(log.Has("Send VKEY. Controller KEYCode[9], System KEYCode [158]"));
}

TEST(VKeyReport, Series22Form) {
    TouchRig rig;
    rig.dev->Series = 22;
    rig.dev->VKeyCode[5] = KEY_MENU;
    const uint8_t press[6] = {0x03, 0x04, 0x2F, 0x01, 0x05, 0x00};
    HandleVKeyReport(rig.dev.get(), press);
    EXPECT_EQ(Press(KEY_MENU), rig.TouchEvents());
    const uint8_t release[6] = {0x03, 0x04, 0x2F, 0x00, 0x05, 0x01};
    HandleVKeyReport(rig.dev.get(), release);
    EXPECT_EQ(Release(KEY_MENU), rig.TouchEvents());
}

TEST(VKeyReport, SendVKeyKeepsTheLastEventTime) {
    TouchRig rig;
    rig.dev->VKeyCode[0] = KEY_BACK;
    rig.dev->Event.input_event_sec = 1234;
    rig.dev->Event.input_event_usec = 5678;
    SendVKey(rig.dev.get(), 1, 0);
    std::vector<TimedEv> events = DrainTimed(rig.TouchFd());
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(Key(KEY_BACK, 1), events[0].ev);
    EXPECT_EQ(1234, events[0].sec);
    EXPECT_EQ(5678, events[1].usec);
    SendVKey(rig.dev.get(), 1, 10);  // no such index: nothing
    SendVKey(rig.dev.get(), 1, -1);
    EXPECT_TRUE(rig.TouchEvents().empty());
}
