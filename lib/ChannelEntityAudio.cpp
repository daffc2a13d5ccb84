// Callback audio capture of the worker.
#include <new>

#include "ChannelEntity.h"
#include "ChannelEntityPost.h"
#include "QVCaptureBase.h"

int ChannelEntity::OpenAudioCapture(QV_AUDIO_CALLBACK callback, void* param) {
    if (m_thread.load(std::memory_order_acquire) == 0) return -1;
    auto* request = new (std::nothrow) _QVCAP_AUDIO_CAPTURE{callback, param};
    if (request == nullptr) return -1;
    int result = -1;
    Post(&ChannelEntity::DoOpenAudioCapture, request, &result);
    if (result != 0) delete request;
    return result;
}

int ChannelEntity::CloseAudioCapture() {
    int result = -1;
    Post(&ChannelEntity::DoCloseAudioCapture, &result);
    return result;
}

void ChannelEntity::DoOpenAudioCapture(_QVCAP_AUDIO_CAPTURE* request, int* result) {
    if (m_audioEvent != 0 || m_audioNotify != 0) return;  // open already; it goes on
    const unsigned long long event = m_events.Create();
    const unsigned long long notify = m_owner->RegisterNotify(event, qv::kNotifyAudioFrame);
    if (notify == 0) {
        m_events.Close(event);
        return;
    }
    if (m_owner->StartAudioCapture() != QV_RESULT_OK) {
        m_owner->UnregisterNotifyAtDriver(notify);
        m_events.Close(event);
        return;
    }
    ++m_captureStarts;
    m_audioEvent = event;
    m_audioNotify = notify;
    m_audioRequest = request;
    *result = 0;
}

// One frame a wake-up, whatever the notification's status says: it is not read.
void ChannelEntity::OnAudioNotify() {
    _QVCAP_AUDIO_CAPTURE_FRAME frame;
    if (m_owner->CaptureAudioFrame(&frame) != QV_RESULT_OK) return;
    const _QVCAP_AUDIO_CAPTURE request = *m_audioRequest;  // the callback may end the capture
    if (request.callback != nullptr) request.callback(&frame, request.param);
}

void ChannelEntity::DoCloseAudioCapture(int* result) {
    const bool stopped = m_owner->StopAudioCapture() == QV_RESULT_OK;
    ReleaseAudio();
    *result = stopped ? 0 : -1;
}

void ChannelEntity::ReleaseAudio() {
    if (m_audioNotify != 0) m_owner->UnregisterNotifyAtDriver(m_audioNotify);
    m_audioNotify = 0;
    m_events.Close(m_audioEvent);
    m_audioEvent = 0;
    delete m_audioRequest;
    m_audioRequest = nullptr;
}
