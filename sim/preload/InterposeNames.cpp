// Interposes the functions that create, remove, rename or alter a name in a folder: the nodes have
// no files in the machine's own /dev, so the kernel would create or change one there.
//
// A node keeps its name, mode and owner (EPERM); a name that the cards do not have is not created
// (EACCES).
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "Interposed.h"
#include "Next.h"

namespace {

using qvsim::door::Next;
using qvsim::door::Sight;

enum class Change {
    kAlter,    // of what is there
    kMake,     // of what must not be there
    kReplace,  // of both
};

// An errno, or 0 for a path that is not the cards'.
int Refusal(int dir, const char* path, Change change) {
    std::string node;
    switch (qvsim::door::Before(dir, path, node)) {
        case Sight::kElsewhere:
            return 0;
        case Sight::kNode:
            return change == Change::kMake ? EEXIST : EPERM;
        case Sight::kNotFolder:
            return ENOTDIR;
        case Sight::kMissing:
            break;
    }
    return change == Change::kAlter ? ENOENT : EACCES;
}

template <class Real>
int Refuse(int error, Real real) {
    if (error == 0) return real();
    errno = error;
    return -1;
}

template <class Real>
int Alter(int dir, const char* path, Real real) {
    return Refuse(Refusal(dir, path, Change::kAlter), real);
}

template <class Real>
int Make(int dir, const char* path, Real real) {
    return Refuse(Refusal(dir, path, Change::kMake), real);
}

template <class Real>
int Rename(int dir, const char* path, int toDir, const char* to, Real real) {
    const int error = Refusal(dir, path, Change::kAlter);
    return Refuse(error ? error : Refusal(toDir, to, Change::kReplace), real);
}

template <class Real>
int Link(int dir, const char* path, int toDir, const char* to, Real real) {
    const int error = Refusal(toDir, to, Change::kMake);
    return Refuse(error ? error : Refusal(dir, path, Change::kAlter), real);
}

template <class Real>
int AlterOpen(int fd, Real real) {
    return Refuse(qvsim::door::IsNode(fd) ? EPERM : 0, real);
}

}  // namespace

#define QVSIM_WEAK __attribute__((weak))
// The C library's function of that name.
#define QVSIM_NEXT(name, ...) \
    static constinit Next<int(__VA_ARGS__)> next { #name }

extern "C" {

QVSIM_WEAK int unlink(const char* path) noexcept {
    QVSIM_NEXT(unlink, const char*);
    return Alter(AT_FDCWD, path, [&] { return next.Get()(path); });
}

QVSIM_WEAK int unlinkat(int dir, const char* path, int flags) noexcept {
    QVSIM_NEXT(unlinkat, int, const char*, int);
    return Alter(dir, path, [&] { return next.Get()(dir, path, flags); });
}

QVSIM_WEAK int remove(const char* path) noexcept {
    QVSIM_NEXT(remove, const char*);
    return Alter(AT_FDCWD, path, [&] { return next.Get()(path); });
}

QVSIM_WEAK int rename(const char* path, const char* to) noexcept {
    QVSIM_NEXT(rename, const char*, const char*);
    return Rename(AT_FDCWD, path, AT_FDCWD, to, [&] { return next.Get()(path, to); });
}

QVSIM_WEAK int renameat(int dir, const char* path, int toDir, const char* to) noexcept {
    QVSIM_NEXT(renameat, int, const char*, int, const char*);
    return Rename(dir, path, toDir, to, [&] { return next.Get()(dir, path, toDir, to); });
}

QVSIM_WEAK int renameat2(int dir, const char* path, int toDir, const char* to,
                         unsigned flags) noexcept {
    QVSIM_NEXT(renameat2, int, const char*, int, const char*, unsigned);
    return Rename(dir, path, toDir, to, [&] { return next.Get()(dir, path, toDir, to, flags); });
}

QVSIM_WEAK int link(const char* path, const char* to) noexcept {
    QVSIM_NEXT(link, const char*, const char*);
    return Link(AT_FDCWD, path, AT_FDCWD, to, [&] { return next.Get()(path, to); });
}

QVSIM_WEAK int linkat(int dir, const char* path, int toDir, const char* to, int flags) noexcept {
    QVSIM_NEXT(linkat, int, const char*, int, const char*, int);
    return Link(dir, path, toDir, to, [&] { return next.Get()(dir, path, toDir, to, flags); });
}

QVSIM_WEAK int symlink(const char* target, const char* path) noexcept {
    QVSIM_NEXT(symlink, const char*, const char*);
    return Make(AT_FDCWD, path, [&] { return next.Get()(target, path); });
}

QVSIM_WEAK int symlinkat(const char* target, int dir, const char* path) noexcept {
    QVSIM_NEXT(symlinkat, const char*, int, const char*);
    return Make(dir, path, [&] { return next.Get()(target, dir, path); });
}

QVSIM_WEAK int mkdir(const char* path, mode_t mode) noexcept {
    QVSIM_NEXT(mkdir, const char*, mode_t);
    return Make(AT_FDCWD, path, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK int mkdirat(int dir, const char* path, mode_t mode) noexcept {
    QVSIM_NEXT(mkdirat, int, const char*, mode_t);
    return Make(dir, path, [&] { return next.Get()(dir, path, mode); });
}

QVSIM_WEAK int mkfifo(const char* path, mode_t mode) noexcept {
    QVSIM_NEXT(mkfifo, const char*, mode_t);
    return Make(AT_FDCWD, path, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK int mkfifoat(int dir, const char* path, mode_t mode) noexcept {
    QVSIM_NEXT(mkfifoat, int, const char*, mode_t);
    return Make(dir, path, [&] { return next.Get()(dir, path, mode); });
}

QVSIM_WEAK int mknod(const char* path, mode_t mode, dev_t device) noexcept {
    QVSIM_NEXT(mknod, const char*, mode_t, dev_t);
    return Make(AT_FDCWD, path, [&] { return next.Get()(path, mode, device); });
}

QVSIM_WEAK int mknodat(int dir, const char* path, mode_t mode, dev_t device) noexcept {
    QVSIM_NEXT(mknodat, int, const char*, mode_t, dev_t);
    return Make(dir, path, [&] { return next.Get()(dir, path, mode, device); });
}

// A socket with a name.
QVSIM_WEAK int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
    QVSIM_NEXT(bind, int, const sockaddr*, socklen_t);
    const auto real = [&] { return next.Get()(fd, address, size); };
    constexpr size_t kPath = offsetof(sockaddr_un, sun_path);
    if (!address || size <= kPath || address->sa_family != AF_UNIX) return real();
    const char* const text = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
    const std::string path(text, strnlen(text, size - kPath));
    const int error = path.empty() ? 0 : Refusal(AT_FDCWD, path.c_str(), Change::kMake);
    return Refuse(error == EEXIST ? EADDRINUSE : error, real);
}

QVSIM_WEAK int chmod(const char* path, mode_t mode) noexcept {
    QVSIM_NEXT(chmod, const char*, mode_t);
    return Alter(AT_FDCWD, path, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK int fchmodat(int dir, const char* path, mode_t mode, int flags) noexcept {
    QVSIM_NEXT(fchmodat, int, const char*, mode_t, int);
    return Alter(dir, path, [&] { return next.Get()(dir, path, mode, flags); });
}

QVSIM_WEAK int fchmod(int fd, mode_t mode) noexcept {
    QVSIM_NEXT(fchmod, int, mode_t);
    return AlterOpen(fd, [&] { return next.Get()(fd, mode); });
}

QVSIM_WEAK int chown(const char* path, uid_t user, gid_t group) noexcept {
    QVSIM_NEXT(chown, const char*, uid_t, gid_t);
    return Alter(AT_FDCWD, path, [&] { return next.Get()(path, user, group); });
}

QVSIM_WEAK int lchown(const char* path, uid_t user, gid_t group) noexcept {
    QVSIM_NEXT(lchown, const char*, uid_t, gid_t);
    return Alter(AT_FDCWD, path, [&] { return next.Get()(path, user, group); });
}

QVSIM_WEAK int fchownat(int dir, const char* path, uid_t user, gid_t group, int flags) noexcept {
    QVSIM_NEXT(fchownat, int, const char*, uid_t, gid_t, int);
    return Alter(dir, path, [&] { return next.Get()(dir, path, user, group, flags); });
}

QVSIM_WEAK int fchown(int fd, uid_t user, gid_t group) noexcept {
    QVSIM_NEXT(fchown, int, uid_t, gid_t);
    return AlterOpen(fd, [&] { return next.Get()(fd, user, group); });
}

}  // extern "C"
