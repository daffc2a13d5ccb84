// Takes the lock of the machine and names who has it. The lock is released when the last process
// that inherited it ends.
#include "MachineLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "Package.h"

namespace qvo {
namespace {

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
    const std::string reason = std::strerror(errno);
    throw qvf::Mistake(path + ": " + what + ": " + reason + "; --lock names another file");
}

struct flock WholeFile() {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return whole;
}

}  // namespace

MachineLock::MachineLock(const std::string& path) : m_path(path) {
    // Does not follow links, because it writes to the file.
    m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0644);
    if (m_fd < 0) Fail(path, "the lock of this machine cannot be opened");
    try {
        ExpectLockFile();
    } catch (...) {
        close(m_fd);
        throw;
    }
}

MachineLock::~MachineLock() { close(m_fd); }

bool MachineLock::Take() {
    struct flock whole = WholeFile();
    if (fcntl(m_fd, F_OFD_SETLK, &whole) != 0) {
        if (errno == EAGAIN || errno == EACCES) return false;
        Fail(m_path, "the lock of this machine cannot be taken");
    }
    Sign();
    return true;
}

void MachineLock::Wait() {
    struct flock whole = WholeFile();
    while (fcntl(m_fd, F_OFD_SETLKW, &whole) != 0)
        if (errno != EINTR) Fail(m_path, "the lock of this machine cannot be waited for");
    Sign();
}

// Another file is no lock: it would be overwritten.
void MachineLock::ExpectLockFile() const {
    char text[32] = {};
    const ssize_t length = pread(m_fd, text, sizeof text - 1, 0);
    const std::string_view content(text, length > 0 ? static_cast<size_t>(length) : 0);
    const size_t end = content.find_first_not_of("0123456789");
    const bool isNumber = end != content.npos && end > 0 && content.substr(end) == "\n";
    if (length == 0 || isNumber) return;
    throw qvf::Mistake(m_path + ": is another file than a lock; --lock names another one");
}

// A hint for users who may not inspect this process; the lock does not depend on it.
void MachineLock::Sign() const {
    const std::string number = std::to_string(getpid()) + "\n";
    const bool signedIt =
        ftruncate(m_fd, 0) == 0 &&
        pwrite(m_fd, number.data(), number.size(), 0) == static_cast<ssize_t>(number.size());
    static_cast<void>(signedIt);
}

std::vector<Process> MachineLock::Holders() const {
    std::vector<Process> all = ProcessesWith({m_path});
    std::erase_if(all, [](const Process& process) { return !process.holdsLock; });
    return all;
}

std::string MachineLock::HoldersText() const {
    std::string seen = ProcessesText(Holders());
    if (!seen.empty()) return seen;
    char text[32] = {};
    const ssize_t length = pread(m_fd, text, sizeof text - 1, 0);
    const std::string number(text, std::strspn(text, "0123456789"));
    if (length > 0 && !number.empty()) return "process " + number;
    return "another process, which may not be looked at";
}

}  // namespace qvo
