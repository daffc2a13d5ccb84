// The function behind an interposed one: the next definition in the search order, looked up once.
// Any thread; usable before any constructor has run.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

namespace qvsim::door {

template <class Function>
class Next {
  public:
    constexpr explicit Next(const char* name) : m_name(name) {}
    Function* Get() {
        void* found = m_found.load(std::memory_order_acquire);
        if (!found) {
            found = dlsym(RTLD_NEXT, m_name);
            if (!found) std::abort();  // a libc without it: nothing here can work
            m_found.store(found, std::memory_order_release);
        }
        return reinterpret_cast<Function*>(found);
    }

  private:
    const char* m_name;
    std::atomic<void*> m_found{nullptr};
};

}  // namespace qvsim::door
