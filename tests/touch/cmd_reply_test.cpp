// Command replies: merging fragmented USB replies in the 128-byte reply buffer, serial
// replies and reports; routing a complete reply; the virtual keys' settings and key reports.
#include "touch/cmd_reply.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "device/cmd_channel.h"
#include "support/touch_test_util.h"
#include "touch/vkey.h"

using namespace touchtest;

// Packets fed in turn: every one but the last returns 0 (merge in progress); the last gives
// the result, the start of the reply buffer (CC: untouched) and whether a merge stays open.
TEST(MergeReply, Sequences) {
    const Bytes E = Hex("03 04 45 0A D0 D1");  // 'E': a reply of 13 bytes
    const Bytes long_reply = Pad(Hex("03 3E 45"), 64, 0x5A);
    // 'E' with n = 125: exactly 128 bytes in 41 3-byte fragments; 121 1-byte ones then a
    // 3-byte one that would end at 129.
    std::vector<Bytes> exact = {Hex("03 04 45 7D 01 02")}, past = exact;
    exact.insert(exact.end(), 41, Hex("03 04 00 00 AB CD"));
    past.insert(past.end(), 121, Hex("03 02 00 44"));
    past.push_back(Hex("03 04 00 91 92 93"));
    struct Case {
        const char* what;
        std::vector<Bytes> packets;
        int result;
        Bytes reply;
        bool merging, pcap = false;
    };
    // clang-format off
    const Case cases[] = {
        {"'E' with n = 10 in four reads", {Hex("03 04 45 0A A0 A1 FF FF"), Hex("03 04 00 B0 B1 B2 EE"), Hex("03 04 00 B3 B4 B5"),
         Hex("03 04 00 B6 B7 B8")}, 13, Hex("03 0B 45 A0 A1 B0 B1 B2 B3 B4 B5 B6 B7"), false},
        {"'D': complete at once", {Hex("03 04 44 02 11 22")}, 5, Hex("03 03 44 11 22"), false},
        {"'F': complete at once", {Hex("03 04 46 02 11 22")}, 5, Hex("03 03 46 11 22"), false},
        {"first fragment with L 2: L + 1 header bytes", {Hex("03 02 45 0A 11 22")}, 0, Hex("03 0B 45 CC CC"), true},
        {"continuation alone: whole", {Hex("03 04 00 01 02 03")}, 6, Hex("03 04 00 01 02 03"), false},
        {"another command: whole", {Hex("03 02 55 01")}, 4, Hex("03 02 55 01"), false},
        {"L above 4: whole", {long_reply}, 64, long_reply, false},
        {"serial reply: whole", {Hex("0A 03 41 42 43")}, 5, Hex("0A 03 41 42 43"), false},
        // Serial reports in the tool's form: 64 bytes, Y doubled, byte 1 = id + 2.
        {"serial report 0x81", {Hex("81 0F 7F 05 90")}, 64, Hex("0A 83 FE 0F 20 05 00 00"), false},
        {"serial report 0x80", {Hex("80 00 00 00 00")}, 64, Hex("0A 82"), false},
        {"serial report too short", {Hex("81 0F 7F 05")}, -1, Hex("CC CC"), false},
        // Every rule that resets a merge in progress, and the one that leaves it alone.
        {"unknown header: merge untouched", {E, Hex("55 04 00 01 02 03")}, -1, {}, true},
        {"serial reply resets", {E, Hex("0A 02 41 42")}, 4, {}, false},
        {"serial report resets", {E, Hex("81 01 02 03 04")}, 64, {}, false},
        {"L above 4 resets", {E, Hex("03 05 00 01 02 03 04")}, 7, {}, false},
        {"unexpected command resets", {E, Hex("03 04 31 01 02 03")}, -1, {}, false},
        {"fragment without data resets", {E, Hex("03 00 00")}, -1, {}, false},
        {"fragment shorter than its L resets", {E, Hex("03 04 00 01")}, -1, {}, false},
        {"the capacitive family never merges", {E}, 6, E, false, true},
        // Replies announcing more than the 128-byte buffer are refused.
        {"n = 126", {Hex("03 04 45 7E 01 02")}, -1, {}, false},
        {"whole packet above 128 bytes", {Bytes(200, 0x0A)}, -1, {}, false},
        {"a reply of exactly 128 bytes", exact, 128, Hex("03 7E 45 01 02 00 AB CD"), false},
        {"a fragment past the 128 bytes", past, -1, {}, false},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TouchRig rig;
        memset(rig.dev->CmdReplyBuf, 0xCC, sizeof(rig.dev->CmdReplyBuf));
        rig.dev->bPCAP = c.pcap;
        for (size_t i = 0; i < c.packets.size(); ++i) {
            const int n = static_cast<int>(c.packets[i].size());
            EXPECT_EQ(i + 1 < c.packets.size() ? 0 : c.result,
                      MergeCommandPacket(rig.dev.get(), c.packets[i].data(), n));
        }
        EXPECT_EQ(c.reply, Bytes(rig.dev->CmdReplyBuf, rig.dev->CmdReplyBuf + c.reply.size()));
        EXPECT_EQ(c.merging, rig.dev->bMerging == 1);
        EXPECT_EQ(c.merging, rig.dev->CurIndex + rig.dev->RealLen > 0);
    }
}

// A complete reply wakes the sender blocked on it (SigHook), else answers a polling one
// (SelfHook, sub-command matched unless any), else goes to the tool, exactly its length. An
// incomplete merge routes nothing.
TEST(ParseCmdReply, RoutingToHooksAndTool) {
    TouchRig rig;
    UniqueFd tool;
    MakeEventPair(&rig.dev->m_fdPipeOut, &tool);
    rig.dev->SigHookCmd = 0x99;
    // clang-format off
    const struct { uint8_t hook; uint16_t sub; Bytes reply; bool hooked; } steps[] = {
        {0x99, 0x02, Hex("03 03 41 01 02"), false}, {0x41, 0x02, Hex("03 03 41 01 02"), false},
        {0x41, 0x02, Hex("03 03 41 02 02"), true},  {0x41, kAnySubCmd, Hex("0A 03 41 7E 00"), true},
        {0x45, kAnySubCmd, Hex("03 04 45 0A 01 02"), false},  // the first fragment of a merge
    };
    // clang-format on
    for (const auto& s : steps) {
        SCOPED_TRACE(testing::PrintToString(s.reply));
        rig.dev->SelfHookCmd = s.hook, rig.dev->SelfHookSubCmd = s.sub;
        rig.dev->bSelfHookReplied = 0;
        ParseCmdPacket(rig.dev.get(), s.reply.data(), static_cast<int>(s.reply.size()));
        EXPECT_EQ(s.hooked, rig.dev->bSelfHookReplied.load() == 1);
        uint8_t buffer[256];
        const ssize_t n = recv(tool.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        EXPECT_EQ(s.hooked || s.hook == 0x45 ? Bytes{} : s.reply,
                  Bytes(buffer, buffer + std::max<ssize_t>(n, 0)));
    }
}

// A reply matching both hooks wakes the blocked sender only.
TEST(ParseCmdReply, SignalHookWinsOverSelfHook) {
    TouchRig rig;
    rig.dev->SigHookCmd = rig.dev->SelfHookCmd = 0x41;
    rig.dev->SigHookSubCmd = kAnySubCmd, rig.dev->SelfHookSubCmd = 0x01;
    int wait_result = -2;
    std::thread sender([&rig, &wait_result] { wait_result = CmdTimedWait(rig.dev.get(), 5, 0); });
    for (int i = 0, waiters = 0; i < 2000 && waiters == 0; ++i) {  // until the sender sleeps
        usleep(1000);
        pthread_mutex_lock(&rig.dev->CmdMutex);
        waiters = rig.dev->WaiterCount;
        pthread_mutex_unlock(&rig.dev->CmdMutex);
    }
    const Bytes reply = Hex("03 03 41 01 5A");
    ParseCmdPacket(rig.dev.get(), reply.data(), static_cast<int>(reply.size()));
    sender.join();
    EXPECT_EQ(0, wait_result);
    EXPECT_EQ(0, rig.dev->bSelfHookReplied.load());
    EXPECT_EQ(reply, Bytes(rig.dev->SigReplyBuf, rig.dev->SigReplyBuf + 5));
}

// "VKEY_<n>" values: key names, hexadecimal or decimal codes; a later line replaces an
// earlier one ("HOME" here), and one that is none of these unmaps the key (-1). Keys outside
// VKEY_0-9 change nothing.
TEST(VKeyIni, KeysAndValues) {
    // clang-format off
    const struct { const char* key; const char* value; int index, code; } cases[] = {
        {"VKEY_0", "BACK", 0, 158}, {"VKEY_4", "0x9e", 4, 158}, {"VKEY_5", "0x2FF", 5, 0x2FF}, {"VKEY_6", "114", 6, 114},
        {"VKEY_7", "home", 7, -1}, {"VKEY_8", "0x", 8, -1}, {"VKEY_9", "12abc", 9, 12}, {"VKEY_9", "abc", 9, -1},
        {"VKEY_9", "", 9, -1}, {"VKEY_9", "0x300", 9, -1}, {"VKEY_9", "-5", 9, -1},
        {"VKEY_9", "99999999999999999999", 9, -1}, {"VKEY_9", nullptr, 9, -1},
        {"VKEY_10", "BACK", -1, 0}, {"VKEY_-1", "BACK", -1, 0}, {"VKEY_x", "BACK", -1, 0}, {"KEY_1", "BACK", -1, 0},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.key << "=" << (c.value ? c.value : "(none)"));
        TouchRig rig;
        ParseVKEYini(rig.dev.get(), c.key, "HOME");  // an earlier line of the same key
        ParseVKEYini(rig.dev.get(), c.key, c.value);
        for (int i = 0; i < kVKeyCount; ++i)
            EXPECT_EQ(i == c.index ? c.code : -1, rig.dev->VKeyCode[i]) << i;
    }
}

// Key reports (state, index) counted against VKEYReportMod: a press at every mod-th report
// of a held key, a release only after a press; a release clears every count. Series 22 has
// a form of its own and knows no other. Steps: "state:index" (hex), then the key written
// ("K158=1" a press of KEY_BACK) or "." nothing.
TEST(VKeyReport, ReportSequences) {
    // clang-format off
    const struct { int series, modulus; bool form22; const char* steps; } cases[] = {
        {0, 1, false, "1:2 K158=1 1:2 K158=1 0:2 K158=0 0:2 ."},
        {0, 3, false, "1:1 . 1:1 . 0:1 . 1:1 K102=1 1:1 . 1:1 . 1:1 K102=1 1:4 . 0:1 K102=0 1:4 . 1:4 . 1:4 K139=1"},
        {0, 0, false, "1:0 K217=1 0:0 K217=0"}, {0, -3, false, "1:0 K217=1 0:0 K217=0"},  // counted as 1
        {0, 1, false, "1:0C . 1:FF . 1:0A . 1:3 . 1:9 K158=1"},  // unmapped and out-of-range keys
        {22, 1, true, "1:5 K139=1 0:5 K139=0"}, {0, 1, true, "1:5 ."}, {22, 1, false, "1:5 ."},
    };
    // clang-format on
    const int codes[kVKeyCount] = {KEY_SEARCH, KEY_HOME, KEY_BACK, -1, KEY_MENU,
                                   KEY_MENU,   -1,       -1,       -1, KEY_BACK};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.steps);
        TouchRig rig;
        rig.dev->Series = c.series;
        rig.dev->Param.VKEYReportMod = c.modulus;
        std::copy(codes, codes + kVKeyCount, rig.dev->VKeyCode);
        std::istringstream in(c.steps);
        for (std::string report, want; in >> report >> want;) {
            SCOPED_TRACE(report);
            // Common form: byte 4 bit 0 state, byte 5 index; series 22: bytes 3 and 4.
            const std::string index = report.substr(2), fields = "0" + report.substr(0, 1) +
                                                               (index.size() < 2 ? " 0" : " ") + index;
            const Bytes packet =
                Hex(c.form22 ? "03 04 2F " + fields + " 00" : "03 04 36 2F " + fields);
            ParseCmdPacket(rig.dev.get(), packet.data(), 6);
            EXPECT_EQ(F(want == "." ? "" : want), rig.TouchEvents());
        }
    }
}
