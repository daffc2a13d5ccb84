// Edges of the channel worker that no test of its ordinary life comes near: places and events that
// must come back after a refusal, ends in the middle of something, dead drivers.
#include <sys/syscall.h>

#include "ChannelEntity.h"
#include "FrameLayout.h"
#include "RefusedThreads.h"
#include "TestThreads.h"
#include "WorkerFixture.h"
#include "support/ThreadState.h"

namespace qvtest {
namespace {

constexpr unsigned int kGrey = qv::Fourcc("GREY");
constexpr int kPlaces = 27;

class WorkerEdgesTest : public WorkerTest {
  protected:
    qvsim::BoardBuilder BoardUnderTest() override {
        return Pelix().Channels(1).Video(64, 4, 1000).Audio(1000);
    }
    void NextFrame() { rig.Cards().AdvanceClock(10000); }
    QV_RESULT StartVideo(QV_VIDEO_CALLBACK callback = nullptr, void* param = nullptr) {
        return QVStartVideoCaptureWithCallback(channel, kGrey, 64, 4, QV_VIDEO_CAPTURE_BACK_TO_BACK,
                                               callback, param);
    }
};

// ---- What a refusal must give back -----------------------------------------------------------

TEST_F(WorkerEdgesTest, RefusedRegistrationsCostNoPlace) {
    for (const char* request : {"CreateEvent", "RegisterNotify", "SetEvent"}) {
        RefuseFromNowOn(request);
        for (int i = 0; i < kPlaces + 3; ++i)
            EXPECT_EQ(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr)) << request;
        rig.Cards().ClearFaults();
    }
    EXPECT_EQ(1u, rig.Cards().CountAlive().events) << "the wake event alone";
    for (int i = 0; i < kPlaces; ++i)
        EXPECT_NE(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr)) << i;
    EXPECT_EQ(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
}

TEST_F(WorkerEdgesTest, AThreadThatCannotBeHadCostsNoEvent) {
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    fake::g_refusedThreads = 1;
    EXPECT_EQ(QV_RESULT_FAILED, QVStartChannelThread(channel));
    EXPECT_EQ(0, fake::g_refusedThreads);
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
    EXPECT_EQ(QV_RESULT_FAILED, QVStopChannelThread(channel)) << "none runs";
    EXPECT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
    Settle();
}

// ---- Closing from a callback -----------------------------------------------------------------

struct Closer {
    QV_CHANNEL channel = nullptr;
    std::atomic<int> calls{0};
    Gate called;
    void Close() {
        if (++calls == 1) QVCloseChannel(channel);
        called.Open();
    }
};

// Of several callbacks that are due at once, the one that closes the channel is the last.
TEST_F(WorkerEdgesTest, NoCallbackFollowsTheOneThatClosedTheChannel) {
    const ptrdiff_t threads = ThreadsNow();
    Closer closer;
    closer.channel = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(closer.channel));
    const auto onNotify = [](unsigned long long, unsigned int, void* param) {
        static_cast<Closer*>(param)->Close();
    };
    const auto onTimer = [](unsigned long long, void* param) {
        static_cast<Closer*>(param)->Close();
    };
    for (int i = 0; i < 3; ++i)
        ASSERT_NE(0u, QVRegisterNotifyWithCallback(closer.channel, 1, onNotify, &closer));
    for (int i = 0; i < 3; ++i)
        ASSERT_NE(0u,
                  QVCreateTimerWithRelease(closer.channel, onTimer, 100, 0, &closer, [](void*) {}));
    HeldWorker held(rig, closer.channel);
    rig.Cards().RaiseNotification(0, 0, 1);
    rig.Cards().AdvanceClock(100);
    held.LetGo();
    closer.called.Pass();
    while (rig.Cards().CountAlive().files == 3) std::this_thread::yield();
    while (ThreadsNow() > threads) std::this_thread::yield();
    EXPECT_EQ(1, closer.calls);
}

// The same from a timer's callback, with other timers due in the same walk.
TEST_F(WorkerEdgesTest, NoTimerFollowsTheOneThatClosedTheChannel) {
    Closer closer;
    closer.channel = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(closer.channel));
    const auto onTimer = [](unsigned long long, void* param) {
        static_cast<Closer*>(param)->Close();
    };
    for (int i = 0; i < 3; ++i)
        ASSERT_NE(0u,
                  QVCreateTimerWithRelease(closer.channel, onTimer, 100, 0, &closer, [](void*) {}));
    rig.Cards().AdvanceClock(100);
    closer.called.Pass();
    while (rig.Cards().CountAlive().files == 3) std::this_thread::yield();
    EXPECT_EQ(1, closer.calls);
}

TEST_F(WorkerEdgesTest, AChannelClosedInAFrameCallbackStopsBothCapturesAndItsThread) {
    Closer closer;
    closer.channel = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(closer.channel));
    const auto onFrame = [](unsigned long long, unsigned int, unsigned int,
                            _QVCAP_VIDEO_FRAME_INFO*,
                            void* param) { static_cast<Closer*>(param)->Close(); };
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(closer.channel, nullptr, nullptr));
    ASSERT_EQ(QV_RESULT_OK,
              QVStartVideoCaptureWithCallback(closer.channel, kGrey, 64, 4,
                                              QV_VIDEO_CAPTURE_BACK_TO_BACK, onFrame, &closer));
    rig.ClearJournal();
    NextFrame();
    closer.called.Pass();
    while (rig.Cards().CountAlive().files == 3) std::this_thread::yield();
    EXPECT_EQ(1u, CountRequests("StopVideoCapture"));
    EXPECT_EQ(1u, CountRequests("StopAudioCapture"));
    EXPECT_EQ(0u, rig.Cards().CountAlive().captures);
    while (rig.Cards().CountAlive().events != 1) std::this_thread::yield();
    EXPECT_EQ(1, closer.calls);
}

// ---- Timers ----------------------------------------------------------------------------------

// One callback destroys a timer that is due, too; the next makes a new one, which may be where
// the destroyed one stood and is not due.
TEST_F(WorkerEdgesTest, ANewTimerWhereADestroyedOneStoodIsNotCalledForIt) {
    static QV_CHANNEL s_channel;
    static std::vector<unsigned long long> s_timers;
    static std::vector<unsigned long long> s_called;
    static std::vector<unsigned long long> s_made;
    static Gate* s_done;
    Gate done;
    s_channel = channel;
    s_timers.clear();
    s_called.clear();
    s_made.clear();
    s_done = &done;
    const auto onTimer = [](unsigned long long handle, void*) {
        s_called.push_back(handle);
        if (handle == s_timers[0]) QVDestoryTimer(s_channel, s_timers[3]);
        if (handle == s_timers[1])
            for (int i = 0; i < 4; ++i)
                s_made.push_back(QVCreateTimer(
                    s_channel, [](unsigned long long own, void*) { s_called.push_back(own); },
                    1000000, 0));
        if (handle == s_timers[4]) s_done->Open();
    };
    for (int i = 0; i < 5; ++i) s_timers.push_back(QVCreateTimer(channel, onTimer, 100, 0));
    std::sort(s_timers.begin(), s_timers.end());
    rig.Cards().AdvanceClock(100);
    done.Pass();
    Settle();
    EXPECT_THAT(s_called, ElementsAre(s_timers[0], s_timers[1], s_timers[2], s_timers[4]));
    for (const auto timer : s_made) QVDestoryTimer(channel, timer);
}

// ---- Frames ----------------------------------------------------------------------------------

TEST_F(WorkerEdgesTest, AnAudioFrameGoesToItsCallbackAsTheDriverWroteIt) {
    Recorder<uint32_t> markers;
    const auto onAudio = [](_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param) {
        static_cast<Recorder<uint32_t>*>(param)->Add(frame->marker);
    };
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, onAudio, &markers));
    NextFrame();
    EXPECT_EQ(QV_AUDIO_FRAME_MARKER, markers.AwaitCount(1)[0]);
    EXPECT_EQ(QV_RESULT_OK, QVStopAudioCaptureWithCallback(channel));
}

TEST_F(WorkerEdgesTest, AnAudioFrameWithAnotherMarkerIsNotDelivered) {
    Recorder<uint32_t> markers;
    const auto onAudio = [](_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param) {
        static_cast<Recorder<uint32_t>*>(param)->Add(frame->marker);
    };
    rig.AddFault({.request = "CaptureAudioFrame", .effect = qvsim::WrongMarker()});
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, onAudio, &markers));
    NextFrame();
    while (CountRequests("CaptureAudioFrame") < 1) std::this_thread::yield();
    Settle();
    EXPECT_THAT(markers.Items(), IsEmpty());
    NextFrame();
    EXPECT_EQ(QV_AUDIO_FRAME_MARKER, markers.AwaitCount(1)[0]);
    EXPECT_EQ(QV_RESULT_OK, QVStopAudioCaptureWithCallback(channel));
}

// ---- Dead drivers ----------------------------------------------------------------------------

// The kernel's id of the worker's thread.
pid_t WorkerId(const std::function<void(const std::function<void()>&)>& onWorker) {
    pid_t id = 0;
    onWorker([&] { id = static_cast<pid_t>(syscall(SYS_gettid)); });
    return id;
}

TEST_F(WorkerEdgesTest, AWorkerWhoseEveryWaitFailsSleepsInBetween) {
    const pid_t worker = WorkerId([this](const auto& body) { OnWorker(body); });
    rig.ClearJournal();
    RefuseFromNowOn("MultiWaitEvent");
    QVSetEvent(QVCreateEvent());
    rig.Cards().RaiseNotification(0, 0, 0);
    // A notification ends the wait that is under way.
    const auto wake = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr);
    int asleep = 0;
    for (int i = 0; i < 200; ++i) {
        asleep += ThreadState(worker) == 'S' ? 1 : 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_GT(asleep, 100) << "of 200 looks";
    rig.Cards().ClearFaults();
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, wake));
}

// ---- The queue -------------------------------------------------------------------------------

class CountedCommand : public ChannelEntity::Runnable {
  public:
    CountedCommand(std::atomic<int>* ran, std::atomic<int>* gone) : m_ran(ran), m_gone(gone) {}
    ~CountedCommand() override { ++*m_gone; }
    void Run() override { ++*m_ran; }

  private:
    std::atomic<int>* m_ran;
    std::atomic<int>* m_gone;
};

TEST_F(WorkerEdgesTest, EveryCommandIsFreedOnceWhetherItRanOrNot) {
    std::atomic<int> ran{0};
    std::atomic<int> gone{0};
    auto* pcie = static_cast<IQVCaptureDevice*>(channel)->AsPcieChannel();
    qv::Ref entity(new ChannelEntity(pcie));
    EXPECT_FALSE(entity->PostItem(nullptr, true));
    EXPECT_FALSE(entity->PostItem(new CountedCommand(&ran, &gone), true)) << "no thread yet";
    ASSERT_EQ(0, entity->StartChannelThread());
    EXPECT_TRUE(entity->PostItem(new CountedCommand(&ran, &gone), true));
    EXPECT_TRUE(entity->PostItem(new CountedCommand(&ran, &gone), false));
    EXPECT_TRUE(entity->PostItem(new CountedCommand(&ran, &gone), true));
    EXPECT_EQ(3, ran);
    ASSERT_EQ(0, entity->StopChannelThread());
    EXPECT_FALSE(entity->PostItem(new CountedCommand(&ran, &gone), true)) << "ended";
    EXPECT_EQ(3, ran);
    EXPECT_EQ(5, gone);
}

}  // namespace
}  // namespace qvtest
