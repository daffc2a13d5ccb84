// The parameter that a caller passes with a callback, and the release to call when nobody will use
// it again.
//
// The last owner calls the release: a call that fails half-way drops the parameter like any other
// owner.
#pragma once

#include <utility>

#include "QVCaptureCallbacks.h"

namespace qv {

class CallerParam {
  public:
    // A parameter without a release: the caller looks after it.
    CallerParam(void* value) : m_value(value) {}
    CallerParam(void* value, QV_RELEASE_CALLBACK release)
        : m_value(value), m_release(release), m_owned(true) {}
    CallerParam(CallerParam&& other) noexcept
        : m_value(other.m_value),
          m_release(std::exchange(other.m_release, nullptr)),
          m_owned(other.m_owned) {}
    CallerParam& operator=(CallerParam&& other) noexcept {
        std::swap(m_value, other.m_value);
        std::swap(m_release, other.m_release);
        std::swap(m_owned, other.m_owned);
        return *this;
    }
    ~CallerParam() {
        if (m_release != nullptr) m_release(m_value);
    }
    void* Value() const { return m_value; }
    // Passed to the library, with or without a release.
    bool IsOwned() const { return m_owned; }

  private:
    void* m_value;
    QV_RELEASE_CALLBACK m_release = nullptr;
    bool m_owned = false;
};

}  // namespace qv
