// Callback audio capture of the channel worker.
#include "AudioCapture.h"

#include <utility>

#include "QVCaptureBase.h"

namespace qv {

int AudioCapture::Open(_QVCAP_AUDIO_CAPTURE* request) {
    if (m_capture != nullptr) return -1;
    m_event.Open(m_scope);
    m_notify = m_scope->channel->RegisterNotify(m_event.Handle(), kNotifyAudioFrame);
    if (m_notify != 0) {
        const QV_RESULT result = m_scope->channel->StartAudioCapture();
        m_stop.NoteRequest();
        if (result == QV_RESULT_OK) {
            m_capture = request;
            return 0;
        }
    }
    Release();
    return -1;
}

void AudioCapture::AddEvents(WaitSet* set) { set->Add(this, m_event.Handle(), m_event.Serial()); }

// One frame per wake-up; the notification's status is not read.
void AudioCapture::OnSignal(uint64_t serial) {
    if (serial != m_event.Serial()) return;
    _QVCAP_AUDIO_CAPTURE_FRAME frame;
    if (m_scope->channel->CaptureAudioFrame(&frame) != QV_RESULT_OK) return;
    const _QVCAP_AUDIO_CAPTURE* const capture = m_capture;
    if (capture->callback == nullptr) return;
    m_scope->CallBack([&] { capture->callback(&frame, capture->param.Value()); });
}

int AudioCapture::Close() {
    const bool stopped = m_scope->channel->StopAudioCapture() == QV_RESULT_OK;
    Release();
    return stopped ? 0 : -1;
}

void AudioCapture::StopDriver() {
    m_stop.Ask([this] { return m_scope->channel->StopAudioCapture(); });
}

void AudioCapture::StopDriverAgain() {
    m_stop.AskAgain([this] { return m_scope->channel->StopAudioCapture(); });
}

void AudioCapture::Release() {
    if (m_notify != 0) m_scope->channel->UnregisterNotifyAtDriver(m_notify);
    m_notify = 0;
    m_event.Close(*m_scope);
    if (_QVCAP_AUDIO_CAPTURE* const capture = std::exchange(m_capture, nullptr))
        m_scope->Retire(capture);
}

}  // namespace qv
