// Sound as the emulated devices make it, taken chunk by chunk and looked at sample by sample.
//
// Not a Recorder: a capture may run for minutes, so after the first thousand chunks it only counts.
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
        const std::lock_guard lock(chunks->m_mutex);
        if (reserved != 0) chunks->m_reserved = true;
        if (chunks->m_all.size() < kMost) chunks->m_all.emplace_back(data, data + bytes);
        ++chunks->m_count;
        chunks->m_changed.notify_all();
    }

    // Waits for so many more chunks; false when they do not come.
    bool AwaitMore(size_t count) {
        std::unique_lock lock(m_mutex);
        const size_t wanted = m_count + count;
        return m_changed.wait_for(lock, kPatience, [&] { return m_count >= wanted; });
    }
    std::vector<std::vector<unsigned char>> Take() {
        const std::lock_guard lock(m_mutex);
        return std::move(m_all);
    }
    bool Reserved() const { return m_reserved; }

  private:
    static constexpr size_t kMost = 1000;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::vector<unsigned char>> m_all;
    size_t m_count = 0;
    bool m_reserved = false;
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
