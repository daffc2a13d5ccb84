// Notification callbacks on the channel worker.
#include "WorkerFixture.h"

namespace qvtest {
namespace {

class NotificationTest : public WorkerTest {};

struct Seen {
    unsigned long long handle;
    unsigned int bits;
    std::thread::id thread;
};

TEST_F(NotificationTest, TheCallbackGetsHandleAndBitsOnTheWorkersThread) {
    Recorder<Seen> seen;
    NotifyFunction record = [&](unsigned long long handle, unsigned int bits) {
        seen.Add({handle, bits, std::this_thread::get_id()});
    };
    const auto handle = QVRegisterNotifyWithCallback(channel, 0x30, CallNotify, &record);
    ASSERT_NE(0u, handle);
    EXPECT_NE(0u, handle >> 63) << "keys keep apart from the driver's handles";
    rig.Cards().RaiseNotification(0, 0, 0x10);
    EXPECT_EQ(handle, seen.AwaitCount(1)[0].handle);
    EXPECT_EQ(0x10u, seen.Items()[0].bits);
    EXPECT_NE(std::this_thread::get_id(), seen.Items()[0].thread);
    rig.Cards().RaiseNotification(0, 0, 0x40);  // not enabled
    rig.Cards().RaiseNotification(0, 0, 0x20);
    EXPECT_EQ(0x20u, seen.AwaitCount(2)[1].bits);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, handle));
    rig.Cards().RaiseNotification(0, 0, 0x10);
    Settle();
    EXPECT_EQ(2u, seen.Items().size());
}

TEST_F(NotificationTest, HandlesAreUniqueAndUnknownOnesAreRefused) {
    const auto first = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    const auto second = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, first));
    EXPECT_EQ(QV_RESULT_FAILED, QVUnregisterNotify(channel, first));
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, second));
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
}

TEST_F(NotificationTest, ADriverHandleIsStillUnregisteredAtTheDriver) {
    const auto event = QVCreateEvent();
    const auto notify = QVRegisterNotify(channel, event, 1);
    ASSERT_NE(0u, notify);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, notify));
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    QVCloseEvent(event);
}

TEST_F(NotificationTest, ADriversRefusalIsASuccessOfTheEntityWithoutARegistration) {
    RefuseFromNowOn("RegisterNotify");
    EXPECT_EQ(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
    EXPECT_EQ(1u, rig.Cards().CountAlive().events) << "the wake event alone";
}

TEST_F(NotificationTest, TheDriverGetsItsOwnHandleForStatusAndUnregistration) {
    Gate called;
    NotifyFunction nothing = [&](unsigned long long, unsigned int) { called.Open(); };
    const auto handle = QVRegisterNotifyWithCallback(channel, 0xFFFFFFFF, CallNotify, &nothing);
    EXPECT_EQ(Bytes(Wire().U32(0xFFFFFFFF).U32(0)), Slice(Received("RegisterNotify"), 8, 16));
    rig.Cards().RaiseNotification(0, 0, 0x1);
    called.Pass();
    const Bytes status = Received("GetNotifyStatus");
    QVUnregisterNotify(channel, handle);
    const Bytes last = Received("UnregisterNotify");
    ASSERT_EQ(8u, last.size());
    EXPECT_NE(Bytes(Wire().U64(handle)), last);
    EXPECT_EQ(last, Slice(status, 0, 8)) << "the same handle for both";
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
}

TEST_F(NotificationTest, AFailedStatusReadMakesNoCall) {
    Recorder<int> calls;
    NotifyFunction record = [&](unsigned long long, unsigned int) { calls.Add(1); };
    const auto handle = QVRegisterNotifyWithCallback(channel, 1, CallNotify, &record);
    rig.AddFault({.request = "GetNotifyStatus", .effect = Refuse(EIO)});
    rig.Cards().RaiseNotification(0, 0, 1);
    while (CountRequests("GetNotifyStatus") < 1) std::this_thread::yield();
    Settle();
    EXPECT_THAT(calls.Items(), IsEmpty());
    rig.Cards().RaiseNotification(0, 0, 1);
    calls.AwaitCount(1);
    QVUnregisterNotify(channel, handle);
}

TEST_F(NotificationTest, ANullCallbackIsNotCalled) {
    const auto handle = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    rig.Cards().RaiseNotification(0, 0, 1);
    Settle();
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, handle));
}

TEST_F(NotificationTest, The28thRegistrationIsRefusedAndNothingIsRegistered) {
    std::vector<unsigned long long> handles;
    for (int i = 0; i < 27; ++i) {
        handles.push_back(QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
        ASSERT_NE(0u, handles.back()) << i;
    }
    rig.ClearJournal();
    EXPECT_EQ(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
    EXPECT_EQ(0u, CountRequests("RegisterNotify"));
    EXPECT_EQ(27u, rig.Cards().CountAlive().notifications);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, handles.back()));
    handles.back() = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    EXPECT_NE(0u, handles.back()) << "a place that was given back is free again";
    for (auto handle : handles) EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, handle));
}

TEST_F(NotificationTest, ACallbackMayUnregisterItself) {
    Recorder<QV_RESULT> results;
    NotifyFunction once = [&](unsigned long long handle, unsigned int) {
        results.Add(QVUnregisterNotify(channel, handle));
    };
    ASSERT_NE(0u, QVRegisterNotifyWithCallback(channel, 1, CallNotify, &once));
    rig.Cards().RaiseNotification(0, 0, 1);
    EXPECT_EQ(QV_RESULT_OK, results.AwaitCount(1)[0]);
    rig.Cards().RaiseNotification(0, 0, 1);
    Settle();
    EXPECT_EQ(1u, results.Items().size());
}

// Both registrations are signalled in the same pass; the first removes the second and makes a
// third, which takes the second's place in the list.
TEST_F(NotificationTest, ARegistrationRemovedInTheSamePassIsSkippedAndNoOtherTakenForIt) {
    Recorder<std::string> calls;
    unsigned long long second = 0;
    std::atomic<unsigned long long> third{0};
    NotifyFunction onThird = [&](unsigned long long, unsigned int) { calls.Add("third"); };
    NotifyFunction onSecond = [&](unsigned long long, unsigned int) { calls.Add("second"); };
    NotifyFunction onFirst = [&](unsigned long long, unsigned int) {
        calls.Add("first");
        if (third != 0) return;
        EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, second));
        third = QVRegisterNotifyWithCallback(channel, 2, CallNotify, &onThird);
    };
    const auto first = QVRegisterNotifyWithCallback(channel, 1, CallNotify, &onFirst);
    second = QVRegisterNotifyWithCallback(channel, 1, CallNotify, &onSecond);
    rig.Cards().RaiseNotification(0, 0, 1);
    calls.AwaitCount(1);
    Settle();
    EXPECT_THAT(calls.Items(), ElementsAre("first"));
    rig.Cards().RaiseNotification(0, 0, 2);
    calls.AwaitCount(2);
    EXPECT_THAT(calls.Items(), ElementsAre("first", "third"));
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, first));
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, third));
}

TEST_F(NotificationTest, StoppingTheThreadUnregistersEverything) {
    for (int i = 0; i < 5; ++i)
        ASSERT_NE(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
    rig.ClearJournal();
    QVStopChannelThread(channel);
    EXPECT_EQ(5u, CountRequests("UnregisterNotify"));
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
}

TEST_F(NotificationTest, AFailedUnregistrationRemovesTheRecordAllTheSame) {
    const auto handle = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    rig.AddFault({.request = "UnregisterNotify", .effect = Refuse(EIO)});
    QVUnregisterNotify(channel, handle);
    EXPECT_EQ(QV_RESULT_FAILED, QVUnregisterNotify(channel, handle));
}

}  // namespace
}  // namespace qvtest
