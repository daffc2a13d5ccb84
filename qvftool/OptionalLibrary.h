// The functions of a shared library that may be missing, looked up when they are wanted: so
// programs start, and are built, without it.
//
// The types are the caller's and must be those of the library's stable interface. A library stays
// loaded, since it may keep what it has once set up. One thread while functions are looked up.
#pragma once

#include <dlfcn.h>

namespace qvf {

class OptionalLibrary {
  public:
    explicit OptionalLibrary(const char* name) : m_library(dlopen(name, RTLD_NOW | RTLD_LOCAL)) {}

    template <class Function>
    void Find(const char* name, Function*& function) {
        void* const found = m_library == nullptr ? nullptr : dlsym(m_library, name);
        m_complete = m_complete && found != nullptr;
        function = reinterpret_cast<Function*>(found);
    }
    // Whether the library is here and every function was found.
    bool IsComplete() const { return m_library != nullptr && m_complete; }

  private:
    void* m_library;
    bool m_complete = true;
};

}  // namespace qvf
