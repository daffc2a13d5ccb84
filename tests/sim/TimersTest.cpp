// Driver timers on the device clock: once, at their time, at once when that has passed.
#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

class TimersTest : public testing::Test {
  protected:
    void SetUp() override {
        m_rig.Add(Pelix()).Add(Pelix());
        m_rig.Attach();
        m_card = std::make_unique<Node>("/dev/video0");
        m_events = std::make_unique<Node>("/dev/qv-event");
        m_event = m_events->CreateEvent();
        qv::RegisterTimerRecord record{0, m_event};
        ASSERT_EQ(0, m_card->Do(qv::kRegisterTimer, record));
        m_timer = record.timer;
    }
    int64_t Now() {
        int64_t now = 0;
        m_card->Do(qv::kGetDeviceTime, now);
        return now;
    }
    int Schedule(int64_t expiry) {
        return m_card->Do(qv::kScheduleTimer, qv::ScheduleTimerRecord{m_timer, expiry});
    }
    bool Fired() { return m_events->Do(qv::kTryWaitEvent, m_event) == 1; }

    SimRig m_rig;
    std::unique_ptr<Node> m_card;
    std::unique_ptr<Node> m_events;
    uint64_t m_event = 0;
    uint64_t m_timer = 0;
};

TEST_F(TimersTest, ATimerFiresOnceWhenTheClockReachesItsExpiry) {
    m_rig.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 100));
    m_rig.Cards().AdvanceClock(99);
    EXPECT_FALSE(Fired());
    m_rig.Cards().AdvanceClock(1);
    EXPECT_TRUE(Fired());
    m_rig.Cards().AdvanceClock(1000);
    EXPECT_FALSE(Fired());
}

TEST_F(TimersTest, AnExpiryThatHasPassedFiresAtOnce) {
    ASSERT_EQ(0, Schedule(Now()));
    EXPECT_TRUE(Fired());
    ASSERT_EQ(0, Schedule(INT64_MIN));
    EXPECT_TRUE(Fired());
}

TEST_F(TimersTest, ATimerFiresByItselfOnTheRunningClock) {
    ASSERT_EQ(0, Schedule(Now() + kClockUnitsPerSecond / 1000));
    EXPECT_EQ(1, m_events->Wait(m_event, -1));
    EXPECT_GE(Now(), 0);
}

TEST_F(TimersTest, AnEarlierTimerDoesNotWaitForALaterOne) {
    ASSERT_EQ(0, Schedule(INT64_MAX));
    qv::RegisterTimerRecord second{0, m_event};
    ASSERT_EQ(0, m_card->Do(qv::kRegisterTimer, second));
    ASSERT_EQ(0, m_card->Do(qv::kScheduleTimer, qv::ScheduleTimerRecord{second.timer, Now() + 1}));
    EXPECT_EQ(1, m_events->Wait(m_event, -1));
}

TEST_F(TimersTest, ANewScheduleReplacesTheOldOne) {
    m_rig.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 10));
    ASSERT_EQ(0, Schedule(Now() + 50));
    m_rig.Cards().AdvanceClock(20);
    EXPECT_FALSE(Fired());
    m_rig.Cards().AdvanceClock(30);
    EXPECT_TRUE(Fired());
}

TEST_F(TimersTest, AnUnregisteredTimerNeverFires) {
    m_rig.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 10));
    ASSERT_EQ(0, m_card->Do(qv::kUnregisterTimer, m_timer));
    m_rig.Cards().AdvanceClock(20);
    EXPECT_FALSE(Fired());
    EXPECT_EQ(-1, Schedule(0));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(TimersTest, SettingTheClockAheadMakesItsBoardsTimersDue) {
    m_rig.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 1000));
    Node other("/dev/video1");
    ASSERT_EQ(0, other.Do(qv::kSetDeviceTime, int64_t{1'000'000'000'000}));
    EXPECT_FALSE(Fired());
    ASSERT_EQ(0, m_card->Do(qv::kSetDeviceTime, int64_t{1'000'000'000'000}));
    EXPECT_TRUE(Fired());
}

}  // namespace
}  // namespace qvsim
