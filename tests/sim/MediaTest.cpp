// Video and audio capture: frames by request and by time, numbered, whole, and never written to
// memory that is no longer the driver's.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/Recorder.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::Contains;
using testing::Each;

constexpr uint16_t kWidth = 32;
constexpr uint16_t kHeight = 8;
constexpr uint32_t kStride = 64;
constexpr uint32_t kSize = kStride * kHeight;
constexpr int64_t kFrame = kClockUnitsPerSecond / 100;

class MediaTest : public testing::Test {
  protected:
    void Start(double framesPerSecond, bool frozen = true) {
        m_rig.Add(Pelix().Video(kWidth, kHeight, framesPerSecond).Audio(framesPerSecond));
        m_rig.Attach();
        if (frozen) m_rig.Cards().FreezeClock();
        m_card = std::make_unique<Node>("/dev/video0");
        m_events = std::make_unique<Node>("/dev/qv-event");
        m_done = m_events->CreateEvent();
    }
    void StartVideo(double framesPerSecond, bool frozen = true) {
        Start(framesPerSecond, frozen);
        ASSERT_EQ(0, m_card->Do(qv::kStartVideoCapture, m_done));
    }
    qv::VideoCaptureFrameRecord Request(int32_t frame, uint64_t context = 0) {
        qv::VideoCaptureFrameRecord record{};
        record.fourcc = 0x32595559;
        record.width = kWidth;
        record.height = kHeight;
        record.frameIndex = frame;
        record.address = qv::WireAddress(m_memory.data());
        record.size = kSize;
        record.stride = kStride;
        record.context = context;
        return record;
    }
    int Capture(int32_t frame, uint64_t context = 0) {
        return m_card->Do(qv::kCaptureVideoFrame, Request(frame, context));
    }
    _QVCAP_VIDEO_CAPTURE_STATUS Status() {
        _QVCAP_VIDEO_CAPTURE_STATUS status{};
        EXPECT_EQ(0, m_card->Do(qv::kGetVideoCaptureStatus, status));
        return status;
    }
    uint64_t Notify(uint32_t bits, uint64_t event) {
        qv::RegisterNotifyRecord record{0, bits, event};
        EXPECT_EQ(0, m_card->Do(qv::kRegisterNotify, record));
        return record.notify;
    }
    // The number that every line carries at both ends; 0 when they differ.
    uint32_t Picture() const {
        uint32_t number = 0;
        std::memcpy(&number, m_memory.data(), 4);
        for (uint32_t line = 0; line < kHeight; ++line) {
            for (const uint32_t at : {line * kStride, (line + 1) * kStride - 4})
                if (std::memcmp(m_memory.data() + at, &number, 4) != 0) return 0;
        }
        return number;
    }
    uint32_t DescribedNumber() {
        _QVCAP_VIDEO_BUFFER_INFO buffers{};
        EXPECT_EQ(0, m_card->Do(qv::kGetVideoBufferInfo, buffers));
        qv::FrameInfoRecord record{};
        record.frameIndex = buffers.completedFrameIndex;
        EXPECT_EQ(0, m_card->Do(qv::kGetVideoFrameInfo, record));
        uint32_t number = 0;
        std::memcpy(&number, record.info.bytes, 4);
        return number;
    }

    // Outlives the node: a driver may write to it until that is closed.
    std::vector<uint8_t> m_memory = std::vector<uint8_t>(kSize + 16, 0xCC);
    SimRig m_rig;
    std::unique_ptr<Node> m_card;
    std::unique_ptr<Node> m_events;
    uint64_t m_done = 0;
};

TEST_F(MediaTest, UnpacedFramesComeOneByOneAndNoneIsMissing) {
    StartVideo(0);
    for (uint32_t number = 1; number <= 200; ++number) {
        ASSERT_EQ(0, Capture(-2, 1000 + number));
        ASSERT_EQ(1, m_events->Wait(m_done, -1));
        const _QVCAP_VIDEO_CAPTURE_STATUS status = Status();
        EXPECT_EQ(1, status.frameCompleted);
        uint64_t context = 0;
        std::memcpy(&context, status.bytes0, 8);
        EXPECT_EQ(1000 + number, context);
        EXPECT_EQ(number, Picture());
        EXPECT_EQ(number, DescribedNumber());
    }
    EXPECT_EQ(0xCC, m_memory[kSize]);
}

TEST_F(MediaTest, TheNextFrameComesWithTheClockAndTheNewestIsThereAlready) {
    StartVideo(100);
    ASSERT_EQ(0, Capture(-2));
    EXPECT_EQ(0, Status().frameCompleted);
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, m_done));
    m_rig.Cards().AdvanceClock(kFrame);
    ASSERT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_EQ(1u, Picture());
    m_rig.Cards().AdvanceClock(3 * kFrame);
    ASSERT_EQ(0, Capture(-1));
    ASSERT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_EQ(4u, Picture());
    EXPECT_EQ(4u, DescribedNumber());
}

TEST_F(MediaTest, ABufferedFrameCanBeAskedForByItsBuffer) {
    StartVideo(100);
    m_rig.Cards().AdvanceClock(3 * kFrame);
    ASSERT_EQ(0, Capture(2));
    ASSERT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_EQ(2u, Picture());
    EXPECT_EQ(-1, Capture(9));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(MediaTest, AnEmptyBufferHoldsFrameZeroAndABufferThatIsNoneIsRefused) {
    StartVideo(100);
    qv::FrameInfoRecord record{};
    std::memset(&record, 0xCC, sizeof record);
    record.frameIndex = 63;
    EXPECT_EQ(0, m_card->Do(qv::kGetVideoFrameInfo, record));
    EXPECT_EQ(0, record.info.bytes[0]);
    record.frameIndex = 64;
    EXPECT_EQ(-1, m_card->Do(qv::kGetVideoFrameInfo, record));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(MediaTest, FramesArriveByThemselvesOnTheRunningClock) {
    StartVideo(1000, false);
    ASSERT_EQ(0, Capture(-2));
    EXPECT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_NE(0u, Picture());
}

TEST_F(MediaTest, EveryBufferedFrameRaisesTheFrameNotification) {
    StartVideo(100);
    const uint64_t event = m_events->CreateEvent();
    qv::NotifyStatusRecord status{Notify(qv::kNotifyVideoFrame, event), 0};
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, event));
    m_rig.Cards().AdvanceClock(kFrame);
    EXPECT_EQ(1, m_events->Do(qv::kTryWaitEvent, event));
    ASSERT_EQ(0, m_card->Do(qv::kGetNotifyStatus, status));
    EXPECT_EQ(qv::kNotifyVideoFrame, uint64_t{status.statusBits});
}

TEST_F(MediaTest, WithoutPacingANotificationIsThereFromTheStartAndAfterEachFrame) {
    StartVideo(0);
    const uint64_t event = m_events->CreateEvent();
    Notify(qv::kNotifyVideoFrame, event);
    for (uint32_t number = 1; number <= 20; ++number) {
        ASSERT_EQ(1, m_events->Wait(event, -1));
        ASSERT_EQ(0, Capture(-1));
        ASSERT_EQ(1, m_events->Wait(m_done, -1));
        EXPECT_EQ(number, Picture());
    }
}

TEST_F(MediaTest, TwoCompletionsInOneSignalAreBothReported) {
    StartVideo(100);
    ASSERT_EQ(0, Capture(-2, 1));
    ASSERT_EQ(0, Capture(-2, 2));
    m_rig.Cards().AdvanceClock(kFrame);
    for (const int context : {1, 2}) {
        ASSERT_EQ(1, m_events->Wait(m_done, -1));
        EXPECT_EQ(context, Status().bytes0[0]);
    }
}

TEST_F(MediaTest, AnInterruptedFrameSignalsWithoutBeingComplete) {
    StartVideo(100);
    ASSERT_EQ(0, Capture(-2));
    m_rig.Cards().InterruptFrame(0, 0);
    ASSERT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_EQ(0, Status().frameCompleted);
}

TEST_F(MediaTest, NothingIsWrittenAfterTheStop) {
    m_rig.Driver({});  // whatever QV_TEST_DRIVER says
    StartVideo(100);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(0, Capture(-2));
    ASSERT_EQ(0, m_card->Do(qv::kStopVideoCapture));
    m_memory.assign(m_memory.size(), 0xCC);
    m_rig.Cards().AdvanceClock(5 * kFrame);
    EXPECT_THAT(m_memory, Each(0xCC));
    EXPECT_EQ(-1, Capture(-2));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0u, m_rig.Cards().CountAlive().captures);
}

// Whether a frame is on its way into memory. What is asked is whether another thread writes there
// now, so it looks without being ordered with it.
__attribute__((no_sanitize("thread"))) bool IsBegun(const std::vector<uint8_t>& memory) {
    return *static_cast<const volatile uint8_t*>(memory.data()) != 0xCC;
}

// Large frames, so that the stop comes while one is being written.
TEST_F(MediaTest, AStopWaitsForTheFrameThatIsBeingWritten) {
    m_rig.Driver({});  // whatever QV_TEST_DRIVER says
    Start(0);
    constexpr uint16_t kLarge = 3000;
    m_memory.resize(size_t{kLarge} * kLarge * 2);
    qv::VideoCaptureFrameRecord request = Request(-2);
    request.width = request.height = kLarge;
    request.stride = kLarge * 2;
    request.size = static_cast<uint32_t>(m_memory.size());
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(0, m_card->Do(qv::kStartVideoCapture, m_done));
        std::fill(m_memory.begin(), m_memory.end(), uint8_t{0xCC});
        ASSERT_EQ(0, m_card->Do(qv::kCaptureVideoFrame, request));
        while (!IsBegun(m_memory)) continue;
        ASSERT_EQ(0, m_card->Do(qv::kStopVideoCapture));
        std::fill(m_memory.begin(), m_memory.end(), uint8_t{0xCC});
        ASSERT_EQ(0xCC, m_memory[0]);
        ASSERT_EQ(0, std::memcmp(m_memory.data(), m_memory.data() + 1, m_memory.size() - 1));
    }
}

TEST_F(MediaTest, NothingIsWrittenAfterTheNodeWasClosed) {
    StartVideo(0);
    std::vector<std::vector<uint8_t>> large(8, std::vector<uint8_t>(1 << 20, 0xCC));
    for (std::vector<uint8_t>& frame : large) {
        qv::VideoCaptureFrameRecord record = Request(-2);
        record.address = qv::WireAddress(frame.data());
        record.size = 1 << 20;
        ASSERT_EQ(0, m_card->Do(qv::kCaptureVideoFrame, record));
    }
    m_card->Close();
    // Freed at once: the address sanitizer tells when somebody still writes.
    large.clear();
    EXPECT_EQ(0u, m_rig.Cards().CountAlive().captures);
    EXPECT_EQ(0u, m_rig.Cards().CountAlive().notifications);
}

TEST_F(MediaTest, WhatNoDriverCouldServeIsRefused) {
    StartVideo(0);
    const auto refused = [&](auto edit) {
        qv::VideoCaptureFrameRecord record = Request(-2);
        edit(record);
        return m_card->Do(qv::kCaptureVideoFrame, record) == -1 ? errno : 0;
    };
    EXPECT_EQ(EOPNOTSUPP, refused([](auto& r) { r.physicalAddress = 1; }));
    EXPECT_EQ(EFAULT, refused([](auto& r) { r.address = 0; }));
    EXPECT_EQ(EINVAL, refused([](auto& r) { r.size = 0; }));
    EXPECT_EQ(EINVAL, refused([](auto& r) { r.size = kSize - 1; }));
    EXPECT_EQ(EINVAL, refused([](auto& r) { r.frameIndex = -3; }));
    EXPECT_EQ(EINVAL, refused([](auto& r) { r.osdRectCount = 5; }));
    EXPECT_EQ(EINVAL, refused([](auto& r) { r.osdImage = 77; }));
    EXPECT_EQ(0, refused([](auto&) {}));
}

TEST_F(MediaTest, MoreFramesThanADriverHoldsAreRefusedUntilOneIsThere) {
    StartVideo(100);
    for (int i = 0; i < 64; ++i) ASSERT_EQ(0, Capture(-2));
    EXPECT_EQ(-1, Capture(-2));
    EXPECT_EQ(EBUSY, errno);
    m_rig.Cards().AdvanceClock(kFrame);
    ASSERT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_EQ(0, Capture(-2));
}

// Memory that takes nothing until it is let. What is written later than the test lasts still has
// it.
class Held {
  public:
    FrameSink Sink() {
        return [gate = m_gate](uint64_t, const void*, uint32_t) {
            gate->Pass();
            return true;
        };
    }
    void Free() { m_gate->Open(); }

  private:
    std::shared_ptr<qvtest::Gate> m_gate = std::make_shared<qvtest::Gate>();
};

TEST_F(MediaTest, AFrameThatIsThereAlreadyCountsAmongThoseInWork) {
    StartVideo(0);
    Held held;
    Model& model = m_rig.Cards();
    int error = 0;
    const std::shared_ptr<OpenFile> file = model.Open("/dev/video0", error);
    ASSERT_TRUE(file);
    {
        const Model::Locked cards(model);
        const auto ask = [&] {
            return cards->Media()
                .RequestFrame(*file->channel, {held.Sink(), kSize, kStride}, -2, 0)
                .error;
        };
        for (int i = 0; i < 64; ++i) ASSERT_EQ(0, ask());
        EXPECT_EQ(EBUSY, ask());
    }
    held.Free();
    ASSERT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_EQ(0, Capture(-2));
    model.Close(file, 0);
}

TEST_F(MediaTest, WithoutASignalNoFrameComesUntilItIsBack) {
    StartVideo(100);
    const uint64_t event = m_events->CreateEvent();
    Notify(kNotifySignalChange, event);
    m_rig.Cards().SetSignal(0, 0, false);
    EXPECT_EQ(1, m_events->Do(qv::kTryWaitEvent, event));
    _QVCAP_VIDEO_SIGNAL_STATUS signal{};
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoSignalStatus, signal));
    EXPECT_EQ(0, signal.bytes[0]);
    ASSERT_EQ(0, Capture(-2));
    m_rig.Cards().AdvanceClock(5 * kFrame);
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, m_done));
    m_rig.Cards().SetSignal(0, 0, true);
    m_rig.Cards().AdvanceClock(kFrame);
    EXPECT_EQ(1, m_events->Wait(m_done, -1));
    EXPECT_EQ(1u, Picture());
}

TEST_F(MediaTest, AnUnpacedRequestWithoutASignalWaitsForIt) {
    StartVideo(0);
    m_rig.Cards().SetSignal(0, 0, false);
    ASSERT_EQ(0, Capture(-2));
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, m_done));
    m_rig.Cards().SetSignal(0, 0, true);
    EXPECT_EQ(1, m_events->Wait(m_done, -1));
}

TEST_F(MediaTest, TheSignalFollowsItsScript) {
    m_rig.Add(Pelix().Signal(10, false).Signal(20, true));
    m_rig.Attach();
    m_rig.Cards().FreezeClock();
    Node card("/dev/video0");
    const auto present = [&] {
        _QVCAP_AUDIO_SIGNAL_STATUS signal{};
        EXPECT_EQ(0, card.Do(qv::kGetAudioSignalStatus, signal));
        return signal.bytes[0];
    };
    m_rig.Cards().AdvanceClock(10 * kClockUnitsPerSecond / 1000);
    EXPECT_EQ(0, present());
    m_rig.Cards().AdvanceClock(10 * kClockUnitsPerSecond / 1000);
    EXPECT_EQ(1, present());
}

TEST_F(MediaTest, AudioFramesCarryTheirNumberTheMarkerAndATone) {
    Start(100);
    const uint64_t event = m_events->CreateEvent();
    Notify(qv::kNotifyAudioFrame, event);
    ASSERT_EQ(0, m_card->Do(qv::kStartAudioCapture));
    _QVCAP_AUDIO_CAPTURE_FRAME frame;
    EXPECT_EQ(-1, m_card->Do(qv::kCaptureAudioFrame, frame));
    EXPECT_EQ(ENODATA, errno);
    m_rig.Cards().AdvanceClock(2 * kFrame);
    EXPECT_EQ(1, m_events->Do(qv::kTryWaitEvent, event));
    for (const int number : {1, 2}) {
        ASSERT_EQ(0, m_card->Do(qv::kCaptureAudioFrame, frame));
        EXPECT_EQ(number, frame.bytes0[0]);
        EXPECT_EQ(0xFECA0357u, uint32_t{frame.marker});
        int loudest = 0;
        for (size_t at = 0; at < sizeof frame.bytes12; at += 2) {
            int16_t sample = 0;
            std::memcpy(&sample, frame.bytes12 + at, 2);
            loudest = std::max(loudest, std::abs(int{sample}));
        }
        EXPECT_EQ(12000, loudest);
    }
    EXPECT_EQ(-1, m_card->Do(qv::kCaptureAudioFrame, frame));
    EXPECT_EQ(ENODATA, errno);
}

TEST_F(MediaTest, AudioThatNobodyReadsLosesItsOldestFrames) {
    Start(100);
    ASSERT_EQ(0, m_card->Do(qv::kStartAudioCapture));
    for (int i = 0; i < 20; ++i) m_rig.Cards().AdvanceClock(kFrame);
    _QVCAP_AUDIO_CAPTURE_FRAME frame;
    ASSERT_EQ(0, m_card->Do(qv::kCaptureAudioFrame, frame));
    EXPECT_EQ(5, frame.bytes0[0]);
    ASSERT_EQ(0, m_card->Do(qv::kStopAudioCapture));
    EXPECT_EQ(-1, m_card->Do(qv::kCaptureAudioFrame, frame));
    EXPECT_EQ(ENODATA, errno);
}

TEST_F(MediaTest, TheJournalTellsWhatAFrameRequestAskedFor) {
    StartVideo(100);
    ASSERT_EQ(0, Capture(-2, 5));
    EXPECT_THAT(m_rig.Journal(),
                Contains("ioctl /dev/video0 CaptureVideoFrame fourcc=YUY2 width=32 height=8 "
                         "frame=-2 bytes=512 stride=64 context=0x5 = 0"));
}

TEST_F(MediaTest, DetachingWhileFramesAreInWorkLeavesNothingRunning) {
    StartVideo(0, false);
    std::vector<uint8_t> large(4 << 20);
    qv::VideoCaptureFrameRecord record = Request(-2);
    record.address = qv::WireAddress(large.data());
    record.size = 4 << 20;
    for (int i = 0; i < 4; ++i) ASSERT_EQ(0, m_card->Do(qv::kCaptureVideoFrame, record));
    m_rig.Detach();
    large = {};
    EXPECT_EQ(-1, Capture(-2));
    EXPECT_EQ(ENODEV, errno);
}

}  // namespace
}  // namespace qvsim
