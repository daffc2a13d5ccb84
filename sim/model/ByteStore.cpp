#include "ByteStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Files.h"

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
    if (fd_ >= 0) CloseOwn(fd_);
}

std::string ByteStore::Open(const std::string& path, bool readOnly) {
    fd_ = OpenOutOfTheWay(path, readOnly ? O_RDONLY : O_RDWR | O_CREAT);
    missing_ = fd_ < 0 && readOnly && errno == ENOENT;
    if (fd_ < 0 && !missing_) return path + ": " + std::strerror(errno);
    return {};
}

size_t ByteStore::Length() const {
    if (missing_) return 0;
    if (fd_ < 0) return memory_.size();
    struct stat status {};
    return fstat(fd_, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

bool ByteStore::Read(uint8_t* data, size_t size, size_t offset) const {
    size_t have = 0;
    if (fd_ < 0) {
        have = offset < memory_.size() ? std::min(size, memory_.size() - offset) : 0;
        std::copy_n(memory_.begin() + static_cast<ptrdiff_t>(std::min(offset, memory_.size())),
                    have, data);
    }
    while (fd_ >= 0 && have < size) {
        const ssize_t n = pread(fd_, data + have, size - have, static_cast<off_t>(offset + have));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        have += static_cast<size_t>(n);
    }
    std::fill(data + have, data + size, filler_);
    return true;
}

bool ByteStore::FillTo(size_t offset) {
    const size_t length = Length();
    if (length >= offset) return true;
    if (fd_ < 0) {
        memory_.resize(offset, filler_);
        return true;
    }
    const std::vector<uint8_t> fill(std::min<size_t>(offset - length, 1 << 16), filler_);
    for (size_t at = length; at < offset;) {
        const size_t n = std::min(offset - at, fill.size());
        if (!WriteAt(fd_, fill.data(), n, at)) return false;
        at += n;
    }
    return true;
}

bool ByteStore::Write(const uint8_t* data, size_t size, size_t offset) {
    if (!FillTo(offset)) return false;
    if (fd_ >= 0) return WriteAt(fd_, data, size, offset);
    if (memory_.size() < offset + size) memory_.resize(offset + size, filler_);
    std::copy_n(data, size, memory_.begin() + static_cast<ptrdiff_t>(offset));
    return true;
}

bool ByteStore::Cut(size_t length) {
    if (Length() <= length) return true;
    if (fd_ >= 0) return ftruncate(fd_, static_cast<off_t>(length)) == 0;
    memory_.resize(length);
    return true;
}

}  // namespace qvsim
