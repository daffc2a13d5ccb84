#include "EventTable.h"

#include <cerrno>
#include <chrono>

namespace qvsim {

uint64_t EventTable::Create(const void* owner) {
    const uint64_t event = handles_.Take();
    events_[event] = {owner, false};
    return event;
}

void EventTable::DropOwner(const void* owner) {
    std::erase_if(events_, [&](const auto& item) {
        if (item.second.owner != owner) return false;
        handles_.Give(item.first);
        return true;
    });
    Changed(kAnyEvent);
}

Answer EventTable::Close(uint64_t event) {
    if (events_.erase(event) == 0) return Refused(EINVAL);
    handles_.Give(event);
    Changed(event);
    return Ok();
}

Answer EventTable::Set(uint64_t event) {
    const auto found = events_.find(event);
    if (found == events_.end()) return Refused(EINVAL);
    found->second.set = true;
    Changed(event);
    return Ok();
}

Answer EventTable::Clear(uint64_t event) {
    const auto found = events_.find(event);
    if (found == events_.end()) return Refused(EINVAL);
    found->second.set = false;
    return Ok();
}

Answer EventTable::IsSet(uint64_t event) const {
    const auto found = events_.find(event);
    if (found == events_.end()) return Refused(EINVAL);
    return Ok(found->second.set ? 1 : 0);
}

Answer EventTable::TryWait(uint64_t event) {
    const auto found = events_.find(event);
    if (found == events_.end()) return Refused(EINVAL);
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
    changed_.notify_all();
    if (listener_) listener_(event);
}

Answer EventTable::Poll(const std::vector<uint64_t>& events) const {
    int set = 0;
    for (const uint64_t event : events) {
        const auto found = events_.find(event);
        if (found == events_.end()) return Refused(EINVAL);
        if (found->second.set) ++set;
    }
    return Ok(set);
}

Answer EventTable::WaitSeveral(Lock& lock, const std::vector<uint64_t>& events, int timeout) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout);
    Answer answer = shutDown_ ? Refused(ENODEV) : Poll(events);
    while (answer.value == 0) {
        if (timeout < 0) {
            changed_.wait(lock);
        } else if (timeout == 0 || changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
            if (!shutDown_) answer = Poll(events);
            break;
        }
        answer = shutDown_ ? Refused(ENODEV) : Poll(events);
    }
    return shutDown_ ? Refused(ENODEV) : answer;
}

void EventTable::ShutDown() {
    shutDown_ = true;
    Changed(kAnyEvent);
}

}  // namespace qvsim
