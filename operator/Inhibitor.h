// While it lives, logind delays no shutdown for a moment only but blocks it: a flash is not cut by
// an orderly power-off. libsystemd is loaded when there is one; without it, or without a system
// bus, the reason is kept for one word about it. One thread.
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
