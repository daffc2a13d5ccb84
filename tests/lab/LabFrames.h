// Frames as the emulated cameras make them, taken and looked at line by line.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace lab {

// Keeps the length of every frame, its first number, and what is wrong with it.
class Frames {
  public:
    // `stride`: bytes of a line that begins and ends with the frame's number; 0: nothing is looked
    // at but the length.
    explicit Frames(size_t stride = 0) : stride_(stride) {}
    // `look` says what is wrong with a frame, "" when nothing is.
    using Look = std::function<std::string(const std::vector<unsigned char>& frame)>;
    explicit Frames(Look look) : look_(std::move(look)) {}

    static void OnFrame(const unsigned char* frame, unsigned int bytes, void* param) {
        auto* frames = static_cast<Frames*>(param);
        const std::lock_guard lock(frames->mutex_);
        frames->Take(frame, bytes);
        frames->changed_.notify_all();
    }

    // Waits for so many more frames; false when they do not come.
    bool AwaitMore(size_t count) {
        std::unique_lock lock(mutex_);
        const size_t wanted = lengths_.size() + count;
        return changed_.wait_for(lock, std::chrono::seconds(60),
                                 [&] { return lengths_.size() >= wanted; });
    }
    std::vector<unsigned> Lengths() {
        const std::lock_guard lock(mutex_);
        return lengths_;
    }
    std::string Wrong() {
        const std::lock_guard lock(mutex_);
        return wrong_;
    }
    std::vector<unsigned char> Last() {
        const std::lock_guard lock(mutex_);
        return last_;
    }

  private:
    static uint32_t NumberAt(const unsigned char* at) {
        uint32_t number;
        std::memcpy(&number, at, sizeof number);
        return number;
    }
    void Take(const unsigned char* frame, unsigned bytes) {
        lengths_.push_back(bytes);
        last_.assign(frame, frame + bytes);
        if (look_)
            if (const std::string wrong = look_(last_); !wrong.empty()) wrong_ = wrong;
        if (stride_ == 0 || bytes < stride_) return;
        const uint32_t number = NumberAt(frame);
        for (size_t line = 0; line + stride_ <= bytes; line += stride_)
            if (NumberAt(frame + line) != number || NumberAt(frame + line + stride_ - 4) != number)
                wrong_ =
                    "frame " + std::to_string(number) + " is torn at byte " + std::to_string(line);
        // The kernel's camera driver fills buffers on several processors at once, and one may be
        // done before its elder: no further back than there are buffers, and never twice.
        constexpr uint32_t kBuffers = 4;
        const bool late = number + kBuffers <= newest_;
        if (late || std::find(numbers_.begin(), numbers_.end(), number) != numbers_.end())
            wrong_ = std::to_string(number) + " comes behind " + std::to_string(newest_);
        newest_ = std::max(newest_, number);
        numbers_.push_back(number);
    }

    const size_t stride_ = 0;
    const Look look_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<unsigned> lengths_;
    std::vector<uint32_t> numbers_;
    std::vector<unsigned char> last_;
    std::string wrong_;
    uint32_t newest_ = 0;
};

}  // namespace lab
