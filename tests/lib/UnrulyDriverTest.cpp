// The channel worker on drivers that use the freedom they have: handles used again, frames accepted
// after a stop, interrupted and refused requests, slow ones. One test for each mistake that such a
// driver once brought to light; those about releases are in ReleaseTest.cpp.
#include <signal.h>

#include "QVCapture.hpp"
#include "TestThreads.h"
#include "UnrulyFixture.h"

namespace qvtest {
namespace {

// ---- Stopping --------------------------------------------------------------------------------

// The worker is between two requests of a completion when the driver takes the stop, and asks for
// the next frame after it.
TEST_F(FramesAfterStopTest, AFrameAskedForAfterTheStopIsStoppedToo) {
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK));
    Slowly("GetVideoFrameInfo", 1, 300);
    NextFrame();
    AwaitBegun("GetVideoFrameInfo");
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(0u, rig.Cards().CountAlive().frames) << "memory is gone that a frame may go to";
    const auto requests = Requests();
    const auto last = [&](const std::string& name) {
        return std::find(requests.rbegin(), requests.rend(), name) - requests.rbegin();
    };
    EXPECT_LT(last("StopVideoCapture"), last("CaptureVideoFrame")) << "a stop is the last word";
    EXPECT_EQ(2u, CountRequests("StopVideoCapture"));
}

TEST_F(UnrulyDriverTest, AStopThatNothingFollowedIsAskedForOnce) {
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK));
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
    Settle();
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(1u, CountRequests("StopVideoCapture"));
    EXPECT_EQ(1u, CountRequests("StopAudioCapture"));
}

// The second stop, for the frame asked for after the first, is refused: the memory stays.
TEST_F(FramesAfterStopTest, MemoryIsKeptWhenTheLastStopIsRefused) {
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK));
    Slowly("GetVideoFrameInfo", 1, 300);
    rig.AddFault({.request = "StopVideoCapture", .nth = 2, .effect = Refuse(EIO)});
    NextFrame();
    AwaitBegun("GetVideoFrameInfo");
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(1u, rig.Cards().CountAlive().frames);
    // The next start writes the frame: into memory that must still be there.
    const auto event = QVCreateEvent();
    ASSERT_EQ(QV_RESULT_OK, QVStartVideoCapture(channel, event));
    NextFrame();
    while (rig.Cards().CountAlive().frames > 0) std::this_thread::yield();
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCapture(channel));
    QVCloseEvent(event);
}

// A thread that is made after the worker was joined may get the identity of the joined one. While
// the second stop is under way it must not count as the worker.
TEST_F(UnrulyDriverTest, AThreadThatFollowsTheWorkerIsNotTakenForIt) {
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK));
    Slowly("GetVideoFrameInfo", 1, 200);
    Slowly("StopVideoCapture", 2, 300);
    NextFrame();
    AwaitBegun("GetVideoFrameInfo");
    std::thread stopper([&] { EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel)); });
    AwaitBegun("StopVideoCapture");
    for (int i = 0; i < 5; ++i)
        std::thread([&] {
            EXPECT_EQ(0u, QVCreateTimer(channel, nullptr, 100, 100));
            EXPECT_EQ(QV_RESULT_FAILED, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
        }).join();
    stopper.join();
    EXPECT_EQ(0u, CountRequests("StartAudioCapture"));
    EXPECT_EQ(0u, rig.Cards().CountAlive().timers);
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
}

TEST_F(UnrulyDriverTest, AStopEndsOnADriverThatOnlyPretendsToSetEvents) {
    Settle();
    rig.ClearJournal();
    rig.AddFault({.request = "SetEvent", .count = -1, .effect = qvsim::Pretend()});
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(1u, CountRequests("SetEvent"));
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
}

// ---- Wake-ups that fail ----------------------------------------------------------------------

TEST_F(UnrulyDriverTest, AnInterruptedWakeUpIsTriedAgain) {
    std::atomic<int> calls{0};
    NotifyFunction count = [&](unsigned long long, unsigned int) { ++calls; };
    const auto handle = QVRegisterNotifyWithCallback(channel, 1, CallNotify, &count);
    ASSERT_NE(0u, handle);
    const auto timer = QVCreateTimer(channel, nullptr, 1000, 1000);
    rig.AddFault({.request = "SetEvent", .count = 20, .effect = Refuse(EINTR)});
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, handle));
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    rig.Cards().ClearFaults();
    rig.AddFault({.request = "SetEvent", .count = 2, .effect = Refuse(EIO)});
    QVDestoryTimer(channel, timer);
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, timer)) << "it is gone already";
    rig.Cards().AdvanceClock(1000);
    Settle();
    EXPECT_EQ(0, calls);
}

TEST_F(UnrulyDriverTest, DestroyedFacesAreNotCalledWhenTheDriverRefusesEveryWakeUp) {
    qvcapture::Channel face("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    qvcapture::Worker worker(face);
    ASSERT_TRUE(worker.Status());
    auto lives = std::make_shared<std::atomic<bool>>(true);
    std::atomic<int> calls{0};
    const auto called = [lives, &calls](const auto&...) {
        EXPECT_TRUE(*lives);
        ++calls;
    };
    {
        const qvcapture::Notification watch(face, 0xFF, called);
        const qvcapture::Timer timer(face, qvcapture::Ticks(100), qvcapture::Ticks(100), called);
        const qvcapture::Timer once(face, qvcapture::Ticks(100), qvcapture::Ticks(0), called);
        const qvcapture::VideoCapture video(face, {kGrey, kWidth, kHeight}, called);
        const qvcapture::AudioCapture audio(face, called);
        ASSERT_TRUE(watch && timer && once && video.Status() && audio.Status());
        RefuseFromNowOn("SetEvent");
    }
    *lives = false;
    rig.Cards().ClearFaults();
    rig.Cards().RaiseNotification(0, 0, 0x1);
    rig.Cards().AdvanceClock(10000);
    while (CountRequests("GetNotifyStatus") < 1) std::this_thread::yield();
    // The worker goes on, and what is still there does nothing.
    std::atomic<bool> settled{false};
    const qvcapture::Notification last(face, 0x8000, [&](uint32_t) { settled = true; });
    rig.Cards().RaiseNotification(0, 0, 0x8000);
    while (!settled) std::this_thread::yield();
    EXPECT_EQ(0, calls);
    EXPECT_EQ(2, lives.use_count() > 1 ? 2 : 0) << "the callables live on with their registrations";
}

// The command behind a refused one runs, and its wake-up is not lost.
TEST_F(UnrulyDriverTest, TheNextCommandRunsWhenTheWorkersOwnWakeUpIsRefused) {
    HeldWorker held(rig, channel);
    rig.ClearJournal();
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i)
        posters.emplace_back([&] {
            const auto handle = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
            EXPECT_NE(0u, handle);
        });
    while (CountRequests("SetEvent") < 3) std::this_thread::yield();
    rig.AddFault({.request = "SetEvent", .count = 6, .effect = Refuse(EIO)});
    held.LetGo();
    for (auto& poster : posters) poster.join();
    EXPECT_EQ(QV_RESULT_OK, held.Unregister());
    EXPECT_EQ(3u, rig.Cards().CountAlive().notifications);
}

// ---- Commands and their events ---------------------------------------------------------------

// The event that tells the poster is set late: the poster must not have closed it by then, or the
// signal goes to whoever got its handle.
TEST_F(ReusedHandlesTest, ACompletionIsNeverSetAfterItsPosterHasGone) {
    rig.AddFault({.request = "SetEvent", .nth = 2, .effect = Slow(400)});  // the first wakes
    const auto handle = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    ASSERT_NE(0u, handle);
    std::vector<unsigned long long> events;
    for (int i = 0; i < 4; ++i) events.push_back(QVCreateEvent());
    Settle();
    for (const auto event : events) {
        EXPECT_EQ(0, QVIsSetEvent(event)) << "somebody else's signal";
        QVCloseEvent(event);
    }
}

TEST_F(UnrulyDriverTest, ACompletionThatTheDriverOnlyPretendsIsNotBelieved) {
    HeldWorker held(rig, channel);
    rig.AddFault({.request = "WaitEvent", .count = 3, .effect = qvsim::Pretend(1)});
    std::atomic<bool> returned{false};
    std::thread poster([&] {
        EXPECT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
        EXPECT_EQ(1u, CountRequests("StartAudioCapture")) << "returned before it was done";
        returned = true;
    });
    while (!returned && CountMet("pretend WaitEvent") < 3) std::this_thread::yield();
    EXPECT_FALSE(returned);
    held.LetGo();
    poster.join();
    EXPECT_EQ(QV_RESULT_OK, held.Unregister());
}

// ---- Signals of what is gone -----------------------------------------------------------------

// Both events are set in one pass. The first callback restarts the capture, whose event gets the
// handle of the old one: the old signal is nobody's.
TEST_F(ReusedHandlesTest, ASignalOfAClosedCaptureIsNotTakenForTheNewOnes) {
    std::atomic<int> frames{0};
    NotifyFunction restart = [&](unsigned long long, unsigned int) {
        EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
        rig.ClearJournal();
        EXPECT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_ON_NOTIFY, &frames));
    };
    const auto restarter = QVRegisterNotifyWithCallback(channel, 8, CallNotify, &restart);
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK, &frames));
    HeldWorker held(rig, channel);
    rig.Cards().RaiseNotification(0, 0, 8);
    rig.Cards().InterruptFrame(0, 0);  // sets the capture's event
    held.LetGo();
    Settle();
    EXPECT_EQ(1u, CountRequests("StartVideoCapture"));
    EXPECT_EQ(0u, CountRequests("GetVideoCaptureStatus")) << "the old capture's signal";
    EXPECT_EQ(0u, CountRequests("CaptureVideoFrame"));
    EXPECT_EQ(QV_RESULT_OK, held.Unregister());
    QVUnregisterNotify(channel, restarter);
}

// ---- Timers ----------------------------------------------------------------------------------

std::atomic<int> g_fired{0};
void OnTimer(unsigned long long, void*) { ++g_fired; }

class RefusedTimersTest : public UnrulyDriverTest {
  protected:
    void SetUp() override {
        UnrulyDriverTest::SetUp();
        g_fired = 0;
    }
    void ExpectBothFire() {
        rig.Cards().AdvanceClock(1000);
        EXPECT_TRUE(Eventually([] { return g_fired >= 2; })) << g_fired << " of 2 fired";
    }
};

TEST_F(RefusedTimersTest, ARefusedCreationLeavesTheOtherTimersRunning) {
    for (const char* request : {"RegisterTimer", "ScheduleTimer"}) {
        g_fired = 0;
        ASSERT_NE(0u, QVCreateTimer(channel, OnTimer, 1000, 0));
        ASSERT_NE(0u, QVCreateTimer(channel, OnTimer, 1000, 0));
        rig.AddFault({.request = request, .effect = Refuse(EIO)});
        EXPECT_EQ(0u, QVCreateTimer(channel, OnTimer, 1000, 0)) << request;
        ExpectBothFire();
    }
}

TEST_F(RefusedTimersTest, ARefusedDestructionLeavesTheOtherTimersRunning) {
    ASSERT_NE(0u, QVCreateTimer(channel, OnTimer, 1000, 0));
    ASSERT_NE(0u, QVCreateTimer(channel, OnTimer, 1000, 0));
    const auto third = QVCreateTimer(channel, OnTimer, 1000, 0);
    rig.AddFault({.request = "RegisterTimer", .effect = Refuse(EIO)});
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryTimer(channel, third));
    ExpectBothFire();
    Settle();
    EXPECT_EQ(2, g_fired) << "the third is gone";
}

TEST_F(RefusedTimersTest, TimersAreServedAgainWhenTheDriverIsWillingAgain) {
    ASSERT_NE(0u, QVCreateTimer(channel, OnTimer, 1000, 0));
    ASSERT_NE(0u, QVCreateTimer(channel, OnTimer, 1000, 0));
    RefuseFromNowOn("RegisterTimer");
    EXPECT_EQ(0u, QVCreateTimer(channel, OnTimer, 1000, 0));
    rig.Cards().AdvanceClock(1000);
    Settle();
    EXPECT_EQ(0, g_fired);
    rig.Cards().ClearFaults();
    EXPECT_TRUE(Eventually([] { return g_fired >= 2; }));
    Settle();
    EXPECT_EQ(1u, rig.Cards().CountAlive().timers);
}

// ---- The worker and the rest of the program --------------------------------------------------

// A handle of the driver's own is no affair of the worker, which may be in a long callback.
TEST_F(UnrulyDriverTest, ADriversHandleIsUnregisteredWhileACallbackRuns) {
    const auto event = QVCreateEvent();
    const auto notify = QVRegisterNotify(channel, event, 2);
    ASSERT_NE(0u, notify);
    HeldWorker held(rig, channel);
    rig.ClearJournal();
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, notify));
    EXPECT_THAT(Requests(), ElementsAre("UnregisterNotify"));
    held.LetGo();
    EXPECT_EQ(QV_RESULT_OK, held.Unregister());
    QVCloseEvent(event);
}

std::atomic<int> g_signals{0};
void OnSignal(int) { ++g_signals; }

TEST_F(UnrulyDriverTest, TheProgramsSignalsAreNotTheWorkers) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = OnSignal;
    sigaction(SIGUSR1, &action, &before);
    g_signals = 0;
    sigset_t mine;
    sigset_t old;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &mine, &old);
    kill(getpid(), SIGUSR1);
    Settle();
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(0, g_signals) << "a thread of the library took it";
    EXPECT_EQ(1, sigismember(&pending, SIGUSR1));
    pthread_sigmask(SIG_SETMASK, &old, nullptr);  // delivered here
    EXPECT_EQ(1, g_signals);
    sigaction(SIGUSR1, &before, nullptr);
}

// ---- What refusals look like -----------------------------------------------------------------

TEST_F(UnrulyDriverTest, APosterWakesTheWorkerAgainWhenTheDriverOnlyPretended) {
    Settle();
    rig.AddFault({.request = "SetEvent", .effect = qvsim::Pretend()});
    EXPECT_NE(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
}

TEST_F(UnrulyDriverTest, ReplacedCapturesAreReleasedBehindTheCurrentOneOldestFirst) {
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK));
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_ON_NOTIFY));
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK));
    OnWorker([&] {
        rig.ClearJournal();
        EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
        EXPECT_THAT(Requests(), ElementsAre("StopVideoCapture", "CloseEvent", "CloseEvent",
                                            "CloseEvent", "UnregisterNotify", "CloseEvent"));
    });
}

TEST_F(UnrulyDriverTest, AStatusThatCannotBeReadShowsAsAStall) {
    ASSERT_EQ(QV_RESULT_OK, StartVideo(QV_VIDEO_CAPTURE_BACK_TO_BACK));
    rig.AddFault({.request = "GetVideoCaptureStatus", .effect = Refuse(EINTR)});
    EXPECT_FALSE(QVIsVideoCaptureStalled(channel));
    NextFrame();
    while (!QVIsVideoCaptureStalled(channel)) std::this_thread::yield();
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    EXPECT_FALSE(QVIsVideoCaptureStalled(channel));
}

TEST_F(UnrulyDriverTest, ARefusedFrameRequestShowsAsAStall) {
    EXPECT_FALSE(QVIsVideoCaptureStalled(nullptr));
    qvcapture::Channel face("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    const qvcapture::Worker worker(face);
    std::atomic<int> frames{0};
    const qvcapture::VideoCapture video(face, {kGrey, kWidth, kHeight},
                                        [&](const auto&) { ++frames; });
    NextFrame();
    while (frames < 1) std::this_thread::yield();
    EXPECT_FALSE(video.Stalled());
    rig.AddFault({.request = "CaptureVideoFrame", .effect = Refuse(EIO)});
    NextFrame();
    while (!video.Stalled()) std::this_thread::yield();
    const qvcapture::VideoCapture again(face, {kGrey, kWidth, kHeight},
                                        [&](const auto&) { ++frames; });
    EXPECT_FALSE(again.Stalled());
}

TEST_F(UnrulyDriverTest, ErrnoHoldsTheDriversReason) {
    unsigned int temperature = 0;
    for (const int reason : {EIO, EBUSY, ENODEV}) {
        rig.AddFault({.request = "GetTemperature", .effect = Refuse(reason)});
        errno = 0;
        EXPECT_EQ(QV_RESULT_FAILED, QVGetTemperature(channel, &temperature));
        EXPECT_EQ(reason, errno);
    }
}

TEST_F(UnrulyDriverTest, WhetherTheEventNodeIsThereCanBeAsked) {
    EXPECT_TRUE(QVHasEventNode());
    QVCaptureExitInstance();
    EXPECT_FALSE(QVHasEventNode());
    EXPECT_TRUE(QVCaptureInitInstance());
    EXPECT_TRUE(QVHasEventNode());
}

}  // namespace
}  // namespace qvtest
