// HID report descriptor scan: the report ids a descriptor declares and the resolution
// shift of each coordinate report, on arbitrary descriptor bytes (up to the largest
// descriptor hidraw hands out). Every shift must stay in -1..4, the range the point
// parser is built for.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "device/descriptor.h"
#include "fuzz_common.h"

namespace {

void CheckShift(int shift) {
    if (shift < -1 || shift > 4) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size > static_cast<size_t>(kMaxDescriptorSize)) return 0;
    std::vector<uint8_t> descriptor(data, data + size);  // exactly sized for ASan
    const int count = static_cast<int>(size);

    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    ApplyReportDescriptor(dev, descriptor.data(), count);
    CheckShift(dev->MouseResShift);
    CheckShift(dev->DigitizerResShift);
    CheckShift(dev->MTouchResShift);
    CheckShift(dev->ParallelResShift);

    for (int start = 0; start < count; ++start) {
        if (descriptor[static_cast<size_t>(start)] == 0x85) {
            CheckShift(ResolutionShift(descriptor.data(), start, count));
        }
    }
    // Out-of-range starts and sizes are refused, never read.
    CheckShift(ResolutionShift(descriptor.data(), count, count));
    CheckShift(ResolutionShift(descriptor.data(), -1, count));
    return 0;
}
