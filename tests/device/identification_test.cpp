// Identification commands against a scripted controller: reply acceptance, the copy
// limits of the texts and the EEPROM word. The firmware kind is checked through the set-up
// (setup_test.cpp) and the silent port (self_recv_test.cpp).
#include "device/identification.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>

#include "support/dev_test_util.h"

namespace {

// Answers each command byte (byte 2 of the packet) with its scripted packets.
std::function<std::vector<TimedReply>(const Bytes&)> Script(
    std::map<uint8_t, std::vector<Bytes>> script) {
    return [script](const Bytes& packet) {
        std::vector<TimedReply> replies;
        if (packet.size() < 3) return replies;
        auto it = script.find(packet[2]);
        if (it != script.end()) {
            for (const Bytes& b : it->second) replies.push_back({1, b});
        }
        return replies;
    };
}

Bytes UsbText(uint8_t cmd, const std::string& text) {
    // Sized once and filled: inserting into a three-byte vector trips GCC 12's array-bounds
    // check at -O3 (a false positive inside std::vector).
    Bytes b(text.size() + 3);
    b[0] = 0x03;
    b[1] = static_cast<uint8_t>(text.size() + 1);
    b[2] = cmd;
    std::copy(text.begin(), text.end(), b.begin() + 3);
    return b;
}

// A long reply in USB fragments: first [03, 04, cmd, n, d0, d1], then continuations
// [03, L, 00, L - 1 bytes].
std::vector<Bytes> UsbFragments(uint8_t cmd, const std::string& text) {
    std::vector<Bytes> out;
    out.push_back(Bytes{0x03, 0x04, cmd, static_cast<uint8_t>(text.size()),
                        static_cast<uint8_t>(text[0]), static_cast<uint8_t>(text[1])});
    size_t pos = 2;
    while (pos < text.size()) {
        size_t n = std::min<size_t>(3, text.size() - pos);  // continuations carry L - 1 <= 3 bytes
        Bytes c = {0x03, static_cast<uint8_t>(n + 1), 0x00};
        c.insert(c.end(), text.begin() + static_cast<long>(pos),
                 text.begin() + static_cast<long>(pos + n));
        out.push_back(c);
        pos += n;
    }
    return out;
}

class IdentificationTest : public testing::Test {
  protected:
    void SetUp() override { DevIgnoreSigusr2(); }
    void Attach(FakeController* controller, uint8_t interface) {
        controller->Start();
        AttachPort(&dev_, controller, interface);
    }
    GlobalSettings settings_ = DevTestSettings();
    CDeviceObject dev_{"/dev/hidraw99", &settings_};
};

TEST_F(IdentificationTest, TextCopyLimits) {
    const std::string long_text(100, 'V');
    FakeController controller(true);
    controller.SetResponder(Script({
        {0x44, UsbFragments(0x44, long_text)},  // 100 characters
        {0x45, {Bytes{0x03, 0x06, 0x45, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}}},  // length 6
        {0x46, {Bytes{0x03, 0x07, 0x46, 'P', 'C', 0x00, 'X', 'Y', 'Z'}}},           // stops at 0
    }));
    Attach(&controller, DEV_USB);
    char text[kTextMax];
    memset(text, 0, sizeof(text));
    EXPECT_EQ(0, GetFWVersion(&dev_, text));
    EXPECT_EQ(std::string(63, 'V'), std::string(text));
    memset(text, 0, sizeof(text));
    EXPECT_EQ(0, GetModelName(&dev_, text));
    EXPECT_STREQ("ABCDE", text);
    memset(text, 0, sizeof(text));
    EXPECT_EQ(0, GetTypeName(&dev_, text));
    EXPECT_STREQ("PC", text);
    EXPECT_EQ(0, dev_.SelfHookCmd.load());  // unregistered after each command
}

TEST_F(IdentificationTest, EmptyAndRefusedReplies) {
    FakeController controller(false);
    controller.SetResponder(Script({
        {0x44, {Bytes{0x0A, 0x01, 0x44}}},       // length byte 1: answered, empty text
        {0x45, {Bytes{0x0A, 0x02, 0x46, 'Q'}}},  // wrong command byte: not accepted
    }));
    Attach(&controller, DEV_RS232);
    char text[kTextMax];
    memset(text, 0, sizeof(text));
    EXPECT_EQ(0, GetFWVersion(&dev_, text));
    EXPECT_STREQ("", text);
    snprintf(text, sizeof(text), "keep");
    EXPECT_EQ(-1, GetModelName(&dev_, text));  // 1.5 s of silence for the 0x45 hook
    EXPECT_STREQ("keep", text);
}

TEST_F(IdentificationTest, ControllerTypeAndInfo) {
    FakeController controller(true);
    controller.SetResponder(Script({
        {0x46, {UsbText(0x46, "PCAP6xyz")}},
        {0x44, {UsbText(0x44, "V1.2.3")}},
        {0x45, {UsbText(0x45, "Model-9")}},
    }));
    Attach(&controller, DEV_USB);
    DevGetControllerInfo(&dev_);  // the order of the commands: setup_test.cpp
    EXPECT_EQ(1u, dev_.bPCAP);
    EXPECT_STREQ("PCAP6xyz", dev_.TypeName);
    EXPECT_STREQ("V1.2.3", dev_.FWVersion);
    EXPECT_STREQ("Model-9", dev_.ModelName);
    EXPECT_EQ(SERIES_PCAP_6555, dev_.Series);
}

TEST_F(IdentificationTest, NoVersionMeansUnknownTexts) {
    FakeController controller(true);
    controller.SetResponder(Script({{0x46, {UsbText(0x46, "LOMxx")}}}));
    Attach(&controller, DEV_USB);
    DevGetControllerInfo(&dev_);
    EXPECT_STREQ("UNKNOWN", dev_.FWVersion);
    EXPECT_STREQ("UNKNOWN", dev_.TypeName);
    EXPECT_STREQ("UNKNOWN", dev_.ModelName);
    EXPECT_EQ(SERIES_UNKNOWN, dev_.Series);
    EXPECT_EQ(0u, dev_.bPCAP);
    // The model and type commands were not sent after the silent version command.
    for (const Bytes& packet : controller.Received()) EXPECT_NE(0x45, packet[2]);
}

TEST_F(IdentificationTest, EepromWord) {
    FakeController controller(true);
    controller.SetResponder([](const Bytes& packet) {
        std::vector<TimedReply> replies;
        if (packet.size() >= 4 && packet[2] == 0x43) {
            // Answers address 0x39 correctly, any other address for the wrong address.
            uint8_t address = packet[3] == 0x39 ? 0x39 : 0x00;
            replies.push_back({1, Bytes{0x03, 0x04, 0x43, address, 0x23, 0x01}});
        }
        return replies;
    });
    Attach(&controller, DEV_USB);
    uint16_t value = 0xBEEF;
    EXPECT_EQ(0, GetEEData(&dev_, 0x39, &value));
    EXPECT_EQ(0x0123, value);
    value = 0xBEEF;
    EXPECT_EQ(-1, GetEEData(&dev_, 0x10, &value));
    EXPECT_EQ(0xBEEF, value);
}

}  // namespace
