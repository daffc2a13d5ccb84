// Every request that the simulated driver serves, one line each: the protocol's row, the handler,
// for settings the name under which the value is stored, for arrays the bytes per element.
#include "Handlers.h"

namespace qvsim {
namespace {

// clang-format off
constexpr Row kRows[] = {
    {qv::kGetStreamCount,                  GetArrayCount,          "StreamInfos",                  16},
    {qv::kGetStreamInfos,                  GetArray,               "StreamInfos",                  16},
    {qv::kSetCtrlStreamID,                 SetRecordValue,         "CtrlStreamID"},
    {qv::kGetChannelInfo,                  GetChannelInfo},
    {qv::kGetFamilyInfo,                   GetFamilyInfo},
    {qv::kGetVideoCaps,                    GetRecord,              "VideoCaps"},
    {qv::kGetAudioCaps,                    GetRecord,              "AudioCaps"},
    {qv::kGetFirmwareStorageInfo,          GetFirmwareStorageInfo},
    {qv::kEraseFirmwareData,               EraseFirmwareData},
    {qv::kWriteFirmwareData,               WriteFirmwareData},
    {qv::kReadFirmwareData,                ReadFirmwareData},
    {qv::kSetLEDMode,                      SetRecordValue,         "LEDMode"},
    {qv::kSetPostReconfig,                 SetRecordValue,         "PostReconfig"},
    {qv::kGetTemperature,                  GetRecord,              "Temperature"},
    {qv::kGetDeviceTime,                   GetDeviceTime},
    {qv::kSetDeviceTime,                   SetDeviceTime},
    {qv::kRegulateDeviceTime,              SetDeviceTime},
    {qv::kRegisterTimer,                   RegisterTimer},
    {qv::kUnregisterTimer,                 UnregisterTimer},
    {qv::kScheduleTimer,                   ScheduleTimer},
    {qv::kRegisterNotify,                  RegisterNotify},
    {qv::kUnregisterNotify,                UnregisterNotify},
    {qv::kGetNotifyStatus,                 GetNotifyStatus},
    {qv::kGetVideoBufferInfo,              GetVideoBufferInfo},
    {qv::kGetVideoFrameInfo,               GetVideoFrameInfo},
    {qv::kStartVideoCapture,               StartVideoCapture},
    {qv::kCaptureVideoFrame,               CaptureVideoFrame},
    {qv::kGetVideoCaptureStatus,           GetVideoCaptureStatus},
    {qv::kStopVideoCapture,                StopVideoCapture},
    {qv::kStartAudioCapture,               StartAudioCapture},
    {qv::kCaptureAudioFrame,               CaptureAudioFrame},
    {qv::kStopAudioCapture,                StopAudioCapture},
    {qv::kGetVideoInputSourceArray,        GetArray,               "VideoInputSources",            4},
    {qv::kGetAudioInputSourceArray,        GetArray,               "AudioInputSources",            4},
    {qv::kSetInputSourceScan,              SetRecordValue,         "InputSourceScan"},
    {qv::kGetInputSourceScan,              GetRecord,              "InputSourceScan"},
    {qv::kSetAVInputSourceLink,            SetRecordValue,         "AVInputSourceLink"},
    {qv::kGetAVInputSourceLink,            GetRecord,              "AVInputSourceLink"},
    {qv::kSetVideoInputSource,             SetRecordValue,         "VideoInputSource"},
    {qv::kGetVideoInputSource,             GetRecord,              "VideoInputSource"},
    {qv::kSetAudioInputSource,             SetRecordValue,         "AudioInputSource"},
    {qv::kGetAudioInputSource,             GetRecord,              "AudioInputSource"},
    {qv::kGetEDID,                         GetArray,               "EDID",                         1},
    {qv::kSetEDID,                         SetArray,               "EDID",                         1},
    {qv::kGetInputSpecificStatus,          GetRecord,              "InputSpecificStatus"},
    {qv::kGetVideoSignalStatus,            GetSignalStatus,        "VideoSignalStatus"},
    {qv::kGetAudioSignalStatus,            GetSignalStatus,        "AudioSignalStatus"},
    {qv::kGetHDMIInfoFrameValidFlags,      GetRecord,              "HDMIInfoFrameValidFlags"},
    {qv::kGetHDMIInfoFramePacket,          GetInfoFrame,           "HDMIInfoFrame"},
    {qv::kGetVideoInputAspectRatio,        GetRecord,              "VideoInputAspectRatio"},
    {qv::kSetVideoInputAspectRatio,        SetRecordValue,         "VideoInputAspectRatio"},
    {qv::kGetVideoInputColorFormat,        GetRecord,              "VideoInputColorFormat"},
    {qv::kSetVideoInputColorFormat,        SetRecordValue,         "VideoInputColorFormat"},
    {qv::kGetVideoInputQuantizationRange,  GetRecord,              "VideoInputQuantizationRange"},
    {qv::kSetVideoInputQuantizationRange,  SetRecordValue,         "VideoInputQuantizationRange"},
    {qv::kGetVideoAutoHAlign,              GetRecord,              "VideoAutoHAlign"},
    {qv::kSetVideoAutoHAlign,              SetRecordValue,         "VideoAutoHAlign"},
    {qv::kGetVideoSamplingPhase,           GetRecord,              "VideoSamplingPhase"},
    {qv::kSetVideoSamplingPhase,           SetRecordValue,         "VideoSamplingPhase"},
    {qv::kGetVideoSamplingPhaseAutoAdjust, GetRecord,              "VideoSamplingPhaseAutoAdjust"},
    {qv::kSetVideoSamplingPhaseAutoAdjust, SetRecordValue,         "VideoSamplingPhaseAutoAdjust"},
    {qv::kSetVideoTiming,                  SetRecordValue,         "VideoTiming"},
    {qv::kGetVideoPreferredTimingArray,    GetArray,               "VideoPreferredTimings",        28},
    {qv::kSetCustomVideoTiming,            SetRecordValue,         "CustomVideoTiming"},
    {qv::kGetCustomVideoTimingsCount,      GetArrayCount,          "CustomVideoTimings",           27},
    {qv::kGetCustomVideoTimingsArray,      GetArray,               "CustomVideoTimings",           27},
    {qv::kSetCustomVideoTimingsArray,      SetArray,               "CustomVideoTimings",           27},
    {qv::kGetCustomVideoResolutionsCount,  GetArrayCount,          "CustomVideoResolutions",       4},
    {qv::kGetCustomVideoResolutionsArray,  GetArray,               "CustomVideoResolutions",       4},
    {qv::kSetCustomVideoResolutionsArray,  SetArray,               "CustomVideoResolutions",       4},
    {qv::kCreateImage,                     CreateImage},
    {qv::kOpenImage,                       OpenImage},
    {qv::kCloseImage,                      CloseImage},
    {qv::kUploadImage,                     SetRecordValue,         "UploadImage"},
    {qv::kPinVideoBuffer,                  PinVideoBuffer},
    {qv::kUnpinVideoBuffer,                UnpinVideoBuffer},
    {qv::kSaveSettingsAsPreset,            SavePreset},
    {qv::kReloadPreset,                    ReloadPreset},
    {qv::kGetVideoConnectFormat,           GetRecord,              "VideoConnectFormat"},
    {qv::kGetVideoProcessSettings,         GetRecord,              "VideoProcessSettings"},
    {qv::kSetVideoProcessSettings,         SetRecordValue,         "VideoProcessSettings"},
    {qv::kGetVideoOSDSettings,             GetRecord,              "VideoOSDSettings"},
    {qv::kSetVideoOSDSettings,             SetRecordValue,         "VideoOSDSettings"},
    {qv::kGetVideoOSDImage,                GetRecord,              "VideoOSDImage"},
    {qv::kSetVideoOSDImage,                SetRecordValue,         "VideoOSDImage"},
    {qv::kGetVideoBrightness,              GetRecord,              "VideoBrightness"},
    {qv::kSetVideoBrightness,              SetRecordValue,         "VideoBrightness"},
    {qv::kGetVideoContrast,                GetRecord,              "VideoContrast"},
    {qv::kSetVideoContrast,                SetRecordValue,         "VideoContrast"},
    {qv::kGetVideoHue,                     GetRecord,              "VideoHue"},
    {qv::kSetVideoHue,                     SetRecordValue,         "VideoHue"},
    {qv::kGetVideoSaturation,              GetRecord,              "VideoSaturation"},
    {qv::kSetVideoSaturation,              SetRecordValue,         "VideoSaturation"},
    {qv::kSetSDIANCType,                   SetRecordValue,         "SDIANCType"},
    {qv::kGetSDIANCPacket,                 GetRecord,              "SDIANCPacket"},
    {qv::kStartVideoLumoCapture,           RefuseLumoCapture},
    {qv::kSetVideoLumoCaptureSettings,     RefuseLumoCapture},
    {qv::kCaptureSetVideoLumoFrame,        RefuseLumoCapture},
    {qv::kGetVideoLumoCaptureStatus,       GetLumoCaptureStatus,    "VideoLumoCaptureStatus"},
    {qv::kStopVideoLumoCapture,            AcceptAction},
    {qv::kCreateEvent,                     CreateEvent},
    {qv::kCloseEvent,                      CloseEvent},
    {qv::kSetEvent,                        SetEvent},
    {qv::kClearEvent,                      ClearEvent},
    {qv::kIsSetEvent,                      IsSetEvent},
    {qv::kTryWaitEvent,                    TryWaitEvent},
    {qv::kWaitEvent,                       WaitEvent},
    {qv::kMultiWaitEvent,                  MultiWaitEvent},
};
// clang-format on

static_assert(sizeof kRows / sizeof kRows[0] == 108);

}  // namespace

const Row* FindRow(uint32_t code) {
    for (const Row& row : kRows)
        if (row.code == code) return &row;
    return nullptr;
}

const Row* FindRow(const std::string& name) {
    for (const Row& row : kRows)
        if (name == row.name) return &row;
    return nullptr;
}

const Row* AllRows(size_t& count) {
    count = sizeof kRows / sizeof kRows[0];
    return kRows;
}

}  // namespace qvsim
