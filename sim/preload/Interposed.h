// What the interposed functions have in common: is a path, or a descriptor, the cards'? Any thread.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <string>

#include "Door.h"
#include "Inside.h"
#include "Paths.h"

namespace qvsim::door {

// What a path is before the kernel was asked.
inline Sight Before(int dir, const char* path, std::string& node) {
    if (!path || Inside::Is() || !MayBeNode(path)) return Sight::kElsewhere;
    const Inside inside;
    return Look(dir, path, node);
}

// The same when the kernel found nothing: a link may lead to a node, which the kernel does not
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
    // A file that does not exist behind a link would be made where the link leads to.
    if (sight == Sight::kElsewhere && follows && (flags & O_CREAT) != 0)
        sight = Behind(dir, path, node);
    if (sight == Sight::kElsewhere) {
        const int fd = real();
        if (fd >= 0 || errno != ENOENT || !follows) {
            // A number that was closed by other means than a call that comes by here.
            if (fd >= 0) Closing stale(fd);
            return fd;
        }
        sight = Behind(dir, path, node);
        if (sight == Sight::kElsewhere) return fd;
    }
    return OpenNode(sight, node, flags);
}

}  // namespace qvsim::door
