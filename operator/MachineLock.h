// Allows one upgrade at a time on a machine: an open-file-description lock on a file that is never
// removed.
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
    // Opens the file, and creates it if it is missing; a Mistake when that fails, or when it holds
    // anything but what a lock file holds.
    explicit MachineLock(const std::string& path);
    ~MachineLock();
    MachineLock(const MachineLock&) = delete;
    MachineLock& operator=(const MachineLock&) = delete;

    // False when somebody else has it.
    bool Take();
    // Waits until it has the lock.
    void Wait();
    // The holders, as far as this process may see them.
    std::vector<Process> Holders() const;
    // "qvcap-upgrade (process 71)", or what the file says about its last holder, or "another
    // process".
    std::string HoldersText() const;
    // For children to inherit. Every other program that is executed gets it closed.
    int Descriptor() const { return m_fd; }

  private:
    void ExpectLockFile() const;
    void Sign() const;

    std::string m_path;
    int m_fd = -1;
};

}  // namespace qvo
