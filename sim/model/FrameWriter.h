// The thread that writes pictures into callers' memory, for all channels, in the order of requests.
//
// It draws without the model's lock, so that no request waits for a picture. Call every function
// with that lock held. After Cancel() has returned nothing more is written for the channel.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "Capture.h"
#include "EventTable.h"

namespace qvsim {

struct Channel;

class FrameWriter {
  public:
    using Lock = EventTable::Lock;
    // Called on the writer's thread with the lock held, when a picture is in memory or could
    // not be put there.
    using Done = std::function<void(Channel&, const FrameCompletion&)>;

    FrameWriter(std::mutex& mutex, Done done) : m_mutex(mutex), m_done(std::move(done)) {}
    ~FrameWriter() { Stop(); }

    void Add(Channel& channel, FrameRequest request, uint32_t number);
    void Cancel(Lock& lock, const Channel& channel);
    // Pictures of the channel that are not done: queued, or being drawn.
    size_t InWork(const Channel& channel) const;
    // In a child after fork(): the thread and the callers' memory are the parent's.
    void BeginInChild();
    // Called without the lock: ends the thread; queued pictures stay unwritten.
    void Stop();

  private:
    struct Job {
        Channel* channel;
        FrameRequest request;
        uint32_t number;
    };
    void Work();

    std::mutex& m_mutex;
    Done m_done;
    std::deque<Job> m_jobs;
    const Channel* m_drawing = nullptr;
    bool m_cancelled = false;  // the current picture is no longer wanted
    bool m_stopping = false;
    std::condition_variable m_changed;
    std::thread m_thread;
};

// Runs `body` on a new thread that receives none of the process's signals.
std::thread QuietThread(std::function<void()> body);

}  // namespace qvsim
