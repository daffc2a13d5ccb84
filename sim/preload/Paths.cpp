// The kernel's rules for paths, as far as they can lead to a node. Opens nothing.
#include "Paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "Descriptors.h"

namespace qvsim::door {
namespace {

constexpr char kDev[] = "/dev";
constexpr int kMostLinks = 40;
constexpr size_t kShortestName = 6;  // "video0"

// Where a path's last name begins, ignoring trailing slashes.
struct LastName {
    size_t at;
    size_t size;
};

LastName LastNameOf(const char* path) {
    size_t end = std::strlen(path);
    while (end > 0 && path[end - 1] == '/') --end;
    size_t begin = end;
    while (begin > 0 && path[begin - 1] != '/') --begin;
    return {begin, end - begin};
}

bool IsDev(const struct stat& status) {
    struct stat dev {};
    return stat(kDev, &dev) == 0 && dev.st_dev == status.st_dev && dev.st_ino == status.st_ino;
}

// The node of a descriptor of this process, given by its name under /proc or /dev; readlink() does
// not resolve such a link completely.
std::string NodeOfDescriptorName(const std::string& path) {
    for (const std::string& prefix : {std::string("/proc/self/fd/"), std::string("/dev/fd/"),
                                      "/proc/" + std::to_string(getpid()) + "/fd/"}) {
        if (path.compare(0, prefix.size(), prefix) != 0) continue;
        char* end = nullptr;
        const long fd = std::strtol(path.c_str() + prefix.size(), &end, 10);
        const Held held = *end == '\0' && end != path.c_str() + prefix.size()
                              ? Find(static_cast<int>(fd))
                              : nullptr;
        if (held) return held->path;
    }
    return {};
}

}  // namespace

bool EndsInSlash(const char* path) {
    const size_t size = std::strlen(path);
    return size > 0 && path[size - 1] == '/';
}

bool IsDescriptorName(const char* path) {
    const LastName last = LastNameOf(path);
    return last.size > 0 && path[last.at] >= '0' && path[last.at] <= '9';
}

bool IsDevFolder(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && IsDev(status);
}

bool IsDevFolder(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && IsDev(status);
}

bool MayBeNode(const char* path) {
    const LastName last = LastNameOf(path);
    const char first = last.size > 0 ? path[last.at] : '\0';
    if (IsDescriptorName(path)) return g_openNodes.load(std::memory_order_acquire) > 0;
    return last.size >= kShortestName && (first == 'v' || first == 'q');
}

std::string NodeOfPath(int dir, const char* path) {
    const auto [begin, size] = LastNameOf(path);
    const std::string name(path + begin, size);
    if (IsDescriptorName(path)) return NodeOfDescriptorName(path);
    if (!Model::AnswersName(name.c_str())) return {};
    const std::string node = std::string(kDev) + "/" + name;
    const std::string folder(path, begin);
    if (folder == "/dev/") return node;
    struct stat status {};
    if (fstatat(dir, folder.empty() ? "." : folder.c_str(), &status, 0) != 0) return {};
    return IsDev(status) ? node : std::string();
}

std::string NodeOfLink(int dir, const char* path) {
    std::string at = path;
    for (int links = 0; links < kMostLinks; ++links) {
        char target[PATH_MAX];
        const ssize_t size = readlinkat(dir, at.c_str(), target, sizeof target - 1);
        if (size <= 0) return {};
        target[size] = '\0';
        at = target[0] == '/' ? target : at.substr(0, at.rfind('/') + 1) + target;
        if (std::string node = NodeOfPath(dir, at.c_str()); !node.empty()) return node;
    }
    return {};
}

}  // namespace qvsim::door
