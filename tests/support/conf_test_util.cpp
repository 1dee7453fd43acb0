#include "support/conf_test_util.h"

#include <string>

namespace conftest {

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
