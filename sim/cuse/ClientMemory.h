// The memory of a process that waits in a request on a served node, accessed through the kernel.
//
// Needs root. Thread rule: as in CallerMemory; the result of Keep() works from any thread, even
// after the thread that made the request has ended, and writes nothing once the process is gone.
#pragma once

#include <sys/types.h>

#include "CallerMemory.h"

namespace qvsim {

// Whether the process of this thread has been killed, or has ended.
bool IsEnding(pid_t thread);

class ClientMemory : public CallerMemory {
  public:
    // `thread` is the thread that waits in the request.
    explicit ClientMemory(pid_t thread) : m_thread(thread) {}
    bool Read(uint64_t address, void* data, uint32_t size) override;
    bool Write(uint64_t address, const void* data, uint32_t size) override;
    std::shared_ptr<CallerMemory> Keep() const override;

  private:
    pid_t m_thread;
};

}  // namespace qvsim
