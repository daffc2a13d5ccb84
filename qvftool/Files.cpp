#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace qvf {
namespace {

[[noreturn]] void Fail(const std::string& path, const char* what) {
    throw Mistake(path + ": " + what + ": " + std::strerror(errno));
}

// A FIFO must not keep anybody waiting for its writer.
std::FILE* OpenForReading(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    std::FILE* file = fdopen(fd, "rb");
    if (file == nullptr) close(fd);
    return file;
}

}  // namespace

InputFile::InputFile(const std::string& path) : path_(path), file_(OpenForReading(path)) {
    struct stat status;
    if (!file_ || fstat(fileno(file_.get()), &status) != 0) Fail(path, "cannot be opened");
    if (!S_ISREG(status.st_mode)) throw Mistake(path + ": is not a regular file");
    left_ = static_cast<uint64_t>(status.st_size);
}

Bytes InputFile::Take(uint64_t size) {
    const uint64_t wanted = size < left_ ? size : left_;
    if (wanted > std::numeric_limits<size_t>::max() / 4)
        throw Mistake(path_ + ": is too large for this computer's memory");
    Bytes bytes(static_cast<size_t>(wanted));
    if (std::fread(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size())
        Fail(path_, "cannot be read");
    left_ -= wanted;
    return bytes;
}

void InputFile::Skip(uint64_t size) {
    if (fseeko(file_.get(), static_cast<off_t>(size), SEEK_CUR) != 0) Fail(path_, "cannot be read");
    left_ -= size;
}

Bytes ReadFile(const std::string& path) {
    InputFile file(path);
    return file.Take(file.Left());
}

}  // namespace qvf
