// How threads of a test hand things to each other: a list to wait on, and a gate.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace qvtest {

// What callbacks saw, handed from their thread to the test's. Any thread.
template <class Item>
class Recorder {
  public:
    void Add(Item item) {
        const std::lock_guard guard(m_lock);
        m_items.push_back(std::move(item));
        m_changed.notify_all();
    }
    // Returns when there are at least so many.
    std::vector<Item> AwaitCount(size_t count) {
        std::unique_lock lock(m_lock);
        m_changed.wait(lock, [&] { return m_items.size() >= count; });
        return m_items;
    }
    // Waits for so many more; false when they do not come.
    bool AwaitMore(size_t count, std::chrono::seconds patience) {
        std::unique_lock lock(m_lock);
        const size_t wanted = m_items.size() + count;
        return m_changed.wait_for(lock, patience, [&] { return m_items.size() >= wanted; });
    }
    size_t Count() {
        const std::lock_guard guard(m_lock);
        return m_items.size();
    }
    void Clear() {
        const std::lock_guard guard(m_lock);
        m_items.clear();
    }
    std::vector<Item> Items() {
        const std::lock_guard guard(m_lock);
        return m_items;
    }

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<Item> m_items;
};

// Opened by one thread, passed by another.
class Gate {
  public:
    void Open() {
        const std::lock_guard guard(m_lock);
        m_open = true;
        m_changed.notify_all();
    }
    void Pass() {
        std::unique_lock lock(m_lock);
        m_changed.wait(lock, [&] { return m_open; });
    }

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_open = false;
};

}  // namespace qvtest
