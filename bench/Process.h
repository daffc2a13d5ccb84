// Runs a program over simulated cards and measures the process as a whole.
#pragma once

#include <string>
#include <vector>

namespace qvbench {

struct Usage {
    int status = -1;
    double cpuSeconds = 0;  // user and system
    double wallSeconds = 0;
    long peakKiB = 0;  // largest resident size
};

// Runs under the preload door over the cards in `state`, or without the door when that is empty, in
// folder `dir`, with nothing on standard input and its output discarded. PATH is empty, so it can
// start no other program.
Usage Run(const std::string& state, const std::string& dir,
          const std::vector<std::string>& command);

// A folder under the system's temporary one, removed at the end.
class Folder {
  public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::string& Path() const { return m_path; }

  private:
    std::string m_path;
};

}  // namespace qvbench
