// A thread inside the door: the simulation's own calls go to the kernel, the thread cannot be
// cancelled, and signals whose handlers could take the same locks are blocked until it leaves, as
// for a thread inside the kernel.
#pragma once

#include <csignal>

namespace qvsim::door {

// From now on the program has its own handler for some signal.
void NoteHandler();
bool HasHandlers();

class Inside {
  public:
    Inside();
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

    // What the calling thread is in, if anything.
    static bool Is();
    // The thread's mask outside of the door; null when signals are not blocked.
    const sigset_t* OuterMask() const { return m_held ? &m_outer : nullptr; }

  private:
    sigset_t m_outer;
    bool m_held = false;
    int m_cancel = 0;
};

}  // namespace qvsim::door
