// QVCapture.hpp over simulated cards: what is released, who is called, what is counted.
#include <fcntl.h>
#include <poll.h>

#include "QVCapture.hpp"
#include "WorkerFixture.h"

namespace qvtest {
namespace {

using qvcapture::Ticks;

constexpr uint32_t kYuy2 = qvcapture::FourCc("YUY2");
constexpr qvcapture::VideoFormat kFormat{kYuy2, 64, 8};

bool IsReadable(int fd) {
    pollfd polled{fd, POLLIN, 0};
    return poll(&polled, 1, 0) == 1;
}

void AwaitReadable(int fd) {
    pollfd polled{fd, POLLIN, 0};
    while (poll(&polled, 1, -1) != 1) continue;
}

uint32_t NumberOf(const uint8_t* bytes) {
    uint32_t number = 0;
    memcpy(&number, bytes, sizeof number);
    return number;
}

class CppFaceTest : public testing::Test {
  protected:
    void SetUp() override {
        rig.Add(Pelix().Channels(1).Product("Pelix Duo HDMI").Video(64, 8, 0).Audio(1000));
        rig.Attach();
        rig.Cards().FreezeClock();
        instance = std::make_unique<qvcapture::Instance>();
        channel = qvcapture::Channel("/dev/video0");
        ASSERT_TRUE(channel);
        rig.ClearJournal();
    }
    void TearDown() override {
        channel = {};
        instance.reset();
        EXPECT_EQ(qvsim::Alive{}, rig.Cards().CountAlive());
    }
    size_t Requests(const std::string& name) {
        size_t count = 0;
        for (const auto& line : rig.JournalLines()) count += line.request == name ? 1 : 0;
        return count;
    }
    void NextMillisecond() { rig.Cards().AdvanceClock(10000); }
    void Raise(uint32_t bits) { rig.Cards().RaiseNotification(0, 0, bits); }

    SimRig rig;
    std::unique_ptr<qvcapture::Instance> instance;
    qvcapture::Channel channel;
};

TEST_F(CppFaceTest, ResultsHaveATextForEachCode) {
    EXPECT_TRUE(qvcapture::Result(QV_RESULT_OK));
    EXPECT_FALSE(qvcapture::Result(QV_RESULT_NO_DATA));
    EXPECT_STREQ("done", qvcapture::Result(QV_RESULT_OK).Text());
    EXPECT_STREQ("refused by the driver or device, or not available",
                 qvcapture::Result(QV_RESULT_FAILED).Text());
    EXPECT_STREQ("no audio frame is ready yet", qvcapture::Result(QV_RESULT_NO_DATA).Text());
    EXPECT_STREQ("bad argument, or the channel is closed",
                 qvcapture::Result(QV_RESULT_BAD_ARGUMENT).Text());
    EXPECT_STREQ("unknown result", qvcapture::Result(17).Text());
}

TEST_F(CppFaceTest, TextsOfRecordsEndAtTheirTerminatorOrTheirEnd) {
    const char ended[8] = {'a', 'b', 0, 'c', 0, 0, 0, 0};
    const char full[2] = {'x', 'y'};
    EXPECT_EQ("ab", qvcapture::Text(ended));
    EXPECT_EQ("xy", qvcapture::Text(full));
}

TEST_F(CppFaceTest, TheListHasPathAndIdentityOfEachChannel) {
    const auto channels = instance->Channels();
    ASSERT_EQ(1u, channels.size());
    EXPECT_EQ("/dev/video0", channels[0].path);
    EXPECT_EQ("Pelix Duo HDMI", qvcapture::Text(channels[0].info.productName));
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_TRUE(channel.GetInfo(info));
    EXPECT_EQ(0, memcmp(&info, &channels[0].info, sizeof info));
}

TEST_F(CppFaceTest, AChannelThatIsNotThereIsFalseAndHarmless) {
    qvcapture::Channel none("/dev/video9");
    EXPECT_FALSE(none);
    EXPECT_FALSE(qvcapture::Channel(7, 7));
    EXPECT_TRUE(qvcapture::Channel(0, 0));
    const qvcapture::Worker worker(none);
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, worker.Status().Code());
    EXPECT_FALSE(qvcapture::Notification(none, 1, nullptr));
    EXPECT_FALSE(qvcapture::Timer(none, Ticks(1), Ticks(1), nullptr));
    EXPECT_FALSE(qvcapture::VideoCapture(none, kFormat, nullptr).Status());
    EXPECT_FALSE(qvcapture::AudioCapture(none, nullptr).Status());
}

TEST_F(CppFaceTest, AMovedChannelIsClosedOnce) {
    {
        qvcapture::Channel first("/dev/video0");
        qvcapture::Channel second(std::move(first));
        EXPECT_TRUE(second);
        first = std::move(second);
        EXPECT_TRUE(first);
    }
    size_t closed = 0;
    for (const auto& line : rig.JournalLines()) closed += line.action == "close" ? 1 : 0;
    EXPECT_EQ(1u, closed);
}

TEST_F(CppFaceTest, WithoutAWorkerNothingStartsAndNothingIsLeft) {
    EXPECT_FALSE(qvcapture::Notification(channel, 1, nullptr));
    EXPECT_FALSE(qvcapture::Timer(channel, Ticks(1), Ticks(1), nullptr));
    EXPECT_FALSE(qvcapture::VideoCapture(channel, kFormat, nullptr).Status());
    EXPECT_FALSE(qvcapture::AudioCapture(channel, nullptr).Status());
}

TEST_F(CppFaceTest, ASecondWorkerIsRefusedAndLeavesTheFirstAlone) {
    const qvcapture::Worker worker(channel);
    ASSERT_TRUE(worker.Status());
    { EXPECT_FALSE(qvcapture::Worker(channel).Status()); }
    EXPECT_EQ(QV_RESULT_FAILED, QVStartChannelThread(channel.Handle())) << "the first still runs";
}

TEST_F(CppFaceTest, ANotificationCallsItsCallableUntilItIsDestroyed) {
    const qvcapture::Worker worker(channel);
    Recorder<uint32_t> seen;
    {
        const qvcapture::Notification watch(channel, 0xFF, [&](uint32_t bits) { seen.Add(bits); });
        ASSERT_TRUE(watch);
        Raise(0x5);
        EXPECT_THAT(seen.AwaitCount(1), ElementsAre(0x5u));
    }
    EXPECT_EQ(1u, Requests("UnregisterNotify"));
    Raise(0x5);
    EXPECT_EQ(1u, seen.Items().size());
}

TEST_F(CppFaceTest, ANotificationMayBeDestroyedInItsOwnCallable) {
    const qvcapture::Worker worker(channel);
    Gate gone;
    auto kept = std::make_shared<int>(7);  // what the callable holds must live until it returns
    std::unique_ptr<qvcapture::Notification> watch;
    watch = std::make_unique<qvcapture::Notification>(channel, 1, [&, kept](uint32_t) {
        watch.reset();
        EXPECT_EQ(7, *kept);
        gone.Open();
    });
    Raise(1);
    gone.Pass();
    EXPECT_EQ(nullptr, watch);
}

TEST_F(CppFaceTest, APeriodicTimerTicksUntilItIsDestroyed) {
    const qvcapture::Worker worker(channel);
    Recorder<int> ticks;
    {
        const qvcapture::Timer timer(channel, Ticks(100), Ticks(100), [&] { ticks.Add(1); });
        ASSERT_TRUE(timer);
        for (size_t i = 1; i <= 3; ++i) {
            const size_t scheduled = Requests("ScheduleTimer");
            rig.Cards().AdvanceClock(100);
            ticks.AwaitCount(i);
            while (Requests("ScheduleTimer") == scheduled) std::this_thread::yield();
        }
    }
    rig.Cards().AdvanceClock(1000);
    EXPECT_EQ(3u, ticks.Items().size());
}

TEST_F(CppFaceTest, ATimerThatFiredOnceLeavesALaterOneAlone) {
    const qvcapture::Worker worker(channel);
    Recorder<int> first;
    Recorder<int> second;
    auto once =
        std::make_unique<qvcapture::Timer>(channel, Ticks(10), Ticks(0), [&] { first.Add(1); });
    ASSERT_TRUE(*once);
    rig.Cards().AdvanceClock(10);
    first.AwaitCount(1);
    // The memory of the first, and so its handle, may have gone to one of these.
    std::vector<std::unique_ptr<qvcapture::Timer>> later;
    for (int i = 0; i < 8; ++i)
        later.push_back(std::make_unique<qvcapture::Timer>(channel, Ticks(10), Ticks(0),
                                                           [&] { second.Add(1); }));
    once.reset();
    rig.Cards().AdvanceClock(10);
    EXPECT_EQ(8u, second.AwaitCount(8).size());
    EXPECT_EQ(1u, first.Items().size());
}

TEST_F(CppFaceTest, ATimerMayBeDestroyedInItsOwnCallable) {
    const qvcapture::Worker worker(channel);
    for (const Ticks period : {Ticks(0), Ticks(50)}) {
        Gate gone;
        auto kept = std::make_shared<int>(7);
        std::unique_ptr<qvcapture::Timer> timer;
        Gate made;
        timer = std::make_unique<qvcapture::Timer>(channel, Ticks(50), period, [&, kept] {
            made.Pass();
            timer.reset();
            EXPECT_EQ(7, *kept);
            gone.Open();
        });
        made.Open();
        rig.Cards().AdvanceClock(50);
        gone.Pass();
    }
}

TEST_F(CppFaceTest, FramesReachAReaderThroughAMailboxAndTheSurplusIsCounted) {
    const qvcapture::Worker worker(channel);
    qvcapture::Mailbox<qvcapture::FrameCopy> mailbox(2);
    qvcapture::FrameCopy frame;
    EXPECT_FALSE(mailbox.Take(frame));
    EXPECT_FALSE(IsReadable(mailbox.Fd()));
    {
        const qvcapture::VideoCapture capture(channel, kFormat, mailbox.Sink());
        ASSERT_TRUE(capture.Status());
        while (mailbox.Delivered() < 5) std::this_thread::yield();
        AwaitReadable(mailbox.Fd());
    }
    EXPECT_EQ(1u, Requests("StopVideoCapture"));
    EXPECT_EQ(mailbox.Delivered() - 2, mailbox.Dropped());
    uint32_t last = 0;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(mailbox.Take(frame));
        EXPECT_EQ(size_t{2 * 64 * 8}, frame.bytes.size());
        EXPECT_EQ(128u, frame.stride);
        EXPECT_EQ(NumberOf(frame.info.bytes), NumberOf(frame.bytes.data()));
        EXPECT_LT(last, NumberOf(frame.bytes.data()));
        last = NumberOf(frame.bytes.data());
    }
    EXPECT_FALSE(mailbox.Take(frame));
    EXPECT_FALSE(IsReadable(mailbox.Fd()));
}

TEST_F(CppFaceTest, ADescriptorIsReadableAsLongAsItemsWaitAndNoLonger) {
    qvcapture::Mailbox<qvcapture::ChunkCopy> mailbox(3);
    const uint8_t bytes[] = {1, 2, 3};
    for (uint32_t size = 1; size <= 3; ++size) mailbox.Put(qvcapture::Chunk{bytes, size});
    qvcapture::ChunkCopy chunk;
    for (size_t size = 1; size <= 3; ++size) {
        EXPECT_TRUE(IsReadable(mailbox.Fd())) << size;
        ASSERT_TRUE(mailbox.Take(chunk));
        EXPECT_EQ(size, chunk.bytes.size());
    }
    EXPECT_FALSE(IsReadable(mailbox.Fd()));
    EXPECT_NE(0, fcntl(mailbox.Fd(), F_GETFL) & O_NONBLOCK) << "an answer to nobody would hang";
    EXPECT_NE(0, fcntl(mailbox.Fd(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(CppFaceTest, AMailboxOfLength0HoldsOneItem) {
    qvcapture::Mailbox<qvcapture::ChunkCopy> mailbox(0);
    const uint8_t byte = 7;
    mailbox.Put(qvcapture::Chunk{&byte, 1});
    mailbox.Put(qvcapture::Chunk{&byte, 1});
    EXPECT_EQ(2u, mailbox.Delivered());
    EXPECT_EQ(1u, mailbox.Dropped());
    qvcapture::ChunkCopy chunk;
    EXPECT_TRUE(mailbox.Take(chunk));
    EXPECT_FALSE(mailbox.Take(chunk));
}

TEST_F(CppFaceTest, ADoorbellClosesItsDescriptor) {
    int fd = -1;
    {
        const qvcapture::Doorbell bell;
        fd = bell.Fd();
        EXPECT_NE(-1, fcntl(fd, F_GETFD));
    }
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(CppFaceTest, ArgumentsReachTheDriverInTheirPlaces) {
    const qvcapture::Worker worker(channel);
    const qvcapture::Timer timer(channel, Ticks(300), Ticks(7), nullptr);
    ASSERT_TRUE(timer);
    long long now = 0;
    ASSERT_EQ(QV_RESULT_OK, QVGetDeviceTime(channel.Handle(), &now));
    const Bytes schedule = rig.Cards().LastRecord(0, 0, "ScheduleTimer");
    EXPECT_EQ(Bytes(Wire().U64(static_cast<uint64_t>(now) + 300)), Slice(schedule, 8, 16));
    const qvcapture::Notification watch(channel, 0x21, nullptr);
    EXPECT_EQ(Bytes(Wire().U32(0x21)),
              Slice(rig.Cards().LastRecord(0, 0, "RegisterNotify"), 8, 12));
    const qvcapture::VideoCapture capture(channel, {kYuy2, 62, 6}, nullptr);
    ASSERT_TRUE(capture.Status());
    EXPECT_EQ(Bytes(Wire().U32(kYuy2).U16(62).U16(6)),
              Slice(rig.Cards().LastRecord(0, 0, "CaptureVideoFrame"), 0, 8));
}

// Nothing to call is no reason to stop: the worker goes on.
TEST_F(CppFaceTest, EmptyCallablesAreNotCalled) {
    const qvcapture::Worker worker(channel);
    const qvcapture::Notification watch(channel, 0x1, nullptr);
    const qvcapture::Timer timer(channel, Ticks(10), Ticks(0), nullptr);
    const qvcapture::AudioCapture audio(channel, nullptr);
    ASSERT_TRUE(watch && timer && audio.Status());
    Raise(0x1);
    rig.Cards().AdvanceClock(10000);
    while (Requests("CaptureAudioFrame") < 1) std::this_thread::yield();
    Recorder<uint32_t> seen;
    const qvcapture::Notification last(channel, 0x2, [&](uint32_t bits) { seen.Add(bits); });
    Raise(0x2);
    EXPECT_THAT(seen.AwaitCount(1), ElementsAre(0x2u));
}

// Due at once: it may be called before its constructor has returned.
TEST_F(CppFaceTest, ATimerMayFireBeforeItsConstructorReturns) {
    const qvcapture::Worker worker(channel);
    for (int i = 0; i < 50; ++i) {
        Recorder<int> fired;
        const qvcapture::Timer timer(channel, Ticks(0), Ticks(0), [&] { fired.Add(1); });
        ASSERT_TRUE(timer);
        EXPECT_EQ(1u, fired.AwaitCount(1).size());
    }
}

TEST_F(CppFaceTest, AChannelThatTakesAnothersPlaceIsClosed) {
    qvcapture::Channel second("/dev/video0");
    ASSERT_EQ(3u, rig.Cards().CountAlive().files);
    qvcapture::Channel kept;
    kept = std::move(second);
    EXPECT_FALSE(second);
    kept = qvcapture::Channel();
    EXPECT_EQ(2u, rig.Cards().CountAlive().files) << "closed by the assignment";
}

TEST_F(CppFaceTest, ASecondAudioCaptureIsRefusedAndTheFirstGoesOn) {
    const qvcapture::Worker worker(channel);
    qvcapture::Mailbox<_QVCAP_AUDIO_CAPTURE_FRAME> mailbox(4);
    const qvcapture::AudioCapture capture(channel, mailbox.Sink());
    ASSERT_TRUE(capture.Status());
    { EXPECT_FALSE(qvcapture::AudioCapture(channel, nullptr).Status()); }
    while (mailbox.Delivered() == 0) NextMillisecond();
    _QVCAP_AUDIO_CAPTURE_FRAME frame{};
    ASSERT_TRUE(mailbox.Take(frame));
    EXPECT_EQ(QV_AUDIO_FRAME_MARKER, uint32_t{frame.marker});
    EXPECT_EQ(0u, mailbox.Dropped());
}

TEST_F(CppFaceTest, ADoorbellIsReadableFromTheFirstRingToTheAnswer) {
    qvcapture::Doorbell bell;
    EXPECT_FALSE(IsReadable(bell.Fd()));
    EXPECT_EQ(0u, bell.Answer());
    bell.Ring();
    bell.Ring();
    EXPECT_TRUE(IsReadable(bell.Fd()));
    EXPECT_EQ(2u, bell.Answer());
    EXPECT_FALSE(IsReadable(bell.Fd()));
}

}  // namespace
}  // namespace qvtest
