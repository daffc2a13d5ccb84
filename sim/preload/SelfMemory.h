// Accesses this process's own memory as the kernel does: a bad address gives an error and no crash.
// Any thread.
#pragma once

#include "CallerMemory.h"

namespace qvsim::door {

class SelfMemory : public CallerMemory {
  public:
    bool Read(uint64_t address, void* data, uint32_t size) override;
    bool Write(uint64_t address, const void* data, uint32_t size) override;
    std::shared_ptr<CallerMemory> Keep() const override { return std::make_shared<SelfMemory>(); }
};

}  // namespace qvsim::door
