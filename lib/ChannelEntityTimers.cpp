// Timer callbacks of the worker: all of a channel's timers on one driver timer.
#include <algorithm>
#include <limits>
#include <new>

#include "ChannelEntity.h"
#include "ChannelEntityPost.h"
#include "QVCaptureBase.h"

namespace {

// A caller's delay or period may be anything; a sum beyond the clock's range stays at its end.
long long Later(long long time, long long by) {
    long long sum = 0;
    if (!__builtin_add_overflow(time, by, &sum)) return sum;
    return by > 0 ? std::numeric_limits<long long>::max() : std::numeric_limits<long long>::min();
}

}  // namespace

int ChannelEntity::CreateTimer(QV_TIMER_CALLBACK callback, long long delay, long long period,
                               unsigned long long& handle) {
    long long now = 0;
    if (m_owner->GetDeviceTime(&now) != QV_RESULT_OK) return -1;
    auto* timer =
        new (std::nothrow) _QVCAP_TIMER{callback, delay, period, Later(now, delay), nullptr, 0};
    if (timer == nullptr) return -1;
    const unsigned long long made = qv::HandleOf(timer);
    int result = -1;
    Post(&ChannelEntity::DoCreateTimer, timer, &result);
    if (result == 0)
        handle = made;
    else
        delete timer;
    return result;
}

int ChannelEntity::DestroyTimer(unsigned long long handle) {
    int result = -1;
    Post(&ChannelEntity::DoDestroyTimer, handle, &result);
    return result;
}

void ChannelEntity::DoCreateTimer(_QVCAP_TIMER* timer, int* result) {
    timer->serial = ++m_timerSerial;
    m_timers.push_back(timer);
    *result = ResetTimerEvent();
    if (*result != 0) m_timers.remove(timer);  // its creator frees it
}

void ChannelEntity::DoDestroyTimer(unsigned long long handle, int* result) {
    const auto found =
        std::find_if(m_timers.begin(), m_timers.end(),
                     [handle](const _QVCAP_TIMER* timer) { return qv::HandleOf(timer) == handle; });
    if (found == m_timers.end()) {
        *result = -1;
        return;
    }
    delete *found;
    m_timers.erase(found);
    *result = ResetTimerEvent();  // Deliberate: -1 when that was the last timer
}

int ChannelEntity::ResetTimerEvent() {
    if (m_driverTimer == 0)
        m_timerEvent = m_events.Create();
    else
        m_owner->UnregisterTimer(m_driverTimer);
    m_driverTimer = m_owner->RegisterTimer(m_timerEvent);
    if (m_driverTimer == 0) {
        m_events.Close(m_timerEvent);
        m_timerEvent = 0;
        return -1;
    }
    return ScheduleFirstTimer() ? 0 : -1;
}

// Deliberate: the first timer is the one at the lowest address, not the one due first. See
// docs/decisions.md, "Order of timers".
bool ChannelEntity::ScheduleFirstTimer() {
    m_timers.sort(std::less<>());
    return !m_timers.empty() &&
           m_owner->ScheduleTimer(m_driverTimer, m_timers.front()->expiry) == QV_RESULT_OK;
}

// Walks what the list held when the walk began: callbacks may create and destroy timers meanwhile.
void ChannelEntity::OnTimer() {
    long long now = 0;
    if (m_owner->GetDeviceTime(&now) != QV_RESULT_OK) return;
    m_timersInWalk.clear();
    for (_QVCAP_TIMER* timer : m_timers) {
        if (timer->expiry > now) break;
        m_timersInWalk.push_back({timer, timer->serial});
    }
    for (const TimerInWalk& due : m_timersInWalk) {
        if (m_closeOwner) return;
        const bool stillThere =
            std::any_of(m_timers.begin(), m_timers.end(), [&due](const _QVCAP_TIMER* timer) {
                return timer == due.timer && timer->serial == due.serial;
            });
        if (stillThere) Fire(due.timer, now);
    }
    ScheduleFirstTimer();
}

void ChannelEntity::Fire(_QVCAP_TIMER* timer, long long now) {
    const QV_TIMER_CALLBACK callback = timer->callback;
    const unsigned long long handle = qv::HandleOf(timer);
    void* const param = timer->param;
    const bool once = timer->period <= 0;
    if (once)
        m_timers.remove(timer);
    else
        timer->expiry = Later(now, timer->period);  // from now: late calls are not caught up with
    // A periodic timer's record may be gone when the callback returns; a single one's is still
    // ours.
    if (callback != nullptr) callback(handle, param);
    if (once) delete timer;
}

void ChannelEntity::ClearTimer() {
    for (_QVCAP_TIMER* timer : m_timers) delete timer;
    m_timers.clear();
    if (m_driverTimer != 0) m_owner->UnregisterTimer(m_driverTimer);
    m_driverTimer = 0;
    m_events.Close(m_timerEvent);
    m_timerEvent = 0;
}
