// Serial and PS/2 reception path: the byte stream of a serial or PS/2 port, cut into
// arbitrary reads, through the splitter whose state lives in the device record, then the
// same reply routing, point parsing and event output as USB reports.
#include <stddef.h>
#include <stdint.h>

#include "fuzz_common.h"
#include "touch/reception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in(data, size);
    const uint8_t interface = (in.Byte() & 0x1) ? DEV_PS2 : DEV_RS232;
    fuzz::DeviceRig rig(interface);
    fuzz::ConfigureFromInput(&in, &rig);
    while (!in.empty()) {
        std::vector<uint8_t> read = in.Chunk(kPortReadMax);
        DispatchPortBytes(rig.dev.get(), read.data(), static_cast<int>(read.size()));
    }
    return 0;
}
