// The public functions of QVCaptureSettings.h.
#include "QVCaptureSettings.h"

#include "Forward.h"

using qv::Device;
using qv::Pcie;

QV_RESULT QVGetVideoInputSourceArray(QV_CHANNEL channel, unsigned int* sources,
                                     unsigned int* count) {
    return Device(channel, &IQVCaptureDevice::GetVideoInputSourceArray, sources, count);
}

QV_RESULT QVGetAudioInputSourceArray(QV_CHANNEL channel, unsigned int* sources,
                                     unsigned int* count) {
    return Device(channel, &IQVCaptureDevice::GetAudioInputSourceArray, sources, count);
}

QV_RESULT QVGetInputSourceScan(QV_CHANNEL channel, char* scan) {
    return Device(channel, &IQVCaptureDevice::GetInputSourceScan, scan);
}

QV_RESULT QVSetInputSourceScan(QV_CHANNEL channel, char scan) {
    return Device(channel, &IQVCaptureDevice::SetInputSourceScan, scan);
}

QV_RESULT QVGetAVInputSourceLink(QV_CHANNEL channel, char* link) {
    return Device(channel, &IQVCaptureDevice::GetAVInputSourceLink, link);
}

QV_RESULT QVSetAVInputSourceLink(QV_CHANNEL channel, char link) {
    return Device(channel, &IQVCaptureDevice::SetAVInputSourceLink, link);
}

QV_RESULT QVGetVideoInputSource(QV_CHANNEL channel, unsigned int* source) {
    return Device(channel, &IQVCaptureDevice::GetVideoInputSource, source);
}

QV_RESULT QVSetVideoInputSource(QV_CHANNEL channel, unsigned int source) {
    return Device(channel, &IQVCaptureDevice::SetVideoInputSource, source);
}

QV_RESULT QVGetAudioInputSource(QV_CHANNEL channel, unsigned int* source) {
    return Device(channel, &IQVCaptureDevice::GetAudioInputSource, source);
}

QV_RESULT QVSetAudioInputSource(QV_CHANNEL channel, unsigned int source) {
    return Device(channel, &IQVCaptureDevice::SetAudioInputSource, source);
}

QV_RESULT QVGetEDID(QV_CHANNEL channel, unsigned char* edid, unsigned long* size) {
    if (edid == nullptr || size == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Device(channel, &IQVCaptureDevice::GetEDID, edid, size);
}

QV_RESULT QVSetEDID(QV_CHANNEL channel, unsigned char* edid, unsigned long size) {
    return Device(channel, &IQVCaptureDevice::SetEDID, edid, size);
}

QV_RESULT QVGetInputSpecificStatus(QV_CHANNEL channel, _QVCAP_INPUT_SPECIFIC_STATUS* status) {
    return Device(channel, &IQVCaptureDevice::GetInputSpecificStatus, status);
}

QV_RESULT QVGetVideoSignalStatus(QV_CHANNEL channel, _QVCAP_VIDEO_SIGNAL_STATUS* status) {
    return Device(channel, &IQVCaptureDevice::GetVideoSignalStatus, status);
}

QV_RESULT QVGetAudioSignalStatus(QV_CHANNEL channel, _QVCAP_AUDIO_SIGNAL_STATUS* status) {
    return Device(channel, &IQVCaptureDevice::GetAudioSignalStatus, status);
}

QV_RESULT QVGetHDMIInfoFrameValidFlag(QV_CHANNEL channel, unsigned int* flags) {
    return Device(channel, &IQVCaptureDevice::GetHDMIInfoFrameValidFlags, flags);
}

QV_RESULT QVGetHDMIInfoFramePacket(QV_CHANNEL channel, _QVCAP_HDMI_INFOFRAME_ID id,
                                   _HDMI_INFOFRAME_PACKET* packet) {
    return Device(channel, &IQVCaptureDevice::GetHDMIInfoFramePacket, id, packet);
}

QV_RESULT QVSetVideoInputAspectRatio(QV_CHANNEL channel, int x, int y) {
    return Device(channel, &IQVCaptureDevice::SetVideoInputAspectRatio, x, y);
}

QV_RESULT QVGetVideoInputAspectRatio(QV_CHANNEL channel, int* x, int* y) {
    return Device(channel, &IQVCaptureDevice::GetVideoInputAspectRatio, x, y);
}

QV_RESULT QVSetVideoInputColorFormat(QV_CHANNEL channel, _QVCAP_VIDEO_COLOR_FORMAT format) {
    return Device(channel, &IQVCaptureDevice::SetVideoInputColorFormat, format);
}

QV_RESULT QVGetVideoInputColorFormat(QV_CHANNEL channel, _QVCAP_VIDEO_COLOR_FORMAT* format) {
    return Device(channel, &IQVCaptureDevice::GetVideoInputColorFormat, format);
}

QV_RESULT QVSetVideoInputQuantizationRange(QV_CHANNEL channel,
                                           _QVCAP_VIDEO_QUANTIZATION_RANGE range) {
    return Device(channel, &IQVCaptureDevice::SetVideoInputQuantizationRange, range);
}

QV_RESULT QVGetVideoInputQuantizationRange(QV_CHANNEL channel,
                                           _QVCAP_VIDEO_QUANTIZATION_RANGE* range) {
    return Device(channel, &IQVCaptureDevice::GetVideoInputQuantizationRange, range);
}

QV_RESULT QVCaptureSetSDIANCType(QV_CHANNEL channel, _QVCAP_SDI_ANC_TYPE* type) {
    return Device(channel, &IQVCaptureDevice::SetSDIANCType, type);
}

QV_RESULT QVCaptureGetSDIANCPacket(QV_CHANNEL channel, _QVCAP_SDI_ANC_PACKET* packet) {
    return Device(channel, &IQVCaptureDevice::GetSDIANCPacket, packet);
}

QV_RESULT QVSetCtrlStreamID(QV_CHANNEL channel, int stream) {
    return Pcie(channel, &CQVCaptureBase::SetCtrlStreamID, stream);
}

QV_RESULT QVGetStreamCount(QV_CHANNEL channel, int* count) {
    return Pcie(channel, &CQVCaptureBase::GetStreamCount, count);
}

QV_RESULT QVGetStreamInfos(QV_CHANNEL channel, _QVCAP_STREAM_INFO* infos, unsigned int* count) {
    return Pcie(channel, &CQVCaptureBase::GetStreamInfos, infos, count);
}

QV_RESULT QVSetVideoTiming(QV_CHANNEL channel, const _QVCAP_VIDEO_TIMING* timing) {
    return Pcie(channel, &CQVCaptureBase::SetVideoTiming, timing);
}

QV_RESULT QVGetVideoPreferredTimingArray(QV_CHANNEL channel, _QVCAP_VIDEO_TIMING* timings,
                                         unsigned int* count) {
    return Pcie(channel, &CQVCaptureBase::GetVideoPreferredTimingArray, timings, count);
}

QV_RESULT QVSetCustomVideoTiming(QV_CHANNEL channel, const _QVCAP_VIDEO_CUSTOM_TIMING* timing) {
    return Pcie(channel, &CQVCaptureBase::SetCustomVideoTiming, timing);
}

QV_RESULT QVGetCustomVideoTimingsCount(QV_CHANNEL channel, unsigned int* count) {
    return Pcie(channel, &CQVCaptureBase::GetCustomVideoTimingsCount, count);
}

QV_RESULT QVGetCustomVideoTimingsArray(QV_CHANNEL channel, _QVCAP_VIDEO_CUSTOM_TIMING* timings,
                                       unsigned int* count) {
    return Pcie(channel, &CQVCaptureBase::GetCustomVideoTimingsArray, timings, count);
}

QV_RESULT QVSetCustomVideoTimingsArray(QV_CHANNEL channel,
                                       const _QVCAP_VIDEO_CUSTOM_TIMING* timings,
                                       unsigned int count) {
    return Pcie(channel, &CQVCaptureBase::SetCustomVideoTimingsArray, timings, count);
}

QV_RESULT QVGetCustomVideoResolutionsCount(QV_CHANNEL channel, unsigned int* count) {
    return Pcie(channel, &CQVCaptureBase::GetCustomVideoResolutionsCount, count);
}

QV_RESULT QVGetCustomVideoResolutionsArray(QV_CHANNEL channel,
                                           _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions,
                                           unsigned int* count) {
    return Pcie(channel, &CQVCaptureBase::GetCustomVideoResolutionsArray, resolutions, count);
}

QV_RESULT QVSetCustomVideoResolutionsArray(QV_CHANNEL channel,
                                           const _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions,
                                           unsigned int count) {
    return Pcie(channel, &CQVCaptureBase::SetCustomVideoResolutionsArray, resolutions, count);
}

QV_RESULT QVSetVideoAutoHAlign(QV_CHANNEL channel, char on) {
    return Pcie(channel, &CQVCaptureBase::SetVideoAutoHAlign, on);
}

QV_RESULT QVGetVideoAutoHAlign(QV_CHANNEL channel, char* on) {
    return Pcie(channel, &CQVCaptureBase::GetVideoAutoHAlign, on);
}

QV_RESULT QVSetVideoSamplingPhase(QV_CHANNEL channel, unsigned char phase) {
    return Pcie(channel, &CQVCaptureBase::SetVideoSamplingPhase, phase);
}

QV_RESULT QVGetVideoSamplingPhase(QV_CHANNEL channel, unsigned char* phase) {
    return Pcie(channel, &CQVCaptureBase::GetVideoSamplingPhase, phase);
}

QV_RESULT QVSetVideoSamplingPhaseAutoAdjust(QV_CHANNEL channel, char on) {
    return Pcie(channel, &CQVCaptureBase::SetVideoSamplingPhaseAutoAdjust, on);
}

QV_RESULT QVGetVideoSamplingPhaseAutoAdjust(QV_CHANNEL channel, char* on) {
    return Pcie(channel, &CQVCaptureBase::GetVideoSamplingPhaseAutoAdjust, on);
}

QV_RESULT QVSaveSettingsAsPreset(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::SaveSettingsAsPreset);
}

QV_RESULT QVReloadPreset(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::ReloadPreset);
}

QV_RESULT QVSetVideoBrightness(QV_CHANNEL channel, int value) {
    return Pcie(channel, &CQVCaptureBase::SetVideoBrightness, value);
}

QV_RESULT QVGetVideoBrightness(QV_CHANNEL channel, int* value) {
    return Pcie(channel, &CQVCaptureBase::GetVideoBrightness, value);
}

QV_RESULT QVSetVideoContrast(QV_CHANNEL channel, int value) {
    return Pcie(channel, &CQVCaptureBase::SetVideoContrast, value);
}

QV_RESULT QVGetVideoContrast(QV_CHANNEL channel, int* value) {
    return Pcie(channel, &CQVCaptureBase::GetVideoContrast, value);
}

QV_RESULT QVSetVideoHue(QV_CHANNEL channel, int value) {
    return Pcie(channel, &CQVCaptureBase::SetVideoHue, value);
}

QV_RESULT QVGetVideoHue(QV_CHANNEL channel, int* value) {
    return Pcie(channel, &CQVCaptureBase::GetVideoHue, value);
}

QV_RESULT QVSetVideoSaturation(QV_CHANNEL channel, int value) {
    return Pcie(channel, &CQVCaptureBase::SetVideoSaturation, value);
}

QV_RESULT QVGetVideoSaturation(QV_CHANNEL channel, int* value) {
    return Pcie(channel, &CQVCaptureBase::GetVideoSaturation, value);
}

QV_RESULT QVGetVideoConnectFormat(QV_CHANNEL channel, _QVCAP_VIDEO_CONNECTION_FORMAT* format) {
    return Pcie(channel, &CQVCaptureBase::GetVideoConnectFormat, format);
}

QV_RESULT QVSetVideoProcessSettings(QV_CHANNEL channel,
                                    const _QVCAP_VIDEO_PROCESS_SETTINGS* settings) {
    return Pcie(channel, &CQVCaptureBase::SetVideoProcessSettings, settings);
}

QV_RESULT QVGetVideoProcessSettings(QV_CHANNEL channel, _QVCAP_VIDEO_PROCESS_SETTINGS* settings) {
    return Pcie(channel, &CQVCaptureBase::GetVideoProcessSettings, settings);
}

QV_RESULT QVSetVideoOSDSettings(QV_CHANNEL channel, const _QVCAP_VIDEO_OSD_SETTINGS* settings) {
    return Pcie(channel, &CQVCaptureBase::SetVideoOSDSettings, settings);
}

QV_RESULT QVGetVideoOSDSettings(QV_CHANNEL channel, _QVCAP_VIDEO_OSD_SETTINGS* settings) {
    return Pcie(channel, &CQVCaptureBase::GetVideoOSDSettings, settings);
}

QV_RESULT QVSetVideoOSDImage(QV_CHANNEL channel, const _QVCAP_VIDEO_OSD_IMAGE* image) {
    return Pcie(channel, &CQVCaptureBase::SetVideoOSDImage, image);
}

QV_RESULT QVGetVideoOSDImage(QV_CHANNEL channel, _QVCAP_VIDEO_OSD_IMAGE* image) {
    return Pcie(channel, &CQVCaptureBase::GetVideoOSDImage, image);
}
