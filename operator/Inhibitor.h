// While it exists, logind blocks a shutdown, and does not only delay it: an orderly power-off does
// not interrupt a flash. libsystemd is loaded if it is installed; without it, or without a system
// bus, the reason is kept for one message. One thread.
#pragma once

#include <string>

namespace qvo {

class Inhibitor {
  public:
    Inhibitor();
    ~Inhibitor();
    Inhibitor(const Inhibitor&) = delete;
    Inhibitor& operator=(const Inhibitor&) = delete;

    bool IsHeld() const { return m_fd >= 0; }
    const std::string& Problem() const { return m_problem; }

  private:
    int m_fd = -1;
    std::string m_problem;
};

}  // namespace qvo
