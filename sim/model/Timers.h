// Driver timers: each signals its event once, at its expiry, or at once if that has passed.
// Expiries are device-clock times of the timer's own board. Not locked: the model's lock covers it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "EventTable.h"
#include "HandlePool.h"

namespace qvsim {

struct Channel;
struct OpenFile;

class Timers {
  public:
    uint64_t Register(const Channel* channel, const OpenFile* owner, uint64_t event);
    // Both are false when the channel has no such timer.
    bool Unregister(const Channel* channel, uint64_t timer);
    bool Schedule(const Channel* channel, uint64_t timer, int64_t expiry);

    // Signals the timers that are due. `sourceTime` is the model's time; returns the clock units
    // from it to the next expiry, nothing when no timer is scheduled.
    std::optional<int64_t> Run(int64_t sourceTime, EventTable& events);
    void DropOwner(const OpenFile* owner);
    size_t Count() const { return m_entries.size(); }
    HandlePool& Handles() { return m_handles; }

  private:
    struct Entry {
        const Channel* channel;
        const OpenFile* owner;
        uint64_t event;
        std::optional<int64_t> expiry;
    };
    std::map<uint64_t, Entry> m_entries;
    HandlePool m_handles{0x3001};
};

}  // namespace qvsim
