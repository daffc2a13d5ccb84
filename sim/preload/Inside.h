// A thread inside the door: what the simulation itself calls goes to the kernel, no cancellation
// takes the thread away, and signals whose handlers could ask for the same locks wait until it is
// out, as they wait for a thread that is inside the kernel.
#pragma once

#include <csignal>

namespace qvsim::door {

// The program has a handler of its own for some signal, from now on.
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
    // The mask of the thread outside; null when signals are not held off.
    const sigset_t* OuterMask() const { return m_held ? &m_outer : nullptr; }

  private:
    sigset_t m_outer;
    bool m_held = false;
    int m_cancel = 0;
};

}  // namespace qvsim::door
