// HID report descriptor scan: every resolution shift stays in -1..4, the range the point
// parser is built for, also for out-of-range starts.
#include "device/descriptor.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size > static_cast<size_t>(kMaxDescriptorSize)) return 0;
    const std::vector<uint8_t> d(data, data + size);  // exactly sized for AddressSanitizer
    const int count = static_cast<int>(size);
    auto check = [](int shift) { fuzz::Check(shift >= -1 && shift <= 4); };
    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    ApplyReportDescriptor(dev, d.data(), count);
    for (int shift : {dev->MouseResShift, dev->DigitizerResShift, dev->MTouchResShift,
                      dev->ParallelResShift}) {
        check(shift);
    }
    for (int start = 0; start < count; ++start) {
        if (d[static_cast<size_t>(start)] == 0x85) check(ResolutionShift(d.data(), start, count));
    }
    check(ResolutionShift(d.data(), count, count));
    check(ResolutionShift(d.data(), -1, count));
    return 0;
}
