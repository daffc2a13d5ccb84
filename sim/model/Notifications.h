// Notification registrations: an event to signal, and the status bits gathered since the last
// look. Not locked: the model's lock covers it.
#pragma once

#include <cstdint>
#include <map>

#include "EventTable.h"
#include "HandlePool.h"

namespace qvsim {

struct Channel;
struct OpenFile;

class Notifications {
  public:
    uint64_t Register(const Channel* channel, const OpenFile* owner, uint64_t enableBits,
                      uint64_t event);
    // False when the channel has no such registration.
    bool Unregister(const Channel* channel, uint64_t notify);
    // Returns the gathered bits and clears them; false as above.
    bool TakeStatus(const Channel* channel, uint64_t notify, uint64_t& status);
    // Gathers the enabled ones of `bits` on the channel's registrations and signals their events.
    void Raise(const Channel* channel, uint64_t bits, EventTable& events);
    void DropOwner(const OpenFile* owner);
    size_t Count() const { return m_entries.size(); }
    HandlePool& Handles() { return m_handles; }

  private:
    struct Entry {
        const Channel* channel;
        const OpenFile* owner;
        uint64_t enableBits;
        uint64_t event;
        uint64_t status;
    };
    std::map<uint64_t, Entry> m_entries;
    HandlePool m_handles{0x2001};
};

}  // namespace qvsim
