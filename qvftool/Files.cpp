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

bool WriteAll(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// What a process of this user would get for a new file.
mode_t NewFileMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

InputFile::InputFile(const std::string& path)
    : path_(path), file_(std::fopen(path.c_str(), "rbe")) {
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

void WriteFile(const std::string& path, const Bytes& bytes) {
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) Fail(path, "cannot be written");
    bool good = WriteAll(fd, bytes.data(), bytes.size()) && fchmod(fd, NewFileMode()) == 0;
    good = fsync(fd) == 0 && good;
    good = close(fd) == 0 && good;
    if (good && std::rename(temporary.c_str(), path.c_str()) == 0) return;
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    Fail(path, "cannot be written");
}

NewFolder::NewFolder(const std::string& place) : place_(place) {
    while (place_.size() > 1 && place_.back() == '/') place_.pop_back();
    std::error_code error;
    if (std::filesystem::exists(place_, error) &&
        !(std::filesystem::is_directory(place_, error) && std::filesystem::is_empty(place_, error)))
        throw Mistake(place_ + ": is there already and not an empty folder; name a new one");
    temporary_ = place_ + ".XXXXXX";
    if (mkdtemp(temporary_.data()) == nullptr) Fail(place_, "cannot be made");
}

NewFolder::~NewFolder() {
    std::error_code ignored;  // what cannot be removed has a name that tells what it is
    if (!committed_) std::filesystem::remove_all(temporary_, ignored);
}

void NewFolder::Commit() {
    if (chmod(temporary_.c_str(), NewFileMode() | 0111) != 0 ||
        std::rename(temporary_.c_str(), place_.c_str()) != 0)
        Fail(place_, "cannot be made");
    committed_ = true;
}

}  // namespace qvf
