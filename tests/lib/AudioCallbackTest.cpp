// Callback audio capture on the channel worker.
#include "WorkerFixture.h"

namespace qvtest {
namespace {

struct Listener {
    Recorder<uint64_t> numbers;
    std::function<void()> onFrame;
};

void OnAudio(_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param) {
    auto* listener = static_cast<Listener*>(param);
    EXPECT_EQ(QV_AUDIO_FRAME_MARKER, uint32_t{frame->marker});
    uint64_t number = 0;
    memcpy(&number, frame->bytes0, sizeof number);
    if (listener->onFrame) listener->onFrame();
    listener->numbers.Add(number);
}

// One frame a millisecond of a clock that only the test advances.
class AudioCallbackTest : public WorkerTest {
  protected:
    qvsim::BoardBuilder BoardUnderTest() override { return Pelix().Channels(1).Audio(1000); }
    void NextFrame() { rig.Cards().AdvanceClock(10000); }
    Listener listener;
};

TEST_F(AudioCallbackTest, EveryFrameIsDeliveredOnceInOrder) {
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
    EXPECT_EQ(Bytes(Wire().U64(0x1000)), Slice(Received("RegisterNotify"), 8, 16));
    for (size_t i = 1; i <= 50; ++i) {
        NextFrame();
        ASSERT_EQ(i, listener.numbers.AwaitCount(i).back());
    }
    EXPECT_EQ(50u, CountRequests("CaptureAudioFrame")) << "one frame a wake-up";
    EXPECT_EQ(0u, CountRequests("GetNotifyStatus"));
}

TEST_F(AudioCallbackTest, OpeningTwiceFailsAndTheFirstCaptureGoesOn) {
    Listener second;
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
    EXPECT_EQ(QV_RESULT_FAILED, QVStartAudioCaptureWithCallback(channel, OnAudio, &second));
    EXPECT_EQ(1u, CountRequests("StartAudioCapture"));
    NextFrame();
    listener.numbers.AwaitCount(1);
    EXPECT_THAT(second.numbers.Items(), IsEmpty());
}

TEST_F(AudioCallbackTest, ANullCallbackReadsAndDiscardsTheFrames) {
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
    NextFrame();
    while (CountRequests("CaptureAudioFrame") < 1) std::this_thread::yield();
    EXPECT_EQ(QV_RESULT_OK, QVStopAudioCaptureWithCallback(channel));
}

TEST_F(AudioCallbackTest, ARefusedRegistrationOrStartFailsAndLeavesNothingBehind) {
    for (const char* request : {"RegisterNotify", "StartAudioCapture"}) {
        rig.AddFault({.request = request, .effect = Refuse(EIO)});
        EXPECT_EQ(QV_RESULT_FAILED, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
        EXPECT_EQ(1u, rig.Cards().CountAlive().events) << request;
        EXPECT_EQ(0u, rig.Cards().CountAlive().notifications) << request;
        EXPECT_EQ(0u, rig.Cards().CountAlive().captures) << request;
    }
    EXPECT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
}

TEST_F(AudioCallbackTest, AFailedReadIsSkippedAndTheNextNotificationTriesAgain) {
    rig.AddFault({.request = "CaptureAudioFrame", .effect = Refuse(EIO)});
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
    NextFrame();
    while (CountRequests("CaptureAudioFrame") < 1) std::this_thread::yield();
    EXPECT_THAT(listener.numbers.Items(), IsEmpty());
    NextFrame();
    EXPECT_EQ(1u, listener.numbers.AwaitCount(1)[0]);
}

TEST_F(AudioCallbackTest, StoppingAsksTheDriverThenReleasesRegistrationAndEvent) {
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
    OnWorker([&] {
        rig.ClearJournal();
        EXPECT_EQ(QV_RESULT_OK, QVStopAudioCaptureWithCallback(channel));
        EXPECT_THAT(Requests(), ElementsAre("StopAudioCapture", "UnregisterNotify", "CloseEvent"));
    });
    EXPECT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
}

TEST_F(AudioCallbackTest, ARefusedStopFailsAndReleasesAllTheSame) {
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
    rig.AddFault({.request = "StopAudioCapture", .effect = Refuse(EIO)});
    EXPECT_EQ(QV_RESULT_FAILED, QVStopAudioCaptureWithCallback(channel));
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    EXPECT_EQ(1u, rig.Cards().CountAlive().events);
}

TEST_F(AudioCallbackTest, StoppingInsideTheCallbackEndsIt) {
    listener.onFrame = [&] { EXPECT_EQ(QV_RESULT_OK, QVStopAudioCaptureWithCallback(channel)); };
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
    NextFrame();
    listener.numbers.AwaitCount(1);
    NextFrame();
    Settle();
    EXPECT_EQ(1u, listener.numbers.Items().size());
}

TEST_F(AudioCallbackTest, StoppingTheThreadReleasesTheCapture) {
    ASSERT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, OnAudio, &listener));
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
    EXPECT_EQ(0u, rig.Cards().CountAlive().captures);
}

}  // namespace
}  // namespace qvtest
