// Tells that nothing has come from a driver for some time: a request that hangs cannot be taken
// back, and a program that waits for it without a word seems to sleep. Has a thread of its own,
// which ends with the object. The words for the user are the caller's, or on standard error.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace qvo {

inline constexpr int kPatience = 10;  // seconds until a command that only reads tells of a hang

class StallWatch {
  public:
    // The seconds for which nothing has come. Called by the object's thread.
    using Tell = std::function<void(int seconds)>;

    // Tells again each time that so many more seconds are over.
    StallWatch(int seconds, Tell tell);
    ~StallWatch();
    StallWatch(const StallWatch&) = delete;
    StallWatch& operator=(const StallWatch&) = delete;

    // Something has come. Any thread.
    void Progress() { m_last = Now(); }

  private:
    // Milliseconds, which begin anew after some weeks: only differences mean something. Processors
    // of 32 bits, too, read and write them in one piece.
    static uint32_t Now();
    void Run();

    const uint32_t m_seconds;
    const Tell m_tell;
    std::atomic<uint32_t> m_last = Now();
    std::mutex m_mutex;
    std::condition_variable m_woken;
    bool m_over = false;
    std::thread m_thread;
};

// Writes a line to standard error; `who` begins it and may hold any bytes.
StallWatch::Tell TellOnErrors(const std::string& who);

}  // namespace qvo
