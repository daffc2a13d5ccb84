// PCM capture and playback through the real ALSA library, on devices that are files.
//
// ALSA reads its configuration from asound.conf beside this file; no sound card is needed. What the
// other tests script, these hold against the library as it is.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "AudioAlsa.h"
#include "AudioVolume.h"
#include "lib/TestThreads.h"
#include "support/Recorder.h"
#include "support/TempFolder.h"

namespace fs = std::filesystem;

namespace {

using Chunk = std::vector<unsigned char>;
using Chunks = qvtest::Recorder<Chunk>;

void OnChunk(const unsigned char* data, int bytes, long long, void* param) {
    constexpr size_t kMost = 16;  // a file is read as fast as it goes
    auto* chunks = static_cast<Chunks*>(param);
    if (chunks->Count() < kMost) chunks->Add({data, data + bytes});
}

std::vector<unsigned char> Numbers(size_t count) {
    std::vector<unsigned char> bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(i * 31 + i / 256);
    return bytes;
}

class RealAlsaTest : public testing::Test {
  protected:
    RealAlsaTest() {
        setenv("ALSA_CONFIG_PATH", QV_TEST_ASOUND_CONF, 1);
        setenv("QV_TEST_INPUT", (folder / "input").c_str(), 1);
        setenv("QV_TEST_OUTPUT", (folder / "output").c_str(), 1);
    }
    ~RealAlsaTest() override { EXPECT_TRUE(NoCaptureThreadIsLeft()); }

    // Captures the input file and returns the bytes of the first chunks.
    std::vector<unsigned char> Capture(const char* device, int bits, int channels, size_t count,
                                       int chunkBytes) {
        AudioCaptureALSAContext* capture = nullptr;
        Chunks chunks;
        EXPECT_EQ(0, AudioCaptureALSACreate(&capture, OnChunk, &chunks));
        const int result = AudioCaptureALSAStart(capture, device, 48000, bits, channels, 10);
        EXPECT_EQ(0, result);
        if (result == 0) chunks.AwaitCount(count);
        AudioCaptureALSAStop(capture);
        AudioCaptureALSADestroy(capture);
        std::vector<unsigned char> bytes;
        for (const Chunk& chunk : chunks.Items()) {
            EXPECT_EQ(static_cast<size_t>(chunkBytes), chunk.size());
            bytes.insert(bytes.end(), chunk.begin(), chunk.end());
        }
        bytes.resize(count * static_cast<size_t>(chunkBytes));
        return bytes;
    }

    const qvtest::TempFolder temporary{"qv-alsa"};
    const fs::path folder = temporary.Path();
};

TEST_F(RealAlsaTest, CapturedChunksHoldTheInputInOrder) {
    const std::vector<unsigned char> input = Numbers(4 * 1920);
    std::ofstream(folder / "input", std::ios::binary)
        .write(reinterpret_cast<const char*>(input.data()),
               static_cast<std::streamsize>(input.size()));
    EXPECT_EQ(input, Capture("frominput", 16, 2, 4, 1920));
}

TEST_F(RealAlsaTest, A32BitCaptureOfTheDefaultDeviceHoldsTheInputToo) {
    const std::vector<unsigned char> input = Numbers(2 * 3840);
    std::ofstream(folder / "input", std::ios::binary)
        .write(reinterpret_cast<const char*>(input.data()),
               static_cast<std::streamsize>(input.size()));
    EXPECT_EQ(input, Capture(nullptr, 32, 2, 2, 3840));
}

TEST_F(RealAlsaTest, PlayedBytesReachTheOutputInOrder) {
    const std::vector<unsigned char> sound = Numbers(4000);
    AudioPlaybackALSAContext* playback = nullptr;
    ASSERT_EQ(0, AudioPlaybackALSACreate(&playback));
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, "tooutput", 48000, 16, 2, 0));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(250, AudioPlaybackALSAPut(playback, sound.data() + 1000 * i, 1000));
    AudioPlaybackALSAStop(playback);
    AudioPlaybackALSADestroy(playback);
    std::ifstream file(folder / "output", std::ios::binary);
    const std::vector<unsigned char> output{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(sound, output);
}

TEST_F(RealAlsaTest, ADeviceThatIsNotThereOrCannotDoItFailsEveryStart) {
    AudioCaptureALSAContext* capture = nullptr;
    AudioPlaybackALSAContext* playback = nullptr;
    ASSERT_EQ(0, AudioCaptureALSACreate(&capture, OnChunk, nullptr));
    ASSERT_EQ(0, AudioPlaybackALSACreate(&playback));
    std::ofstream(folder / "input") << "something";
    EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "nowhere", 48000, 16, 2, 10));
    EXPECT_EQ(-1, AudioPlaybackALSAStart(playback, "nowhere", 48000, 16, 2, 0));
    EXPECT_EQ(-1, AudioCaptureALSAStart(capture, "frominput", 48000, 16, 0, 10)) << "no channels";
    AudioCaptureALSADestroy(capture);
    AudioPlaybackALSADestroy(playback);
    EXPECT_EQ(0, HasUSBCaptureSoundItem("nowhere", "Mic"));
    EXPECT_EQ(-1, SetSoundVolume(nullptr, SOUND_CARD_CAPTURE, "Mic", SND_MIXER_SCHN_MONO, 0, 0));
}

TEST_F(RealAlsaTest, TheCardTableOfThisMachineCanBeBuiltAgainAndAgain) {
    for (int i = 0; i < 3; ++i) {
        RefreshSoundCards();
        EXPECT_GE(g_sndCount, 0);
        EXPECT_LE(g_sndCount, kMaxSoundCards);
    }
}

}  // namespace
