// The memory of the caller of a request. A door knows how to reach it; the protocol does not.
// Thread rule: that of the door; the class for this process works from any thread.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

namespace qvsim {

class CallerMemory {
  public:
    virtual ~CallerMemory() = default;
    // False when the range is not the caller's: the request then fails with EFAULT.
    virtual bool Read(uint64_t address, void* data, uint32_t size) = 0;
    virtual bool Write(uint64_t address, const void* data, uint32_t size) = 0;
    // The same memory for as long as a pending request needs it; usable from any thread. Null when
    // it cannot be kept: the request then fails with ENOMEM.
    virtual std::shared_ptr<CallerMemory> Keep() const = 0;
};

// The caller is this process. Only null is known to be wrong; any other bad address faults here as
// it would in the caller.
class OwnMemory : public CallerMemory {
  public:
    bool Read(uint64_t address, void* data, uint32_t size) override {
        if (!Valid(address)) return false;
        std::memcpy(data, reinterpret_cast<const void*>(static_cast<uintptr_t>(address)), size);
        return true;
    }
    bool Write(uint64_t address, const void* data, uint32_t size) override {
        if (!Valid(address)) return false;
        std::memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(address)), data, size);
        return true;
    }
    std::shared_ptr<CallerMemory> Keep() const override { return std::make_shared<OwnMemory>(); }

  private:
    static bool Valid(uint64_t address) { return address != 0 && address <= UINTPTR_MAX; }
};

}  // namespace qvsim
