// Interposes stat and its family for 32-bit programs with a 64-bit time_t: built with that time_t,
// so that these definitions get the C library's names for it. Empty on other systems.
#ifdef __i386__
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64
#endif
#include <sys/stat.h>

#ifdef __i386__
#include "Next.h"
#include "StatTime64.h"

#define QVSIM_WEAK __attribute__((weak))

namespace {

using qvsim::door::Next;

// The names of the declarations in this build.
template <class Real>
int Answer(int dir, const char* path, int flags, struct stat* to, Real real) {
    qvsim::door::WideStat wide{};
    bool ours = false;
    const int result = qvsim::door::StatWide(
        dir, path, flags, wide, [](void* call) { return (*static_cast<Real*>(call))(); }, &real,
        ours);
    if (!ours || result != 0 || !to) return result;
    *to = {};
    to->st_dev = wide.device;
    to->st_ino = wide.inode;
    to->st_mode = wide.mode;
    to->st_nlink = wide.links;
    to->st_uid = wide.user;
    to->st_gid = wide.group;
    to->st_rdev = wide.nodeDevice;
    to->st_blksize = wide.blockSize;
    to->st_atim.tv_sec = to->st_mtim.tv_sec = to->st_ctim.tv_sec = wide.time;
    return 0;
}

}  // namespace

extern "C" {

QVSIM_WEAK int stat(const char* path, struct stat* status) noexcept {
    static constinit Next<int(const char*, struct stat*)> next{"__stat64_time64"};
    return Answer(-100, path, 0, status, [&] { return next.Get()(path, status); });
}

QVSIM_WEAK int lstat(const char* path, struct stat* status) noexcept {
    static constinit Next<int(const char*, struct stat*)> next{"__lstat64_time64"};
    return Answer(-100, path, qvsim::door::kNoFollow, status,
                  [&] { return next.Get()(path, status); });
}

QVSIM_WEAK int fstat(int fd, struct stat* status) noexcept {
    static constinit Next<int(int, struct stat*)> next{"__fstat64_time64"};
    return Answer(fd, nullptr, 0, status, [&] { return next.Get()(fd, status); });
}

QVSIM_WEAK int fstatat(int dir, const char* path, struct stat* status, int flags) noexcept {
    static constinit Next<int(int, const char*, struct stat*, int)> next{"__fstatat64_time64"};
    return Answer(dir, path, flags, status, [&] { return next.Get()(dir, path, status, flags); });
}

}  // extern "C"
#endif
