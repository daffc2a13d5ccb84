// Makes, fills and removes the folder in which only one package can be found. Folders that a
// killed run has left are removed; no others.
#include "PrivateFolder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace qvo {
namespace {

namespace fs = std::filesystem;

constexpr char kPackagePrefix[] = ".package-";

[[noreturn]] void Fail(const std::string& path, int error) {
    throw qvf::Mistake(path + ": the package cannot be copied there: " + std::strerror(error) +
                       "; --log names another folder");
}

// 0, or the error.
int Write(int fd, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t n = write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno != EINTR) return errno;
        if (n == 0) return ENOSPC;
        if (n > 0) bytes = bytes.subspan(static_cast<size_t>(n));
    }
    return 0;
}

// 0, or the error if it could not be written completely. Not synced: nobody needs it after a loss
// of power.
int WriteNew(const std::string& path, const qvf::Pieces& pieces) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0400);
    if (fd < 0) return errno;
    int error = 0;
    for (const auto& piece : pieces)
        if (error == 0) error = Write(fd, piece);
    if (close(fd) != 0 && error == 0) error = errno;
    return error;
}

void Remove(const std::string& path) {
    std::error_code ignored;  // a leftover breaks nothing, and the next run removes it
    fs::remove_all(path, ignored);
}

}  // namespace

PrivateFolder::PrivateFolder(const std::string& parent, const qvf::Pieces& package)
    : m_path(parent + "/" + kPackagePrefix + "XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr) Fail(parent, errno);
    if (const int error = WriteNew(m_path + "/package.qvf", package)) {
        Remove(m_path);
        Fail(parent, error);
    }
}

PrivateFolder::~PrivateFolder() { Remove(m_path); }

void PrivateFolder::RemoveLeftOvers(const std::string& parent) {
    std::vector<std::string> old;
    std::error_code error;
    for (fs::directory_iterator at(parent, error), end; !error && at != end; at.increment(error))
        if (at->path().filename().string().starts_with(kPackagePrefix))
            old.push_back(at->path().string());
    for (const std::string& path : old) Remove(path);
}

std::string PrivatePackages::FolderOf(const std::shared_ptr<const PackageContents>& contents) {
    const std::lock_guard lock(m_lock);
    for (const Made& made : m_made)
        if (made.contents == contents) return made.folder->Path();
    m_made.push_back({contents, std::make_unique<PrivateFolder>(m_parent, contents->Pieces())});
    return m_made.back().folder->Path();
}

}  // namespace qvo
