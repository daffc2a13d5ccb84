// Interposes streams of the C library on nodes: the library opens and closes their descriptors with
// internal calls.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Interposed.h"
#include "Next.h"

namespace {

using qvsim::door::Before;
using qvsim::door::Behind;
using qvsim::door::Closing;
using qvsim::door::Next;
using qvsim::door::OpenNode;
using qvsim::door::Sight;

// Flags of open(2) for a mode such as "r+e"; -1 for an invalid one.
int FlagsOf(const char* mode) {
    const bool both = std::strchr(mode, '+') != nullptr;
    int flags = std::strchr(mode, 'e') ? O_CLOEXEC : 0;
    if (std::strchr(mode, 'x')) flags |= O_EXCL;
    switch (*mode) {
        case 'r':
            return flags | (both ? O_RDWR : O_RDONLY);
        case 'w':
            return flags | (both ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
        case 'a':
            return flags | (both ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
        default:
            return -1;
    }
}

// The file to open for a stream of that mode, if the path is the cards'.
Sight SightOf(const char* path, int flags, std::string& node) {
    if (!path || flags < 0) return Sight::kElsewhere;
    const Sight sight = Before(AT_FDCWD, path, node);
    // A link that leads to no file: nothing is created there.
    return sight == Sight::kElsewhere ? Behind(AT_FDCWD, path, node) : sight;
}

template <class Real>
std::FILE* OpenStream(const char* path, const char* mode, Real real) {
    std::string node;
    const int flags = mode ? FlagsOf(mode) : -1;
    const Sight sight = SightOf(path, flags, node);
    if (sight == Sight::kElsewhere) return real();
    const int fd = OpenNode(sight, node, flags);
    if (fd < 0) return nullptr;
    std::FILE* const stream = fdopen(fd, mode);
    if (!stream) close(fd);
    return stream;
}

// The stream gets another file instead of its own: first a harmless one, whose number then becomes
// the node's.
template <class Real>
std::FILE* ReopenStream(const char* path, const char* mode, std::FILE* stream, Real real) {
    std::string node;
    const int flags = mode ? FlagsOf(mode) : -1;
    const Sight sight = SightOf(path, flags, node);
    const Closing before(stream ? fileno(stream) : -1);
    if (sight == Sight::kElsewhere) return real(path);
    const int fd = OpenNode(sight, node, flags);
    const int error = errno;
    std::FILE* const reopened = real(fd < 0 ? path : "/dev/null");
    if (fd < 0) {
        errno = error;
        return reopened;
    }
    const bool done = reopened && dup3(fd, fileno(reopened), flags & O_CLOEXEC) >= 0;
    close(fd);
    return done ? reopened : nullptr;
}

}  // namespace

#define QVSIM_WEAK __attribute__((weak))

extern "C" {

QVSIM_WEAK std::FILE* fopen(const char* path, const char* mode) {
    static constinit Next<std::FILE*(const char*, const char*)> next{"fopen"};
    return OpenStream(path, mode, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK std::FILE* freopen(const char* path, const char* mode, std::FILE* stream) {
    static constinit Next<std::FILE*(const char*, const char*, std::FILE*)> next{"freopen"};
    return ReopenStream(path, mode, stream,
                        [&](const char* other) { return next.Get()(other, mode, stream); });
}

#ifndef fopen64
QVSIM_WEAK std::FILE* fopen64(const char* path, const char* mode) {
    static constinit Next<std::FILE*(const char*, const char*)> next{"fopen64"};
    return OpenStream(path, mode, [&] { return next.Get()(path, mode); });
}

QVSIM_WEAK std::FILE* freopen64(const char* path, const char* mode, std::FILE* stream) {
    static constinit Next<std::FILE*(const char*, const char*, std::FILE*)> next{"freopen64"};
    return ReopenStream(path, mode, stream,
                        [&](const char* other) { return next.Get()(other, mode, stream); });
}
#endif

QVSIM_WEAK int fclose(std::FILE* stream) {
    static constinit Next<int(std::FILE*)> next{"fclose"};
    const Closing closing(fileno(stream));
    return next.Get()(stream);
}

QVSIM_WEAK char* realpath(const char* path, char* resolved) noexcept {
    static constinit Next<char*(const char*, char*)> next{"realpath"};
    std::string node;
    const Sight sight = SightOf(path, 0, node);
    if (sight == Sight::kElsewhere) return next.Get()(path, resolved);
    if (sight != Sight::kNode) {
        errno = qvsim::door::ErrorOf(sight);
        return nullptr;
    }
    if (!resolved) return strdup(node.c_str());
    std::memcpy(resolved, node.c_str(), node.size() + 1);
    return resolved;
}

QVSIM_WEAK char* __realpath_chk(const char* path, char* resolved, size_t room) {
    if (resolved && room < PATH_MAX) std::abort();
    return realpath(path, resolved);
}

}  // extern "C"
