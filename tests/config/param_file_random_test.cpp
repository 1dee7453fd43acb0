// Randomised files through the whole per-device step: whatever the file holds, the step
// ends, and the file afterwards is the old one, or the old one with exactly one insertion:
// an address into an empty address line, or a whole block (with a new end word when the
// file had none). No byte of the old file is lost, moved or duplicated.
#include <ctype.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <random>
#include <string>

#include "config/device_param.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "support/conf_test_util.h"

namespace {

using conftest::ConfDataDir;
using conftest::DefaultBlock;
using conftest::Exists;
using conftest::ReadBytes;
using conftest::WriteBytes;

const char* const kAddresses[] = {"usb-1/input0", "usb-2/input0", "/dev/ttyS0"};

std::string RandomFile(std::mt19937& rng) {
    const char* const words[] = {
        "[Device_No.0]",
        "[Device_No.1]",
        "[Device_No.2]",
        "[Device_No.9]",
        "[Device_No.x]",
        "[Device_No.99]",
        "Physical_Address",
        "SupportPoints",
        "[EndOfDevice]",
        "[EndOfFile]",
        "usb-1/input0",
        "usb-2/input0",
        "/dev/ttyS0",
        "10",
        "-1",
        "VKEYReportMod",
        "VKEY_0",
        "BACK",
        "[String]",
        "EdgeLeft",
    };
    const char* const gaps[] = {" ", "\n", "\t\t", "\n\n", ""};
    std::string file = (rng() % 8 == 0) ? "" : "[TavrineA.ini]\n";
    const int count = static_cast<int>(rng() % 60);
    for (int i = 0; i < count; ++i) {
        switch (rng() % 12) {
            case 0:
                file += std::string(64 + rng() % 150, static_cast<char>('a' + rng() % 26));
                break;
            case 1:
                for (int b = static_cast<int>(rng() % 20); b > 0; --b) {
                    file.push_back(static_cast<char>(rng() & 0xFF));
                }
                break;
            default:
                file += words[rng() % (sizeof(words) / sizeof(words[0]))];
                break;
        }
        file += gaps[rng() % 5];
    }
    return file;
}

// True when after == before with text inserted at one offset, in front of one white-space
// byte and the word next.
bool IsInsertion(const std::string& before, const std::string& after, const std::string& text,
                 const std::string& next) {
    if (after.size() != before.size() + text.size()) return false;
    size_t prefix = 0;
    while (prefix < before.size() && before[prefix] == after[prefix]) ++prefix;
    for (size_t i = 0; i <= prefix; ++i) {
        const size_t end = i + text.size();
        if (after.compare(i, text.size(), text) == 0 && end < after.size() &&
            isspace(static_cast<unsigned char>(after[end])) &&
            after.compare(end + 1, next.size(), next) == 0 &&
            after.compare(i + text.size(), std::string::npos, before, i, std::string::npos) == 0) {
            return true;
        }
    }
    return false;
}

TEST(ParamFileRandomTest, EveryRunEndsWithTheOldFileOrOneInsertion) {
    ConfDataDir dir;
    GlobalSettings settings{};
    std::mt19937 rng(20261123);
    int unchanged = 0, claimed = 0, added = 0;
    for (int round = 0; round < 600; ++round) {
        SCOPED_TRACE(round);
        const std::string before = RandomFile(rng);
        ASSERT_TRUE(WriteBytes(IniFilePath(), before));
        settings.MaxDeviceNums = static_cast<int8_t>(1 + rng() % 3);
        const char* address = kAddresses[rng() % 3];
        CDeviceObject dev("/dev/hidraw0", &settings);
        snprintf(dev.Param.Physical_Address, kTextMax, "%s", address);
        dev.Param.SupportPoints = 7;
        DevIniRoutine(&dev);

        ASSERT_EQ(pthread_mutex_trylock(&SettingsFileMutex), 0);
        pthread_mutex_unlock(&SettingsFileMutex);
        EXPECT_FALSE(Exists(IniTempPath()));
        const std::string after = ReadBytes(IniFilePath());
        const int no = dev.Param.Device_No;
        EXPECT_GE(no, -1);
        EXPECT_LE(no, 9);
        if (after == before) {
            ++unchanged;
            continue;
        }
        ASSERT_GE(no, 0);
        std::string block = DefaultBlock(no, address);
        block.replace(block.find("SupportPoints\t\t\t10"), 18, "SupportPoints\t\t\t7");
        if (IsInsertion(before, after, std::string("\t\t") + address, "SupportPoints")) {
            ++claimed;
        } else if (IsInsertion(before, after, block, "[EndOfFile]") ||
                   after == before + block + "\n[EndOfFile]") {
            ++added;
            EXPECT_EQ(dev.Param.SupportPoints, 7);  // read back from the new block
        } else {
            ADD_FAILURE() << "unexpected change\nbefore:\n" << before << "\nafter:\n" << after;
        }
    }
    // The generator reaches every outcome.
    EXPECT_GT(unchanged, 60);
    EXPECT_GT(claimed, 10);
    EXPECT_GT(added, 60);
}

}  // namespace
