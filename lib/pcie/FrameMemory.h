// The two frame buffers of a callback video capture, linked without another allocation.
#pragma once

#include <cstdlib>
#include <new>

namespace qv {

struct FrameMemory {
    FrameMemory() = default;
    FrameMemory(const FrameMemory&) = delete;
    FrameMemory& operator=(const FrameMemory&) = delete;
    ~FrameMemory() {
        for (void* buffer : buffers) free(buffer);
    }

    // Null when there is no memory for both.
    static FrameMemory* Allocate(size_t size) {
        auto* memory = new (std::nothrow) FrameMemory;
        if (memory == nullptr) return nullptr;
        for (void*& buffer : memory->buffers) buffer = malloc(size);
        if (memory->buffers[0] != nullptr && memory->buffers[1] != nullptr) return memory;
        delete memory;
        return nullptr;
    }

    void* buffers[2] = {};
    FrameMemory* next = nullptr;
};

}  // namespace qv
