// USB reception: nine configuration bytes, then port reads for DispatchPortBytes.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    return fuzz::Reception(fuzz::InputReader{data, size}, DEV_USB);
}
