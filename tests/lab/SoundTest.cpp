// Sound of channels on a real kernel: cards found by order, volume, captured and played sample by
// sample, pulled out in the middle.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "AudioAlsa.h"
#include "AudioVolume.h"
#include "QVCapture.h"
#include "lab/LabCapture.h"
#include "lab/LabSound.h"

using lab::CardDevice;
using lab::Chunks;
using lab::Devices;
using lab::LabDevices;
using lab::Left;
using lab::Right;
using lab::SetMixer;
using lab::SoundChannelTest;
using testing::HasSubstr;

namespace {

TEST_F(SoundChannelTest, APcieChannelHasTheCardOfItsPlaceAmongCardsOfItsFamilies) {
    char id[64];
    char card[32];
    char pcm[32];
    ASSERT_EQ(0, GetPelixCaptureAudioPath("/dev/video30", id, card, pcm));
    EXPECT_STREQ("HDMI_1", id);
    EXPECT_EQ(CardDevice(lab::kPelix), card);
    EXPECT_EQ(CardDevice(lab::kPelix) + ",0", pcm);
    ASSERT_EQ(0, GetPelixCaptureAudioPath("/dev/video31", id, card, pcm));
    EXPECT_STREQ("SDI_1", id);
    EXPECT_EQ(CardDevice(lab::kLumo) + ",0", pcm);
    EXPECT_EQ(-1, GetPelixCaptureAudioPath("/dev/video32", id, card, pcm)) << "a third card";
    EXPECT_EQ(-1, GetPelixCaptureAudioPath("/dev/video0", id, card, pcm)) << "a camera's node";
}

TEST_F(SoundChannelTest, VolumesOfAPcieChannelAreParts) {
    const Channel channel = Pcie("/dev/video30");
    _QVCAP_AUDIO_VOLUME volume{};
    volume.channelCount = 9;
    volume.volume[0] = 40;
    volume.volume[1] = 85;
    ASSERT_EQ(QV_RESULT_OK, QVSetAudioVolume(channel.get(), 3, &volume));
    EXPECT_EQ(9, volume.channelCount) << "setting leaves it";
    EXPECT_EQ(0, volume.minimum);
    EXPECT_EQ(100, volume.maximum);
    EXPECT_EQ("20 -30.00dB on", Left(lab::kPelix, "HDMI", "Capture"));
    EXPECT_EQ("42 -8.00dB on", Right(lab::kPelix, "HDMI", "Capture")) << "85 of 100 is 42.5 of 50";
    EXPECT_EQ("30 -20.00dB on", Left(lab::kLumo, "SDI", "Capture")) << "another channel's card";

    SetMixer(lab::kPelix, "HDMI", "-25dB nocap");
    std::memset(&volume, 0x55, sizeof volume);
    ASSERT_EQ(QV_RESULT_OK, QVGetAudioVolume(channel.get(), 0, &volume));
    EXPECT_EQ(2, volume.channelCount);
    EXPECT_EQ(0, volume.minimum);
    EXPECT_EQ(100, volume.maximum);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(50, volume.volume[i]);
        EXPECT_NE(0, volume.mute[i]);
    }
    EXPECT_EQ(0x5555, volume.volume[2]) << "no third channel";
    SetMixer(lab::kPelix, "HDMI", "0dB cap");
    ASSERT_EQ(QV_RESULT_OK, QVGetAudioVolume(channel.get(), 0, &volume));
    EXPECT_EQ(100, volume.volume[1]);
    EXPECT_EQ(0, volume.mute[1]);
}

TEST_F(SoundChannelTest, EveryPartThatIsSetIsReadBackAsTheStepItFellOn) {
    const Channel channel = Pcie("/dev/video31");
    for (int16_t part = 0; part <= 100; part += 5) {
        _QVCAP_AUDIO_VOLUME volume{};
        volume.volume[0] = part;
        volume.volume[1] = static_cast<int16_t>(100 - part);
        volume.mute[0] = volume.mute[1] = part % 2 != 0;
        ASSERT_EQ(QV_RESULT_OK, QVSetAudioVolume(channel.get(), 0, &volume));
        _QVCAP_AUDIO_VOLUME got{};
        ASSERT_EQ(QV_RESULT_OK, QVGetAudioVolume(channel.get(), 0, &got));
        EXPECT_EQ(part / 2 * 2, got.volume[0]);
        EXPECT_EQ((100 - part) / 2 * 2, got.volume[1]);
        EXPECT_EQ(part % 2 != 0, got.mute[0] != 0);
    }
}

TEST_F(SoundChannelTest, AChannelWithoutACardHasNoVolume) {
    const Channel channel = Pcie("/dev/video32");
    _QVCAP_AUDIO_VOLUME volume{};
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(channel.get(), 0, &volume));
    EXPECT_EQ(QV_RESULT_FAILED, QVGetAudioVolume(channel.get(), 0, &volume));
    Chunks chunks;
    EXPECT_EQ(nullptr,
              QVCreateAudioCapture(channel.get(), 0, 48000, 16, 2, Chunks::OnChunk, &chunks));
}

TEST_F(SoundChannelTest, VolumesOfAUsbChannelAreDecibelsOnItsOwnCard) {
    const Channel channel = Usb(lab::kHdmi);
    _QVCAP_AUDIO_VOLUME volume{};
    volume.channelCount = 2;
    volume.volume[0] = -1500;
    volume.volume[1] = -1600;
    EXPECT_EQ(QV_RESULT_OK, QVSetAudioVolume(channel.get(), 6, &volume));
    EXPECT_EQ("35 -15.00dB on", Left(lab::kHdmi, "Computer", "Capture"));
    EXPECT_EQ("34 -16.00dB on", Right(lab::kHdmi, "Computer", "Capture"));
    EXPECT_EQ("30 -20.00dB on", Left(lab::kHdmi, "Computer", "Playback"));
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(channel.get(), 2, &volume)) << "no such node";
}

// ---- capture

// Every chunk is a run of one stream's samples, and chunks come in order; `kilohertz` tells the
// stream. A chunk may begin behind a gap: a slow machine overruns. The kernel's driver announces a
// packet before it has copied it, so that a capture that looks at every moment may find one, 48
// samples, that is still silence: few of them are allowed, and the next goes on where it should.
void ExpectTone(const std::vector<std::vector<unsigned char>>& chunks, size_t frames,
                size_t sampleBytes, int kilohertz) {
    size_t silent = 0;
    for (const auto& chunk : chunks) {
        ASSERT_EQ(frames * 2 * sampleBytes, chunk.size());
        const std::vector<int> samples = lab::Samples(chunk, sampleBytes);
        int next = -1;
        for (size_t i = 0; i < frames; ++i) {
            const int number = static_cast<uint16_t>(samples[2 * i + 1]);
            if (number == 0 && samples[2 * i] == 0 && next != 0) {
                ++silent;
                if (next > 0) next = (next + 1) % 48000;
                continue;
            }
            if (next >= 0) {
                ASSERT_EQ(next, number) << "sample " << i;
            }
            const double angle = 2 * 3.14159265358979 * (number * kilohertz % 48) / 48;
            ASSERT_EQ(std::lround(12000 * std::sin(angle)), samples[2 * i]) << "number " << number;
            next = (number + 1) % 48000;
        }
    }
    EXPECT_FALSE(chunks.empty());
    EXPECT_LE(silent, chunks.size() * frames / 10 + 96);
}

TEST_F(SoundChannelTest, EachNodeOfAUsbChannelCapturesItsStream) {
    const Channel channel = Usb(lab::kHdmi);
    const int rows[][2] = {{0, 1}, {1, 1}, {2, 2}, {3, 3}, {5, 1}, {7, 1}};  // node, kHz
    for (const auto& [node, kilohertz] : rows) {
        SCOPED_TRACE(node);
        Chunks chunks;
        QV_AUDIO_CAPTURE capture = QVCreateAudioCapture(channel.get(), static_cast<unsigned>(node),
                                                        48000, 16, 2, Chunks::OnChunk, &chunks);
        ASSERT_NE(nullptr, capture);
        EXPECT_TRUE(chunks.AwaitMore(20));
        EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(capture));
        ExpectTone(chunks.Take(), 480, 2, kilohertz);
        EXPECT_FALSE(chunks.Reserved());
    }
    Chunks chunks;
    EXPECT_EQ(nullptr,
              QVCreateAudioCapture(channel.get(), 4, 48000, 16, 2, Chunks::OnChunk, &chunks))
        << "this model has no line in";
}

TEST_F(SoundChannelTest, RatesAndSampleSizesAreTheCardsOwn) {
    const Channel channel = Usb(lab::kAio);
    const struct {
        unsigned rate;
        unsigned short bits;
        size_t frames;
        size_t bytes;
    } rows[] = {{44100, 16, 440, 2}, {48000, 32, 480, 4}, {48000, 24, 480, 2}, {48000, 16, 480, 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.rate << " Hz, " << row.bits << " bits");
        Chunks chunks;
        QV_AUDIO_CAPTURE capture =
            QVCreateAudioCapture(channel.get(), 4, row.rate, row.bits, 2, Chunks::OnChunk, &chunks);
        ASSERT_NE(nullptr, capture);
        EXPECT_TRUE(chunks.AwaitMore(10));
        EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(capture));
        ExpectTone(chunks.Take(), row.frames, row.bytes, 2);
    }
    Chunks chunks;
    EXPECT_EQ(nullptr,
              QVCreateAudioCapture(channel.get(), 4, 48000, 16, 5, Chunks::OnChunk, &chunks))
        << "five channels";
}

TEST_F(SoundChannelTest, APcieChannelCapturesFromTheCardOfItsPlace) {
    const Channel channel = Pcie("/dev/video30");
    Chunks chunks;
    QV_AUDIO_CAPTURE capture =
        QVCreateAudioCapture(channel.get(), 3, 48000, 16, 2, Chunks::OnChunk, &chunks);
    ASSERT_NE(nullptr, capture);
    EXPECT_TRUE(chunks.AwaitMore(5));
    EXPECT_THAT(lab::Output("cat /proc/asound/card" + std::to_string(Devices()[lab::kPelix].card) +
                            "/pcm0c/sub0/status"),
                HasSubstr("RUNNING"));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(capture));
    ExpectTone(chunks.Take(), 480, 2, 1);
}

TEST_F(SoundChannelTest, TwoStreamsOfADeviceAreCapturedAtOnce) {
    const Channel channel = Usb(lab::kHdmi);
    Chunks one;
    Chunks two;
    QV_AUDIO_CAPTURE first =
        QVCreateAudioCapture(channel.get(), 0, 48000, 16, 2, Chunks::OnChunk, &one);
    QV_AUDIO_CAPTURE second =
        QVCreateAudioCapture(channel.get(), 2, 48000, 16, 2, Chunks::OnChunk, &two);
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(nullptr, QVCreateAudioCapture(channel.get(), 2, 48000, 16, 2, Chunks::OnChunk, &two))
        << "a stream is captured once";
    EXPECT_TRUE(one.AwaitMore(30));
    EXPECT_TRUE(two.AwaitMore(30));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(first));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(second));
    ExpectTone(one.Take(), 480, 2, 1);
    ExpectTone(two.Take(), 480, 2, 2);
}

// Blocks the capture's thread until the device has nothing more to write to.
struct Blocker {
    Chunks chunks;
    std::atomic<bool> blocked{true};
    static void OnChunk(const unsigned char* data, int bytes, long long reserved, void* param) {
        auto* blocker = static_cast<Blocker*>(param);
        Chunks::OnChunk(data, bytes, reserved, &blocker->chunks);
        while (blocker->blocked) usleep(10000);
    }
};

TEST_F(SoundChannelTest, AnOverrunIsRecoveredAndCaptureGoesOn) {
    const Channel channel = Usb(lab::kDvi);
    Blocker blocker;
    QV_AUDIO_CAPTURE capture =
        QVCreateAudioCapture(channel.get(), 0, 48000, 16, 2, Blocker::OnChunk, &blocker);
    ASSERT_NE(nullptr, capture);
    const std::string status =
        "/proc/asound/card" + std::to_string(Devices()[lab::kDvi].card) + "/pcm0c/sub0/status";
    std::string state;
    for (int tries = 0; tries < 600 && state.find("XRUN") == std::string::npos; ++tries) {
        usleep(100000);
        state = lab::Output("cat " + status);
    }
    EXPECT_THAT(state, HasSubstr("XRUN"));
    blocker.blocked = false;
    EXPECT_TRUE(blocker.chunks.AwaitMore(20));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(capture));
    ExpectTone(blocker.chunks.Take(), 480, 2, 1);
}

TEST_F(SoundChannelTest, ACaptureThatIsDestroyedByItsOwnCallbackEnds) {
    struct Own {
        QV_AUDIO_CAPTURE capture = nullptr;
        std::mutex created;
        std::atomic<bool> destroyed{false};
    } own;
    const Channel channel = Usb(lab::kDvi);
    {
        const std::lock_guard lock(own.created);
        own.capture = QVCreateAudioCapture(
            channel.get(), 0, 48000, 16, 2,
            [](const unsigned char*, int, long long, void* param) {
                auto* self = static_cast<Own*>(param);
                const std::lock_guard inside(self->created);
                if (self->destroyed.exchange(true)) return;
                EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(self->capture));
            },
            &own);
        ASSERT_NE(nullptr, own.capture);
    }
    for (int tries = 0; tries < 600 && lab::DescriptorsOpen() != descriptors; ++tries)
        usleep(100000);
    EXPECT_TRUE(own.destroyed);
}

// ---- pulled out

TEST_F(SoundChannelTest, ACardThatIsPulledOutEndsItsCaptureWithoutHarm) {
    Channel channel = Usb(lab::kSdi);
    Chunks chunks;
    QV_AUDIO_CAPTURE capture =
        QVCreateAudioCapture(channel.get(), 4, 48000, 16, 2, Chunks::OnChunk, &chunks);
    ASSERT_NE(nullptr, capture);
    EXPECT_TRUE(chunks.AwaitMore(5));
    Devices().Unplug(lab::kSdi);
    for (int tries = 0; tries < 600 && std::filesystem::exists("/proc/asound/SDI"); ++tries)
        usleep(100000);
    RefreshSoundCards();
    EXPECT_EQ(5, g_sndCount);
    // A pass sleeps 10 ms and then shortly.
    const lab::Load load = lab::LoadOf("AudioCapture");
    EXPECT_LT(load.sleeps, 210) << "it asks a card that is gone again and again";
    EXPECT_LT(load.busy, 0.9) << "it spins";
    EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(capture));
    ExpectTone(chunks.Take(), 480, 2, 2);
    EXPECT_EQ(nullptr,
              QVCreateAudioCapture(channel.get(), 4, 48000, 16, 2, Chunks::OnChunk, &chunks));
    _QVCAP_AUDIO_VOLUME volume{};
    volume.channelCount = 1;
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(channel.get(), 4, &volume));

    channel.reset();  // of the device that has gone: who keeps it open shares it on
    Devices().Plug(lab::kSdi);
    const Channel again = Usb(lab::kSdi);
    Chunks later;
    capture = QVCreateAudioCapture(again.get(), 4, 48000, 16, 2, Chunks::OnChunk, &later);
    ASSERT_NE(nullptr, capture);
    EXPECT_TRUE(later.AwaitMore(5));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(capture));
    ExpectTone(later.Take(), 480, 2, 2);
}

// ---- playback

// Frames that tell their place: none of them is silence.
std::string Numbered(uint32_t first, uint32_t count) {
    std::string bytes;
    for (uint32_t i = first; i < first + count; ++i) {
        const uint32_t frame = 0x40000000u + i;
        bytes.append(reinterpret_cast<const char*>(&frame), sizeof frame);
    }
    return bytes;
}

int Put(AudioPlaybackALSAContext* playback, const std::string& bytes) {
    return AudioPlaybackALSAPut(playback, reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
}

// What reached the device, without silence.
std::string Sounds(const std::string& bytes) {
    std::string sounds;
    for (size_t at = 0; at + 4 <= bytes.size(); at += 4)
        if (bytes.compare(at, 4, std::string(4, '\0')) != 0) sounds += bytes.substr(at, 4);
    return sounds;
}

TEST_F(SoundChannelTest, WhatIsPlayedReachesTheDeviceInOrder) {
    AudioPlaybackALSAContext* playback = nullptr;
    ASSERT_EQ(0, AudioPlaybackALSACreate(&playback));
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, (CardDevice(lab::kHdmi) + ",0").c_str(), 48000,
                                        16, 2, 0));
    std::string sent;
    for (uint32_t i = 0; i < 144; ++i) {
        const std::string part = Numbered(i * 1000, 1000);
        ASSERT_EQ(1000, Put(playback, part)) << i;
        sent += part;
    }
    AudioPlaybackALSAStop(playback);
    const std::string heard = Sounds(LabDevices::Played(lab::kHdmi, "Headphone"));
    // The buffer holds two seconds; what was in it when playback stopped is dropped.
    EXPECT_GT(heard.size(), 40000u * 4);
    ASSERT_LE(heard.size(), sent.size());
    EXPECT_EQ(0, sent.compare(0, heard.size(), heard));
    AudioPlaybackALSADestroy(playback);
}

TEST_F(SoundChannelTest, AnUnderrunIsRecoveredAndTheSoundGoesOn) {
    AudioPlaybackALSAContext* playback = nullptr;
    ASSERT_EQ(0, AudioPlaybackALSACreate(&playback));
    const std::string device = CardDevice(lab::kHdmi);
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, (device + ",1").c_str(), 48000, 16, 2, 0));
    snd_pcm_uframes_t buffer = 0;
    snd_pcm_uframes_t period = 0;
    ASSERT_EQ(0, snd_pcm_get_params(playback->pcm, &buffer, &period));
    const auto whole = static_cast<uint32_t>(buffer);
    ASSERT_EQ(static_cast<int>(whole), Put(playback, Numbered(0, whole)));
    for (int tries = 0; tries < 600 && snd_pcm_state(playback->pcm) != SND_PCM_STATE_XRUN;
         ++tries) {
        snd_pcm_avail_update(playback->pcm);
        usleep(100000);
    }
    ASSERT_EQ(SND_PCM_STATE_XRUN, snd_pcm_state(playback->pcm));
    ASSERT_EQ(1000, Put(playback, Numbered(whole, 1000)));
    // Pushes them through: a put returns when all of it is in the buffer.
    ASSERT_EQ(static_cast<int>(whole), Put(playback, Numbered(whole + 1000, whole)));
    ASSERT_EQ(4800, Put(playback, Numbered(2 * whole + 1000, 4800)));
    AudioPlaybackALSAStop(playback);
    AudioPlaybackALSADestroy(playback);
    const std::string heard = Sounds(LabDevices::Played(lab::kHdmi, "HDMI"));
    const size_t before = heard.find(Numbered(whole, 1000));
    ASSERT_NE(std::string::npos, before) << "behind the underrun";
    // What was on its way when the buffer ran dry is lost in the device's driver.
    EXPECT_EQ(0, Numbered(0, whole).compare(0, before, heard, 0, before)) << "and before it";
    EXPECT_GT(before, 4u * whole / 2);
}

TEST_F(SoundChannelTest, ACardThatIsPulledOutFailsEveryPut) {
    AudioPlaybackALSAContext* playback = nullptr;
    ASSERT_EQ(0, AudioPlaybackALSACreate(&playback));
    ASSERT_EQ(0, AudioPlaybackALSAStart(playback, (CardDevice(lab::kHdmi) + ",2").c_str(), 48000,
                                        16, 2, 0));
    EXPECT_EQ(1000, Put(playback, Numbered(0, 1000)));
    Devices().Unplug(lab::kHdmi);
    int result = 0;
    for (int tries = 0; tries < 600 && result >= 0; ++tries) {
        result = Put(playback, Numbered(0, 100));
        usleep(10000);
    }
    EXPECT_EQ(-ENODEV, result);
    AudioPlaybackALSAStop(playback);
    AudioPlaybackALSADestroy(playback);
    Devices().Plug(lab::kHdmi);
}

}  // namespace
