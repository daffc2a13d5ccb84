// PCM capture against a scripted ALSA: call sequences, chunk sizes, refusals, threads.
#include "AudioAlsa.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "lib/CaptureLog.h"
#include "lib/FakeAlsa.h"
#include "lib/RefusedThreads.h"
#include "lib/TestThreads.h"

// Pauses of at least 10 ms that threads of this program asked for; they are taken, too.
static std::atomic<int> g_longPauses;
extern "C" int usleep(useconds_t pause) {
    if (pause >= 10000) ++g_longPauses;
    const timespec time{0, static_cast<long>(pause) * 1000};
    return nanosleep(&time, nullptr);
}

using fake::Alsa;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct Chunk {
    int bytes;
    long long reserved;
    std::vector<unsigned char> data;
    std::string threadName;
};
using Chunks = CaptureLog<Chunk, AudioCaptureALSAContext>;

void OnChunk(const unsigned char* data, int bytes, long long reserved, void* param) {
    static_cast<Chunks*>(param)->Take({bytes, reserved, {data, data + bytes}, ThreadName()});
}

class AudioAlsaTest : public testing::Test {
  protected:
    AudioAlsaTest() { alsa.Reset(); }
    ~AudioAlsaTest() override {
        EXPECT_EQ(0, alsa.pcmsOpen) << "a PCM handle was left open";
        EXPECT_TRUE(NoCaptureThreadIsLeft());
    }

    AudioCaptureALSAContext* Create() {
        AudioCaptureALSAContext* capture = nullptr;
        EXPECT_EQ(0, AudioCaptureALSACreate(&capture, OnChunk, &chunks));
        return capture;
    }
    static void StopAndDestroy(AudioCaptureALSAContext* capture) {
        AudioCaptureALSAStop(capture);
        AudioCaptureALSADestroy(capture);
    }
    void HaveFrames(std::initializer_list<long> available) { alsa.available = available; }

    Alsa& alsa = Alsa::Get();
    Chunks chunks;
};

TEST_F(AudioAlsaTest, CreateWithoutAPlaceForTheResultFails) {
    EXPECT_EQ(-1, AudioCaptureALSACreate(nullptr, OnChunk, &chunks));
}

TEST_F(AudioAlsaTest, CreateKeepsCallbackAndParameterAndZeroesTheRest) {
    AudioCaptureALSAContext* capture = Create();
    EXPECT_EQ(&OnChunk, capture->callback);
    EXPECT_EQ(&chunks, capture->param);
    EXPECT_EQ(nullptr, capture->pcm);
    EXPECT_EQ(0, capture->running);
    EXPECT_STREQ("", capture->device);
    AudioCaptureALSADestroy(capture);
    EXPECT_TRUE(alsa.Calls().empty());
}

TEST_F(AudioAlsaTest, CaptureConfiguresTheDeviceInOneFixedOrder) {
    AudioCaptureALSAContext* capture = Create();
    alsa.Refuse("snd_pcm_start", -EIO);  // stops the sequence before the thread adds to it
    EXPECT_EQ(-EIO, AudioCaptureALSAStart(capture, "hw:2,1", 48000, 16, 2, 10));
    EXPECT_THAT(
        alsa.Calls(),
        ElementsAre("snd_pcm_open(hw:2,1, capture, 0)", "snd_pcm_hw_params_any()",
                    "snd_pcm_hw_params_set_access(interleaved)",
                    "snd_pcm_hw_params_set_format(S16_LE)", "snd_pcm_hw_params_set_channels(2)",
                    "snd_pcm_hw_params_set_rate_near(48000, 0)", "snd_pcm_hw_params()",
                    "snd_pcm_hw_params_get_period_size()", "snd_pcm_hw_params_get_periods()",
                    "snd_pcm_start()"));
    StopAndDestroy(capture);
}

TEST_F(AudioAlsaTest, StopAfterADeviceThatWouldNotStartClosesTheHandleAndJoinsNothing) {
    AudioCaptureALSAContext* capture = Create();
    alsa.Refuse("snd_pcm_start", -EIO);
    EXPECT_EQ(-EIO, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    EXPECT_NE(nullptr, capture->pcm);
    EXPECT_FALSE(capture->hasThread);
    AudioCaptureALSAStop(capture);
    EXPECT_EQ(nullptr, capture->pcm);
    EXPECT_EQ(1, alsa.Count("snd_pcm_drop"));
    EXPECT_EQ(1, alsa.Count("snd_pcm_close"));
    EXPECT_EQ(1, alsa.Count("snd_config_update_free_global"));
    AudioCaptureALSADestroy(capture);
}

TEST_F(AudioAlsaTest, APositiveResultOfTheDeviceStartIsHandedBackAsItIs) {
    AudioCaptureALSAContext* capture = Create();
    alsa.Refuse("snd_pcm_start", 7);
    EXPECT_EQ(7, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    StopAndDestroy(capture);
}

struct ChunkSize {
    int rate, bits, channels, periodMs;
    int frames, bytes;
    const char* format;
};

class AudioAlsaChunkTest : public AudioAlsaTest, public testing::WithParamInterface<ChunkSize> {};

TEST_P(AudioAlsaChunkTest, ChunksHoldThePeriodInTheFormatReallyConfigured) {
    const ChunkSize& size = GetParam();
    AudioCaptureALSAContext* capture = Create();
    HaveFrames({size.frames, size.frames - 1, size.frames + 1});
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", size.rate, size.bits, size.channels,
                                       size.periodMs));
    chunks.AwaitCount(2);
    StopAndDestroy(capture);
    ASSERT_EQ(2u, chunks.Count());
    const Chunk last = chunks.Items().back();
    EXPECT_EQ(size.bytes, last.bytes);
    EXPECT_EQ(0, last.reserved);
    EXPECT_EQ("AudioCapture", last.threadName);
    EXPECT_EQ("snd_pcm_hw_params_set_format(" + std::string(size.format) + ")",
              alsa.CallsOf("snd_pcm_hw_params_set_format").at(0));
    const std::string read = "snd_pcm_readi(" + std::to_string(size.frames) + ")";
    EXPECT_THAT(alsa.CallsOf("snd_pcm_readi"), ElementsAre(read, read));
    EXPECT_EQ(static_cast<uint32_t>(size.frames) & 0xFF, last.data.at(0))
        << "the second chunk begins with the frame after the first chunk";
}

INSTANTIATE_TEST_SUITE_P(Sizes, AudioAlsaChunkTest,
                         testing::Values(ChunkSize{48000, 16, 2, 10, 480, 1920, "S16_LE"},
                                         ChunkSize{44100, 16, 2, 10, 440, 1760, "S16_LE"},
                                         ChunkSize{48000, 32, 2, 10, 480, 3840, "S32_LE"},
                                         ChunkSize{48000, 24, 2, 10, 480, 1920, "S16_LE"},
                                         ChunkSize{48000, 8, 1, 10, 480, 960, "S16_LE"},
                                         ChunkSize{1000, 16, 1, 1, 1, 2, "S16_LE"},
                                         ChunkSize{192000, 32, 8, 20, 3840, 122880, "S32_LE"}));

TEST_F(AudioAlsaTest, ANullDeviceNameOpensTheDefaultDevice) {
    AudioCaptureALSAContext* capture = Create();
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, nullptr, 48000, 16, 2, 10));
    EXPECT_EQ("snd_pcm_open(default, capture, 0)", alsa.CallsOf("snd_pcm_open").at(0));
    EXPECT_STREQ("default", capture->device);
    StopAndDestroy(capture);
}

TEST_F(AudioAlsaTest, ADeviceNameOfAnyLengthIsCutToFit) {
    AudioCaptureALSAContext* capture = Create();
    const std::string name(200, 'x');
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, name.c_str(), 48000, 16, 2, 10));
    EXPECT_EQ(name.substr(0, 63), capture->device);
    StopAndDestroy(capture);
}

TEST_F(AudioAlsaTest, ValuesThatGiveNoChunkFailBeforeTheDeviceIsOpened) {
    AudioCaptureALSAContext* capture = Create();
    EXPECT_EQ(-1, AudioCaptureALSAStart(nullptr, "hw:0", 48000, 16, 2, 10));
    EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "hw:0", 999, 16, 2, 10));
    EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "hw:0", -48000, 16, 2, 10));
    EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 0));
    EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, -10));
    EXPECT_TRUE(alsa.Calls().empty());
    AudioCaptureALSADestroy(capture);
}

TEST_F(AudioAlsaTest, AChunkThatIsNothingOrTooLargeToTellFailsAndStopReleasesTheDevice) {
    // 5593 channels make a chunk whose size in 32 bits would look small.
    for (const int channels : {0, -2, 1 << 20, 5593}) {
        alsa.Reset();
        AudioCaptureALSAContext* capture = Create();
        EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "hw:0", 192000, 32, channels, 1000));
        EXPECT_FALSE(capture->hasThread);
        StopAndDestroy(capture);
        EXPECT_EQ(0, alsa.pcmsOpen);
    }
}

TEST_F(AudioAlsaTest, ASecondStartIsRefusedAndTheRunningCaptureGoesOn) {
    AudioCaptureALSAContext* capture = Create();
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "hw:1", 48000, 16, 2, 10));
    {
        const std::lock_guard lock(alsa.mutex);
        alsa.available = {480};
    }
    chunks.AwaitCount(1);
    StopAndDestroy(capture);
}

TEST_F(AudioAlsaTest, AStoppedCaptureStartsAgainWithOtherSizes) {
    AudioCaptureALSAContext* capture = Create();
    HaveFrames({480});
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    AudioCaptureALSAStop(capture);
    AudioCaptureALSAStop(capture);  // a second stop finds nothing to do
    HaveFrames({960});
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 96000, 32, 4, 10));
    chunks.AwaitCount(2);
    StopAndDestroy(capture);
    EXPECT_EQ(960 * 4 * 4, chunks.Items().back().bytes);
    EXPECT_EQ(2, alsa.Count("snd_pcm_close"));
}

// ---- errors while capturing

TEST_F(AudioAlsaTest, AnOverrunIsDrainedRecoveredAndStartedAndCaptureGoesOn) {
    AudioCaptureALSAContext* capture = Create();
    HaveFrames({-EPIPE, 480});
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    StopAndDestroy(capture);
    EXPECT_EQ(1, alsa.Count("snd_pcm_drain"));
    EXPECT_THAT(alsa.CallsOf("snd_pcm_recover"), ElementsAre("snd_pcm_recover(-32, 0)"));
    EXPECT_EQ(2, alsa.Count("snd_pcm_start"));
}

TEST_F(AudioAlsaTest, AnOverrunThatOnlyTheStateTellsIsRecoveredTheSameWay) {
    AudioCaptureALSAContext* capture = Create();
    HaveFrames({480, 480});
    alsa.states = {SND_PCM_STATE_XRUN, SND_PCM_STATE_RUNNING};
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    StopAndDestroy(capture);
    EXPECT_THAT(alsa.CallsOf("snd_pcm_recover"), ElementsAre("snd_pcm_recover(-32, 0)"));
    EXPECT_EQ(1u, chunks.Count());
}

TEST_F(AudioAlsaTest, CaptureOutlivesADeviceThatWillNotRecoverOrWillNotStart) {
    AudioCaptureALSAContext* capture = Create();
    HaveFrames({-ENODEV, -EPIPE, 480});
    alsa.Refuse("snd_pcm_recover", -ENODEV, 1);
    alsa.Refuse("snd_pcm_start", -EIO, 2);  // the start after the second, successful recovery
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    StopAndDestroy(capture);
    EXPECT_THAT(alsa.CallsOf("snd_pcm_recover"),
                ElementsAre("snd_pcm_recover(-19, 0)", "snd_pcm_recover(-32, 0)"));
    EXPECT_EQ(2, alsa.Count("snd_pcm_start"));
}

TEST_F(AudioAlsaTest, AnUnpluggedDeviceIsPolledUntilTheCaptureIsStopped) {
    AudioCaptureALSAContext* capture = Create();
    alsa.defaultAvailable = -ENODEV;
    alsa.Refuse("snd_pcm_recover", -ENODEV, 1, true);
    alsa.Refuse("snd_pcm_status", -ENODEV, 1, true);
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    EXPECT_TRUE(Eventually([&] { return alsa.Count("snd_pcm_recover") >= 3; }));
    StopAndDestroy(capture);
    EXPECT_EQ(0u, chunks.Count());
}

TEST_F(AudioAlsaTest, AnUnpluggedDeviceThatStillTellsOfFramesIsAskedRarely) {
    AudioCaptureALSAContext* capture = Create();
    alsa.defaultAvailable = 240;  // half a chunk, for ever
    alsa.states.assign(10000, SND_PCM_STATE_DISCONNECTED);
    alsa.Refuse("snd_pcm_status", -ENODEV, 1, true);
    g_longPauses = 0;
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    EXPECT_TRUE(Eventually([&] { return alsa.Count("snd_pcm_avail_update") >= 3; }));
    StopAndDestroy(capture);
    EXPECT_EQ(alsa.Count("snd_pcm_avail_update"), g_longPauses) << "a pause in every pass";
    EXPECT_EQ(0, alsa.Count("snd_pcm_recover"));
    EXPECT_EQ(0u, chunks.Count());
}

TEST_F(AudioAlsaTest, ASuspendedDeviceIsResumedOnEveryPass) {
    AudioCaptureALSAContext* capture = Create();
    HaveFrames({480});
    alsa.statusStates = {SND_PCM_STATE_SUSPENDED, SND_PCM_STATE_RUNNING};
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    StopAndDestroy(capture);
    EXPECT_EQ(1, alsa.Count("snd_pcm_resume"));
}

TEST_F(AudioAlsaTest, AShortReadIsNotDelivered) {
    AudioCaptureALSAContext* capture = Create();
    HaveFrames({480, 480, 480, 480});
    alsa.reads = {479, 0, -EIO};
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    StopAndDestroy(capture);
    EXPECT_EQ(1u, chunks.Count());
    EXPECT_EQ(4, alsa.Count("snd_pcm_readi"));
}

TEST_F(AudioAlsaTest, ACaptureWithoutCallbackReadsAndDiscards) {
    AudioCaptureALSAContext* capture = nullptr;
    ASSERT_EQ(0, AudioCaptureALSACreate(&capture, nullptr, nullptr));
    HaveFrames({480, 480});
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    EXPECT_TRUE(Eventually([&] { return alsa.Count("snd_pcm_readi") >= 2; }));
    StopAndDestroy(capture);
}

// ---- every call refused in turn

TEST_F(AudioAlsaTest, EveryRefusedCallOfAStartGivesItsResultAndLeavesNothingBehind) {
    // call: 1 open, 2 any, 3 access, 4 format, 5 channels, 6 rate, 7 install, 8, 9 read back, 10
    // start
    const int expected[] = {-1, -1, -1, -1, -1, -1, -1, 0, 0, -EIO};
    for (int call = 1; call <= 10; ++call) {
        SCOPED_TRACE(call);
        alsa.Reset();
        alsa.RefuseCall(call, -EIO);
        AudioCaptureALSAContext* capture = Create();
        EXPECT_EQ(expected[call - 1], AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
        if (call < 8) {
            EXPECT_EQ(nullptr, capture->pcm);
        }
        if (call > 1 && call < 8) {
            EXPECT_EQ(1, alsa.Count("snd_pcm_close"));
            EXPECT_EQ(1, alsa.Count("snd_config_update_free_global"));
        }
        StopAndDestroy(capture);
        EXPECT_EQ(0, alsa.pcmsOpen);
    }
}

TEST_F(AudioAlsaTest, EveryRefusedCallOfARunningCaptureIsSurvived) {
    for (int call = 11; call <= 40; ++call) {
        SCOPED_TRACE(call);
        alsa.Reset();
        chunks.Clear();
        alsa.RefuseCall(call, -EIO);
        alsa.defaultAvailable = 480;
        alsa.available = {480, -EPIPE, 480, -ESTRPIPE, 480};
        AudioCaptureALSAContext* capture = Create();
        ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
        chunks.AwaitCount(8);
        StopAndDestroy(capture);
        EXPECT_EQ(0, alsa.pcmsOpen);
    }
}

TEST_F(AudioAlsaTest, AThreadThatCannotBeMadeFailsTheStartAndStopReleasesTheDevice) {
    AudioCaptureALSAContext* capture = Create();
    fake::g_refusedThreads = 1;
    EXPECT_EQ(EAGAIN, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    EXPECT_EQ(0, capture->running);
    AudioCaptureALSAStop(capture);
    EXPECT_EQ(1, alsa.Count("snd_pcm_close"));
    alsa.available = {480};
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    StopAndDestroy(capture);
}

// ---- stop and destruction from the capture's own callback

TEST_F(AudioAlsaTest, StopFromTheCallbackEndsTheThreadAndALaterStopClosesTheDevice) {
    AudioCaptureALSAContext* capture = Create();
    chunks.capture = capture;
    chunks.inside = AudioCaptureALSAStop;
    alsa.defaultAvailable = 480;
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    EXPECT_TRUE(Eventually(NoCaptureThreadIsLeft));
    EXPECT_EQ(1u, chunks.Count());
    EXPECT_EQ(0, alsa.Count("snd_pcm_close"));
    AudioCaptureALSAStop(capture);
    EXPECT_EQ(1, alsa.Count("snd_pcm_close"));
    AudioCaptureALSADestroy(capture);
}

TEST_F(AudioAlsaTest, DestructionFromTheCallbackReleasesEverythingAfterTheCallback) {
    AudioCaptureALSAContext* capture = Create();
    chunks.capture = capture;
    chunks.inside = [](AudioCaptureALSAContext* seen) {
        AudioCaptureALSAStop(seen);
        AudioCaptureALSADestroy(seen);
        EXPECT_EQ(0, Alsa::Get().Count("snd_pcm_close")) << "not under the callback";
    };
    alsa.defaultAvailable = 480;
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    EXPECT_TRUE(Eventually([&] { return alsa.Count("snd_config_update_free_global") == 1; }));
    EXPECT_TRUE(Eventually(NoCaptureThreadIsLeft));
    EXPECT_EQ(1u, chunks.Count());
}

TEST_F(AudioAlsaTest, DestructionOfARunningCaptureStopsItFirst) {
    AudioCaptureALSAContext* capture = Create();
    alsa.defaultAvailable = 480;
    ASSERT_EQ(0, AudioCaptureALSAStart(capture, "hw:0", 48000, 16, 2, 10));
    chunks.AwaitCount(1);
    AudioCaptureALSADestroy(capture);
}

TEST_F(AudioAlsaTest, StopAndDestroyOfNothingDoNothing) {
    AudioCaptureALSAStop(nullptr);
    AudioCaptureALSADestroy(nullptr);
    EXPECT_TRUE(alsa.Calls().empty());
}

// ---- reading and resuming

TEST_F(AudioAlsaTest, ReadRetriesOnceAfterAnOverrun) {
    unsigned char buffer[64];
    snd_pcm_t* pcm = nullptr;
    ASSERT_EQ(0, snd_pcm_open(&pcm, "x", SND_PCM_STREAM_CAPTURE, 0));
    alsa.reads = {-EPIPE, 16};
    EXPECT_EQ(16, AudioCaptureALSARead(pcm, buffer, 16));
    alsa.reads = {-EPIPE, -EPIPE};
    EXPECT_EQ(-EPIPE, AudioCaptureALSARead(pcm, buffer, 16));
    EXPECT_EQ(2, alsa.Count("snd_pcm_prepare"));
    EXPECT_EQ(4, alsa.Count("snd_pcm_readi"));
    snd_pcm_close(pcm);
}

TEST_F(AudioAlsaTest, ReadResumesASuspendedDeviceAndReportsIt) {
    unsigned char buffer[64];
    snd_pcm_t* pcm = nullptr;
    ASSERT_EQ(0, snd_pcm_open(&pcm, "x", SND_PCM_STREAM_CAPTURE, 0));
    alsa.reads = {-ESTRPIPE};
    alsa.statusStates = {SND_PCM_STATE_SUSPENDED};
    EXPECT_EQ(-86, AudioCaptureALSARead(pcm, buffer, 16));
    EXPECT_EQ(1, alsa.Count("snd_pcm_resume"));
    alsa.reads = {-ENODEV};
    EXPECT_EQ(-ENODEV, AudioCaptureALSARead(pcm, buffer, 16));
    EXPECT_EQ(2, alsa.Count("snd_pcm_readi"));
    snd_pcm_close(pcm);
}

TEST_F(AudioAlsaTest, ResumeAnswersTheStateTheResumeResultOrTheStatusError) {
    snd_pcm_t* pcm = nullptr;
    ASSERT_EQ(0, snd_pcm_open(&pcm, "x", SND_PCM_STREAM_CAPTURE, 0));
    alsa.statusStates = {SND_PCM_STATE_PAUSED, SND_PCM_STATE_SUSPENDED};
    EXPECT_EQ(SND_PCM_STATE_PAUSED, ALSAResume(pcm));
    alsa.Refuse("snd_pcm_resume", -ENOSYS);
    EXPECT_EQ(-ENOSYS, ALSAResume(pcm));
    alsa.Refuse("snd_pcm_status", -ENODEV);
    EXPECT_EQ(-ENODEV, ALSAResume(pcm));
    snd_pcm_close(pcm);
}

}  // namespace
