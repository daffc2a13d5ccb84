// The parameter that a caller gives with a callback, and who is told when nobody will use it again.
//
// Whoever holds it last tells: a call that fails on its way drops it like any other owner.
#pragma once

#include <utility>

#include "QVCaptureCallbacks.h"

namespace qv {

class CallerParam {
  public:
    // A parameter by itself stays the caller's business.
    CallerParam(void* value, QV_RELEASE_CALLBACK release = nullptr)
        : m_value(value), m_release(release) {}
    CallerParam(CallerParam&& other) noexcept
        : m_value(other.m_value), m_release(std::exchange(other.m_release, nullptr)) {}
    CallerParam& operator=(CallerParam&& other) noexcept {
        std::swap(m_value, other.m_value);
        std::swap(m_release, other.m_release);
        return *this;
    }
    ~CallerParam() {
        if (m_release != nullptr) m_release(m_value);
    }
    void* Value() const { return m_value; }
    bool IsOwned() const { return m_release != nullptr; }

  private:
    void* m_value;
    QV_RELEASE_CALLBACK m_release;
};

}  // namespace qv
