// The libc functions that a program reaches a device node with, defined anew: what concerns a
// simulated node goes to the door, everything else to the function that is hidden by this one.
//
// Built without fortification, which would turn these very names into inline functions.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "Door.h"
#include "Next.h"

namespace {

using qvsim::Model;
using qvsim::door::Next;

using OpenFunction = int(const char*, int, ...);
using OpenAtFunction = int(int, const char*, int, ...);
using IoctlFunction = int(int, unsigned long, ...);

constinit Next<OpenFunction> g_open{"open"};
constinit Next<OpenFunction> g_open64{"open64"};
constinit Next<OpenAtFunction> g_openat{"openat"};
constinit Next<OpenAtFunction> g_openat64{"openat64"};
constinit Next<int(int)> g_close{"close"};
constinit Next<IoctlFunction> g_ioctl{"ioctl"};
constinit Next<int(const char*, int)> g_access{"access"};

// The cards when `path` is theirs to answer for, else null.
std::shared_ptr<Model> ModelFor(const char* path) {
    return path && Model::Answers(path) ? qvsim::CurrentModel() : nullptr;
}

mode_t ModeOf(int flags, va_list arguments) {
    const bool given = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return given ? va_arg(arguments, mode_t) : 0;
}

int OpenWith(Next<OpenFunction>& next, const char* path, int flags, mode_t mode) {
    if (const auto model = ModelFor(path)) return qvsim::door::OpenNode(model, path, flags);
    return next.Get()(path, flags, mode);
}

int OpenAtWith(Next<OpenAtFunction>& next, int dir, const char* path, int flags, mode_t mode) {
    if (const auto model = ModelFor(path)) return qvsim::door::OpenNode(model, path, flags);
    return next.Get()(dir, path, flags, mode);
}

}  // namespace

namespace qvsim::door {

int RealOpen(const char* path, int flags) { return g_open.Get()(path, flags); }
int RealClose(int fd) { return g_close.Get()(fd); }

}  // namespace qvsim::door

#define QVSIM_MODE(flags)                         \
    va_list arguments;                            \
    va_start(arguments, flags);                   \
    const mode_t mode = ModeOf(flags, arguments); \
    va_end(arguments)

extern "C" {

int open(const char* path, int flags, ...) {
    QVSIM_MODE(flags);
    return OpenWith(g_open, path, flags, mode);
}

int openat(int dir, const char* path, int flags, ...) {
    QVSIM_MODE(flags);
    return OpenAtWith(g_openat, dir, path, flags, mode);
}

#ifndef open64
int open64(const char* path, int flags, ...) {
    QVSIM_MODE(flags);
    return OpenWith(g_open64, path, flags, mode);
}

int openat64(int dir, const char* path, int flags, ...) {
    QVSIM_MODE(flags);
    return OpenAtWith(g_openat64, dir, path, flags, mode);
}
#endif

// What fortified programs call for an open without a mode.
int __open_2(const char* path, int flags) { return OpenWith(g_open, path, flags, 0); }
int __open64_2(const char* path, int flags) { return OpenWith(g_open64, path, flags, 0); }
int __openat_2(int dir, const char* path, int flags) {
    return OpenAtWith(g_openat, dir, path, flags, 0);
}
int __openat64_2(int dir, const char* path, int flags) {
    return OpenAtWith(g_openat64, dir, path, flags, 0);
}

int close(int fd) {
    return qvsim::door::IsNode(fd) ? qvsim::door::CloseNode(fd) : g_close.Get()(fd);
}

int ioctl(int fd, unsigned long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (qvsim::door::IsNode(fd)) return qvsim::door::Request(fd, code, argument);
    return g_ioctl.Get()(fd, code, argument);
}

// What ioctl is called in 32-bit programs built with a 64-bit time_t. No request of the simulated
// driver carries a time, and those of others reach the kernel unconverted only when libc has no
// function of that name.
int __ioctl_time64(int fd, unsigned long code, ...) {
    static constinit Next<IoctlFunction> next{"__ioctl_time64"};
    va_list arguments;
    va_start(arguments, code);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (qvsim::door::IsNode(fd)) return qvsim::door::Request(fd, code, argument);
    return next.Get()(fd, code, argument);
}

int access(const char* path, int mode) noexcept {
    if (const auto model = ModelFor(path)) {
        if (model->Exists(path)) return 0;
        errno = ENOENT;
        return -1;
    }
    return g_access.Get()(path, mode);
}

}  // extern "C"
