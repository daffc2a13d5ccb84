// Shared by the interposed functions: does a path, or a descriptor, belong to the cards? Any
// thread.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <string>

#include "Door.h"
#include "Inside.h"
#include "Paths.h"

namespace qvsim::door {

// What a path is, without asking the kernel.
inline Sight Before(int dir, const char* path, std::string& node) {
    if (!path || Inside::Is() || !MayBeNode(path)) return Sight::kElsewhere;
    const Inside inside;
    return Look(dir, path, node);
}

// The same after the kernel found nothing: a link may lead to a node, which the kernel does not
// know. Keeps errno.
inline Sight Behind(int dir, const char* path, std::string& node) {
    if (!path || Inside::Is()) return Sight::kElsewhere;
    const int error = errno;
    const Inside inside;
    const Sight sight = LookThroughLink(dir, path, node);
    errno = error;
    return sight;
}

// An open by name. `real` asks the kernel.
template <class Real>
int OpenBy(int dir, const char* path, int flags, Real real) {
    std::string node;
    Sight sight = Before(dir, path, node);
    const bool follows =
        (flags & O_NOFOLLOW) == 0 && (flags & (O_CREAT | O_EXCL)) != (O_CREAT | O_EXCL);
    // The kernel would create the missing target of a link.
    if (sight == Sight::kElsewhere && follows && (flags & O_CREAT) != 0)
        sight = Behind(dir, path, node);
    if (sight == Sight::kElsewhere) {
        const int fd = real();
        if (fd >= 0 || errno != ENOENT || !follows) {
            // A number that was closed by a call that is not interposed.
            if (fd >= 0) Closing stale(fd);
            return fd;
        }
        sight = Behind(dir, path, node);
        if (sight == Sight::kElsewhere) return fd;
    }
    return OpenNode(sight, node, flags);
}

}  // namespace qvsim::door
