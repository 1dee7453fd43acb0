// Report descriptor scanning: report ids and resolution shifts from byte fixtures.
#include "device/descriptor.h"

#include <gtest/gtest.h>

#include "support/dev_test_util.h"

namespace {

// A report: Report ID, Generic Desktop usage page, a collection and a Logical Maximum.
Bytes CoordinateReport(uint8_t id, int logical_max) {
    return Bytes{0x85,
                 id,
                 0x05,
                 0x01,
                 0x09,
                 0x30,
                 0x15,
                 0x00,
                 0x26,
                 static_cast<uint8_t>(logical_max & 0xFF),
                 static_cast<uint8_t>(logical_max >> 8),
                 0x75,
                 0x10,
                 0x95,
                 0x01,
                 0x81,
                 0x02};
}

TEST(ResolutionShift, ShiftPerLogicalMaximum) {
    struct Case {
        int logical_max;
        int shift;
    } cases[] = {{2047, 0},  {4040, 1},  {4095, 1}, {6143, 1},  {8191, 1}, {16383, 2},
                 {32767, 3}, {65535, 4}, {1023, 0}, {12287, 1}, {0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.logical_max);
        Bytes d = CoordinateReport(0x04, c.logical_max);
        EXPECT_EQ(c.shift, ResolutionShift(d.data(), 0, static_cast<int>(d.size())));
    }
}

TEST(ResolutionShift, WhichLogicalMaximumCounts) {
    struct Case {
        const char* name;
        Bytes d;
        int shift;
    } cases[] = {
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
        {"truncated at 0x26", Bytes{0x85, 0x01, 0x05, 0x01, 0x26}, -1},
        {"truncated at usage page", Bytes{0x85, 0x01, 0x05}, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // Copied into an exactly sized heap block so a read past the end is caught by ASan.
        std::vector<uint8_t> exact(c.d);
        EXPECT_EQ(c.shift, ResolutionShift(exact.data(), 0, static_cast<int>(exact.size())));
    }
    EXPECT_EQ(-1, ResolutionShift(nullptr, 0, 10));
    Bytes d = CoordinateReport(0x01, 4095);
    EXPECT_EQ(-1, ResolutionShift(d.data(), 0, 0));
}

TEST(ReportDescriptor, ReportIdsSetTheirFields) {
    GlobalSettings settings = DevTestSettings();
    CDeviceObject dev("/dev/hidraw99", &settings);
    dev.DigitizerResShift = 7;  // sentinels: ids 2 and 6 are not declared
    dev.ParallelResShift = 7;
    Bytes d = CoordinateReport(0x01, 4095);
    const Bytes vendor = {0x85, 0x03, 0x06, 0x00, 0xFF, 0x09, 0x01};
    Bytes mtouch = CoordinateReport(0x04, 32767);
    const Bytes feature = {0x85, 0x05, 0x09, 0x55, 0xB1, 0x02};
    const Bytes ignored = {0x85, 0x07, 0x05, 0x01, 0x26, 0xFF, 0xFF};
    d.insert(d.end(), vendor.begin(), vendor.end());
    d.insert(d.end(), mtouch.begin(), mtouch.end());
    d.insert(d.end(), feature.begin(), feature.end());
    d.insert(d.end(), ignored.begin(), ignored.end());
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

TEST(ReportDescriptor, SerialDevicesHaveTheVendorReportWithoutDescriptor) {
    GlobalSettings settings = DevTestSettings();
    for (uint8_t interface : {DEV_RS232, DEV_PS2}) {
        CDeviceObject dev("/dev/ttyS99", &settings);
        dev.DevInterface = interface;
        DevGetDescriptorInfo(&dev);  // no port at all: must not be touched
        EXPECT_EQ(1, dev.bVendorReport);
    }
    // A USB device whose node gives no descriptor keeps everything unset.
    DevLogCapture log;
    CDeviceObject usb("/dev/hidraw99", &settings);
    usb.DevInterface = DEV_USB;
    FakeController port(true);
    AttachPort(&usb, &port, DEV_USB);
    DevGetDescriptorInfo(&usb);
    EXPECT_EQ(0, usb.bVendorReport);
    EXPECT_TRUE(log.Contains("Failed to get HIDRAW Descriptor Size"));
}

}  // namespace
