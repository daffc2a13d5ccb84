// Opening, identity, firmware and settings of a PCIe channel.
#include "QVCaptureBase.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "QVPelixCapture.h"

namespace {

constexpr unsigned int kBoards = 16;
constexpr int kChannelsPerBoard = 16;
constexpr _QVCAP_HDMI_INFOFRAME_ID kInfoFrameIds = 12;

}  // namespace

bool CQVCaptureBase::OpenNode(const char* path) {
    m_hChannelFD = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    return m_hChannelFD != qv::kClosed;
}

bool CQVCaptureBase::OpenChannel(int board, int channel) {
    // The unsigned comparison refuses negative boards too.
    if (channel < 0 || static_cast<unsigned int>(board) >= kBoards || channel >= kChannelsPerBoard)
        return false;
    const int count = CQVCaptureControlBase::GetChannelCount();
    for (int i = 0; i < count; ++i) {
        _QVCAP_CHANNEL_INFO info;
        char path[CQVCaptureControlBase::kPathSize];
        if (CQVCaptureControlBase::GetChannelInfoByIndex(i, &info) == QV_RESULT_OK &&
            info.boardIndex == board && info.channelIndex == channel &&
            CQVCaptureControlBase::GetDevicePath(i, path) == QV_RESULT_OK && OpenNode(path))
            return true;
    }
    return false;
}

bool CQVCaptureBase::OpenChannelByPath(const char* path) {
    if (path == nullptr) return false;
    const int count = CQVCaptureControlBase::GetChannelCount();
    for (int i = 0; i < count; ++i) {
        char listed[CQVCaptureControlBase::kPathSize];
        if (CQVCaptureControlBase::GetDevicePath(i, listed) != QV_RESULT_OK) continue;
        if (strcmp(listed, path) != 0) continue;
        if (!OpenNode(path)) return false;
        strcpy(m_szDevicePath, listed);
        return true;
    }
    return false;
}

void CQVCaptureBase::CloseChannel() {
    if (m_hChannelFD == qv::kClosed) return;
    close(m_hChannelFD);
    m_hChannelFD = qv::kClosed;
    ReleaseKeptFrames();
}

QV_RESULT CQVCaptureBase::GetFamilyInfo(void* buffer, unsigned int size) {
    if (buffer == nullptr) return QV_RESULT_BAD_ARGUMENT;
    _QVCAP_PELIX_CAPTURE_INFO info;
    const QV_RESULT result = qv::Do(m_hChannelFD, qv::kGetFamilyInfo, &info);
    if (result == QV_RESULT_OK) memcpy(buffer, &info, std::min<size_t>(size, sizeof info));
    return result;
}

// ---- Firmware --------------------------------------------------------------------------------

QV_RESULT CQVCaptureBase::EraseFirmwareData(unsigned int offset, unsigned int size) {
    return qv::Do(m_hChannelFD, qv::kEraseFirmwareData, {offset, size});
}

QV_RESULT CQVCaptureBase::WriteFirmwareData(unsigned int offset, unsigned char* buffer,
                                            unsigned int size) {
    if (buffer == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return qv::Do(m_hChannelFD, qv::kWriteFirmwareData, {offset, size, qv::WireAddress(buffer)});
}

QV_RESULT CQVCaptureBase::ReadFirmwareData(unsigned int offset, unsigned char* buffer,
                                           unsigned int size, unsigned int* read) {
    if (buffer == nullptr || read == nullptr) return QV_RESULT_BAD_ARGUMENT;
    qv::FirmwareDataRecord record{offset, size, qv::WireAddress(buffer)};
    const QV_RESULT result = qv::Do(m_hChannelFD, qv::kReadFirmwareData, &record);
    if (result == QV_RESULT_OK) *read = record.size;  // a short count is not a failure
    return result;
}

// ---- Requests with a shape of their own ------------------------------------------------------

QV_RESULT CQVCaptureBase::GetVideoInputSourceArray(unsigned int* sources, unsigned int* count) {
    return qv::DoArray(m_hChannelFD, qv::kGetVideoInputSourceArray, sources, count,
                       qv::Excess::kRefuse);
}

QV_RESULT CQVCaptureBase::GetAudioInputSourceArray(unsigned int* sources, unsigned int* count) {
    return qv::DoArray(m_hChannelFD, qv::kGetAudioInputSourceArray, sources, count,
                       qv::Excess::kRefuse);
}

// A PCIe channel has no request for it.
QV_RESULT CQVCaptureBase::GetInputSourceScanState(char*) { return QV_RESULT_FAILED; }

QV_RESULT CQVCaptureBase::GetHDMIInfoFramePacket(_QVCAP_HDMI_INFOFRAME_ID id,
                                                 _HDMI_INFOFRAME_PACKET* packet) {
    if (packet == nullptr || id < 0 || id >= kInfoFrameIds) return QV_RESULT_BAD_ARGUMENT;
    qv::InfoFrameRecord record{id, {}};
    const QV_RESULT result = qv::Do(m_hChannelFD, qv::kGetHDMIInfoFramePacket, &record);
    if (result == QV_RESULT_OK) *packet = record.packet;
    return result;
}

QV_RESULT CQVCaptureBase::GetVideoInputAspectRatio(int* x, int* y) {
    if (x == nullptr || y == nullptr) return QV_RESULT_BAD_ARGUMENT;
    qv::AspectRatioRecord ratio;
    const QV_RESULT result = qv::Do(m_hChannelFD, qv::kGetVideoInputAspectRatio, &ratio);
    if (result != QV_RESULT_OK) return result;
    *x = ratio.x;
    *y = ratio.y;
    return QV_RESULT_OK;
}

QV_RESULT CQVCaptureBase::SetVideoInputAspectRatio(int x, int y) {
    return qv::Do(m_hChannelFD, qv::kSetVideoInputAspectRatio, {x, y});
}

// ---- One request, one line -------------------------------------------------------------------

QV_RESULT CQVCaptureBase::GetChannelInfo(_QVCAP_CHANNEL_INFO* out) {
    return qv::Do(m_hChannelFD, qv::kGetChannelInfo, out);
}

QV_RESULT CQVCaptureBase::GetVideoCaps(_QVCAP_VIDEO_CAPS* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoCaps, out);
}

QV_RESULT CQVCaptureBase::GetAudioCaps(_QVCAP_AUDIO_CAPS* out) {
    return qv::Do(m_hChannelFD, qv::kGetAudioCaps, out);
}

QV_RESULT CQVCaptureBase::GetInputSourceScan(char* out) {
    return qv::Do(m_hChannelFD, qv::kGetInputSourceScan, out);
}

QV_RESULT CQVCaptureBase::SetInputSourceScan(char scan) {
    return qv::Do(m_hChannelFD, qv::kSetInputSourceScan, scan);
}

QV_RESULT CQVCaptureBase::GetAVInputSourceLink(char* out) {
    return qv::Do(m_hChannelFD, qv::kGetAVInputSourceLink, out);
}

QV_RESULT CQVCaptureBase::SetAVInputSourceLink(char link) {
    return qv::Do(m_hChannelFD, qv::kSetAVInputSourceLink, link);
}

QV_RESULT CQVCaptureBase::GetVideoInputSource(unsigned int* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoInputSource, out);
}

QV_RESULT CQVCaptureBase::SetVideoInputSource(unsigned int source) {
    return qv::Do(m_hChannelFD, qv::kSetVideoInputSource, source);
}

QV_RESULT CQVCaptureBase::GetAudioInputSource(unsigned int* out) {
    return qv::Do(m_hChannelFD, qv::kGetAudioInputSource, out);
}

QV_RESULT CQVCaptureBase::SetAudioInputSource(unsigned int source) {
    return qv::Do(m_hChannelFD, qv::kSetAudioInputSource, source);
}

QV_RESULT CQVCaptureBase::SetEDID(unsigned char* edid, unsigned long size) {
    return qv::DoArray(m_hChannelFD, qv::kSetEDID, edid, size);
}

QV_RESULT CQVCaptureBase::GetEDID(unsigned char* edid, unsigned long* size) {
    return qv::DoArray(m_hChannelFD, qv::kGetEDID, edid, size);
}

QV_RESULT CQVCaptureBase::GetInputSpecificStatus(_QVCAP_INPUT_SPECIFIC_STATUS* out) {
    return qv::Do(m_hChannelFD, qv::kGetInputSpecificStatus, out);
}

QV_RESULT CQVCaptureBase::GetVideoSignalStatus(_QVCAP_VIDEO_SIGNAL_STATUS* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoSignalStatus, out);
}

QV_RESULT CQVCaptureBase::GetAudioSignalStatus(_QVCAP_AUDIO_SIGNAL_STATUS* out) {
    return qv::Do(m_hChannelFD, qv::kGetAudioSignalStatus, out);
}

QV_RESULT CQVCaptureBase::GetHDMIInfoFrameValidFlags(unsigned int* out) {
    return qv::Do(m_hChannelFD, qv::kGetHDMIInfoFrameValidFlags, out);
}

QV_RESULT CQVCaptureBase::SetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT format) {
    return qv::Do(m_hChannelFD, qv::kSetVideoInputColorFormat, format);
}

QV_RESULT CQVCaptureBase::GetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoInputColorFormat, out);
}

QV_RESULT CQVCaptureBase::SetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE range) {
    return qv::Do(m_hChannelFD, qv::kSetVideoInputQuantizationRange, range);
}

QV_RESULT CQVCaptureBase::GetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoInputQuantizationRange, out);
}

QV_RESULT CQVCaptureBase::SetLEDMode(unsigned int mode) {
    return qv::Do(m_hChannelFD, qv::kSetLEDMode, mode);
}

QV_RESULT CQVCaptureBase::GetFirmwareStorageInfo(_QVCAP_FIRMWARE_STORAGE* out) {
    return qv::Do(m_hChannelFD, qv::kGetFirmwareStorageInfo, out);
}

QV_RESULT CQVCaptureBase::SetSDIANCType(_QVCAP_SDI_ANC_TYPE* type) {
    return qv::DoGiven(m_hChannelFD, qv::kSetSDIANCType, type);
}

QV_RESULT CQVCaptureBase::GetSDIANCPacket(_QVCAP_SDI_ANC_PACKET* out) {
    return qv::Do(m_hChannelFD, qv::kGetSDIANCPacket, out);
}

QV_RESULT CQVCaptureBase::SetPostReconfig(unsigned int value) {
    return qv::Do(m_hChannelFD, qv::kSetPostReconfig, value);
}

QV_RESULT CQVCaptureBase::GetTemperature(unsigned int* out) {
    return qv::Do(m_hChannelFD, qv::kGetTemperature, out);
}

QV_RESULT CQVCaptureBase::SetCtrlStreamID(int stream) {
    return qv::Do(m_hChannelFD, qv::kSetCtrlStreamID, stream);
}

QV_RESULT CQVCaptureBase::GetStreamCount(int* out) {
    return qv::Do(m_hChannelFD, qv::kGetStreamCount, out);
}

QV_RESULT CQVCaptureBase::GetStreamInfos(_QVCAP_STREAM_INFO* infos, unsigned int* count) {
    return qv::DoArray(m_hChannelFD, qv::kGetStreamInfos, infos, count);
}

QV_RESULT CQVCaptureBase::SetVideoTiming(const _QVCAP_VIDEO_TIMING* timing) {
    return qv::DoGiven(m_hChannelFD, qv::kSetVideoTiming, timing);
}

QV_RESULT CQVCaptureBase::GetVideoPreferredTimingArray(_QVCAP_VIDEO_TIMING* timings,
                                                       unsigned int* count) {
    return qv::DoArray(m_hChannelFD, qv::kGetVideoPreferredTimingArray, timings, count);
}

QV_RESULT CQVCaptureBase::SetCustomVideoTiming(const _QVCAP_VIDEO_CUSTOM_TIMING* timing) {
    return qv::DoGiven(m_hChannelFD, qv::kSetCustomVideoTiming, timing);
}

QV_RESULT CQVCaptureBase::GetCustomVideoTimingsCount(unsigned int* out) {
    return qv::Do(m_hChannelFD, qv::kGetCustomVideoTimingsCount, out);
}

QV_RESULT CQVCaptureBase::GetCustomVideoTimingsArray(_QVCAP_VIDEO_CUSTOM_TIMING* timings,
                                                     unsigned int* count) {
    return qv::DoArray(m_hChannelFD, qv::kGetCustomVideoTimingsArray, timings, count);
}

QV_RESULT CQVCaptureBase::SetCustomVideoTimingsArray(const _QVCAP_VIDEO_CUSTOM_TIMING* timings,
                                                     unsigned int count) {
    return qv::DoArray(m_hChannelFD, qv::kSetCustomVideoTimingsArray, timings, count);
}

QV_RESULT CQVCaptureBase::GetCustomVideoResolutionsCount(unsigned int* out) {
    return qv::Do(m_hChannelFD, qv::kGetCustomVideoResolutionsCount, out);
}

QV_RESULT CQVCaptureBase::GetCustomVideoResolutionsArray(
    _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions, unsigned int* count) {
    return qv::DoArray(m_hChannelFD, qv::kGetCustomVideoResolutionsArray, resolutions, count);
}

QV_RESULT CQVCaptureBase::SetCustomVideoResolutionsArray(
    const _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions, unsigned int count) {
    return qv::DoArray(m_hChannelFD, qv::kSetCustomVideoResolutionsArray, resolutions, count);
}

QV_RESULT CQVCaptureBase::SetVideoAutoHAlign(char on) {
    return qv::Do(m_hChannelFD, qv::kSetVideoAutoHAlign, on);
}

QV_RESULT CQVCaptureBase::GetVideoAutoHAlign(char* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoAutoHAlign, out);
}

QV_RESULT CQVCaptureBase::SetVideoSamplingPhase(unsigned char phase) {
    return qv::Do(m_hChannelFD, qv::kSetVideoSamplingPhase, phase);
}

QV_RESULT CQVCaptureBase::GetVideoSamplingPhase(unsigned char* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoSamplingPhase, out);
}

QV_RESULT CQVCaptureBase::SetVideoSamplingPhaseAutoAdjust(char on) {
    return qv::Do(m_hChannelFD, qv::kSetVideoSamplingPhaseAutoAdjust, on);
}

QV_RESULT CQVCaptureBase::GetVideoSamplingPhaseAutoAdjust(char* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoSamplingPhaseAutoAdjust, out);
}

QV_RESULT CQVCaptureBase::SaveSettingsAsPreset() {
    return qv::Do(m_hChannelFD, qv::kSaveSettingsAsPreset);
}

QV_RESULT CQVCaptureBase::ReloadPreset() { return qv::Do(m_hChannelFD, qv::kReloadPreset); }

QV_RESULT CQVCaptureBase::SetVideoBrightness(int value) {
    return qv::Do(m_hChannelFD, qv::kSetVideoBrightness, value);
}

QV_RESULT CQVCaptureBase::GetVideoBrightness(int* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoBrightness, out);
}

QV_RESULT CQVCaptureBase::SetVideoContrast(int value) {
    return qv::Do(m_hChannelFD, qv::kSetVideoContrast, value);
}

QV_RESULT CQVCaptureBase::GetVideoContrast(int* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoContrast, out);
}

QV_RESULT CQVCaptureBase::SetVideoHue(int value) {
    return qv::Do(m_hChannelFD, qv::kSetVideoHue, value);
}

QV_RESULT CQVCaptureBase::GetVideoHue(int* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoHue, out);
}

QV_RESULT CQVCaptureBase::SetVideoSaturation(int value) {
    return qv::Do(m_hChannelFD, qv::kSetVideoSaturation, value);
}

QV_RESULT CQVCaptureBase::GetVideoSaturation(int* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoSaturation, out);
}

QV_RESULT CQVCaptureBase::GetVideoConnectFormat(_QVCAP_VIDEO_CONNECTION_FORMAT* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoConnectFormat, out);
}

QV_RESULT CQVCaptureBase::SetVideoProcessSettings(const _QVCAP_VIDEO_PROCESS_SETTINGS* settings) {
    return qv::DoGiven(m_hChannelFD, qv::kSetVideoProcessSettings, settings);
}

QV_RESULT CQVCaptureBase::GetVideoProcessSettings(_QVCAP_VIDEO_PROCESS_SETTINGS* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoProcessSettings, out);
}

QV_RESULT CQVCaptureBase::SetVideoOSDSettings(const _QVCAP_VIDEO_OSD_SETTINGS* settings) {
    return qv::DoGiven(m_hChannelFD, qv::kSetVideoOSDSettings, settings);
}

QV_RESULT CQVCaptureBase::GetVideoOSDSettings(_QVCAP_VIDEO_OSD_SETTINGS* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoOSDSettings, out);
}

QV_RESULT CQVCaptureBase::SetVideoOSDImage(const _QVCAP_VIDEO_OSD_IMAGE* image) {
    return qv::DoGiven(m_hChannelFD, qv::kSetVideoOSDImage, image);
}

QV_RESULT CQVCaptureBase::GetVideoOSDImage(_QVCAP_VIDEO_OSD_IMAGE* out) {
    return qv::Do(m_hChannelFD, qv::kGetVideoOSDImage, out);
}
