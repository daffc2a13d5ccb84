#include "Journal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CardsState.h"

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
    // The descriptor of an open or close is whatever was free, and says nothing.
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

std::vector<JournalLine> ReadJournal(const std::string& dir) {
    std::vector<JournalLine> lines;
    const std::string text = ReadText(JournalPath(dir));
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        if (end == std::string::npos) break;  // a line in writing
        JournalLine line;
        if (ParseJournalLine(text.substr(at, end - at), line)) lines.push_back(line);
        at = end + 1;
    }
    return lines;
}

Journal::~Journal() {
    if (sequence_) munmap(sequence_, sizeof *sequence_);
    if (fd_ >= 0) close(fd_);
}

std::string Journal::Open(const std::string& dir) {
    const std::string path = JournalPath(dir);
    fd_ = OpenOutOfTheWay(path, O_WRONLY | O_CREAT | O_APPEND);
    if (fd_ < 0) return path + ": " + std::strerror(errno);
    const std::string counter = path + ".count";
    const int fd = open(counter.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return counter + ": " + std::strerror(errno);
    void* page = MAP_FAILED;
    if (ftruncate(fd, sizeof *sequence_) == 0)
        page = mmap(nullptr, sizeof *sequence_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const int error = errno;
    close(fd);
    if (page == MAP_FAILED) return counter + ": " + std::strerror(error);
    sequence_ = static_cast<uint64_t*>(page);
    return {};
}

void Journal::Write(const std::string& what, const Answer& answer) {
    if (fd_ < 0) return;
    const uint64_t sequence = std::atomic_ref<uint64_t>(*sequence_).fetch_add(1) + 1;
    std::string line = std::to_string(sequence) + " " + std::to_string(getpid()) + " " + what +
                       " = " + std::to_string(answer.error ? -1 : answer.value);
    if (answer.error) line += " " + ErrorName(answer.error);
    line += "\n";
    // One write per line; a journal that cannot be written does not stop a card.
    ssize_t written = 0;
    do written = write(fd_, line.data(), line.size());
    while (written < 0 && errno == EINTR);
}

}  // namespace qvsim
