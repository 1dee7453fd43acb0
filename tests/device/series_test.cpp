// Series codes from model and type names (every row in its order), and the event protocol
// chosen by kernel and series.
#include <gtest/gtest.h>

#include "core/environment.h"
#include "device/identification.h"
#include "device/setup.h"
#include "support/dev_test_util.h"

namespace {

TEST(AllocateSeries, RowsInOrder) {
    struct Case {
        const char* model;
        const char* type;
        int32_t series;
    } cases[] = {
        {"K2593", "LOM-1", SERIES_LOMBAR},       {"K2593", "DARLOM", SERIES_LOMBAR},  // row 1 first
        {"JOP7555", "XW", SERIES_JORVAKS},       {"JOP7555", "xw", SERIES_UNKNOWN},  // case counts
        {"DARELYN", "DAR", SERIES_DARELYN},      {"KVR-4455R", "R1", SERIES_DARELYN},
        {"TOBIN4555", "TOBIN4555", SERIES_TOBIN4555}, {"TOB4455", "TOB4455", SERIES_TOB4455},
        {"Melka2", "Melka", SERIES_MELKA},       {"FEN", "FEN", SERIES_FEN},
        {"GLR725D", "GLRxx", SERIES_GLR_7255_W353HS}, {"GLR725F", "GLRxx", SERIES_GLR_7255_W353HS},
        {"GLR100", "GLRxx", SERIES_GLR_7255},
        {"ABC", "GLRxx", SERIES_UNKNOWN},        // rows 10 on tried
        {"ABC", "GLR PCAP6", SERIES_PCAP_6555},  // ... and can match
        {"P40", "PCAP40", SERIES_PCAP_9015},     {"P11", "PCAP11", SERIES_PCAP_9015},
        {"Lantre", "PCAP11", SERIES_PCAP_9085},
        {"Lantre-1", "PCAP40", SERIES_PCAP_9085},  // row 10 fails, row 12
        {"PCAP", "PCAP4x", SERIES_PCAP_4155},
        {"XYZ", "PCAP4155-X", SERIES_PCAP_4155},   // row 13 fails, row 14
        {"Halma", "Halma4455", SERIES_PCAP_4455}, {"PCAP", "Halma4455", SERIES_PCAP_4455},
        {"XYZ", "Halma4455", SERIES_UNKNOWN},    {"", "PCAP6555", SERIES_PCAP_6555},
        {"", "PCAP0415", SERIES_PCAP_0415},      {"", "PCAP2x", SERIES_PCAP_2},
        {"UNKNOWN", "UNKNOWN", SERIES_UNKNOWN},  {"", "", SERIES_UNKNOWN},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.model) + " / " + c.type);
        EXPECT_EQ(c.series, AllocateSeries(c.model, c.type));
    }
    EXPECT_EQ(SERIES_UNKNOWN, AllocateSeries(nullptr, nullptr));
}

// The protocol by kernel version and series; a configured one is kept.
TEST(ChooseEventType, ByKernelAndSeries) {
    struct Case {
        KernelVersionInfo kernel;
        int32_t series;
        int8_t configured;
        int8_t chosen;
    } cases[] = {
        {{2, 6, 35}, 12, 0, 1}, {{2, 6, 32}, 22, 0, 1}, {{2, 6, 36}, 12, 0, 2},
        {{2, 6, 36}, 8, 0, 1},  {{3, 0, 1}, 12, 0, 2},  {{3, 0, 1}, 0, 0, 1},
        {{5, 10, 0}, 9, 0, 2},  {{2, 6, 36}, 12, 4, 4}, {{2, 6, 30}, 12, 2, 2},
    };
    KernelVersionInfo saved = KernelVersion;
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kernel.major << "." << c.kernel.minor << "."
                                        << c.kernel.patch << " series " << c.series);
        KernelVersion = c.kernel;
        CDeviceObject dev("/dev/hidraw99", &settings);
        dev.Series = c.series;
        dev.Param.EventType = c.configured;
        ChooseEventType(&dev);
        EXPECT_EQ(c.chosen, dev.Param.EventType);
    }
    KernelVersion = saved;
}

}  // namespace
