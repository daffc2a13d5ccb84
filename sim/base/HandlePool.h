// Allocates the handles of one kind. By default no handle is used twice; a driver that reuses them
// takes the one that was freed last, like an allocator. Not locked: the model's lock covers it.
#pragma once

#include <cstdint>
#include <vector>

namespace qvsim {

class HandlePool {
  public:
    explicit HandlePool(uint64_t first) : m_next(first) {}
    void UseAgain(bool again) { m_again = again; }

    uint64_t Take() {
        if (m_freed.empty()) return m_next++;
        const uint64_t handle = m_freed.back();
        m_freed.pop_back();
        return handle;
    }
    void Give(uint64_t handle) {
        if (m_again) m_freed.push_back(handle);
    }

  private:
    uint64_t m_next;
    bool m_again = false;
    std::vector<uint64_t> m_freed;
};

}  // namespace qvsim
