#include "Output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "Files.h"

namespace qvf {
namespace {

namespace fs = std::filesystem;

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr size_t kPiece = 1 << 20;  // bytes written between two checks for a signal
constexpr int kMostLinks = 40;

// The signals that objects of this thread have blocked.
thread_local sigset_t g_held = {};

bool IsIgnored(int signal) {
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// The mode that a new file of this process gets.
mode_t NewFileMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

std::optional<struct stat> StatusOf(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return {};
    return status;
}

// The target of the links, whether it exists or not.
std::string Followed(const std::string& path) {
    fs::path place = path;
    std::error_code missing;  // a missing file is no link
    for (int i = 0; fs::is_symlink(place, missing); ++i) {
        std::error_code error;
        const fs::path target = fs::read_symlink(place, error);
        if (error || i == kMostLinks) throw Mistake(path + ": its links lead nowhere");
        place = place.parent_path() / target;
    }
    return place.string();
}

std::string FolderOf(const std::string& path) {
    const fs::path folder = fs::path(path).parent_path();
    return folder.empty() ? "." : folder.string();
}

bool WriteAll(int fd, const Bytes& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        HeldSignals::StopIfOneWaits();
        const ssize_t n = write(fd, bytes.data() + done, std::min(kPiece, bytes.size() - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// A new name must survive a loss of power, too. Some file systems cannot sync a folder.
void SyncFolder(const std::string& folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

// A temporary file beside its destination, removed unless it was moved there.
class BesideFile {
  public:
    explicit BesideFile(const std::string& place)
        : m_place(place), m_temporary(FolderOf(place) + "/.new-package-XXXXXX") {
        m_fd = mkostemp(m_temporary.data(), O_CLOEXEC);
        if (m_fd < 0) FailWithErrno(place, "cannot be written");
    }
    ~BesideFile() {
        if (m_fd >= 0) close(m_fd);
        if (!m_moved) unlink(m_temporary.c_str());
    }
    BesideFile(const BesideFile&) = delete;
    BesideFile& operator=(const BesideFile&) = delete;

    void Fill(const Bytes& bytes, mode_t mode) {
        if (!WriteAll(m_fd, bytes) || fchmod(m_fd, mode) != 0 || fsync(m_fd) != 0)
            FailWithErrno(m_place, "cannot be written");
        const int fd = m_fd;
        m_fd = -1;
        if (close(fd) != 0) FailWithErrno(m_place, "cannot be written");
    }
    void Move() {
        if (rename(m_temporary.c_str(), m_place.c_str()) != 0)
            FailWithErrno(m_place, "cannot be written");
        m_moved = true;
        SyncFolder(FolderOf(m_place));
    }

  private:
    std::string m_place;
    std::string m_temporary;
    int m_fd = -1;
    bool m_moved = false;
};

// Signals still end the program here: a FIFO may wait for its reader, and no temporary file exists.
void WriteInto(const std::string& path, const Bytes& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) FailWithErrno(path, "cannot be written");
    const bool good = WriteAll(fd, bytes);
    const int error = errno;
    if (close(fd) == 0 && good) return;
    if (!good) errno = error;
    FailWithErrno(path, "cannot be written");
}

}  // namespace

HeldSignals::HeldSignals() : m_heldBefore(g_held) {
    pthread_sigmask(SIG_BLOCK, nullptr, &m_before);
    // A pending ignored signal would look like one that must end the program.
    for (const int signal : kEndingSignals)
        if (!IsIgnored(signal) && sigismember(&m_before, signal) == 0) sigaddset(&g_held, signal);
    pthread_sigmask(SIG_BLOCK, &g_held, nullptr);
}

HeldSignals::~HeldSignals() {
    g_held = m_heldBefore;
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

void HeldSignals::StopIfOneWaits() {
    sigset_t waiting;
    if (sigpending(&waiting) != 0) return;
    for (const int signal : kEndingSignals)
        if (sigismember(&waiting, signal) == 1 && sigismember(&g_held, signal) == 1)
            throw Mistake("interrupted: nothing was written");
}

void WriteFile(const std::string& path, const Bytes& bytes) {
    const std::string place = Followed(path);
    const std::optional<struct stat> there = StatusOf(place);
    if (there && !S_ISREG(there->st_mode)) return WriteInto(path, bytes);
    const HeldSignals held;
    BesideFile file(place);
    file.Fill(bytes, there ? there->st_mode & 07777 : NewFileMode());
    file.Move();
}

NewFolder::NewFolder(const std::string& place) {
    std::string plain = place;
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    m_place = Followed(plain);
    std::error_code error;
    const std::optional<struct stat> there = StatusOf(m_place);
    if (there && !(S_ISDIR(there->st_mode) && fs::is_empty(m_place, error)))
        throw Mistake(m_place + ": is there already and not an empty folder; name a new one");
    m_mode = there ? there->st_mode & 07777 : NewFileMode() | 0111;
    m_temporary = FolderOf(m_place) + "/.new-folder-XXXXXX";
    if (mkdtemp(m_temporary.data()) == nullptr) FailWithErrno(m_place, "cannot be made");
}

NewFolder::~NewFolder() {
    std::error_code ignored;  // the name of a leftover says what it is
    if (!m_committed) fs::remove_all(m_temporary, ignored);
}

void NewFolder::Commit() {
    HeldSignals::StopIfOneWaits();
    SyncFolder(m_temporary);
    if (chmod(m_temporary.c_str(), m_mode) != 0 ||
        rename(m_temporary.c_str(), m_place.c_str()) != 0)
        FailWithErrno(m_place, "cannot be made");
    m_committed = true;
    SyncFolder(FolderOf(m_place));
}

}  // namespace qvf
