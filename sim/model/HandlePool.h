// Where the handles of one sort come from. By default none is given twice; a driver that uses them
// again gives the one that was freed last, as an allocator does. Not locked: the model's lock
// covers it.
#pragma once

#include <cstdint>
#include <vector>

namespace qvsim {

class HandlePool {
  public:
    explicit HandlePool(uint64_t first) : next_(first) {}
    void UseAgain(bool again) { again_ = again; }

    uint64_t Take() {
        if (freed_.empty()) return next_++;
        const uint64_t handle = freed_.back();
        freed_.pop_back();
        return handle;
    }
    void Give(uint64_t handle) {
        if (again_) freed_.push_back(handle);
    }

  private:
    uint64_t next_;
    bool again_ = false;
    std::vector<uint64_t> freed_;
};

}  // namespace qvsim
