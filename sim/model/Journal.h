// The journal: one line per open, close and request, appended to a file that processes share.
//
// With a limit, a new file is begun when the file has reached half of it, and the previous file is
// kept. Disk space for lines is reserved in advance, so that a full disk refuses a request and no
// line is cut off. A line is `SEQUENCE PID open|close|ioctl NODE … = RESULT`, where RESULT is the
// return value or `-1 ERRNO`. The sequence number counts over all processes of the state directory.
// Not locked: the model's lock covers it; lines of several processes never mix, each is one write.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "EventTable.h"
#include "Folder.h"

namespace qvsim {

struct JournalLine {
    uint64_t sequence = 0;
    int pid = 0;
    std::string action;     // "open", "close" or "ioctl"
    std::string node;       // "/dev/video0"
    std::string request;    // name or number; empty for open and close
    std::string arguments;  // "offset=0x100000 size=65536"
    std::string result;     // "0", "-1 EIO"

    // The line without sequence number, process and descriptor, for comparison in tests.
    std::string Comparable() const;
};

// False when the text is not a journal line.
bool ParseJournalLine(const std::string& text, JournalLine& line);
// All valid lines of a folder, the older file's first. Returns an error message that names the
// first invalid line, empty when there is none.
std::string ReadJournal(const std::string& dir, std::vector<JournalLine>& lines);
// The same as a text, without a line that is being written.
std::string JournalText(const std::string& dir);
std::string JournalPath(const std::string& dir);
// Removes all lines; the sequence numbers continue. Returns an error message, empty on success.
std::string ClearJournal(Folder& folder);

// "EIO"; "E131" for one without a name here.
std::string ErrorName(int error);

class Journal {
  public:
    Journal() = default;
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    ~Journal();

    // Returns an error message, empty on success.
    std::string Open(Folder& folder, uint32_t limit);
    bool IsOpen() const { return m_fd >= 0; }
    // Reserves space for what one request can write. False: the disk is full, see errno.
    bool HasRoom();
    // `what` is everything between process and result. The process is this one or, given by its
    // number, one that cannot write the line itself.
    void Write(const std::string& what, const Answer& answer, int pid = 0);

  private:
    bool Reopen();
    void BeginAnew();

    Folder* m_folder = nullptr;
    int m_fd = -1;
    uint32_t m_epoch = 0;
    uint32_t m_limit = 0;  // bytes, 0: none
};

}  // namespace qvsim
