// Callback video capture on the channel worker: both pacing modes, replacing, stopping at awkward
// moments, and drivers that refuse. Frames carry their number, so order, loss and tearing show.
#include "FrameLayout.h"
#include "WorkerFixture.h"

// A lack of memory is a result to test, not a reason for the sanitizer to end the program.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace qvtest {
namespace {

constexpr unsigned int kYuy2 = qv::Fourcc("YUY2");
constexpr int kWidth = 64;
constexpr int kHeight = 8;
constexpr unsigned int kStride = 2 * kWidth;
constexpr unsigned int kFrameSize = kStride * kHeight;

struct Frame {
    uint32_t number;  // from the driver's description
    unsigned long long address;
    unsigned int size;
    unsigned int stride;
    bool whole;  // every line begins and ends with that number
};

uint32_t NumberAt(const uint8_t* bytes) {
    uint32_t number = 0;
    memcpy(&number, bytes, sizeof number);
    return number;
}

bool IsWhole(const uint8_t* picture, unsigned int size, unsigned int stride, uint32_t number) {
    for (unsigned int line = 0; line + stride <= size; line += stride)
        if (NumberAt(picture + line) != number || NumberAt(picture + line + stride - 4) != number)
            return false;
    return true;
}

struct Viewer {
    Recorder<Frame> frames;
    std::function<void(const Frame&)> onFrame;
};

void OnFrame(unsigned long long address, unsigned int size, unsigned int stride,
             _QVCAP_VIDEO_FRAME_INFO* info, void* param) {
    auto* viewer = static_cast<Viewer*>(param);
    const auto* picture = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(address));
    const uint32_t number = NumberAt(info->bytes);
    const Frame frame{number, address, size, stride, IsWhole(picture, size, stride, number)};
    if (viewer->onFrame) viewer->onFrame(frame);
    viewer->frames.Add(frame);
}

// Frames whenever they are asked for.
class VideoCallbackTest : public WorkerTest {
  protected:
    qvsim::BoardBuilder BoardUnderTest() override {
        return Pelix().Channels(1).Video(kWidth, kHeight, 0);
    }
    QV_RESULT Start(_QV_VIDEO_CAPTURE_MODE mode, Viewer* to) {
        return QVStartVideoCaptureWithCallback(channel, kYuy2, kWidth, kHeight, mode,
                                               to == nullptr ? nullptr : OnFrame, to);
    }
    Viewer viewer;
};

// One frame a millisecond of a clock that only the test advances.
class PacedVideoCallbackTest : public VideoCallbackTest {
  protected:
    qvsim::BoardBuilder BoardUnderTest() override {
        return Pelix().Channels(1).Video(kWidth, kHeight, 1000);
    }
    void NextFrame() { rig.Cards().AdvanceClock(10000); }
};

TEST_F(VideoCallbackTest, BackToBackDeliversEveryFrameOnceInOrderAndWhole) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    viewer.frames.AwaitCount(200);
    ASSERT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    const std::vector<Frame> frames = viewer.frames.Items();
    ASSERT_NE(frames[0].address, frames[1].address);
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(i + 1, frames[i].number);
        ASSERT_TRUE(frames[i].whole) << i;
        ASSERT_EQ(kFrameSize, frames[i].size);
        ASSERT_EQ(kStride, frames[i].stride);
        // The two buffers alternate.
        ASSERT_EQ(frames[i % 2].address, frames[i].address);
    }
}

TEST_F(VideoCallbackTest, BackToBackAsksForTheNextFrameBeforeItsCallbackRuns) {
    Recorder<size_t> asked;
    viewer.onFrame = [&](const Frame&) {
        if (asked.Items().size() < 5) asked.Add(CountRequests("CaptureVideoFrame"));
    };
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    const auto counts = asked.AwaitCount(5);
    ASSERT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(i + 2, counts[i]);
    const Bytes record = Received("CaptureVideoFrame");
    ASSERT_EQ(188u, record.size());
    EXPECT_EQ(Bytes(Wire().U32(kYuy2).U16(kWidth).U16(kHeight)), Slice(record, 0, 8));
    EXPECT_EQ(Bytes(Wire().U32(static_cast<uint32_t>(-2))), Slice(record, 76, 80));
    EXPECT_EQ(Bytes(Wire().U32(kFrameSize).U32(kStride).U8(0)), Slice(record, 165, 174));
    EXPECT_EQ(Bytes(8, 0), Slice(record, 180, 188));
}

TEST_F(VideoCallbackTest, OpeningStartsTheDriverOnItsEventAndRegistersNothingBackToBack) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    EXPECT_EQ(1u, CountRequests("StartVideoCapture"));
    EXPECT_EQ(0u, CountRequests("RegisterNotify"));
    EXPECT_EQ(2u, rig.Cards().CountAlive().events) << "wake and capture-done";
}

TEST_F(PacedVideoCallbackTest, OnNotifyCapturesOneFrameForEachNotificationIntoOneBuffer) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_ON_NOTIFY, &viewer));
    EXPECT_EQ(Bytes(Wire().U64(0x400)), Slice(Received("RegisterNotify"), 8, 16));
    EXPECT_EQ(0u, CountRequests("CaptureVideoFrame")) << "nothing before a notification";
    for (size_t i = 1; i <= 10; ++i) {
        NextFrame();
        const auto frames = viewer.frames.AwaitCount(i);
        ASSERT_EQ(i, frames.back().number);
        ASSERT_TRUE(frames.back().whole);
        ASSERT_EQ(frames.front().address, frames.back().address);
    }
    EXPECT_EQ(Bytes(Wire().U32(static_cast<uint32_t>(-1))),
              Slice(Received("CaptureVideoFrame"), 76, 80));
    EXPECT_EQ(10u, CountRequests("CaptureVideoFrame"));
    EXPECT_EQ(0u, CountRequests("GetNotifyStatus")) << "waking is enough";
}

TEST_F(PacedVideoCallbackTest, AnyModeButOneIsPacedByNotifications) {
    ASSERT_EQ(QV_RESULT_OK, Start(0xFFFFFFFF, &viewer));
    NextFrame();
    EXPECT_EQ(1u, viewer.frames.AwaitCount(1)[0].number);
}

// The refused request never completes, so that a capture stays in flight.
TEST_F(PacedVideoCallbackTest, NotificationsDuringACaptureInFlightAreDropped) {
    rig.AddFault({.request = "CaptureVideoFrame", .effect = Refuse(EIO)});
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_ON_NOTIFY, &viewer));
    for (int i = 0; i < 5; ++i) {
        NextFrame();
        Settle();
    }
    EXPECT_EQ(1u, CountRequests("CaptureVideoFrame"));
    EXPECT_THAT(viewer.frames.Items(), IsEmpty());
}

TEST_F(PacedVideoCallbackTest, AnIncompleteFrameIsNotDelivered) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    rig.Cards().InterruptFrame(0, 0);
    while (CountRequests("GetVideoCaptureStatus") < 1) std::this_thread::yield();
    Settle();
    EXPECT_THAT(viewer.frames.Items(), IsEmpty());
    EXPECT_EQ(0u, CountRequests("GetVideoBufferInfo"));
}

TEST_F(PacedVideoCallbackTest, AFailedStatusReadCountsAsAnIncompleteFrame) {
    rig.AddFault({.request = "GetVideoCaptureStatus", .effect = Refuse(EIO)});
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    NextFrame();
    while (CountRequests("GetVideoCaptureStatus") < 1) std::this_thread::yield();
    Settle();
    EXPECT_THAT(viewer.frames.Items(), IsEmpty());
}

TEST_F(PacedVideoCallbackTest, FramesResumeWhenTheSignalComesBack) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    NextFrame();
    viewer.frames.AwaitCount(1);
    rig.Cards().SetSignal(0, 0, false);
    NextFrame();
    Settle();
    EXPECT_EQ(1u, viewer.frames.Items().size());
    rig.Cards().SetSignal(0, 0, true);
    NextFrame();
    NextFrame();
    EXPECT_TRUE(viewer.frames.AwaitCount(2)[1].whole);
}

TEST_F(VideoCallbackTest, ANullCallbackStillKeepsTheDriverBusy) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, nullptr));
    while (CountRequests("CaptureVideoFrame") < 10) std::this_thread::yield();
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
}

// In 32 bits large frames are mapped above 2 GiB: their address is widened with its sign, and is
// still the frame's when it is narrowed again.
TEST_F(VideoCallbackTest, AnAddressAbove2GibIsWidenedWithItsSign) {
    Recorder<unsigned long long> addresses;
    const auto onFrame = [](unsigned long long address, unsigned int size, unsigned int,
                            _QVCAP_VIDEO_FRAME_INFO*, void* param) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(address));
        EXPECT_EQ(NumberAt(bytes), NumberAt(bytes + size - 4)) << "of the same frame";
        static_cast<Recorder<unsigned long long>*>(param)->Add(address);
    };
    ASSERT_EQ(QV_RESULT_OK,
              QVStartVideoCaptureWithCallback(channel, kYuy2, 1920, 1080,
                                              QV_VIDEO_CAPTURE_BACK_TO_BACK, onFrame, &addresses));
    const auto pointer =
        reinterpret_cast<void*>(static_cast<uintptr_t>(addresses.AwaitCount(1)[0]));
    EXPECT_EQ(static_cast<unsigned long long>(
                  static_cast<long long>(reinterpret_cast<intptr_t>(pointer))),
              addresses.Items()[0]);
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
}

TEST_F(VideoCallbackTest, AnUnknownFormatYieldsFramesOfNoBytes) {
    ASSERT_EQ(QV_RESULT_OK,
              QVStartVideoCaptureWithCallback(channel, qv::Fourcc("H264"), kWidth, kHeight,
                                              QV_VIDEO_CAPTURE_BACK_TO_BACK, OnFrame, &viewer));
    EXPECT_EQ(Bytes(8, 0), Slice(Received("CaptureVideoFrame"), 165, 173));
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
}

TEST_F(VideoCallbackTest, DimensionsThatGiveNoFrameAreNotRefused) {
    for (const auto& [width, height] : {std::pair{0, 0}, {-4, 8}, {70000, 8}}) {
        EXPECT_EQ(QV_RESULT_OK,
                  QVStartVideoCaptureWithCallback(channel, kYuy2, width, height,
                                                  QV_VIDEO_CAPTURE_BACK_TO_BACK, OnFrame, &viewer));
        EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    }
}

TEST_F(VideoCallbackTest, ARefusedStartFailsAndLeavesNothingBehind) {
    rig.AddFault({.request = "StartVideoCapture", .effect = Refuse(EIO)});
    EXPECT_EQ(QV_RESULT_FAILED, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    EXPECT_EQ(1u, rig.Cards().CountAlive().events) << "the wake event alone";
    EXPECT_EQ(0u, CountRequests("CaptureVideoFrame"));
    EXPECT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    viewer.frames.AwaitCount(1);
}

TEST_F(VideoCallbackTest, WithoutMemoryForTheFramesTheOpenFailsAndTheDriverIsNotAsked) {
    // Runs in the 32-bit configurations, every day in i386.
    if (sizeof(void*) == 8) GTEST_SKIP() << "two frames of 4 GB fit into 64 bits";
    EXPECT_EQ(QV_RESULT_FAILED,
              QVStartVideoCaptureWithCallback(channel, qv::Fourcc("BGRA"), 65535, 16383,
                                              QV_VIDEO_CAPTURE_BACK_TO_BACK, OnFrame, &viewer));
    EXPECT_EQ(0u, CountRequests("StartVideoCapture"));
    EXPECT_EQ(1u, rig.Cards().CountAlive().events);
}

TEST_F(VideoCallbackTest, ASecondStartReplacesTheFirstAndBothAreReleased) {
    Viewer second;
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    viewer.frames.AwaitCount(3);
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &second));
    const size_t first = viewer.frames.Items().size();
    second.frames.AwaitCount(10);
    Settle();
    EXPECT_EQ(first, viewer.frames.Items().size());
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    EXPECT_EQ(1u, rig.Cards().CountAlive().events);
    EXPECT_EQ(0u, rig.Cards().CountAlive().captures);
}

TEST_F(VideoCallbackTest, StoppingInsideTheFramesOwnCallbackKeepsTheFrameUntilItReturns) {
    Recorder<QV_RESULT> results;
    viewer.onFrame = [&](const Frame& frame) {
        results.Add(QVStopVideoCaptureWithCallback(channel));
        const auto* picture =
            reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(frame.address));
        EXPECT_TRUE(IsWhole(picture, frame.size, frame.stride, frame.number));
    };
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    EXPECT_EQ(QV_RESULT_OK, results.AwaitCount(1)[0]);
    Settle();
    EXPECT_EQ(1u, viewer.frames.Items().size());
    EXPECT_EQ(1u, rig.Cards().CountAlive().events);
}

TEST_F(VideoCallbackTest, RestartingInsideTheCallbackGoesOnWithTheNewCapture) {
    Viewer second;
    viewer.onFrame = [&](const Frame&) {
        EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
        EXPECT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &second));
    };
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    const auto frames = second.frames.AwaitCount(20);
    ASSERT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    for (const Frame& frame : frames) EXPECT_TRUE(frame.whole);
    EXPECT_EQ(1u, viewer.frames.Items().size());
}

TEST_F(VideoCallbackTest, ARefusedStopFailsAndTheFramesStayUntilTheChannelIsClosed) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
    viewer.frames.AwaitCount(3);
    RefuseFromNowOn("StopVideoCapture");
    EXPECT_EQ(QV_RESULT_FAILED, QVStopVideoCaptureWithCallback(channel));
    EXPECT_EQ(1u, rig.Cards().CountAlive().events);
    // The driver still holds a request into that memory; the sanitizers watch that it may write.
    EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
}

TEST_F(VideoCallbackTest, StoppingWithoutACaptureStillAsksTheDriver) {
    EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    EXPECT_EQ(1u, CountRequests("StopVideoCapture"));
    RefuseFromNowOn("StopVideoCapture");
    EXPECT_EQ(QV_RESULT_FAILED, QVStopVideoCaptureWithCallback(channel));
}

TEST_F(VideoCallbackTest, ClosingAsksForTheStopThenReleasesEventAndRegistration) {
    ASSERT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_ON_NOTIFY, nullptr));
    OnWorker([&] {
        rig.ClearJournal();
        EXPECT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
        EXPECT_THAT(Requests(), ElementsAre("StopVideoCapture", "CloseEvent", "UnregisterNotify",
                                            "CloseEvent"));
    });
}

TEST_F(VideoCallbackTest, StoppingTheThreadReleasesTheCapture) {
    for (const unsigned int mode : {QV_VIDEO_CAPTURE_BACK_TO_BACK, QV_VIDEO_CAPTURE_ON_NOTIFY}) {
        ASSERT_EQ(QV_RESULT_OK, Start(mode, &viewer));
        ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
        EXPECT_EQ(0u, rig.Cards().CountAlive().events);
        EXPECT_EQ(0u, rig.Cards().CountAlive().captures);
        EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
        ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
    }
}

// The stop asks the driver first and ends the worker then: what a callback opens in between must
// not outlive the memory that it captures into.
TEST_F(VideoCallbackTest, ACaptureOpenedWhileTheThreadStopsIsStoppedToo) {
    Gate holding;
    NotifyFunction open = [&](unsigned long long, unsigned int) {
        holding.Open();
        while (CountRequests("StopAudioCapture") < 1) std::this_thread::yield();
        EXPECT_EQ(QV_RESULT_OK, Start(QV_VIDEO_CAPTURE_BACK_TO_BACK, &viewer));
        EXPECT_EQ(QV_RESULT_OK, QVStartAudioCaptureWithCallback(channel, nullptr, nullptr));
    };
    ASSERT_NE(0u, QVRegisterNotifyWithCallback(channel, 0x8000, CallNotify, &open));
    rig.Cards().RaiseNotification(0, 0, 0x8000);
    holding.Pass();
    ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel));
    EXPECT_EQ(0u, rig.Cards().CountAlive().captures);
    EXPECT_EQ(0u, rig.Cards().CountAlive().events);
}

TEST_F(VideoCallbackTest, StartStopLoopsLeaveNothingBehind) {
    for (unsigned int i = 0; i < 100; ++i) {
        ASSERT_EQ(QV_RESULT_OK, Start(i % 2, &viewer));
        ASSERT_EQ(QV_RESULT_OK, QVStopVideoCaptureWithCallback(channel));
    }
    EXPECT_EQ(1u, rig.Cards().CountAlive().events);
    EXPECT_EQ(0u, rig.Cards().CountAlive().notifications);
}

// Each request of a capture refused once, at each of its first places: no hang, nothing kept.
TEST_F(VideoCallbackTest, AnyRefusedRequestIsSurvived) {
    for (const char* request :
         {"CreateEvent", "StartVideoCapture", "RegisterNotify", "CaptureVideoFrame",
          "GetVideoCaptureStatus", "GetVideoBufferInfo", "GetVideoFrameInfo", "UnregisterNotify",
          "CloseEvent", "SetEvent"}) {
        for (int nth = 1; nth <= 3; ++nth) {
            rig.AddFault({.request = request, .nth = nth, .effect = Refuse(EIO)});
            for (const unsigned int mode : {0u, 1u})
                if (Start(mode, &viewer) == QV_RESULT_OK) QVStopVideoCaptureWithCallback(channel);
            ASSERT_EQ(QV_RESULT_OK, QVStopChannelThread(channel)) << request << " " << nth;
            rig.Cards().ClearFaults();
            ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(channel));
        }
    }
    ASSERT_EQ(QV_RESULT_OK, Start(1, &viewer));
    viewer.frames.AwaitCount(viewer.frames.Items().size() + 5);
}

}  // namespace
}  // namespace qvtest
