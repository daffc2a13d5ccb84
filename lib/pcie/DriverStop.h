// Whether the driver accepted the stop of a capture when its worker ended, and whether that stop
// was the last request: a worker runs until its thread has ended, and may ask for a frame after the
// stop.
#pragma once

#include <atomic>

#include "QVCaptureTypes.h"

namespace qv {

class DriverStop {
  public:
    // Called after each request that makes the driver start something. Worker thread.
    void NoteRequest() { m_requests.fetch_add(1); }

    // Called by the thread that ends the worker: asks the driver to stop.
    template <class Stop>
    void Ask(Stop stop) {
        m_requestsBefore = m_requests.load();  // a request that is not counted here came later
        m_taken = stop() == QV_RESULT_OK;
    }
    // Called by the same thread after the worker's thread has ended: asks again if the worker has
    // asked for something since.
    template <class Stop>
    void AskAgain(Stop stop) {
        if (m_requests.load() != m_requestsBefore) Ask(stop);
    }
    // Whether the driver accepted the last stop: then it writes to no frame memory any more.
    bool Taken() const { return m_taken; }

  private:
    std::atomic<unsigned int> m_requests{0};
    unsigned int m_requestsBefore = 0;
    bool m_taken = false;
};

}  // namespace qv
