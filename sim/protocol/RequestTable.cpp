// Every request that the simulated driver serves: one line each, name, number, handler, and for
// settings the name under which the value is kept, for arrays the bytes per element.
#include "Handlers.h"
#include "QVDriverRequests.h"

namespace qvsim {
namespace {

// A table stays a table.
// clang-format off
constexpr Row kRows[] = {
    {"GetStreamCount", qv::kGetStreamCount.code, GetArrayCount, "StreamInfos", 16},
    {"GetStreamInfos", qv::kGetStreamInfos.code, GetArray, "StreamInfos", 16},
    {"SetCtrlStreamID", qv::kSetCtrlStreamID.code, SetRecordValue, "CtrlStreamID", 0},
    {"GetChannelInfo", qv::kGetChannelInfo.code, GetChannelInfo, "", 0},
    {"GetFamilyInfo", qv::kGetFamilyInfo.code, GetFamilyInfo, "", 0},
    {"GetVideoCaps", qv::kGetVideoCaps.code, GetRecord, "VideoCaps", 0},
    {"GetAudioCaps", qv::kGetAudioCaps.code, GetRecord, "AudioCaps", 0},
    {"GetFirmwareStorageInfo", qv::kGetFirmwareStorageInfo.code, GetFirmwareStorageInfo, "", 0},
    {"EraseFirmwareData", qv::kEraseFirmwareData.code, EraseFirmwareData, "", 0},
    {"WriteFirmwareData", qv::kWriteFirmwareData.code, WriteFirmwareData, "", 0},
    {"ReadFirmwareData", qv::kReadFirmwareData.code, ReadFirmwareData, "", 0},
    {"SetLEDMode", qv::kSetLEDMode.code, SetRecordValue, "LEDMode", 0},
    {"SetPostReconfig", qv::kSetPostReconfig.code, SetRecordValue, "PostReconfig", 0},
    {"GetTemperature", qv::kGetTemperature.code, GetRecord, "Temperature", 0},
    {"GetDeviceTime", qv::kGetDeviceTime.code, GetDeviceTime, "", 0},
    {"SetDeviceTime", qv::kSetDeviceTime.code, SetDeviceTime, "", 0},
    {"RegulateDeviceTime", qv::kRegulateDeviceTime.code, SetDeviceTime, "", 0},
    {"RegisterTimer", qv::kRegisterTimer.code, RegisterTimer, "", 0},
    {"UnregisterTimer", qv::kUnregisterTimer.code, UnregisterTimer, "", 0},
    {"ScheduleTimer", qv::kScheduleTimer.code, ScheduleTimer, "", 0},
    {"RegisterNotify", qv::kRegisterNotify.code, RegisterNotify, "", 0},
    {"UnregisterNotify", qv::kUnregisterNotify.code, UnregisterNotify, "", 0},
    {"GetNotifyStatus", qv::kGetNotifyStatus.code, GetNotifyStatus, "", 0},
    {"GetVideoBufferInfo", qv::kGetVideoBufferInfo.code, GetVideoBufferInfo, "", 0},
    {"GetVideoFrameInfo", qv::kGetVideoFrameInfo.code, GetVideoFrameInfo, "", 0},
    {"StartVideoCapture", qv::kStartVideoCapture.code, StartVideoCapture, "", 0},
    {"CaptureVideoFrame", qv::kCaptureVideoFrame.code, CaptureVideoFrame, "", 0},
    {"GetVideoCaptureStatus", qv::kGetVideoCaptureStatus.code, GetVideoCaptureStatus, "", 0},
    {"StopVideoCapture", qv::kStopVideoCapture.code, StopVideoCapture, "", 0},
    {"StartAudioCapture", qv::kStartAudioCapture.code, StartAudioCapture, "", 0},
    {"CaptureAudioFrame", qv::kCaptureAudioFrame.code, CaptureAudioFrame, "", 0},
    {"StopAudioCapture", qv::kStopAudioCapture.code, StopAudioCapture, "", 0},
    {"GetVideoInputSourceArray", qv::kGetVideoInputSourceArray.code, GetArray, "VideoInputSources",
     4},
    {"GetAudioInputSourceArray", qv::kGetAudioInputSourceArray.code, GetArray, "AudioInputSources",
     4},
    {"SetInputSourceScan", qv::kSetInputSourceScan.code, SetRecordValue, "InputSourceScan", 0},
    {"GetInputSourceScan", qv::kGetInputSourceScan.code, GetRecord, "InputSourceScan", 0},
    {"SetAVInputSourceLink", qv::kSetAVInputSourceLink.code, SetRecordValue, "AVInputSourceLink",
     0},
    {"GetAVInputSourceLink", qv::kGetAVInputSourceLink.code, GetRecord, "AVInputSourceLink", 0},
    {"SetVideoInputSource", qv::kSetVideoInputSource.code, SetRecordValue, "VideoInputSource", 0},
    {"GetVideoInputSource", qv::kGetVideoInputSource.code, GetRecord, "VideoInputSource", 0},
    {"SetAudioInputSource", qv::kSetAudioInputSource.code, SetRecordValue, "AudioInputSource", 0},
    {"GetAudioInputSource", qv::kGetAudioInputSource.code, GetRecord, "AudioInputSource", 0},
    {"GetEDID", qv::kGetEDID.code, GetArray, "EDID", 1},
    {"SetEDID", qv::kSetEDID.code, SetArray, "EDID", 1},
    {"GetInputSpecificStatus", qv::kGetInputSpecificStatus.code, GetRecord, "InputSpecificStatus",
     0},
    {"GetVideoSignalStatus", qv::kGetVideoSignalStatus.code, GetSignalStatus, "VideoSignalStatus",
     0},
    {"GetAudioSignalStatus", qv::kGetAudioSignalStatus.code, GetSignalStatus, "AudioSignalStatus",
     0},
    {"GetHDMIInfoFrameValidFlags", qv::kGetHDMIInfoFrameValidFlags.code, GetRecord,
     "HDMIInfoFrameValidFlags", 0},
    {"GetHDMIInfoFramePacket", qv::kGetHDMIInfoFramePacket.code, GetInfoFrame, "HDMIInfoFrame", 0},
    {"GetVideoInputAspectRatio", qv::kGetVideoInputAspectRatio.code, GetRecord,
     "VideoInputAspectRatio", 0},
    {"SetVideoInputAspectRatio", qv::kSetVideoInputAspectRatio.code, SetRecordValue,
     "VideoInputAspectRatio", 0},
    {"GetVideoInputColorFormat", qv::kGetVideoInputColorFormat.code, GetRecord,
     "VideoInputColorFormat", 0},
    {"SetVideoInputColorFormat", qv::kSetVideoInputColorFormat.code, SetRecordValue,
     "VideoInputColorFormat", 0},
    {"GetVideoInputQuantizationRange", qv::kGetVideoInputQuantizationRange.code, GetRecord,
     "VideoInputQuantizationRange", 0},
    {"SetVideoInputQuantizationRange", qv::kSetVideoInputQuantizationRange.code, SetRecordValue,
     "VideoInputQuantizationRange", 0},
    {"GetVideoAutoHAlign", qv::kGetVideoAutoHAlign.code, GetRecord, "VideoAutoHAlign", 0},
    {"SetVideoAutoHAlign", qv::kSetVideoAutoHAlign.code, SetRecordValue, "VideoAutoHAlign", 0},
    {"GetVideoSamplingPhase", qv::kGetVideoSamplingPhase.code, GetRecord, "VideoSamplingPhase", 0},
    {"SetVideoSamplingPhase", qv::kSetVideoSamplingPhase.code, SetRecordValue, "VideoSamplingPhase",
     0},
    {"GetVideoSamplingPhaseAutoAdjust", qv::kGetVideoSamplingPhaseAutoAdjust.code, GetRecord,
     "VideoSamplingPhaseAutoAdjust", 0},
    {"SetVideoSamplingPhaseAutoAdjust", qv::kSetVideoSamplingPhaseAutoAdjust.code, SetRecordValue,
     "VideoSamplingPhaseAutoAdjust", 0},
    {"SetVideoTiming", qv::kSetVideoTiming.code, SetRecordValue, "VideoTiming", 0},
    {"GetVideoPreferredTimingArray", qv::kGetVideoPreferredTimingArray.code, GetArray,
     "VideoPreferredTimings", 28},
    {"SetCustomVideoTiming", qv::kSetCustomVideoTiming.code, SetRecordValue, "CustomVideoTiming",
     0},
    {"GetCustomVideoTimingsCount", qv::kGetCustomVideoTimingsCount.code, GetArrayCount,
     "CustomVideoTimings", 27},
    {"GetCustomVideoTimingsArray", qv::kGetCustomVideoTimingsArray.code, GetArray,
     "CustomVideoTimings", 27},
    {"SetCustomVideoTimingsArray", qv::kSetCustomVideoTimingsArray.code, SetArray,
     "CustomVideoTimings", 27},
    {"GetCustomVideoResolutionsCount", qv::kGetCustomVideoResolutionsCount.code, GetArrayCount,
     "CustomVideoResolutions", 4},
    {"GetCustomVideoResolutionsArray", qv::kGetCustomVideoResolutionsArray.code, GetArray,
     "CustomVideoResolutions", 4},
    {"SetCustomVideoResolutionsArray", qv::kSetCustomVideoResolutionsArray.code, SetArray,
     "CustomVideoResolutions", 4},
    {"CreateImage", qv::kCreateImage.code, CreateImage, "", 0},
    {"OpenImage", qv::kOpenImage.code, OpenImage, "", 0},
    {"CloseImage", qv::kCloseImage.code, CloseImage, "", 0},
    {"UploadImage", qv::kUploadImage.code, SetRecordValue, "UploadImage", 0},
    {"PinVideoBuffer", qv::kPinVideoBuffer.code, PinVideoBuffer, "", 0},
    {"UnpinVideoBuffer", qv::kUnpinVideoBuffer.code, UnpinVideoBuffer, "", 0},
    {"SaveSettingsAsPreset", qv::kSaveSettingsAsPreset.code, SavePreset, "", 0},
    {"ReloadPreset", qv::kReloadPreset.code, ReloadPreset, "", 0},
    {"GetVideoConnectFormat", qv::kGetVideoConnectFormat.code, GetRecord, "VideoConnectFormat", 0},
    {"GetVideoProcessSettings", qv::kGetVideoProcessSettings.code, GetRecord,
     "VideoProcessSettings", 0},
    {"SetVideoProcessSettings", qv::kSetVideoProcessSettings.code, SetRecordValue,
     "VideoProcessSettings", 0},
    {"GetVideoOSDSettings", qv::kGetVideoOSDSettings.code, GetRecord, "VideoOSDSettings", 0},
    {"SetVideoOSDSettings", qv::kSetVideoOSDSettings.code, SetRecordValue, "VideoOSDSettings", 0},
    {"GetVideoOSDImage", qv::kGetVideoOSDImage.code, GetRecord, "VideoOSDImage", 0},
    {"SetVideoOSDImage", qv::kSetVideoOSDImage.code, SetRecordValue, "VideoOSDImage", 0},
    {"GetVideoBrightness", qv::kGetVideoBrightness.code, GetRecord, "VideoBrightness", 0},
    {"SetVideoBrightness", qv::kSetVideoBrightness.code, SetRecordValue, "VideoBrightness", 0},
    {"GetVideoContrast", qv::kGetVideoContrast.code, GetRecord, "VideoContrast", 0},
    {"SetVideoContrast", qv::kSetVideoContrast.code, SetRecordValue, "VideoContrast", 0},
    {"GetVideoHue", qv::kGetVideoHue.code, GetRecord, "VideoHue", 0},
    {"SetVideoHue", qv::kSetVideoHue.code, SetRecordValue, "VideoHue", 0},
    {"GetVideoSaturation", qv::kGetVideoSaturation.code, GetRecord, "VideoSaturation", 0},
    {"SetVideoSaturation", qv::kSetVideoSaturation.code, SetRecordValue, "VideoSaturation", 0},
    {"SetSDIANCType", qv::kSetSDIANCType.code, SetRecordValue, "SDIANCType", 0},
    {"GetSDIANCPacket", qv::kGetSDIANCPacket.code, GetRecord, "SDIANCPacket", 0},
    {"StartVideoLumoCapture", qv::kStartVideoLumoCapture.code, SetRecordValue,
     "StartVideoLumoCapture", 0},
    {"SetVideoLumoCaptureSettings", qv::kSetVideoLumoCaptureSettings.code, SetRecordValue,
     "VideoLumoCaptureSettings", 0},
    {"CaptureSetVideoLumoFrame", qv::kCaptureSetVideoLumoFrame.code, SetRecordValue,
     "CaptureSetVideoLumoFrame", 0},
    {"GetVideoLumoCaptureStatus", qv::kGetVideoLumoCaptureStatus.code, GetRecord,
     "VideoLumoCaptureStatus", 0},
    {"StopVideoLumoCapture", qv::kStopVideoLumoCapture.code, AcceptAction, "", 0},
    {"CreateEvent", qv::kCreateEvent.code, CreateEvent, "", 0},
    {"CloseEvent", qv::kCloseEvent.code, CloseEvent, "", 0},
    {"SetEvent", qv::kSetEvent.code, SetEvent, "", 0},
    {"ClearEvent", qv::kClearEvent.code, ClearEvent, "", 0},
    {"IsSetEvent", qv::kIsSetEvent.code, IsSetEvent, "", 0},
    {"TryWaitEvent", qv::kTryWaitEvent.code, TryWaitEvent, "", 0},
    {"WaitEvent", qv::kWaitEvent.code, WaitEvent, "", 0},
    {"MultiWaitEvent", qv::kMultiWaitEvent.code, MultiWaitEvent, "", 0},
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
