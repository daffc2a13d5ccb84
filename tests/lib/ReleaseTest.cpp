// Parameters with a release: each is released exactly once, behind the last callback, on the driver
// that UnrulyDriverTest.cpp has, too; and releases that call the library.
#include <deque>

#include "UnrulyFixture.h"

namespace qvtest {
namespace {

using ReleaseTest = UnrulyDriverTest;

struct Owned {
    std::atomic<int> released{0};
    static void Release(void* param) { ++static_cast<Owned*>(param)->released; }
};

TEST_F(ReleaseTest, EveryParameterIsReleasedExactlyOnceWhateverEndsIt) {
    std::deque<Owned> owned(6);
    const auto notify = QVRegisterNotifyWithRelease(channel, 1, nullptr, &owned[0], Owned::Release);
    const auto timer =
        QVCreateTimerWithRelease(channel, nullptr, 100, 100, &owned[1], Owned::Release);
    ASSERT_NE(0u, notify);
    ASSERT_NE(0u, timer);
    ASSERT_EQ(QV_RESULT_OK, QVStartVideoCaptureWithRelease(channel, kGrey, kWidth, kHeight, 1,
                                                           nullptr, &owned[2], Owned::Release));
    ASSERT_EQ(QV_RESULT_OK, QVStartVideoCaptureWithRelease(channel, kGrey, kWidth, kHeight, 1,
                                                           nullptr, &owned[3], Owned::Release));
    ASSERT_EQ(QV_RESULT_OK,
              QVStartAudioCaptureWithRelease(channel, nullptr, &owned[4], Owned::Release));
    for (const Owned& one : owned) EXPECT_EQ(0, one.released);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, notify));
    EXPECT_EQ(1, owned[0].released);
    QVDestoryTimer(channel, timer);
    EXPECT_EQ(1, owned[1].released);
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    EXPECT_EQ(1, owned[2].released) << "replaced, and released with the one after it";
    EXPECT_EQ(1, owned[3].released);
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(1, owned[4].released);
    // Calls that fail let go of it at once.
    EXPECT_EQ(0u, QVRegisterNotifyWithRelease(channel, 1, nullptr, &owned[5], Owned::Release));
    EXPECT_EQ(0u, QVCreateTimerWithRelease(nullptr, nullptr, 1, 1, &owned[5], Owned::Release));
    EXPECT_EQ(QV_RESULT_FAILED, QVStartVideoCaptureWithRelease(channel, kGrey, kWidth, kHeight, 1,
                                                               nullptr, &owned[5], Owned::Release));
    EXPECT_EQ(QV_RESULT_FAILED,
              QVStartAudioCaptureWithRelease(channel, nullptr, &owned[5], Owned::Release));
    EXPECT_EQ(4, owned[5].released);
}

struct SelfEnding {
    std::atomic<bool> inCallback{false};
    std::atomic<bool> releasedInside{false};
    Gate released;
    static void Release(void* param) {
        auto* self = static_cast<SelfEnding*>(param);
        self->releasedInside = self->inCallback.load();
        self->released.Open();
    }
};

TEST_F(ReleaseTest, AParameterOutlivesTheCallbackThatEndsItsRegistration) {
    static QV_CHANNEL s_channel;
    s_channel = channel;
    SelfEnding ending;
    const auto handle = QVRegisterNotifyWithRelease(
        channel, 1,
        [](unsigned long long own, unsigned int, void* param) {
            auto* self = static_cast<SelfEnding*>(param);
            self->inCallback = true;
            EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(s_channel, own));
            self->inCallback = false;
        },
        &ending, SelfEnding::Release);
    ASSERT_NE(0u, handle);
    rig.Cards().RaiseNotification(0, 0, 1);
    ending.released.Pass();
    EXPECT_FALSE(ending.releasedInside);
}

// ---- Releases that call the library ----------------------------------------------------------

// What a release does, given as its parameter.
using Deed = std::function<void()>;
void DoDeed(void* param) { (*static_cast<Deed*>(param))(); }

TEST_F(ReleaseTest, ACaptureStartedInAReleaseGoesOn) {
    QV_RESULT restarted = QV_RESULT_FAILED;
    Owned second;
    Deed restart = [&] {
        restarted = QVStartVideoCaptureWithRelease(channel, kGrey, kWidth, kHeight,
                                                   QV_VIDEO_CAPTURE_BACK_TO_BACK, nullptr, &second,
                                                   Owned::Release);
    };
    ASSERT_EQ(QV_RESULT_OK, QVStartVideoCaptureWithRelease(channel, kGrey, kWidth, kHeight, 1,
                                                           nullptr, &restart, DoDeed));
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    EXPECT_EQ(QV_RESULT_OK, restarted);
    EXPECT_EQ(0, second.released);
    EXPECT_EQ(1u, rig.Cards().CountAlive().captures);
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    EXPECT_EQ(1, second.released);
    EXPECT_EQ(0u, rig.Cards().CountAlive().captures);
}

TEST_F(ReleaseTest, AWorkerThatEndsTakesNothingOnAnyMore) {
    Owned late;
    std::vector<unsigned long long> made;
    Deed makeMore = [&] {
        made.push_back(QVCreateTimerWithRelease(channel, nullptr, 9, 9, &late, Owned::Release));
        made.push_back(QVRegisterNotifyWithRelease(channel, 1, nullptr, &late, Owned::Release));
        EXPECT_EQ(QV_RESULT_FAILED,
                  QVStartAudioCaptureWithRelease(channel, nullptr, &late, Owned::Release));
    };
    ASSERT_NE(0u, QVRegisterNotifyWithRelease(channel, 1, nullptr, &makeMore, DoDeed));
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithRelease(channel, nullptr, &makeMore, DoDeed));
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_THAT(made, ElementsAre(0u, 0u, 0u, 0u));
    EXPECT_EQ(6, late.released);
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
}

TEST_F(ReleaseTest, AReleaseMayRegisterItsSuccessorInTheLastPlace) {
    unsigned long long successor = 0;
    Deed succeed = [&] { successor = QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr); };
    const auto last = QVRegisterNotifyWithRelease(channel, 1, nullptr, &succeed, DoDeed);
    for (int i = 0; i < 26; ++i)
        ASSERT_NE(0u, QVRegisterNotifyWithCallback(channel, 1, nullptr, nullptr));
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterNotify(channel, last));
    EXPECT_NE(0u, successor);
}

// The stop finds the channel closed by a release that it brought about, and closes it itself.
TEST_F(ReleaseTest, AChannelClosedWhileItsWorkerIsStoppedIsClosedOnce) {
    QV_CHANNEL second = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(second));
    Owned closed;
    Deed close = [&] { QVCloseChannelWithRelease(second, &closed, Owned::Release); };
    ASSERT_NE(0u, QVRegisterNotifyWithRelease(second, 1, nullptr, &close, DoDeed));
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(second));
    EXPECT_EQ(1, closed.released);
    EXPECT_EQ(2u, rig.Cards().CountAlive().files);
    EXPECT_EQ(1u, rig.Cards().CountAlive().events);
}

TEST_F(ReleaseTest, TheHandleOfATimerWithAReleaseNeverComesBack) {
    std::vector<unsigned long long> handles;
    Owned owned;
    for (int i = 0; i < 20; ++i) {
        handles.push_back(
            QVCreateTimerWithRelease(channel, nullptr, 100, 0, &owned, Owned::Release));
        ASSERT_NE(0u, handles.back());
        QVDestoryTimer(channel, handles.back());
    }
    std::sort(handles.begin(), handles.end());
    EXPECT_EQ(handles.end(), std::unique(handles.begin(), handles.end()));
    EXPECT_EQ(20, owned.released);
}

TEST_F(ReleaseTest, ACloseFromACallbackTellsWhenItHasTakenEffect) {
    QV_CHANNEL second = QVOpenChannelByPath("/dev/video0");
    ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(second));
    static SimRig* s_rig;
    s_rig = &rig;
    static std::atomic<size_t> s_files;
    static Gate* s_closed;
    Gate closed;
    s_closed = &closed;
    NotifyFunction close = [&](unsigned long long, unsigned int) {
        QVCloseChannelWithRelease(second, &second, [](void*) {
            s_files = s_rig->Cards().CountAlive().files;
            s_closed->Open();
        });
        EXPECT_EQ(3u, rig.Cards().CountAlive().files) << "open until the callback has returned";
    };
    ASSERT_NE(0u, QVRegisterNotifyWithCallback(second, 0x20, CallNotify, &close));
    rig.Cards().RaiseNotification(0, 0, 0x20);
    closed.Pass();
    EXPECT_EQ(2u, s_files) << "the node was closed before";
    // From outside it is told before the call returns.
    Owned owned;
    QVCloseChannelWithRelease(QVOpenChannelByPath("/dev/video0"), &owned, Owned::Release);
    EXPECT_EQ(1, owned.released);
    QVCloseChannelWithRelease(nullptr, &owned, Owned::Release);
    EXPECT_EQ(2, owned.released);
}

}  // namespace
}  // namespace qvtest
