// How qvftool writes files and folders: complete or not at all, even when INT, TERM or HUP comes in
// between. An unfinished file has a name that qvcap-upgrade does not take for a package. Failures
// are Mistakes that name the file. Any thread; the mode of new files needs a mask that does not
// change.
#pragma once

#include <csignal>
#include <string>

#include "Package.h"

namespace qvf {

// While it exists, the signals that end a program are blocked, except those that are ignored
// anyway, and those that the thread has blocked before: the program awaits them itself, and they
// interrupt nothing here. They are delivered when the last object of this kind is gone; unfinished
// files have been removed by then.
class HeldSignals {
  public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    // Throws a Mistake when a signal is pending that is blocked by an object of this thread.
    static void StopIfOneWaits();

  private:
    sigset_t m_before = {};
    sigset_t m_heldBefore;
};

// Follows links. A regular file is replaced at once and keeps its mode: the old file stays complete
// until then. Anything else (a device, a FIFO) is written to directly.
void WriteFile(const std::string& path, const Bytes& bytes);

// A folder that is filled under a temporary name beside its destination. Commit() moves it there;
// without Commit() it is removed.
class NewFolder {
  public:
    // The destination must not exist, or be an empty folder.
    explicit NewFolder(const std::string& place);
    ~NewFolder();
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;

    std::string operator/(const std::string& name) const { return m_temporary + "/" + name; }
    void Commit();

  private:
    HeldSignals m_held;
    std::string m_place;
    std::string m_temporary;
    unsigned m_mode = 0;
    bool m_committed = false;
};

}  // namespace qvf
