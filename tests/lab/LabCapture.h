// Sound as the emulated devices make it, taken chunk by chunk and looked at sample by sample.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

namespace lab {

constexpr std::chrono::seconds kPatience{60};

class Chunks {
  public:
    static void OnChunk(const unsigned char* data, int bytes, long long reserved, void* param) {
        auto* chunks = static_cast<Chunks*>(param);
        const std::lock_guard lock(chunks->mutex_);
        if (reserved != 0) chunks->reserved_ = true;
        if (chunks->all_.size() < kMost) chunks->all_.emplace_back(data, data + bytes);
        ++chunks->count_;
        chunks->changed_.notify_all();
    }

    // Waits for so many more chunks; false when they do not come.
    bool AwaitMore(size_t count) {
        std::unique_lock lock(mutex_);
        const size_t wanted = count_ + count;
        return changed_.wait_for(lock, kPatience, [&] { return count_ >= wanted; });
    }
    std::vector<std::vector<unsigned char>> Take() {
        const std::lock_guard lock(mutex_);
        return std::move(all_);
    }
    bool Reserved() const { return reserved_; }

  private:
    static constexpr size_t kMost = 1000;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::vector<unsigned char>> all_;
    size_t count_ = 0;
    bool reserved_ = false;
};

// Samples of a chunk as 16 bits; of 32-bit ones the upper halves.
inline std::vector<int> Samples(const std::vector<unsigned char>& chunk, size_t sampleBytes) {
    std::vector<int> samples;
    for (size_t at = 0; at + sampleBytes <= chunk.size(); at += sampleBytes) {
        int16_t sample;
        std::memcpy(&sample, chunk.data() + at + sampleBytes - 2, sizeof sample);
        samples.push_back(sample);
    }
    return samples;
}

}  // namespace lab
