// Every USB operation against a simulated device: command, size and payload, one row each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "QVUSBCaptureBase.h"
#include "lib/SimulatedTavo.h"

using fake::Tavo;
using testing::ElementsAre;

namespace {

constexpr char kPath[] = "usb:1-1";

class UsbChannelTest : public testing::Test {
  protected:
    UsbChannelTest() {
        tavo.Reset();
        tavo.AddDevice(kPath, "Tavo Capture HDMI", "001/004", "TV0012345");
        EXPECT_EQ(QV_RESULT_OK, tavo.Supply());
        CQVUSBCaptureControlBase::Init();
        CQVUSBCaptureControlBase::EnumDevice();
        EXPECT_TRUE(channel.OpenChannelByPath(kPath));
    }
    ~UsbChannelTest() override {
        channel.CloseChannel();
        CQVUSBCaptureControlBase::Exit();
        EXPECT_EQ(0, tavo.wrongAnswers);
        EXPECT_EQ(0, tavo.handlesOpen) << "a device was left open";
    }
    // What the device answers to a command: size bytes first, first + 1 ...
    std::vector<unsigned char> Answer(int command, size_t size, unsigned char first = 0x21) {
        std::vector<unsigned char> bytes(size);
        for (unsigned char& byte : bytes) byte = first++;
        return tavo.values[command] = bytes;
    }
    Tavo& tavo = Tavo::Get();
    CQVUSBCaptureBase channel;
};

// ---- the command table, typed a second time

struct GetRow {
    const char* name;
    int command;
    unsigned size;
    // Runs the operation with an output of size bytes; null for none.
    std::function<QV_RESULT(CQVUSBCaptureBase&, void*)> run;
};

template <class Out>
std::function<QV_RESULT(CQVUSBCaptureBase&, void*)> Calls(
    QV_RESULT (CQVUSBCaptureBase::*operation)(Out*)) {
    return [operation](CQVUSBCaptureBase& channel, void* out) {
        return (channel.*operation)(static_cast<Out*>(out));
    };
}

using Usb = CQVUSBCaptureBase;

const GetRow kGets[] = {
    {"ChannelInfo", 0x01, 224, Calls(&Usb::GetChannelInfo)},
    {"FamilyInfo", 0x02, 10, [](Usb& c, void* out) { return c.GetFamilyInfo(out, 3); }},
    {"VideoCaps", 0x03, 12, Calls(&Usb::GetVideoCaps)},
    {"AudioCaps", 0x04, 4, Calls(&Usb::GetAudioCaps)},
    {"NotifyStatus", 0x08, 8, Calls(&Usb::GetNotifyStatus)},
    {"InputSourceScan", 0x0B, 1, Calls(&Usb::GetInputSourceScan)},
    {"InputSourceScanState", 0x0C, 1, Calls(&Usb::GetInputSourceScanState)},
    {"AVInputSourceLink", 0x0D, 1, Calls(&Usb::GetAVInputSourceLink)},
    {"VideoInputSource", 0x0E, 4, Calls(&Usb::GetVideoInputSource)},
    {"AudioInputSource", 0x0F, 4, Calls(&Usb::GetAudioInputSource)},
    {"InputSpecificStatus", 0x10, 61, Calls(&Usb::GetInputSpecificStatus)},
    {"VideoSignalStatus", 0x11, 58, Calls(&Usb::GetVideoSignalStatus)},
    {"AudioSignalStatus", 0x12, 33, Calls(&Usb::GetAudioSignalStatus)},
    {"VideoInputColorFormat", 0x14, 4, Calls(&Usb::GetVideoInputColorFormat)},
    {"VideoInputQuantizationRange", 0x15, 4, Calls(&Usb::GetVideoInputQuantizationRange)},
    {"VideoCaptureConnectionFormat", 0x16, 37, Calls(&Usb::GetVideoCaptureConnectionFormat)},
    {"VideoOutputFOURCC", 0x18, 13, Calls(&Usb::GetVideoOutputFOURCC)},
    {"VideoOutputFrameSize", 0x19, 98, Calls(&Usb::GetVideoOutputFrameSize)},
    {"VideoOutputFrameInterval", 0x1A, 34, Calls(&Usb::GetVideoOutputFrameInterval)},
    {"VideoAutoHAlign", 0x90, 1, Calls(&Usb::GetVideoAutoHAlign)},
    {"VideoSamplingPhase", 0x91, 1, Calls(&Usb::GetVideoSamplingPhase)},
    {"VideoSamplingPhaseAutoAdjust", 0x92, 1, Calls(&Usb::GetVideoSamplingPhaseAutoAdjust)},
    {"PreferredVideoTimings", 0x94, 225, Calls(&Usb::GetPreferredVideoTimings)},
    {"CustomVideoTimings", 0x96, 217, Calls(&Usb::GetCustomVideoTimings)},
    {"CustomVideoResolutions", 0x97, 65, Calls(&Usb::GetCustomVideoResolutions)},
    {"LoopThroughValid", 0x9B, 1, Calls(&Usb::GetLoopThroughValid)},
    {"HDMIInfoFrameValidFlags", 0xA0, 4, Calls(&Usb::GetHDMIInfoFrameValidFlags)},
    {"HDMIInfoFrame0", 0xA1, 31,
     [](Usb& c, void* out) {
         return c.GetHDMIInfoFramePacket(0, static_cast<_HDMI_INFOFRAME_PACKET*>(out));
     }},
    {"HDMIInfoFrame11", 0xAC, 31,
     [](Usb& c, void* out) {
         return c.GetHDMIInfoFramePacket(11, static_cast<_HDMI_INFOFRAME_PACKET*>(out));
     }},
    {"HDMIInfoFrameWraps", 0xA0, 31,
     [](Usb& c, void* out) {
         return c.GetHDMIInfoFramePacket(-1, static_cast<_HDMI_INFOFRAME_PACKET*>(out));
     }},
    {"AudioVolume0", 0xB0, 56,
     [](Usb& c, void* out) { return c.GetAudioVolume(0, static_cast<_QVCAP_AUDIO_VOLUME*>(out)); }},
    {"AudioVolume7", 0xB7, 56,
     [](Usb& c, void* out) { return c.GetAudioVolume(7, static_cast<_QVCAP_AUDIO_VOLUME*>(out)); }},
    {"FirmwareStorageInfo", 0xF0, 16, Calls(&Usb::GetFirmwareStorageInfo)},
    {"FirmwareReadAddress", 0xF2, 4, Calls(&Usb::GetFirmwareReadAddress)},
    {"ExtensionSupported", 0xFF, 4, Calls(&Usb::GetExtensionSupported)},
};

std::string Line(const char* way, int command, unsigned size) {
    char text[32];
    snprintf(text, sizeof text, "%s(0x%02X, %u)", way, static_cast<unsigned>(command), size);
    return text;
}

TEST_F(UsbChannelTest, EveryGetIsOneTransferOfItsCommandAndSize) {
    for (const GetRow& row : kGets) {
        SCOPED_TRACE(row.name);
        const size_t before = tavo.Calls().size();
        std::vector<unsigned char> expected = Answer(row.command, row.size);
        std::vector<unsigned char> out(row.size + 8, 0xCC);
        EXPECT_EQ(QV_RESULT_OK, row.run(channel, out.data()));
        ASSERT_EQ(before + 1, tavo.Calls().size());
        EXPECT_EQ(Line("get", row.command, row.size), tavo.Calls().back());
        expected.resize(row.size + 8, 0xCC);
        EXPECT_EQ(expected, out) << "payload, and nothing behind it";
    }
}

TEST_F(UsbChannelTest, ARefusedGetFailsAndLeavesTheOutputAlone) {
    for (const GetRow& row : kGets) {
        SCOPED_TRACE(row.name);
        const std::vector<unsigned char> untouched(row.size, 0xCC);
        std::vector<unsigned char> out = untouched;
        tavo.Refuse("get", -5);
        EXPECT_EQ(QV_RESULT_FAILED, row.run(channel, out.data()));
        EXPECT_EQ(untouched, out);
    }
}

TEST_F(UsbChannelTest, AGetWithoutOutputIsRefusedWithoutTransfer) {
    for (const GetRow& row : kGets) EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, row.run(channel, nullptr));
    EXPECT_TRUE(tavo.Calls().empty());
}

struct SetRow {
    const char* name;
    int command;
    unsigned size;
    // Runs the operation with size bytes of payload; null for none.
    std::function<QV_RESULT(CQVUSBCaptureBase&, void*)> run;
    bool byValue;
};

template <class Value>
std::function<QV_RESULT(CQVUSBCaptureBase&, void*)> CallsValue(
    QV_RESULT (CQVUSBCaptureBase::*operation)(Value)) {
    return [operation](CQVUSBCaptureBase& channel, void* in) {
        Value value{};
        memcpy(&value, in, sizeof value);
        return (channel.*operation)(value);
    };
}

const SetRow kSets[] = {
    {"LEDMode", 0x05, 4, CallsValue(&Usb::SetLEDMode), true},
    {"NotifyEnable", 0x07, 9, Calls(&Usb::SetNotifyEnable), false},
    {"InputSourceScan", 0x0B, 1, CallsValue(&Usb::SetInputSourceScan), true},
    {"AVInputSourceLink", 0x0D, 1, CallsValue(&Usb::SetAVInputSourceLink), true},
    {"VideoInputSource", 0x0E, 4, CallsValue(&Usb::SetVideoInputSource), true},
    {"AudioInputSource", 0x0F, 4, CallsValue(&Usb::SetAudioInputSource), true},
    {"VideoInputColorFormat", 0x14, 4, CallsValue(&Usb::SetVideoInputColorFormat), true},
    {"VideoInputQuantizationRange", 0x15, 4, CallsValue(&Usb::SetVideoInputQuantizationRange),
     true},
    {"VideoOutputFOURCC", 0x18, 13, Calls(&Usb::SetVideoOutputFOURCC), false},
    {"VideoOutputFrameSize", 0x19, 98, Calls(&Usb::SetVideoOutputFrameSize), false},
    {"VideoOutputFrameInterval", 0x1A, 34, Calls(&Usb::SetVideoOutputFrameInterval), false},
    {"VideoAutoHAlign", 0x90, 1, CallsValue(&Usb::SetVideoAutoHAlign), true},
    {"VideoSamplingPhase", 0x91, 1, Calls(&Usb::SetVideoSamplingPhase), false},
    {"VideoSamplingPhaseAutoAdjust", 0x92, 1, Calls(&Usb::SetVideoSamplingPhaseAutoAdjust), false},
    {"VideoTiming", 0x93, 28, Calls(&Usb::SetVideoTiming), false},
    {"CustomVideoTiming", 0x95, 27, Calls(&Usb::SetCustomVideoTiming), false},
    {"CustomVideoTimings", 0x96, 217, Calls(&Usb::SetCustomVideoTimings), false},
    {"CustomVideoResolutions", 0x97, 65, Calls(&Usb::SetCustomVideoResolutions), false},
};

TEST_F(UsbChannelTest, EverySetIsOneTransferOfItsCommandSizeAndPayload) {
    for (const SetRow& row : kSets) {
        SCOPED_TRACE(row.name);
        const size_t before = tavo.Calls().size();
        std::vector<unsigned char> payload(row.size);
        for (size_t i = 0; i < row.size; ++i) payload[i] = static_cast<unsigned char>(0x31 + i);
        const std::vector<unsigned char> sent = payload;
        EXPECT_EQ(QV_RESULT_OK, row.run(channel, payload.data()));
        ASSERT_EQ(before + 1, tavo.Calls().size());
        EXPECT_EQ(Line("set", row.command, row.size), tavo.Calls().back());
        EXPECT_EQ(sent, tavo.lastPayload);
        tavo.Refuse("set", -1);
        EXPECT_EQ(QV_RESULT_FAILED, row.run(channel, payload.data()));
        if (!row.byValue) {
            EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, row.run(channel, nullptr));
        }
    }
}

// ---- values of 32 bits that travel as one byte

TEST_F(UsbChannelTest, ModesTravelAsOneByteAndAreWidenedOnSuccessOnly) {
    using Getter = QV_RESULT (Usb::*)(uint32_t*);
    const std::pair<int, Getter> rows[] = {{0x9A, &Usb::GetEDIDMode},
                                           {0xFC, &Usb::GetStatusImageMode},
                                           {0xFD, &Usb::GetDeviceNameMode}};
    for (const auto& [command, get] : rows) {
        tavo.values[command] = {0xF3};
        uint32_t mode = 0xCCCCCCCC;
        tavo.Refuse("get", -1);
        EXPECT_EQ(QV_RESULT_FAILED, (channel.*get)(&mode));
        EXPECT_EQ(0xCCCCCCCC, mode);
        EXPECT_EQ(QV_RESULT_OK, (channel.*get)(&mode));
        EXPECT_EQ(0xF3u, mode);
        EXPECT_EQ(Line("get", command, 1), tavo.Calls().back());
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, (channel.*get)(nullptr));
    }
    uint32_t mode = 0x12345678;
    EXPECT_EQ(QV_RESULT_OK, channel.SetEDIDMode(mode));
    EXPECT_EQ("set(0x9A, 1)", tavo.Calls().back());
    EXPECT_THAT(tavo.lastPayload, ElementsAre(0x78));
    EXPECT_EQ(QV_RESULT_OK, channel.SetStatusImageMode(&mode));
    EXPECT_EQ("set(0xFC, 1)", tavo.Calls().back());
    EXPECT_THAT(tavo.lastPayload, ElementsAre(0x78));
    EXPECT_EQ(QV_RESULT_OK, channel.SetDeviceNameMode(&mode));
    EXPECT_EQ("set(0xFD, 1)", tavo.Calls().back());
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.SetStatusImageMode(nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.SetDeviceNameMode(nullptr));
}

TEST_F(UsbChannelTest, OptionsAreSavedLoadedAndResetByTheirByte) {
    EXPECT_EQ(QV_RESULT_OK, channel.SaveOptions());
    EXPECT_THAT(tavo.lastPayload, ElementsAre(2));
    EXPECT_EQ(QV_RESULT_OK, channel.LoadOptions());
    EXPECT_THAT(tavo.lastPayload, ElementsAre(1));
    EXPECT_EQ(QV_RESULT_OK, channel.ResetOptions());
    EXPECT_THAT(tavo.lastPayload, ElementsAre(0));
    EXPECT_THAT(tavo.Calls(), ElementsAre("set(0xFE, 1)", "set(0xFE, 1)", "set(0xFE, 1)"));
}

TEST_F(UsbChannelTest, SamplingPhasesFrom40ToFEAreRefusedWithoutTransfer) {
    for (int value = 0; value <= 0xFF; ++value) {
        auto phase = static_cast<unsigned char>(value);
        const size_t before = tavo.Calls().size();
        const bool allowed = value <= 0x3F || value == 0xFF;
        EXPECT_EQ(allowed ? QV_RESULT_OK : QV_RESULT_FAILED, channel.SetVideoSamplingPhase(&phase));
        EXPECT_EQ(before + (allowed ? 1 : 0), tavo.Calls().size()) << value;
    }
}

// ---- payloads with a shape of their own

TEST_F(UsbChannelTest, TheAspectRatioIsXThenYAndWrittenAlsoAfterAFailure) {
    EXPECT_EQ(QV_RESULT_OK, channel.SetVideoInputAspectRatio(16, -9));
    EXPECT_EQ("set(0x13, 8)", tavo.Calls().back());
    EXPECT_THAT(tavo.lastPayload, ElementsAre(16, 0, 0, 0, 0xF7, 0xFF, 0xFF, 0xFF));
    int x = 1, y = 2;
    EXPECT_EQ(QV_RESULT_OK, channel.GetVideoInputAspectRatio(&x, &y));
    EXPECT_EQ(16, x);
    EXPECT_EQ(-9, y);
    EXPECT_EQ(QV_RESULT_OK, channel.GetVideoInputAspectRatio(nullptr, nullptr));
    tavo.Refuse("get", -1);
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoInputAspectRatio(&x, nullptr));
    EXPECT_EQ(0, x);
    EXPECT_EQ(-9, y);
}

TEST_F(UsbChannelTest, ProcessSettingsTravelIn44Bytes) {
    _QVCAP_VIDEO_PROCESS_SETTINGS settings{};
    settings.processMask = 0x01020304;
    settings.sourceRect = {0x11223344, 2, 3, -1};
    settings.aspectX = -4;
    settings.aspectY = 5;
    settings.lowLatency = 6;
    for (uint32_t i = 0; i < 5; ++i) settings.settings[i] = 0xA0 + i;
    EXPECT_EQ(QV_RESULT_OK, channel.SetVideoCaptureProcessSettings(&settings));
    EXPECT_EQ("set(0x17, 44)", tavo.Calls().back());
    EXPECT_THAT(tavo.lastPayload,
                ElementsAre(4, 3, 2, 1, 0x44, 0x33, 2, 0, 3, 0, 0xFF, 0xFF, 0xFC, 0xFF, 0xFF, 0xFF,
                            5, 0, 0, 0, 6, 0, 0, 0, 0xA0, 0, 0, 0, 0xA1, 0, 0, 0, 0xA2, 0, 0, 0,
                            0xA3, 0, 0, 0, 0xA4, 0, 0, 0));
    tavo.values[0x17][21] = 0xEE;  // padding
    _QVCAP_VIDEO_PROCESS_SETTINGS read;
    memset(&read, 0xCC, sizeof read);
    EXPECT_EQ(QV_RESULT_OK, channel.GetVideoCaptureProcessSettings(&read));
    settings.sourceRect = {0x3344, 2, 3, 0xFFFF};
    EXPECT_EQ(0, memcmp(&settings, &read, sizeof read));
}

TEST_F(UsbChannelTest, ProcessSettingsAreWrittenAlsoAfterAFailure) {
    _QVCAP_VIDEO_PROCESS_SETTINGS read;
    memset(&read, 0xCC, sizeof read);
    tavo.Refuse("get", -1);
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoCaptureProcessSettings(&read));
    const _QVCAP_VIDEO_PROCESS_SETTINGS zeros{};
    EXPECT_EQ(0, memcmp(&zeros, &read, sizeof read));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.GetVideoCaptureProcessSettings(nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.SetVideoCaptureProcessSettings(nullptr));
}

TEST_F(UsbChannelTest, EdidsHaveTheSizeThatTheCallerSays) {
    unsigned char edid[256];
    memset(edid, 0x5A, sizeof edid);
    EXPECT_EQ(QV_RESULT_OK, channel.SetEDID(edid, 128));
    EXPECT_EQ("set(0x98, 128)", tavo.Calls().back());
    unsigned long size = 256;
    EXPECT_EQ(QV_RESULT_OK, channel.GetEDID(edid, &size));
    EXPECT_EQ("get(0x98, 256)", tavo.Calls().back());
    EXPECT_EQ(256u, size);
    EXPECT_EQ(0x5A, edid[127]);
    EXPECT_EQ(0, edid[128]);
    char loop[64];
    unsigned loopSize = 64;
    EXPECT_EQ(QV_RESULT_OK, channel.GetEDIDLoopThrough(loop, &loopSize));
    EXPECT_EQ("get(0x99, 64)", tavo.Calls().back());
    EXPECT_EQ(64u, loopSize);
}

TEST_F(UsbChannelTest, AFailedGetOfAnEdidLeavesTheBufferAloneWhateverTheTransportDid) {
    unsigned char edid[256];
    unsigned char untouched[256];
    memset(edid, 0xCC, sizeof edid);
    memset(untouched, 0xCC, sizeof untouched);
    unsigned long size = sizeof edid;
    unsigned loopSize = sizeof edid;
    tavo.scribbles = true;
    tavo.Refuse("get", -1);
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetEDID(edid, &size));
    EXPECT_EQ(0, memcmp(untouched, edid, sizeof edid));
    tavo.Refuse("get", -1);
    EXPECT_EQ(QV_RESULT_FAILED,
              channel.GetEDIDLoopThrough(reinterpret_cast<char*>(edid), &loopSize));
    EXPECT_EQ(0, memcmp(untouched, edid, sizeof edid));
    EXPECT_EQ(256u, size);
}

TEST_F(UsbChannelTest, EdidsWithoutBufferOrSizeAreRefusedWithoutTransfer) {
    unsigned char edid[4];
    char loop[4];
    unsigned long size = 4;
    unsigned loopSize = 4;
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.SetEDID(nullptr, 4));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.GetEDID(nullptr, &size));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.GetEDID(edid, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.GetEDIDLoopThrough(nullptr, &loopSize));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.GetEDIDLoopThrough(loop, nullptr));
    EXPECT_TRUE(tavo.Calls().empty());
}

// ---- input sources

class UsbInputSourcesTest : public UsbChannelTest {
  protected:
    void Have(unsigned char count) {
        for (const int command : {0x09, 0x0A}) {
            Answer(command, 65, 0);
            tavo.values[command][0] = count;
        }
    }
    unsigned sources[20] = {};
};

TEST_F(UsbInputSourcesTest, CodesAreCopiedUpToCapacityAndCount) {
    Have(3);
    unsigned count = 8;
    EXPECT_EQ(QV_RESULT_OK, channel.GetVideoInputSourceArray(sources, &count));
    EXPECT_EQ("get(0x09, 65)", tavo.Calls().back());
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0x04030201u, sources[0]);
    EXPECT_EQ(0x0C0B0A09u, sources[2]);
    EXPECT_EQ(0u, sources[3]);
    count = 2;
    EXPECT_EQ(QV_RESULT_OK, channel.GetAudioInputSourceArray(sources, &count));
    EXPECT_EQ("get(0x0A, 65)", tavo.Calls().back());
    EXPECT_EQ(2u, count);
}

TEST_F(UsbInputSourcesTest, WithoutArrayTheCountTellsWhatThereIs) {
    Have(200);
    unsigned count = 5;
    EXPECT_EQ(QV_RESULT_OK, channel.GetVideoInputSourceArray(nullptr, &count));
    EXPECT_EQ(200u, count);
}

TEST_F(UsbInputSourcesTest, NeverMoreCodesThanThePayloadHolds) {
    Have(255);
    std::vector<unsigned> many(300, 0xCCCCCCCC);
    unsigned count = 300;
    EXPECT_EQ(QV_RESULT_OK, channel.GetVideoInputSourceArray(many.data(), &count));
    EXPECT_EQ(16u, count);
    EXPECT_EQ(0xCCCCCCCC, many[16]);
}

TEST_F(UsbInputSourcesTest, AfterAFailureThePresetStands) {
    Have(3);
    memset(sources, 0xCC, sizeof sources);
    unsigned count = 2;
    tavo.Refuse("get", -1);
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoInputSourceArray(sources, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(0u, sources[0]);
    EXPECT_EQ(0xCCCCCCCC, sources[2]);
    count = 0x105;
    tavo.Refuse("get", -1);
    EXPECT_EQ(QV_RESULT_FAILED, channel.GetVideoInputSourceArray(nullptr, &count));
    EXPECT_EQ(5u, count) << "the low byte that travelled";
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, channel.GetVideoInputSourceArray(sources, nullptr));
}

}  // namespace
