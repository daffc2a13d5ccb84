// The function that an interposed one hides: the next definition in the search order, looked up
// once. Any thread; usable before any constructor has run.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

namespace qvsim::door {

template <class Function>
class Next {
  public:
    constexpr explicit Next(const char* name) : name_(name) {}
    Function* Get() {
        void* found = found_.load(std::memory_order_acquire);
        if (!found) {
            found = dlsym(RTLD_NEXT, name_);
            if (!found) std::abort();  // a libc without it: nothing here can work
            found_.store(found, std::memory_order_release);
        }
        return reinterpret_cast<Function*>(found);
    }

  private:
    const char* name_;
    std::atomic<void*> found_{nullptr};
};

}  // namespace qvsim::door
