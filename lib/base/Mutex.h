// A lock that cannot throw: std::mutex reports errors by exceptions, and this library uses none.
#pragma once

#include <pthread.h>

namespace qv {

class Mutex {
  public:
    Mutex() = default;
    ~Mutex() { pthread_mutex_destroy(&m_mutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

  private:
    friend class Guard;
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
};

class Guard {
  public:
    explicit Guard(Mutex* mutex) : m_mutex(&mutex->m_mutex) { pthread_mutex_lock(m_mutex); }
    ~Guard() { pthread_mutex_unlock(m_mutex); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    pthread_mutex_t* m_mutex;
};

}  // namespace qv
