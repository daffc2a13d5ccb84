#include "Files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>

namespace qvf {
[[noreturn]] void FailWithErrno(const std::string& path, const char* what) {
    throw Mistake(path + ": " + what + ": " + std::strerror(errno));
}

namespace {

// An open must not wait for the writer of a FIFO.
std::FILE* OpenForReading(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    std::FILE* file = fdopen(fd, "rb");
    if (file == nullptr) close(fd);
    return file;
}

// Fresh memory costs as much as reading a file into it, page by page; in large pages, a quarter.
// Only a request: without them nothing changes.
void WantLargePages(const uint8_t* begin, size_t size) {
    constexpr uintptr_t kLargePage = uintptr_t{2} << 20;
    const auto at = reinterpret_cast<uintptr_t>(begin);
    const uintptr_t first = (at + kLargePage - 1) / kLargePage * kLargePage;
    const uintptr_t last = (at + size) / kLargePage * kLargePage;
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

}  // namespace

InputFile::InputFile(const std::string& path) : m_path(path), m_file(OpenForReading(path)) {
    struct stat status;
    if (!m_file || fstat(fileno(m_file.get()), &status) != 0)
        FailWithErrno(path, "cannot be opened");
    if (!S_ISREG(status.st_mode)) throw Mistake(path + ": is not a regular file");
    m_left = static_cast<uint64_t>(status.st_size);
}

Bytes InputFile::Take(uint64_t size) {
    const uint64_t wanted = size < m_left ? size : m_left;
    if (wanted > std::numeric_limits<size_t>::max() / 4)
        throw Mistake(m_path + ": is too large for this computer's memory");
    Bytes bytes;
    bytes.reserve(static_cast<size_t>(wanted));
    WantLargePages(bytes.data(), bytes.capacity());
    bytes.resize(static_cast<size_t>(wanted));
    if (std::fread(bytes.data(), 1, bytes.size(), m_file.get()) != bytes.size())
        FailWithErrno(m_path, "cannot be read");
    m_left -= wanted;
    return bytes;
}

void InputFile::Skip(uint64_t size) {
    if (fseeko(m_file.get(), static_cast<off_t>(size), SEEK_CUR) != 0)
        FailWithErrno(m_path, "cannot be read");
    m_left -= size;
}

Bytes ReadFile(const std::string& path) {
    InputFile file(path);
    return file.Take(file.Left());
}

}  // namespace qvf
