// Interposes the functions that inspect a file without opening it. Weak, so that a test program may
// define its own.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "Interposed.h"
#include "Next.h"
#include "StatRecords.h"
#include "StatTime64.h"

namespace {

using qvsim::door::Before;
using qvsim::door::Behind;
using qvsim::door::ErrorOf;
using qvsim::door::Next;
using qvsim::door::Sight;
using qvsim::door::StatBy;
using qvsim::door::StatDescriptor;

// The result of access() for a node: everybody may use it, and it is not executable.
int AccessOf(Sight sight, int mode) {
    const int error = sight == Sight::kNode ? ((mode & X_OK) != 0 ? EACCES : 0) : ErrorOf(sight);
    if (error == 0) return 0;
    errno = error;
    return -1;
}

template <class Real>
int AccessBy(int dir, const char* path, int mode, bool follow, Real real) {
    std::string node;
    Sight sight = Before(dir, path, node);
    if (sight != Sight::kElsewhere) return AccessOf(sight, mode);
    const int result = real();
    if (result == 0 || errno != ENOENT || !follow) return result;
    sight = Behind(dir, path, node);
    return sight == Sight::kElsewhere ? result : AccessOf(sight, mode);
}

// A node is no link; the name of its descriptor is a link to it.
template <class Real>
ssize_t ReadLinkBy(int dir, const char* path, char* to, size_t size, Real real) {
    std::string node;
    const Sight sight = Before(dir, path, node);
    if (sight == Sight::kElsewhere) return real();
    if (sight == Sight::kNode && qvsim::door::IsDescriptorName(path)) {
        const size_t length = std::min(size, node.size());
        std::memcpy(to, node.data(), length);
        return static_cast<ssize_t>(length);
    }
    errno = sight == Sight::kNode ? EINVAL : ErrorOf(sight);
    return -1;
}

// `none` is the answer for an existing node: -1 with ENODATA, or a length.
template <class Real>
ssize_t AttributesBy(const char* path, ssize_t none, Real real) {
    std::string node;
    const Sight sight = Before(AT_FDCWD, path, node);
    if (sight == Sight::kElsewhere) return real();
    errno = sight == Sight::kNode ? ENODATA : ErrorOf(sight);
    return sight == Sight::kNode ? none : -1;
}

void FillStatx(const struct stat& from, struct statx& to) {
    to = {};
    to.stx_mask = STATX_BASIC_STATS;
    to.stx_blksize = static_cast<uint32_t>(from.st_blksize);
    to.stx_nlink = static_cast<uint32_t>(from.st_nlink);
    to.stx_uid = from.st_uid;
    to.stx_gid = from.st_gid;
    to.stx_mode = static_cast<uint16_t>(from.st_mode);
    to.stx_ino = from.st_ino;
    to.stx_atime.tv_sec = from.st_atim.tv_sec;
    to.stx_mtime.tv_sec = from.st_mtim.tv_sec;
    to.stx_ctime.tv_sec = from.st_ctim.tv_sec;
    to.stx_rdev_major = major(from.st_rdev);
    to.stx_rdev_minor = minor(from.st_rdev);
    to.stx_dev_major = major(from.st_dev);
    to.stx_dev_minor = minor(from.st_dev);
}

}  // namespace

#define QVSIM_WEAK __attribute__((weak))

// stat and its family for one layout of the record: `suffix` is that of the names.
#define QVSIM_STAT_FAMILY(suffix, Record)                                                     \
    QVSIM_WEAK int stat##suffix(const char* path, Record* status) noexcept {                  \
        static constinit Next<int(const char*, Record*)> next{"stat" #suffix};                \
        return StatBy(AT_FDCWD, path, 0, status, [&] { return next.Get()(path, status); });   \
    }                                                                                         \
    QVSIM_WEAK int lstat##suffix(const char* path, Record* status) noexcept {                 \
        static constinit Next<int(const char*, Record*)> next{"lstat" #suffix};               \
        return StatBy(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, status,                            \
                      [&] { return next.Get()(path, status); });                              \
    }                                                                                         \
    QVSIM_WEAK int fstat##suffix(int fd, Record* status) noexcept {                           \
        static constinit Next<int(int, Record*)> next{"fstat" #suffix};                       \
        return StatDescriptor(fd, status, [&] { return next.Get()(fd, status); });            \
    }                                                                                         \
    QVSIM_WEAK int fstatat##suffix(int dir, const char* path, Record* status,                 \
                                   int flags) noexcept {                                      \
        static constinit Next<int(int, const char*, Record*, int)> next{"fstatat" #suffix};   \
        return StatBy(dir, path, flags, status,                                               \
                      [&] { return next.Get()(dir, path, status, flags); });                  \
    }                                                                                         \
    /* The same as programs of older C libraries call them. */                                \
    QVSIM_WEAK int __xstat##suffix(int version, const char* path, Record* status) {           \
        static constinit Next<int(int, const char*, Record*)> next{"__xstat" #suffix};        \
        return StatBy(AT_FDCWD, path, 0, status,                                              \
                      [&] { return next.Get()(version, path, status); });                     \
    }                                                                                         \
    QVSIM_WEAK int __lxstat##suffix(int version, const char* path, Record* status) {          \
        static constinit Next<int(int, const char*, Record*)> next{"__lxstat" #suffix};       \
        return StatBy(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, status,                            \
                      [&] { return next.Get()(version, path, status); });                     \
    }                                                                                         \
    QVSIM_WEAK int __fxstat##suffix(int version, int fd, Record* status) {                    \
        static constinit Next<int(int, int, Record*)> next{"__fxstat" #suffix};               \
        return StatDescriptor(fd, status, [&] { return next.Get()(version, fd, status); });   \
    }                                                                                         \
    QVSIM_WEAK int __fxstatat##suffix(int version, int dir, const char* path, Record* status, \
                                      int flags) {                                            \
        static constinit Next<int(int, int, const char*, Record*, int)> next{                 \
            "__fxstatat" #suffix};                                                            \
        return StatBy(dir, path, flags, status,                                               \
                      [&] { return next.Get()(version, dir, path, status, flags); });         \
    }

extern "C" {

QVSIM_STAT_FAMILY(, struct stat)
QVSIM_STAT_FAMILY(64, struct stat64)

QVSIM_WEAK int statx(int dir, const char* path, int flags, unsigned mask,
                     struct statx* status) noexcept {
    static constinit Next<int(int, const char*, int, unsigned, struct statx*)> next{"statx"};
    struct stat plain {};
    const auto real = [&] { return next.Get()(dir, path, flags, mask, status); };
    bool ours = false;
    const int result = qvsim::door::StatAs(dir, path, flags, plain, real, ours);
    if (ours && result == 0 && status) FillStatx(plain, *status);
    return result;
}

QVSIM_WEAK int access(const char* path, int mode) noexcept {
    static constinit Next<int(const char*, int)> next{"access"};
    return AccessBy(AT_FDCWD, path, mode, true, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK int faccessat(int dir, const char* path, int mode, int flags) noexcept {
    static constinit Next<int(int, const char*, int, int)> next{"faccessat"};
    return AccessBy(dir, path, mode, (flags & AT_SYMLINK_NOFOLLOW) == 0,
                    [&] { return next.Get()(dir, path, mode, flags); });
}

QVSIM_WEAK int eaccess(const char* path, int mode) noexcept {
    static constinit Next<int(const char*, int)> next{"eaccess"};
    return AccessBy(AT_FDCWD, path, mode, true, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK int euidaccess(const char* path, int mode) noexcept {
    static constinit Next<int(const char*, int)> next{"euidaccess"};
    return AccessBy(AT_FDCWD, path, mode, true, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK ssize_t readlink(const char* path, char* to, size_t size) noexcept {
    static constinit Next<ssize_t(const char*, char*, size_t)> next{"readlink"};
    return ReadLinkBy(AT_FDCWD, path, to, size, [&] { return next.Get()(path, to, size); });
}

QVSIM_WEAK ssize_t readlinkat(int dir, const char* path, char* to, size_t size) noexcept {
    static constinit Next<ssize_t(int, const char*, char*, size_t)> next{"readlinkat"};
    return ReadLinkBy(dir, path, to, size, [&] { return next.Get()(dir, path, to, size); });
}

QVSIM_WEAK ssize_t __readlink_chk(const char* path, char* to, size_t size, size_t room) {
    static constinit Next<ssize_t(const char*, char*, size_t, size_t)> next{"__readlink_chk"};
    return ReadLinkBy(AT_FDCWD, path, to, size, [&] { return next.Get()(path, to, size, room); });
}

QVSIM_WEAK ssize_t __readlinkat_chk(int dir, const char* path, char* to, size_t size, size_t room) {
    static constinit Next<ssize_t(int, const char*, char*, size_t, size_t)> next{
        "__readlinkat_chk"};
    return ReadLinkBy(dir, path, to, size, [&] { return next.Get()(dir, path, to, size, room); });
}

// A node has no attributes besides those of stat.
#define QVSIM_ATTRIBUTES(prefix)                                                                  \
    QVSIM_WEAK ssize_t prefix##getxattr(const char* path, const char* name, void* value,          \
                                        size_t size) noexcept {                                   \
        static constinit Next<ssize_t(const char*, const char*, void*, size_t)> next{#prefix      \
                                                                                     "getxattr"}; \
        return AttributesBy(path, -1, [&] { return next.Get()(path, name, value, size); });       \
    }                                                                                             \
    QVSIM_WEAK ssize_t prefix##listxattr(const char* path, char* list, size_t size) noexcept {    \
        static constinit Next<ssize_t(const char*, char*, size_t)> next{#prefix "listxattr"};     \
        return AttributesBy(path, 0, [&] { return next.Get()(path, list, size); });               \
    }

QVSIM_ATTRIBUTES()
QVSIM_ATTRIBUTES(l)

}  // extern "C"

namespace qvsim::door {

static_assert(kNoFollow == AT_SYMLINK_NOFOLLOW);

int StatWide(int dir, const char* path, int flags, WideStat& wide, int (*real)(void*), void* call,
             bool& ours) {
    struct stat status {};
    const int result = path ? StatAs(
                                  dir, path, flags, status, [&] { return real(call); }, ours)
                            : StatAs(
                                  dir, "", AT_EMPTY_PATH, status, [&] { return real(call); }, ours);
    wide = {status.st_dev,
            status.st_ino,
            status.st_rdev,
            status.st_mode,
            static_cast<uint32_t>(status.st_nlink),
            status.st_uid,
            status.st_gid,
            static_cast<uint32_t>(status.st_blksize),
            status.st_mtim.tv_sec};
    return result;
}

}  // namespace qvsim::door
