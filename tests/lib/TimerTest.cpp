// Timer callbacks on the channel worker, driven by a device clock that the test advances.
#include <algorithm>

#include "WorkerFixture.h"

namespace qvtest {
namespace {

// Timers have no parameter of their own: callbacks report here.
struct TimerLog {
    Recorder<unsigned long long> fired;
    std::function<void(unsigned long long)> onFire;
};
TimerLog* g_log = nullptr;

void OnTimer(unsigned long long handle, void* param) {
    EXPECT_EQ(nullptr, param);
    if (g_log->onFire) g_log->onFire(handle);
    g_log->fired.Add(handle);
}

class TimerTest : public WorkerTest {
  protected:
    void SetUp() override {
        WorkerTest::SetUp();
        g_log = &log;
    }
    void TearDown() override {
        WorkerTest::TearDown();
        g_log = nullptr;
    }
    long long Now() {
        long long now = 0;
        EXPECT_EQ(QV_RESULT_OK, QVGetDeviceTime(channel, &now));
        return now;
    }
    // Expiry of the last schedule request.
    long long Scheduled() {
        const Bytes record = Received("ScheduleTimer");
        long long expiry = 0;
        if (record.size() == 16) memcpy(&expiry, record.data() + 8, 8);
        return expiry;
    }
    TimerLog log;
};

TEST_F(TimerTest, AOneShotTimerFiresOnceAndItsHandleIsUnknownAfterwards) {
    const auto timer = QVCreateTimer(channel, OnTimer, 100, 0);
    ASSERT_NE(0u, timer);
    EXPECT_EQ(Now() + 100, Scheduled());
    rig.Cards().AdvanceClock(99);
    Settle();
    EXPECT_THAT(log.fired.Items(), IsEmpty());
    rig.Cards().AdvanceClock(1);
    EXPECT_THAT(log.fired.AwaitCount(1), ElementsAre(timer));
    rig.Cards().AdvanceClock(1000);
    Settle();
    EXPECT_EQ(1u, log.fired.Items().size());
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, timer));
}

TEST_F(TimerTest, HandlesAreTheirAddressSignExtended) {
    const auto timer = QVCreateTimer(channel, OnTimer, 100, 0);
    const auto narrow = static_cast<intptr_t>(timer);
    EXPECT_EQ(timer, static_cast<unsigned long long>(static_cast<long long>(narrow)));
}

TEST_F(TimerTest, APeriodicTimerIsNextDueOnePeriodAfterTheDispatchThatRanLate) {
    const auto timer = QVCreateTimer(channel, OnTimer, 100, 50);
    rig.Cards().AdvanceClock(1000);  // 18 periods late: one call, nothing to catch up with
    log.fired.AwaitCount(1);
    Settle();
    EXPECT_EQ(1u, log.fired.Items().size());
    EXPECT_EQ(Now() + 50, Scheduled());
    rig.Cards().AdvanceClock(50);
    log.fired.AwaitCount(2);
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, timer)) << "deliberate for the last timer";
}

TEST_F(TimerTest, DestroyingTheLastTimerReportsAFailureAlthoughItIsGone) {
    const auto timer = QVCreateTimer(channel, OnTimer, 100, 50);
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, timer));
    rig.Cards().AdvanceClock(1000);
    Settle();
    EXPECT_THAT(log.fired.Items(), IsEmpty());
}

TEST_F(TimerTest, DestroyingOneOfTwoSucceedsAndAnUnknownHandleFails) {
    const auto one = QVCreateTimer(channel, OnTimer, 100, 0);
    const auto two = QVCreateTimer(channel, OnTimer, 100, 0);
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, one + 1));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryTimer(channel, one));
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, one));
    rig.Cards().AdvanceClock(100);
    EXPECT_THAT(log.fired.AwaitCount(1), ElementsAre(two));
}

// Where a record is in memory is the heap's choice: timers are made until one that expires later is
// below one that expires earlier, and the others are destroyed.
TEST_F(TimerTest, TheTimerAtTheLowerAddressDecidesWhenTheDriverWakes) {
    const auto start = Now();
    std::vector<unsigned long long> lateOnes;
    for (int i = 0; i < 16; ++i) lateOnes.push_back(QVCreateTimer(channel, OnTimer, 500, 0));
    const auto late = *std::min_element(lateOnes.begin(), lateOnes.end());
    unsigned long long early = 0;
    std::vector<unsigned long long>
        low;  // that stay where they are, so that another place is taken
    while ((early = QVCreateTimer(channel, OnTimer, 10, 0)) < late) low.push_back(early);
    for (const auto timer : lateOnes)
        if (timer != late) QVDestoryTimer(channel, timer);
    for (const auto timer : low) QVDestoryTimer(channel, timer);
    ASSERT_LT(late, early);
    EXPECT_EQ(start + 500, Scheduled());
    rig.Cards().AdvanceClock(10);
    Settle();
    EXPECT_THAT(log.fired.Items(), IsEmpty()) << "due earlier, called when the lower one is";
    rig.Cards().AdvanceClock(490);
    EXPECT_THAT(log.fired.AwaitCount(2), ElementsAre(late, early));
}

TEST_F(TimerTest, CallbacksOfBothKindsMayEndTimersNotificationsAndCapture) {
    const auto notify = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    const auto start = [&] {
        return QVStartVideoCaptureWithCallback(channel, 0, 8, 8, QV_VIDEO_CAPTURE_BACK_TO_BACK,
                                               nullptr, nullptr);
    };
    Recorder<QV_RESULT> results;
    auto other = QVCreateTimer(channel, OnTimer, 1000, 0);
    ASSERT_EQ(QV_RESULT_OK, start());
    OnWorker([&] {
        QVCreateTimer(channel, OnTimer, 100, 100);
        results.Add(QVDestoryTimer(channel, other));
        results.Add(QVUnregisterNotify(channel, notify));
        results.Add(QVStopVideoCaptureWithCallback(channel));
    });
    EXPECT_THAT(results.Items(), ElementsAre(QV_RESULT_OK, QV_RESULT_OK, QV_RESULT_OK));
    const auto second = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    ASSERT_EQ(QV_RESULT_OK, start());
    log.onFire = [&](unsigned long long handle) {
        results.Add(QVUnregisterNotify(channel, second));
        results.Add(QVStopVideoCaptureWithCallback(channel));
        results.Add(QVDestoryTimer(channel, handle));
    };
    rig.Cards().AdvanceClock(100);
    log.fired.AwaitCount(1);
    EXPECT_THAT(results.Items(), ElementsAre(QV_RESULT_OK, QV_RESULT_OK, QV_RESULT_OK, QV_RESULT_OK,
                                             QV_RESULT_OK, QV_RESULT_FAILED))
        << "the failure is deliberate for the last timer";
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    EXPECT_EQ(0u, rig.Cards().CountAlive().captures);
}

TEST_F(TimerTest, EachCreateAndDestroyRegistersTheDriverTimerAnewOnTheSameEvent) {
    const auto one = QVCreateTimer(channel, OnTimer, 100, 0);
    const auto event = Slice(Received("RegisterTimer"), 8, 16);
    rig.ClearJournal();
    QVCreateTimer(channel, OnTimer, 100, 0);
    EXPECT_EQ(1u, CountRequests("UnregisterTimer"));
    EXPECT_EQ(1u, CountRequests("RegisterTimer"));
    EXPECT_EQ(1u, CountRequests("ScheduleTimer"));
    EXPECT_EQ(event, Slice(Received("RegisterTimer"), 8, 16));
    EXPECT_EQ(1u, rig.Cards().CountAlive().timers);
    QVDestoryTimer(channel, one);
    EXPECT_EQ(1u, rig.Cards().CountAlive().timers);
}

TEST_F(TimerTest, WithoutTheDeviceTimeNothingIsCreated) {
    RefuseFromNowOn("GetDeviceTime");
    EXPECT_EQ(0u, QVCreateTimer(channel, OnTimer, 100, 0));
    EXPECT_EQ(0u, CountRequests("RegisterTimer"));
}

TEST_F(TimerTest, ARefusedDriverTimerLeavesNoRecordBehind) {
    rig.AddFault({.request = "RegisterTimer", .effect = Refuse(EIO)});
    EXPECT_EQ(0u, QVCreateTimer(channel, OnTimer, 100, 0));
    EXPECT_EQ(1u, rig.Cards().CountAlive().events) << "the wake event alone";
    const auto timer = QVCreateTimer(channel, OnTimer, 100, 0);
    ASSERT_NE(0u, timer);
    rig.Cards().AdvanceClock(100);
    EXPECT_THAT(log.fired.AwaitCount(1), ElementsAre(timer));
}

TEST_F(TimerTest, ARefusedScheduleFailsTheCreation) {
    rig.AddFault({.request = "ScheduleTimer", .effect = Refuse(EIO)});
    EXPECT_EQ(0u, QVCreateTimer(channel, OnTimer, 100, 0));
    EXPECT_NE(0u, QVCreateTimer(channel, OnTimer, 100, 0));
}

TEST_F(TimerTest, AnUnreadableClockAtTheDispatchCallsNobody) {
    QVCreateTimer(channel, OnTimer, 100, 0);
    rig.AddFault({.request = "GetDeviceTime", .effect = Refuse(EIO)});
    rig.ClearJournal();
    rig.Cards().AdvanceClock(100);
    while (CountRequests("GetDeviceTime") < 1) std::this_thread::yield();
    Settle();
    EXPECT_THAT(log.fired.Items(), IsEmpty());
    EXPECT_EQ(0u, CountRequests("ScheduleTimer"));
}

TEST_F(TimerTest, ATimerMayDestroyItselfAndItsNeighboursInTheWalk) {
    std::vector<unsigned long long> timers;
    for (int i = 0; i < 4; ++i) timers.push_back(QVCreateTimer(channel, OnTimer, 100, 50));
    std::sort(timers.begin(), timers.end());
    log.onFire = [&](unsigned long long handle) {
        if (handle != timers[0]) return;
        QVDestoryTimer(channel, timers[0]);
        QVDestoryTimer(channel, timers[1]);
    };
    rig.Cards().AdvanceClock(100);
    log.fired.AwaitCount(3);
    Settle();
    EXPECT_THAT(log.fired.Items(), ElementsAre(timers[0], timers[2], timers[3]));
}

TEST_F(TimerTest, ATimerMayCreateTimersInTheWalk) {
    std::atomic<int> made{0};
    log.onFire = [&](unsigned long long) {
        if (made++ >= 10) return;
        EXPECT_NE(0u, QVCreateTimer(channel, OnTimer, 0, 0));
    };
    QVCreateTimer(channel, OnTimer, 100, 0);
    rig.Cards().AdvanceClock(100);
    log.fired.AwaitCount(11);  // each one that was due at once was called too
}

TEST_F(TimerTest, DelaysBeyondTheClocksRangeStayAtItsEnd) {
    const auto timer = QVCreateTimer(channel, OnTimer, INT64_MAX, 0);
    ASSERT_NE(0u, timer);
    EXPECT_EQ(INT64_MAX, Scheduled());
}

TEST_F(TimerTest, ANullCallbackIsNotCalled) {
    const auto timer = QVCreateTimer(channel, nullptr, 10, 0);
    rig.Cards().AdvanceClock(10);
    Settle();
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, timer)) << "it has expired";
}

TEST_F(TimerTest, StoppingTheThreadReleasesTimersAndTheirEvent) {
    for (int i = 0; i < 3; ++i) QVCreateTimer(channel, OnTimer, 100, 50);
    QVStopChannelThread(channel);
    EXPECT_EQ(0u, rig.Cards().CountAlive().timers);
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
}

}  // namespace
}  // namespace qvtest
