// Sound cards of a real kernel: found by bus, their volume as amixer sees it.
#include <gtest/gtest.h>

#include "AudioVolume.h"
#include "lab/LabSound.h"

using lab::CardDevice;
using lab::Devices;
using lab::Left;
using lab::Right;
using lab::SetMixer;

namespace {

// ---- cards

TEST(SoundCardTest, TheTableHoldsEveryCardWithItsNameAndBus) {
    RefreshSoundCards();
    ASSERT_EQ(6, g_sndCount);
    const char* serials[] = {lab::kHdmi, lab::kPelix, lab::kSdi, lab::kLumo, lab::kDvi, lab::kAio};
    const char* ids[] = {"HDMI", "HDMI_1", "SDI", "SDI_1", "DVI", "AIO"};
    for (int i = 0; i < 6; ++i) {
        const lab::LabDevice& device = Devices()[serials[i]];
        EXPECT_EQ(i, device.card);
        EXPECT_STREQ(device.product.c_str(), g_sndCards[i].name);
        EXPECT_STREQ(ids[i], g_sndCards[i].id);
        EXPECT_EQ("hw:" + std::to_string(i), g_sndCards[i].device);
        EXPECT_EQ(device.bus, g_sndCards[i].usbBus);
    }
    EXPECT_EQ("001/", Devices()[lab::kHdmi].bus.substr(0, 4));
    EXPECT_EQ("003/", Devices()[lab::kSdi].bus.substr(0, 4));
}

struct NodeRow {
    const char* serial;
    const char* element[8];
    int pcm[8];  // -1: nothing to capture from
};

TEST(SoundCardTest, EveryNodeOfEveryModelIsTheElementAndDeviceOfItsCard) {
    const NodeRow rows[] = {
        {lab::kHdmi,
         {"Mic", "Headphone", "", "", "HDMI", "HDMI", "Computer", "Computer"},
         {1, 0, -1, -1, 0, -1, 2, -1}},
        {lab::kSdi, {"", "", "Line In", "", "SDI", "", "", ""}, {-1, -1, 1, -1, 0, -1, -1, -1}},
        {lab::kDvi, {"", "", "Line In", "", "HDMI", "", "", ""}, {-1, -1, 1, -1, 0, -1, -1, -1}},
        {lab::kAio, {"", "", "Analog", "", "Digital", "", "", ""}, {-1, -1, 1, -1, 0, -1, -1, -1}},
    };
    for (const NodeRow& row : rows) {
        const lab::LabDevice& device = Devices()[row.serial];
        for (unsigned node = 0; node < 8; ++node) {
            SCOPED_TRACE(device.product + " node " + std::to_string(node));
            char id[64] = "-";
            char element[32] = "-";
            char pcm[32] = "-";
            const int result = GetUSBCaptureAudioPath(device.bus.c_str(), device.product.c_str(),
                                                      node, id, element, pcm);
            if (row.pcm[node] < 0) {
                EXPECT_EQ(-1, result);
                EXPECT_STREQ("-", pcm);
                continue;
            }
            EXPECT_EQ(0, result);
            EXPECT_STREQ(row.element[node], element);
            EXPECT_EQ(CardDevice(row.serial) + "," + std::to_string(row.pcm[node]), pcm);
            EXPECT_EQ(device.bus, lab::Output(std::string("cat /proc/asound/") + id + "/usbbus")
                                      .substr(0, device.bus.size()));
        }
    }
}

TEST(SoundCardTest, ABusWithoutACardHasNoPath) {
    char pcm[32] = "-";
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("001/099", "Tavo Capture HDMI", 4, nullptr, nullptr, pcm));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("", "Tavo Capture HDMI", 4, nullptr, nullptr, pcm));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath(Devices()[lab::kHdmi].bus.c_str(), "Tavo Capture VGA", 4,
                                         nullptr, nullptr, pcm));
    // The card is there, but has no such element.
    EXPECT_EQ(-1, GetUSBCaptureAudioPath(Devices()[lab::kSdi].bus.c_str(), "Tavo Capture HDMI", 4,
                                         nullptr, nullptr, pcm));
    EXPECT_STREQ("-", pcm);
}

TEST(SoundCardTest, ElementsAreFoundByTheirExactName) {
    EXPECT_EQ(1, HasUSBCaptureSoundItem(CardDevice(lab::kHdmi).c_str(), "Mic"));
    EXPECT_EQ(1, HasUSBCaptureSoundItem(CardDevice(lab::kSdi).c_str(), "Line In"));
    EXPECT_EQ(0, HasUSBCaptureSoundItem(CardDevice(lab::kSdi).c_str(), "Line"));
    EXPECT_EQ(0, HasUSBCaptureSoundItem(CardDevice(lab::kSdi).c_str(), "Mic"));
    EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:30", "Mic"));
}

// ---- volume of USB devices, in hundredths of a decibel

int SetVolume(const char* serial, unsigned node, int channel, long value, int mute) {
    const lab::LabDevice& device = Devices()[serial];
    return SetQVUSBSoundVolume(device.bus.c_str(), device.product.c_str(), node, channel, value,
                               mute);
}

TEST(UsbVolumeTest, OneChannelOfACaptureElementIsSet) {
    SetMixer(lab::kHdmi, "Mic", "0dB cap");
    EXPECT_EQ("50 0.00dB on", Left(lab::kHdmi, "Mic", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 0, 0, -3000, 0));
    EXPECT_EQ("20 -30.00dB on", Left(lab::kHdmi, "Mic", "Capture"));
    EXPECT_EQ("50 0.00dB on", Right(lab::kHdmi, "Mic", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 0, 1, -100, 0));
    EXPECT_EQ("20 -30.00dB on", Left(lab::kHdmi, "Mic", "Capture"));
    EXPECT_EQ("49 -1.00dB on", Right(lab::kHdmi, "Mic", "Capture"));
}

TEST(UsbVolumeTest, AVolumeBetweenTwoStepsIsRoundedUpAndOneBeyondTheRangeIsItsEnd) {
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 0, 0, -2950, 0));
    EXPECT_EQ("21 -29.00dB on", Left(lab::kHdmi, "Mic", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 0, 0, -2901, 0));
    EXPECT_EQ("21 -29.00dB on", Left(lab::kHdmi, "Mic", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 0, 0, -9900, 0));
    EXPECT_EQ("0 -50.00dB on", Left(lab::kHdmi, "Mic", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 0, 0, 700, 0));
    EXPECT_EQ("50 0.00dB on", Left(lab::kHdmi, "Mic", "Capture"));
}

TEST(UsbVolumeTest, MuteIsTheSwitchOfAllChannels) {
    EXPECT_EQ(0, SetVolume(lab::kSdi, 2, 0, -2000, 1));
    EXPECT_EQ("30 -20.00dB off", Left(lab::kSdi, "Line In", "Capture"));
    EXPECT_EQ("30 -20.00dB off", Right(lab::kSdi, "Line In", "Capture"));
    EXPECT_EQ("30 -20.00dB on", Left(lab::kSdi, "SDI", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kSdi, 2, 0, -2000, 0));
    EXPECT_EQ("30 -20.00dB on", Right(lab::kSdi, "Line In", "Capture"));
}

TEST(UsbVolumeTest, AnOutputNodeSetsThePlaybackSideOfItsElementAlone) {
    SetMixer(lab::kHdmi, "HDMI", "capture 0dB cap");
    SetMixer(lab::kHdmi, "HDMI", "playback 0dB unmute");
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 5, 0, -1000, 1));
    EXPECT_EQ("40 -10.00dB off", Left(lab::kHdmi, "HDMI", "Playback"));
    EXPECT_EQ("50 0.00dB on", Left(lab::kHdmi, "HDMI", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 4, 0, -2000, 0));
    EXPECT_EQ("40 -10.00dB off", Left(lab::kHdmi, "HDMI", "Playback"));
    EXPECT_EQ("30 -20.00dB on", Left(lab::kHdmi, "HDMI", "Capture"));
    EXPECT_EQ(0, SetVolume(lab::kHdmi, 1, 1, -500, 0));
    EXPECT_EQ("45 -5.00dB on", Right(lab::kHdmi, "Headphone", "Playback"));
}

TEST(UsbVolumeTest, ANodeThatTheModelDoesNotHaveIsRefused) {
    EXPECT_EQ(-1, SetVolume(lab::kHdmi, 2, 0, 0, 0));
    EXPECT_EQ(-1, SetVolume(lab::kSdi, 0, 0, 0, 0));
    EXPECT_EQ(-1, SetVolume(lab::kAio, 1, 0, 0, 0));
}

}  // namespace
