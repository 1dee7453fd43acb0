// What kind of controller a device is, from pure inputs: report ids and resolution shifts
// from report descriptor bytes (crash-freedom on arbitrary descriptors is the fuzz
// target's, tests/fuzz/), the series code from model and type names (every row in its
// order), and the event protocol chosen by kernel and series.
#include <gtest/gtest.h>

#include "core/environment.h"
#include "device/descriptor.h"
#include "device/identification.h"
#include "device/setup.h"
#include "support/dev_test_util.h"

namespace {

// A report: Report ID, Generic Desktop usage page, a collection and a Logical Maximum.
Bytes CoordinateReport(uint8_t id, int logical_max) {
    return Bytes{0x85, id,   0x05, 0x01, 0x09, 0x30, 0x15, 0x00, 0x26,
                 static_cast<uint8_t>(logical_max & 0xFF), static_cast<uint8_t>(logical_max >> 8),
                 0x75, 0x10, 0x95, 0x01, 0x81, 0x02};
}

TEST(ResolutionShift, WhichLogicalMaximumCountsAndItsShift) {
    struct Case {
        const char* name;
        Bytes d;
        int shift;
    } cases[] = {
        {"2047", CoordinateReport(4, 2047), 0},
        {"4095", CoordinateReport(4, 4095), 1},
        {"8191", CoordinateReport(4, 8191), 1},
        {"16383", CoordinateReport(4, 16383), 2},
        {"32767", CoordinateReport(4, 32767), 3},
        {"65535", CoordinateReport(4, 65535), 4},
        {"no logical maximum", Bytes{0x85, 0x01, 0x05, 0x01, 0x09, 0x30, 0x75, 0x10}, -1},
        {"logical maximum without generic desktop", Bytes{0x85, 0x01, 0x05, 0x0D, 0x26, 0xFF, 0x7F},
         -1},
        // 0x26 before the usage page is stepped over; the one after it counts.
        {"0x26 before the usage page",
         Bytes{0x85, 0x01, 0x26, 0xFF, 0x7F, 0x05, 0x01, 0x26, 0xFF, 0x0F}, 1},
        // A two-byte usage page (0x06 0x01 0x00) is not Generic Desktop.
        {"two-byte usage page", Bytes{0x85, 0x01, 0x06, 0x01, 0x00, 0x26, 0xFF, 0x7F}, -1},
        // A later usage page does not clear the flag.
        {"later usage page", Bytes{0x85, 0x01, 0x05, 0x01, 0x05, 0x0D, 0x26, 0xFF, 0x3F}, 2},
        {"truncated after 0x26", Bytes{0x85, 0x01, 0x05, 0x01, 0x26, 0xFF}, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.shift, ResolutionShift(c.d.data(), 0, static_cast<int>(c.d.size())));
    }
}

TEST(ReportDescriptor, ReportIdsSetTheirFields) {
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/hidraw99", &settings);
    dev.DigitizerResShift = 7;  // sentinels: ids 2 and 6 are not declared
    dev.ParallelResShift = 7;
    Bytes d = CoordinateReport(0x01, 4095);
    for (const Bytes& part : {Bytes{0x85, 0x03, 0x06, 0x00, 0xFF, 0x09, 0x01},  // vendor
                              CoordinateReport(0x04, 32767),
                              Bytes{0x85, 0x05, 0x09, 0x55, 0xB1, 0x02},          // feature
                              Bytes{0x85, 0x07, 0x05, 0x01, 0x26, 0xFF, 0xFF}}) {  // ignored
        d.insert(d.end(), part.begin(), part.end());
    }
    ApplyReportDescriptor(&dev, d.data(), static_cast<int>(d.size()));
    EXPECT_EQ(1, dev.MouseResShift);
    EXPECT_EQ(4095, dev.MouseLogicalMax);
    EXPECT_EQ(1, dev.bVendorReport);
    EXPECT_EQ(3, dev.MTouchResShift);
    EXPECT_EQ(1, dev.bSetFeature);
    EXPECT_EQ(7, dev.DigitizerResShift);
    EXPECT_EQ(7, dev.ParallelResShift);

    CDeviceObject other("/dev/hidraw98", &settings);
    Bytes digitizer = CoordinateReport(0x02, 16383);
    Bytes parallel = CoordinateReport(0x06, 2047);
    digitizer.insert(digitizer.end(), parallel.begin(), parallel.end());
    ApplyReportDescriptor(&other, digitizer.data(), static_cast<int>(digitizer.size()));
    EXPECT_EQ(2, other.DigitizerResShift);
    EXPECT_EQ(0, other.ParallelResShift);
    EXPECT_EQ(16383, other.DigitizerLogicalMax);
    EXPECT_EQ(2047, other.ParallelLogicalMax);  // too small for a shift: scaled when parsed
    EXPECT_EQ(0, other.bVendorReport);
    EXPECT_EQ(0, other.bSetFeature);
}

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
