// Which registrations a status change reaches. Decides no change itself.
#include "Notifications.h"

#include "Fault.h"

namespace qvsim {

uint64_t Notifications::Register(const Channel* channel, const OpenFile* owner, uint64_t enableBits,
                                 uint64_t event) {
    const uint64_t notify = m_handles.Take();
    m_entries[notify] = {channel, owner, enableBits, event, 0};
    return notify;
}

bool Notifications::Unregister(const Channel* channel, uint64_t notify) {
    const auto found = m_entries.find(notify);
    if (found == m_entries.end() || found->second.channel != channel) return false;
    m_entries.erase(found);
    m_handles.Give(notify);
    return true;
}

bool Notifications::TakeStatus(const Channel* channel, uint64_t notify, uint64_t& status) {
    const auto found = m_entries.find(notify);
    if (found == m_entries.end() || found->second.channel != channel) return false;
    status = found->second.status;
    found->second.status = 0;
    return true;
}

void Notifications::Raise(const Channel* channel, uint64_t bits, EventTable& events) {
    for (auto& [notify, entry] : m_entries) {
        if (entry.channel != channel || (entry.enableBits & bits) == 0) continue;
        entry.status |= entry.enableBits & bits;
        events.Signal(kNotifySignal, channel, entry.event);
    }
}

void Notifications::DropOwner(const OpenFile* owner) {
    std::erase_if(m_entries, [&](const auto& item) {
        if (item.second.owner != owner) return false;
        m_handles.Give(item.first);
        return true;
    });
}

}  // namespace qvsim
