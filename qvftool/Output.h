// Files and folders as qvftool writes them: complete or not at all, also when INT, TERM or HUP
// comes in between. What is under way has a name that qvcap-upgrade does not take for a package.
// Failures are Mistakes that name the file. One thread per process.
#pragma once

#include <csignal>
#include <string>

#include "Package.h"

namespace qvf {

// While it lives, the signals that end a program wait, but for those that are ignored anyway. They
// come when the last one of these is gone, and what was under way has been removed by then.
class HeldSignals {
  public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    // A Mistake when one waits.
    static void StopIfOneWaits();

  private:
    sigset_t m_before;
};

// Follows links. A regular file is replaced as a whole and keeps its mode: an older one stays whole
// until then. Anything else (a device, a FIFO) is written into.
void WriteFile(const std::string& path, const Bytes& bytes);

// A folder that is filled beside its place and appears in it by Commit(); without, it vanishes.
class NewFolder {
  public:
    // The place must be free, or an empty folder.
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
