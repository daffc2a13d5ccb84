// Every operation that only gets or only sets one record: its request, its bytes in both
// directions, and its refusals. One row an operation.
#include "ChannelFixture.h"

namespace qvtest {
namespace {

struct GetCase {
    const char* request;
    size_t size;
    std::function<QV_RESULT(QV_CHANNEL, void*)> call;
};

struct SetCase {
    const char* request;
    size_t size;
    std::function<QV_RESULT(QV_CHANNEL, const void*)> call;
    bool takesPointer;
};

template <class T>
GetCase Getter(const char* request, QV_RESULT (*function)(QV_CHANNEL, T*)) {
    return {request, sizeof(T), [function](QV_CHANNEL channel, void* out) {
                return function(channel, static_cast<T*>(out));
            }};
}

template <class T>
SetCase Setter(const char* request, QV_RESULT (*function)(QV_CHANNEL, T)) {
    return {request, sizeof(T),
            [function](QV_CHANNEL channel, const void* in) {
                T value;
                memcpy(&value, in, sizeof value);
                return function(channel, value);
            },
            false};
}

template <class T>
SetCase Setter(const char* request, QV_RESULT (*function)(QV_CHANNEL, const T*)) {
    return {request, sizeof(T),
            [function](QV_CHANNEL channel, const void* in) {
                return function(channel, static_cast<const T*>(in));
            },
            true};
}

template <class T>
SetCase Setter(const char* request, QV_RESULT (*function)(QV_CHANNEL, T*)) {
    return {request, sizeof(T),
            [function](QV_CHANNEL channel, const void* in) {
                return function(channel, static_cast<T*>(const_cast<void*>(in)));
            },
            true};
}

// A table stays a table.
// clang-format off
const std::vector<GetCase> kGetCases = {
    Getter("GetVideoCaps", QVGetVideoCaps),
    Getter("GetAudioCaps", QVGetAudioCaps),
    Getter("GetTemperature", QVGetTemperature),
    Getter("GetInputSourceScan", QVGetInputSourceScan),
    Getter("GetAVInputSourceLink", QVGetAVInputSourceLink),
    Getter("GetVideoInputSource", QVGetVideoInputSource),
    Getter("GetAudioInputSource", QVGetAudioInputSource),
    Getter("GetInputSpecificStatus", QVGetInputSpecificStatus),
    Getter("GetVideoSignalStatus", QVGetVideoSignalStatus),
    Getter("GetAudioSignalStatus", QVGetAudioSignalStatus),
    Getter("GetHDMIInfoFrameValidFlags", QVGetHDMIInfoFrameValidFlag),
    Getter("GetVideoInputColorFormat", QVGetVideoInputColorFormat),
    Getter("GetVideoInputQuantizationRange", QVGetVideoInputQuantizationRange),
    Getter("GetVideoAutoHAlign", QVGetVideoAutoHAlign),
    Getter("GetVideoSamplingPhase", QVGetVideoSamplingPhase),
    Getter("GetVideoSamplingPhaseAutoAdjust", QVGetVideoSamplingPhaseAutoAdjust),
    Getter("GetVideoConnectFormat", QVGetVideoConnectFormat),
    Getter("GetVideoProcessSettings", QVGetVideoProcessSettings),
    Getter("GetVideoOSDSettings", QVGetVideoOSDSettings),
    Getter("GetVideoOSDImage", QVGetVideoOSDImage),
    Getter("GetVideoBrightness", QVGetVideoBrightness),
    Getter("GetVideoContrast", QVGetVideoContrast),
    Getter("GetVideoHue", QVGetVideoHue),
    Getter("GetVideoSaturation", QVGetVideoSaturation),
    Getter("GetSDIANCPacket", QVCaptureGetSDIANCPacket),
    Getter("GetVideoLumoCaptureStatus", QVGetVideoLumoCaptureStatus),
};

const std::vector<SetCase> kSetCases = {
    Setter("SetCtrlStreamID", QVSetCtrlStreamID),
    Setter("SetLEDMode", QVSetLEDMode),
    Setter("SetPostReconfig", QVSetPostReconfig),
    Setter("SetInputSourceScan", QVSetInputSourceScan),
    Setter("SetAVInputSourceLink", QVSetAVInputSourceLink),
    Setter("SetVideoInputSource", QVSetVideoInputSource),
    Setter("SetAudioInputSource", QVSetAudioInputSource),
    Setter("SetVideoInputColorFormat", QVSetVideoInputColorFormat),
    Setter("SetVideoInputQuantizationRange", QVSetVideoInputQuantizationRange),
    Setter("SetVideoAutoHAlign", QVSetVideoAutoHAlign),
    Setter("SetVideoSamplingPhase", QVSetVideoSamplingPhase),
    Setter("SetVideoSamplingPhaseAutoAdjust", QVSetVideoSamplingPhaseAutoAdjust),
    Setter("SetVideoTiming", QVSetVideoTiming),
    Setter("SetCustomVideoTiming", QVSetCustomVideoTiming),
    Setter("SetVideoProcessSettings", QVSetVideoProcessSettings),
    Setter("SetVideoOSDSettings", QVSetVideoOSDSettings),
    Setter("SetVideoOSDImage", QVSetVideoOSDImage),
    Setter("SetVideoBrightness", QVSetVideoBrightness),
    Setter("SetVideoContrast", QVSetVideoContrast),
    Setter("SetVideoHue", QVSetVideoHue),
    Setter("SetVideoSaturation", QVSetVideoSaturation),
    Setter("SetSDIANCType", QVCaptureSetSDIANCType),
    Setter("UploadImage", QVUploadImageFromPhysicalAddress),
    Setter("UploadImage", QVUploadImageFromVirtualAddress),
    Setter("StartVideoLumoCapture", QVStartVideoLumoCapture),
    Setter("SetVideoLumoCaptureSettings", QVSetVideoLumoCaptureSettings),
    Setter("CaptureSetVideoLumoFrame", QVCaptureSetVideoLumoFrame),
};

struct ActionCase {
    const char* request;
    QV_RESULT (*call)(QV_CHANNEL);
};
const std::vector<ActionCase> kActionCases = {
    {"SaveSettingsAsPreset", QVSaveSettingsAsPreset},
    {"ReloadPreset", QVReloadPreset},
    {"StopVideoCapture", QVStopVideoCapture},
    {"StartAudioCapture", QVStartAudioCapture},
    {"StopAudioCapture", QVStopAudioCapture},
    {"StopVideoLumoCapture", QVStopVideoLumoCapture},
};
// clang-format on

class SettingsTest : public ChannelTest {
  protected:
    QV_CHANNEL Closed() { return static_cast<IQVCaptureDevice*>(&m_closed); }

  private:
    CQVCaptureBase m_closed;
};

TEST_F(SettingsTest, AGetCopiesTheDriversRecordAndNothingBeyondIt) {
    uint32_t seed = 1;
    for (const GetCase& get : kGetCases) {
        const Bytes record = ArbitraryBytes(get.size, seed++);
        rig.Cards().SetRecord(0, 0, get.request + 3, record);
        rig.ClearJournal();
        Bytes out(get.size + 16, kUntouched);
        EXPECT_EQ(QV_RESULT_OK, get.call(channel, out.data())) << get.request;
        EXPECT_THAT(Requests(), ElementsAre(get.request));
        EXPECT_EQ(record, Bytes(out.begin(), out.end() - 16)) << get.request;
        EXPECT_EQ(Bytes(16, kUntouched), Bytes(out.end() - 16, out.end())) << get.request;
    }
}

TEST_F(SettingsTest, ARefusedGetFailsAndLeavesTheCallersMemoryAlone) {
    for (const GetCase& get : kGetCases) {
        RefuseFromNowOn(get.request);
        Bytes out(get.size, kUntouched);
        EXPECT_EQ(QV_RESULT_FAILED, get.call(channel, out.data())) << get.request;
        EXPECT_EQ(Bytes(get.size, kUntouched), out) << get.request;
    }
}

TEST_F(SettingsTest, AGetWithoutChannelOrMemoryIsABadArgumentAndAsksNobody) {
    for (const GetCase& get : kGetCases) {
        Bytes out(get.size, kUntouched);
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, get.call(nullptr, out.data())) << get.request;
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, get.call(Closed(), out.data())) << get.request;
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, get.call(channel, nullptr)) << get.request;
    }
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(SettingsTest, ASetSendsTheCallersBytesInOneRequest) {
    // The simulated driver refuses these.
    for (const char* request :
         {"StartVideoLumoCapture", "SetVideoLumoCaptureSettings", "CaptureSetVideoLumoFrame"})
        rig.AddFault({.request = request, .count = -1, .effect = qvsim::Pretend()});
    uint32_t seed = 100;
    for (const SetCase& set : kSetCases) {
        const Bytes record = ArbitraryBytes(set.size, seed++);
        rig.ClearJournal();
        EXPECT_EQ(QV_RESULT_OK, set.call(channel, record.data())) << set.request;
        EXPECT_THAT(Requests(), ElementsAre(set.request));
        EXPECT_EQ(record, Received(set.request)) << set.request;
    }
    QVStopVideoLumoCapture(channel);
}

TEST_F(SettingsTest, ARefusedSetFails) {
    for (const SetCase& set : kSetCases) {
        RefuseFromNowOn(set.request);
        EXPECT_EQ(QV_RESULT_FAILED, set.call(channel, Bytes(set.size).data())) << set.request;
    }
}

TEST_F(SettingsTest, ASetWithoutChannelOrRecordIsABadArgumentAndAsksNobody) {
    for (const SetCase& set : kSetCases) {
        const Bytes record(set.size);
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, set.call(nullptr, record.data())) << set.request;
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, set.call(Closed(), record.data())) << set.request;
        if (set.takesPointer) {
            EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, set.call(channel, nullptr)) << set.request;
        }
    }
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(SettingsTest, AnActionIsOneRequestWithoutARecord) {
    for (const ActionCase& action : kActionCases) {
        rig.ClearJournal();
        EXPECT_EQ(QV_RESULT_OK, action.call(channel)) << action.request;
        EXPECT_THAT(Requests(), ElementsAre(action.request));
        RefuseFromNowOn(action.request);
        EXPECT_EQ(QV_RESULT_FAILED, action.call(channel)) << action.request;
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, action.call(nullptr)) << action.request;
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, action.call(Closed())) << action.request;
    }
}

TEST_F(SettingsTest, WhatWasSetComesBack) {
    EXPECT_EQ(QV_RESULT_OK, QVSetVideoHue(channel, -17));
    int hue = 0;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoHue(channel, &hue));
    EXPECT_EQ(-17, hue);
    EXPECT_EQ(QV_RESULT_OK, QVSetInputSourceScan(channel, 1));
    char scan = 0;
    EXPECT_EQ(QV_RESULT_OK, QVGetInputSourceScan(channel, &scan));
    EXPECT_EQ(1, scan);
}

TEST_F(SettingsTest, AspectRatiosTravelAsTwoSignedWords) {
    EXPECT_EQ(QV_RESULT_OK, QVSetVideoInputAspectRatio(channel, 16, -9));
    EXPECT_EQ(Bytes(Wire().U32(16).U32(static_cast<uint32_t>(-9))),
              Received("SetVideoInputAspectRatio"));
    int x = 0;
    int y = 0;
    EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputAspectRatio(channel, &x, &y));
    EXPECT_EQ(16, x);
    EXPECT_EQ(-9, y);
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoInputAspectRatio(channel, nullptr, &y));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoInputAspectRatio(channel, &x, nullptr));
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetVideoInputAspectRatio(Closed(), &x, &y));
    RefuseFromNowOn("GetVideoInputAspectRatio");
    EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputAspectRatio(channel, &x, &y));
    EXPECT_EQ(16, x);
}

TEST_F(SettingsTest, InfoFrameIdsOutside0To11AreRefusedWithoutARequest) {
    _HDMI_INFOFRAME_PACKET packet;
    for (int id : {-1, 12, 0x7FFFFFFF})
        EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetHDMIInfoFramePacket(channel, id, &packet)) << id;
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetHDMIInfoFramePacket(channel, 0, nullptr));
    EXPECT_THAT(rig.Journal(), IsEmpty());
    for (int id = 0; id < 12; ++id) {
        memset(&packet, kUntouched, sizeof packet);
        EXPECT_EQ(QV_RESULT_OK, QVGetHDMIInfoFramePacket(channel, id, &packet)) << id;
        EXPECT_EQ(id, Received("GetHDMIInfoFramePacket")[0]);
        EXPECT_NE(BytesOf(packet), Bytes(sizeof packet, kUntouched));
    }
    RefuseFromNowOn("GetHDMIInfoFramePacket");
    memset(&packet, kUntouched, sizeof packet);
    EXPECT_EQ(QV_RESULT_FAILED, QVGetHDMIInfoFramePacket(channel, 0, &packet));
    EXPECT_EQ(BytesOf(packet), Bytes(sizeof packet, kUntouched));
}

TEST_F(SettingsTest, ScanStateIsNotAvailableOnAPcieChannelAndAsksNobody) {
    char state = 7;
    EXPECT_EQ(QV_RESULT_FAILED,
              static_cast<IQVCaptureDevice*>(channel)->GetInputSourceScanState(&state));
    EXPECT_EQ(7, state);
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

TEST_F(SettingsTest, SourceCountsKeepTheDefaultOfTheInterface) {
    auto* device = static_cast<IQVCaptureDevice*>(channel);
    unsigned int count = 9;
    EXPECT_EQ(QV_RESULT_FAILED, device->GetVideoInputSourceCount(&count));
    EXPECT_EQ(QV_RESULT_FAILED, device->GetAudioInputSourceCount(&count));
    EXPECT_EQ(9u, count);
    EXPECT_THAT(rig.Journal(), IsEmpty());
}

}  // namespace
}  // namespace qvtest
