// Command replies: the merge rules of fragmented USB replies, whole serial replies, the
// tool form of serial reports, the bound of the 128-byte reply buffer, and the routing of a
// complete reply to the virtual keys, a blocked sender, a polling sender or the tool; the
// virtual keys' "VKEY_<n>" settings and key reports counted against VKEYReportMod.
#include "touch/cmd_reply.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <thread>
#include <vector>

#include "device/cmd_channel.h"
#include "support/touch_test_util.h"
#include "touch/vkey.h"

using namespace touchtest;

namespace {

using Bytes = std::vector<uint8_t>;

int Merge(TouchRig& rig, const Bytes& bytes) {
    return MergeCommandPacket(rig.dev.get(), bytes.data(), static_cast<int>(bytes.size()));
}

void ExpectIdle(const TouchRig& rig) {
    EXPECT_EQ(0, rig.dev->CurIndex);
    EXPECT_EQ(0, rig.dev->RealLen);
    EXPECT_EQ(0, rig.dev->bMerging);
}

Bytes Reply(const TouchRig& rig, size_t length) {
    return Bytes(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + length);
}

}  // namespace

// Packets fed in turn: every one but the last returns 0 (merge in progress); the last
// gives the result, the start of the reply buffer and whether a merge is still open.
TEST(MergeReply, Sequences) {
    const Bytes startE = {0x03, 0x04, 'E', 10, 0xD0, 0xD1};  // a reply of 13 bytes
    Bytes long_reply(64, 0x5A);
    long_reply[0] = 0x03;
    long_reply[1] = 0x3E;
    long_reply[2] = 'E';
    const uint8_t C = 0xCC;  // the buffer's bytes before the test
    // n = 125: a reply of exactly 128 bytes; then 1-byte fragments up to 126, and a 3-byte
    // one that would end at 129.
    std::vector<Bytes> exact = {{0x03, 0x04, 'E', 125, 1, 2}};
    for (int i = 0; i < 41; ++i)
        exact.push_back({0x03, 0x04, 0x00, static_cast<uint8_t>(i), 0xAB, 0xCD});
    std::vector<Bytes> past = {{0x03, 0x04, 'E', 125, 1, 2}};
    for (int i = 0; i < 121; ++i) past.push_back({0x03, 0x02, 0x00, 0x44});
    past.push_back({0x03, 0x04, 0x00, 0x91, 0x92, 0x93});
    struct Case {
        const char* what;
        bool pcap;
        std::vector<Bytes> packets;
        int result;
        Bytes reply;
        bool merging;
    };
    // clang-format off
    const Case cases[] = {
        {"'E' with n = 10 in four reads", false,
         {{0x03, 0x04, 'E', 10, 0xA0, 0xA1, 0xFF, 0xFF}, {0x03, 0x04, 0x00, 0xB0, 0xB1, 0xB2, 0xEE},
          {0x03, 0x04, 0x00, 0xB3, 0xB4, 0xB5}, {0x03, 0x04, 0x00, 0xB6, 0xB7, 0xB8}},
         13, {0x03, 11, 'E', 0xA0, 0xA1, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0xB6, 0xB7}, false},
        {"'D' with n = 2: complete at once", false, {{0x03, 0x04, 'D', 2, 0x11, 0x22}}, 5, {0x03, 3, 'D', 0x11, 0x22}, false},
        {"'F' with n = 2: complete at once", false, {{0x03, 0x04, 'F', 2, 0x11, 0x22}}, 5, {0x03, 3, 'F', 0x11, 0x22}, false},
        {"first fragment with L 2: L + 1 header bytes", false, {{0x03, 0x02, 'E', 10, 0x11, 0x22}}, 0, {0x03, 11, 'E', C, C}, true},
        {"continuation without a first fragment: whole", false, {{0x03, 0x04, 0x00, 1, 2, 3}}, 6, {0x03, 0x04, 0x00, 1, 2, 3}, false},
        {"short reply of another command", false, {{0x03, 0x02, 0x55, 0x01}}, 4, {0x03, 0x02, 0x55, 0x01}, false},
        {"L above 4: whole whatever the command", false, {long_reply}, 64, long_reply, false},
        {"serial reply: whole", false, {{0x0A, 0x03, 0x41, 0x42, 0x43}}, 5, {0x0A, 0x03, 0x41, 0x42, 0x43}, false},
        // Serial reports in the tool's form: 64 bytes, Y doubled, byte 1 = id + 2.
        {"serial report 0x81 in tool form", false, {{0x81, 0x0F, 0x7F, 0x05, 0x90}}, 64,
         {0x0A, 0x83, 0xFE, 0x0F, 0x20, 0x05, 0, 0}, false},
        {"serial report 0x80 in tool form", false, {{0x80, 0, 0, 0, 0}}, 64, {0x0A, 0x82}, false},
        {"serial report too short for the form", false, {{0x81, 0x0F, 0x7F, 0x05}}, -1, {C, C}, false},
        // Every rule that resets a merge in progress, and the one that leaves it alone.
        {"unknown header: merge untouched", false, {startE, {0x55, 0x04, 0x00, 1, 2, 3}}, -1, {}, true},
        {"serial reply resets", false, {startE, {0x0A, 0x02, 0x41, 0x42}}, 4, {}, false},
        {"serial report 0x80 resets", false, {startE, {0x80, 1, 2, 3, 4}}, 64, {}, false},
        {"serial report 0x81 resets", false, {startE, {0x81, 1, 2, 3, 4}}, 64, {}, false},
        {"L above 4 resets", false, {startE, {0x03, 0x05, 0x00, 1, 2, 3, 4}}, 7, {}, false},
        {"unexpected command resets", false, {startE, {0x03, 0x04, 0x31, 1, 2, 3}}, -1, {}, false},
        {"fragment without data resets", false, {startE, {0x03, 0x00, 0x00}}, -1, {}, false},
        {"fragment shorter than its L resets", false, {startE, {0x03, 0x04, 0x00, 1}}, -1, {}, false},
        {"the capacitive family never merges", true, {startE}, 6, startE, false},
        // Replies announcing more than the 128-byte buffer are refused.
        {"n = 126", false, {{0x03, 0x04, 'E', 126, 1, 2}}, -1, {}, false},
        {"n = 255", false, {{0x03, 0x04, 'E', 255, 1, 2}}, -1, {}, false},
        {"whole packet above 128 bytes", false, {Bytes(200, 0x0A)}, -1, {}, false},
        {"a reply of exactly 128 bytes", false, exact, 128, {0x03, 126, 'E', 1, 2, 0, 0xAB, 0xCD}, false},
        {"a fragment past the 128 bytes", false, past, -1, {}, false},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        memset(rig.dev->CmdReplyBuf, C, sizeof(rig.dev->CmdReplyBuf));
        rig.dev->bPCAP = c.pcap;
        for (size_t i = 0; i + 1 < c.packets.size(); ++i) EXPECT_EQ(0, Merge(rig, c.packets[i]));
        EXPECT_EQ(c.result, Merge(rig, c.packets.back()));
        EXPECT_EQ(c.reply, Reply(rig, c.reply.size()));
        if (c.merging) {
            EXPECT_EQ(1, rig.dev->bMerging);
        } else {
            ExpectIdle(rig);
        }
    }
}

TEST(ParseCmdReply, RoutingToHooksAndTool) {
    TouchRig rig;
    UniqueFd tool;
    MakeEventPair(&rig.dev->m_fdPipeOut, &tool);
    rig.dev->SigHookCmd = 0x99;
    struct Step {
        uint8_t hook;
        uint16_t sub;
        Bytes reply;
        bool hooked;  // else the tool gets the reply, exactly its length
    };
    const Step steps[] = {
        {0x99, 0x02, {0x03, 0x03, 0x41, 0x01, 0x02}, false},  // no hook
        {0x41, 0x02, {0x03, 0x03, 0x41, 0x01, 0x02}, false},  // wrong sub-command
        {0x41, 0x02, {0x03, 0x03, 0x41, 0x02, 0x02}, true},
        {0x41, kAnySubCmd, {0x0A, 0x03, 0x41, 0x7E, 0x00}, true},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(testing::PrintToString(s.reply));
        rig.dev->SelfHookCmd = s.hook;
        rig.dev->SelfHookSubCmd = s.sub;
        rig.dev->bSelfHookReplied = 0;
        ParseCmdPacket(rig.dev.get(), s.reply.data(), static_cast<int>(s.reply.size()));
        EXPECT_EQ(s.hooked ? 1 : 0, rig.dev->bSelfHookReplied.load());
        uint8_t buffer[256];
        const ssize_t n = recv(tool.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        EXPECT_EQ(s.hooked ? Bytes{} : s.reply, Bytes(buffer, buffer + (n > 0 ? n : 0)));
    }
    // An incomplete merge routes nothing.
    rig.dev->SelfHookCmd = 'E';
    rig.dev->bSelfHookReplied = 0;
    const Bytes first = {0x03, 0x04, 'E', 10, 1, 2};
    ParseCmdPacket(rig.dev.get(), first.data(), static_cast<int>(first.size()));
    EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
    uint8_t buffer[16];
    EXPECT_EQ(-1, recv(tool.get(), buffer, sizeof(buffer), MSG_DONTWAIT));
}

// A reply matching both hooks wakes the blocked sender only.
TEST(ParseCmdReply, SignalHookWinsOverSelfHook) {
    TouchRig rig;
    rig.dev->SigHookCmd = 0x41;
    rig.dev->SigHookSubCmd = kAnySubCmd;
    rig.dev->SelfHookCmd = 0x41;
    rig.dev->SelfHookSubCmd = 0x01;
    int wait_result = -2;
    std::thread sender([&rig, &wait_result] { wait_result = CmdTimedWait(rig.dev.get(), 5, 0); });
    for (int i = 0; i < 2000; ++i) {  // until the sender sleeps on the condition
        pthread_mutex_lock(&rig.dev->CmdMutex);
        const int waiters = rig.dev->WaiterCount;
        pthread_mutex_unlock(&rig.dev->CmdMutex);
        if (waiters > 0) break;
        usleep(1000);
    }
    const Bytes reply = {0x03, 0x03, 0x41, 0x01, 0x5A};
    ParseCmdPacket(rig.dev.get(), reply.data(), static_cast<int>(reply.size()));
    sender.join();
    EXPECT_EQ(0, wait_result);
    EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
    EXPECT_EQ(reply, Bytes(rig.dev->SigReplyBuf, rig.dev->SigReplyBuf + 5));
}

// "VKEY_<n>" values: key names, hexadecimal or decimal codes; anything else leaves the
// key unmapped, and a later line replaces an earlier one (an unparsable one unmaps it).
TEST(VKeyIni, KeysAndValues) {
    struct Case {
        const char* key;
        const char* value;
        int index;  // -1: nothing may change
        int code;
        const char* earlier = nullptr;  // a value given to the same key before
    };
    const Case cases[] = {
        {"VKEY_0", "BACK", 0, 158},
        {"VKEY_4", "0x9e", 4, 158},
        {"VKEY_5", "0x2FF", 5, 0x2FF},
        {"VKEY_6", "114", 6, 114},
        {"VKEY_7", "home", 7, -1},   // names are case-sensitive
        {"VKEY_8", "0x", 8, -1},     // no digits
        {"VKEY_9", "12abc", 9, 12},  // the leading number
        {"VKEY_9", "abc", 9, -1},
        {"VKEY_9", "", 9, -1},
        {"VKEY_9", "0x300", 9, -1},  // beyond the kernel's key codes
        {"VKEY_9", "-5", 9, -1},
        {"VKEY_9", "99999999999999999999", 9, -1},
        {"VKEY_9", nullptr, 9, -1},
        {"VKEY_10", "BACK", -1, 0},  // index outside 0-9
        {"VKEY_-1", "BACK", -1, 0},
        {"VKEY_x", "BACK", -1, 0},
        {"VKEY_", "BACK", -1, 0},
        {"KEY_1", "BACK", -1, 0},
        {"VKEY_3", "0x9e", 3, 158, "HOME"},
        {"VKEY_3", "junk", 3, -1, "HOME"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.key << "=" << (c.value ? c.value : "(none)"));
        TouchRig rig;
        if (c.earlier) ParseVKEYini(rig.dev.get(), c.key, c.earlier);
        ParseVKEYini(rig.dev.get(), c.key, c.value);
        for (int i = 0; i < kVKeyCount; ++i) {
            EXPECT_EQ(i == c.index ? c.code : -1, rig.dev->VKeyCode[i]) << "index " << i;
        }
    }
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
