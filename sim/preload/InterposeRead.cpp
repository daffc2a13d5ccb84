// Interposes reading and writing, which the driver does not have, and the installation of signal
// handlers, because a signal may come while a thread is inside the door.
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "Interposed.h"
#include "Next.h"

namespace {

using qvsim::door::Next;
using qvsim::door::NoteHandler;

template <class Real>
ssize_t Move(int fd, Real real) {
    if (!qvsim::door::IsNode(fd)) return real();
    errno = ENOSYS;
    return -1;
}

// What the kernel does for files alone.
template <class Real>
int OnFile(int fd, Real real) {
    if (!qvsim::door::IsNode(fd)) return real();
    errno = EINVAL;
    return -1;
}

bool IsHandler(sighandler_t handler) { return handler != SIG_DFL && handler != SIG_IGN; }

}  // namespace

#define QVSIM_WEAK __attribute__((weak))

extern "C" {

QVSIM_WEAK ssize_t read(int fd, void* data, size_t size) {
    static constinit Next<ssize_t(int, void*, size_t)> next{"read"};
    return Move(fd, [&] { return next.Get()(fd, data, size); });
}

QVSIM_WEAK ssize_t __read_chk(int fd, void* data, size_t size, size_t room) {
    static constinit Next<ssize_t(int, void*, size_t, size_t)> next{"__read_chk"};
    return Move(fd, [&] { return next.Get()(fd, data, size, room); });
}

QVSIM_WEAK ssize_t readv(int fd, const struct iovec* parts, int count) {
    static constinit Next<ssize_t(int, const struct iovec*, int)> next{"readv"};
    return Move(fd, [&] { return next.Get()(fd, parts, count); });
}

QVSIM_WEAK ssize_t write(int fd, const void* data, size_t size) {
    static constinit Next<ssize_t(int, const void*, size_t)> next{"write"};
    return Move(fd, [&] { return next.Get()(fd, data, size); });
}

QVSIM_WEAK ssize_t writev(int fd, const struct iovec* parts, int count) {
    static constinit Next<ssize_t(int, const struct iovec*, int)> next{"writev"};
    return Move(fd, [&] { return next.Get()(fd, parts, count); });
}

QVSIM_WEAK ssize_t pread(int fd, void* data, size_t size, off_t at) {
    static constinit Next<ssize_t(int, void*, size_t, off_t)> next{"pread"};
    return Move(fd, [&] { return next.Get()(fd, data, size, at); });
}

QVSIM_WEAK ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
    static constinit Next<ssize_t(int, const void*, size_t, off_t)> next{"pwrite"};
    return Move(fd, [&] { return next.Get()(fd, data, size, at); });
}

QVSIM_WEAK ssize_t __pread_chk(int fd, void* data, size_t size, off_t at, size_t room) {
    static constinit Next<ssize_t(int, void*, size_t, off_t, size_t)> next{"__pread_chk"};
    return Move(fd, [&] { return next.Get()(fd, data, size, at, room); });
}

QVSIM_WEAK int ftruncate(int fd, off_t size) noexcept {
    static constinit Next<int(int, off_t)> next{"ftruncate"};
    return OnFile(fd, [&] { return next.Get()(fd, size); });
}

#ifndef pread64
QVSIM_WEAK ssize_t pread64(int fd, void* data, size_t size, off64_t at) {
    static constinit Next<ssize_t(int, void*, size_t, off64_t)> next{"pread64"};
    return Move(fd, [&] { return next.Get()(fd, data, size, at); });
}

QVSIM_WEAK ssize_t pwrite64(int fd, const void* data, size_t size, off64_t at) {
    static constinit Next<ssize_t(int, const void*, size_t, off64_t)> next{"pwrite64"};
    return Move(fd, [&] { return next.Get()(fd, data, size, at); });
}

QVSIM_WEAK int ftruncate64(int fd, off64_t size) noexcept {
    static constinit Next<int(int, off64_t)> next{"ftruncate64"};
    return OnFile(fd, [&] { return next.Get()(fd, size); });
}
#endif

QVSIM_WEAK ssize_t __pread64_chk(int fd, void* data, size_t size, off64_t at, size_t room) {
    static constinit Next<ssize_t(int, void*, size_t, off64_t, size_t)> next{"__pread64_chk"};
    return Move(fd, [&] { return next.Get()(fd, data, size, at, room); });
}

QVSIM_WEAK int fsync(int fd) {
    static constinit Next<int(int)> next{"fsync"};
    return OnFile(fd, [&] { return next.Get()(fd); });
}

QVSIM_WEAK int fdatasync(int fd) {
    static constinit Next<int(int)> next{"fdatasync"};
    return OnFile(fd, [&] { return next.Get()(fd); });
}

QVSIM_WEAK int sigaction(int number, const struct sigaction* action,
                         struct sigaction* before) noexcept {
    static constinit Next<int(int, const struct sigaction*, struct sigaction*)> next{"sigaction"};
    if (action && IsHandler(action->sa_handler)) NoteHandler();
    return next.Get()(number, action, before);
}

#define QVSIM_SIGNAL(name)                                                    \
    QVSIM_WEAK sighandler_t name(int number, sighandler_t handler) noexcept { \
        static constinit Next<sighandler_t(int, sighandler_t)> next{#name};   \
        if (IsHandler(handler)) NoteHandler();                                \
        return next.Get()(number, handler);                                   \
    }

QVSIM_SIGNAL(signal)
QVSIM_SIGNAL(bsd_signal)
QVSIM_SIGNAL(sysv_signal)
QVSIM_SIGNAL(__sysv_signal)
QVSIM_SIGNAL(sigset)

}  // extern "C"
