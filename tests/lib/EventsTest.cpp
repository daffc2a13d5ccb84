// Events through the shared node; notifications, driver timers and the clock of a channel.
#include "ChannelFixture.h"

namespace qvtest {
namespace {

class EventsTest : public ChannelTest {
  protected:
    void SetUp() override {
        ChannelTest::SetUp();
        event = QVCreateEvent();
        ASSERT_NE(0u, event);
        rig.ClearJournal();
    }
    void TearDown() override {
        QVCloseEvent(event);
        ChannelTest::TearDown();
    }
    unsigned long long event = 0;
};

TEST_F(EventsTest, ASetEventIsConsumedByOneWait) {
    EXPECT_EQ(0, QVIsSetEvent(event));
    EXPECT_EQ(0, QVTryWaitEvent(event));
    EXPECT_EQ(QV_RESULT_OK, QVSetEvent(event));
    EXPECT_NE(0, QVIsSetEvent(event));
    EXPECT_EQ(1, QVTryWaitEvent(event));
    EXPECT_EQ(0, QVTryWaitEvent(event));
    EXPECT_EQ(QV_RESULT_OK, QVSetEvent(event));
    EXPECT_EQ(1, QVWaitEvent(event, -1));
    EXPECT_EQ(0, QVWaitEvent(event, 1));
    EXPECT_EQ(QV_RESULT_OK, QVSetEvent(event));
    EXPECT_EQ(QV_RESULT_OK, QVClearEvent(event));
    EXPECT_EQ(0, QVTryWaitEvent(event));
}

TEST_F(EventsTest, WaitRecordsCarryHandleAndTimeOut) {
    QVSetEvent(event);
    QVWaitEvent(event, -1);
    EXPECT_EQ(Bytes(Wire().U64(event).U32(0xFFFFFFFF)), EventReceived("WaitEvent"));
    QVSetEvent(event);
    unsigned long long events[1] = {event};
    EXPECT_EQ(1, QVMultiWaitEvent(events, 1, 250));
    EXPECT_EQ(Bytes(Wire().U64(reinterpret_cast<uintptr_t>(events)).U32(1).U32(250)),
              EventReceived("MultiWaitEvent"));
}

TEST_F(EventsTest, HandleZeroAsksNobody) {
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVSetEvent(0));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVClearEvent(0));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVCloseEvent(0));
    EXPECT_EQ(0, QVIsSetEvent(0));
    EXPECT_EQ(0, QVTryWaitEvent(0));
    EXPECT_EQ(0, QVWaitEvent(0, -1));
    EXPECT_EQ(0, QVMultiWaitEvent(nullptr, 1, -1));
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(EventsTest, UnknownHandlesFail) {
    EXPECT_EQ(QV_RESULT_FAILED, QVSetEvent(0xDEAD));
    EXPECT_EQ(QV_RESULT_FAILED, QVCloseEvent(0xDEAD));
    EXPECT_EQ(-1, QVTryWaitEvent(0xDEAD));
    EXPECT_EQ(-1, QVWaitEvent(0xDEAD, 0));
    EXPECT_EQ(1, QVIsSetEvent(0xDEAD)) << "every answer but 0 counts as set";
}

TEST_F(EventsTest, MultiWaitConsumesEverySetEventAndTellsThemByBit) {
    unsigned long long events[3] = {QVCreateEvent(), QVCreateEvent(), QVCreateEvent()};
    QVSetEvent(events[0]);
    QVSetEvent(events[2]);
    EXPECT_EQ(5, QVMultiWaitEvent(events, 3, -1));
    EXPECT_EQ(0, QVMultiWaitEvent(events, 3, 0));
    EXPECT_EQ(0, QVMultiWaitEvent(events, 0, 0));
    for (unsigned long long one : events) QVCloseEvent(one);
}

TEST_F(EventsTest, AMultiWaitThatTimesOutTriesNoEvent) {
    unsigned long long events[] = {QVCreateEvent(), QVCreateEvent()};
    rig.ClearJournal();
    EXPECT_EQ(0, QVMultiWaitEvent(events, 2, 0));
    EXPECT_THAT(Requests(), ElementsAre("MultiWaitEvent"));
    for (const auto made : events) QVCloseEvent(made);
}

TEST_F(EventsTest, MultiWaitOfFortyEventsSharesBitsModulo32) {
    unsigned long long events[40];
    for (auto& one : events) one = QVCreateEvent();
    QVSetEvent(events[32]);
    EXPECT_EQ(1, QVMultiWaitEvent(events, 40, -1));
    QVSetEvent(events[1]);
    QVSetEvent(events[39]);
    EXPECT_EQ(1 << 1 | 1 << 7, QVMultiWaitEvent(events, 40, -1));
    for (auto one : events) QVCloseEvent(one);
}

TEST_F(EventsTest, ARefusedCreateGives0) {
    RefuseFromNowOn("CreateEvent");
    EXPECT_EQ(0u, QVCreateEvent());
}

TEST_F(EventsTest, WithTheEventNodeClosedCreateGives3AndNothingIsAsked) {
    QVCloseEvent(event);
    QVCaptureExitInstance();
    rig.ClearJournal();
    EXPECT_EQ(3u, QVCreateEvent());
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVSetEvent(3));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVClearEvent(3));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVCloseEvent(3));
    EXPECT_EQ(0, QVIsSetEvent(3));
    EXPECT_EQ(0, QVTryWaitEvent(3));
    EXPECT_EQ(0, QVWaitEvent(3, -1));
    unsigned long long events[1] = {3};
    EXPECT_EQ(0, QVMultiWaitEvent(events, 1, -1));
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(EventsTest, NotificationsSetTheirEventAndTellTheirBits) {
    const unsigned long long notify = QVRegisterNotify(channel, event, 0x500);
    ASSERT_NE(0u, notify);
    EXPECT_EQ(Bytes(Wire().U64(0).U64(0x500).U64(event)), Received("RegisterNotify"));
    rig.Cards().RaiseNotification(0, 0, 0x400);
    EXPECT_EQ(1, QVWaitEvent(event, -1));
    unsigned long long status = 0;
    EXPECT_EQ(QV_RESULT_OK, QVGetNotifyStatus(channel, notify, &status));
    EXPECT_EQ(0x400u, status);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, notify));
    EXPECT_EQ(QV_RESULT_FAILED, QVUnregisterNotify(channel, notify));
    EXPECT_EQ(0u, QVRegisterNotify(channel, 0, 1));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVUnregisterNotify(channel, 0));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetNotifyStatus(channel, 0, &status));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetNotifyStatus(channel, notify, nullptr));
    RefuseFromNowOn("RegisterNotify");
    EXPECT_EQ(0u, QVRegisterNotify(channel, event, 1));
}

TEST_F(EventsTest, ADriverTimerSetsItsEventAtItsExpiry) {
    rig.Cards().FreezeClock();
    long long now = 0;
    ASSERT_EQ(QV_RESULT_OK, QVGetDeviceTime(channel, &now));
    const unsigned long long timer = QVRegisterTimer(channel, event);
    ASSERT_NE(0u, timer);
    EXPECT_EQ(Bytes(Wire().U64(0).U64(event)), Received("RegisterTimer"));
    EXPECT_EQ(QV_RESULT_OK, QVScheduleTimer(channel, timer, now + 100));
    EXPECT_EQ(Bytes(Wire().U64(timer).U64(static_cast<uint64_t>(now + 100))),
              Received("ScheduleTimer"));
    EXPECT_EQ(0, QVTryWaitEvent(event));
    rig.Cards().AdvanceClock(100);
    EXPECT_EQ(1, QVWaitEvent(event, -1));
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterTimer(channel, timer));
    EXPECT_EQ(0u, QVRegisterTimer(channel, 0));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVScheduleTimer(channel, 0, 1));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVUnregisterTimer(channel, 0));
    RefuseFromNowOn("RegisterTimer");
    EXPECT_EQ(0u, QVRegisterTimer(channel, event));
}

TEST_F(EventsTest, TheDeviceClockIsReadSetAndRegulated) {
    rig.Cards().FreezeClock();
    EXPECT_EQ(QV_RESULT_OK, QVSetDeviceTime(channel, 0x1122334455));
    EXPECT_EQ(Bytes(Wire().U64(0x1122334455)), Received("SetDeviceTime"));
    long long time = 0;
    EXPECT_EQ(QV_RESULT_OK, QVGetDeviceTime(channel, &time));
    EXPECT_EQ(0x1122334455, time);
    EXPECT_EQ(QV_RESULT_OK, QVRegulateDeviceTime(channel, -5));
    EXPECT_EQ(Bytes(8, 0xFF).size(), Received("RegulateDeviceTime").size());
    EXPECT_EQ(Bytes(Wire().U64(static_cast<uint64_t>(-5))), Received("RegulateDeviceTime"));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetDeviceTime(channel, nullptr));
    RefuseFromNowOn("GetDeviceTime");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetDeviceTime(channel, &time));
}

}  // namespace
}  // namespace qvtest
