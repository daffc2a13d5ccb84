// Whether the driver took the stop of a capture when its worker ended, and whether that stop was
// the last word: a worker that goes on until its thread has ended may ask for a frame after it.
#pragma once

#include <atomic>

#include "QVCaptureTypes.h"

namespace qv {

class DriverStop {
  public:
    // After each request that has the driver begin something. Worker thread.
    void NoteRequest() { m_requests.fetch_add(1); }

    // The thread that ends the worker: asks the driver to stop.
    template <class Stop>
    void Ask(Stop stop) {
        m_requestsBefore = m_requests.load();  // a request that is not counted here came later
        m_taken = stop() == QV_RESULT_OK;
    }
    // The same thread, after the worker's: asks again when the worker asked for something since.
    template <class Stop>
    void AskAgain(Stop stop) {
        if (m_requests.load() != m_requestsBefore) Ask(stop);
    }
    // Whether the driver took the last one: it writes to no frame memory any more.
    bool Taken() const { return m_taken; }

  private:
    std::atomic<unsigned int> m_requests{0};
    unsigned int m_requestsBefore = 0;
    bool m_taken = false;
};

}  // namespace qv
