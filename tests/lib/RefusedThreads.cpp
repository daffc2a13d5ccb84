// pthread_create that can be refused; see RefusedThreads.h.
#include "lib/RefusedThreads.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* param) noexcept {
    if (fake::g_refusedThreads > 0) {
        --fake::g_refusedThreads;
        return EAGAIN;
    }
    static const auto real =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, start, param);
}
