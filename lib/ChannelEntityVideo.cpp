// Callback video capture of the worker.
#include <cstdlib>
#include <new>

#include "ChannelEntity.h"
#include "ChannelEntityPost.h"
#include "QVCaptureBase.h"

int ChannelEntity::OpenCapture(unsigned int fourcc, int width, int height,
                               _QV_VIDEO_CAPTURE_MODE mode, QV_VIDEO_CALLBACK callback,
                               void* param) {
    auto* request =
        new (std::nothrow) _QVCAP_VIDEO_CAPTURE{fourcc, width, height, mode, callback, param, 0, 0};
    if (request == nullptr) return -1;
    int result = -1;
    if (Post(&ChannelEntity::DoOpenCapture, request, &result) && result == 0) return 0;
    delete request;
    return result;
}

int ChannelEntity::CloseCapture() {
    int result = -1;
    Post(&ChannelEntity::DoCloseCapture, &result);
    return result;
}

void ChannelEntity::DoOpenCapture(_QVCAP_VIDEO_CAPTURE* request, int* result) {
    const qv::FrameLayout layout = qv::LayoutOf(request->fourcc, request->width, request->height);
    request->stride = layout.stride;
    request->frameSize = layout.size;
    VideoState video;
    video.request = request;
    // Taken before the driver is asked, so that there is nothing to undo when it cannot be had.
    for (void*& buffer : video.buffers) buffer = malloc(layout.size);
    const bool haveMemory = video.buffers[0] != nullptr && video.buffers[1] != nullptr;
    int started = -1;
    if (haveMemory) {
        video.doneEvent = m_events.Create();
        started = m_owner->StartVideoCapture(video.doneEvent);
        if (started != QV_RESULT_OK) m_events.Close(video.doneEvent);
    }
    if (started != QV_RESULT_OK) {
        for (void* buffer : video.buffers) free(buffer);
        *result = started;
        return;
    }
    ++m_captureStarts;
    // A capture that is open already is replaced; what it holds is released with the new one, since
    // the driver may still be writing to its memory.
    if (m_video.request != nullptr) m_replacedVideo.push_back(m_video);
    m_video = video;
    if (request->mode == QV_VIDEO_CAPTURE_BACK_TO_BACK) {
        CaptureInto(0, qv::kFrameNextLowLatency);
    } else {
        m_video.notifyEvent = m_events.Create();
        m_video.notifyHandle = m_owner->RegisterNotify(m_video.notifyEvent, qv::kNotifyVideoFrame);
    }
    *result = 0;
}

// A refused request simply yields no completion.
void ChannelEntity::CaptureInto(int buffer, int frameSelector) {
    const _QVCAP_VIDEO_CAPTURE& request = *m_video.request;
    m_owner->CaptureVideoFrameToVirtualAddress(
        frameSelector, qv::WireAddress(m_video.buffers[buffer]), request.frameSize, request.stride,
        0, 0, request.fourcc, request.width, request.height);
}

void ChannelEntity::OnVideoDone() {
    _QVCAP_VIDEO_CAPTURE_STATUS status{};
    if (m_owner->GetVideoCaptureStatus(&status) != QV_RESULT_OK || status.frameCompleted == 0)
        return OnVideoNotify();
    _QVCAP_VIDEO_BUFFER_INFO buffers{};
    m_owner->GetVideoBufferInfo(&buffers);
    _QVCAP_VIDEO_FRAME_INFO info{};
    m_owner->GetVideoFrameInfo(buffers.completedFrameIndex, &info);

    int finished = 0;
    if (m_video.request->mode == QV_VIDEO_CAPTURE_BACK_TO_BACK) {
        finished = m_video.index;
        m_video.index = (m_video.index + 1) % 2;
        // Before the callback: the driver fills one buffer while the caller reads the other.
        CaptureInto(m_video.index, qv::kFrameNextLowLatency);
    } else {
        m_video.index = 0;
    }
    const _QVCAP_VIDEO_CAPTURE request = *m_video.request;  // the callback may end the capture
    if (request.callback == nullptr) return;
    m_inVideoCallback = true;
    request.callback(qv::HandleOf(m_video.buffers[finished]), request.frameSize, request.stride,
                     &info, request.param);
    m_inVideoCallback = false;
    for (void* memory : m_framesInCallback) free(memory);
    m_framesInCallback.clear();
}

// Waking is enough: the notification's status is not read.
void ChannelEntity::OnVideoNotify() {
    if (m_video.request->mode == QV_VIDEO_CAPTURE_BACK_TO_BACK) return;
    if (m_video.index < 0) return;  // a capture is in flight: this notification is dropped
    CaptureInto(m_video.index, qv::kFrameNewestBuffered);
    m_video.index = -1;
}

void ChannelEntity::DoCloseCapture(int* result) {
    const bool stopped = m_owner->StopVideoCapture() == QV_RESULT_OK;
    ReleaseVideo(stopped);
    *result = stopped ? 0 : -1;
}

void ChannelEntity::ReleaseVideo(bool driverStopped) {
    ReleaseVideo(&m_video, driverStopped);
    for (VideoState& video : m_replacedVideo) ReleaseVideo(&video, driverStopped);
    m_replacedVideo.clear();
}

void ChannelEntity::ReleaseVideo(VideoState* video, bool driverStopped) {
    m_events.Close(video->doneEvent);
    video->doneEvent = 0;
    if (video->notifyHandle != 0) m_owner->UnregisterNotifyAtDriver(video->notifyHandle);
    video->notifyHandle = 0;
    m_events.Close(video->notifyEvent);
    video->notifyEvent = 0;
    delete video->request;
    video->request = nullptr;
    for (void*& buffer : video->buffers) {
        if (buffer != nullptr) ReleaseFrameMemory(buffer, driverStopped);
        buffer = nullptr;
    }
}

void ChannelEntity::ReleaseFrameMemory(void* memory, bool driverStopped) {
    if (!driverStopped)
        m_owner->KeepUntilClosed(memory);  // the driver may still write to it
    else if (m_inVideoCallback)
        m_framesInCallback.push_back(memory);  // the callback may still read it
    else
        free(memory);
}
