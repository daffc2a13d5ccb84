// Interposes syscall(2): some libraries use it for their devices instead of open and ioctl.
//
// Every other call is passed on unchanged. Such calls come so early, and from so deep inside a
// process, that nothing here may lock, allocate or construct before it knows that the call concerns
// a node. Built without sanitizers: their run-time libraries call this before they are set up, so
// until then only code of this unit may run.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

#include "Door.h"
#include "Next.h"

namespace {

using qvsim::door::Next;

constinit Next<long(long, ...)> g_syscall{"syscall"};

// The cheap part of Model::Answers(), for calls so early that it cannot be used yet: the last name
// begins like a node's.
bool EndsLikeNode(const char* path) {
    const char* name = path;
    for (const char* at = path; *at; ++at)
        if (*at == '/' && at[1] != '\0' && at[1] != '/') name = at + 1;
    return (name[0] == 'v' && name[1] == 'i') || (name[0] == 'q' && name[1] == 'v');
}

bool Opens(long number, const long* arguments) {
#ifdef SYS_open
    if (number == SYS_open) {
        const auto* path = reinterpret_cast<const char*>(arguments[0]);
        return path && EndsLikeNode(path);
    }
#endif
    const auto* path = reinterpret_cast<const char*>(arguments[1]);
    return number == SYS_openat && path && EndsLikeNode(path);
}

// Calls for descriptors that are already open.
bool IsOfDescriptors(long number) {
    switch (number) {
        case SYS_ioctl:
        case SYS_close:
        case SYS_dup:
        case SYS_dup3:
#ifdef SYS_dup2
        case SYS_dup2:
#endif
        case SYS_fcntl:
#ifdef SYS_fcntl64
        case SYS_fcntl64:
#endif
#ifdef SYS_close_range
        case SYS_close_range:
#endif
            return true;
        default:
            return false;
    }
}

// The interposed function of the same name.
long CallOfDescriptors(long number, const long* a) {
    const int fd = static_cast<int>(a[0]);
    switch (number) {
        case SYS_ioctl:
            return ioctl(fd, static_cast<unsigned long>(a[1]), reinterpret_cast<void*>(a[2]));
        case SYS_close:
            return close(fd);
        case SYS_dup:
            return dup(fd);
        case SYS_dup3:
            return dup3(fd, static_cast<int>(a[1]), static_cast<int>(a[2]));
#ifdef SYS_dup2
        case SYS_dup2:
            return dup2(fd, static_cast<int>(a[1]));
#endif
#ifdef SYS_close_range
        case SYS_close_range:
            return close_range(static_cast<unsigned>(a[0]), static_cast<unsigned>(a[1]),
                               static_cast<int>(a[2]));
#endif
        default:
            return fcntl(fd, static_cast<int>(a[1]), a[2]);
    }
}

}  // namespace

extern "C" long syscall(long number, ...) noexcept {
    long a[6];
    va_list arguments;
    va_start(arguments, number);
    for (long& argument : a) argument = va_arg(arguments, long);
    va_end(arguments);

    if (Opens(number, a)) {
#ifdef SYS_open
        if (number == SYS_open)
            return open(reinterpret_cast<const char*>(a[0]), static_cast<int>(a[1]),
                        static_cast<mode_t>(a[2]));
#endif
        return openat(static_cast<int>(a[0]), reinterpret_cast<const char*>(a[1]),
                      static_cast<int>(a[2]), static_cast<mode_t>(a[3]));
    }
    if (IsOfDescriptors(number) && qvsim::door::g_openNodes.load(std::memory_order_acquire) != 0)
        return CallOfDescriptors(number, a);
    return g_syscall.Get()(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
