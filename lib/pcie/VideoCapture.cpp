// Callback video capture of the channel worker.
#include "VideoCapture.h"

#include <utility>

#include "FrameLayout.h"
#include "QVCaptureBase.h"

namespace qv {

// An open capture is replaced; its memory is released with the new one, because the driver may
// still be writing to it.
int VideoCapture::Open(_QVCAP_VIDEO_CAPTURE* request) {
    const FrameLayout layout = LayoutOf(request->fourcc, request->width, request->height);
    request->stride = layout.stride;
    request->frameSize = layout.size;
    // Allocated before the driver is asked, so that there is nothing to undo on failure.
    request->frames = FrameMemory::Allocate(layout.size);
    if (request->frames == nullptr) return -1;
    if (const int result = StartDriver(request); result != QV_RESULT_OK) return result;
    request->replaced = std::exchange(m_capture, request);
    m_stalled.store(false, std::memory_order_relaxed);
    if (request->mode == QV_VIDEO_CAPTURE_BACK_TO_BACK) {
        CaptureInto(0, kFrameNextLowLatency);
    } else {
        request->notify.Open(m_scope);
        request->notifyHandle =
            m_scope->channel->RegisterNotify(request->notify.Handle(), kNotifyVideoFrame);
    }
    return 0;
}

int VideoCapture::StartDriver(_QVCAP_VIDEO_CAPTURE* request) {
    request->done.Open(m_scope);
    const QV_RESULT result = m_scope->channel->StartVideoCapture(request->done.Handle());
    m_stop.NoteRequest();
    if (result != QV_RESULT_OK) request->done.Close(*m_scope);
    return result;
}

// A refused request never completes: in neither mode is a frame requested again.
void VideoCapture::CaptureInto(int buffer, int frameSelector) {
    const _QVCAP_VIDEO_CAPTURE& capture = *m_capture;
    const QV_RESULT result = m_scope->channel->CaptureVideoFrameToVirtualAddress(
        frameSelector, WireAddress(capture.frames->buffers[buffer]), capture.frameSize,
        capture.stride, 0, 0, capture.fourcc, capture.width, capture.height);
    m_stop.NoteRequest();
    if (result != QV_RESULT_OK) m_stalled.store(true, std::memory_order_relaxed);
}

void VideoCapture::AddEvents(WaitSet* set) {
    if (m_capture == nullptr) return;
    set->Add(this, m_capture->done.Handle(), m_capture->done.Serial());
    set->Add(this, m_capture->notify.Handle(), m_capture->notify.Serial());
}

void VideoCapture::OnSignal(uint64_t serial) {
    if (m_capture == nullptr) return;
    if (serial == m_capture->done.Serial())
        OnDone();
    else if (serial == m_capture->notify.Serial())
        OnNotify();
}

void VideoCapture::OnDone() {
    _QVCAP_VIDEO_CAPTURE_STATUS status{};
    const bool read = m_scope->channel->GetVideoCaptureStatus(&status) == QV_RESULT_OK;
    if (!read || status.frameCompleted == 0) {
        // An outstanding request will never complete.
        const bool outstanding =
            m_capture->mode == QV_VIDEO_CAPTURE_BACK_TO_BACK || m_capture->index < 0;
        if (!read && outstanding) m_stalled.store(true, std::memory_order_relaxed);
        return OnNotify();
    }
    m_stalled.store(false, std::memory_order_relaxed);
    _QVCAP_VIDEO_BUFFER_INFO buffers{};
    m_scope->channel->GetVideoBufferInfo(&buffers);
    _QVCAP_VIDEO_FRAME_INFO info{};
    m_scope->channel->GetVideoFrameInfo(buffers.completedFrameIndex, &info);

    int finished = 0;
    if (m_capture->mode == QV_VIDEO_CAPTURE_BACK_TO_BACK) {
        finished = m_capture->index;
        m_capture->index = (m_capture->index + 1) % 2;
        // Before the callback: the driver fills one buffer while the caller reads the other.
        CaptureInto(m_capture->index, kFrameNextLowLatency);
    } else {
        m_capture->index = 0;
    }
    Deliver(finished, &info);
}

// The callback may end the capture: its record and memory are kept until it has returned.
void VideoCapture::Deliver(int finished, _QVCAP_VIDEO_FRAME_INFO* info) {
    const _QVCAP_VIDEO_CAPTURE* const capture = m_capture;
    if (capture->callback == nullptr) return;
    const unsigned long long address = HandleOf(capture->frames->buffers[finished]);
    m_scope->CallBack([=] {
        capture->callback(address, capture->frameSize, capture->stride, info,
                          capture->param.Value());
    });
}

// The wake-up is enough: the notification's status is not read.
void VideoCapture::OnNotify() {
    if (m_capture->mode == QV_VIDEO_CAPTURE_BACK_TO_BACK) return;
    if (m_capture->index < 0) return;  // a capture is in flight: this notification is dropped
    CaptureInto(m_capture->index, kFrameNewestBuffered);
    m_capture->index = -1;
}

int VideoCapture::Close() {
    const bool stopped = m_scope->channel->StopVideoCapture() == QV_RESULT_OK;
    Release(stopped);
    return stopped ? 0 : -1;
}

void VideoCapture::StopDriver() {
    m_stop.Ask([this] { return m_scope->channel->StopVideoCapture(); });
}

void VideoCapture::StopDriverAgain() {
    m_stop.AskAgain([this] { return m_scope->channel->StopVideoCapture(); });
}

void VideoCapture::Release(bool driverStopped) {
    m_stalled.store(false, std::memory_order_relaxed);
    // Unlinked first and deleted last: a caller's release may open another capture.
    _QVCAP_VIDEO_CAPTURE* const first = CurrentThenOldest(std::exchange(m_capture, nullptr));
    for (auto* capture = first; capture != nullptr; capture = capture->replaced)
        GiveBack(capture, driverStopped);
    for (auto* capture = first; capture != nullptr;)
        m_scope->Retire(std::exchange(capture, capture->replaced));
}

// The order in which captures are released: the current one, then those that were replaced, the
// oldest first.
_QVCAP_VIDEO_CAPTURE* VideoCapture::CurrentThenOldest(_QVCAP_VIDEO_CAPTURE* current) {
    if (current == nullptr) return nullptr;
    _QVCAP_VIDEO_CAPTURE* oldest = nullptr;
    for (auto* capture = current->replaced; capture != nullptr;) {
        auto* const older = std::exchange(capture->replaced, oldest);
        oldest = std::exchange(capture, older);
    }
    current->replaced = oldest;
    return current;
}

void VideoCapture::GiveBack(_QVCAP_VIDEO_CAPTURE* capture, bool driverStopped) {
    capture->done.Close(*m_scope);
    if (capture->notifyHandle != 0)
        m_scope->channel->UnregisterNotifyAtDriver(capture->notifyHandle);
    capture->notify.Close(*m_scope);
    if (!driverStopped) m_scope->channel->KeepUntilClosed(std::exchange(capture->frames, nullptr));
}

}  // namespace qv
