// Sound-card table, model table and mixer volume against a scripted ALSA.
#include "AudioVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "QVPelixCapture.h"
#include "lib/FakeAlsa.h"
#include "lib/FakeV4l2.h"

using fake::Alsa;
using fake::Card;
using fake::Element;
using fake::V4l2;
using testing::ElementsAre;

namespace {

Element Named(const std::string& name) {
    Element element;
    element.name = name;
    return element;
}

class AudioVolumeTest : public testing::Test {
  protected:
    AudioVolumeTest() {
        alsa.Reset();
        files.Reset();
        CQVCaptureControlBase::EnumDevice();
    }
    ~AudioVolumeTest() override {
        EXPECT_EQ(0, alsa.mixersOpen) << "a mixer was left open";
        EXPECT_EQ(0, alsa.controlsOpen) << "a control handle was left open";
        EXPECT_EQ(0, files.Descriptors());
        files.Reset();
        CQVCaptureControlBase::EnumDevice();
    }

    void AddUsbCard(int number, const std::string& bus, std::vector<Element> elements) {
        const std::string id = "HDMI_" + std::to_string(number);
        alsa.cards.push_back({number, "Tavo Capture", id, std::move(elements)});
        files.AddSoundFile(id + "/usbbus", bus);
    }
    void AddPcieCard(int number, const std::string& name, std::vector<Element> elements = {}) {
        alsa.cards.push_back({number, name, "PCM" + std::to_string(number), std::move(elements)});
    }
    // Lists PCIe channels /dev/video0 to /dev/video<count - 1>.
    void ListChannels(int count) {
        for (int i = 0; i < count; ++i) files.AddChannel(i, {});
        CQVCaptureControlBase::EnumDevice();
        ASSERT_EQ(count, CQVCaptureControlBase::GetChannelCount());
    }

    Alsa& alsa = Alsa::Get();
    V4l2& files = V4l2::Get();
};

// ---- card table

TEST_F(AudioVolumeTest, WithoutSoundCardsEveryLookUpFails) {
    ListChannels(1);
    _QVCAP_AUDIO_VOLUME volume{};
    RefreshSoundCards();
    EXPECT_EQ(0, g_sndCount);
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/002", "Tavo Capture HDMI", 0, 0, 0, 0));
    EXPECT_EQ(-1,
              GetUSBCaptureAudioPath("001/002", "Tavo Capture HDMI", 0, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, GetPelixCaptureAudioPath("/dev/video0", nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, SetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(-1, GetPelixCaptureAudioVolume("/dev/video0", &volume));
}

TEST_F(AudioVolumeTest, TheTableHoldsNameIdDeviceAndBusOfEveryCard) {
    AddPcieCard(0, "Pelix Capture HDMI");
    AddUsbCard(3, "001/004\n", {});
    RefreshSoundCards();
    ASSERT_EQ(2, g_sndCount);
    EXPECT_STREQ("Pelix Capture HDMI", g_sndCards[0].name);
    EXPECT_STREQ("PCM0", g_sndCards[0].id);
    EXPECT_STREQ("hw:0", g_sndCards[0].device);
    EXPECT_STREQ("", g_sndCards[0].usbBus);
    EXPECT_STREQ("hw:3", g_sndCards[1].device);
    EXPECT_STREQ("001/004", g_sndCards[1].usbBus);
    EXPECT_THAT(alsa.Calls(),
                ElementsAre("snd_card_next(-1)", "snd_ctl_open(hw:0, 0)", "snd_ctl_card_info()",
                            "snd_ctl_close()", "snd_card_next(0)", "snd_ctl_open(hw:3, 0)",
                            "snd_ctl_card_info()", "snd_ctl_close()", "snd_card_next(3)",
                            "snd_config_update_free_global()"));
}

TEST_F(AudioVolumeTest, CardsThatCannotBeOpenedOrReadAreLeftOut) {
    AddPcieCard(0, "a");
    AddPcieCard(1, "b");
    AddPcieCard(2, "c");
    alsa.Refuse("snd_ctl_open", -EBUSY, 1);
    alsa.Refuse("snd_ctl_card_info", -EIO, 1);  // of the second card: the first was never asked
    RefreshSoundCards();
    ASSERT_EQ(1, g_sndCount);
    EXPECT_STREQ("c", g_sndCards[0].name);
}

TEST_F(AudioVolumeTest, AFailingCardWalkEndsTheTable) {
    AddPcieCard(0, "a");
    AddPcieCard(1, "b");
    alsa.Refuse("snd_card_next", -EIO, 2);
    RefreshSoundCards();
    EXPECT_EQ(1, g_sndCount);
    EXPECT_EQ(1, alsa.Count("snd_config_update_free_global"));
}

TEST_F(AudioVolumeTest, ATableIsRebuiltFromScratch) {
    AddUsbCard(0, "001/002\n", {});
    RefreshSoundCards();
    alsa.cards.clear();
    RefreshSoundCards();
    EXPECT_EQ(0, g_sndCount);
    EXPECT_STREQ("", g_sndCards[0].name);
    EXPECT_STREQ("", g_sndCards[0].usbBus);
}

TEST_F(AudioVolumeTest, Of129CardsTheFirst128AreKept) {
    for (int i = 0; i < 129; ++i) AddPcieCard(i, "card " + std::to_string(i));
    RefreshSoundCards();
    EXPECT_EQ(128, g_sndCount);
    EXPECT_STREQ("card 127", g_sndCards[127].name);
    EXPECT_EQ(128, alsa.Count("snd_ctl_open"));
}

TEST_F(AudioVolumeTest, TextsOfAnyLengthAreCutToFit) {
    alsa.cards.push_back({0, std::string(79, 'n'), std::string(79, 'i'), {}});
    RefreshSoundCards();
    EXPECT_EQ(std::string(63, 'n'), g_sndCards[0].name);
    EXPECT_EQ(std::string(63, 'i'), g_sndCards[0].id);
}

TEST_F(AudioVolumeTest, ABusLineIsItsFirstLineCutAt31Characters) {
    const std::string text(200, '7');
    AddUsbCard(0, "", {});
    AddUsbCard(1, "001/002", {});
    AddUsbCard(2, "001/002\nmore\n", {});
    AddUsbCard(3, text.substr(0, 31) + "\n", {});
    AddUsbCard(4, text.substr(0, 32) + "\n", {});
    AddUsbCard(5, text, {});
    RefreshSoundCards();
    ASSERT_EQ(6, g_sndCount);
    EXPECT_STREQ("", g_sndCards[0].usbBus);
    EXPECT_STREQ("001/002", g_sndCards[1].usbBus);
    EXPECT_STREQ("001/002", g_sndCards[2].usbBus);
    for (int i = 3; i < 6; ++i) EXPECT_EQ(text.substr(0, 31), g_sndCards[i].usbBus) << i;
}

// ---- model table

struct ModelRow {
    const char* product;
    unsigned node;
    const char* element;
    int pcmDevice;
    bool capture;
};

TEST(AudioModelTest, EveryNodeOfEveryModelHasItsElementDeviceAndDirection) {
    const ModelRow rows[] = {
        {"Tavo Capture HDMI", 0, "Mic", 1, true},
        {"Tavo Capture HDMI", 1, "Headphone", 0, false},
        {"Tavo Capture HDMI", 2, "", -1, true},
        {"Tavo Capture HDMI", 3, "", -1, false},
        {"Tavo Capture HDMI", 4, "HDMI", 0, true},
        {"Tavo Capture HDMI", 5, "HDMI", -1, false},
        {"Tavo Capture HDMI", 6, "Computer", 2, true},
        {"Tavo Capture HDMI", 7, "Computer", -1, false},
        {"Tavo Capture SDI", 2, "Line In", 1, true},
        {"Tavo Capture SDI", 4, "SDI", 0, true},
        {"Tavo Capture DVI", 2, "Line In", 1, true},
        {"Tavo Capture DVI", 4, "HDMI", 0, true},
        {"Tavo Capture AIO", 2, "Analog", 1, true},
        {"Tavo Capture AIO", 4, "Digital", 0, true},
    };
    int named = 0;
    for (const QVCAP_USB_AUDIO_NODE_FILTER& model : QVCAP_USB_AUDIO_NODE_FILTERS)
        for (unsigned node = 0; node < 8; ++node) {
            SCOPED_TRACE(std::string(model.model) + ", node " + std::to_string(node));
            const ModelRow* row = nullptr;
            for (const ModelRow& candidate : rows)
                if (candidate.node == node && strcmp(candidate.product, model.model) == 0)
                    row = &candidate;
            EXPECT_STREQ(row != nullptr ? row->element : "", model.nodes[node].element);
            EXPECT_EQ(row != nullptr ? row->pcmDevice : -1, model.nodes[node].pcmDevice);
            EXPECT_EQ(node % 2 == 0 ? 1u : 2u, uint32_t{AUIDO_DATA_Flows[node]});
            named += row != nullptr;
        }
    EXPECT_EQ(14, named);
    EXPECT_EQ(36u, sizeof(QVCAP_USB_AUDIO_NODE_ITEM));
    EXPECT_EQ(32u + 8 * 36, sizeof(QVCAP_USB_AUDIO_NODE_FILTER));
}

TEST(AudioModelTest, TheVolumeRecordHasItsFixedLayout) {
    EXPECT_EQ(56u, sizeof(_QVCAP_AUDIO_VOLUME));
    EXPECT_EQ(0u, offsetof(_QVCAP_AUDIO_VOLUME, channelCount));
    EXPECT_EQ(2u, offsetof(_QVCAP_AUDIO_VOLUME, minimum));
    EXPECT_EQ(4u, offsetof(_QVCAP_AUDIO_VOLUME, maximum));
    EXPECT_EQ(8u, offsetof(_QVCAP_AUDIO_VOLUME, mute));
    EXPECT_EQ(24u, offsetof(_QVCAP_AUDIO_VOLUME, volume));
}

// ---- element search

TEST_F(AudioVolumeTest, AnElementIsFoundByItsExactNameWhenSimpleAndActive) {
    Element inactive = Named("Mic");
    inactive.active = false;
    Element other = Named("Line");
    other.simple = false;
    AddUsbCard(1, "001/002\n", {inactive, other, Named("Mic Boost"), Named("HDMI")});
    EXPECT_EQ(1, HasUSBCaptureSoundItem("hw:1", "HDMI"));
    EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:1", "Mic")) << "not active";
    EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:1", "Line")) << "not simple";
    EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:1", "hdmi"));
    EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:1", ""));
    EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:2", "HDMI")) << "no such card";
    EXPECT_EQ(0, HasUSBCaptureSoundItem(nullptr, "HDMI"));
    EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:1", nullptr));
}

TEST_F(AudioVolumeTest, EveryRefusedMixerStepFailsTheSearchAndClosesTheMixer) {
    AddUsbCard(1, "001/002\n", {Named("HDMI")});
    int runs = 0;
    for (const char* step :
         {"snd_mixer_open", "snd_mixer_attach", "snd_mixer_selem_register", "snd_mixer_load"}) {
        SCOPED_TRACE(step);
        alsa.Refuse(step, -EIO);
        EXPECT_EQ(0, HasUSBCaptureSoundItem("hw:1", "HDMI"));
        alsa.Refuse(step, -EIO);
        EXPECT_EQ(-1, SetSoundVolume("hw:1", SOUND_CARD_CAPTURE, "HDMI", SND_MIXER_SCHN_FRONT_LEFT,
                                     0, 0));
        runs += 2;
        EXPECT_EQ(0, alsa.mixersOpen);
        EXPECT_EQ(runs, alsa.Count("snd_config_update_free_global"));
    }
}

// ---- one element's volume

class SetSoundVolumeTest : public AudioVolumeTest {
  protected:
    int Set(uint32_t direction, const char* name, int mute = 0) {
        return SetSoundVolume("hw:1", static_cast<SOUND_CARD_DIRECTION>(direction), name,
                              SND_MIXER_SCHN_FRONT_RIGHT, -1250, mute);
    }
    void Have(bool captureVolume, bool playbackVolume) {
        Element element = Named("HDMI");
        element.captureVolume = captureVolume;
        element.playbackVolume = playbackVolume;
        AddUsbCard(1, "001/002\n", {element});
    }
};

TEST_F(SetSoundVolumeTest, CaptureSetsTheChannelsDecibelsRoundedUpAndAllSwitches) {
    Have(true, true);
    EXPECT_EQ(0, Set(1, "HDMI"));
    EXPECT_THAT(alsa.CallsOf("snd_mixer_selem_set_capture_dB"),
                ElementsAre("snd_mixer_selem_set_capture_dB(1, -1250, 1)"));
    EXPECT_THAT(alsa.CallsOf("snd_mixer_selem_set_capture_switch_all"),
                ElementsAre("snd_mixer_selem_set_capture_switch_all(1)"));
    EXPECT_EQ(0, alsa.Count("snd_mixer_selem_set_playback_dB"));
}

TEST_F(SetSoundVolumeTest, PlaybackSetsThePlaybackSideAndMuteTurnsTheSwitchOff) {
    Have(true, true);
    EXPECT_EQ(0, Set(2, "HDMI", 1));
    EXPECT_THAT(alsa.CallsOf("snd_mixer_selem_set_playback_dB"),
                ElementsAre("snd_mixer_selem_set_playback_dB(1, -1250, 1)"));
    EXPECT_THAT(alsa.CallsOf("snd_mixer_selem_set_playback_switch_all"),
                ElementsAre("snd_mixer_selem_set_playback_switch_all(0)"));
    EXPECT_EQ(0, alsa.Count("snd_mixer_selem_set_capture_dB"));
}

TEST_F(SetSoundVolumeTest, PlaybackOnAnElementWithoutCaptureVolumeGivesThePlaybackSwitchResult) {
    Have(false, true);
    EXPECT_EQ(0, Set(2, "HDMI"));
    alsa.Refuse("snd_mixer_selem_set_playback_switch_all", -EPERM);
    EXPECT_EQ(-EPERM, Set(2, "HDMI"));
}

TEST_F(SetSoundVolumeTest, TheResultIsThatOfTheSwitchAndNotOfTheVolume) {
    Have(true, false);
    alsa.Refuse("snd_mixer_selem_set_capture_dB", -EINVAL);
    EXPECT_EQ(0, Set(1, "HDMI"));
    alsa.Refuse("snd_mixer_selem_set_capture_switch_all", -EPERM);
    EXPECT_EQ(-EPERM, Set(1, "HDMI"));
}

TEST_F(SetSoundVolumeTest, BothDirectionsGiveThePlaybackResult) {
    Have(true, true);
    alsa.Refuse("snd_mixer_selem_set_capture_switch_all", -EPERM);
    EXPECT_EQ(0, Set(3, "HDMI"));
}

TEST_F(SetSoundVolumeTest, WhatTheElementDoesNotHaveFails) {
    Have(false, false);
    EXPECT_EQ(-1, Set(1, "HDMI"));
    EXPECT_EQ(-1, Set(2, "HDMI"));
    EXPECT_EQ(-1, Set(0, "HDMI"));
    EXPECT_EQ(-1, Set(1, "Mic"));
    EXPECT_EQ(-1, Set(1, ""));
    EXPECT_EQ(-1, Set(1, nullptr));
}

TEST_F(SetSoundVolumeTest, ANullCardMeansTheDefaultMixer) {
    EXPECT_EQ(-1, SetSoundVolume(nullptr, SOUND_CARD_CAPTURE, "HDMI", SND_MIXER_SCHN_MONO, 0, 0));
    EXPECT_EQ("snd_mixer_attach(default)", alsa.CallsOf("snd_mixer_attach").at(0));
}

// ---- USB devices

class UsbSoundTest : public AudioVolumeTest {
  protected:
    UsbSoundTest() {
        Element headphone = Named("Headphone");
        headphone.captureVolume = false;
        headphone.playbackVolume = true;
        Element hdmi = Named("HDMI");
        hdmi.playbackVolume = true;
        AddUsbCard(0, "001/001\n", {});
        AddUsbCard(2, "001/004\n", {Named("Mic"), headphone, hdmi});
    }
    static constexpr char kProduct[] = "Tavo Capture HDMI Plus";
};

TEST_F(UsbSoundTest, AProductNameWithFurtherWordsSelectsItsModel) {
    EXPECT_EQ(0, SetQVUSBSoundVolume("001/004", kProduct, 0, 1, 300, 0));
    EXPECT_EQ("snd_mixer_attach(hw:2)", alsa.CallsOf("snd_mixer_attach").at(0));
    EXPECT_EQ("snd_mixer_selem_set_capture_dB(1, 300, 1)",
              alsa.CallsOf("snd_mixer_selem_set_capture_dB").at(0));
    EXPECT_EQ(0, SetQVUSBSoundVolume("001/004", "My Tavo Capture HDMI", 1, 0, -5, 1));
    EXPECT_EQ("snd_mixer_selem_set_playback_dB(0, -5, 1)",
              alsa.CallsOf("snd_mixer_selem_set_playback_dB").at(0));
}

TEST_F(UsbSoundTest, NodeFiveHasAVolumeButNoPcmDevice) {
    EXPECT_EQ(0, SetQVUSBSoundVolume("001/004", kProduct, 5, 0, 0, 0));
    EXPECT_EQ(1, alsa.Count("snd_mixer_selem_set_playback_dB"));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("001/004", kProduct, 5, nullptr, nullptr, nullptr));
}

TEST_F(UsbSoundTest, VolumesOfUnknownBusModelOrNodeFail) {
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/005", kProduct, 0, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/0045", kProduct, 0, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume("", kProduct, 0, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume(nullptr, kProduct, 0, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/004", "Tavo Capture", 0, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/004", nullptr, 0, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/004", kProduct, 2, 0, 0, 0)) << "empty element name";
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/004", kProduct, 8, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/004", kProduct, 0xFFFFFFFF, 0, 0, 0));
    EXPECT_EQ(-1, SetQVUSBSoundVolume("001/004", kProduct, 6, 0, 0, 0)) << "no such element";
}

TEST_F(UsbSoundTest, ThePcmDeviceIsTheCardAndTheNodesNumber) {
    char id[64], element[32], pcm[32];
    EXPECT_EQ(0, GetUSBCaptureAudioPath("001/004", kProduct, 0, id, element, pcm));
    EXPECT_STREQ("HDMI_2", id);
    EXPECT_STREQ("Mic", element);
    EXPECT_STREQ("hw:2,1", pcm);
    EXPECT_EQ(0, GetUSBCaptureAudioPath("001/004", kProduct, 4, nullptr, nullptr, nullptr));
}

TEST_F(UsbSoundTest, PathsOfUnknownBusModelNodeOrElementFail) {
    char pcm[32] = "untouched";
    EXPECT_EQ(-1, GetUSBCaptureAudioPath(nullptr, kProduct, 0, nullptr, nullptr, pcm));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("001/009", kProduct, 0, nullptr, nullptr, pcm));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("001/004", "other", 0, nullptr, nullptr, pcm));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("001/004", kProduct, 2, nullptr, nullptr, pcm));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("001/004", kProduct, 6, nullptr, nullptr, pcm));
    EXPECT_EQ(-1, GetUSBCaptureAudioPath("001/004", kProduct, 8, nullptr, nullptr, pcm));
    EXPECT_STREQ("untouched", pcm);
}

// ---- PCIe channels

TEST_F(AudioVolumeTest, AChannelOwnsTheCardOfItsPlaceAmongTheFamiliesCards) {
    ListChannels(4);
    AddPcieCard(0, "Pelix Capture A");
    AddPcieCard(1, "Tavo Capture HDMI");
    AddPcieCard(2, "Headset");
    AddPcieCard(3, "My Pelix Capture B");
    AddPcieCard(5, "Lumo Capture");
    char id[64], device[32], pcm[32];
    EXPECT_EQ(0, GetPelixCaptureAudioPath("/dev/video2", id, device, pcm));
    EXPECT_STREQ("PCM5", id);
    EXPECT_STREQ("hw:5", device);
    EXPECT_STREQ("hw:5,0", pcm);
    EXPECT_EQ(0, GetPelixCaptureAudioPath("/dev/video1", nullptr, device, nullptr));
    EXPECT_STREQ("hw:3", device);
    EXPECT_EQ(0, GetPelixCaptureAudioPath("/dev/video0", nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, GetPelixCaptureAudioPath("/dev/video3", nullptr, nullptr, nullptr))
        << "cards have run out";
    EXPECT_EQ(-1, GetPelixCaptureAudioPath("/dev/video9", nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, GetPelixCaptureAudioPath(nullptr, nullptr, nullptr, nullptr));
}

TEST_F(AudioVolumeTest, WithoutChannelsThereIsNoCard) {
    AddPcieCard(0, "Pelix Capture A");
    EXPECT_EQ(-1, GetPelixCaptureAudioPath("/dev/video0", nullptr, nullptr, nullptr));
    EXPECT_EQ(0, alsa.Count("snd_card_next"));
}

class PcieVolumeTest : public AudioVolumeTest {
  protected:
    PcieVolumeTest() { ListChannels(1); }
    Element& Have(Element element) {
        AddPcieCard(4, "Pelix Capture", {std::move(element), Named("Second")});
        return alsa.cards[0].elements[0];
    }
    _QVCAP_AUDIO_VOLUME volume{};
};

TEST_F(PcieVolumeTest, GetScalesTheRawRangeTo100AndCountsTheChannels) {
    Element& element = Have(Named("Capture"));
    element.minimum = -20;
    element.maximum = 60;
    element.volume = {{0, 60}, {1, -1}};
    element.on = {{0, 1}, {1, 0}};
    memset(&volume, 0xCC, sizeof volume);
    EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(2, volume.channelCount);
    EXPECT_EQ(0, volume.minimum);
    EXPECT_EQ(100, volume.maximum);
    EXPECT_EQ(100, volume.volume[0]);
    EXPECT_EQ(23, volume.volume[1]) << "19 * 100 / 80, truncated";
    EXPECT_EQ(0, volume.mute[0]);
    EXPECT_EQ(1, volume.mute[1]);
    EXPECT_EQ(static_cast<int16_t>(0xCCCC), volume.volume[2]);
    EXPECT_EQ(1, alsa.Count("snd_mixer_detach"));
    EXPECT_EQ("snd_config_update_free_global()", alsa.Calls().back());
}

TEST_F(PcieVolumeTest, SetMapsOntoTheRawRangeAndLeavesTheRecordsCount) {
    Element& element = Have(Named("Capture"));
    element.channels = {0, 5};
    element.minimum = -20;
    element.maximum = 60;
    volume.channelCount = 9;
    volume.minimum = volume.maximum = 7;
    volume.volume[0] = 33;
    volume.volume[1] = 100;
    volume.mute[1] = 1;
    EXPECT_EQ(0, SetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(6, element.volume[0]) << "33 * 80 / 100 truncated, - 20";
    EXPECT_EQ(60, element.volume[5]);
    EXPECT_EQ(1, element.on[0]);
    EXPECT_EQ(0, element.on[5]);
    EXPECT_EQ(9, volume.channelCount);
    EXPECT_EQ(0, volume.minimum);
    EXPECT_EQ(100, volume.maximum);
}

TEST_F(PcieVolumeTest, VolumesOutsideTheScaleAreComputedAsTheyAre) {
    Element& element = Have(Named("Capture"));
    element.channels = {0};
    element.maximum = 50;
    volume.volume[0] = -3;
    EXPECT_EQ(0, SetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(-1, element.volume[0]) << "-150 / 100 truncated towards 0";
}

TEST_F(PcieVolumeTest, AnEmptyRangeReadsAsZeroAndSetsTheMinimum) {
    Element& element = Have(Named("Capture"));
    element.minimum = element.maximum = 12;
    element.volume = {{0, 12}, {1, 12}};
    volume.volume[0] = 77;
    EXPECT_EQ(0, SetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(12, element.volume[0]);
    EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(0, volume.volume[0]);
}

TEST_F(PcieVolumeTest, ARangeAsWideAsALongIsKeptTo32Bits) {
    Element& element = Have(Named("Capture"));
    element.minimum = std::numeric_limits<long>::min();
    element.maximum = std::numeric_limits<long>::max();
    element.channels = {0};
    element.volume = {{0, std::numeric_limits<long>::max()}};
    EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(100, volume.volume[0]);
    volume.volume[0] = 32767;
    EXPECT_EQ(0, SetPelixCaptureAudioVolume("/dev/video0", &volume));
}

TEST_F(PcieVolumeTest, MoreThan16CaptureChannelsAreBoundedAtTheRecordsEntries) {
    Element& element = Have(Named("Capture"));
    element.channels.clear();
    for (int i = 0; i <= 31; ++i) element.channels.push_back(i);
    EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(16, volume.channelCount);
    EXPECT_EQ(16, alsa.Count("snd_mixer_selem_get_capture_volume"));
    EXPECT_EQ(0, SetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(16, alsa.Count("snd_mixer_selem_set_capture_volume"));
}

TEST_F(PcieVolumeTest, ChannelIdsGoTo30) {
    Element& element = Have(Named("Capture"));
    element.channels = {30, 31};
    EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(1, volume.channelCount);
}

TEST_F(PcieVolumeTest, AFirstElementThatDoesNotQualifyIsLeftAloneWithResultZero) {
    for (int i = 0; i < 3; ++i) {
        alsa.cards.clear();
        Element& element = Have(Named("Capture"));
        element.simple = i != 0;
        element.active = i != 1;
        element.captureVolume = i != 2;
        memset(&volume, 0xCC, sizeof volume);
        EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
        EXPECT_EQ(0xCC, volume.channelCount);
        EXPECT_EQ(static_cast<int16_t>(0xCCCC), volume.maximum);
        EXPECT_EQ(0, SetPelixCaptureAudioVolume("/dev/video0", &volume));
    }
    alsa.cards[0].elements.clear();
    EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
}

TEST_F(PcieVolumeTest, EveryRefusedMixerStepGivesItsOwnResult) {
    Have(Named("Capture"));
    for (const char* step :
         {"snd_mixer_open", "snd_mixer_attach", "snd_mixer_selem_register", "snd_mixer_load"}) {
        SCOPED_TRACE(step);
        alsa.Refuse(step, -EBUSY);
        EXPECT_EQ(-EBUSY, GetPelixCaptureAudioVolume("/dev/video0", &volume));
        alsa.Refuse(step, -EPERM);
        EXPECT_EQ(-EPERM, SetPelixCaptureAudioVolume("/dev/video0", &volume));
    }
}

TEST_F(PcieVolumeTest, AChannelThatCannotBeReadCountsAsSilentAndNotMuted) {
    Element& element = Have(Named("Capture"));
    element.minimum = 10;
    alsa.Refuse("snd_mixer_selem_get_capture_volume", -EIO);
    alsa.Refuse("snd_mixer_selem_get_capture_switch", -EIO);
    EXPECT_EQ(0, GetPelixCaptureAudioVolume("/dev/video0", &volume));
    EXPECT_EQ(0, volume.volume[0]);
    EXPECT_EQ(0, volume.mute[0]);
}

TEST_F(PcieVolumeTest, NullArgumentsFail) {
    Have(Named("Capture"));
    EXPECT_EQ(-1, GetPelixCaptureAudioVolume(nullptr, &volume));
    EXPECT_EQ(-1, GetPelixCaptureAudioVolume("/dev/video0", nullptr));
    EXPECT_EQ(-1, SetPelixCaptureAudioVolume(nullptr, &volume));
    EXPECT_EQ(-1, SetPelixCaptureAudioVolume("/dev/video0", nullptr));
}

}  // namespace
