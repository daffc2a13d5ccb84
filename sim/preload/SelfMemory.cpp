// Asks the kernel only about unknown addresses: a system call for each record would cost as much as
// the request.
#include "SelfMemory.h"

#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Inside.h"

namespace qvsim::door {
namespace {

struct Range {
    uintptr_t begin = 0;
    uintptr_t end = 0;
    bool Has(uintptr_t address, size_t size) const {
        return address >= begin && address < end && size <= end - address;
    }
};

// Where the heap began when this object was set up: the memory from there to its present end is the
// program's own.
const uintptr_t g_heapBegin = reinterpret_cast<uintptr_t>(sbrk(0));

Range ThisStack() {
    Range range;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return range;
    void* begin = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attributes, &begin, &size) == 0) {
        range.begin = reinterpret_cast<uintptr_t>(begin);
        range.end = range.begin + size;
    }
    pthread_attr_destroy(&attributes);
    return range;
}

// The used part of the stack; other stacks, for example a signal's, are unknown.
bool OnThisStack(uintptr_t address, size_t size) {
    // To find out takes memory of the C library's, which a handler may have interrupted; then the
    // kernel is asked instead.
    static constinit thread_local Range stack;
    if (stack.end == 0 && !HasHandlers()) stack = ThisStack();
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    return stack.Has(here, 1) && Range{here, stack.end}.Has(address, size);
}

bool InHeap(uintptr_t address, size_t size) {
    const auto end = reinterpret_cast<uintptr_t>(sbrk(0));
    return g_heapBegin != 0 && Range{g_heapBegin, end}.Has(address, size);
}

bool SurelyOurs(uintptr_t address, size_t size) {
    return OnThisStack(address, size) || InHeap(address, size);
}

bool Nameable(uint64_t address, uint32_t size) {
    return address != 0 && address <= UINTPTR_MAX && size <= UINTPTR_MAX - address;
}

using Move = ssize_t(pid_t, const iovec*, unsigned long, const iovec*, unsigned long,
                     unsigned long);

// Whether all of it was copied. `refused`: the kernel does not allow this at all, as in some
// containers.
bool Ask(Move* move, uint64_t address, void* data, uint32_t size, bool& refused) {
    const iovec local{data, size};
    const iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(address)), size};
    const ssize_t moved = move(getpid(), &local, 1, &remote, 1, 0);
    refused = moved < 0 && (errno == ENOSYS || errno == EPERM);
    return moved == static_cast<ssize_t>(size);
}

}  // namespace

bool SelfMemory::Read(uint64_t address, void* data, uint32_t size) {
    if (size == 0) return true;
    if (!Nameable(address, size)) return false;
    const auto place = static_cast<uintptr_t>(address);
    bool refused = false;
    if (!SurelyOurs(place, size)) {
        if (Ask(process_vm_readv, address, data, size, refused)) return true;
        if (!refused) return false;
    }
    std::memcpy(data, reinterpret_cast<const void*>(place), size);
    return true;
}

bool SelfMemory::Write(uint64_t address, const void* data, uint32_t size) {
    if (size == 0) return true;
    if (!Nameable(address, size)) return false;
    const auto place = static_cast<uintptr_t>(address);
    bool refused = false;
    if (!SurelyOurs(place, size)) {
        if (Ask(process_vm_writev, address, const_cast<void*>(data), size, refused)) return true;
        if (!refused) return false;
    }
    std::memcpy(reinterpret_cast<void*>(place), data, size);
    return true;
}

}  // namespace qvsim::door
