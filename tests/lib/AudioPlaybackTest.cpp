// PCM playback against a scripted ALSA: thresholds, puts, recovery, refusals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "AudioAlsa.h"
#include "lib/FakeAlsa.h"

using fake::Alsa;
using testing::ElementsAre;

namespace {

class AudioPlaybackTest : public testing::Test {
  protected:
    AudioPlaybackTest() {
        alsa.Reset();
        EXPECT_EQ(0, AudioPlaybackALSACreate(&playback));
    }
    ~AudioPlaybackTest() override {
        AudioPlaybackALSAStop(playback);
        AudioPlaybackALSADestroy(playback);
        EXPECT_EQ(0, alsa.pcmsOpen) << "a PCM handle was left open";
    }
    Alsa& alsa = Alsa::Get();
    AudioPlaybackALSAContext* playback = nullptr;
    unsigned char data[4096] = {0xCC, 0xCC};
};

TEST_F(AudioPlaybackTest, StartKeepsItsValuesAndSetsTheThresholdsFromThePeriods) {
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, nullptr, 48000, 16, 2, 77));
    EXPECT_EQ("snd_pcm_open(default, playback, 0)", alsa.CallsOf("snd_pcm_open").at(0));
    EXPECT_EQ(2 * 1024u, alsa.startThreshold);
    EXPECT_EQ(4 * 1024u, alsa.stopThreshold);
    EXPECT_EQ(48000, playback->sampleRate);
    EXPECT_EQ(16, playback->bitsPerSample);
    EXPECT_EQ(2, playback->channels);
    EXPECT_EQ(77, playback->extra);
}

TEST_F(AudioPlaybackTest, ASinglePeriodIsTheWholeStartThreshold) {
    alsa.periodCount = 1;
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    EXPECT_EQ(1024u, alsa.startThreshold);
    EXPECT_EQ(1024u, alsa.stopThreshold);
}

TEST_F(AudioPlaybackTest, EveryRefusedCallOfAStartGivesItsResult) {
    // call: 1 open, 2-7 hardware (not reported), 8-9 read back, 10-12 software set-up, 13 install
    for (int call = 1; call <= 13; ++call) {
        SCOPED_TRACE(call);
        alsa.Reset();
        alsa.RefuseCall(call, -EIO);
        const int result = AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0);
        // A refused hardware step ends that group, so the numbers behind it shift; none of them
        // but the installation of the software parameters fails a start.
        EXPECT_EQ(call == 1 || call == 13 ? -1 : 0, result);
        if (result != 0) {
            EXPECT_EQ(nullptr, playback->pcm);
        }
        AudioPlaybackALSAStop(playback);
        EXPECT_EQ(0, alsa.pcmsOpen);
    }
}

TEST_F(AudioPlaybackTest, APutWritesWholeFrames) {
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    EXPECT_EQ(250, AudioPlaybackALSAPut(playback, data, 1000));
    EXPECT_EQ(250, AudioPlaybackALSAPut(playback, data, 1003));
    EXPECT_EQ(0, AudioPlaybackALSAPut(playback, data, 3));
    EXPECT_THAT(alsa.CallsOf("snd_pcm_writei"),
                ElementsAre("snd_pcm_writei(250)", "snd_pcm_writei(250)", "snd_pcm_writei(0)"));
}

TEST_F(AudioPlaybackTest, APutNeverReadsBeyondTheCallersBytesWhateverTheBitDepth) {
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 8, 1, 0));
    EXPECT_EQ(500, AudioPlaybackALSAPut(playback, data, 1000));
    AudioPlaybackALSAStop(playback);
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 32, 2, 0));
    EXPECT_EQ(125, AudioPlaybackALSAPut(playback, data, 1000));
}

TEST_F(AudioPlaybackTest, APutThatCannotBePlayedFails) {
    EXPECT_EQ(-1, AudioPlaybackALSAPut(nullptr, data, 4));
    EXPECT_EQ(-1, AudioPlaybackALSAPut(playback, data, 4)) << "not started";
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    EXPECT_EQ(-1, AudioPlaybackALSAPut(playback, data, -4));
    EXPECT_EQ(-1, AudioPlaybackALSAPut(playback, nullptr, 4));
    AudioPlaybackALSAStop(playback);
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 0, 0));
    EXPECT_EQ(-1, AudioPlaybackALSAPut(playback, data, 4)) << "no channels, no frames";
    EXPECT_EQ(0, alsa.Count("snd_pcm_writei"));
}

TEST_F(AudioPlaybackTest, AnUnderrunIsPreparedFilledWithHalfABufferOfSilenceAndWrittenOnceMore) {
    alsa.frameBytes = 8;  // 32 bits, 2 channels
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 32, 2, 0));
    alsa.writes = {-EPIPE};
    EXPECT_EQ(10, AudioPlaybackALSAPut(playback, data, 80));
    ASSERT_EQ(3u, alsa.written.size());
    EXPECT_EQ(1, alsa.Count("snd_pcm_prepare"));
    EXPECT_EQ(2048u, alsa.written[1].frames);
    EXPECT_EQ(std::vector<unsigned char>(2048 * 8, 0), alsa.written[1].bytes);
    EXPECT_EQ(alsa.written[0].bytes, alsa.written[2].bytes);
}

TEST_F(AudioPlaybackTest, ASecondUnderrunIsHandedBack) {
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    alsa.writes = {-EPIPE, 2048, -EPIPE};
    EXPECT_EQ(-EPIPE, AudioPlaybackALSAPut(playback, data, 80));
    EXPECT_EQ(3, alsa.Count("snd_pcm_writei"));
}

TEST_F(AudioPlaybackTest, SilenceIsLeftOutWhenTheBufferSizeIsUnknown) {
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    for (const char* refused : {"snd_pcm_hw_params_current", "snd_pcm_hw_params_get_buffer_size",
                                "snd_pcm_frames_to_bytes"}) {
        SCOPED_TRACE(refused);
        alsa.written.clear();
        alsa.writes = {-EPIPE};
        alsa.Refuse(refused, -EIO);
        EXPECT_EQ(20, AudioPlaybackALSAPut(playback, data, 80));
        EXPECT_EQ(2u, alsa.written.size());
    }
}

TEST_F(AudioPlaybackTest, ASuspendedDeviceIsResumedAndTheDataNotWrittenAgain) {
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    alsa.writes = {-ESTRPIPE};
    alsa.statusStates = {SND_PCM_STATE_SUSPENDED};
    EXPECT_EQ(-86, AudioPlaybackALSAPut(playback, data, 80));
    EXPECT_EQ(1, alsa.Count("snd_pcm_resume"));
    EXPECT_EQ(1, alsa.Count("snd_pcm_writei"));
}

TEST_F(AudioPlaybackTest, ASecondStartIsRefusedUntilTheFirstIsStopped) {
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    EXPECT_EQ(-1, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
    EXPECT_EQ(-1, AudioPlaybackALSAStart(nullptr, "hw:0", 48000, 16, 2, 0));
    AudioPlaybackALSAStop(playback);
    AudioPlaybackALSAStop(playback);
    EXPECT_EQ(1, alsa.Count("snd_pcm_drop"));
    EXPECT_EQ(1, alsa.Count("snd_pcm_close"));
    EXPECT_EQ(0, AudioPlaybackALSAStart(playback, "hw:0", 48000, 16, 2, 0));
}

TEST_F(AudioPlaybackTest, NothingCanBeCreatedNowhereAndStoppedOrDestroyedFreely) {
    EXPECT_EQ(-1, AudioPlaybackALSACreate(nullptr));
    AudioPlaybackALSAStop(nullptr);
    AudioPlaybackALSADestroy(nullptr);
    AudioPlaybackALSAStop(playback);
    EXPECT_TRUE(alsa.Calls().empty());
}

}  // namespace
