// USB reception path: one input is a device configuration followed by a sequence of port
// reads, each handed to DispatchPortBytes on the same device record, so that reply
// merging, contact tables, the hold filter and the frame counters carry from one read to
// the next. Replies reach the command routing (hooks, virtual keys, the tool's pipe),
// reports the point parser, coordinate processing and event output.
#include <stddef.h>
#include <stdint.h>

#include "fuzz_common.h"
#include "touch/reception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in(data, size);
    fuzz::DeviceRig rig(DEV_USB);
    fuzz::ConfigureFromInput(&in, &rig);
    while (!in.empty()) {
        std::vector<uint8_t> read = in.Chunk(kPortReadMax);
        DispatchPortBytes(rig.dev.get(), read.data(), static_cast<int>(read.size()));
    }
    return 0;
}
