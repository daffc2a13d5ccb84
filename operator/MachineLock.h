// One upgrade at a time on a machine: an open-file-description lock on a file that stays.
//
// The lock belongs to the open file and not to a process: a child that inherits the descriptor
// holds it too, so a qvcap that was killed leaves the machine locked until its child has finished.
// One thread.
#pragma once

#include <string>
#include <vector>

#include "Processes.h"

namespace qvo {

inline constexpr char kLockFile[] = "/run/qvcap.lock";

class MachineLock {
  public:
    // Opens the file, and makes it where it is missing; a Mistake when it cannot.
    explicit MachineLock(const std::string& path);
    ~MachineLock();
    MachineLock(const MachineLock&) = delete;
    MachineLock& operator=(const MachineLock&) = delete;

    // False when somebody else has it.
    bool Take();
    // Until it has it.
    void Wait();
    // Whoever holds it, as far as it may be seen.
    std::vector<Process> Holders() const;
    // "qvcap-upgrade (process 71)", or what the file says of its last holder, or "another process".
    std::string HoldersText() const;
    // To be handed on to children. Closed when another program is executed, but for these.
    int Descriptor() const { return m_fd; }

  private:
    void Sign() const;

    std::string m_path;
    int m_fd = -1;
};

}  // namespace qvo
