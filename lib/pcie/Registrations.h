// The channel worker's notification callbacks: registrations in the order in which they were made.
//
// Worker thread only, except the places, which any thread may reserve.
#pragma once

#include <atomic>

#include "EventSource.h"

// One callback registration.
struct _QVCAP_NOTIFY final : qv::CallbackRecord {
    using CallbackRecord::CallbackRecord;
    unsigned long long key = 0;  // the caller's handle; also its event's serial
    unsigned long long event = 0;
    unsigned long long enableBits = 0;
    QV_NOTIFY_CALLBACK callback = nullptr;
    unsigned long long driverHandle = 0;
    _QVCAP_NOTIFY* next = nullptr;
};

namespace qv {

class Registrations final : public EventSource {
  public:
    explicit Registrations(WorkerScope* scope) : m_scope(scope) {}

    // A place is reserved before anything is made, so that two registrations cannot share the last
    // one.
    bool ReservePlace();
    void GiveBackPlace() { m_places.fetch_sub(1); }

    // Takes ownership of the record and its place.
    void Append(_QVCAP_NOTIFY* record);
    // 0, or -1 for an unknown key and when the driver refused; then the record is removed, too.
    int Remove(unsigned long long key);
    void Clear();

    void AddEvents(WaitSet* set) override;
    void OnSignal(uint64_t key) override;

  private:
    static constexpr int kPlaces = WaitSet::kSize - 5;  // the other events of a worker

    // The link that points at the record, or at null when there is none.
    _QVCAP_NOTIFY** Find(unsigned long long key);
    QV_RESULT Release(_QVCAP_NOTIFY** link);

    WorkerScope* const m_scope;
    std::atomic<int> m_places{0};
    _QVCAP_NOTIFY* m_first = nullptr;
};

}  // namespace qv
