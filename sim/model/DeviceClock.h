// The device clock: 100 ns units, one per board, over one source of time that tests may stop and
// move by hand. Not locked: the model's lock covers it.
#pragma once

#include <chrono>
#include <cstdint>

namespace qvsim {

inline constexpr int64_t kClockUnitsPerSecond = 10'000'000;

// Time since the model was made, in device-clock units; the same for all boards.
class TimeSource {
  public:
    int64_t Now() const { return frozen_ ? frozenAt_ : Running(); }
    bool Frozen() const { return frozen_; }
    void Freeze() {
        frozenAt_ = Now();
        frozen_ = true;
    }
    void Advance(int64_t units) { frozenAt_ += units; }

  private:
    using Clock = std::chrono::steady_clock;
    int64_t Running() const {
        using Units = std::chrono::duration<int64_t, std::ratio<1, kClockUnitsPerSecond>>;
        return std::chrono::duration_cast<Units>(Clock::now() - start_).count();
    }
    Clock::time_point start_ = Clock::now();
    bool frozen_ = false;
    int64_t frozenAt_ = 0;
};

// What setting the clock of one board leaves behind. Sums wrap: the device's register does too.
class DeviceClock {
  public:
    int64_t At(int64_t sourceTime) const { return Wrap(sourceTime, offset_); }
    void Set(int64_t sourceTime, int64_t deviceTime) {
        offset_ = static_cast<int64_t>(static_cast<uint64_t>(deviceTime) -
                                       static_cast<uint64_t>(sourceTime));
    }

  private:
    static int64_t Wrap(int64_t a, int64_t b) {
        return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
    }
    int64_t offset_ = 0;
};

}  // namespace qvsim
