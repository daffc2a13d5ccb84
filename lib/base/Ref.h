// Shared ownership that allocates nothing: the count is a member of the owned object.
//
// Not std::shared_ptr: if the allocation of its control block fails, it throws, and no exception
// leaves this library's functions. Any thread, as far as the owned type allows.
#pragma once

#include <atomic>
#include <utility>

namespace qv {

// Base of an object that a Ref owns; counts its references and is deleted with the last.
template <class Owned>
class RefCounted {
  public:
    RefCounted() = default;
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;
    void AddRef() { m_references.fetch_add(1, std::memory_order_relaxed); }
    void Release() {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete static_cast<Owned*>(this);
    }

  protected:
    ~RefCounted() = default;

  private:
    std::atomic<int> m_references{0};
};

// One reference, or none.
template <class Owned>
class Ref {
  public:
    Ref() = default;
    explicit Ref(Owned* owned) : m_owned(owned) {
        if (m_owned != nullptr) m_owned->AddRef();
    }
    Ref(const Ref& other) : Ref(other.m_owned) {}
    Ref(Ref&& other) noexcept : m_owned(std::exchange(other.m_owned, nullptr)) {}
    ~Ref() {
        if (m_owned != nullptr) m_owned->Release();
    }
    Ref& operator=(Ref other) noexcept {
        std::swap(m_owned, other.m_owned);
        return *this;
    }
    Owned* operator->() const { return m_owned; }
    explicit operator bool() const { return m_owned != nullptr; }

  private:
    Owned* m_owned = nullptr;
};

}  // namespace qv
