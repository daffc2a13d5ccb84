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
        m_rig.Add(Pelix());
        m_rig.Attach();
        m_events = std::make_unique<Node>("/dev/qv-event");
    }
    SimRig m_rig;
    std::unique_ptr<Node> m_events;
};

TEST_F(EventsTest, ATryWaitConsumesTheSignal) {
    const uint64_t event = m_events->CreateEvent();
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, event));
    EXPECT_EQ(0, m_events->Do(qv::kSetEvent, event));
    EXPECT_EQ(1, m_events->Do(qv::kIsSetEvent, event));
    EXPECT_EQ(1, m_events->Do(qv::kTryWaitEvent, event));
    EXPECT_EQ(0, m_events->Do(qv::kIsSetEvent, event));
}

TEST_F(EventsTest, ClearingForgetsTheSignal) {
    const uint64_t event = m_events->CreateEvent();
    m_events->Do(qv::kSetEvent, event);
    EXPECT_EQ(0, m_events->Do(qv::kClearEvent, event));
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, event));
}

TEST_F(EventsTest, AWaitConsumesTheSignalAndATimeOutAnswersZero) {
    const uint64_t event = m_events->CreateEvent();
    m_events->Do(qv::kSetEvent, event);
    EXPECT_EQ(1, m_events->Wait(event, -1));
    EXPECT_EQ(0, m_events->Wait(event, 0));
    EXPECT_EQ(0, m_events->Wait(event, 5));
}

TEST_F(EventsTest, AWaitForSeveralConsumesNothing) {
    const uint64_t first = m_events->CreateEvent();
    const uint64_t second = m_events->CreateEvent();
    EXPECT_EQ(0, m_events->WaitSeveral({first, second}, 1));
    m_events->Do(qv::kSetEvent, second);
    EXPECT_EQ(1, m_events->WaitSeveral({first, second}, -1));
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, first));
    EXPECT_EQ(1, m_events->Do(qv::kTryWaitEvent, second));
}

TEST_F(EventsTest, SettingAnEventWakesItsWaiter) {
    const uint64_t event = m_events->CreateEvent();
    int answer = 0;
    std::thread waiter([&] { answer = m_events->Wait(event, -1); });
    m_events->Do(qv::kSetEvent, event);
    waiter.join();
    EXPECT_EQ(1, answer);
}

// Five minutes are milliseconds, not microseconds: a driver that confuses them gives up after 0.3
// s.
TEST_F(EventsTest, ALongWaitIsNotGivenUpEarly) {
    const uint64_t event = m_events->CreateEvent();
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        m_events->Do(qv::kSetEvent, event);
    });
    EXPECT_EQ(1, m_events->Wait(event, 300000));
    setter.join();
}

TEST_F(EventsTest, TheJournalTellsWhatAWaitIsFor) {
    const uint64_t event = m_events->CreateEvent();
    EXPECT_EQ(0, m_events->Wait(event, 2));
    EXPECT_EQ(0, m_events->WaitSeveral({event}, 3));
    const auto lines = m_rig.Journal();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_THAT(lines[lines.size() - 2], testing::HasSubstr(" WaitEvent event=0x"));
    EXPECT_THAT(lines[lines.size() - 2], testing::HasSubstr(" timeout=2 "));
    EXPECT_THAT(lines.back(), testing::HasSubstr(" MultiWaitEvent count=1 timeout=3 "));
}

TEST_F(EventsTest, ClosingAnEventWakesItsWaiterWithAnError) {
    const uint64_t event = m_events->CreateEvent();
    int answer = 0;
    std::thread waiter([&] { answer = m_events->Wait(event, -1); });
    m_events->Do(qv::kCloseEvent, event);
    waiter.join();
    EXPECT_EQ(-1, answer);
    EXPECT_EQ(-1, m_events->Do(qv::kSetEvent, event));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(EventsTest, DetachingEndsEveryWait) {
    const uint64_t event = m_events->CreateEvent();
    int answer = 0;
    int error = 0;
    std::thread waiter([&] {
        answer = m_events->WaitSeveral({event}, -1);
        error = errno;
    });
    m_rig.Detach();
    waiter.join();
    EXPECT_EQ(-1, answer);
    EXPECT_EQ(ENODEV, error);
}

TEST_F(EventsTest, AWaitSetWithAnUnknownHandleOrNoHandleIsRefused) {
    const uint64_t event = m_events->CreateEvent();
    EXPECT_EQ(-1, m_events->WaitSeveral({event, 3}, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, m_events->WaitSeveral({}, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, m_events->Do(qv::kMultiWaitEvent, qv::MultiWaitEventRecord{0, 1, 0}));
    EXPECT_EQ(EFAULT, errno);
}

}  // namespace
}  // namespace qvsim
