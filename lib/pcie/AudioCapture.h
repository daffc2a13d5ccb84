// Callback audio capture of the channel worker.
//
// Worker thread only, except stopping the driver and the release: the thread that stops the worker
// does both after the worker's thread has ended.
#pragma once

#include "DriverStop.h"
#include "EventSource.h"

struct _QVCAP_AUDIO_CAPTURE final : qv::CallbackRecord {
    using CallbackRecord::CallbackRecord;
    QV_AUDIO_CALLBACK callback = nullptr;
};

namespace qv {

class AudioCapture final : public EventSource {
  public:
    explicit AudioCapture(WorkerScope* scope) : m_scope(scope) {}

    // 0 when the request has become the capture; otherwise the caller still owns it, and a capture
    // that is already open goes on.
    int Open(_QVCAP_AUDIO_CAPTURE* request);
    int Close();

    void StopDriver();
    void StopDriverAgain();
    void Release();

    void AddEvents(WaitSet* set) override;
    void OnSignal(uint64_t serial) override;

  private:
    WorkerScope* const m_scope;
    DriverStop m_stop;
    WorkerEvent m_event;
    unsigned long long m_notify = 0;
    _QVCAP_AUDIO_CAPTURE* m_capture = nullptr;  // null while closed
};

}  // namespace qv
