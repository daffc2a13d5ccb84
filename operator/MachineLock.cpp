#include "MachineLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Package.h"

namespace qvo {
namespace {

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
    const std::string reason = std::strerror(errno);
    throw qvf::Mistake(path + ": " + what + ": " + reason + "; --lock names another file");
}

}  // namespace

MachineLock::MachineLock(const std::string& path) : path_(path) {
    // Links are not followed: the file is written to.
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0644);
    if (fd_ < 0) Fail(path, "the lock of this machine cannot be opened");
}

MachineLock::~MachineLock() { close(fd_); }

bool MachineLock::Take() {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(fd_, F_OFD_SETLK, &whole) != 0) {
        if (errno == EAGAIN || errno == EACCES) return false;
        Fail(path_, "the lock of this machine cannot be taken");
    }
    // A hint for those who may not look into this process; the lock does not depend on it.
    const std::string number = std::to_string(getpid()) + "\n";
    if (ftruncate(fd_, 0) != 0 ||
        pwrite(fd_, number.data(), number.size(), 0) != static_cast<ssize_t>(number.size()))
        errno = 0;
    return true;
}

std::vector<Process> MachineLock::Holders() const {
    std::vector<Process> all = ProcessesWith(path_);
    std::erase_if(all, [](const Process& process) { return !process.holdsLock; });
    return all;
}

std::string MachineLock::HoldersText() const {
    const std::string seen = ProcessesText(Holders());
    if (!seen.empty()) return seen;
    char text[32] = {};
    const ssize_t length = pread(fd_, text, sizeof text - 1, 0);
    const std::string number(text, std::strspn(text, "0123456789"));
    if (length > 0 && !number.empty()) return "process " + number;
    return "another process, which may not be looked at";
}

}  // namespace qvo
