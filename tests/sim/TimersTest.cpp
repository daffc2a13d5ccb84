// Driver timers on the device clock: once, at their time, at once when that has passed.
#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

class TimersTest : public testing::Test {
  protected:
    void SetUp() override {
        rig_.Add(Pelix()).Add(Pelix());
        rig_.Attach();
        card_ = std::make_unique<Node>("/dev/video0");
        events_ = std::make_unique<Node>("/dev/qv-event");
        event_ = events_->CreateEvent();
        qv::RegisterTimerRecord record{0, event_};
        ASSERT_EQ(0, card_->Do(qv::kRegisterTimer, record));
        timer_ = record.timer;
    }
    int64_t Now() {
        int64_t now = 0;
        card_->Do(qv::kGetDeviceTime, now);
        return now;
    }
    int Schedule(int64_t expiry) {
        return card_->Do(qv::kScheduleTimer, qv::ScheduleTimerRecord{timer_, expiry});
    }
    bool Fired() { return events_->Do(qv::kTryWaitEvent, event_) == 1; }

    SimRig rig_;
    std::unique_ptr<Node> card_;
    std::unique_ptr<Node> events_;
    uint64_t event_ = 0;
    uint64_t timer_ = 0;
};

TEST_F(TimersTest, ATimerFiresOnceWhenTheClockReachesItsExpiry) {
    rig_.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 100));
    rig_.Cards().AdvanceClock(99);
    EXPECT_FALSE(Fired());
    rig_.Cards().AdvanceClock(1);
    EXPECT_TRUE(Fired());
    rig_.Cards().AdvanceClock(1000);
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
    EXPECT_EQ(1, events_->Wait(event_, -1));
    EXPECT_GE(Now(), 0);
}

TEST_F(TimersTest, AnEarlierTimerDoesNotWaitForALaterOne) {
    ASSERT_EQ(0, Schedule(INT64_MAX));
    qv::RegisterTimerRecord second{0, event_};
    ASSERT_EQ(0, card_->Do(qv::kRegisterTimer, second));
    ASSERT_EQ(0, card_->Do(qv::kScheduleTimer, qv::ScheduleTimerRecord{second.timer, Now() + 1}));
    EXPECT_EQ(1, events_->Wait(event_, -1));
}

TEST_F(TimersTest, ANewScheduleReplacesTheOldOne) {
    rig_.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 10));
    ASSERT_EQ(0, Schedule(Now() + 50));
    rig_.Cards().AdvanceClock(20);
    EXPECT_FALSE(Fired());
    rig_.Cards().AdvanceClock(30);
    EXPECT_TRUE(Fired());
}

TEST_F(TimersTest, AnUnregisteredTimerNeverFires) {
    rig_.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 10));
    ASSERT_EQ(0, card_->Do(qv::kUnregisterTimer, timer_));
    rig_.Cards().AdvanceClock(20);
    EXPECT_FALSE(Fired());
    EXPECT_EQ(-1, Schedule(0));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(TimersTest, SettingTheClockAheadMakesItsBoardsTimersDue) {
    rig_.Cards().FreezeClock();
    ASSERT_EQ(0, Schedule(Now() + 1000));
    Node other("/dev/video1");
    ASSERT_EQ(0, other.Do(qv::kSetDeviceTime, int64_t{1'000'000'000'000}));
    EXPECT_FALSE(Fired());
    ASSERT_EQ(0, card_->Do(qv::kSetDeviceTime, int64_t{1'000'000'000'000}));
    EXPECT_TRUE(Fired());
}

}  // namespace
}  // namespace qvsim
