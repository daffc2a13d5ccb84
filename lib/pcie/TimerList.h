// The channel worker's timers: all of a channel's timers on one driver timer and one event.
//
// Worker thread only.
#pragma once

#include "EventSource.h"

// One timer.
struct _QVCAP_TIMER final : qv::CallbackRecord {
    using CallbackRecord::CallbackRecord;
    unsigned long long handle = 0;  // its address, or a value that is never used again
    QV_TIMER_CALLBACK callback = nullptr;
    long long delay = 0;   // device-clock units
    long long period = 0;  // device-clock units; 0 or less fires once
    long long expiry = 0;  // device time
    bool due = false;      // in the current walk
    _QVCAP_TIMER* next = nullptr;
};

namespace qv {

// A caller's delay or period may be anything; a sum beyond the clock's range is limited to its end.
long long LaterTime(long long time, long long by);

class TimerList final : public EventSource {
  public:
    explicit TimerList(WorkerScope* scope) : m_scope(scope) {}

    // 0 when it is in the list; otherwise the caller still owns the record.
    int Insert(_QVCAP_TIMER* timer);
    // -1 for an unknown handle and, deliberately, when that was the last timer.
    int Destroy(unsigned long long handle);
    void Clear();

    void AddEvents(WaitSet* set) override;
    void OnSignal(uint64_t serial) override;

  private:
    int ResetDriverTimer();
    bool ScheduleFirst();
    void ServeTheOthers();
    void MarkDue(long long now);
    _QVCAP_TIMER* NextDue();
    void Fire(_QVCAP_TIMER* timer, long long now);
    void Unlink(const _QVCAP_TIMER* timer);

    WorkerScope* const m_scope;
    WorkerEvent m_event;
    unsigned long long m_driverTimer = 0;
    // Deliberate: by address, lowest first, not by expiry. See docs/decisions.md, "Order of
    // timers".
    _QVCAP_TIMER* m_first = nullptr;
    bool m_unserved = false;  // the driver refused: it does not know when these are due
};

}  // namespace qv
