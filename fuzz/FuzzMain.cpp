// One target under libFuzzer: QV_FUZZ_TARGET is its function.
#include <cstdio>
#include <cstdlib>

#include "Targets.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    return 0;
}

// The fuzzer starts its own thread; the leak check may run while the C library still sets it up.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:__pthread_attr_extension\nleak:pthread_attr_setaffinity_np\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvfuzz::QV_FUZZ_TARGET(data, size);
    return 0;
}
