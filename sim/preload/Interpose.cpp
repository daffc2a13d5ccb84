// Redefines the libc functions that make, use, duplicate and close descriptors: calls for a
// simulated node go to the door, all others to the libc function of the same name.
//
// Built without fortification, which would turn these names into inline functions.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

#include "Interposed.h"
#include "Next.h"
#include "PlainFiles.h"

namespace {

using qvsim::door::Closing;
using qvsim::door::Next;
using qvsim::door::OpenBy;

using OpenFunction = int(const char*, int, ...);
using OpenAtFunction = int(int, const char*, int, ...);
using IoctlFunction = int(int, unsigned long, ...);
using FcntlFunction = int(int, int, ...);

constinit Next<OpenFunction> g_open{"open"};
constinit Next<OpenFunction> g_open64{"open64"};
constinit Next<OpenAtFunction> g_openat{"openat"};
constinit Next<OpenAtFunction> g_openat64{"openat64"};
constinit Next<int(int)> g_close{"close"};
constinit Next<IoctlFunction> g_ioctl{"ioctl"};

mode_t ModeOf(int flags, va_list arguments) {
    const bool given = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return given ? va_arg(arguments, mode_t) : 0;
}

int OpenWith(Next<OpenFunction>& next, const char* path, int flags, mode_t mode) {
    return OpenBy(AT_FDCWD, path, flags, [&] { return next.Get()(path, flags, mode); });
}

int OpenAtWith(Next<OpenAtFunction>& next, int dir, const char* path, int flags, mode_t mode) {
    return OpenBy(dir, path, flags, [&] { return next.Get()(dir, path, flags, mode); });
}

// A call that duplicates `fd`, perhaps onto a number that is in use.
template <class Real>
int Double(int fd, int onto, Real real) {
    if (onto < 0 || onto == fd) {
        const int made = real();
        if (made >= 0) qvsim::door::Doubled(fd, made);
        return made;
    }
    Closing replaced(onto);
    const int made = real();
    if (made < 0) {
        replaced.TakeBack();
        return made;
    }
    qvsim::door::Doubled(fd, made);
    return made;
}

int Control(Next<FcntlFunction>& next, int fd, int command, void* argument) {
    const auto real = [&] { return next.Get()(fd, command, argument); };
    const bool doubles = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    return doubles ? Double(fd, -1, real) : real();
}

int IoctlWith(Next<IoctlFunction>& next, int fd, unsigned long code, void* argument) {
    int result = 0;
    if (qvsim::door::Request(fd, code, argument, result)) return result;
    result = next.Get()(fd, code, argument);
    // A file without ioctl requests may be a node that is missing in the table.
    const char letter = static_cast<char>(code >> 8 & 0xFF);
    if (result != -1 || errno != ENOTTY || (letter != 'X' && letter != 'E')) return result;
    if (!qvsim::door::Adopt(fd)) {
        errno = ENOTTY;
        return result;
    }
    return qvsim::door::Request(fd, code, argument, result) ? result : -1;
}

// Closes a range of descriptors, except those that the simulation itself has open there.
template <class Real>
int CloseBetweenOwn(unsigned first, unsigned last, Real real) {
    constexpr unsigned kBeyondOwn = 1u << 16;
    unsigned from = first;
    for (unsigned fd = first; fd <= std::min(last, kBeyondOwn); ++fd) {
        if (!qvsim::IsOwn(static_cast<int>(fd))) continue;
        if (fd > from)
            if (const int result = real(from, fd - 1); result != 0) return result;
        from = fd + 1;
    }
    return from <= last ? real(from, last) : 0;
}

// A file is created only where the cards have no name.
constexpr int kCreateFlags = O_CREAT | O_WRONLY | O_TRUNC;

}  // namespace

#define QVSIM_MODE(flags)                         \
    va_list arguments;                            \
    va_start(arguments, flags);                   \
    const mode_t mode = ModeOf(flags, arguments); \
    va_end(arguments)

// The one argument after the last named one.
#define QVSIM_ARGUMENT(last)                         \
    va_list arguments;                               \
    va_start(arguments, last);                       \
    void* const argument = va_arg(arguments, void*); \
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

int creat(const char* path, mode_t mode) { return OpenWith(g_open, path, kCreateFlags, mode); }

#ifndef open64
int open64(const char* path, int flags, ...) {
    QVSIM_MODE(flags);
    return OpenWith(g_open64, path, flags, mode);
}

int openat64(int dir, const char* path, int flags, ...) {
    QVSIM_MODE(flags);
    return OpenAtWith(g_openat64, dir, path, flags, mode);
}

int creat64(const char* path, mode_t mode) { return OpenWith(g_open64, path, kCreateFlags, mode); }
#endif

// Called by fortified programs for an open without a mode.
int __open_2(const char* path, int flags) { return OpenWith(g_open, path, flags, 0); }
int __open64_2(const char* path, int flags) { return OpenWith(g_open64, path, flags, 0); }
int __openat_2(int dir, const char* path, int flags) {
    return OpenAtWith(g_openat, dir, path, flags, 0);
}
int __openat64_2(int dir, const char* path, int flags) {
    return OpenAtWith(g_openat64, dir, path, flags, 0);
}

int close(int fd) {
    if (qvsim::IsOwn(fd) && !qvsim::door::Inside::Is()) {
        errno = EBADF;
        return -1;
    }
    const Closing closing(fd);
    return g_close.Get()(fd);
}

int close_range(unsigned first, unsigned last, int flags) noexcept {
    static constinit Next<int(unsigned, unsigned, int)> next{"close_range"};
    if ((flags & 4) != 0) return next.Get()(first, last, flags);  // closes at exec, and not now
    Closing closing(first, last);
    const int result = CloseBetweenOwn(
        first, last, [&](unsigned from, unsigned to) { return next.Get()(from, to, flags); });
    if (result != 0) closing.TakeBack();
    return result;
}

void closefrom(int first) noexcept {
    close_range(first < 0 ? 0u : static_cast<unsigned>(first), UINT32_MAX, 0);
}

int dup(int fd) noexcept {
    static constinit Next<int(int)> next{"dup"};
    return Double(fd, -1, [&] { return next.Get()(fd); });
}

int dup2(int fd, int onto) noexcept {
    static constinit Next<int(int, int)> next{"dup2"};
    return Double(fd, onto, [&] { return next.Get()(fd, onto); });
}

int dup3(int fd, int onto, int flags) noexcept {
    static constinit Next<int(int, int, int)> next{"dup3"};
    return Double(fd, onto, [&] { return next.Get()(fd, onto, flags); });
}

int fcntl(int fd, int command, ...) {
    static constinit Next<FcntlFunction> next{"fcntl"};
    QVSIM_ARGUMENT(command);
    return Control(next, fd, command, argument);
}

#ifndef fcntl64
int fcntl64(int fd, int command, ...) {
    static constinit Next<FcntlFunction> next{"fcntl64"};
    QVSIM_ARGUMENT(command);
    return Control(next, fd, command, argument);
}
#endif

int ioctl(int fd, unsigned long code, ...) noexcept {
    QVSIM_ARGUMENT(code);
    return IoctlWith(g_ioctl, fd, code, argument);
}

// The names of fcntl and ioctl in 32-bit programs built with a 64-bit time_t. No request of the
// simulated driver contains a time, and those of other drivers reach the kernel unconverted only
// when libc has no function of that name.
int __fcntl_time64(int fd, int command, ...) {
    static constinit Next<FcntlFunction> next{"__fcntl_time64"};
    QVSIM_ARGUMENT(command);
    return Control(next, fd, command, argument);
}

int __ioctl_time64(int fd, unsigned long code, ...) {
    static constinit Next<IoctlFunction> next{"__ioctl_time64"};
    QVSIM_ARGUMENT(code);
    return IoctlWith(next, fd, code, argument);
}

}  // extern "C"
