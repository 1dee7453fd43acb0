// Report descriptor scanning: report ids and resolution shifts from byte fixtures.
// Crash-freedom on arbitrary descriptors is the fuzz target's (tests/fuzz/).
#include "device/descriptor.h"

#include <gtest/gtest.h>

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

}  // namespace
