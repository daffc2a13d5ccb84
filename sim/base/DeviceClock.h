// The device clock: 100 ns units, one per board, all based on one time source that tests may stop
// and advance. Not locked: the model's lock covers it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qvsim {

inline constexpr int64_t kClockUnitsPerSecond = 10'000'000;

// Time since the model was made, in device-clock units; the same for all boards.
class TimeSource {
  public:
    int64_t Now() const { return m_frozen ? m_frozenAt : Units(Clock::now() - m_start); }
    bool Frozen() const { return m_frozen; }
    void Freeze() {
        m_frozenAt = Now();
        m_frozen = true;
    }
    void Advance(int64_t units) { m_frozenAt += units; }
    // When the model was made, in a time that all processes of the machine share.
    int64_t Start() const { return Units(m_start.time_since_epoch()); }

  private:
    using Clock = std::chrono::steady_clock;
    static int64_t Units(Clock::duration time) {
        using Ticks = std::chrono::duration<int64_t, std::ratio<1, kClockUnitsPerSecond>>;
        return std::chrono::duration_cast<Ticks>(time).count();
    }
    Clock::time_point m_start = Clock::now();
    bool m_frozen = false;
    int64_t m_frozenAt = 0;
};

// A clock is stored as its difference to a running time: that of the source or, where processes
// share the clock, that of the machine. Sums wrap, as in the device's register.
class DeviceClock {
  public:
    DeviceClock() = default;
    DeviceClock(const DeviceClock&) = delete;
    DeviceClock& operator=(const DeviceClock&) = delete;

    // From now on `difference` stores the difference to the machine's time.
    void Share(int64_t* difference, int64_t sourceStart) {
        m_difference = difference;
        m_sourceStart = sourceStart;
    }
    int64_t At(int64_t sourceTime) const {
        const int64_t difference = std::atomic_ref<int64_t>(*m_difference).load();
        return Wrap(Wrap(sourceTime, m_sourceStart), difference);
    }
    void Set(int64_t sourceTime, int64_t deviceTime) {
        const int64_t machineTime = Wrap(sourceTime, m_sourceStart);
        std::atomic_ref<int64_t>(*m_difference)
            .store(static_cast<int64_t>(static_cast<uint64_t>(deviceTime) -
                                        static_cast<uint64_t>(machineTime)));
    }

  private:
    static int64_t Wrap(int64_t a, int64_t b) {
        return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
    }
    alignas(8) int64_t m_own = 0;
    int64_t* m_difference = &m_own;
    int64_t m_sourceStart = 0;
};

}  // namespace qvsim
