// The HID report descriptor of a USB controller: read from the hidraw node, then scanned
// for the report ids it declares and the resolution of each coordinate report.
#include "device/descriptor.h"

#include <linux/hidraw.h>
#include <math.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include "device/device_object.h"
#include "log/debug_log.h"

namespace {

constexpr uint8_t kReportIdItem = 0x85;
constexpr uint8_t kUsagePageItem = 0x05;
constexpr uint8_t kLogicalMaxItem = 0x26;
constexpr uint8_t kGenericDesktop = 0x01;

// Logical Maximum of the report starting at start, or -1. Items are walked with the
// simplified sizes the controllers use: 0x?6 items carry two data bytes, all others one.
int FindResolution(const uint8_t* d, int start, int size) {
    bool generic_desktop = false;
    int i = start;
    while (i < size) {
        uint8_t item = d[i];
        if (item == kUsagePageItem) {
            if (i + 1 < size && d[i + 1] == kGenericDesktop) generic_desktop = true;
            i += 2;
        } else if ((item & 0x0F) == 0x06) {
            if (generic_desktop && item == kLogicalMaxItem) {
                if (i + 2 >= size) return -1;  // truncated: the value is not all there
                return d[i + 1] + 256 * d[i + 2];
            }
            i += 3;
        } else {
            i += 2;
        }
    }
    return -1;
}

// Logs the descriptor bytes with the device's ids, so that a log of a session holds
// what a replay of it must declare (tavrine-sim --from-log): one line per 192 bytes,
// "Descriptor of [<port>] <vendor>:<product> bytes <first>-<last> of <size>: <hex>", each
// under the log's 512-byte message bound.
void LogDescriptorBytes(const CDeviceObject* device, int fd, const uint8_t* bytes, int size) {
    constexpr int kBytesPerLine = 192;
    struct hidraw_devinfo info = {};
    if (ioctl(fd, HIDIOCGRAWINFO, &info) < 0) memset(&info, 0, sizeof(info));
    for (int first = 0; first < size; first += kBytesPerLine) {
        const int count = size - first < kBytesPerLine ? size - first : kBytesPerLine;
        char hex[2 * kBytesPerLine + 1];
        for (int i = 0; i < count; ++i)
            snprintf(hex + 2 * i, sizeof(hex) - 2 * static_cast<size_t>(i), "%02X",
                     bytes[first + i]);
        DebugLog(LOG_INIT, "Descriptor of [%s] %04X:%04X bytes %d-%d of %d: %s", device->PortPath,
                 static_cast<uint16_t>(info.vendor), static_cast<uint16_t>(info.product), first,
                 first + count - 1, size, hex);
    }
}

// Shift and logical maximum of the coordinate report whose Report ID item is at start.
void ReadCoordinateReport(const uint8_t* d, int start, int size, int8_t* shift,
                          int32_t* logical_max) {
    *shift = static_cast<int8_t>(ResolutionShift(d, start, size));
    const int declared = FindResolution(d, start, size);
    *logical_max = declared > 0 ? declared : 0;
}

}  // namespace

int ResolutionShift(const uint8_t* descriptor, int start, int size) {
    if (!descriptor || start < 0 || size <= 0) return -1;
    int resolution = FindResolution(descriptor, start, size);
    if (resolution < 0) return -1;
    TLOG(LOG_MERGE, "FW resolution = %d", resolution);
    long x = lroundf(static_cast<float>(resolution + 1) / 4096.0f);
    if (x >= 2) {
        int shift = 0;
        while (x > 1) {
            x >>= 1;
            ++shift;
        }
        TLOG(LOG_MERGE, "Calculated Resolution shift=%d", shift);
        TLOG(LOG_MERGE, "Normal output from fw_resol = %d, return shift = %d ", resolution, shift);
        return shift;
    }
    TLOG(LOG_MERGE, "Calculated Resolution shift=%d", 0);
    if (resolution == 4040 || resolution == 4095) {
        TLOG(LOG_MERGE, "shift = 0, Not normal.Force to return shift 1");
        return 1;
    }
    TLOG(LOG_MERGE, "Normal output from fw_resol = %d, return shift = %d ", resolution, 0);
    return 0;
}

void ApplyReportDescriptor(CDeviceObject* device, const uint8_t* descriptor, int size) {
    if (!descriptor || size <= 0) return;
    if (size > kMaxDescriptorSize) size = kMaxDescriptorSize;
    for (int i = 0; i + 1 < size; ++i) {
        if (descriptor[i] != kReportIdItem) continue;
        switch (descriptor[i + 1]) {
            case 0x01:
                ReadCoordinateReport(descriptor, i, size, &device->MouseResShift,
                                     &device->MouseLogicalMax);
                TLOG(LOG_INIT, "Support Mouse Report. Resolution shift = %d",
                     device->MouseResShift);
                break;
            case 0x02:
                ReadCoordinateReport(descriptor, i, size, &device->DigitizerResShift,
                                     &device->DigitizerLogicalMax);
                TLOG(LOG_INIT, "Support Digitizer Report. Resolution shift = %d",
                     device->DigitizerResShift);
                break;
            case 0x03:
                device->bVendorReport = 1;
                TLOG(LOG_INIT, "Support Vendor Report");
                break;
            case 0x04:
                ReadCoordinateReport(descriptor, i, size, &device->MTouchResShift,
                                     &device->MTouchLogicalMax);
                TLOG(LOG_INIT, "Support MTouch Report. Resolution shift = %d",
                     device->MTouchResShift);
                break;
            case 0x05:
                device->bSetFeature = 1;
                TLOG(LOG_INIT, "Support Set Feature");
                break;
            case 0x06:
                ReadCoordinateReport(descriptor, i, size, &device->ParallelResShift,
                                     &device->ParallelLogicalMax);
                TLOG(LOG_INIT, "Support Parallel Report. Resolution shift = %d",
                     device->ParallelResShift);
                break;
            default:
                break;
        }
    }
}

void DevGetDescriptorInfo(CDeviceObject* device) {
    TLOG(LOG_MAIN, "==============  Entering %s  ==============", "DevGetDescriptorInfo");
    if (device->DevInterface == DEV_RS232 || device->DevInterface == DEV_PS2) {
        device->bVendorReport = 1;
        return;
    }
    int fd = device->m_Port_fd.get();
    int size = 0;
    if (ioctl(fd, HIDIOCGRDESCSIZE, &size) < 0) {
        TLOG_ERR(LOG_INIT, "Failed to get HIDRAW Descriptor Size");
        return;
    }
    if (size < 0) size = 0;
    if (size > kMaxDescriptorSize) size = kMaxDescriptorSize;
    static_assert(sizeof(hidraw_report_descriptor::value) >= kMaxDescriptorSize,
                  "descriptor buffer too small");
    struct hidraw_report_descriptor report = {};
    report.size = static_cast<__u32>(size);
    if (ioctl(fd, HIDIOCGRDESC, &report) < 0) {
        TLOG_ERR(LOG_INIT, "Failed to get HIDRAW Descriptor");
        return;
    }
    TLOG(LOG_INIT, "Get Descriptor with size = %d", size);
    if (DebugEnableBits & LOG_INIT) LogDescriptorBytes(device, fd, report.value, size);
    ApplyReportDescriptor(device, report.value, size);
    TLOG(LOG_MAIN, "--------------  Done with %s  --------------", "DevGetDescriptorInfo");
}
