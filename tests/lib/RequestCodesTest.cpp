// The driver's request codes, typed a second time, against the library's table and against what the
// simulation takes for them: neither side of the protocol vouches for the other.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "QVDriverRequests.h"
#include "gmock/gmock.h"
#include "support/SimRig.h"

namespace {

using qvsim::Pelix;
using qvsim::SimRig;

struct GoldenRequest {
    char type;
    uint32_t number;
    uint32_t code;
    const char* direction;
    uint32_t size;
    const char* name;
};

// A table stays a table.
// clang-format off
constexpr GoldenRequest kGolden[] = {
    {'X', 1, 0x80045801, "read", 4, "GetStreamCount"},
    {'X', 2, 0xC00C5802, "both", 12, "GetStreamInfos"},
    {'X', 4, 0x40045804, "write", 4, "SetCtrlStreamID"},
    {'X', 6, 0x80E05806, "read", 224, "GetChannelInfo"},
    {'X', 7, 0x80115807, "read", 17, "GetFamilyInfo"},
    {'X', 8, 0x800C5808, "read", 12, "GetVideoCaps"},
    {'X', 9, 0x80045809, "read", 4, "GetAudioCaps"},
    {'X', 10, 0x8010580A, "read", 16, "GetFirmwareStorageInfo"},
    {'X', 11, 0x4008580B, "write", 8, "EraseFirmwareData"},
    {'X', 12, 0x4010580C, "write", 16, "WriteFirmwareData"},
    {'X', 13, 0xC010580D, "both", 16, "ReadFirmwareData"},
    {'X', 14, 0x4004580E, "write", 4, "SetLEDMode"},
    {'X', 15, 0x4004580F, "write", 4, "SetPostReconfig"},
    {'X', 16, 0x80045810, "read", 4, "GetTemperature"},
    {'X', 17, 0x80085811, "read", 8, "GetDeviceTime"},
    {'X', 18, 0x40085812, "write", 8, "SetDeviceTime"},
    {'X', 19, 0x40085813, "write", 8, "RegulateDeviceTime"},
    {'X', 20, 0xC0105814, "both", 16, "RegisterTimer"},
    {'X', 21, 0x40085815, "write", 8, "UnregisterTimer"},
    {'X', 22, 0x40105816, "write", 16, "ScheduleTimer"},
    {'X', 25, 0xC0185819, "both", 24, "RegisterNotify"},
    {'X', 26, 0x4008581A, "write", 8, "UnregisterNotify"},
    {'X', 27, 0xC010581B, "both", 16, "GetNotifyStatus"},
    {'X', 31, 0x800D581F, "read", 13, "GetVideoBufferInfo"},
    {'X', 32, 0xC0445820, "both", 68, "GetVideoFrameInfo"},
    {'X', 33, 0x40085821, "write", 8, "StartVideoCapture"},
    {'X', 34, 0x40BC5822, "write", 188, "CaptureVideoFrame"},
    {'X', 35, 0x801A5823, "read", 26, "GetVideoCaptureStatus"},
    {'X', 36, 0x00005824, "none", 0, "StopVideoCapture"},
    {'X', 37, 0x00005825, "none", 0, "StartAudioCapture"},
    {'X', 38, 0x98185826, "read", 6168, "CaptureAudioFrame"},
    {'X', 39, 0x00005827, "none", 0, "StopAudioCapture"},
    {'X', 41, 0xC00C5829, "both", 12, "GetVideoInputSourceArray"},
    {'X', 43, 0xC00C582B, "both", 12, "GetAudioInputSourceArray"},
    {'X', 44, 0x4001582C, "write", 1, "SetInputSourceScan"},
    {'X', 45, 0x8001582D, "read", 1, "GetInputSourceScan"},
    {'X', 47, 0x4001582F, "write", 1, "SetAVInputSourceLink"},
    {'X', 48, 0x80015830, "read", 1, "GetAVInputSourceLink"},
    {'X', 49, 0x40045831, "write", 4, "SetVideoInputSource"},
    {'X', 50, 0x80045832, "read", 4, "GetVideoInputSource"},
    {'X', 51, 0x40045833, "write", 4, "SetAudioInputSource"},
    {'X', 52, 0x80045834, "read", 4, "GetAudioInputSource"},
    {'X', 53, 0xC00C5835, "both", 12, "GetEDID"},
    {'X', 54, 0x400C5836, "write", 12, "SetEDID"},
    {'X', 55, 0x803D5837, "read", 61, "GetInputSpecificStatus"},
    {'X', 56, 0x803A5838, "read", 58, "GetVideoSignalStatus"},
    {'X', 57, 0x80215839, "read", 33, "GetAudioSignalStatus"},
    {'X', 58, 0x8004583A, "read", 4, "GetHDMIInfoFrameValidFlags"},
    {'X', 59, 0xC023583B, "both", 35, "GetHDMIInfoFramePacket"},
    {'X', 60, 0x8008583C, "read", 8, "GetVideoInputAspectRatio"},
    {'X', 61, 0x4008583D, "write", 8, "SetVideoInputAspectRatio"},
    {'X', 62, 0x8004583E, "read", 4, "GetVideoInputColorFormat"},
    {'X', 63, 0x4004583F, "write", 4, "SetVideoInputColorFormat"},
    {'X', 64, 0x80045840, "read", 4, "GetVideoInputQuantizationRange"},
    {'X', 65, 0x40045841, "write", 4, "SetVideoInputQuantizationRange"},
    {'X', 66, 0x80015842, "read", 1, "GetVideoAutoHAlign"},
    {'X', 67, 0x40015843, "write", 1, "SetVideoAutoHAlign"},
    {'X', 68, 0x80015844, "read", 1, "GetVideoSamplingPhase"},
    {'X', 69, 0x40015845, "write", 1, "SetVideoSamplingPhase"},
    {'X', 70, 0x80015846, "read", 1, "GetVideoSamplingPhaseAutoAdjust"},
    {'X', 71, 0x40015847, "write", 1, "SetVideoSamplingPhaseAutoAdjust"},
    {'X', 72, 0x401C5848, "write", 28, "SetVideoTiming"},
    {'X', 73, 0xC00C5849, "both", 12, "GetVideoPreferredTimingArray"},
    {'X', 74, 0x401B584A, "write", 27, "SetCustomVideoTiming"},
    {'X', 75, 0x8004584B, "read", 4, "GetCustomVideoTimingsCount"},
    {'X', 76, 0xC00C584C, "both", 12, "GetCustomVideoTimingsArray"},
    {'X', 77, 0x400C584D, "write", 12, "SetCustomVideoTimingsArray"},
    {'X', 78, 0x8004584E, "read", 4, "GetCustomVideoResolutionsCount"},
    {'X', 79, 0xC00C584F, "both", 12, "GetCustomVideoResolutionsArray"},
    {'X', 80, 0x400C5850, "write", 12, "SetCustomVideoResolutionsArray"},
    {'X', 81, 0xC00C5851, "both", 12, "CreateImage"},
    {'X', 82, 0xC00C5852, "both", 12, "OpenImage"},
    {'X', 83, 0xC00C5853, "both", 12, "CloseImage"},
    {'X', 84, 0x40345854, "write", 52, "UploadImage"},
    {'X', 85, 0x40185855, "write", 24, "PinVideoBuffer"},
    {'X', 86, 0x40085856, "write", 8, "UnpinVideoBuffer"},
    {'X', 87, 0x00005857, "none", 0, "SaveSettingsAsPreset"},
    {'X', 88, 0x00005858, "none", 0, "ReloadPreset"},
    {'X', 89, 0x80255859, "read", 37, "GetVideoConnectFormat"},
    {'X', 90, 0x8031585A, "read", 49, "GetVideoProcessSettings"},
    {'X', 91, 0x4031585B, "write", 49, "SetVideoProcessSettings"},
    {'X', 92, 0x8201585C, "read", 513, "GetVideoOSDSettings"},
    {'X', 93, 0x4201585D, "write", 513, "SetVideoOSDSettings"},
    {'X', 94, 0x804C585E, "read", 76, "GetVideoOSDImage"},
    {'X', 95, 0x404C585F, "write", 76, "SetVideoOSDImage"},
    {'X', 96, 0x80045860, "read", 4, "GetVideoBrightness"},
    {'X', 97, 0x40045861, "write", 4, "SetVideoBrightness"},
    {'X', 98, 0x80045862, "read", 4, "GetVideoContrast"},
    {'X', 99, 0x40045863, "write", 4, "SetVideoContrast"},
    {'X', 100, 0x80045864, "read", 4, "GetVideoHue"},
    {'X', 101, 0x40045865, "write", 4, "SetVideoHue"},
    {'X', 102, 0x80045866, "read", 4, "GetVideoSaturation"},
    {'X', 103, 0x40045867, "write", 4, "SetVideoSaturation"},
    {'X', 104, 0x40055868, "write", 5, "SetSDIANCType"},
    {'X', 105, 0x81045869, "read", 260, "GetSDIANCPacket"},
    {'X', 109, 0x4018586D, "write", 24, "StartVideoLumoCapture"},
    {'X', 111, 0x4014586F, "write", 20, "SetVideoLumoCaptureSettings"},
    {'X', 112, 0x401D5870, "write", 29, "CaptureSetVideoLumoFrame"},
    {'X', 113, 0x80185871, "read", 24, "GetVideoLumoCaptureStatus"},
    {'X', 114, 0x00005872, "none", 0, "StopVideoLumoCapture"},
    {'E', 1, 0x80084501, "read", 8, "CreateEvent"},
    {'E', 2, 0x40084502, "write", 8, "CloseEvent"},
    {'E', 3, 0x40084503, "write", 8, "SetEvent"},
    {'E', 4, 0x40084504, "write", 8, "ClearEvent"},
    {'E', 5, 0x40084505, "write", 8, "IsSetEvent"},
    {'E', 6, 0x40084506, "write", 8, "TryWaitEvent"},
    {'E', 7, 0x400C4507, "write", 12, "WaitEvent"},
    {'E', 8, 0x40104508, "write", 16, "MultiWaitEvent"},
};

struct NamedCode {
    const char* name;
    uint32_t code;
};

constexpr NamedCode kTable[] = {
    {"GetStreamCount", qv::kGetStreamCount.code},
    {"GetStreamInfos", qv::kGetStreamInfos.code},
    {"SetCtrlStreamID", qv::kSetCtrlStreamID.code},
    {"GetChannelInfo", qv::kGetChannelInfo.code},
    {"GetFamilyInfo", qv::kGetFamilyInfo.code},
    {"GetVideoCaps", qv::kGetVideoCaps.code},
    {"GetAudioCaps", qv::kGetAudioCaps.code},
    {"GetFirmwareStorageInfo", qv::kGetFirmwareStorageInfo.code},
    {"EraseFirmwareData", qv::kEraseFirmwareData.code},
    {"WriteFirmwareData", qv::kWriteFirmwareData.code},
    {"ReadFirmwareData", qv::kReadFirmwareData.code},
    {"SetLEDMode", qv::kSetLEDMode.code},
    {"SetPostReconfig", qv::kSetPostReconfig.code},
    {"GetTemperature", qv::kGetTemperature.code},
    {"GetDeviceTime", qv::kGetDeviceTime.code},
    {"SetDeviceTime", qv::kSetDeviceTime.code},
    {"RegulateDeviceTime", qv::kRegulateDeviceTime.code},
    {"RegisterTimer", qv::kRegisterTimer.code},
    {"UnregisterTimer", qv::kUnregisterTimer.code},
    {"ScheduleTimer", qv::kScheduleTimer.code},
    {"RegisterNotify", qv::kRegisterNotify.code},
    {"UnregisterNotify", qv::kUnregisterNotify.code},
    {"GetNotifyStatus", qv::kGetNotifyStatus.code},
    {"GetVideoBufferInfo", qv::kGetVideoBufferInfo.code},
    {"GetVideoFrameInfo", qv::kGetVideoFrameInfo.code},
    {"StartVideoCapture", qv::kStartVideoCapture.code},
    {"CaptureVideoFrame", qv::kCaptureVideoFrame.code},
    {"GetVideoCaptureStatus", qv::kGetVideoCaptureStatus.code},
    {"StopVideoCapture", qv::kStopVideoCapture.code},
    {"StartAudioCapture", qv::kStartAudioCapture.code},
    {"CaptureAudioFrame", qv::kCaptureAudioFrame.code},
    {"StopAudioCapture", qv::kStopAudioCapture.code},
    {"GetVideoInputSourceArray", qv::kGetVideoInputSourceArray.code},
    {"GetAudioInputSourceArray", qv::kGetAudioInputSourceArray.code},
    {"SetInputSourceScan", qv::kSetInputSourceScan.code},
    {"GetInputSourceScan", qv::kGetInputSourceScan.code},
    {"SetAVInputSourceLink", qv::kSetAVInputSourceLink.code},
    {"GetAVInputSourceLink", qv::kGetAVInputSourceLink.code},
    {"SetVideoInputSource", qv::kSetVideoInputSource.code},
    {"GetVideoInputSource", qv::kGetVideoInputSource.code},
    {"SetAudioInputSource", qv::kSetAudioInputSource.code},
    {"GetAudioInputSource", qv::kGetAudioInputSource.code},
    {"GetEDID", qv::kGetEDID.code},
    {"SetEDID", qv::kSetEDID.code},
    {"GetInputSpecificStatus", qv::kGetInputSpecificStatus.code},
    {"GetVideoSignalStatus", qv::kGetVideoSignalStatus.code},
    {"GetAudioSignalStatus", qv::kGetAudioSignalStatus.code},
    {"GetHDMIInfoFrameValidFlags", qv::kGetHDMIInfoFrameValidFlags.code},
    {"GetHDMIInfoFramePacket", qv::kGetHDMIInfoFramePacket.code},
    {"GetVideoInputAspectRatio", qv::kGetVideoInputAspectRatio.code},
    {"SetVideoInputAspectRatio", qv::kSetVideoInputAspectRatio.code},
    {"GetVideoInputColorFormat", qv::kGetVideoInputColorFormat.code},
    {"SetVideoInputColorFormat", qv::kSetVideoInputColorFormat.code},
    {"GetVideoInputQuantizationRange", qv::kGetVideoInputQuantizationRange.code},
    {"SetVideoInputQuantizationRange", qv::kSetVideoInputQuantizationRange.code},
    {"GetVideoAutoHAlign", qv::kGetVideoAutoHAlign.code},
    {"SetVideoAutoHAlign", qv::kSetVideoAutoHAlign.code},
    {"GetVideoSamplingPhase", qv::kGetVideoSamplingPhase.code},
    {"SetVideoSamplingPhase", qv::kSetVideoSamplingPhase.code},
    {"GetVideoSamplingPhaseAutoAdjust", qv::kGetVideoSamplingPhaseAutoAdjust.code},
    {"SetVideoSamplingPhaseAutoAdjust", qv::kSetVideoSamplingPhaseAutoAdjust.code},
    {"SetVideoTiming", qv::kSetVideoTiming.code},
    {"GetVideoPreferredTimingArray", qv::kGetVideoPreferredTimingArray.code},
    {"SetCustomVideoTiming", qv::kSetCustomVideoTiming.code},
    {"GetCustomVideoTimingsCount", qv::kGetCustomVideoTimingsCount.code},
    {"GetCustomVideoTimingsArray", qv::kGetCustomVideoTimingsArray.code},
    {"SetCustomVideoTimingsArray", qv::kSetCustomVideoTimingsArray.code},
    {"GetCustomVideoResolutionsCount", qv::kGetCustomVideoResolutionsCount.code},
    {"GetCustomVideoResolutionsArray", qv::kGetCustomVideoResolutionsArray.code},
    {"SetCustomVideoResolutionsArray", qv::kSetCustomVideoResolutionsArray.code},
    {"CreateImage", qv::kCreateImage.code},
    {"OpenImage", qv::kOpenImage.code},
    {"CloseImage", qv::kCloseImage.code},
    {"UploadImage", qv::kUploadImage.code},
    {"PinVideoBuffer", qv::kPinVideoBuffer.code},
    {"UnpinVideoBuffer", qv::kUnpinVideoBuffer.code},
    {"SaveSettingsAsPreset", qv::kSaveSettingsAsPreset.code},
    {"ReloadPreset", qv::kReloadPreset.code},
    {"GetVideoConnectFormat", qv::kGetVideoConnectFormat.code},
    {"GetVideoProcessSettings", qv::kGetVideoProcessSettings.code},
    {"SetVideoProcessSettings", qv::kSetVideoProcessSettings.code},
    {"GetVideoOSDSettings", qv::kGetVideoOSDSettings.code},
    {"SetVideoOSDSettings", qv::kSetVideoOSDSettings.code},
    {"GetVideoOSDImage", qv::kGetVideoOSDImage.code},
    {"SetVideoOSDImage", qv::kSetVideoOSDImage.code},
    {"GetVideoBrightness", qv::kGetVideoBrightness.code},
    {"SetVideoBrightness", qv::kSetVideoBrightness.code},
    {"GetVideoContrast", qv::kGetVideoContrast.code},
    {"SetVideoContrast", qv::kSetVideoContrast.code},
    {"GetVideoHue", qv::kGetVideoHue.code},
    {"SetVideoHue", qv::kSetVideoHue.code},
    {"GetVideoSaturation", qv::kGetVideoSaturation.code},
    {"SetVideoSaturation", qv::kSetVideoSaturation.code},
    {"SetSDIANCType", qv::kSetSDIANCType.code},
    {"GetSDIANCPacket", qv::kGetSDIANCPacket.code},
    {"StartVideoLumoCapture", qv::kStartVideoLumoCapture.code},
    {"SetVideoLumoCaptureSettings", qv::kSetVideoLumoCaptureSettings.code},
    {"CaptureSetVideoLumoFrame", qv::kCaptureSetVideoLumoFrame.code},
    {"GetVideoLumoCaptureStatus", qv::kGetVideoLumoCaptureStatus.code},
    {"StopVideoLumoCapture", qv::kStopVideoLumoCapture.code},
    {"CreateEvent", qv::kCreateEvent.code},
    {"CloseEvent", qv::kCloseEvent.code},
    {"SetEvent", qv::kSetEvent.code},
    {"ClearEvent", qv::kClearEvent.code},
    {"IsSetEvent", qv::kIsSetEvent.code},
    {"TryWaitEvent", qv::kTryWaitEvent.code},
    {"WaitEvent", qv::kWaitEvent.code},
    {"MultiWaitEvent", qv::kMultiWaitEvent.code},
};
// clang-format on

// The bits of an ioctl number on i386, written out on their own.
uint32_t Encode(const GoldenRequest& request) {
    const std::string direction = request.direction;
    uint32_t bits = 0;
    if (direction == "write" || direction == "both") bits |= 0x40000000u;
    if (direction == "read" || direction == "both") bits |= 0x80000000u;
    return bits + request.size * 0x10000u + static_cast<uint32_t>(request.type) * 0x100u +
           request.number;
}

TEST(RequestCodesTest, TheListHas108DistinctRequestsWhoseCodesFollowFromTheirColumns) {
    std::set<uint32_t> codes;
    for (const GoldenRequest& request : kGolden) {
        EXPECT_EQ(request.code, Encode(request)) << request.name;
        codes.insert(request.code);
    }
    EXPECT_EQ(108u, std::size(kGolden));
    EXPECT_EQ(108u, codes.size());
}

TEST(RequestCodesTest, TheLibrarysTableAgreesWithTheListRowByRow) {
    ASSERT_EQ(std::size(kGolden), std::size(kTable));
    for (size_t i = 0; i < std::size(kGolden); ++i) {
        EXPECT_STREQ(kGolden[i].name, kTable[i].name);
        EXPECT_EQ(kGolden[i].code, kTable[i].code) << kGolden[i].name;
    }
}

TEST(RequestCodesTest, NumbersThatAreNotListedAreNeverUsed) {
    const std::set<uint32_t> unused{3, 5, 23, 24, 28, 29, 30, 40, 42, 46, 106, 107, 108, 110};
    for (const NamedCode& row : kTable) {
        const bool channelRequest = (row.code >> 8 & 0xFF) == 'X';
        EXPECT_FALSE(channelRequest && unused.count(row.code & 0xFF) != 0) << row.name;
    }
}

// Each code of the list, sent raw, is journalled by the simulation under the name of the list.
TEST(RequestCodesTest, TheSimulationKnowsEveryCodeByTheNameOfTheList) {
    SimRig rig;
    rig.Add(Pelix());
    rig.Attach();
    const int channel = open("/dev/video0", O_RDWR | O_NONBLOCK);
    const int events = open("/dev/qv-event", O_RDWR);
    ASSERT_GE(channel, 0);
    ASSERT_GE(events, 0);
    for (const GoldenRequest& request : kGolden) {
        alignas(8) char record[8192];
        memset(record, 0, sizeof record);
        rig.ClearJournal();
        ioctl(request.type == 'X' ? channel : events, request.code, record);
        const auto lines = rig.JournalLines();
        ASSERT_EQ(1u, lines.size()) << request.name;
        EXPECT_EQ(request.name, lines[0].request);
        EXPECT_EQ(std::string::npos, lines[0].result.find("ENOTTY")) << request.name;
    }
    close(channel);
    close(events);
}

}  // namespace
