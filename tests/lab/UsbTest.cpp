// The whole of the interface on one device of the kernel's: controlled over libusb by the example
// transport, its sound and its pictures by the kernel's drivers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "QVCapture.h"
#include "lab/Companion.h"
#include "lab/LabFrames.h"
#include "usb_transport.h"

namespace {

constexpr char kSerial[] = "TV0012345";
constexpr char kOther[] = "TV0000004";
constexpr unsigned kYuy2 = 'Y' | 'U' << 8 | 'Y' << 16 | '2' << 24;

class LabUsbTest : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove_all("/tmp/lab-usb");
        std::filesystem::create_directories("/tmp/lab-usb");
        devices = std::make_unique<lab::Companion>(std::vector<std::string>{
            "qvcap-sim", "usb", "--scenario", "/t/control.toml", "--state", "/tmp/lab-usb"});
        ASSERT_EQ("ready", devices->Await("ready"));
        ASSERT_EQ(QV_RESULT_OK, QVSetUSBTransport(&usb_transport, nullptr));
        ASSERT_TRUE(QVCaptureInitInstance());
        channel = Open(kSerial);
        ASSERT_NE(nullptr, channel);
    }
    void TearDown() override {
        QVCloseChannel(channel);
        QVCaptureExitInstance();
        EXPECT_EQ(QV_RESULT_OK, QVSetUSBTransport(nullptr, nullptr));
        devices.reset();
    }
    // The channel of the list with this serial number.
    static QV_CHANNEL Open(const std::string& serial) {
        for (int i = 0; i < QVGetChannelCount(); ++i) {
            _QVCAP_CHANNEL_INFO info{};
            char path[512];
            if (QVGetChannelInfoByIndex(i, &info) != QV_RESULT_OK) continue;
            if (std::string(info.boardSerialNumber, strnlen(info.boardSerialNumber, 16)) != serial)
                continue;
            EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(i, path));
            EXPECT_TRUE(std::filesystem::exists(path)) << path;
            return QVOpenChannelByPath(path);
        }
        return nullptr;
    }
    void Order(const std::string& order, const std::string& answer) {
        devices->Tell(order);
        EXPECT_NE("", devices->Await(answer));
    }

    std::unique_ptr<lab::Companion> devices;
    QV_CHANNEL channel = nullptr;
};

TEST_F(LabUsbTest, SettingsOfTheDeviceAreKept) {
    unsigned int source = 0;
    EXPECT_EQ(QV_RESULT_OK, QVSetVideoInputSource(channel, 0x0102));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSource(channel, &source));
    EXPECT_EQ(0x0102u, source);
    unsigned char edid[256], back[256] = {};
    for (size_t i = 0; i < sizeof edid; ++i) edid[i] = static_cast<unsigned char>(255 - i);
    unsigned long size = sizeof back;
    EXPECT_EQ(QV_RESULT_OK, QVSetEDID(channel, edid, sizeof edid));
    EXPECT_EQ(QV_RESULT_OK, QVGetEDID(channel, back, &size));
    EXPECT_EQ(0, memcmp(edid, back, sizeof edid));
    _QVCAP_VIDEO_SIGNAL_STATUS status;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoSignalStatus(channel, &status));
}

TEST_F(LabUsbTest, FirmwareIsWrittenAndReadBack) {
    std::vector<unsigned char> data(8192), back(8192);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 3 + i / 256);
    unsigned int read = 0;
    EXPECT_EQ(QV_RESULT_OK, QVEraseFirmwareData(channel, 0x8000, 8192));
    EXPECT_EQ(QV_RESULT_OK, QVWriteFirmwareData(channel, 0x8000, data.data(), 8192));
    EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0x8000, back.data(), 8192, &read));
    EXPECT_EQ(8192u, read);
    EXPECT_EQ(data, back);
    EXPECT_EQ(QV_RESULT_FAILED, QVEraseFirmwareData(channel, 0x100000, 4096)) << "behind its end";
}

TEST_F(LabUsbTest, ADeviceThatIsOpenDoesNotOpenInAnotherProcess) {
    const std::string list = lab::Output("list_usb");
    EXPECT_NE(std::string::npos, list.find("serial TV0012345, firmware 0.9, in use")) << list;
    EXPECT_NE(std::string::npos, list.find("serial TV0000004, firmware 1.0, video input")) << list;
    char path[512];
    EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(0, path));
    const QV_CHANNEL second = QVOpenChannelByPath(path);
    EXPECT_NE(nullptr, second) << "but twice in the same";
    QVCloseChannel(second);
}

std::atomic<int> g_chunks;
std::atomic<int> g_bytes;
void OnChunk(const unsigned char*, int bytes, long long, void*) {
    ++g_chunks;
    g_bytes = bytes;
}

TEST_F(LabUsbTest, ItIsACameraASoundCardAndAControlledDeviceAtOnce) {
    lab::Frames frames;
    g_chunks = 0;
    const QV_VIDEO_CAPTURE video =
        QVCreateVideoCapture(channel, 640, 360, kYuy2, 333333, lab::Frames::OnFrame, &frames);
    ASSERT_NE(nullptr, video);
    const QV_AUDIO_CAPTURE audio = QVCreateAudioCapture(channel, 0, 48000, 16, 2, OnChunk, nullptr);
    EXPECT_NE(nullptr, audio) << "its bus is the one that the sound card says";
    _QVCAP_AUDIO_VOLUME volume{};
    volume.channelCount = 2;
    volume.volume[0] = volume.volume[1] = -1500;
    EXPECT_EQ(QV_RESULT_OK, QVSetAudioVolume(channel, 4, &volume));
    unsigned char data[640];
    unsigned int read = 0;
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0x1000, data, sizeof data, &read));
    EXPECT_TRUE(frames.AwaitMore(5));
    for (const unsigned length : frames.Lengths()) EXPECT_EQ(640u * 360 * 2, length);
    for (int tries = 0; tries < 600 && g_chunks < 5; ++tries) usleep(100000);
    EXPECT_GE(g_chunks, 5);
    EXPECT_EQ(1920, g_bytes);
    QVDestoryVideoCapture(video);
    if (audio != nullptr) QVDestoryAudioCapture(audio);
}

TEST_F(LabUsbTest, WhatWasPulledOutIsGoneForItsChannelAndComesBackToTheList) {
    unsigned int source = 0;
    Order("unplug TV0012345", "unplugged TV0012345");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputSource(channel, &source));
    unsigned char data[64];
    unsigned int read = 0;
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0x1000, data, sizeof data, &read));
    QVRefreshDevice();
    EXPECT_EQ(1, QVGetChannelCount());
    const QV_CHANNEL other = Open(kOther);
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSource(other, &source)) << "the other one works";
    QVCloseChannel(other);
    Order("plug TV0012345", "plugged TV0012345");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputSource(channel, &source)) << "gone for ever";
    QVRefreshDevice();
    EXPECT_EQ(2, QVGetChannelCount());
    QVCloseChannel(channel);
    channel = Open(kSerial);
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSource(channel, &source));
}

}  // namespace
