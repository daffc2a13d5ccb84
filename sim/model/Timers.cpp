// Which timers are due, and when the next one is. Keeps no time itself; the model does.
#include "Timers.h"

#include <algorithm>
#include <limits>

#include "Card.h"
#include "Fault.h"

namespace qvsim {

uint64_t Timers::Register(const Channel* channel, const OpenFile* owner, uint64_t event) {
    const uint64_t timer = m_handles.Take();
    m_entries[timer] = {channel, owner, event, std::nullopt};
    return timer;
}

bool Timers::Unregister(const Channel* channel, uint64_t timer) {
    const auto found = m_entries.find(timer);
    if (found == m_entries.end() || found->second.channel != channel) return false;
    m_entries.erase(found);
    m_handles.Give(timer);
    return true;
}

bool Timers::Schedule(const Channel* channel, uint64_t timer, int64_t expiry) {
    const auto found = m_entries.find(timer);
    if (found == m_entries.end() || found->second.channel != channel) return false;
    found->second.expiry = expiry;
    return true;
}

std::optional<int64_t> Timers::Run(int64_t sourceTime, EventTable& events) {
    std::optional<int64_t> next;
    for (auto& [timer, entry] : m_entries) {
        if (!entry.expiry) continue;
        const int64_t now = entry.channel->board->clock.At(sourceTime);
        if (*entry.expiry <= now) {
            entry.expiry.reset();
            events.Signal(kTimerSignal, entry.channel, entry.event);
            continue;
        }
        // The difference of two signed times may not fit; a timer that far away waits long enough.
        const uint64_t away = static_cast<uint64_t>(*entry.expiry) - static_cast<uint64_t>(now);
        constexpr uint64_t kFar = std::numeric_limits<int64_t>::max() / 2;
        const auto distance = static_cast<int64_t>(std::min(away, kFar));
        next = next ? std::min(*next, distance) : distance;
    }
    return next;
}

void Timers::DropOwner(const OpenFile* owner) {
    std::erase_if(m_entries, [&](const auto& item) {
        if (item.second.owner != owner) return false;
        m_handles.Give(item.first);
        return true;
    });
}

}  // namespace qvsim
