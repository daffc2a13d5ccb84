// One target under libFuzzer: QV_FUZZ_TARGET is its function.
#include <cstdio>
#include <cstdlib>

#include "Targets.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvfuzz::QV_FUZZ_TARGET(data, size);
    return 0;
}
