// 64 channels at once, each with notifications, timers, video and audio, for a bounded number of
// events; every event is accounted for. Video runs as fast as it can, but in step with the audio
// over real nodes: there one thread serves them all, and would be all that is measured.
#include <array>
#include <chrono>

#include "FrameLayout.h"
#include "WorkerFixture.h"

namespace qvtest {
namespace {

constexpr int kChannels = 64;
constexpr uint64_t kFrames = 20;
constexpr uint64_t kSounds = 10;
constexpr uint64_t kNotifications = 10;

struct Station {
    QV_CHANNEL channel = nullptr;
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> lostFrames{0};
    std::atomic<uint64_t> sounds{0};
    std::atomic<uint64_t> lostSounds{0};
    std::atomic<uint64_t> notifications{0};
};

void OnFrame(unsigned long long, unsigned int, unsigned int, _QVCAP_VIDEO_FRAME_INFO* info,
             void* param) {
    auto* station = static_cast<Station*>(param);
    uint32_t number = 0;
    memcpy(&number, info->bytes, sizeof number);
    if (number == 0) return;  // finished while the capture was being stopped: no description
    if (number != station->frames + 1) ++station->lostFrames;
    ++station->frames;
}

void OnAudio(_QVCAP_AUDIO_CAPTURE_FRAME* frame, void* param) {
    auto* station = static_cast<Station*>(param);
    uint64_t number = 0;
    memcpy(&number, frame->bytes0, sizeof number);
    if (number != station->sounds + 1) ++station->lostSounds;
    ++station->sounds;
}

void OnNotify(unsigned long long, unsigned int bits, void* param) {
    EXPECT_EQ(0x100u, bits);
    ++static_cast<Station*>(param)->notifications;
}

std::atomic<uint64_t> g_ticks{0};
void OnTick(unsigned long long, void*) { ++g_ticks; }

// Sleeps in between: the processor is the workers' while they have something to do.
void Await(const std::atomic<uint64_t>& value, uint64_t count) {
    while (value < count) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(WorkerStressTest, SixtyFourChannelsAccountForEveryEvent) {
    SimRig rig;
    const bool inStep = qvsim::ThroughServedNodes();
    for (int board = 0; board < 4; ++board)
        rig.Add(Pelix().Board(board).Channels(16).Video(32, 4, inStep ? 1000 : 0).Audio(1000));
    rig.Attach();
    rig.Cards().FreezeClock();
    ASSERT_TRUE(QVCaptureInitInstance());
    ASSERT_EQ(kChannels, QVGetChannelCount());
    g_ticks = 0;
    std::array<Station, kChannels> stations;
    for (int i = 0; i < kChannels; ++i) {
        Station& station = stations[static_cast<size_t>(i)];
        station.channel = QVOpenChannel(i / 16, i % 16);
        ASSERT_NE(nullptr, station.channel);
        ASSERT_EQ(QV_RESULT_OK, QVStartChannelThread(station.channel));
        ASSERT_NE(0u, QVRegisterNotifyWithCallback(station.channel, 0x100, OnNotify, &station));
        ASSERT_NE(0u, QVCreateTimer(station.channel, OnTick, 10000, 0));
        ASSERT_EQ(QV_RESULT_OK, QVStartVideoCaptureWithCallback(
                                    station.channel, qv::Fourcc("GREY"), 32, 4,
                                    QV_VIDEO_CAPTURE_BACK_TO_BACK, OnFrame, &station));
        ASSERT_EQ(QV_RESULT_OK,
                  QVStartAudioCaptureWithCallback(station.channel, OnAudio, &station));
    }
    for (uint64_t round = 1; round <= kSounds; ++round) {
        rig.Cards().AdvanceClock(10000);
        for (Station& station : stations) Await(station.sounds, round);
        if (!inStep) continue;
        for (Station& station : stations) Await(station.frames, round);
    }
    for (uint64_t round = 1; round <= kNotifications; ++round) {
        for (int i = 0; i < kChannels; ++i) rig.Cards().RaiseNotification(i / 16, i % 16, 0x100);
        for (Station& station : stations) Await(station.notifications, round);
    }
    for (Station& station : stations) Await(station.frames, inStep ? kSounds : kFrames);
    Await(g_ticks, kChannels);
    for (Station& station : stations) {
        EXPECT_EQ(QV_RESULT_OK, QVStopChannelThread(station.channel));
        QVCloseChannel(station.channel);
        EXPECT_EQ(0u, station.lostFrames);
        EXPECT_EQ(0u, station.lostSounds);
        EXPECT_EQ(kSounds, station.sounds);
        EXPECT_EQ(kNotifications, station.notifications);
    }
    EXPECT_EQ(static_cast<uint64_t>(kChannels), g_ticks);
    QVCaptureExitInstance();
    EXPECT_EQ(qvsim::Alive{}, rig.Cards().CountAlive());
}

}  // namespace
}  // namespace qvtest
