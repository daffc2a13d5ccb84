// The worker's operations for callers: each posts a command and waits for it.
#include <new>
#include <utility>

#include "ChannelEntity.h"
#include "QVCaptureBase.h"

// True when the command has run; it has then stored its results where its arguments point.
template <class Argument>
bool ChannelEntity::Post(void (ChannelEntity::*operation)(Argument), Argument argument) {
    using Command = Functor1<ChannelEntity, decltype(operation), Argument>;
    return PostItem(new (std::nothrow) Command(this, operation, argument), true);
}

template <class First, class Second>
bool ChannelEntity::Post(void (ChannelEntity::*operation)(First, Second), First first,
                         Second second) {
    using Command = Functor2<ChannelEntity, decltype(operation), First, Second>;
    return PostItem(new (std::nothrow) Command(this, operation, first, second), true);
}

// The command's result, -1 when it never ran.
template <class... Parameters, class... Arguments>
int ChannelEntity::Ask(void (ChannelEntity::*operation)(Parameters...), Arguments... arguments) {
    int result = -1;
    Post(operation, arguments..., &result);
    return result;
}

int ChannelEntity::RegisterNotify(unsigned long long enableBits, QV_NOTIFY_CALLBACK callback,
                                  qv::CallerParam param, unsigned long long& handle) {
    if (m_thread.load(std::memory_order_acquire) == 0) return -1;
    if (!m_registrations.ReservePlace()) return -1;
    int result = -1;
    auto* record = new (std::nothrow) _QVCAP_NOTIFY(std::move(param));
    if (record != nullptr) {
        const unsigned long long key = qv::NextKey();
        record->key = key;
        record->enableBits = enableBits;
        record->callback = callback;
        record->event = m_scope.events.Create();
        record->driverHandle =
            m_scope.channel->RegisterNotify(record->event, static_cast<unsigned int>(enableBits));
        if (record->driverHandle == 0) {
            result = 0;  // Deliberate: a success without a registration; the handle stays 0
        } else if (Post(&ChannelEntity::DoRegisterNotify, record)) {
            handle = key;
            return 0;
        } else {
            m_scope.channel->UnregisterNotifyAtDriver(record->driverHandle);
        }
        m_scope.events.Close(record->event);
    }
    m_registrations.GiveBackPlace();
    delete record;
    return result;
}

int ChannelEntity::UnregisterNotifyWithCallback(unsigned long long handle) {
    return Ask(&ChannelEntity::DoUnregisterNotify, handle);
}

int ChannelEntity::CreateTimer(QV_TIMER_CALLBACK callback, long long delay, long long period,
                               unsigned long long& handle, qv::CallerParam param) {
    long long now = 0;
    if (m_scope.channel->GetDeviceTime(&now) != QV_RESULT_OK) return -1;
    const bool owned = param.IsOwned();
    auto* timer = new (std::nothrow) _QVCAP_TIMER(std::move(param));
    if (timer == nullptr) return -1;
    // The owner of a parameter may destroy a timer that no longer exists.
    const unsigned long long made = owned ? qv::NextKey() : qv::HandleOf(timer);
    timer->handle = made;
    timer->callback = callback;
    timer->delay = delay;
    timer->period = period;
    timer->expiry = qv::LaterTime(now, delay);
    const int result = Ask(&ChannelEntity::DoCreateTimer, timer);
    if (result == 0)
        handle = made;
    else
        delete timer;
    return result;
}

int ChannelEntity::DestroyTimer(unsigned long long handle) {
    return Ask(&ChannelEntity::DoDestroyTimer, handle);
}

int ChannelEntity::OpenCapture(unsigned int fourcc, int width, int height,
                               _QV_VIDEO_CAPTURE_MODE mode, QV_VIDEO_CALLBACK callback,
                               qv::CallerParam param) {
    auto* request = new (std::nothrow) _QVCAP_VIDEO_CAPTURE(std::move(param));
    if (request == nullptr) return -1;
    request->fourcc = fourcc;
    request->width = width;
    request->height = height;
    request->mode = mode;
    request->callback = callback;
    const int result = Ask(&ChannelEntity::DoOpenCapture, request);
    if (result != 0) delete request;
    return result;
}

int ChannelEntity::CloseCapture() { return Ask(&ChannelEntity::DoCloseCapture); }

int ChannelEntity::OpenAudioCapture(QV_AUDIO_CALLBACK callback, qv::CallerParam param) {
    if (m_thread.load(std::memory_order_acquire) == 0) return -1;
    auto* request = new (std::nothrow) _QVCAP_AUDIO_CAPTURE(std::move(param));
    if (request == nullptr) return -1;
    request->callback = callback;
    const int result = Ask(&ChannelEntity::DoOpenAudioCapture, request);
    if (result != 0) delete request;
    return result;
}

int ChannelEntity::CloseAudioCapture() { return Ask(&ChannelEntity::DoCloseAudioCapture); }

void ChannelEntity::DoUnregisterNotify(unsigned long long key, int* result) {
    *result = m_registrations.Remove(key);
}

void ChannelEntity::DoCreateTimer(_QVCAP_TIMER* timer, int* result) {
    *result = m_timers.Insert(timer);
}

void ChannelEntity::DoDestroyTimer(unsigned long long handle, int* result) {
    *result = m_timers.Destroy(handle);
}

void ChannelEntity::DoOpenCapture(_QVCAP_VIDEO_CAPTURE* request, int* result) {
    *result = m_video.Open(request);
}

void ChannelEntity::DoCloseCapture(int* result) { *result = m_video.Close(); }

void ChannelEntity::DoOpenAudioCapture(_QVCAP_AUDIO_CAPTURE* request, int* result) {
    *result = m_audio.Open(request);
}

void ChannelEntity::DoCloseAudioCapture(int* result) { *result = m_audio.Close(); }
