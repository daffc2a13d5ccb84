// The driver's events: auto-reset, process-wide, named by handles; see HandlePool for their reuse.
//
// A successful wait or try-wait consumes the signal; a wait for several events consumes nothing, it
// only reports that at least one is set. Closing an event wakes its waiters with EINVAL. Call every
// operation with the model's lock held; the waits release it while they sleep. A caller that must
// not sleep waits with a time-out of 0, and again after each change that its listener reports.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "HandlePool.h"

namespace qvsim {

struct Channel;

// The answer of a request: a value of 0 or more, or an error.
struct Answer {
    int value = 0;
    int error = 0;  // errno, 0: none
};

inline Answer Ok(int value = 0) { return {value, 0}; }
inline Answer Refused(int error) { return {-1, error}; }

class EventTable {
  public:
    using Lock = std::unique_lock<std::mutex>;

    // `owner` only names its creator, for DropOwner().
    uint64_t Create(const void* owner);
    void DropOwner(const void* owner);
    Answer Close(uint64_t event);
    Answer Set(uint64_t event);
    Answer Clear(uint64_t event);
    // Sets an event from the driver's side; `signal` and `channel` name the occasion, for the veto.
    // An event that was closed meanwhile has no waiters.
    void Signal(const char* signal, const Channel* channel, uint64_t event) {
        if (!m_veto || !m_veto(signal, channel)) Set(event);
    }
    Answer IsSet(uint64_t event) const;  // 1 or 0
    Answer TryWait(uint64_t event);      // 1 when it was set; it no longer is
    // 1 when it was set, 0 when `timeout` milliseconds passed, -1 waits for ever.
    Answer Wait(Lock& lock, uint64_t event, int timeout);
    // The number of set events, 0 after the time-out.
    Answer WaitSeveral(Lock& lock, const std::vector<uint64_t>& events, int timeout);

    bool Exists(uint64_t event) const { return m_events.count(event) != 0; }
    size_t Count() const { return m_events.size(); }

    // Wakes every waiter with ENODEV, now and in future.
    void ShutDown();
    // Called with the lock held after every change that can end a wait, with the changed event or
    // kAnyEvent; must not block.
    static constexpr uint64_t kAnyEvent = 0;
    void Listen(std::function<void(uint64_t)> listener) { m_listener = std::move(listener); }
    // Called before each signal, with the lock held; true means that the signal is lost.
    using Veto = std::function<bool(const char* signal, const Channel* channel)>;
    void SetVeto(Veto veto) { m_veto = std::move(veto); }
    HandlePool& Handles() { return m_handles; }
    // In a child after fork(): the waiters are in the parent.
    void BeginInChild() { new (&m_changed) std::condition_variable; }

  private:
    Answer Poll(const std::vector<uint64_t>& events) const;
    void Changed(uint64_t event);

    struct Event {
        const void* owner;
        bool set;
    };
    std::map<uint64_t, Event> m_events;
    HandlePool m_handles{0x1001};
    std::condition_variable m_changed;
    std::function<void(uint64_t)> m_listener;
    Veto m_veto;
    bool m_shutDown = false;
};

}  // namespace qvsim
