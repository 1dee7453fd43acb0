// HID report descriptor scan of any descriptor: every resolution shift stays in -1..4, the
// range the point parser is built for. Input: the descriptor.
#include "device/descriptor.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    if (size > static_cast<size_t>(kMaxDescriptorSize)) return 0;
    const std::vector<uint8_t> d(data, data + size);  // exactly sized for AddressSanitizer
    fuzz::DeviceRig rig(DEV_USB);
    CDeviceObject* dev = rig.dev.get();
    ApplyReportDescriptor(dev, d.data(), static_cast<int>(size));
    for (int s :
         {dev->MouseResShift, dev->DigitizerResShift, dev->MTouchResShift, dev->ParallelResShift}) {
        fuzz::Check(s >= -1 && s <= 4);
    }
    return 0;
}
