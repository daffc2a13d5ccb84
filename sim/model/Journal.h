// The journal: one line per open, close and request, appended to a file that processes share.
//
// A line is `SEQUENCE PID open|close|ioctl NODE … = RESULT`, where RESULT is the return value or
// `-1 ERRNO`. The sequence number counts over all processes of the state directory. Not locked:
// the model's lock covers it; lines of several processes never mix, each is one write.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "EventTable.h"

namespace qvsim {

struct JournalLine {
    uint64_t sequence = 0;
    int pid = 0;
    std::string action;     // "open", "close" or "ioctl"
    std::string node;       // "/dev/video0"
    std::string request;    // name or number; empty for open and close
    std::string arguments;  // "offset=0x100000 size=65536"
    std::string result;     // "0", "-1 EIO"

    // Without sequence number, process and descriptor: what tests compare.
    std::string Comparable() const;
};

// False when the text is not a journal line.
bool ParseJournalLine(const std::string& text, JournalLine& line);
std::vector<JournalLine> ReadJournal(const std::string& dir);
std::string JournalPath(const std::string& dir);

// "EIO"; "E131" for one without a name here.
std::string ErrorName(int error);

class Journal {
  public:
    Journal() = default;
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    ~Journal();

    std::string Open(const std::string& dir);  // an empty text or what went wrong
    bool IsOpen() const { return fd_ >= 0; }
    // `what` is everything between process and result.
    void Write(const std::string& what, const Answer& answer);

  private:
    int fd_ = -1;
    uint64_t* sequence_ = nullptr;  // a page of the counter file, shared between processes
};

}  // namespace qvsim
