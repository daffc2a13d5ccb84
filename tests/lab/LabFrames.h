// Frames as the emulated cameras make them, taken and looked at line by line.
//
// Not a Recorder: frames are too large to keep, so each is judged when it comes and only the last
// one stays.
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
    explicit Frames(size_t stride = 0) : m_stride(stride) {}
    // `look` says what is wrong with a frame, "" when nothing is.
    using Look = std::function<std::string(const std::vector<unsigned char>& frame)>;
    explicit Frames(Look look) : m_look(std::move(look)) {}

    static void OnFrame(const unsigned char* frame, unsigned int bytes, void* param) {
        auto* frames = static_cast<Frames*>(param);
        const std::lock_guard lock(frames->m_mutex);
        frames->Take(frame, bytes);
        frames->m_changed.notify_all();
    }

    // Waits for so many more frames; false when they do not come.
    bool AwaitMore(size_t count) {
        std::unique_lock lock(m_mutex);
        const size_t wanted = m_lengths.size() + count;
        return m_changed.wait_for(lock, std::chrono::seconds(60),
                                  [&] { return m_lengths.size() >= wanted; });
    }
    std::vector<unsigned> Lengths() {
        const std::lock_guard lock(m_mutex);
        return m_lengths;
    }
    std::string Wrong() {
        const std::lock_guard lock(m_mutex);
        return m_wrong;
    }
    std::vector<unsigned char> Last() {
        const std::lock_guard lock(m_mutex);
        return m_last;
    }

  private:
    static uint32_t NumberAt(const unsigned char* at) {
        uint32_t number;
        std::memcpy(&number, at, sizeof number);
        return number;
    }
    void Take(const unsigned char* frame, unsigned bytes) {
        m_lengths.push_back(bytes);
        m_last.assign(frame, frame + bytes);
        if (m_look)
            if (const std::string wrong = m_look(m_last); !wrong.empty()) m_wrong = wrong;
        if (m_stride == 0 || bytes < m_stride) return;
        const uint32_t number = NumberAt(frame);
        for (size_t line = 0; line + m_stride <= bytes; line += m_stride)
            if (NumberAt(frame + line) != number || NumberAt(frame + line + m_stride - 4) != number)
                m_wrong =
                    "frame " + std::to_string(number) + " is torn at byte " + std::to_string(line);
        // The kernel's camera driver fills buffers on several processors at once, and one may be
        // done before its elder: no further back than there are buffers, and never twice.
        constexpr uint32_t kBuffers = 4;
        const bool late = number + kBuffers <= m_newest;
        if (late || std::find(m_numbers.begin(), m_numbers.end(), number) != m_numbers.end())
            m_wrong = std::to_string(number) + " comes behind " + std::to_string(m_newest);
        m_newest = std::max(m_newest, number);
        m_numbers.push_back(number);
    }

    const size_t m_stride = 0;
    const Look m_look;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<unsigned> m_lengths;
    std::vector<uint32_t> m_numbers;
    std::vector<unsigned char> m_last;
    std::string m_wrong;
    uint32_t m_newest = 0;
};

}  // namespace lab
