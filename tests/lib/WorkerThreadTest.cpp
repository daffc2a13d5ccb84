// Start, stop and the queue of the channel worker, on good drivers and on failing ones.
#include <sys/syscall.h>
#include <unistd.h>

#include "ChannelEntity.h"
#include "QVPelixCapture.h"
#include "WorkerFixture.h"

namespace qvtest {
namespace {

using qvsim::Alive;

class WorkerThreadTest : public WorkerTest {
  protected:
    CQVCaptureBase* Pcie() { return static_cast<IQVCaptureDevice*>(channel)->AsPcieChannel(); }
};

// Everything but the two open files.
Alive Idle() {
    Alive alive;
    alive.files = 2;
    return alive;
}

TEST_F(WorkerThreadTest, StartingTwiceFailsAndKeepsTheFirstThread) {
    EXPECT_EQ(QV_RESULT_FAILED, QVStartChannelThread(channel));
    Settle();
}

TEST_F(WorkerThreadTest, StoppingTwiceFailsTheSecondTime) {
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(QV_RESULT_FAILED, QVStopChannelThread(channel));
}

TEST_F(WorkerThreadTest, AnEntityThatWasNeverStartedAnswersMinusOne) {
    ChannelEntity entity(Pcie());
    EXPECT_EQ(-1, entity.StopChannelThread());
    unsigned long long handle = 5;
    EXPECT_EQ(-1, entity.RegisterNotify(1, nullptr, nullptr, handle));
    EXPECT_EQ(-1, entity.OpenAudioCapture(nullptr, nullptr));
    EXPECT_EQ(-1, entity.OpenCapture(0, 0, 0, 1, nullptr, nullptr));
    EXPECT_EQ(-1, entity.CloseCapture());
    EXPECT_EQ(-1, entity.CloseAudioCapture());
    EXPECT_EQ(-1, entity.CreateTimer(nullptr, 1, 0, handle));
    EXPECT_EQ(-1, entity.DestroyTimer(handle));
    EXPECT_EQ(-1, entity.UnregisterNotifyWithCallback(handle));
    EXPECT_EQ(5u, handle);
}

TEST_F(WorkerThreadTest, WithoutAThreadEveryOperationOfTheChannelFails) {
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    rig.ClearJournal();
    EXPECT_EQ(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
    EXPECT_EQ(0u, QVCreateTimer(channel, nullptr, 1, 1));
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, 1));
    EXPECT_EQ(QV_RESULT_FAILED,
              QVStartVideoCaptureWithCallback(channel, 0, 8, 8, 1, nullptr, nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, QVStopVideoCaptureWithCallback(channel));
    EXPECT_EQ(QV_RESULT_FAILED, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, QVStopAudioCaptureWithCallback(channel));
    EXPECT_EQ(QV_RESULT_FAILED, Pcie()->QVUnregisterNotifyOfCallback(1));
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(WorkerThreadTest, NullChannelsAreRefusedEverywhere) {
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVStartChannelThread(nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVStopChannelThread(nullptr));
    EXPECT_EQ(0u, QVRegisterNotifyWithCallback(nullptr, 1, nullptr, nullptr));
    EXPECT_EQ(0u, QVCreateTimer(nullptr, nullptr, 1, 1));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVDestoryTimer(nullptr, 1));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVStopVideoCaptureWithCallback(nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVStopAudioCaptureWithCallback(nullptr));
}

// The kernel's ids: the C library's may come back at once.
TEST_F(WorkerThreadTest, StartStopStartGivesAFreshThread) {
    long first = 0;
    long second = 0;
    OnWorker([&] { first = syscall(SYS_gettid); });
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
    OnWorker([&] { second = syscall(SYS_gettid); });
    EXPECT_NE(syscall(SYS_gettid), first);
    EXPECT_NE(syscall(SYS_gettid), second);
    EXPECT_NE(first, second);
}

TEST_F(WorkerThreadTest, StartedAndStoppedAtOnceIsNeverLost) {
    QVStopChannelThread(channel);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
        ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    }
    EXPECT_EQ(Idle(), rig.Cards().CountAlive());
}

TEST_F(WorkerThreadTest, StoppingStopsBothCapturesThenClosesTheWakeEvent) {
    QVStopChannelThread(channel);
    rig.ClearJournal();
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
    EXPECT_EQ("CreateEvent", Requests().at(0));
    rig.ClearJournal();
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    std::vector<std::string> requests = Requests();
    std::erase_if(requests, [](const std::string& name) {
        return name == "MultiWaitEvent" || name == "TryWaitEvent";  // the worker's own, any time
    });
    EXPECT_THAT(requests,
                ElementsAre("StopVideoCapture", "StopAudioCapture", "SetEvent", "CloseEvent"));
}

TEST_F(WorkerThreadTest, StoppingFromACallbackFailsAndStopsNothing) {
    QV_RESULT result = QV_RESULT_OK;
    OnWorker([&] { result = QVStopChannelThread(channel); });
    EXPECT_EQ(QV_RESULT_FAILED, result);
    Settle();
}

TEST_F(WorkerThreadTest, ClosingFromACallbackClosesAfterTheCallback) {
    const ptrdiff_t threads = ThreadsNow();
    QV_CHANNEL second = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(second));
    Gate called;
    NotifyFunction close = [&](unsigned long long, unsigned int) {
        QVCloseChannel(second);
        // Still open: the channel is this callback's until it returns.
        unsigned int temperature = 0;
        EXPECT_EQ(QV_RESULT_OK, QVGetTemperature(second, &temperature));
        called.Open();
    };
    ASSERT_NE(0u, QVRegisterNotifyWithCallback(second, 0x8000, CallNotify, &close));
    ASSERT_EQ(3u, rig.Cards().CountAlive().files);
    rig.Cards().RaiseNotification(0, 0, 0x8000);
    called.Pass();
    while (rig.Cards().CountAlive().files == 3) std::this_thread::yield();
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    while (rig.Cards().CountAlive().events != 1) std::this_thread::yield();
    while (ThreadsNow() > threads)
        std::this_thread::yield();  // its hold on the event node goes last
}

TEST_F(WorkerThreadTest, ClosingFromOutsideStopsARunningWorkerFirst) {
    QV_CHANNEL second = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(second));
    ASSERT_NE(0u, QVRegisterNotifyWithCallback(second, 1, nullptr, nullptr));
    QVCloseChannel(second);
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    EXPECT_EQ(2u, rig.Cards().CountAlive().files);
}

TEST_F(WorkerThreadTest, CommandsRunInPostingOrderOnePerWakeUp) {
    // Two commands are queued behind each other.
    HeldWorker held(rig, channel);
    rig.ClearJournal();
    std::thread first([&] {
        EXPECT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
    });
    while (CountRequests("SetEvent") < 1) std::this_thread::yield();
    std::thread second([&] { EXPECT_EQ(QV_RESULT_OK, QVStopAudioCaptureWithCallback(channel)); });
    while (CountRequests("SetEvent") < 2) std::this_thread::yield();
    rig.ClearJournal();
    held.LetGo();
    first.join();
    second.join();
    std::vector<std::string> requests = Requests();
    const auto position = [&](const std::string& name) {
        return std::find(requests.begin(), requests.end(), name) - requests.begin();
    };
    EXPECT_LT(position("StartAudioCapture"), position("StopAudioCapture"));
    // Between the two commands the worker went through its wait again.
    const auto from = requests.begin() + position("StartAudioCapture");
    EXPECT_NE(requests.begin() + position("StopAudioCapture"),
              std::find(from, requests.begin() + position("StopAudioCapture"), "MultiWaitEvent"));
    EXPECT_EQ(QV_RESULT_OK, held.Unregister());
}

TEST_F(WorkerThreadTest, CommandsStillQueuedAtAStopAreDiscardedAndTheirPostersFail) {
    HeldWorker held(rig, channel);
    rig.ClearJournal();
    std::vector<std::thread> posters;
    std::atomic<int> failed{0};
    for (int i = 0; i < 5; ++i)
        posters.emplace_back([&] {
            if (QVStartAudioCaptureWithCallback(channel, nullptr, nullptr) == QV_RESULT_FAILED)
                ++failed;
        });
    while (CountRequests("SetEvent") < 5) std::this_thread::yield();
    std::thread stopper([&] { EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel)); });
    while (CountRequests("SetEvent") < 6) std::this_thread::yield();  // the stop's own wake-up
    held.LetGo();
    stopper.join();
    for (auto& poster : posters) poster.join();
    EXPECT_EQ(5, failed);
    EXPECT_EQ(0u, CountRequests("StartAudioCapture")) << "a discarded command must not run";
    EXPECT_EQ(6u, CountRequests("SetEvent")) << "a discarded command's event is closed, not set";
    for (const auto& line : rig.Journal())
        EXPECT_FALSE(line.find("CloseEvent") != line.npos && line.find("= -1") != line.npos)
            << "closed twice: " << line;
    EXPECT_EQ(Idle(), rig.Cards().CountAlive());
}

TEST_F(WorkerThreadTest, PostingWhileTheThreadStopsNeverHangsAndNeverUsesFreedMemory) {
    for (int round = 0; round < 50; ++round) {
        std::vector<std::thread> posters;
        for (int i = 0; i < 3; ++i)
            posters.emplace_back([&] {
                for (int n = 0; n < 5; ++n) {
                    const auto handle = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
                    if (handle != 0) QVUnregisterNotify(channel, handle);
                }
            });
        QVStopChannelThread(channel);
        for (auto& poster : posters) poster.join();
        ASSERT_EQ(Idle(), rig.Cards().CountAlive());
        ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
    }
}

class TestCommand : public ChannelEntity::Runnable {
  public:
    explicit TestCommand(std::function<void()> body) : m_body(std::move(body)) {}
    void Run() override { m_body(); }

  private:
    std::function<void()> m_body;
};

// Holds the worker of an entity in a command until it is let go.
class HeldEntity {
  public:
    explicit HeldEntity(ChannelEntity* entity) {
        EXPECT_TRUE(entity->PostItem(new TestCommand([this] {
                                         m_held.Open();
                                         m_free.Pass();
                                     }),
                                     false));
        m_held.Pass();
    }
    void LetGo() { m_free.Open(); }

  private:
    Gate m_held;
    Gate m_free;
};

// The commands queued before and after one whose wake-up is refused run; that one does not.
TEST_F(WorkerThreadTest, ARefusedWakeUpTakesBackItsOwnCommandAndNoOther) {
    ChannelEntity entity(Pcie());
    ASSERT_EQ(0, entity.StartChannelThread());
    HeldEntity held(&entity);
    Recorder<int> ran;
    ASSERT_TRUE(entity.PostItem(new TestCommand([&] { ran.Add(1); }), false));
    RefuseFromNowOn("SetEvent");
    EXPECT_FALSE(entity.PostItem(new TestCommand([&] { ran.Add(2); }), true));
    rig.Cards().ClearFaults();
    ASSERT_TRUE(entity.PostItem(new TestCommand([&] { ran.Add(3); }), false));
    held.LetGo();
    EXPECT_TRUE(entity.PostItem(new TestCommand([] {}), true));
    EXPECT_THAT(ran.Items(), ElementsAre(1, 3));
    EXPECT_EQ(0, entity.StopChannelThread());
}

// Nobody waits for these commands, so nobody wakes the worker a second time either.
TEST_F(WorkerThreadTest, ACommandBehindAnotherRunsWhenTheWorkerCannotWakeItself) {
    ChannelEntity entity(Pcie());
    ASSERT_EQ(0, entity.StartChannelThread());
    HeldEntity held(&entity);
    Recorder<int> ran;
    for (int i = 1; i <= 3; ++i)
        ASSERT_TRUE(entity.PostItem(new TestCommand([&ran, i] { ran.Add(i); }), false));
    RefuseFromNowOn("SetEvent");
    held.LetGo();
    EXPECT_THAT(ran.AwaitCount(3), ElementsAre(1, 2, 3));
    rig.Cards().ClearFaults();
    EXPECT_EQ(0, entity.StopChannelThread());
}

// A worker that ends marks the commands which it discards before it closes their events: their
// posters leave while a slow driver is still busy with the close. The other way round no poster
// ever leaves before the close has ended; a busy machine may be slower than the driver, so one
// round of many is enough.
TEST_F(WorkerThreadTest, ADiscardedCommandIsMarkedBeforeItsEventIsClosed) {
    bool leftBeforeTheClose = false;
    for (size_t round = 1; round <= 50 && !leftBeforeTheClose; ++round) {
        ChannelEntity entity(Pcie());
        ASSERT_EQ(0, entity.StartChannelThread());
        HeldEntity held(&entity);
        rig.ClearJournal();
        std::thread poster([&] { EXPECT_FALSE(entity.PostItem(new TestCommand([] {}), true)); });
        while (CountRequests("SetEvent") < 1) std::this_thread::yield();
        std::thread stopper([&] { EXPECT_EQ(0, entity.StopChannelThread()); });
        while (CountRequests("SetEvent") < 2) std::this_thread::yield();
        rig.AddFault({.request = "CloseEvent", .effect = qvsim::Slow(300)});
        held.LetGo();
        poster.join();
        leftBeforeTheClose = CountRequests("CloseEvent") == 0;
        stopper.join();
        EXPECT_EQ(2u, CountRequests("CloseEvent")) << "the command's and the worker's own";
    }
    EXPECT_TRUE(leftBeforeTheClose);
}

// A stop that looked a worker up must not stop the one that was started after it.
TEST_F(WorkerThreadTest, StartsAndStopsFromManyThreadsStayInStep) {
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    std::atomic<int> running{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 200; ++n) {
                if (QVStartChannelThread(channel) == QV_RESULT_OK) ++running;
                if (QVStopChannelThread(channel) == QV_RESULT_OK) --running;
            }
        });
    for (auto& thread : threads) thread.join();
    if (QVStopChannelThread(channel) == QV_RESULT_OK) --running;
    EXPECT_EQ(0, running);
    EXPECT_EQ(Idle(), rig.Cards().CountAlive());
}

TEST_F(WorkerThreadTest, WithoutAnEventNodeNoThreadIsStarted) {
    QVStopChannelThread(channel);
    QVCaptureExitInstance();
    EXPECT_EQ(QV_RESULT_FAILED, QVStartChannelThread(channel));
    EXPECT_EQ(QV_RESULT_FAILED, QVStopChannelThread(channel));
}

TEST_F(WorkerThreadTest, WhenTheWakeEventIsRefusedNoThreadIsStarted) {
    QVStopChannelThread(channel);
    rig.AddFault({.request = "CreateEvent", .effect = Refuse(ENOMEM)});
    EXPECT_EQ(QV_RESULT_FAILED, QVStartChannelThread(channel));
    EXPECT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
}

TEST_F(WorkerThreadTest, AnInstanceClosedUnderARunningWorkerLeavesItAbleToStop) {
    Settle();
    QVCaptureExitInstance();
    EXPECT_EQ(-1, CQVCaptureControlBase::EventDescriptor());
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(1u, rig.Cards().CountAlive().files) << "the event node's last user has gone";
}

// Each event request refused once, at each of its first places, and for ever: nothing hangs,
// nothing stays behind, and the worker goes on when the driver does.
TEST_F(WorkerThreadTest, AnyRefusedRequestOfThePostsAndTheWaitIsSurvived) {
    for (const char* request :
         {"CreateEvent", "SetEvent", "WaitEvent", "MultiWaitEvent", "TryWaitEvent", "CloseEvent",
          "RegisterNotify", "UnregisterNotify"}) {
        for (int nth = 1; nth <= 4; ++nth) {
            rig.AddFault({.request = request, .nth = nth, .effect = Refuse(EIO)});
            for (int i = 0; i < 4; ++i) {
                const auto handle = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
                if (handle != 0) QVUnregisterNotify(channel, handle);
            }
            EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel)) << request << " " << nth;
            rig.Cards().ClearFaults();
            ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel)) << request << " " << nth;
            Settle();
        }
    }
}

TEST_F(WorkerThreadTest, ADriverThatRefusesEveryWaitStillLetsTheWorkerStop) {
    RefuseFromNowOn("MultiWaitEvent");
    RefuseFromNowOn("WaitEvent");
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
}

TEST_F(WorkerThreadTest, ADriverThatRefusesToSetEventsFailsPostsAndStillStops) {
    RefuseFromNowOn("SetEvent");
    EXPECT_EQ(QV_RESULT_FAILED, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
    EXPECT_EQ(0u, CountRequests("StartAudioCapture"));
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
}

TEST_F(WorkerThreadTest, AnObjectThatIsDeletedWithARunningWorkerStopsItFirst) {
    auto* object = new CQVCaptureBase;
    ASSERT_TRUE(object->OpenChannelByPath("/dev/video0"));
    ASSERT_EQ(QV_RESULT_OK, object->StartChannelThread());
    ASSERT_NE(0u, object->RegisterNotifyWithCallback(1, nullptr, nullptr));
    const size_t events = rig.Cards().CountAlive().events;
    object->CloseChannel();  // the descriptor goes, the worker is still there
    delete object;
    EXPECT_EQ(events - 2, rig.Cards().CountAlive().events)
        << "its wake event and its notification's";
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
}

}  // namespace
}  // namespace qvtest
