// The state of a channel's running captures. Plain data, covered by the model's lock.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>

namespace qvsim {

struct OpenFile;

// Writes bytes into the frame memory of a request; called without the model's lock. False when that
// memory is not the caller's.
using FrameSink = std::function<bool(uint64_t offset, const void* data, uint32_t size)>;

struct FrameRequest {
    FrameSink sink;
    uint32_t size = 0;
    uint32_t stride = 0;
    uint64_t context = 0;
};

struct FrameCompletion {
    uint32_t number = 0;
    uint64_t context = 0;
    bool complete = false;
};

// A frame in the driver's buffers; its picture is drawn on request.
struct BufferedFrame {
    uint32_t number = 0;  // 0: none yet
    int64_t deviceTime = 0;
};

struct VideoCapture {
    static constexpr uint32_t kBuffers = 64;
    static constexpr size_t kMaxInWork = 64;  // requests, and completions not read yet

    bool running = false;
    uint64_t event = 0;
    const OpenFile* owner = nullptr;
    int64_t nextFrameAt = 0;  // source time
    uint32_t newest = 0;      // frames are numbered from 1 on
    uint32_t lastCaptured = 0;
    std::array<BufferedFrame, kBuffers> buffers{};  // frame n is at n % kBuffers
    std::deque<FrameRequest> waiting;               // for the next frame
    std::deque<FrameRequest> late;            // requested while no capture runs; for the next start
    std::deque<FrameCompletion> completions;  // oldest first
    bool completionRead = false;              // the last remaining one has been read
};

struct AudioCapture {
    static constexpr size_t kBuffers = 16;

    bool running = false;
    const OpenFile* owner = nullptr;
    int64_t nextFrameAt = 0;
    uint32_t newest = 0;
    std::deque<uint32_t> ready;  // numbers, oldest first; a full queue loses its oldest
};

}  // namespace qvsim
