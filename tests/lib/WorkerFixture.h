// A channel with its worker started, and what worker tests wait with. No test here measures time:
// waits are bounded by the watchdog of the test program alone.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <thread>

#include "ChannelFixture.h"
#include "support/Recorder.h"

namespace qvtest {

// How many threads this process has; one that ends by itself counts until its last destructor ran.
inline ptrdiff_t ThreadsNow() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// A std::function as the parameter of a callback.
using NotifyFunction = std::function<void(unsigned long long, unsigned int)>;
inline void CallNotify(unsigned long long handle, unsigned int bits, void* param) {
    (*static_cast<NotifyFunction*>(param))(handle, bits);
}

// Holds a channel's worker in a notification callback until it is let go, so that commands and
// signals can gather behind it. Made while the worker runs; the worker must outlive it, but for a
// stop that waits for the callback.
class HeldWorker {
  public:
    HeldWorker(SimRig& rig, QV_CHANNEL channel) : m_channel(channel) {
        m_handle = QVRegisterNotifyWithCallback(channel, kBit, CallNotify, &m_hold);
        EXPECT_NE(0u, m_handle);
        rig.Cards().RaiseNotification(0, 0, kBit);
        m_held.Pass();
    }
    HeldWorker(const HeldWorker&) = delete;
    HeldWorker& operator=(const HeldWorker&) = delete;
    ~HeldWorker() { LetGo(); }  // for tests that gave up; the others have seen the callback end
    void LetGo() { m_free.Open(); }
    // After LetGo, while the worker still runs.
    QV_RESULT Unregister() { return QVUnregisterNotify(m_channel, m_handle); }

  private:
    static constexpr unsigned int kBit = 0x4;
    QV_CHANNEL m_channel;
    unsigned long long m_handle = 0;
    Gate m_held;
    Gate m_free;
    NotifyFunction m_hold = [this](unsigned long long, unsigned int) {
        m_held.Open();
        m_free.Pass();
    };
};

class WorkerTest : public ChannelTest {
  protected:
    void SetUp() override {
        ChannelTest::SetUp();
        rig.Cards().FreezeClock();
        ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
        rig.ClearJournal();
    }
    // Has the function run on the worker thread, inside a notification callback, and waits for it.
    void OnWorker(const std::function<void()>& body) {
        Gate done;
        NotifyFunction function = [&](unsigned long long, unsigned int) {
            body();
            done.Open();
        };
        const auto handle = QVRegisterNotifyWithCallback(channel, 0x8000, CallNotify, &function);
        ASSERT_NE(0u, handle);
        rig.Cards().RaiseNotification(0, 0, 0x8000);
        done.Pass();
        ASSERT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, handle));
    }
    // Returns when the worker has handled everything that was signalled before.
    void Settle() {
        OnWorker([] {});
    }
    size_t CountRequests(const std::string& name) {
        size_t count = 0;
        for (const auto& request : Requests()) count += request == name ? 1 : 0;
        return count;
    }
};

}  // namespace qvtest
