#include "PlainFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace qvsim {

namespace {

constexpr int kFirstNumber = 700;
constexpr int kKnownNumbers = 4096;
constinit std::atomic<bool> g_own[kKnownNumbers];

std::atomic<bool>* OwnMark(int fd) {
    const int index = fd - kFirstNumber;
    return index >= 0 && index < kKnownNumbers ? &g_own[index] : nullptr;
}

}  // namespace

bool IsOwn(int fd) {
    const std::atomic<bool>* const mark = OwnMark(fd);
    return mark && mark->load(std::memory_order_relaxed);
}

int CloseOwn(int fd) {
    if (std::atomic<bool>* const mark = OwnMark(fd)) mark->store(false);
    return close(fd);
}

int OpenOutOfTheWay(const std::string& path, int flags) {
    return OutOfTheWay(open(path.c_str(), flags | O_CLOEXEC, 0666));
}

int OutOfTheWay(int fd) {
    if (fd < 0) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, kFirstNumber);
    if (moved < 0) return fd;  // a low limit: the low number is better than none
    close(fd);
    if (std::atomic<bool>* const mark = OwnMark(moved)) mark->store(true);
    return moved;
}

bool WriteAll(int fd, const void* data, size_t size) {
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = write(fd, at, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return false;
        }
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool AppendText(const std::string& path, const std::string& text) {
    const int fd = OpenOutOfTheWay(path, O_WRONLY | O_CREAT | O_APPEND);
    if (fd < 0) return false;
    struct stat before {};
    bool written = fstat(fd, &before) == 0 && WriteAll(fd, text.data(), text.size());
    const int error = errno;
    // If the text does not fit, the part that was written is removed.
    if (!written && ftruncate(fd, before.st_size) != 0) written = false;
    const bool closed = CloseOwn(fd) == 0;
    if (!written) errno = error;
    return written && closed;
}

bool ReplaceFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".new." + std::to_string(getpid());
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    const bool written = WriteAll(fd, text.data(), text.size());
    int error = errno;
    const bool closed = close(fd) == 0;
    if (written && closed && rename(temporary.c_str(), path.c_str()) == 0) return true;
    if (written) error = errno;
    unlink(temporary.c_str());
    errno = error;
    return false;
}

// Not by a stream, which takes memory of the C library's.
std::string ReadText(const std::string& path) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return text;
    char piece[4096];
    ssize_t size = 0;
    while ((size = read(fd, piece, sizeof piece)) > 0 || (size < 0 && errno == EINTR))
        if (size > 0) text.append(piece, static_cast<size_t>(size));
    close(fd);
    return text;
}

}  // namespace qvsim
