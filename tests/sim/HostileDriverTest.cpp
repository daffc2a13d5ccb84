// A driver that behaves as badly as it may: what a scenario's [driver] table and the faults made
// for it bring about.
#include <cstring>
#include <set>
#include <thread>

#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

constexpr uint32_t kWidth = 16;
constexpr uint32_t kHeight = 4;
constexpr uint32_t kStride = 32;
constexpr uint32_t kSize = kStride * kHeight;
constexpr uint32_t kYuy2 = 0x32595559;

class HostileDriverTest : public testing::Test {
  protected:
    void Attach(const DriverWays& ways = {}) {
        rig_.Add(Pelix().Video(kWidth, kHeight, 0)).Driver(ways);
        rig_.AttachInMemory();
        card_ = std::make_unique<Node>("/dev/video0");
        events_ = std::make_unique<Node>("/dev/qv-event");
    }
    int Start(uint64_t event) const { return card_->Do(qv::kStartVideoCapture, event); }
    int Stop() const { return card_->Do(qv::kStopVideoCapture); }
    int Capture() {
        qv::VideoCaptureFrameRecord record{};
        record.address = qv::WireAddress(memory_.data());
        record.size = kSize;
        record.stride = kStride;
        record.width = kWidth;
        record.height = kHeight;
        record.fourcc = kYuy2;
        record.frameIndex = qv::kFrameNextLowLatency;
        record.context = 77;
        return card_->Do(qv::kCaptureVideoFrame, record);
    }
    // The frames that the driver holds are written.
    void AwaitFrames() {
        while (rig_.Cards().CountAlive().frames > 0) std::this_thread::yield();
    }
    uint64_t Register(uint64_t event) const {
        qv::RegisterNotifyRecord record{};
        record.enableBits = 1;
        record.event = event;
        return card_->Do(qv::kRegisterNotify, record) == 0 ? uint64_t{record.notify} : 0;
    }
    uint64_t Timer(uint64_t event) const {
        qv::RegisterTimerRecord record{};
        record.event = event;
        return card_->Do(qv::kRegisterTimer, record) == 0 ? uint64_t{record.timer} : 0;
    }
    bool Untouched() const { return memory_ == std::vector<uint8_t>(memory_.size(), 0xCC); }

    std::vector<uint8_t> memory_ = std::vector<uint8_t>(kSize, 0xCC);  // outlives the node
    SimRig rig_;
    std::unique_ptr<Node> card_;
    std::unique_ptr<Node> events_;
};

TEST_F(HostileDriverTest, AWellBehavedOneGivesNoHandleTwice) {
    Attach();
    std::set<uint64_t> seen;
    for (int i = 0; i < 5; ++i) {
        const uint64_t event = events_->CreateEvent();
        EXPECT_TRUE(seen.insert(event).second);
        EXPECT_EQ(0, events_->Do(qv::kCloseEvent, event));
    }
}

TEST_F(HostileDriverTest, HandlesComeBackLastFreedFirst) {
    Attach({.reuseHandles = true});
    const uint64_t first = events_->CreateEvent();
    const uint64_t second = events_->CreateEvent();
    const uint64_t third = events_->CreateEvent();
    events_->Do(qv::kCloseEvent, second);
    events_->Do(qv::kCloseEvent, first);
    EXPECT_EQ(first, events_->CreateEvent());
    EXPECT_EQ(second, events_->CreateEvent());
    EXPECT_EQ(third + 1, events_->CreateEvent());

    const uint64_t notify = Register(first);
    EXPECT_EQ(0, card_->Do(qv::kUnregisterNotify, notify));
    EXPECT_EQ(notify, Register(first));
    const uint64_t timer = Timer(first);
    EXPECT_EQ(0, card_->Do(qv::kUnregisterTimer, timer));
    EXPECT_EQ(timer, Timer(first));

    qv::CreateImageRecord image{};
    image.width = image.height = 8;
    ASSERT_EQ(0, card_->Do(qv::kCreateImage, image));
    const uint64_t firstImage = image.image;
    qv::ImageReferenceRecord reference{};
    reference.image = firstImage;
    ASSERT_EQ(0, card_->Do(qv::kCloseImage, reference));
    ASSERT_EQ(0, card_->Do(qv::kCreateImage, image));
    EXPECT_EQ(firstImage, uint64_t{image.image});
}

TEST_F(HostileDriverTest, WhatAClosedNodeLeavesIsUsedAgain) {
    Attach({.reuseHandles = true});
    uint64_t event = 0;
    {
        const Node other("/dev/qv-event");
        event = other.CreateEvent();
    }
    EXPECT_EQ(event, events_->CreateEvent());
}

TEST_F(HostileDriverTest, AWellBehavedOneRefusesAFrameAfterTheStop) {
    Attach();
    ASSERT_EQ(0, Start(events_->CreateEvent()));
    ASSERT_EQ(0, Stop());
    EXPECT_EQ(-1, Capture());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0u, rig_.Cards().CountAlive().frames);
}

TEST_F(HostileDriverTest, AFrameAfterTheStopIsWrittenAndNobodyIsTold) {
    Attach({.afterStop = AfterStop::kWriteAtOnce});
    const uint64_t event = events_->CreateEvent();
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    AwaitFrames();
    EXPECT_FALSE(Untouched());
    EXPECT_EQ(0, events_->Do(qv::kIsSetEvent, event));
}

TEST_F(HostileDriverTest, AFrameAfterTheStopIsWrittenWhenTheNextCaptureStarts) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    const uint64_t event = events_->CreateEvent();
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    EXPECT_EQ(1u, rig_.Cards().CountAlive().frames);
    EXPECT_TRUE(Untouched());
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(1, events_->Wait(event, -1));
    EXPECT_FALSE(Untouched());
    _QVCAP_VIDEO_CAPTURE_STATUS status{};
    ASSERT_EQ(0, card_->Do(qv::kGetVideoCaptureStatus, status));
    EXPECT_EQ(1, status.frameCompleted);
    uint64_t context = 0;
    std::memcpy(&context, status.bytes0, sizeof context);
    EXPECT_EQ(77u, context);
}

TEST_F(HostileDriverTest, AnotherStopTakesBackWhatWasAskedForAfterTheFirst) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    const uint64_t event = events_->CreateEvent();
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    ASSERT_EQ(0, Stop());
    EXPECT_EQ(0u, rig_.Cards().CountAlive().frames);
    ASSERT_EQ(0, Start(event));
    EXPECT_EQ(0, events_->Wait(event, 5));
    EXPECT_TRUE(Untouched());
}

TEST_F(HostileDriverTest, TheCloseOfTheNodeTakesItBackToo) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    ASSERT_EQ(0, Start(events_->CreateEvent()));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    card_->Close();
    EXPECT_EQ(0u, rig_.Cards().CountAlive().frames);
}

TEST_F(HostileDriverTest, TheQueueOfLateFramesHasAnEnd) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    ASSERT_EQ(0, Start(events_->CreateEvent()));
    ASSERT_EQ(0, Stop());
    for (size_t i = 0; i < VideoCapture::kMaxInWork; ++i) ASSERT_EQ(0, Capture());
    EXPECT_EQ(-1, Capture());
    EXPECT_EQ(EBUSY, errno);
}

// Which of 200 requests were interrupted.
std::vector<int> Interrupted(uint32_t seed) {
    SimRig rig;
    rig.Add(Pelix());
    rig.AddFault(
        {.request = kAnyRequest, .count = -1, .oneIn = 10, .seed = seed, .effect = Refuse(EINTR)});
    rig.AttachInMemory();
    const Node card("/dev/video0");
    std::vector<int> numbers;
    for (int i = 0; i < 200; ++i) {
        uint32_t value = 0;
        if (card.Do(qv::kGetTemperature, value) == 0) continue;
        EXPECT_EQ(EINTR, errno);
        numbers.push_back(i);
    }
    return numbers;
}

TEST_F(HostileDriverTest, RequestsAreInterruptedAtRandomAndTheSameAgain) {
    const std::vector<int> once = Interrupted(1);
    EXPECT_GT(once.size(), 5u);
    EXPECT_LT(once.size(), 50u);
    EXPECT_EQ(once, Interrupted(1));
    EXPECT_NE(once, Interrupted(2));
}

TEST_F(HostileDriverTest, AnyNamesEveryRequestOfBothNodesAndNoOpen) {
    rig_.AddFault({.request = kAnyRequest, .nth = 3, .effect = Refuse(EINTR)});
    Attach();
    const uint64_t event = events_->CreateEvent();
    uint32_t value = 0;
    EXPECT_EQ(0, card_->Do(qv::kGetTemperature, value));
    EXPECT_EQ(-1, events_->Do(qv::kCloseEvent, event));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(1u, rig_.Cards().CountAlive().events);
    EXPECT_EQ(0, events_->Do(qv::kCloseEvent, event));
}

TEST_F(HostileDriverTest, ARequestCanBeCarriedOutAndFailAllTheSame) {
    rig_.AddFault({.request = "CloseEvent", .effect = RefuseLate(EINTR)});
    rig_.AddFault({.request = "CreateEvent", .nth = 2, .effect = RefuseLate(EIO)});
    Attach();
    uint64_t event = events_->CreateEvent();
    EXPECT_EQ(-1, events_->Do(qv::kCloseEvent, event));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0u, rig_.Cards().CountAlive().events);
    event = 5;
    EXPECT_EQ(-1, events_->Do(qv::kCreateEvent, event));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(5u, event) << "the record of a failed request stays as it was";
    EXPECT_EQ(1u, rig_.Cards().CountAlive().events);
}

TEST_F(HostileDriverTest, ASetThatHasNoEffect) {
    rig_.AddFault({.request = "SetEvent", .effect = Pretend()});
    Attach();
    const uint64_t event = events_->CreateEvent();
    EXPECT_EQ(0, events_->Do(qv::kSetEvent, event));
    EXPECT_EQ(0, events_->Do(qv::kIsSetEvent, event));
    EXPECT_EQ(0, events_->Do(qv::kSetEvent, event));
    EXPECT_EQ(1, events_->Do(qv::kIsSetEvent, event));
}

TEST_F(HostileDriverTest, AWaitThatEndsForNothing) {
    rig_.AddFault({.request = "WaitEvent", .effect = Pretend(1)});
    rig_.AddFault({.request = "MultiWaitEvent", .effect = Pretend(1)});
    Attach();
    const uint64_t event = events_->CreateEvent();
    EXPECT_EQ(1, events_->Wait(event, -1));
    EXPECT_EQ(1, events_->WaitSeveral({event}, -1));
    EXPECT_EQ(0, events_->Do(qv::kIsSetEvent, event));
    EXPECT_EQ(0, events_->Wait(event, 0));
}

TEST_F(HostileDriverTest, SignalsOfTheDriverGetLost) {
    for (const char* signal : kSignals) rig_.AddFault({.request = signal, .effect = Pretend()});
    Attach();
    rig_.Cards().FreezeClock();
    const uint64_t event = events_->CreateEvent();

    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Capture());
    AwaitFrames();
    EXPECT_FALSE(Untouched());
    EXPECT_EQ(0, events_->Do(qv::kTryWaitEvent, event)) << "the frame is complete all the same";
    ASSERT_EQ(0, Capture());
    EXPECT_EQ(1, events_->Wait(event, -1));

    const uint64_t timer = Timer(event);
    for (const int wanted : {0, 1}) {
        ASSERT_EQ(0, card_->Do(qv::kScheduleTimer, qv::ScheduleTimerRecord{timer, 0}));
        EXPECT_EQ(wanted, events_->Do(qv::kTryWaitEvent, event));
    }
    ASSERT_NE(0u, Register(event));
    for (const int wanted : {0, 1}) {
        rig_.Cards().RaiseNotification(0, 0, 1);
        EXPECT_EQ(wanted, events_->Do(qv::kTryWaitEvent, event));
    }
}

TEST_F(HostileDriverTest, TheFolderKeepsItsWays) {
    rig_.Driver({.reuseHandles = true, .afterStop = AfterStop::kWriteAtOnce});
    rig_.Add(Pelix());
    rig_.AddFault({.request = kAnyRequest, .oneIn = 7, .seed = 9, .effect = Pretend(3)});
    rig_.Attach();
    const CardsState& state = rig_.Cards().State();
    EXPECT_TRUE(state.driver.reuseHandles);
    EXPECT_EQ(AfterStop::kWriteAtOnce, state.driver.afterStop);
    ASSERT_EQ(1u, state.faults.size());
    EXPECT_EQ(7u, state.faults[0].oneIn);
    EXPECT_EQ(9u, state.faults[0].seed);
    EXPECT_EQ(FaultKind::kPretend, state.faults[0].effect.kind);
}

}  // namespace
}  // namespace qvsim
