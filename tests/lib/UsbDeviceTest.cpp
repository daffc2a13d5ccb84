// USB devices end to end in one process: the public functions, the transport that the simulation
// supplies, and the devices behind it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "ProcessTransport.h"
#include "QVCapture.h"
#include "support/Recorder.h"
#include "support/SimRig.h"

using qvsim::Fault;
using qvsim::FaultKind;
using qvsim::UsbPlan;
using qvsim::usb::ProcessTransport;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

namespace {

constexpr char kPath[] = "usb:TV1";

UsbPlan Plan(const std::string& serial) {
    UsbPlan plan;
    plan.product = "Tavo Capture HDMI";
    plan.serial = serial;
    plan.productCode = 0x2101;
    plan.control.emplace();
    plan.control->busyPolls = 2;
    return plan;
}

class UsbDeviceTest : public testing::Test {
  protected:
    UsbDeviceTest() { rig.AttachInMemory(); }
    ~UsbDeviceTest() override {
        if (channel != nullptr) QVCloseChannel(channel);
        QVCaptureExitInstance();
        EXPECT_EQ(0, usb.Opened());
        EXPECT_EQ(0, usb.Started());
        EXPECT_EQ(QV_RESULT_OK, QVSetUSBTransport(nullptr, nullptr));
    }
    // Two devices, the first of which has these faults.
    void Begin(const std::vector<Fault>& faults = {}) {
        UsbPlan first = Plan("TV1");
        first.control->faults = faults;
        ASSERT_EQ("", usb.Fill({first, Plan("TV2")}, ""));
        ASSERT_EQ(QV_RESULT_OK, QVSetUSBTransport(&ProcessTransport::Table(), &usb));
        QVCaptureInitInstance();
        channel = QVOpenChannelByPath(kPath);
        if (faults.empty()) {
            ASSERT_NE(nullptr, channel);
        }
        begun = Device().Transfers().size();
    }
    qvsim::usb::ControlModel& Device() { return *usb.Device("TV1"); }
    // What the device was asked since it was opened.
    Lines Transfers() {
        const Lines& all = Device().Transfers();
        return Lines(all.begin() + static_cast<ptrdiff_t>(begun), all.end());
    }
    std::vector<unsigned char> Flash(uint32_t address, uint32_t size) {
        std::vector<unsigned char> bytes(size);
        EXPECT_TRUE(Device().Flash().Read(address, bytes.data(), size));
        return bytes;
    }
    static Fault At(const std::string& transfer, int nth, FaultKind kind, uint32_t value = 0) {
        return {.request = transfer, .nth = nth, .effect = {kind, value}};
    }

    qvsim::SimRig rig;
    ProcessTransport usb;
    QV_CHANNEL channel = nullptr;
    size_t begun = 0;
    unsigned char data[8192] = {};
    unsigned int read = 77;
};

// ---- what a program does with it

TEST_F(UsbDeviceTest, DevicesAreListedWithTheirIdentityAndOpened) {
    Begin();
    ASSERT_EQ(2, QVGetChannelCount());
    char path[512];
    EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(1, path));
    EXPECT_STREQ("usb:TV2", path);
    _QVCAP_CHANNEL_INFO info{};
    EXPECT_EQ(QV_RESULT_OK, QVGetChannelInfo(channel, &info));
    EXPECT_STREQ("Tavo Capture", info.familyName);
    EXPECT_STREQ("Tavo Capture HDMI", info.productName);
    EXPECT_STREQ("TV1", info.boardSerialNumber);
    EXPECT_EQ(0x2101, info.productCode);
    EXPECT_EQ(0x00010000u, info.firmwareVersion);
    EXPECT_EQ(QV_RESULT_FAILED, QVSetPostReconfig(channel, 200)) << "PCIe channels only";
}

TEST_F(UsbDeviceTest, SettingsAreKept) {
    Begin();
    unsigned int source = 0;
    EXPECT_EQ(QV_RESULT_OK, QVSetVideoInputSource(channel, 0x01020304));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSource(channel, &source));
    EXPECT_EQ(0x01020304u, source);
    int x = 0, y = 0;
    EXPECT_EQ(QV_RESULT_OK, QVSetVideoInputAspectRatio(channel, -16, 9));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputAspectRatio(channel, &x, &y));
    EXPECT_EQ(-16, x);
    EXPECT_EQ(9, y);
    unsigned char edid[256], back[256];
    for (size_t i = 0; i < sizeof edid; ++i) edid[i] = static_cast<unsigned char>(i);
    unsigned long size = sizeof back;
    EXPECT_EQ(QV_RESULT_OK, QVSetEDID(channel, edid, sizeof edid));
    EXPECT_EQ(QV_RESULT_OK, QVGetEDID(channel, back, &size));
    EXPECT_EQ(0, memcmp(edid, back, sizeof edid));
    EXPECT_EQ(QV_RESULT_OK, QVSetLEDMode(channel, 2));
    EXPECT_THAT(Transfers(), ElementsAre("set 0x0E", "get 0x0E", "set 0x13", "get 0x13", "set 0x98",
                                         "get 0x98", "set 0x05"));
}

TEST_F(UsbDeviceTest, EveryPublicGetIsOfASizeThatTheDeviceKnows) {
    Begin();
    unsigned char bytes[512];
    unsigned int word = 0, count = 16;
    unsigned int sources[16];
    char letter = 0;
    EXPECT_EQ(QV_RESULT_OK, QVGetFamilyInfo(channel, bytes, 10));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoCaps(channel, reinterpret_cast<_QVCAP_VIDEO_CAPS*>(bytes)));
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioCaps(channel, reinterpret_cast<_QVCAP_AUDIO_CAPS*>(bytes)));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSourceArray(channel, sources, &count));
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioInputSourceArray(channel, nullptr, &count));
    EXPECT_EQ(QV_RESULT_OK, QVGetInputSourceScan(channel, &letter));
    EXPECT_EQ(QV_RESULT_OK, QVGetAVInputSourceLink(channel, &letter));
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioInputSource(channel, &word));
    EXPECT_EQ(QV_RESULT_OK, QVGetInputSpecificStatus(
                                channel, reinterpret_cast<_QVCAP_INPUT_SPECIFIC_STATUS*>(bytes)));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoSignalStatus(
                                channel, reinterpret_cast<_QVCAP_VIDEO_SIGNAL_STATUS*>(bytes)));
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioSignalStatus(
                                channel, reinterpret_cast<_QVCAP_AUDIO_SIGNAL_STATUS*>(bytes)));
    EXPECT_EQ(QV_RESULT_OK, QVGetHDMIInfoFrameValidFlag(channel, &word));
    EXPECT_EQ(QV_RESULT_OK, QVGetHDMIInfoFramePacket(
                                channel, 11, reinterpret_cast<_HDMI_INFOFRAME_PACKET*>(bytes)));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputColorFormat(channel, &word));
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputQuantizationRange(channel, &word));
    _QVCAP_AUDIO_VOLUME volume;
    EXPECT_EQ(QV_RESULT_OK, QVGetAudioVolume(channel, 7, &volume));
}

// ---- firmware

TEST_F(UsbDeviceTest, FirmwareIsErasedWrittenAndReadBackInTheDevicesPackets) {
    Begin();
    for (size_t i = 0; i < 5000; ++i) data[i] = static_cast<unsigned char>(i % 251);
    EXPECT_EQ(QV_RESULT_OK, QVEraseFirmwareData(channel, 0x4000, 8192));
    EXPECT_EQ(QV_RESULT_OK, QVWriteFirmwareData(channel, 0x4000, data, 5000));
    EXPECT_THAT(Transfers(), ElementsAre("erase 0x4000+8192", "poll", "poll", "poll",  //
                                         "write 0x4000+2048", "poll", "poll", "poll",  //
                                         "write 0x4800+2048", "poll", "poll", "poll",  //
                                         "write 0x5000+904", "poll", "poll", "poll"));
    begun = Device().Transfers().size();
    unsigned char back[5000];
    EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0x4000, back, 5000, &read));
    EXPECT_EQ(5000u, read);
    EXPECT_EQ(0, memcmp(data, back, 5000));
    const Lines reads = Transfers();
    ASSERT_EQ(2u * 79, reads.size());
    EXPECT_EQ("address 0x4000", reads[0]);
    EXPECT_EQ("read 0x4000+64", reads[1]);
    EXPECT_EQ("address 0x5380", reads[156]);
    EXPECT_EQ("read 0x5380+8", reads[157]);
    EXPECT_EQ(std::vector<unsigned char>(8192 - 5000, 0xFF), Flash(0x4000 + 5000, 8192 - 5000));
}

TEST_F(UsbDeviceTest, ADevicePulledOutBetweenTheTwoTransfersOfAReadIsNotWrittenTo) {
    Begin({At("read", 2, FaultKind::kNodeGone)});
    const std::vector<unsigned char> before = Flash(0, 1 << 20);
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0x1000, data, 157, &read));
    EXPECT_EQ(77u, read);
    usb.Unplug("TV1");
    usb.Plug("TV1");
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0x1000, data, 157, &read))
        << "what was opened before has gone for ever";
    EXPECT_EQ(before, Flash(0, 1 << 20));
    QVCloseChannel(channel);
    channel = QVOpenChannelByPath(kPath);
    ASSERT_NE(nullptr, channel);
    EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0x1000, data, 157, &read));
}

TEST_F(UsbDeviceTest, AReadStopsAtAnAddressThatWasRefused) {
    Begin({At("address", 2, FaultKind::kRefuse)});
    const std::vector<unsigned char> before = Flash(0, 1 << 20);
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0x1000, data, 157, &read));
    EXPECT_THAT(Transfers(), ElementsAre("address 0x1000", "read 0x1000+64", "address 0x1040"));
    EXPECT_EQ(before, Flash(0, 1 << 20));
}

// Why a transport must not say of an address that it arrived when it may not have.
TEST_F(UsbDeviceTest, AnAddressThatIsLostWithoutAWordTurnsTheReadIntoAWriteOfZeros) {
    Begin({At("address", 1, FaultKind::kPretend)});
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0x1000, data, 8, &read))
        << "the device has no answer to a write";
    EXPECT_THAT(Transfers(), ElementsAre("address 0x1000", "write 0x1000+8"));
    EXPECT_EQ(std::vector<unsigned char>(8, 0), Flash(0x1000, 8));
}

TEST_F(UsbDeviceTest, ABusyDeviceIsAskedUntilItIsDoneBeforeTheNextPacket) {
    Begin({At("write", 2, FaultKind::kRefuseLate)});
    EXPECT_EQ(QV_RESULT_OK, QVEraseFirmwareData(channel, 0x4000, 4096));
    EXPECT_EQ(QV_RESULT_FAILED, QVWriteFirmwareData(channel, 0x4000, data, 4096));
    EXPECT_EQ(QV_RESULT_FAILED, QVWriteFirmwareData(channel, 0x4000, data, 16))
        << "busy with what it said that it had refused";
}

TEST_F(UsbDeviceTest, AShortAnswerIsAFailure) {
    Begin({At("0x0E", 1, FaultKind::kShortRead, 3), At("read", 1, FaultKind::kShortRead, 100)});
    unsigned int source = 5;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputSource(channel, &source));
    EXPECT_EQ(5u, source);
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0x1000, data, 157, &read));
    EXPECT_EQ(77u, read);
    EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0x1000, data, 157, &read));
}

// ---- coming and going

TEST_F(UsbDeviceTest, ADeviceThatDoesNotAnswerIsNotListedAndDoesNotHideTheOthers) {
    Begin({At("0x01", 1, FaultKind::kRefuse)});
    ASSERT_EQ(1, QVGetChannelCount());
    char path[512];
    EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(0, path));
    EXPECT_STREQ("usb:TV2", path);
    EXPECT_EQ(nullptr, channel);
    QVRefreshDevice();
    EXPECT_EQ(2, QVGetChannelCount());
}

TEST_F(UsbDeviceTest, ADeviceThatWasPulledOutIsGoneWithTheNextSearchAndBackWithALaterOne) {
    Begin();
    usb.Unplug("TV1");
    unsigned int source = 0;
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputSource(channel, &source));
    EXPECT_EQ(2, QVGetChannelCount()) << "as it was when the list was made";
    QVCloseChannel(channel);
    channel = QVOpenChannelByPath(kPath);
    EXPECT_EQ(nullptr, channel);
    QVRefreshDevice();
    EXPECT_EQ(1, QVGetChannelCount());
    usb.Plug("TV1");
    QVRefreshDevice();
    EXPECT_EQ(2, QVGetChannelCount());
    channel = QVOpenChannelByPath(kPath);
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSource(channel, &source));
}

TEST_F(UsbDeviceTest, WhoeverWatchesIsTold) {
    Begin();
    qvtest::Recorder<std::string> told;
    const auto note = [](_QVUSBHOT_PLUG_EVETN event, const char* path, void* param) {
        static_cast<qvtest::Recorder<std::string>*>(param)->Add(std::to_string(event) + " " + path);
    };
    ASSERT_EQ(QV_RESULT_OK, QVRegisterUSBHotPlug(note, &told));
    usb.Unplug("TV2");
    usb.Plug("TV2");
    told.AwaitCount(2);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterUSBHotPlug());
    EXPECT_THAT(told.Items(), ElementsAre("2 usb:TV2", "1 usb:TV2"));
}

}  // namespace
