// USB channels against a simulated device: registry, opening, firmware, sound card, hot-plug.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstring>

#include "QVUSBCaptureBase.h"
#include "lib/FakeAlsa.h"
#include "lib/FakeV4l2.h"
#include "lib/SimulatedTavo.h"

using fake::Tavo;
using testing::ElementsAre;

namespace {

constexpr char kPath[] = "usb:1-1";

class UsbTest : public testing::Test {
  protected:
    UsbTest() {
        tavo.Reset();
        tavo.AddDevice(kPath, "Tavo Capture HDMI", "001/004", "TV0012345");
        EXPECT_EQ(QV_RESULT_OK, tavo.Supply());
        EXPECT_EQ(QV_RESULT_OK, CQVUSBCaptureControlBase::Init());
        EXPECT_EQ(QV_RESULT_OK, CQVUSBCaptureControlBase::EnumDevice());
    }
    ~UsbTest() override {
        EXPECT_EQ(0, tavo.handlesOpen) << "a device was left open";
        EXPECT_EQ(0, tavo.wrongAnswers);
        CQVUSBCaptureControlBase::Exit();
        tavo.Reset();
    }
    Tavo& tavo = Tavo::Get();
};

// ---- registry

TEST_F(UsbTest, IndicesOutsideTheTableAndNullOutputsAreRefused) {
    CQVUSBCaptureControlBase::EnumDevice();
    _QVCAP_CHANNEL_INFO info{};
    _QVUSBCAP_CAPTURE_INFO family{};
    char path[512] = {};
    for (const int index : {-1, 1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(3, CQVUSBCaptureControlBase::GetChannelInfoByIndex(index, &info));
        EXPECT_EQ(3, CQVUSBCaptureControlBase::GetFamilyInfoByIndex(index, &family));
        EXPECT_EQ(3, CQVUSBCaptureControlBase::GetDevicePath(index, path));
    }
    EXPECT_EQ(3, CQVUSBCaptureControlBase::GetChannelInfoByIndex(0, nullptr));
    EXPECT_EQ(3, CQVUSBCaptureControlBase::GetFamilyInfoByIndex(0, nullptr));
    EXPECT_EQ(3, CQVUSBCaptureControlBase::GetDevicePath(0, nullptr));
}

TEST_F(UsbTest, ATransportThatCannotTellLeavesTheTableAsItWas) {
    CQVUSBCaptureControlBase::EnumDevice();
    tavo.cannotTell = true;
    EXPECT_EQ(QV_RESULT_FAILED, CQVUSBCaptureControlBase::EnumDevice());
    EXPECT_EQ(1, CQVUSBCaptureControlBase::GetChannelCount());
}

TEST_F(UsbTest, ASearchThatFailsHalfWayLeavesNothingOfItsOwnInTheTable) {
    tavo.AddDevice("usb:1-2", "Tavo Capture SDI", "001/005", "S2");
    CQVUSBCaptureControlBase::EnumDevice();
    tavo.devices.clear();
    tavo.AddDevice("usb:9-9", "Tavo Capture DVI", "009/001", "S9");
    tavo.cannotTell = true;
    EXPECT_EQ(QV_RESULT_FAILED, CQVUSBCaptureControlBase::EnumDevice());
    char path[512] = {};
    EXPECT_EQ(QV_RESULT_OK, CQVUSBCaptureControlBase::GetDevicePath(0, path));
    EXPECT_STREQ(kPath, path);
    EXPECT_EQ(QV_RESULT_OK, CQVUSBCaptureControlBase::GetDevicePath(1, path));
    EXPECT_STREQ("usb:1-2", path);
}

TEST_F(UsbTest, TheFlagIsSetWhileThereIsAnInstance) {
    EXPECT_EQ(1u, CQVUSBCaptureControlBase::m_bInit);
    CQVUSBCaptureControlBase::Exit();
    EXPECT_EQ(0u, CQVUSBCaptureControlBase::m_bInit);
}

// ---- hot-plug watcher

TEST_F(UsbTest, UnregisteringWithoutWatcherJoinsNothing) {
    EXPECT_EQ(QV_RESULT_OK, CQVUSBCaptureControlBase::UnRegisterHotPlug());
    EXPECT_EQ(QV_RESULT_OK, CQVUSBCaptureControlBase::UnRegisterHotPlug());
}

// It takes the mutex itself, and ends some time after it was told to.
std::atomic<bool> g_watcherEnded{false};
void* WatchAndLinger(void* param) {
    auto* entity = static_cast<_QVUSB_HOTPLUG_ENTITY*>(param);
    for (bool running = true; running;) {
        pthread_mutex_lock(&entity->mutex);
        running = entity->running != 0;
        pthread_mutex_unlock(&entity->mutex);
    }
    usleep(50000);
    g_watcherEnded = true;
    return nullptr;
}

TEST_F(UsbTest, UnregisteringReturnsWhenTheWatcherHasEnded) {
    _QVUSB_HOTPLUG_ENTITY& entity = CQVUSBCaptureControlBase::m_hotplugEntity;
    g_watcherEnded = false;
    pthread_mutex_lock(&entity.mutex);
    entity.running = 1;
    ASSERT_EQ(0, pthread_create(&entity.thread, nullptr, WatchAndLinger, &entity));
    pthread_mutex_unlock(&entity.mutex);
    EXPECT_EQ(QV_RESULT_OK, CQVUSBCaptureControlBase::UnRegisterHotPlug());
    EXPECT_TRUE(g_watcherEnded);
    EXPECT_EQ(0u, entity.running);
}

// ---- opening

TEST_F(UsbTest, AChannelOpensByPathOnceAndClosesOnce) {
    CQVUSBCaptureBase channel;
    EXPECT_FALSE(channel.OpenChannelByPath("usb:9-9"));
    EXPECT_FALSE(channel.OpenChannelByPath(nullptr));
    EXPECT_TRUE(channel.OpenChannelByPath(kPath));
    EXPECT_TRUE(channel.OpenChannelByPath("usb:9-9")) << "an open channel stays as it is";
    EXPECT_EQ(1, tavo.handlesOpen);
    channel.CloseChannel();
    channel.CloseChannel();
    EXPECT_EQ(0, tavo.handlesOpen);
}

TEST_F(UsbTest, SerialAndBusAreThoseOfTheOpenDevice) {
    CQVUSBCaptureBase channel;
    char text[33] = "untouched";
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetSerial(text));
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetUsbbus(text));
    EXPECT_STREQ("untouched", text);
    ASSERT_TRUE(channel.OpenChannelByPath(kPath));
    EXPECT_EQ(QV_RESULT_OK, channel.GetSerial(text));
    EXPECT_STREQ("TV0012345", text);
    EXPECT_EQ(QV_RESULT_OK, channel.GetUsbbus(text));
    EXPECT_STREQ("001/004", text);
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetSerial(nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetUsbbus(nullptr));
    channel.CloseChannel();
}

TEST_F(UsbTest, TextsWithoutTerminatorAreTerminatedInTheCallersBuffer) {
    tavo.AddDevice("usb:long", "p", std::string(40, 'b'), std::string(40, 's'));
    CQVUSBCaptureControlBase::EnumDevice();
    CQVUSBCaptureBase channel;
    ASSERT_TRUE(channel.OpenChannelByPath("usb:long"));
    char text[33];
    memset(text, 0xCC, sizeof text);
    EXPECT_EQ(QV_RESULT_OK, channel.GetSerial(text));
    EXPECT_EQ(std::string(31, 's'), text);
    EXPECT_EQ(QV_RESULT_OK, channel.GetUsbbus(text));
    EXPECT_EQ(std::string(31, 'b'), text);
    EXPECT_EQ(static_cast<char>(0xCC), text[32]);
    channel.CloseChannel();
}

TEST_F(UsbTest, OperationsThatUsbDoesNotHaveKeepTheInterfacesAnswer) {
    CQVUSBCaptureBase channel;
    unsigned count = 0;
    IQVCaptureDevice& device = channel;
    EXPECT_EQ(QV_RESULT_FAILED, device.GetVideoInputSourceCount(&count));
    EXPECT_EQ(QV_RESULT_FAILED, device.GetAudioInputSourceCount(&count));
    EXPECT_EQ(QV_RESULT_FAILED, device.SetSDIANCType(nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, device.GetSDIANCPacket(nullptr));
    EXPECT_EQ(&channel, device.AsUsbChannel());
    EXPECT_EQ(nullptr, device.AsPcieChannel());
}

// ---- firmware

class UsbFirmwareTest : public UsbTest {
  protected:
    UsbFirmwareTest() { EXPECT_TRUE(channel.OpenChannelByPath(kPath)); }
    ~UsbFirmwareTest() override { channel.CloseChannel(); }
    CQVUSBCaptureBase channel;
    unsigned char data[4096] = {};
};

TEST_F(UsbFirmwareTest, EraseSendsItsRangeThenPollsUntilTheDeviceIsNotBusy) {
    tavo.busyPolls = 3;
    tavo.flash.assign(tavo.flash.size(), 0);
    EXPECT_EQ(QV_RESULT_OK, channel.EraseFirmwareData(0x1000, 0x20));
    EXPECT_THAT(tavo.Calls(), ElementsAre("set(0xF1, 8)", "set(0xF4, 1)", "set(0xF4, 1)",
                                          "set(0xF4, 1)", "set(0xF4, 1)"));
    EXPECT_THAT(tavo.lastPayload, ElementsAre(0, 0x10, 0, 0, 0x20, 0, 0, 0));
    EXPECT_EQ(0xFF, tavo.flash[0x101F]);
    EXPECT_EQ(0, tavo.flash[0x1020]);
    EXPECT_EQ(QV_RESULT_OK, channel.SetFirmwareErase(0, 1));
    EXPECT_EQ(10, tavo.Count("set")) << "the same five transfers";
}

TEST_F(UsbFirmwareTest, ARefusedEraseOrPollFails) {
    tavo.busyPolls = 3;
    for (int call = 1; call <= 5; ++call) {
        tavo.Refuse("set", -1, call);
        EXPECT_EQ(QV_RESULT_FAILED, channel.EraseFirmwareData(0, 1)) << call;
        tavo.Refuse("set", -1, call);
        EXPECT_EQ(QV_RESULT_FAILED, channel.WriteFirmwareData(0, data, 1)) << call;
    }
}

TEST_F(UsbFirmwareTest, WriteSendsOnePacketOf2056BytesThenPolls) {
    tavo.busyPolls = 1;
    memset(data, 0xAB, sizeof data);
    EXPECT_EQ(QV_RESULT_OK, channel.WriteFirmwareData(0x2000, data, 3));
    EXPECT_THAT(tavo.Calls(), ElementsAre("set(0xF3, 2056)", "set(0xF4, 1)", "set(0xF4, 1)"));
    std::vector<unsigned char> packet(2056);
    packet[1] = 0x20;
    packet[4] = 3;
    packet[8] = packet[9] = packet[10] = 0xAB;
    EXPECT_EQ(packet, tavo.lastPayload) << "zeros behind the data";
}

// What a packet says it holds, from the payload of its transfer.
std::string PacketText(const std::vector<unsigned char>& payload) {
    uint32_t address = 0, size = 0;
    memcpy(&address, payload.data(), sizeof address);
    memcpy(&size, payload.data() + 4, sizeof size);
    return std::to_string(address) + "+" + std::to_string(size);
}

TEST_F(UsbFirmwareTest, AWriteOf2048BytesIsOnePacketAndOneMoreByteASecond) {
    EXPECT_EQ(QV_RESULT_OK, channel.WriteFirmwareData(0, data, 2048));
    EXPECT_THAT(tavo.Calls(), ElementsAre("set(0xF3, 2056)", "set(0xF4, 1)"));
    tavo.ForgetCalls();
    tavo.payloads.clear();
    EXPECT_EQ(QV_RESULT_OK, channel.WriteFirmwareData(0x1000, data, 2049));
    EXPECT_THAT(tavo.Calls(),
                ElementsAre("set(0xF3, 2056)", "set(0xF4, 1)", "set(0xF3, 2056)", "set(0xF4, 1)"));
    ASSERT_EQ(2u, tavo.payloads.size());
    EXPECT_EQ("4096+2048", PacketText(tavo.payloads[0]));
    EXPECT_EQ("6144+1", PacketText(tavo.payloads[1]));
    EXPECT_EQ(std::vector<unsigned char>(2047),
              std::vector<unsigned char>(tavo.payloads[1].begin() + 9, tavo.payloads[1].end()))
        << "zeros behind the last byte";
}

TEST_F(UsbFirmwareTest, EveryRefusedTransferOfALongWriteEndsItThere) {
    for (int call = 1; call <= 4; ++call) {  // two packets, each with a poll
        tavo.ForgetCalls();
        tavo.Refuse("set", -1, call);
        EXPECT_EQ(QV_RESULT_FAILED, channel.WriteFirmwareData(0, data, 4096)) << call;
        EXPECT_EQ(static_cast<size_t>(call), tavo.Calls().size()) << "nothing follows";
    }
}

TEST_F(UsbFirmwareTest, WritesWithoutBufferOrBehindTheLastAddressAreRefusedWithoutTransfer) {
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.WriteFirmwareData(0, nullptr, 1));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.WriteFirmwareData(UINT_MAX, data, 2));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.WriteFirmwareData(0xFFFFF001u, data, 4096));
    EXPECT_TRUE(tavo.Calls().empty());
    EXPECT_EQ(QV_RESULT_OK, channel.WriteFirmwareData(UINT_MAX, data, 1)) << "the last byte";
    EXPECT_EQ(2u, tavo.Calls().size());
}

TEST_F(UsbFirmwareTest, AReadOf130BytesMakesThreePasses) {
    for (size_t i = 0; i < 256; ++i) tavo.flash[0x100 + i] = static_cast<unsigned char>(i);
    memset(data, 0xCC, sizeof data);
    unsigned read = 0;
    EXPECT_EQ(QV_RESULT_OK, channel.ReadFirmwareData(0x100, data, 130, &read));
    EXPECT_EQ(130u, read);
    EXPECT_THAT(tavo.Calls(), ElementsAre("set(0xF2, 4)", "set(0xF3, 2056)", "set(0xF2, 4)",
                                          "set(0xF3, 2056)", "set(0xF2, 4)", "set(0xF3, 2056)"));
    for (size_t i = 0; i < 130; ++i) EXPECT_EQ(i, data[i]);
    EXPECT_EQ(0xCC, data[130]);
    EXPECT_EQ(0x80, tavo.lastPayload[0]) << "the last pass asks for address 0x180";
    EXPECT_EQ(2, tavo.lastPayload[4]) << "and two bytes";
}

TEST_F(UsbFirmwareTest, AReadOfNothingIsOnePass) {
    unsigned read = 77;
    EXPECT_EQ(QV_RESULT_OK, channel.ReadFirmwareData(0, data, 0, &read));
    EXPECT_EQ(0u, read);
    EXPECT_THAT(tavo.Calls(), ElementsAre("set(0xF2, 4)", "set(0xF3, 2056)"));
    EXPECT_EQ(QV_RESULT_OK, channel.ReadFirmwareData(0, data, 64, nullptr));
    EXPECT_EQ(4u, tavo.Calls().size()) << "64 bytes are one pass";
}

TEST_F(UsbFirmwareTest, EveryRefusedTransferOfAReadFailsIt) {
    for (int call = 1; call <= 6; ++call) {
        unsigned read = 77;
        tavo.Refuse("set", -1, call);
        EXPECT_EQ(QV_RESULT_FAILED, channel.ReadFirmwareData(0, data, 130, &read)) << call;
        EXPECT_EQ(77u, read);
    }
}

TEST_F(UsbFirmwareTest, ReadsOfMoreThan2GiBOrWithoutBufferAreRefusedWithoutTransfer) {
    unsigned read = 77;
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.ReadFirmwareData(0, data, 0x80000000u, &read));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.ReadFirmwareData(0, nullptr, 1, &read));
    EXPECT_EQ(77u, read);
    EXPECT_TRUE(tavo.Calls().empty());
}

// ---- closed channel

TEST_F(UsbTest, AClosedChannelRefusesEveryTransfer) {
    CQVUSBCaptureBase channel;
    unsigned char data[8] = {};
    unsigned count = 3, value = 0, sources[3];
    unsigned long size = 8;
    int x = 5;
    EXPECT_EQ(QV_RESULT_FAILED, channel.USBChannelGetData(1, data, 8));
    EXPECT_EQ(QV_RESULT_FAILED, channel.USBChannelSetData(1, data, 8));
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoInputSource(&value));
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetVideoInputSource(1));
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoInputSourceArray(sources, &count));
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoInputAspectRatio(&x, nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetEDID(data, 8));
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetEDID(data, &size));
    EXPECT_EQ(QV_RESULT_FAILED, channel.EraseFirmwareData(0, 1));
    EXPECT_EQ(QV_RESULT_FAILED, channel.WriteFirmwareData(0, data, 8));
    EXPECT_EQ(QV_RESULT_FAILED, channel.ReadFirmwareData(0, data, 8, nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetVideoTiming(nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoCaps(nullptr));
    EXPECT_TRUE(tavo.Calls().empty());
}

// ---- sound card

class UsbVolumeTest : public UsbTest {
  protected:
    UsbVolumeTest() {
        alsa.Reset();
        files.Reset();
        alsa.cards = {{2, "Tavo Capture", "HDMI", {{.name = "Mic"}}}};
        files.AddSoundFile("HDMI/usbbus", "001/004\n");
        EXPECT_TRUE(channel.OpenChannelByPath(kPath));
    }
    ~UsbVolumeTest() override {
        channel.CloseChannel();
        files.Reset();
    }
    fake::Alsa& alsa = fake::Alsa::Get();
    fake::V4l2& files = fake::V4l2::Get();
    CQVUSBCaptureBase channel;
    _QVCAP_AUDIO_VOLUME volume{};
};

TEST_F(UsbVolumeTest, EveryChannelOfTheRecordIsSetOnTheSoundCard) {
    volume.channelCount = 2;
    volume.volume[0] = -100;
    volume.volume[1] = 250;
    volume.mute[1] = 1;
    EXPECT_EQ(QV_RESULT_OK, channel.SetAudioVolume(0, &volume));
    EXPECT_THAT(alsa.CallsOf("snd_mixer_selem_set_capture_dB"),
                ElementsAre("snd_mixer_selem_set_capture_dB(0, -100, 1)",
                            "snd_mixer_selem_set_capture_dB(1, 250, 1)"));
    EXPECT_THAT(alsa.CallsOf("snd_mixer_selem_set_capture_switch_all"),
                ElementsAre("snd_mixer_selem_set_capture_switch_all(1)",
                            "snd_mixer_selem_set_capture_switch_all(0)"));
    EXPECT_THAT(tavo.Calls(), ElementsAre("get(0x01, 224)"));
}

TEST_F(UsbVolumeTest, AllChannelsAreTriedAfterAFailure) {
    volume.channelCount = 3;
    alsa.Refuse("snd_mixer_selem_set_capture_switch_all", -EPERM);
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetAudioVolume(0, &volume));
    EXPECT_EQ(3, alsa.Count("snd_mixer_selem_set_capture_dB"));
}

TEST_F(UsbVolumeTest, NoChannelsAreASuccessAndMoreThan16AreBounded) {
    EXPECT_EQ(QV_RESULT_OK, channel.SetAudioVolume(0, &volume));
    EXPECT_EQ(0, alsa.Count("snd_card_next"));
    volume.channelCount = 255;
    EXPECT_EQ(QV_RESULT_OK, channel.SetAudioVolume(0, &volume));
    EXPECT_EQ(16, alsa.Count("snd_mixer_selem_set_capture_dB"));
}

TEST_F(UsbVolumeTest, WithoutChannelInformationNoModelMatches) {
    volume.channelCount = 1;
    tavo.Refuse("get", -1);
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetAudioVolume(0, &volume));
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetAudioVolume(8, &volume));
}

TEST_F(UsbVolumeTest, AProductNameWithoutTerminatorIsBounded) {
    std::vector<unsigned char>& info = tavo.values[1];
    std::fill(info.begin() + 78, info.begin() + 142, 'x');
    memcpy(info.data() + 78, "Tavo Capture HDMI", 17);
    volume.channelCount = 1;
    EXPECT_EQ(QV_RESULT_OK, channel.SetAudioVolume(0, &volume));
}

TEST_F(UsbVolumeTest, NullRecordOrClosedChannelFails) {
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetAudioVolume(0, nullptr));
    CQVUSBCaptureBase closed;
    EXPECT_EQ(QV_RESULT_FAILED, closed.SetAudioVolume(0, &volume));
}

}  // namespace
