// USB channels over the placeholder transport: no device is found and every command fails.
#include <gtest/gtest.h>

#include "QVUSBCaptureBase.h"

namespace {

TEST(UsbPlaceholderTest, NothingIsFoundAndNothingOpens) {
    char path[512] = "untouched";
    EXPECT_EQ(QV_RESULT_FAILED, CQVUSBCaptureControlBase::Init());
    EXPECT_EQ(QV_RESULT_FAILED, CQVUSBCaptureControlBase::EnumDevice());
    EXPECT_EQ(0, CQVUSBCaptureControlBase::GetChannelCount());
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, CQVUSBCaptureControlBase::GetDevicePath(0, path));
    EXPECT_STREQ("untouched", path);
    CQVUSBCaptureBase channel;
    EXPECT_FALSE(channel.OpenChannelByPath("usb:1-1"));
}

TEST(UsbPlaceholderTest, TransfersFailWithoutTouchingTheirArguments) {
    unsigned char data[4] = {1, 2, 3, 4};
    EXPECT_EQ(-1, QVUSBGetData(nullptr, 1, data, 4));
    EXPECT_EQ(-1, QVUSBSetData(nullptr, 1, data, 4));
    EXPECT_EQ(0x04030201u, *reinterpret_cast<uint32_t*>(data));
    EXPECT_EQ(-1, QVUSBFindDevices(nullptr, 0));
    EXPECT_EQ(nullptr, QVUSBOpenDevice("usb:1-1"));
}

TEST(UsbPlaceholderTest, CommandsOfAChannelThatNeverOpenedFail) {
    CQVUSBCaptureBase channel;
    _QVCAP_CHANNEL_INFO info{};
    _QVCAP_AUDIO_VOLUME volume{};
    volume.channelCount = 1;
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetChannelInfo(&info));
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetLEDMode(1));
    EXPECT_EQ(QV_RESULT_FAILED, channel.EraseFirmwareData(0, 1));
    EXPECT_EQ(QV_RESULT_FAILED, channel.SetAudioVolume(0, &volume));
    EXPECT_EQ(QV_RESULT_FAILED, channel.SaveOptions());
    channel.CloseChannel();
}

}  // namespace
