// A channel whose driver misbehaves on request, for tests of the worker.
#pragma once

#include "FrameLayout.h"
#include "WorkerFixture.h"

namespace qvtest {

using qvsim::AfterStop;
using qvsim::RefuseLate;
using qvsim::Slow;

inline constexpr unsigned int kGrey = qv::Fourcc("GREY");
inline constexpr int kWidth = 64;
inline constexpr int kHeight = 4;

inline void CountFrame(unsigned long long, unsigned int, unsigned int, _QVCAP_VIDEO_FRAME_INFO*,
                       void* param) {
    if (param != nullptr) ++*static_cast<std::atomic<int>*>(param);
}

class UnrulyDriverTest : public WorkerTest {
  protected:
    qvsim::BoardBuilder BoardUnderTest() override {
        return Pelix().Channels(1).Video(kWidth, kHeight, 1000).Audio(1000);
    }
    QV_RESULT StartVideo(_QV_VIDEO_CAPTURE_MODE mode, std::atomic<int>* count = nullptr) {
        return QVStartVideoCaptureWithCallback(channel, kGrey, kWidth, kHeight, mode, CountFrame,
                                               count);
    }
    void NextFrame() { rig.Cards().AdvanceClock(10000); }
    // A slow request is noted when it has been served; a short read, which does nothing to these,
    // at its beginning.
    void Slowly(const std::string& request, int nth, uint32_t milliseconds) {
        rig.AddFault({.request = request, .nth = nth, .effect = Slow(milliseconds)});
        rig.AddFault({.request = request, .nth = nth, .effect = qvsim::ShortRead(0)});
    }
    void AwaitBegun(const std::string& request) { AwaitMet("short_read " + request); }
    // How often the fault has been met; the last request may still be under way.
    size_t CountMet(const std::string& fault) {
        const auto met = rig.MetFaults();
        return static_cast<size_t>(std::count_if(met.begin(), met.end(), [&](const auto& line) {
            return line.compare(0, fault.size(), fault) == 0;
        }));
    }
    void AwaitMet(const std::string& fault, size_t times = 1) {
        while (CountMet(fault) < times) std::this_thread::yield();
    }
};

class ReusedHandlesTest : public UnrulyDriverTest {
  protected:
    void SetUp() override {
        rig.Driver({.reuseHandles = true});
        UnrulyDriverTest::SetUp();
    }
};

class FramesAfterStopTest : public UnrulyDriverTest {
  protected:
    void SetUp() override {
        rig.Driver({.afterStop = AfterStop::kWriteAtStart});
        UnrulyDriverTest::SetUp();
    }
};

}  // namespace qvtest
