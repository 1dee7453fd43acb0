// USB reception. Input: nine configuration bytes (ConfigureFromInput), then port reads (a length
// byte mod 66 and that many bytes) handed to DispatchPortBytes.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::QuietProcess();
    return fuzz::Reception(fuzz::InputReader{data, size}, DEV_USB);
}
