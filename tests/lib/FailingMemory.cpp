// The library's own references to the allocating functions, which lead here in programs that link
// it so (see CMakeLists.txt); nobody else's memory is touched. Any of them can be made to fail
// once.
#include "lib/FailingMemory.h"

#include <dirent.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int> g_untilFailure{0};  // 0: none fails; 1: the next one does
std::atomic<int> g_allocations{0};

bool Fails() {
    ++g_allocations;
    int left = g_untilFailure.load();
    while (left > 0 && !g_untilFailure.compare_exchange_weak(left, left - 1)) continue;
    return left == 1;
}

}  // namespace

namespace qvtest {

void FailAllocation(int nth) {
    g_allocations = 0;
    g_untilFailure = nth;
}

int Allocations() { return g_allocations; }

}  // namespace qvtest

extern "C" {
void* qvtest_malloc(size_t size) { return Fails() ? nullptr : malloc(size); }
void* qvtest_calloc(size_t count, size_t size) { return Fails() ? nullptr : calloc(count, size); }
void* qvtest_new(size_t size, const std::nothrow_t& nothrow) {
    return Fails() ? nullptr : operator new(size, nothrow);
}
int qvtest_scandir(const char* path, dirent64*** names, int (*filter)(const dirent64*),
                   int (*compare)(const dirent64**, const dirent64**)) {
    if (!Fails()) return scandir64(path, names, filter, compare);
    errno = ENOMEM;
    return -1;
}
}
