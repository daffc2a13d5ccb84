// syscall(2): some libraries reach their devices through it and not through open and ioctl.
//
// Every other call is handed on unchanged, and so early and from so deep inside a process that
// nothing here may lock, allocate or construct before it knows that the call is its own. Built
// without sanitizers: their run-time libraries come through here before they are set up, so only
// code of this unit may run until then.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

#include "Door.h"
#include "Next.h"

namespace {

using qvsim::door::Next;

constinit Next<long(long, ...)> g_syscall{"syscall"};

// The cheap half of Model::Answers(), for a moment at which that cannot be called yet.
bool InDev(const char* path) {
    const char* prefix = "/dev/";
    while (*prefix && *prefix == *path) ++prefix, ++path;
    return *prefix == '\0';
}

bool Opens(long number, const long* arguments, const char*& path, int& flags) {
#ifdef SYS_open
    if (number == SYS_open) {
        path = reinterpret_cast<const char*>(arguments[0]);
        flags = static_cast<int>(arguments[1]);
        return path && InDev(path);
    }
#endif
    if (number == SYS_openat) {
        path = reinterpret_cast<const char*>(arguments[1]);
        flags = static_cast<int>(arguments[2]);
        return path && InDev(path);
    }
    return false;
}

}  // namespace

extern "C" long syscall(long number, ...) noexcept {
    long a[6];
    va_list arguments;
    va_start(arguments, number);
    for (long& argument : a) argument = va_arg(arguments, long);
    va_end(arguments);

    const char* path = nullptr;
    int flags = 0;
    if (Opens(number, a, path, flags) && qvsim::Model::Answers(path)) {
        if (const auto model = qvsim::CurrentModel())
            return qvsim::door::OpenNode(model, path, flags);
    }
    const bool mayBeNode = (number == SYS_ioctl || number == SYS_close) &&
                           qvsim::door::g_openNodes.load(std::memory_order_acquire) != 0;
    if (!mayBeNode) return g_syscall.Get()(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    const int fd = static_cast<int>(a[0]);
    if (number == SYS_ioctl && qvsim::door::IsNode(fd))
        return qvsim::door::Request(fd, static_cast<unsigned long>(a[1]),
                                    reinterpret_cast<void*>(a[2]));
    if (number == SYS_close && qvsim::door::IsNode(fd)) return qvsim::door::CloseNode(fd);
    return g_syscall.Get()(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
