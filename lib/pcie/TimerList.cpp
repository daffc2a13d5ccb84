// Timer callbacks of the channel worker.
#include "TimerList.h"

#include <functional>
#include <limits>

#include "QVCaptureBase.h"

namespace qv {

long long LaterTime(long long time, long long by) {
    long long sum = 0;
    if (!__builtin_add_overflow(time, by, &sum)) return sum;
    return by > 0 ? std::numeric_limits<long long>::max() : std::numeric_limits<long long>::min();
}

int TimerList::Insert(_QVCAP_TIMER* timer) {
    _QVCAP_TIMER** link = &m_first;
    while (*link != nullptr && std::less<>()(*link, timer)) link = &(*link)->next;
    timer->next = *link;
    *link = timer;
    const int result = ResetDriverTimer();
    if (result != 0) {
        Unlink(timer);
        ServeTheOthers();
    }
    return result;
}

int TimerList::Destroy(unsigned long long handle) {
    _QVCAP_TIMER* timer = m_first;
    while (timer != nullptr && timer->handle != handle) timer = timer->next;
    if (timer == nullptr) return -1;
    Unlink(timer);
    m_scope->Retire(timer);
    const int result = ResetDriverTimer();
    if (result != 0) ServeTheOthers();
    return result;
}

void TimerList::Unlink(const _QVCAP_TIMER* timer) {
    _QVCAP_TIMER** link = &m_first;
    while (*link != timer) link = &(*link)->next;
    *link = timer->next;
}

int TimerList::ResetDriverTimer() {
    if (m_driverTimer == 0)
        m_event.Open(m_scope);
    else
        m_scope->channel->UnregisterTimer(m_driverTimer);
    m_driverTimer = m_scope->channel->RegisterTimer(m_event.Handle());
    if (m_driverTimer == 0) {
        m_event.Close(*m_scope);
        return -1;
    }
    if (!ScheduleFirst()) return -1;
    m_unserved = false;
    return 0;
}

bool TimerList::ScheduleFirst() {
    return m_first != nullptr &&
           m_scope->channel->ScheduleTimer(m_driverTimer, m_first->expiry) == QV_RESULT_OK;
}

// The driver timer was unregistered for a change that the driver then refused: the remaining timers
// must still fire. Tried again in every pass until the driver accepts it.
void TimerList::ServeTheOthers() {
    m_unserved = m_first != nullptr;
    if (m_unserved) ResetDriverTimer();
}

void TimerList::AddEvents(WaitSet* set) {
    if (m_unserved) ServeTheOthers();
    if (m_unserved) set->ComeBackSoon();
    set->Add(this, m_event.Handle(), m_event.Serial());
}

// The scan stops at the first timer that is not due yet. Callbacks may create and destroy timers:
// the walk covers those that were due when it began and still exist.
void TimerList::OnSignal(uint64_t serial) {
    long long now = 0;
    if (serial != m_event.Serial()) return;
    if (m_scope->channel->GetDeviceTime(&now) != QV_RESULT_OK) return;
    MarkDue(now);
    while (_QVCAP_TIMER* const timer = NextDue()) {
        if (m_scope->ending) return;
        timer->due = false;
        Fire(timer, now);
    }
    ScheduleFirst();
}

void TimerList::MarkDue(long long now) {
    _QVCAP_TIMER* timer = m_first;
    for (; timer != nullptr && timer->expiry <= now; timer = timer->next) timer->due = true;
    for (; timer != nullptr; timer = timer->next) timer->due = false;
}

_QVCAP_TIMER* TimerList::NextDue() {
    _QVCAP_TIMER* timer = m_first;
    while (timer != nullptr && !timer->due) timer = timer->next;
    return timer;
}

// A one-shot timer is removed before its callback is called; a periodic one may be gone after it.
void TimerList::Fire(_QVCAP_TIMER* timer, long long now) {
    const bool once = timer->period <= 0;
    if (once)
        Unlink(timer);
    else
        timer->expiry = LaterTime(now, timer->period);  // missed calls are not made up for
    m_scope->CallBack([this, timer, once] {
        if (timer->callback != nullptr) timer->callback(timer->handle, timer->param.Value());
        if (once) m_scope->Retire(timer);
    });
}

void TimerList::Clear() {
    while (m_first != nullptr) {
        _QVCAP_TIMER* const timer = m_first;
        m_first = timer->next;
        m_scope->Retire(timer);
    }
    if (m_driverTimer != 0) m_scope->channel->UnregisterTimer(m_driverTimer);
    m_driverTimer = 0;
    m_event.Close(*m_scope);
}

}  // namespace qv
