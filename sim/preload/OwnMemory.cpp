// Memory of the preload object's own: whoever asks a driver takes none of the program's, so a
// request may come from a signal handler that has interrupted malloc. Any thread; signals wait
// while the lock is held, as they wait inside the door. Only in the preload object, whose C++
// library is its own.
#include <pthread.h>
#include <sys/mman.h>
#include <sys/single_threaded.h>

#include <algorithm>
#include <bit>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include "Inside.h"

namespace qvsim::door {
namespace {

constexpr size_t kSmallest = 32;        // with the head
constexpr size_t kLargest = 64u << 10;  // of a class; larger pieces are mapped, each by itself
constexpr size_t kChunk = 256u << 10;
constexpr int kClasses = std::countr_zero(kLargest) - std::countr_zero(kSmallest) + 1;

// Before each piece of memory. A free piece has `next` in its place.
struct alignas(16) Head {
    union {
        Head* next;
        void* begin;  // of what was mapped for a piece that is larger than any class
    };
    size_t size;  // the class's, or what was mapped
};

constinit std::mutex g_lock;
constinit Head* g_free[kClasses] = {};
constinit char* g_chunk = nullptr;
constinit size_t g_left = 0;

// Holds signals off where nobody has done so yet. Among threads it holds the lock; a process that
// has one thread cannot get a second one meanwhile.
class Held {
  public:
    Held() {
        if (HasHandlers() && !Inside::Is())
            new (m_inside) Inside;
        else
            m_outer = true;
        if (m_locked) g_lock.lock();
    }
    ~Held() {
        if (m_locked) g_lock.unlock();
        if (!m_outer) reinterpret_cast<Inside*>(m_inside)->~Inside();
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

  private:
    alignas(Inside) unsigned char m_inside[sizeof(Inside)];
    bool m_outer = false;
    const bool m_locked = __libc_single_threaded == 0;
};

void* Map(size_t size) {
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

Head* TakeSmall(size_t size) {
    const int index = std::countr_zero(size) - std::countr_zero(kSmallest);
    const Held held;
    if (Head* const piece = g_free[index]) {
        g_free[index] = piece->next;
        return piece;
    }
    if (g_left < size) {
        // What is left of the chunk before is too small for anything of this size, and stays.
        auto* const chunk = static_cast<char*>(Map(kChunk));
        if (!chunk) return nullptr;
        g_chunk = chunk;
        g_left = kChunk;
    }
    auto* const piece = reinterpret_cast<Head*>(g_chunk);
    g_chunk += size;
    g_left -= size;
    piece->size = size;
    return piece;
}

void* Take(size_t wanted, size_t alignment) {
    if (wanted > PTRDIFF_MAX - kLargest - alignment) return nullptr;
    if (alignment <= alignof(Head) && wanted + sizeof(Head) <= kLargest) {
        Head* const piece = TakeSmall(std::bit_ceil(std::max(wanted + sizeof(Head), kSmallest)));
        return piece ? piece + 1 : nullptr;
    }
    const size_t size = std::max(wanted + sizeof(Head) + alignment, kLargest + 1);
    void* const begin = Map(size);
    if (!begin) return nullptr;
    const auto first = reinterpret_cast<uintptr_t>(begin) + sizeof(Head);
    const auto user = (first + alignment - 1) / alignment * alignment;
    Head* const head = reinterpret_cast<Head*>(user) - 1;
    head->begin = begin;
    head->size = size;
    return head + 1;
}

void GiveBack(void* memory) {
    if (!memory) return;
    Head* const piece = static_cast<Head*>(memory) - 1;
    if (piece->size > kLargest) {
        munmap(piece->begin, piece->size);
        return;
    }
    const int index = std::countr_zero(piece->size) - std::countr_zero(kSmallest);
    const Held held;
    piece->next = g_free[index];
    g_free[index] = piece;
}

// Around fork(): the child finds no lock that is held by nobody.
sigset_t g_outer;

void Before() {
    sigset_t all;
    sigset_t outer;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &outer);
    g_lock.lock();
    g_outer = outer;
}

void After() {
    const sigset_t outer = g_outer;
    g_lock.unlock();
    pthread_sigmask(SIG_SETMASK, &outer, nullptr);
}

// When the program begins, and there is one thread: what is registered first is locked last. Before
// the constructors without a number.
[[gnu::constructor(200)]] void BeReady() { pthread_atfork(Before, After, After); }

void* TakeOrEnd(size_t size, size_t alignment) {
    void* const memory = Take(size, alignment);
    // Nothing here catches anything; the program ends, as it does for every other object without.
    if (!memory) std::abort();
    return memory;
}

}  // namespace
}  // namespace qvsim::door

using qvsim::door::GiveBack;
using qvsim::door::Take;
using qvsim::door::TakeOrEnd;

// The forms that the compiler and the C++ library fall back to; the others call these.
void* operator new(size_t size) { return TakeOrEnd(size, 1); }
void* operator new(size_t size, const std::nothrow_t& /*unused*/) noexcept { return Take(size, 1); }
void* operator new(size_t size, std::align_val_t alignment) {
    return TakeOrEnd(size, static_cast<size_t>(alignment));
}
void* operator new(size_t size, std::align_val_t alignment,
                   const std::nothrow_t& /*unused*/) noexcept {
    return Take(size, static_cast<size_t>(alignment));
}
void operator delete(void* memory) noexcept { GiveBack(memory); }
void operator delete(void* memory, size_t /*size*/) noexcept { GiveBack(memory); }
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept { GiveBack(memory); }
void operator delete(void* memory, size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    GiveBack(memory);
}
