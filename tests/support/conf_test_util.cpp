#include "support/conf_test_util.h"

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/paths.h"
#include "log/debug_log.h"

namespace conftest {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

ConfDataDir::ConfDataDir() : saved_bits_(DebugEnableBits), saved_position_(ShowDebugPosition) {
    char pattern[] = "/tmp/tavrine_conf_XXXXXX";
    const char* made = mkdtemp(pattern);
    path_ = made ? made : "";
    SetDataDirForTest(path_.c_str());
    DebugEnableBits = 0xFFFFFFFFu;
    ShowDebugPosition = 3;  // no output at all
}

ConfDataDir::~ConfDataDir() {
    if (!path_.empty()) nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    SetDataDirForTest("/nonexistent-tavrine-conf-test-dir");
    DebugEnableBits = saved_bits_;
    ShowDebugPosition = saved_position_;
}

std::string ReadBytes(const std::string& path) {
    std::string bytes;
    FILE* f = fopen(path.c_str(), "rbe");
    if (!f) return bytes;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) bytes.append(chunk, n);
    fclose(f);
    return bytes;
}

bool WriteBytes(const std::string& path, const std::string& bytes) {
    FILE* f = fopen(path.c_str(), "wbe");
    if (!f) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

std::string DefaultBlock(int no, const char* address) {
    std::string text = "\n[Device_No." + std::to_string(no) + "]\n";
    text += address ? std::string("Physical_Address\t\t") + address + "\n" : "Physical_Address\n";
    text +=
        "SupportPoints\t\t\t10\n"
        "SendRawPoints\t\t\t0\n"
        "Direction\t\t\t0\n"
        "Orientation\t\t\t0\n"
        "EdgeCompensate\t\t\t0\n"
        "\tEdgeLeft\t\t\t100\n"
        "\tEdgeRight\t\t\t100\n"
        "\tEdgeTop\t\t\t\t100\n"
        "\tEdgeBottom\t\t\t100\n"
        "HoldFilterEnable\t\t0\n"
        "\tHoldRange\t\t\t20\n"
        "SplitRectMode\t\t\t0\n"
        "\tCustomRectLeft\t\t\t0\n"
        "\tCustomRectRight\t\t\t4095\n"
        "\tCustomRectTop\t\t\t0\n"
        "\tCustomRectBottom\t\t4095\n"
        "NoDeviceCheck              0\n"
        "VKEYEnable\t\t0\n"
        "\tVKEYReportMod\t\t1\n"
        "\tVKEY_0\t\t\t0\n"
        "[EndOfDevice]";
    return text;
}

std::string GeneratedHead(const char* debug_bits_hex, int show_position, int device_nums,
                          int baud_rate) {
    return std::string("[TavrineA.ini]\n") + "DebugEnableBits\t\t" + debug_bits_hex + "\n" +
           "ShowDebugPosition\t" + std::to_string(show_position) + "\n" + "DeviceNums\t\t" +
           std::to_string(device_nums) + "\n" + "BaudRate\t\t" + std::to_string(baud_rate) + "\n" +
           "[String]\n" + "SerialPath\t\tdefault\n" + "\n";
}

}  // namespace conftest
