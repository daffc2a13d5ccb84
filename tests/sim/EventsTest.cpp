// Events as the driver has them: auto-reset, waited for by one or several, closed under waiters.
#include <thread>

#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

class EventsTest : public testing::Test {
  protected:
    void SetUp() override {
        rig_.Add(Pelix());
        rig_.Attach();
        events_ = std::make_unique<Node>("/dev/qv-event");
    }
    SimRig rig_;
    std::unique_ptr<Node> events_;
};

TEST_F(EventsTest, ATryWaitConsumesTheSignal) {
    const uint64_t event = events_->CreateEvent();
    EXPECT_EQ(0, events_->Do(qv::kTryWaitEvent, event));
    EXPECT_EQ(0, events_->Do(qv::kSetEvent, event));
    EXPECT_EQ(1, events_->Do(qv::kIsSetEvent, event));
    EXPECT_EQ(1, events_->Do(qv::kTryWaitEvent, event));
    EXPECT_EQ(0, events_->Do(qv::kIsSetEvent, event));
}

TEST_F(EventsTest, ClearingForgetsTheSignal) {
    const uint64_t event = events_->CreateEvent();
    events_->Do(qv::kSetEvent, event);
    EXPECT_EQ(0, events_->Do(qv::kClearEvent, event));
    EXPECT_EQ(0, events_->Do(qv::kTryWaitEvent, event));
}

TEST_F(EventsTest, AWaitConsumesTheSignalAndATimeOutAnswersZero) {
    const uint64_t event = events_->CreateEvent();
    events_->Do(qv::kSetEvent, event);
    EXPECT_EQ(1, events_->Wait(event, -1));
    EXPECT_EQ(0, events_->Wait(event, 0));
    EXPECT_EQ(0, events_->Wait(event, 5));
}

TEST_F(EventsTest, AWaitForSeveralConsumesNothing) {
    const uint64_t first = events_->CreateEvent();
    const uint64_t second = events_->CreateEvent();
    EXPECT_EQ(0, events_->WaitSeveral({first, second}, 1));
    events_->Do(qv::kSetEvent, second);
    EXPECT_EQ(1, events_->WaitSeveral({first, second}, -1));
    EXPECT_EQ(0, events_->Do(qv::kTryWaitEvent, first));
    EXPECT_EQ(1, events_->Do(qv::kTryWaitEvent, second));
}

TEST_F(EventsTest, SettingAnEventWakesItsWaiter) {
    const uint64_t event = events_->CreateEvent();
    int answer = 0;
    std::thread waiter([&] { answer = events_->Wait(event, -1); });
    events_->Do(qv::kSetEvent, event);
    waiter.join();
    EXPECT_EQ(1, answer);
}

// Five minutes are milliseconds, not microseconds: a driver that confuses them gives up after 0.3
// s.
TEST_F(EventsTest, ALongWaitIsNotGivenUpEarly) {
    const uint64_t event = events_->CreateEvent();
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        events_->Do(qv::kSetEvent, event);
    });
    EXPECT_EQ(1, events_->Wait(event, 300000));
    setter.join();
}

TEST_F(EventsTest, TheJournalTellsWhatAWaitIsFor) {
    const uint64_t event = events_->CreateEvent();
    EXPECT_EQ(0, events_->Wait(event, 2));
    EXPECT_EQ(0, events_->WaitSeveral({event}, 3));
    const auto lines = rig_.Journal();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_THAT(lines[lines.size() - 2], testing::HasSubstr(" WaitEvent event=0x"));
    EXPECT_THAT(lines[lines.size() - 2], testing::HasSubstr(" timeout=2 "));
    EXPECT_THAT(lines.back(), testing::HasSubstr(" MultiWaitEvent count=1 timeout=3 "));
}

TEST_F(EventsTest, ClosingAnEventWakesItsWaiterWithAnError) {
    const uint64_t event = events_->CreateEvent();
    int answer = 0;
    std::thread waiter([&] { answer = events_->Wait(event, -1); });
    events_->Do(qv::kCloseEvent, event);
    waiter.join();
    EXPECT_EQ(-1, answer);
    EXPECT_EQ(-1, events_->Do(qv::kSetEvent, event));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(EventsTest, DetachingEndsEveryWait) {
    const uint64_t event = events_->CreateEvent();
    int answer = 0;
    int error = 0;
    std::thread waiter([&] {
        answer = events_->WaitSeveral({event}, -1);
        error = errno;
    });
    rig_.Detach();
    waiter.join();
    EXPECT_EQ(-1, answer);
    EXPECT_EQ(ENODEV, error);
}

TEST_F(EventsTest, AWaitSetWithAnUnknownHandleOrNoHandleIsRefused) {
    const uint64_t event = events_->CreateEvent();
    EXPECT_EQ(-1, events_->WaitSeveral({event, 3}, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, events_->WaitSeveral({}, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, events_->Do(qv::kMultiWaitEvent, qv::MultiWaitEventRecord{0, 1, 0}));
    EXPECT_EQ(EFAULT, errno);
}

}  // namespace
}  // namespace qvsim
