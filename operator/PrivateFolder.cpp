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

constexpr char kPrefix[] = ".package-";

[[noreturn]] void Fail(const std::string& path, int error) {
    throw qvf::Mistake(path + ": the package cannot be copied there: " + std::strerror(error) +
                       "; --log names another folder");
}

// 0, or the error if it could not be written completely.
int WriteNew(const std::string& path, const qvf::Bytes& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0400);
    if (fd < 0) return errno;
    int error = 0;
    for (size_t done = 0; done < bytes.size() && error == 0;) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) done += static_cast<size_t>(n);
        if (n < 0 && errno != EINTR) error = errno;
        if (n == 0) error = ENOSPC;
    }
    if (error == 0 && fsync(fd) != 0) error = errno;
    if (close(fd) != 0 && error == 0) error = errno;
    return error;
}

void Remove(const std::string& path) {
    std::error_code ignored;  // a leftover breaks nothing, and the next run removes it
    fs::remove_all(path, ignored);
}

}  // namespace

PrivateFolder::PrivateFolder(const std::string& parent, const qvf::Bytes& package)
    : m_path(parent + "/" + kPrefix + "XXXXXX") {
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
        if (at->path().filename().string().starts_with(kPrefix)) old.push_back(at->path().string());
    for (const std::string& path : old) Remove(path);
}

std::string PrivatePackages::FolderOf(const std::shared_ptr<const PackageContents>& contents) {
    const std::lock_guard lock(m_lock);
    for (const Made& made : m_made)
        if (made.contents == contents) return made.folder->Path();
    m_made.push_back(
        {contents, std::make_unique<PrivateFolder>(m_parent, qvf::Serialize(contents->package))});
    return m_made.back().folder->Path();
}

}  // namespace qvo
