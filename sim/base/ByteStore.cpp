#include "ByteStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "PlainFiles.h"

namespace qvsim {
namespace {

bool WriteAt(int fd, const uint8_t* data, size_t size, size_t offset) {
    while (size > 0) {
        const ssize_t n = pwrite(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return false;
        }
        data += n;
        offset += static_cast<size_t>(n);
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

ByteStore::~ByteStore() {
    if (m_fd >= 0) CloseOwn(m_fd);
}

std::string ByteStore::Open(const std::string& path, bool readOnly) {
    m_fd = OpenOutOfTheWay(path, readOnly ? O_RDONLY : O_RDWR | O_CREAT);
    m_missing = m_fd < 0 && readOnly && errno == ENOENT;
    if (m_fd < 0 && !m_missing) return path + ": " + std::strerror(errno);
    return {};
}

size_t ByteStore::Length() const {
    if (m_missing) return 0;
    if (m_fd < 0) return m_memory.size();
    struct stat status {};
    return fstat(m_fd, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

bool ByteStore::Read(uint8_t* data, size_t size, size_t offset) const {
    size_t have = 0;
    if (m_fd < 0) {
        have = offset < m_memory.size() ? std::min(size, m_memory.size() - offset) : 0;
        std::copy_n(m_memory.begin() + static_cast<ptrdiff_t>(std::min(offset, m_memory.size())),
                    have, data);
    }
    while (m_fd >= 0 && have < size) {
        const ssize_t n = pread(m_fd, data + have, size - have, static_cast<off_t>(offset + have));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        have += static_cast<size_t>(n);
    }
    std::fill(data + have, data + size, m_filler);
    return true;
}

bool ByteStore::FillTo(size_t offset) {
    const size_t length = Length();
    if (length >= offset) return true;
    if (m_fd < 0) {
        m_memory.resize(offset, m_filler);
        return true;
    }
    const std::vector<uint8_t> fill(std::min<size_t>(offset - length, 1 << 16), m_filler);
    for (size_t at = length; at < offset;) {
        const size_t n = std::min(offset - at, fill.size());
        if (!WriteAt(m_fd, fill.data(), n, at)) return false;
        at += n;
    }
    return true;
}

bool ByteStore::Write(const uint8_t* data, size_t size, size_t offset) {
    if (!FillTo(offset)) return false;
    if (m_fd >= 0) return WriteAt(m_fd, data, size, offset);
    if (m_memory.size() < offset + size) m_memory.resize(offset + size, m_filler);
    std::copy_n(data, size, m_memory.begin() + static_cast<ptrdiff_t>(offset));
    return true;
}

bool ByteStore::Cut(size_t length) {
    if (Length() <= length) return true;
    if (m_fd >= 0) return ftruncate(m_fd, static_cast<off_t>(length)) == 0;
    m_memory.resize(length);
    return true;
}

}  // namespace qvsim
