// Serial and PS/2 reception: an interface byte, then as fuzz_usb_reception.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    fuzz::InputReader in{data, size};
    const uint8_t interface = (in.Byte() & 0x1) ? DEV_PS2 : DEV_RS232;
    return fuzz::Reception(in, interface);
}
