// While it lives, logind delays no shutdown for a moment only but blocks it: a flash is not cut by
// an orderly power-off. libsystemd is loaded when there is one; without it, or without a system bus,
// the reason is kept for one word about it. One thread.
#pragma once

#include <string>

namespace qvo {

class Inhibitor {
  public:
    Inhibitor();
    ~Inhibitor();
    Inhibitor(const Inhibitor&) = delete;
    Inhibitor& operator=(const Inhibitor&) = delete;

    bool IsHeld() const { return fd_ >= 0; }
    const std::string& Problem() const { return problem_; }

  private:
    int fd_ = -1;
    std::string problem_;
};

}  // namespace qvo
