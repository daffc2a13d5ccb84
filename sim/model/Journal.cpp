// Reads and writes lines of the journal, and keeps it within its limit. Does not know what a
// request is.
#include "Journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "PlainFiles.h"

namespace qvsim {

std::string ErrorName(int error) {
    switch (error) {
        case EAGAIN:
            return "EAGAIN";
        case EBADF:
            return "EBADF";
        case EBUSY:
            return "EBUSY";
        case EFAULT:
            return "EFAULT";
        case EINTR:
            return "EINTR";
        case EINVAL:
            return "EINVAL";
        case EIO:
            return "EIO";
        case EACCES:
            return "EACCES";
        case EPERM:
            return "EPERM";
        case ENODATA:
            return "ENODATA";
        case ENODEV:
            return "ENODEV";
        case ENOENT:
            return "ENOENT";
        case ENOMEM:
            return "ENOMEM";
        case ENOSPC:
            return "ENOSPC";
        case ENOTTY:
            return "ENOTTY";
        case ENXIO:
            return "ENXIO";
        case EMFILE:
            return "EMFILE";
        case EOPNOTSUPP:
            return "EOPNOTSUPP";
        case ETIMEDOUT:
            return "ETIMEDOUT";
        default:
            return "E" + std::to_string(error);
    }
}

std::string JournalPath(const std::string& dir) { return dir + "/journal"; }

std::string JournalLine::Comparable() const {
    std::string text = action + " " + node;
    if (!request.empty()) text += " " + request;
    // The descriptor of an open or close is whichever number was free, and says nothing.
    if (action == "ioctl" && !arguments.empty()) text += " " + arguments;
    return text + " = " + result;
}

bool ParseJournalLine(const std::string& text, JournalLine& line) {
    const size_t equals = text.rfind(" = ");
    if (equals == std::string::npos) return false;
    line = JournalLine();
    line.result = text.substr(equals + 3);
    std::vector<std::string> words;
    const std::string head = text.substr(0, equals);
    for (size_t at = 0; at <= head.size();) {
        size_t end = head.find(' ', at);
        if (end == std::string::npos) end = head.size();
        words.push_back(head.substr(at, end - at));
        at = end + 1;
    }
    if (words.size() < 4) return false;
    char* rest = nullptr;
    line.sequence = std::strtoull(words[0].c_str(), &rest, 10);
    if (*rest != '\0' || words[0].empty()) return false;
    line.pid = std::atoi(words[1].c_str());
    line.action = words[2];
    line.node = words[3];
    size_t next = 4;
    if (line.action == "ioctl") {
        if (words.size() < 5) return false;
        line.request = words[next++];
    } else if (line.action != "open" && line.action != "close") {
        return false;
    }
    for (; next < words.size(); ++next)
        line.arguments += (line.arguments.empty() ? "" : " ") + words[next];
    return true;
}

namespace {

constexpr char kHead[] = "qvsim-journal 1\n";
constexpr size_t kHeadSize = sizeof kHead - 1;
constexpr uint64_t kLinesAtOnce = 16u << 10;  // bytes that may be written between two reservations
constexpr uint64_t kRoomAtOnce = 256u << 10;

std::string OldPath(const std::string& dir) { return JournalPath(dir) + ".old"; }

// Without a line that is being written, and without the first line; `wrong` if the first line is
// another one.
std::string LinesOf(const std::string& path, bool& wrong) {
    std::string text = ReadText(path);
    text.resize(text.rfind('\n') + 1);
    wrong = !text.empty() && text.compare(0, kHeadSize, kHead) != 0;
    if (!text.empty() && !wrong) text.erase(0, kHeadSize);
    return text;
}

std::string Parse(const std::string& path, std::vector<JournalLine>& lines) {
    bool wrong = false;
    const std::string text = LinesOf(path, wrong);
    if (wrong) return path + ":1: is no journal of this version";
    std::string error;
    int number = 2;
    for (size_t at = 0; at < text.size(); ++number) {
        const size_t end = text.find('\n', at);
        JournalLine line;
        if (ParseJournalLine(text.substr(at, end - at), line))
            lines.push_back(line);
        else if (error.empty())
            error = path + ":" + std::to_string(number) +
                    ": not a line of a journal: " + text.substr(at, std::min<size_t>(end - at, 60));
        at = end + 1;
    }
    return error;
}

}  // namespace

std::string ReadJournal(const std::string& dir, std::vector<JournalLine>& lines) {
    lines.clear();
    const std::string old = Parse(OldPath(dir), lines);
    const std::string current = Parse(JournalPath(dir), lines);
    return old.empty() ? current : old;
}

std::string JournalText(const std::string& dir) {
    bool wrong = false;
    return LinesOf(OldPath(dir), wrong) + LinesOf(JournalPath(dir), wrong);
}

std::string ClearJournal(Folder& folder) {
    const Folder::Lock lock(&folder);
    unlink(OldPath(folder.Dir()).c_str());
    if (!ReplaceFile(JournalPath(folder.Dir()), kHead))
        return JournalPath(folder.Dir()) + ": " + std::strerror(errno);
    StoreShared<uint64_t>(folder.Page().journalBytes, kHeadSize);
    StoreShared<uint64_t>(folder.Page().journalReserved, 0);
    CountShared<uint32_t>(folder.Page().journalEpoch);
    return {};
}

Journal::~Journal() {
    if (m_fd >= 0) CloseOwn(m_fd);
}

std::string Journal::Open(Folder& folder, uint32_t limit) {
    m_folder = &folder;
    m_limit = limit;
    if (!Reopen()) return JournalPath(folder.Dir()) + ": " + std::strerror(errno);
    return {};
}

bool Journal::Reopen() {
    const Folder::Lock lock(m_folder);
    const int fd = OpenOutOfTheWay(JournalPath(m_folder->Dir()), O_WRONLY | O_CREAT | O_APPEND);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) return false;
    if (m_fd >= 0) CloseOwn(m_fd);
    m_fd = fd;
    m_epoch = LoadShared(m_folder->Page().journalEpoch);
    if (status.st_size == 0 && !WriteAll(m_fd, kHead, kHeadSize)) return false;
    if (status.st_size == 0) StoreShared<uint64_t>(m_folder->Page().journalBytes, kHeadSize);
    return true;
}

// The lock is held. Lines that others still write to the older file are read there.
void Journal::BeginAnew() {
    const std::string path = JournalPath(m_folder->Dir());
    const std::string next = path + ".next";
    // When the disk is full, the file stays, and so does the older one.
    if (!ReplaceFile(next, kHead)) return;
    if (rename(path.c_str(), OldPath(m_folder->Dir()).c_str()) != 0 ||
        rename(next.c_str(), path.c_str()) != 0)
        return;
    StoreShared<uint64_t>(m_folder->Page().journalBytes, kHeadSize);
    StoreShared<uint64_t>(m_folder->Page().journalReserved, 0);
    CountShared<uint32_t>(m_folder->Page().journalEpoch);
    Reopen();
}

bool Journal::HasRoom() {
    if (m_fd < 0) return true;
    LivePage& page = m_folder->Page();
    const bool fits =
        LoadShared(page.journalBytes) + kLinesAtOnce <= LoadShared(page.journalReserved);
    if (fits && m_epoch == LoadShared(page.journalEpoch)) return true;
    if (m_epoch != LoadShared(page.journalEpoch) && !Reopen()) return false;
    const Folder::Lock lock(m_folder);
    if (m_limit > 0 && LoadShared(page.journalBytes) > m_limit / 2) BeginAnew();
    const uint64_t bytes = LoadShared(page.journalBytes);
    if (bytes + kLinesAtOnce <= LoadShared(page.journalReserved)) return true;
    const uint64_t room = m_limit > 0 ? kLinesAtOnce * 2 : kRoomAtOnce;
    if (fallocate(m_fd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(bytes), static_cast<off_t>(room)) !=
        0) {
        if (errno != EOPNOTSUPP && errno != ENOSYS && errno != EINTR) return false;
        // A file system that cannot reserve: lines are written as far as there is space.
    }
    StoreShared<uint64_t>(page.journalReserved, bytes + room);
    return true;
}

void Journal::Write(const std::string& what, const Answer& answer, int pid) {
    if (m_fd < 0) return;
    LivePage& page = m_folder->Page();
    if (m_epoch != LoadShared(page.journalEpoch)) Reopen();
    const uint64_t sequence = CountShared<uint64_t>(page.sequence);
    std::string line = std::to_string(sequence) + " " + std::to_string(pid ? pid : getpid()) + " " +
                       what + " = " + std::to_string(answer.error ? -1 : answer.value);
    if (answer.error) line += " " + ErrorName(answer.error);
    line += "\n";
    CountShared<uint64_t>(page.journalBytes, line.size());
    // One write per line; the space is reserved.
    ssize_t written = 0;
    do written = write(m_fd, line.data(), line.size());
    while (written < 0 && errno == EINTR);
}

}  // namespace qvsim
