// Notification callbacks of the channel worker.
#include "Registrations.h"

#include "QVCaptureBase.h"

namespace qv {

bool Registrations::ReservePlace() {
    if (m_places.fetch_add(1) < kPlaces) return true;
    GiveBackPlace();
    return false;
}

_QVCAP_NOTIFY** Registrations::Find(unsigned long long key) {
    _QVCAP_NOTIFY** link = &m_first;
    while (*link != nullptr && (*link)->key != key) link = &(*link)->next;
    return link;
}

void Registrations::Append(_QVCAP_NOTIFY* record) {
    _QVCAP_NOTIFY** link = &m_first;
    while (*link != nullptr) link = &(*link)->next;
    *link = record;
}

int Registrations::Remove(unsigned long long key) {
    _QVCAP_NOTIFY** const link = Find(key);
    return *link != nullptr && Release(link) == QV_RESULT_OK ? 0 : -1;
}

QV_RESULT Registrations::Release(_QVCAP_NOTIFY** link) {
    _QVCAP_NOTIFY* const record = *link;
    const QV_RESULT result = m_scope->channel->UnregisterNotifyAtDriver(record->driverHandle);
    m_scope->events.Close(record->event);
    *link = record->next;
    GiveBackPlace();  // first: a caller's release may register again
    m_scope->Retire(record);
    return result;
}

void Registrations::Clear() {
    while (m_first != nullptr) Release(&m_first);
}

void Registrations::AddEvents(WaitSet* set) {
    for (const _QVCAP_NOTIFY* record = m_first; record != nullptr; record = record->next)
        set->Add(this, record->event, record->key);
}

void Registrations::OnSignal(uint64_t key) {
    const _QVCAP_NOTIFY* const record = *Find(key);
    if (record == nullptr) return;
    unsigned long long status = 0;
    if (m_scope->channel->GetNotifyStatus(record->driverHandle, &status) != QV_RESULT_OK) return;
    if (record->callback == nullptr) return;
    m_scope->CallBack([record, status] {
        record->callback(record->key, static_cast<unsigned int>(status), record->param.Value());
    });
}

}  // namespace qv
