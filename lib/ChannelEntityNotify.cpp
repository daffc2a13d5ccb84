// Notification callbacks of the worker.
#include <algorithm>
#include <new>

#include "ChannelEntity.h"
#include "ChannelEntityPost.h"
#include "QVCaptureBase.h"

namespace {

// Keys count from 1 for the whole process; bit 63 keeps them apart from the driver's own handles.
unsigned long long NextKey() {
    static std::atomic<uint64_t> last{0};
    constexpr unsigned long long kKeyBit = 1ull << 63;
    return kKeyBit | (last.fetch_add(1, std::memory_order_relaxed) + 1);
}

}  // namespace

int ChannelEntity::RegisterNotify(unsigned long long enableBits, QV_NOTIFY_CALLBACK callback,
                                  void* param, unsigned long long& handle) {
    if (m_thread.load(std::memory_order_acquire) == 0) return -1;
    // Reserved before anything is made, so that two registrations cannot share the last place.
    if (m_notifyCount.fetch_add(1) >= kWaitSetSize - kFixedSources) {
        m_notifyCount.fetch_sub(1);
        return -1;
    }
    const unsigned long long event = m_events.Create();
    const unsigned long long driverHandle =
        m_owner->RegisterNotify(event, static_cast<unsigned int>(enableBits));
    if (driverHandle == 0) {
        m_events.Close(event);
        m_notifyCount.fetch_sub(1);
        return 0;  // Deliberate: a success without a registration; the handle stays 0
    }
    const unsigned long long key = NextKey();
    auto* record =
        new (std::nothrow) _QVCAP_NOTIFY{key, event, enableBits, callback, param, driverHandle};
    if (record != nullptr && Post(&ChannelEntity::DoRegisterNotify, record)) {
        handle = key;
        return 0;
    }
    m_owner->UnregisterNotifyAtDriver(driverHandle);
    m_events.Close(event);
    delete record;
    m_notifyCount.fetch_sub(1);
    return -1;
}

int ChannelEntity::UnregisterNotifyWithCallback(unsigned long long handle) {
    int result = -1;
    Post(&ChannelEntity::DoUnregisterNotify, handle, &result);
    return result;
}

void ChannelEntity::DoRegisterNotify(_QVCAP_NOTIFY* record) { m_notifies.push_back(record); }

std::vector<_QVCAP_NOTIFY*>::iterator ChannelEntity::FindNotify(unsigned long long key) {
    return std::find_if(m_notifies.begin(), m_notifies.end(),
                        [key](const _QVCAP_NOTIFY* notify) { return notify->key == key; });
}

void ChannelEntity::DoUnregisterNotify(unsigned long long key, int* result) {
    const auto found = FindNotify(key);
    if (found == m_notifies.end()) {
        *result = -1;
        return;
    }
    *result = ReleaseNotify(*found) == QV_RESULT_OK ? 0 : -1;
    m_notifies.erase(found);
}

QV_RESULT ChannelEntity::ReleaseNotify(_QVCAP_NOTIFY* record) {
    const QV_RESULT result = m_owner->UnregisterNotifyAtDriver(record->driverHandle);
    m_events.Close(record->event);
    delete record;
    m_notifyCount.fetch_sub(1);
    return result;
}

// By key, not by place: a registration that a callback of this pass removed is skipped, and no
// other is taken for it.
void ChannelEntity::OnNotification(unsigned long long key) {
    const auto found = FindNotify(key);
    if (found == m_notifies.end()) return;
    const _QVCAP_NOTIFY notify = **found;  // the callback may remove its own registration
    unsigned long long status = 0;
    if (m_owner->GetNotifyStatus(notify.driverHandle, &status) != QV_RESULT_OK) return;
    if (notify.callback != nullptr)
        notify.callback(notify.key, static_cast<unsigned int>(status), notify.param);
}

void ChannelEntity::ClearNotify() {
    while (!m_notifies.empty()) {
        ReleaseNotify(m_notifies.front());
        m_notifies.erase(m_notifies.begin());
    }
}
