// Setting, clearing and waiting for events. Knows nothing of what sets them.
#include "EventTable.h"

#include <cerrno>
#include <chrono>

namespace qvsim {

uint64_t EventTable::Create(const void* owner) {
    const uint64_t event = m_handles.Take();
    m_events[event] = {owner, false};
    return event;
}

void EventTable::DropOwner(const void* owner) {
    std::erase_if(m_events, [&](const auto& item) {
        if (item.second.owner != owner) return false;
        m_handles.Give(item.first);
        return true;
    });
    Changed(kAnyEvent);
}

Answer EventTable::Close(uint64_t event) {
    if (m_events.erase(event) == 0) return Refused(EINVAL);
    m_handles.Give(event);
    Changed(event);
    return Ok();
}

Answer EventTable::Set(uint64_t event) {
    const auto found = m_events.find(event);
    if (found == m_events.end()) return Refused(EINVAL);
    found->second.set = true;
    Changed(event);
    return Ok();
}

Answer EventTable::Clear(uint64_t event) {
    const auto found = m_events.find(event);
    if (found == m_events.end()) return Refused(EINVAL);
    found->second.set = false;
    return Ok();
}

Answer EventTable::IsSet(uint64_t event) const {
    const auto found = m_events.find(event);
    if (found == m_events.end()) return Refused(EINVAL);
    return Ok(found->second.set ? 1 : 0);
}

Answer EventTable::TryWait(uint64_t event) {
    const auto found = m_events.find(event);
    if (found == m_events.end()) return Refused(EINVAL);
    const bool wasSet = found->second.set;
    found->second.set = false;
    return Ok(wasSet ? 1 : 0);
}

Answer EventTable::Wait(Lock& lock, uint64_t event, int timeout) {
    // Between the wake-up and TryWait the lock is held, so nobody else takes the signal.
    const Answer answer = WaitSeveral(lock, {event}, timeout);
    return answer.value >= 1 ? TryWait(event) : answer;
}

void EventTable::Changed(uint64_t event) {
    m_changed.notify_all();
    if (m_listener) m_listener(event);
}

Answer EventTable::Poll(const std::vector<uint64_t>& events) const {
    int set = 0;
    for (const uint64_t event : events) {
        const auto found = m_events.find(event);
        if (found == m_events.end()) return Refused(EINVAL);
        if (found->second.set) ++set;
    }
    return Ok(set);
}

Answer EventTable::WaitSeveral(Lock& lock, const std::vector<uint64_t>& events, int timeout) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout);
    Answer answer = m_shutDown ? Refused(ENODEV) : Poll(events);
    while (answer.value == 0) {
        if (timeout < 0) {
            m_changed.wait(lock);
        } else if (timeout == 0 ||
                   m_changed.wait_until(lock, deadline) == std::cv_status::timeout) {
            if (!m_shutDown) answer = Poll(events);
            break;
        }
        answer = m_shutDown ? Refused(ENODEV) : Poll(events);
    }
    return m_shutDown ? Refused(ENODEV) : answer;
}

void EventTable::ShutDown() {
    m_shutDown = true;
    Changed(kAnyEvent);
}

}  // namespace qvsim
