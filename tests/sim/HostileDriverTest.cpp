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
        m_rig.Add(Pelix().Video(kWidth, kHeight, 0)).Driver(ways);
        m_rig.AttachInMemory();
        m_card = std::make_unique<Node>("/dev/video0");
        m_events = std::make_unique<Node>("/dev/qv-event");
    }
    int Start(uint64_t event) const { return m_card->Do(qv::kStartVideoCapture, event); }
    int Stop() const { return m_card->Do(qv::kStopVideoCapture); }
    int Capture() {
        qv::VideoCaptureFrameRecord record{};
        record.address = qv::WireAddress(m_memory.data());
        record.size = kSize;
        record.stride = kStride;
        record.width = kWidth;
        record.height = kHeight;
        record.fourcc = kYuy2;
        record.frameIndex = qv::kFrameNextLowLatency;
        record.context = 77;
        return m_card->Do(qv::kCaptureVideoFrame, record);
    }
    // The frames that the driver holds are written.
    void AwaitFrames() {
        while (m_rig.Cards().CountAlive().frames > 0) std::this_thread::yield();
    }
    uint64_t Register(uint64_t event) const {
        qv::RegisterNotifyRecord record{};
        record.enableBits = 1;
        record.event = event;
        return m_card->Do(qv::kRegisterNotify, record) == 0 ? uint64_t{record.notify} : 0;
    }
    uint64_t Timer(uint64_t event) const {
        qv::RegisterTimerRecord record{};
        record.event = event;
        return m_card->Do(qv::kRegisterTimer, record) == 0 ? uint64_t{record.timer} : 0;
    }
    bool Untouched() const { return m_memory == std::vector<uint8_t>(m_memory.size(), 0xCC); }

    std::vector<uint8_t> m_memory = std::vector<uint8_t>(kSize, 0xCC);  // outlives the node
    SimRig m_rig;
    std::unique_ptr<Node> m_card;
    std::unique_ptr<Node> m_events;
};

TEST_F(HostileDriverTest, AWellBehavedOneGivesNoHandleTwice) {
    Attach();
    std::set<uint64_t> seen;
    for (int i = 0; i < 5; ++i) {
        const uint64_t event = m_events->CreateEvent();
        EXPECT_TRUE(seen.insert(event).second);
        EXPECT_EQ(0, m_events->Do(qv::kCloseEvent, event));
    }
}

TEST_F(HostileDriverTest, HandlesComeBackLastFreedFirst) {
    Attach({.reuseHandles = true});
    const uint64_t first = m_events->CreateEvent();
    const uint64_t second = m_events->CreateEvent();
    const uint64_t third = m_events->CreateEvent();
    m_events->Do(qv::kCloseEvent, second);
    m_events->Do(qv::kCloseEvent, first);
    EXPECT_EQ(first, m_events->CreateEvent());
    EXPECT_EQ(second, m_events->CreateEvent());
    EXPECT_EQ(third + 1, m_events->CreateEvent());

    const uint64_t notify = Register(first);
    EXPECT_EQ(0, m_card->Do(qv::kUnregisterNotify, notify));
    EXPECT_EQ(notify, Register(first));
    const uint64_t timer = Timer(first);
    EXPECT_EQ(0, m_card->Do(qv::kUnregisterTimer, timer));
    EXPECT_EQ(timer, Timer(first));

    qv::CreateImageRecord image{};
    image.width = image.height = 8;
    ASSERT_EQ(0, m_card->Do(qv::kCreateImage, image));
    const uint64_t firstImage = image.image;
    qv::ImageReferenceRecord reference{};
    reference.image = firstImage;
    ASSERT_EQ(0, m_card->Do(qv::kCloseImage, reference));
    ASSERT_EQ(0, m_card->Do(qv::kCreateImage, image));
    EXPECT_EQ(firstImage, uint64_t{image.image});
}

TEST_F(HostileDriverTest, WhatAClosedNodeLeavesIsUsedAgain) {
    Attach({.reuseHandles = true});
    uint64_t event = 0;
    {
        const Node other("/dev/qv-event");
        event = other.CreateEvent();
    }
    EXPECT_EQ(event, m_events->CreateEvent());
}

TEST_F(HostileDriverTest, AFrameAfterTheStopIsWrittenAndNobodyIsTold) {
    Attach({.afterStop = AfterStop::kWriteAtOnce});
    const uint64_t event = m_events->CreateEvent();
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    AwaitFrames();
    EXPECT_FALSE(Untouched());
    EXPECT_EQ(0, m_events->Do(qv::kIsSetEvent, event));
}

TEST_F(HostileDriverTest, AFrameAfterTheStopIsWrittenWhenTheNextCaptureStarts) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    const uint64_t event = m_events->CreateEvent();
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    EXPECT_EQ(1u, m_rig.Cards().CountAlive().frames);
    EXPECT_TRUE(Untouched());
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(1, m_events->Wait(event, -1));
    EXPECT_FALSE(Untouched());
    _QVCAP_VIDEO_CAPTURE_STATUS status{};
    ASSERT_EQ(0, m_card->Do(qv::kGetVideoCaptureStatus, status));
    EXPECT_EQ(1, status.frameCompleted);
    uint64_t context = 0;
    std::memcpy(&context, status.bytes0, sizeof context);
    EXPECT_EQ(77u, context);
}

TEST_F(HostileDriverTest, AnotherStopTakesBackWhatWasAskedForAfterTheFirst) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    const uint64_t event = m_events->CreateEvent();
    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    ASSERT_EQ(0, Stop());
    EXPECT_EQ(0u, m_rig.Cards().CountAlive().frames);
    ASSERT_EQ(0, Start(event));
    EXPECT_EQ(0, m_events->Wait(event, 5));
    EXPECT_TRUE(Untouched());
}

TEST_F(HostileDriverTest, TheCloseOfTheNodeTakesItBackToo) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    ASSERT_EQ(0, Start(m_events->CreateEvent()));
    ASSERT_EQ(0, Stop());
    ASSERT_EQ(0, Capture());
    m_card->Close();
    EXPECT_EQ(0u, m_rig.Cards().CountAlive().frames);
}

TEST_F(HostileDriverTest, TheQueueOfLateFramesHasAnEnd) {
    Attach({.afterStop = AfterStop::kWriteAtStart});
    ASSERT_EQ(0, Start(m_events->CreateEvent()));
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
    m_rig.AddFault({.request = kAnyRequest, .nth = 3, .effect = Refuse(EINTR)});
    Attach();
    const uint64_t event = m_events->CreateEvent();
    uint32_t value = 0;
    EXPECT_EQ(0, m_card->Do(qv::kGetTemperature, value));
    EXPECT_EQ(-1, m_events->Do(qv::kCloseEvent, event));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(1u, m_rig.Cards().CountAlive().events);
    EXPECT_EQ(0, m_events->Do(qv::kCloseEvent, event));
}

TEST_F(HostileDriverTest, ARequestCanBeCarriedOutAndFailAllTheSame) {
    m_rig.AddFault({.request = "CloseEvent", .effect = RefuseLate(EINTR)});
    m_rig.AddFault({.request = "CreateEvent", .nth = 2, .effect = RefuseLate(EIO)});
    Attach();
    uint64_t event = m_events->CreateEvent();
    EXPECT_EQ(-1, m_events->Do(qv::kCloseEvent, event));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0u, m_rig.Cards().CountAlive().events);
    event = 5;
    EXPECT_EQ(-1, m_events->Do(qv::kCreateEvent, event));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(5u, event) << "the record of a failed request stays as it was";
    EXPECT_EQ(1u, m_rig.Cards().CountAlive().events);
}

TEST_F(HostileDriverTest, ASetThatHasNoEffect) {
    m_rig.AddFault({.request = "SetEvent", .effect = Pretend()});
    Attach();
    const uint64_t event = m_events->CreateEvent();
    EXPECT_EQ(0, m_events->Do(qv::kSetEvent, event));
    EXPECT_EQ(0, m_events->Do(qv::kIsSetEvent, event));
    EXPECT_EQ(0, m_events->Do(qv::kSetEvent, event));
    EXPECT_EQ(1, m_events->Do(qv::kIsSetEvent, event));
}

TEST_F(HostileDriverTest, AWaitThatEndsForNothing) {
    m_rig.AddFault({.request = "WaitEvent", .effect = Pretend(1)});
    m_rig.AddFault({.request = "MultiWaitEvent", .effect = Pretend(1)});
    Attach();
    const uint64_t event = m_events->CreateEvent();
    EXPECT_EQ(1, m_events->Wait(event, -1));
    EXPECT_EQ(1, m_events->WaitSeveral({event}, -1));
    EXPECT_EQ(0, m_events->Do(qv::kIsSetEvent, event));
    EXPECT_EQ(0, m_events->Wait(event, 0));
}

TEST_F(HostileDriverTest, SignalsOfTheDriverGetLost) {
    for (const char* signal : kSignals) m_rig.AddFault({.request = signal, .effect = Pretend()});
    Attach();
    m_rig.Cards().FreezeClock();
    const uint64_t event = m_events->CreateEvent();

    ASSERT_EQ(0, Start(event));
    ASSERT_EQ(0, Capture());
    AwaitFrames();
    EXPECT_FALSE(Untouched());
    EXPECT_EQ(0, m_events->Do(qv::kTryWaitEvent, event)) << "the frame is complete all the same";
    ASSERT_EQ(0, Capture());
    EXPECT_EQ(1, m_events->Wait(event, -1));

    const uint64_t timer = Timer(event);
    for (const int wanted : {0, 1}) {
        ASSERT_EQ(0, m_card->Do(qv::kScheduleTimer, qv::ScheduleTimerRecord{timer, 0}));
        EXPECT_EQ(wanted, m_events->Do(qv::kTryWaitEvent, event));
    }
    ASSERT_NE(0u, Register(event));
    for (const int wanted : {0, 1}) {
        m_rig.Cards().RaiseNotification(0, 0, 1);
        EXPECT_EQ(wanted, m_events->Do(qv::kTryWaitEvent, event));
    }
}

TEST_F(HostileDriverTest, TheFolderKeepsItsWays) {
    m_rig.Driver({.reuseHandles = true, .afterStop = AfterStop::kWriteAtOnce});
    m_rig.Add(Pelix());
    m_rig.AddFault({.request = kAnyRequest, .oneIn = 7, .seed = 9, .effect = Pretend(3)});
    m_rig.Attach();
    const CardsState& state = m_rig.Cards().State();
    EXPECT_TRUE(state.driver.reuseHandles);
    EXPECT_EQ(AfterStop::kWriteAtOnce, state.driver.afterStop);
    ASSERT_EQ(1u, state.faults.size());
    EXPECT_EQ(7u, state.faults[0].oneIn);
    EXPECT_EQ(9u, state.faults[0].seed);
    EXPECT_EQ(FaultKind::kPretend, state.faults[0].effect.kind);
}

}  // namespace
}  // namespace qvsim
