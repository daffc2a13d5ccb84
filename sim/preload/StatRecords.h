// The results of stat and its family for a node, for every layout of their record.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>

#include "Interposed.h"

namespace qvsim::door {

template <class Record>
void FillStat(const struct stat& from, Record& to) {
    to = {};
    to.st_dev = from.st_dev;
    to.st_ino = from.st_ino;
    to.st_mode = from.st_mode;
    to.st_nlink = from.st_nlink;
    to.st_uid = from.st_uid;
    to.st_gid = from.st_gid;
    to.st_rdev = from.st_rdev;
    to.st_blksize = from.st_blksize;
    to.st_atim.tv_sec = from.st_atim.tv_sec;
    to.st_mtim.tv_sec = from.st_mtim.tv_sec;
    to.st_ctim.tv_sec = from.st_ctim.tv_sec;
}

inline int StatNode(Sight sight, const std::string& node, struct stat& status) {
    if (const int error = ErrorOf(sight)) {
        errno = error;
        return -1;
    }
    const Inside inside;
    Describe(node, status);
    return 0;
}

// `ours` says whether the cards answered, or the kernel through `real`.
template <class Real>
int StatAs(int dir, const char* path, int flags, struct stat& status, Real real, bool& ours) {
    std::string node;
    ours = true;
    if (path && *path == '\0' && (flags & AT_EMPTY_PATH) != 0 && IsNode(dir, &node))
        return StatNode(Sight::kNode, node, status);
    const bool follows = (flags & AT_SYMLINK_NOFOLLOW) == 0;
    Sight sight =
        follows || (path && !IsDescriptorName(path)) ? Before(dir, path, node) : Sight::kElsewhere;
    if (sight != Sight::kElsewhere) return StatNode(sight, node, status);
    ours = false;
    const int result = real();
    if (result == 0 || errno != ENOENT || !follows) return result;
    sight = Behind(dir, path, node);
    if (sight == Sight::kElsewhere) return result;
    ours = true;
    return StatNode(sight, node, status);
}

template <class Record, class Real>
int StatBy(int dir, const char* path, int flags, Record* to, Real real) {
    struct stat status {};
    bool ours = false;
    const int result = StatAs(dir, path, flags, status, real, ours);
    if (ours && result == 0 && to) FillStat(status, *to);
    return result;
}

template <class Record, class Real>
int StatDescriptor(int fd, Record* to, Real real) {
    std::string node;
    if (!IsNode(fd, &node) || !to) return real();
    struct stat status {};
    StatNode(Sight::kNode, node, status);
    FillStat(status, *to);
    return 0;
}

}  // namespace qvsim::door
