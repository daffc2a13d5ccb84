// Callback video capture of the channel worker, in both pacing modes.
//
// Worker thread only, except stopping the driver and the release: the thread that stops the worker
// does both after the worker's thread has ended.
#pragma once

#include "DriverStop.h"
#include "EventSource.h"
#include "FrameMemory.h"

// One capture: what was requested, and what it holds while it is open.
struct _QVCAP_VIDEO_CAPTURE final : qv::CallbackRecord {
    using CallbackRecord::CallbackRecord;
    ~_QVCAP_VIDEO_CAPTURE() override { delete frames; }

    unsigned int fourcc = 0;
    int width = 0;   // pixels
    int height = 0;  // lines
    _QV_VIDEO_CAPTURE_MODE mode = 0;
    QV_VIDEO_CALLBACK callback = nullptr;
    unsigned int frameSize = 0;  // bytes
    unsigned int stride = 0;     // bytes per line

    qv::FrameMemory* frames = nullptr;  // owned
    int index = 0;  // current buffer; -1 while a notification-mode capture is in flight
    qv::WorkerEvent done;
    qv::WorkerEvent notify;
    unsigned long long notifyHandle = 0;
    _QVCAP_VIDEO_CAPTURE* replaced = nullptr;  // by this one; released with it
};

namespace qv {

class VideoCapture final : public EventSource {
  public:
    explicit VideoCapture(WorkerScope* scope) : m_scope(scope) {}

    // 0 when the request has become the capture; otherwise the caller still owns it.
    int Open(_QVCAP_VIDEO_CAPTURE* request);
    int Close();

    // Whether the driver refused a request for a frame, or its outcome, so that none will come. Any
    // thread.
    bool Stalled() const { return m_stalled.load(std::memory_order_relaxed); }

    void StopDriver();
    void StopDriverAgain();
    bool DriverStopped() const { return m_stop.Taken(); }
    // Memory that a driver may still write to is kept until the channel is closed.
    void Release(bool driverStopped);

    void AddEvents(WaitSet* set) override;
    void OnSignal(uint64_t serial) override;

  private:
    int StartDriver(_QVCAP_VIDEO_CAPTURE* request);
    void CaptureInto(int buffer, int frameSelector);
    void OnDone();
    void OnNotify();
    void Deliver(int finished, _QVCAP_VIDEO_FRAME_INFO* info);
    static _QVCAP_VIDEO_CAPTURE* CurrentThenOldest(_QVCAP_VIDEO_CAPTURE* current);
    void GiveBack(_QVCAP_VIDEO_CAPTURE* capture, bool driverStopped);

    WorkerScope* const m_scope;
    DriverStop m_stop;
    std::atomic<bool> m_stalled{false};
    _QVCAP_VIDEO_CAPTURE* m_capture = nullptr;  // null while closed
};

}  // namespace qv
