// HID report descriptor scan on any descriptor: every resolution shift stays in -1..4, the range
// the point parser is built for, also from out-of-range starts.
#include "device/descriptor.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size > static_cast<size_t>(kMaxDescriptorSize)) return 0;
    const std::vector<uint8_t> d(data, data + size);  // exactly sized for AddressSanitizer
    const int n = static_cast<int>(size);
    auto check = [](int shift) { fuzz::Check(shift >= -1 && shift <= 4); };
    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    ApplyReportDescriptor(dev, d.data(), n);
    for (int s :
         {dev->MouseResShift, dev->DigitizerResShift, dev->MTouchResShift, dev->ParallelResShift}) {
        check(s);
    }
    for (int start = -1; start <= n; ++start) {
        if (start < 0 || start == n || d[start] == 0x85) check(ResolutionShift(d.data(), start, n));
    }
    return 0;
}
