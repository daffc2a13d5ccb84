// The public functions over both kinds of channel: list, opening, device path, capture, volume.
// PCIe channels are scripted nodes, USB channels a simulated device, sound a scripted ALSA.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "QVCapture.hpp"
#include "QVUSBCaptureBase.h"
#include "VideoCaptureV4l2.h"
#include "lib/FakeAlsa.h"
#include "lib/FakeV4l2.h"
#include "lib/SimulatedTavo.h"
#include "lib/TestThreads.h"

using fake::Alsa;
using fake::Tavo;
using fake::V4l2;
using testing::Contains;
using testing::Not;

namespace {

constexpr char kUsbPath[] = "usb:1-1";
constexpr uint32_t kYuyv = v4l2_fourcc('Y', 'U', 'Y', 'V');
constexpr uint32_t kYuy2 = v4l2_fourcc('Y', 'U', 'Y', '2');

_QVCAP_CHANNEL_INFO PcieInfo(const char* family, uint8_t channel) {
    _QVCAP_CHANNEL_INFO info{};
    snprintf(info.familyName, sizeof info.familyName, "%s", family);
    info.channelIndex = channel;
    return info;
}

std::atomic<int> g_frames;
std::atomic<int> g_bytes;

void OnFrame(const unsigned char*, unsigned, void*) { ++g_frames; }
void OnChunk(const unsigned char*, int bytes, long long, void*) { g_bytes = bytes; }

// Two PCIe channels /dev/video0 and 1, one USB device whose camera node is /dev/video4.
class MediaTest : public testing::Test {
  protected:
    MediaTest() {
        alsa.Reset();
        nodes.Reset();
        tavo.Reset();
        g_frames = g_bytes = 0;
        nodes.AddChannel(0, PcieInfo("Pelix Capture", 0));
        nodes.AddChannel(1, PcieInfo("Lumo Capture", 1));
        nodes.AddNode(4, "../../devices/p/usb1/1-1/1-1:1.0/video4linux/video4", "TV0012345\n");
        nodes.device.formats = {kYuyv};
        tavo.AddDevice(kUsbPath, "Tavo Capture HDMI", "001/004", "TV0012345");
        alsa.cards = {
            {0, "Pelix Capture HDMI", "PCM", {{.name = "Capture"}}},
            {1,
             "Tavo Capture HDMI",
             "HDMI",
             {{.name = "Mic"}, {.name = "HDMI"}, {.name = "Computer"}}},
        };
        nodes.AddSoundFile("HDMI/usbbus", "001/004\n");
        EXPECT_EQ(QV_RESULT_OK, tavo.Supply());
        QVCaptureInitInstance();
    }
    ~MediaTest() override {
        EXPECT_EQ(0, tavo.handlesOpen);
        EXPECT_EQ(0, alsa.pcmsOpen);
        EXPECT_EQ(0, alsa.mixersOpen);
        EXPECT_EQ(0, nodes.Descriptors());
        EXPECT_EQ(0, nodes.Mappings());
        EXPECT_TRUE(NoCaptureThreadIsLeft());
        nodes.Reset();
        tavo.Reset();
        QVRefreshDevice();
        QVCaptureExitInstance();
    }

    // A channel that is closed with the test.
    struct Closer {
        void operator()(void* channel) const { QVCloseChannel(channel); }
    };
    using Channel = std::unique_ptr<void, Closer>;
    static Channel Open(const char* path) {
        Channel channel(QVOpenChannelByPath(path));
        EXPECT_NE(nullptr, channel);
        return channel;
    }
    // Changes what the open USB device says its family is.
    void RenameUsbFamily(const char* family) {
        memset(tavo.values[1].data() + 14, 0, 64);
        memcpy(tavo.values[1].data() + 14, family, strlen(family));
    }

    Alsa& alsa = Alsa::Get();
    V4l2& nodes = V4l2::Get();
    Tavo& tavo = Tavo::Get();
    char path[512] = "before";
};

// ---- the C++ face

TEST_F(MediaTest, TheCppFaceCapturesVideoAndSoundUntilItsObjectsAreDestroyed) {
    const qvcapture::Channel channel(kUsbPath);
    ASSERT_TRUE(channel);
    qvcapture::Mailbox<qvcapture::ChunkCopy> frames(2);
    qvcapture::Mailbox<qvcapture::ChunkCopy> chunks(2);
    v4l2_queryctrl brightness{};
    brightness.id = V4L2_CID_BRIGHTNESS;
    brightness.maximum = 10;
    nodes.device.controls[brightness.id] = brightness;
    alsa.available = {480, 480, 480};
    {
        qvcapture::NodeVideoCapture video(channel, {kYuy2, 64, 48}, qvcapture::Ticks(333333),
                                          frames.Sink());
        ASSERT_TRUE(video);
        EXPECT_TRUE(video.SetControl(QV_VIDEO_PROC_BRIGHTNESS, 50));
        int value = 0;
        EXPECT_TRUE(video.GetControl(QV_VIDEO_PROC_BRIGHTNESS, value));
        int minimum = -1;
        int maximum = -1;
        int defaultValue = -1;
        EXPECT_TRUE(
            video.GetControlRange(QV_VIDEO_PROC_BRIGHTNESS, minimum, maximum, defaultValue));
        EXPECT_EQ(0, minimum);
        EXPECT_EQ(10, maximum);
        for (unsigned int i = 0; i < 3; ++i) nodes.Deliver(i, 100 + i);
        const qvcapture::SoundCapture sound(channel, 0, {}, chunks.Sink());
        ASSERT_TRUE(sound);
        EXPECT_TRUE(Eventually([&] { return frames.Delivered() == 3 && chunks.Delivered() >= 3; }));
    }
    EXPECT_EQ(1u, frames.Dropped());
    qvcapture::ChunkCopy frame;
    for (size_t size = 100; size < 102; ++size) {
        ASSERT_TRUE(frames.Take(frame));
        EXPECT_EQ(size, frame.bytes.size());
    }
    EXPECT_FALSE(frames.Take(frame));
    qvcapture::ChunkCopy chunk;
    ASSERT_TRUE(chunks.Take(chunk));
    EXPECT_EQ(size_t{1920}, chunk.bytes.size()) << "10 ms of 16-bit stereo at 48 kHz";
}

TEST_F(MediaTest, TheCppFaceSaysWhenThereIsNothingToCaptureFrom) {
    const qvcapture::Channel none("usb:9-9");
    EXPECT_FALSE(none);
    EXPECT_FALSE(qvcapture::NodeVideoCapture(none, {kYuy2, 64, 48}, qvcapture::Ticks(1), nullptr));
    EXPECT_FALSE(qvcapture::SoundCapture(none, 0, {}, nullptr));
}

// ---- list and opening

// A driver may keep an open that blocks waiting for as long as it likes.
TEST_F(MediaTest, CardsAreProbedAndOpenedWithoutBlocking) {
    const Channel channel = Open("/dev/video0");
    const auto opened = nodes.CallsOf("open");
    ASSERT_FALSE(opened.empty());
    for (const std::string& call : opened) EXPECT_NE(call.npos, call.find("rdwr|nonblock")) << call;
}

TEST_F(MediaTest, UsbChannelsFollowThePcieChannelsInTheList) {
    ASSERT_EQ(3, QVGetChannelCount());
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_EQ(QV_RESULT_OK, QVGetChannelInfoByIndex(1, &info));
    EXPECT_STREQ("Lumo Capture", info.familyName);
    EXPECT_EQ(QV_RESULT_OK, QVGetChannelInfoByIndex(2, &info));
    EXPECT_STREQ("Tavo Capture", info.familyName);
    EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(1, path));
    EXPECT_STREQ("/dev/video1", path);
    EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(2, path));
    EXPECT_STREQ(kUsbPath, path);
    unsigned char family[17];
    memset(family, 0xCC, sizeof family);
    EXPECT_EQ(QV_RESULT_OK, QVGetFamilyInfoByIndex(2, family));
    EXPECT_EQ(0x11, family[0]);
    EXPECT_EQ(0x33, family[9]);
    EXPECT_EQ(0xCC, family[10]) << "10 bytes for a USB channel";
}

TEST_F(MediaTest, IndicesOutsideBothRegistriesAndNullPointersAreRefused) {
    _QVCAP_CHANNEL_INFO info{};
    unsigned char family[17];
    for (const int index : {-1, 3, 64, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetChannelInfoByIndex(index, &info)) << index;
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetFamilyInfoByIndex(index, family)) << index;
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetDevicePath(index, path)) << index;
    }
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetChannelInfoByIndex(2, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetFamilyInfoByIndex(2, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetDevicePath(2, nullptr));
}

TEST_F(MediaTest, APathThatOnlyTheUsbRegistryKnowsOpensAUsbChannel) {
    const Channel channel = Open(kUsbPath);
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_EQ(QV_RESULT_OK, QVGetChannelInfo(channel.get(), &info));
    EXPECT_STREQ("Tavo Capture HDMI", info.productName);
    EXPECT_EQ(1, tavo.handlesOpen);
}

TEST_F(MediaTest, APathThatNobodyKnowsOpensNothing) {
    EXPECT_EQ(nullptr, QVOpenChannelByPath("usb:9-9"));
    EXPECT_EQ(nullptr, QVOpenChannelByPath(nullptr));
    EXPECT_EQ(0, tavo.handlesOpen);
}

TEST_F(MediaTest, OperationsThatOnlyPcieChannelsHaveFailOnAUsbChannel) {
    const Channel channel = Open(kUsbPath);
    unsigned temperature = 0;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetTemperature(channel.get(), &temperature));
    EXPECT_EQ(QV_RESULT_FAILED, QVSetPostReconfig(channel.get(), 200));
    EXPECT_EQ(0u, QVRegisterTimer(channel.get(), 5));
}

// ---- device path

TEST_F(MediaTest, AUsbChannelReadsFirmwareOnlyWithAPlaceForTheCount) {
    const Channel channel = Open(kUsbPath);
    unsigned char data[4] = {1, 2, 3, 4};
    EXPECT_EQ(3, QVReadFirmwareData(channel.get(), 0, data, sizeof data, nullptr));
    EXPECT_EQ(1, data[0]);
    EXPECT_TRUE(tavo.Calls().empty());
}

TEST_F(MediaTest, NullPointersAreRefusedBeforeAClosedUsbChannelIs) {
    CQVUSBCaptureBase closed;
    const QV_CHANNEL channel = static_cast<IQVCaptureDevice*>(&closed);
    unsigned char data[4];
    unsigned long size = sizeof data;
    unsigned int read = 0;
    EXPECT_EQ(3, QVGetEDID(channel, nullptr, &size));
    EXPECT_EQ(3, QVGetEDID(channel, data, nullptr));
    EXPECT_EQ(3, QVGetFirmwareStorageInfo(channel, nullptr));
    EXPECT_EQ(3, QVReadFirmwareData(channel, 0, nullptr, 4, &read));
    EXPECT_EQ(3, QVReadFirmwareData(channel, 0, data, 4, nullptr));
    EXPECT_EQ(3, QVWriteFirmwareData(channel, 0, nullptr, 4));
    EXPECT_EQ(1, QVWriteFirmwareData(channel, 0, data, 4)) << "closed";
    EXPECT_TRUE(tavo.Calls().empty());
}

TEST_F(MediaTest, TheEndOfTheInstanceEmptiesTheListOfBothKinds) {
    EXPECT_EQ(3, QVGetChannelCount());
    QVCaptureExitInstance();
    EXPECT_EQ(0, QVGetChannelCount());
    EXPECT_EQ(3, QVGetDevicePath(0, path));
    EXPECT_STREQ("before", path);
}

TEST_F(MediaTest, ThePathOfAPcieChannelIsTheOneItWasOpenedBy) {
    for (const char* opened : {"/dev/video0", "/dev/video1"}) {
        const Channel channel = Open(opened);
        EXPECT_EQ(QV_RESULT_OK, GetDevicePathByChannel(channel.get(), path));
        EXPECT_STREQ(opened, path);
    }
}

TEST_F(MediaTest, AChannelOpenedByItsNumbersHasNoPath) {
    const Channel channel(QVOpenChannel(0, 1));
    ASSERT_NE(nullptr, channel);
    EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(channel.get(), path));
    EXPECT_STREQ("", path);
}

TEST_F(MediaTest, ThePathOfAUsbChannelIsTheNodeOfItsSerialNumber) {
    const Channel channel = Open(kUsbPath);
    EXPECT_EQ(QV_RESULT_OK, GetDevicePathByChannel(channel.get(), path));
    EXPECT_STREQ("/dev/video4", path);
}

TEST_F(MediaTest, ChannelsOfOtherFamiliesOrOfTheOtherKindHaveNoPath) {
    nodes.AddChannel(2, PcieInfo("Pelix Capture 2", 2));
    nodes.AddChannel(3, PcieInfo("Tavo Capture", 3));
    QVRefreshDevice();
    for (const char* opened : {"/dev/video2", "/dev/video3"}) {
        const Channel channel = Open(opened);
        EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(channel.get(), path)) << opened;
        EXPECT_STREQ("", path);
    }
    const Channel usb = Open(kUsbPath);
    RenameUsbFamily("Pelix Capture");
    EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(usb.get(), path));
    RenameUsbFamily(std::string(64, 'T').c_str());
    EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(usb.get(), path)) << "unterminated";
    tavo.Refuse("get", -1);
    RenameUsbFamily("Tavo Capture");
    EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(usb.get(), path)) << "no information";
}

TEST_F(MediaTest, NullChannelOrPathFails) {
    EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(nullptr, path));
    EXPECT_STREQ("", path);
    const Channel channel = Open("/dev/video0");
    EXPECT_EQ(QV_RESULT_FAILED, GetDevicePathByChannel(channel.get(), nullptr));
}

// ---- video

TEST_F(MediaTest, AVideoCaptureOfAUsbChannelDeliversFrames) {
    const Channel channel = Open(kUsbPath);
    QV_VIDEO_CAPTURE capture =
        QVCreateVideoCapture(channel.get(), 1280, 720, kYuy2, 333333, OnFrame, nullptr);
    ASSERT_NE(nullptr, capture);
    EXPECT_EQ(kYuyv, nodes.setFormat.fmt.pix.pixelformat);
    EXPECT_EQ(1280u, nodes.setFormat.fmt.pix.width);
    EXPECT_EQ(333333u, nodes.setParm.parm.capture.timeperframe.numerator);
    EXPECT_EQ(10000000u, nodes.setParm.parm.capture.timeperframe.denominator);
    nodes.Deliver(0, 100);
    EXPECT_TRUE(Eventually([] { return g_frames == 1; }));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
}

TEST_F(MediaTest, AVideoCaptureThatWouldNotStartIsHandedOutAndDestroyed) {
    const Channel channel = Open(kUsbPath);
    nodes.Refuse("STREAMON", EIO);
    QV_VIDEO_CAPTURE capture =
        QVCreateVideoCapture(channel.get(), 64, 64, kYuy2, 333333, OnFrame, nullptr);
    ASSERT_NE(nullptr, capture);
    EXPECT_EQ(0, nodes.Mappings());
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
}

TEST_F(MediaTest, WithoutNodeOrWhenItCannotBeOpenedThereIsNoVideoCapture) {
    EXPECT_EQ(nullptr, QVCreateVideoCapture(nullptr, 64, 64, kYuy2, 1, OnFrame, nullptr));
    const Channel numbered(QVOpenChannel(0, 0));
    EXPECT_EQ(nullptr, QVCreateVideoCapture(numbered.get(), 64, 64, kYuy2, 1, OnFrame, nullptr));
    const Channel pcie = Open("/dev/video0");
    EXPECT_EQ(nullptr, QVCreateVideoCapture(pcie.get(), 64, 64, kYuy2, 1, OnFrame, nullptr))
        << "not a V4L2 node";
    const Channel usb = Open(kUsbPath);
    nodes.Refuse("S_FMT", EBUSY);
    EXPECT_EQ(nullptr, QVCreateVideoCapture(usb.get(), 64, 64, kYuy2, 1, OnFrame, nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryVideoCapture(nullptr));
}

TEST_F(MediaTest, VideoQueriesAnswerOverTheChannelsNode) {
    const Channel channel = Open(kUsbPath);
    v4l2_frmsizeenum size{};
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size.discrete = {640, 480};
    nodes.device.sizes = {size, size};
    unsigned fourcc = 0;
    int count = 1, mode = -1, total = -1;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureSupportColorFormat(channel.get(), &fourcc, &count));
    EXPECT_EQ(kYuyv, fourcc);
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureSupportResolutionMode(channel.get(), &mode));
    EXPECT_EQ(QV_RESOLUTION_MODE_LIST, mode);
    _QVCAP_VIDEO_RESOLUTION sizes[1] = {};
    _QVCAP_VIDEO_RESOLUTION_LIST list{1, sizes};
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureSupportListResolution(channel.get(), &list, &total));
    EXPECT_EQ(1u, list.count);
    EXPECT_EQ(2, total);
    EXPECT_EQ(640u, sizes[0].width);
    nodes.device.sizes[0].type = V4L2_FRMSIZE_TYPE_STEPWISE;
    nodes.device.sizes[0].stepwise.max_width = 4096;
    _QVCAP_VIDEO_RESOLUTION_RANGE range{};
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaptureSupportRangeResolution(channel.get(), &range));
    EXPECT_EQ(4096u, range.maxWidth);
}

TEST_F(MediaTest, VideoQueriesTellABadArgumentFromAFailure) {
    int count = 0, mode = 0;
    _QVCAP_VIDEO_RESOLUTION_LIST list{};
    _QVCAP_VIDEO_RESOLUTION_RANGE range{};
    EXPECT_EQ(3, QVGetVideoCaptureSupportColorFormat(nullptr, nullptr, &count));
    EXPECT_EQ(3, QVGetVideoCaptureSupportListResolution(nullptr, &list, nullptr));
    EXPECT_EQ(3, QVGetVideoCaptureSupportRangeResolution(nullptr, &range));
    EXPECT_EQ(3, QVGetVideoCaptureSupportResolutionMode(nullptr, &mode));
    const Channel channel = Open(kUsbPath);
    EXPECT_EQ(3, QVGetVideoCaptureSupportListResolution(channel.get(), nullptr, &count));
    EXPECT_EQ(3, QVGetVideoCaptureSupportRangeResolution(channel.get(), nullptr));
    EXPECT_EQ(3, QVGetVideoCaptureSupportResolutionMode(channel.get(), nullptr));
    EXPECT_EQ(1, QVGetVideoCaptureSupportColorFormat(channel.get(), nullptr, nullptr));
    EXPECT_EQ(1, QVGetVideoCaptureSupportListResolution(channel.get(), &list, nullptr));
    EXPECT_EQ(1, QVGetVideoCaptureSupportRangeResolution(channel.get(), &range));
    EXPECT_EQ(1, QVGetVideoCaptureSupportResolutionMode(channel.get(), &mode));
    nodes.device.formats.clear();
    EXPECT_EQ(1, QVGetVideoCaptureSupportColorFormat(channel.get(), nullptr, &count));
}

TEST_F(MediaTest, PictureControlsAreThoseOfTheCapturesNode) {
    v4l2_queryctrl brightness{};
    brightness.id = V4L2_CID_BRIGHTNESS;
    brightness.minimum = -10;
    brightness.maximum = 10;
    brightness.default_value = 1;
    nodes.device.controls[brightness.id] = brightness;
    const Channel channel = Open(kUsbPath);
    QV_VIDEO_CAPTURE capture =
        QVCreateVideoCapture(channel.get(), 64, 64, kYuy2, 333333, OnFrame, nullptr);
    int value = 0, minimum = 0, maximum = 0, defaultValue = 0;
    EXPECT_EQ(0, QVSetVideoProcParam(capture, QV_VIDEO_PROC_BRIGHTNESS, 5));
    EXPECT_EQ(0, QVGetVideoProcParam(capture, QV_VIDEO_PROC_BRIGHTNESS, &value));
    EXPECT_EQ(5, value);
    EXPECT_EQ(0, QVGetVideoProcParamRange(capture, QV_VIDEO_PROC_BRIGHTNESS, &minimum, &maximum,
                                          &defaultValue));
    EXPECT_EQ(-10, minimum);
    EXPECT_EQ(10, maximum);
    EXPECT_EQ(1, defaultValue);
    EXPECT_EQ(1, QVSetVideoProcParam(capture, QV_VIDEO_PROC_HUE, 5));
    EXPECT_EQ(1, QVGetVideoProcParam(nullptr, QV_VIDEO_PROC_BRIGHTNESS, &value));
    EXPECT_EQ(1, QVSetVideoProcParam(nullptr, QV_VIDEO_PROC_BRIGHTNESS, 5));
    EXPECT_EQ(1, QVGetVideoProcParamRange(nullptr, 0, nullptr, nullptr, nullptr));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryVideoCapture(capture));
}

// ---- audio

TEST_F(MediaTest, AnAudioCaptureOfAPcieChannelReadsItsCardsDeviceZeroIn10MsChunks) {
    const Channel channel = Open("/dev/video0");
    alsa.available = {480};
    QV_AUDIO_CAPTURE capture =
        QVCreateAudioCapture(channel.get(), 3, 48000, 16, 2, OnChunk, nullptr);
    ASSERT_NE(nullptr, capture);
    EXPECT_EQ("snd_pcm_open(hw:0,0, capture, 0)", alsa.CallsOf("snd_pcm_open").at(0));
    EXPECT_TRUE(Eventually([] { return g_bytes == 1920; }));
    EXPECT_EQ(QV_RESULT_OK, QVDestoryAudioCapture(capture));
}

TEST_F(MediaTest, TheNodeOfAUsbChannelChoosesThePcmDevice) {
    const Channel channel = Open(kUsbPath);
    const std::pair<unsigned, const char*> rows[] = {
        {0, "hw:1,0"}, {1, "hw:1,0"},                          // HDMI
        {2, "hw:1,1"},                                         // microphone
        {3, "hw:1,2"},                                         // computer
        {5, "hw:1,0"}, {7, "hw:1,0"}, {0xFFFFFFFF, "hw:1,0"},  // as 0
    };
    for (const auto& [node, pcm] : rows) {
        SCOPED_TRACE(node);
        QV_AUDIO_CAPTURE capture =
            QVCreateAudioCapture(channel.get(), node, 48000, 16, 2, OnChunk, nullptr);
        ASSERT_NE(nullptr, capture);
        EXPECT_EQ("snd_pcm_open(" + std::string(pcm) + ", capture, 0)",
                  alsa.CallsOf("snd_pcm_open").back());
        QVDestoryAudioCapture(capture);
    }
    EXPECT_EQ(nullptr, QVCreateAudioCapture(channel.get(), 4, 48000, 16, 2, OnChunk, nullptr))
        << "this model has no line in";
}

TEST_F(MediaTest, AnAudioCaptureThatCannotStartLeavesNothingBehind) {
    const Channel channel = Open(kUsbPath);
    for (const char* refused : {"snd_pcm_open", "snd_pcm_hw_params", "snd_pcm_start"}) {
        alsa.Refuse(refused, -EBUSY);
        EXPECT_EQ(nullptr, QVCreateAudioCapture(channel.get(), 0, 48000, 16, 2, OnChunk, nullptr))
            << refused;
        EXPECT_EQ(0, alsa.pcmsOpen) << refused;
    }
    EXPECT_EQ(nullptr, QVCreateAudioCapture(channel.get(), 0, 0, 16, 2, OnChunk, nullptr));
    EXPECT_EQ(nullptr, QVCreateAudioCapture(channel.get(), 0, 0xFFFFFFFF, 16, 2, OnChunk, nullptr));
}

TEST_F(MediaTest, WithoutChannelFamilyOrCardThereIsNoAudioCapture) {
    EXPECT_EQ(nullptr, QVCreateAudioCapture(nullptr, 0, 48000, 16, 2, OnChunk, nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, QVDestoryAudioCapture(nullptr));
    const Channel second = Open("/dev/video1");
    EXPECT_EQ(nullptr, QVCreateAudioCapture(second.get(), 0, 48000, 16, 2, OnChunk, nullptr))
        << "one card for two channels";
    const Channel numbered(QVOpenChannel(0, 0));
    EXPECT_EQ(nullptr, QVCreateAudioCapture(numbered.get(), 0, 48000, 16, 2, OnChunk, nullptr));
    const Channel usb = Open(kUsbPath);
    RenameUsbFamily("Tavo");
    EXPECT_EQ(nullptr, QVCreateAudioCapture(usb.get(), 0, 48000, 16, 2, OnChunk, nullptr));
    EXPECT_EQ(0, alsa.Count("snd_pcm_open"));
}

TEST_F(MediaTest, VolumesOfAPcieChannelAreThoseOfItsCardWhateverTheNode) {
    const Channel channel = Open("/dev/video0");
    _QVCAP_AUDIO_VOLUME volume{};
    volume.volume[0] = 50;
    volume.mute[0] = 1;
    EXPECT_EQ(QV_RESULT_OK, QVSetAudioVolume(channel.get(), 99, &volume));
    EXPECT_EQ(25, alsa.cards[0].elements[0].volume[0]);
    volume = {};
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioVolume(channel.get(), 99, &volume));
    EXPECT_EQ(2, volume.channelCount);
    EXPECT_EQ(50, volume.volume[0]);
    EXPECT_EQ(1, volume.mute[0]);
    alsa.Refuse("snd_mixer_load", -EIO);
    EXPECT_EQ(QV_RESULT_FAILED, QVGetAudioVolume(channel.get(), 0, &volume));
    alsa.Refuse("snd_mixer_load", -EIO);
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(channel.get(), 0, &volume));
}

TEST_F(MediaTest, VolumesOfAUsbChannelAreSetOnItsCardAndReadFromTheDevice) {
    const Channel channel = Open(kUsbPath);
    _QVCAP_AUDIO_VOLUME volume{};
    volume.channelCount = 1;
    volume.volume[0] = -300;
    EXPECT_EQ(QV_RESULT_OK, QVSetAudioVolume(channel.get(), 0, &volume));
    EXPECT_THAT(alsa.Calls(), Contains("snd_mixer_selem_set_capture_dB(0, -300, 1)"));
    EXPECT_THAT(tavo.Calls(), Not(Contains("get(0xB0, 56)")));
    tavo.values[0xB7] = {3, 0, 1};
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioVolume(channel.get(), 7, &volume));
    EXPECT_EQ(3, volume.channelCount);
    EXPECT_EQ("get(0xB7, 56)", tavo.Calls().back());
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(channel.get(), 2, &volume)) << "no such node";
}

TEST_F(MediaTest, VolumesWithoutChannelRecordOrFamilyFail) {
    _QVCAP_AUDIO_VOLUME volume{};
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(nullptr, 0, &volume));
    EXPECT_EQ(QV_RESULT_FAILED, QVGetAudioVolume(nullptr, 0, &volume));
    const Channel usb = Open(kUsbPath);
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(usb.get(), 0, nullptr));
    EXPECT_EQ(QV_RESULT_FAILED, QVGetAudioVolume(usb.get(), 0, nullptr));
    RenameUsbFamily("Lumo Capture");
    EXPECT_EQ(QV_RESULT_FAILED, QVSetAudioVolume(usb.get(), 0, &volume));
    EXPECT_EQ(QV_RESULT_FAILED, QVGetAudioVolume(usb.get(), 0, &volume));
}

}  // namespace
