// The public functions over channels: the one list of both registries, opening, and forwarding.
//
// Nothing here but argument checks and forwarding; every behaviour lives in the channel objects. A
// null channel is refused everywhere, and an operation that only PCIe channels have fails on a
// channel of another kind: the object is asked for its kind, never cast on trust.
#include "QVCapture.h"

#include <new>
#include <utility>

#include "QVCaptureBase.h"
#include "QVPelixCapture.h"
#include "QVUSBCaptureBase.h"

namespace {

constexpr unsigned char kMajor = 3;
constexpr unsigned char kMinor = 3;
constexpr unsigned short kBuild = 0;

IQVCaptureDevice* AsDevice(QV_CHANNEL channel) { return static_cast<IQVCaptureDevice*>(channel); }

// Calls an operation that both kinds of channel have.
template <class... Parameters, class... Arguments>
QV_RESULT Device(QV_CHANNEL channel, QV_RESULT (IQVCaptureDevice::*operation)(Parameters...),
                 Arguments... arguments) {
    if (channel == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return (AsDevice(channel)->*operation)(arguments...);
}

// Calls an operation that only PCIe channels have.
template <class... Parameters, class... Arguments>
QV_RESULT Pcie(QV_CHANNEL channel, QV_RESULT (CQVCaptureBase::*operation)(Parameters...),
               Arguments... arguments) {
    if (channel == nullptr) return QV_RESULT_BAD_ARGUMENT;
    CQVCaptureBase* pcie = AsDevice(channel)->AsPcieChannel();
    return pcie == nullptr ? QV_RESULT_FAILED : (pcie->*operation)(arguments...);
}

// The same for operations that make a handle; 0 is none.
template <class... Parameters, class... Arguments>
unsigned long long Pcie(QV_CHANNEL channel,
                        unsigned long long (CQVCaptureBase::*operation)(Parameters...),
                        Arguments... arguments) {
    CQVCaptureBase* pcie = channel == nullptr ? nullptr : AsDevice(channel)->AsPcieChannel();
    return pcie == nullptr ? 0 : (pcie->*operation)(arguments...);
}

// The list is the PCIe channels, then the USB channels; a negative index is refused by either.
bool IsPcieIndex(int index) { return index < CQVCaptureControlBase::GetChannelCount(); }
int UsbIndex(int index) { return index - CQVCaptureControlBase::GetChannelCount(); }

QV_CHANNEL OpenUsbChannel(const char* path) {
    auto* opened = new (std::nothrow) CQVUSBCaptureBase;
    if (opened == nullptr) return nullptr;
    if (opened->OpenChannelByPath(path)) return static_cast<IQVCaptureDevice*>(opened);
    delete opened;
    return nullptr;
}

}  // namespace

// ---- Instance and list -----------------------------------------------------------------------

QV_RESULT QVGetVersion(unsigned char* major, unsigned char* minor, unsigned short* build) {
    if (major != nullptr) *major = kMajor;
    if (minor != nullptr) *minor = kMinor;
    if (build != nullptr) *build = kBuild;
    return QV_RESULT_OK;
}

bool QVCaptureInitInstance() {
    CQVCaptureControlBase::Init();
    CQVUSBCaptureControlBase::Init();
    QVRefreshDevice();
    return true;  // Deliberate: listing and firmware work need no event node
}

void QVCaptureExitInstance() {
    CQVCaptureControlBase::Exit();
    CQVUSBCaptureControlBase::Exit();
}

QV_RESULT QVRefreshDevice() {
    CQVCaptureControlBase::EnumDevice();
    CQVUSBCaptureControlBase::EnumDevice();
    return QV_RESULT_OK;
}

int QVGetChannelCount() {
    return CQVCaptureControlBase::GetChannelCount() + CQVUSBCaptureControlBase::GetChannelCount();
}

QV_RESULT QVGetChannelInfoByIndex(int index, _QVCAP_CHANNEL_INFO* info) {
    if (IsPcieIndex(index)) return CQVCaptureControlBase::GetChannelInfoByIndex(index, info);
    return CQVUSBCaptureControlBase::GetChannelInfoByIndex(UsbIndex(index), info);
}

QV_RESULT QVGetFamilyInfoByIndex(int index, void* info) {
    if (IsPcieIndex(index))
        return CQVCaptureControlBase::GetFamilyInfoByIndex(
            index, static_cast<_QVCAP_PELIX_CAPTURE_INFO*>(info));
    return CQVUSBCaptureControlBase::GetFamilyInfoByIndex(
        UsbIndex(index), static_cast<_QVUSBCAP_CAPTURE_INFO*>(info));
}

QV_RESULT QVGetDevicePath(int index, char* path) {
    if (IsPcieIndex(index)) return CQVCaptureControlBase::GetDevicePath(index, path);
    return CQVUSBCaptureControlBase::GetDevicePath(UsbIndex(index), path);
}

// ---- Opening and closing ---------------------------------------------------------------------

QV_CHANNEL QVOpenChannel(int board, int channel) {
    auto* opened = new (std::nothrow) CQVCaptureBase;
    if (opened == nullptr) return nullptr;
    if (opened->OpenChannel(board, channel)) return static_cast<IQVCaptureDevice*>(opened);
    delete opened;
    return nullptr;
}

QV_CHANNEL QVOpenChannelByPath(const char* path) {
    auto* opened = new (std::nothrow) CQVCaptureBase;
    if (opened == nullptr) return nullptr;
    if (opened->OpenChannelByPath(path)) return static_cast<IQVCaptureDevice*>(opened);
    delete opened;
    return OpenUsbChannel(path);
}

void QVCloseChannel(QV_CHANNEL channel) {
    if (channel == nullptr) return;
    if (CQVCaptureBase* pcie = AsDevice(channel)->AsPcieChannel()) {
        if (pcie->DeferCloseToWorker()) return;
        pcie->StopChannelThread();
    }
    AsDevice(channel)->CloseChannel();
    delete AsDevice(channel);
}

// ---- Events ----------------------------------------------------------------------------------
// The channel object makes the argument checks.

unsigned long long QVCreateEvent() { return CQVCaptureBase::CreateEvent(); }
QV_RESULT QVCloseEvent(unsigned long long event) { return CQVCaptureBase::CloseEvent(event); }
QV_RESULT QVSetEvent(unsigned long long event) { return CQVCaptureBase::SetEvent(event); }
QV_RESULT QVClearEvent(unsigned long long event) { return CQVCaptureBase::ClearEvent(event); }
int QVIsSetEvent(unsigned long long event) { return CQVCaptureBase::IsSetEvent(event) ? 1 : 0; }
int QVTryWaitEvent(unsigned long long event) { return CQVCaptureBase::TryWaitEvent(event); }
int QVWaitEvent(unsigned long long event, int timeout) {
    return CQVCaptureBase::WaitEvent(event, timeout);
}
int QVMultiWaitEvent(unsigned long long* events, int count, int timeout) {
    return CQVCaptureBase::MultiWaitEvent(events, count, timeout);
}

// ---- Capture requests with every setting -----------------------------------------------------

QV_RESULT QVCaptureVideoFrameToPhysicalAddressEx(
    QV_CHANNEL channel, int frame, _LARGE_INTEGER address, unsigned int size, unsigned int stride,
    char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy,
    unsigned int processSwitches, int partialNotify, unsigned long long osdImage,
    const _RECT* osdRects, int osdRectCount, short contrast, short brightness, short saturation,
    short hue, _QVCAP_VIDEO_DEINTERLACE_MODE deinterlaceMode,
    _QVCAP_VIDEO_ASPECT_RATIO_CONVERT_MODE aspectRatioConvertMode, const _RECT* source,
    const _RECT* destination, int aspectX, int aspectY, _QVCAP_VIDEO_COLOR_FORMAT colorFormat,
    _QVCAP_VIDEO_QUANTIZATION_RANGE quantizationRange,
    _QVCAP_VIDEO_SATURATION_RANGE saturationRange) {
    const FrameRequest request{frame,   true,   static_cast<unsigned long long>(address.QuadPart),
                               size,    stride, bottomUp,
                               context, fourcc, cx,
                               cy};
    const FrameSettings settings{
        processSwitches, partialNotify,          contrast,       brightness,  saturation, hue,
        deinterlaceMode, aspectRatioConvertMode, source,         destination, aspectX,    aspectY,
        colorFormat,     quantizationRange,      saturationRange};
    return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameToPhysicalAddressEx, request,
                OsdOverlay{osdImage, osdRects, osdRectCount}, settings);
}

QV_RESULT QVCaptureVideoFrameToVirtualAddressEx(
    QV_CHANNEL channel, int frame, unsigned long long address, unsigned int size,
    unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx,
    int cy, unsigned int processSwitches, int partialNotify, unsigned long long osdImage,
    const _RECT* osdRects, int osdRectCount, short contrast, short brightness, short saturation,
    short hue, _QVCAP_VIDEO_DEINTERLACE_MODE deinterlaceMode,
    _QVCAP_VIDEO_ASPECT_RATIO_CONVERT_MODE aspectRatioConvertMode, const _RECT* source,
    const _RECT* destination, int aspectX, int aspectY, _QVCAP_VIDEO_COLOR_FORMAT colorFormat,
    _QVCAP_VIDEO_QUANTIZATION_RANGE quantizationRange,
    _QVCAP_VIDEO_SATURATION_RANGE saturationRange) {
    const FrameRequest request{frame,    false,   address, size, stride,
                               bottomUp, context, fourcc,  cx,   cy};
    const FrameSettings settings{
        processSwitches, partialNotify,          contrast,       brightness,  saturation, hue,
        deinterlaceMode, aspectRatioConvertMode, source,         destination, aspectX,    aspectY,
        colorFormat,     quantizationRange,      saturationRange};
    return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameToVirtualAddressEx, request,
                OsdOverlay{osdImage, osdRects, osdRectCount}, settings);
}

// A table stays a table.
// clang-format off
// ---- Operations of both kinds of channel -----------------------------------------------------

QV_RESULT QVGetChannelInfo(QV_CHANNEL channel, _QVCAP_CHANNEL_INFO* info) { return Device(channel, &IQVCaptureDevice::GetChannelInfo, info); }
QV_RESULT QVGetFamilyInfo(QV_CHANNEL channel, void* info, unsigned int size) { return Device(channel, &IQVCaptureDevice::GetFamilyInfo, info, size); }
QV_RESULT QVGetVideoCaps(QV_CHANNEL channel, _QVCAP_VIDEO_CAPS* caps) { return Device(channel, &IQVCaptureDevice::GetVideoCaps, caps); }
QV_RESULT QVGetAudioCaps(QV_CHANNEL channel, _QVCAP_AUDIO_CAPS* caps) { return Device(channel, &IQVCaptureDevice::GetAudioCaps, caps); }
QV_RESULT QVSetLEDMode(QV_CHANNEL channel, unsigned int mode) { return Device(channel, &IQVCaptureDevice::SetLEDMode, mode); }
QV_RESULT QVGetFirmwareStorageInfo(QV_CHANNEL channel, _QVCAP_FIRMWARE_STORAGE* storage) { return Device(channel, &IQVCaptureDevice::GetFirmwareStorageInfo, storage); }
QV_RESULT QVEraseFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned int size) { return Device(channel, &IQVCaptureDevice::EraseFirmwareData, offset, size); }
QV_RESULT QVWriteFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned char* buffer, unsigned int size) { return Device(channel, &IQVCaptureDevice::WriteFirmwareData, offset, buffer, size); }
QV_RESULT QVReadFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned char* buffer, unsigned int size, unsigned int* read) { return Device(channel, &IQVCaptureDevice::ReadFirmwareData, offset, buffer, size, read); }
QV_RESULT QVGetVideoInputSourceArray(QV_CHANNEL channel, unsigned int* sources, unsigned int* count) { return Device(channel, &IQVCaptureDevice::GetVideoInputSourceArray, sources, count); }
QV_RESULT QVGetAudioInputSourceArray(QV_CHANNEL channel, unsigned int* sources, unsigned int* count) { return Device(channel, &IQVCaptureDevice::GetAudioInputSourceArray, sources, count); }
QV_RESULT QVGetInputSourceScan(QV_CHANNEL channel, char* scan) { return Device(channel, &IQVCaptureDevice::GetInputSourceScan, scan); }
QV_RESULT QVSetInputSourceScan(QV_CHANNEL channel, char scan) { return Device(channel, &IQVCaptureDevice::SetInputSourceScan, scan); }
QV_RESULT QVGetAVInputSourceLink(QV_CHANNEL channel, char* link) { return Device(channel, &IQVCaptureDevice::GetAVInputSourceLink, link); }
QV_RESULT QVSetAVInputSourceLink(QV_CHANNEL channel, char link) { return Device(channel, &IQVCaptureDevice::SetAVInputSourceLink, link); }
QV_RESULT QVGetVideoInputSource(QV_CHANNEL channel, unsigned int* source) { return Device(channel, &IQVCaptureDevice::GetVideoInputSource, source); }
QV_RESULT QVSetVideoInputSource(QV_CHANNEL channel, unsigned int source) { return Device(channel, &IQVCaptureDevice::SetVideoInputSource, source); }
QV_RESULT QVGetAudioInputSource(QV_CHANNEL channel, unsigned int* source) { return Device(channel, &IQVCaptureDevice::GetAudioInputSource, source); }
QV_RESULT QVSetAudioInputSource(QV_CHANNEL channel, unsigned int source) { return Device(channel, &IQVCaptureDevice::SetAudioInputSource, source); }
QV_RESULT QVGetEDID(QV_CHANNEL channel, unsigned char* edid, unsigned long* size) { return Device(channel, &IQVCaptureDevice::GetEDID, edid, size); }
QV_RESULT QVSetEDID(QV_CHANNEL channel, unsigned char* edid, unsigned long size) { return Device(channel, &IQVCaptureDevice::SetEDID, edid, size); }
QV_RESULT QVGetInputSpecificStatus(QV_CHANNEL channel, _QVCAP_INPUT_SPECIFIC_STATUS* status) { return Device(channel, &IQVCaptureDevice::GetInputSpecificStatus, status); }
QV_RESULT QVGetVideoSignalStatus(QV_CHANNEL channel, _QVCAP_VIDEO_SIGNAL_STATUS* status) { return Device(channel, &IQVCaptureDevice::GetVideoSignalStatus, status); }
QV_RESULT QVGetAudioSignalStatus(QV_CHANNEL channel, _QVCAP_AUDIO_SIGNAL_STATUS* status) { return Device(channel, &IQVCaptureDevice::GetAudioSignalStatus, status); }
QV_RESULT QVGetHDMIInfoFrameValidFlag(QV_CHANNEL channel, unsigned int* flags) { return Device(channel, &IQVCaptureDevice::GetHDMIInfoFrameValidFlags, flags); }
QV_RESULT QVGetHDMIInfoFramePacket(QV_CHANNEL channel, _QVCAP_HDMI_INFOFRAME_ID id, _HDMI_INFOFRAME_PACKET* packet) { return Device(channel, &IQVCaptureDevice::GetHDMIInfoFramePacket, id, packet); }
QV_RESULT QVSetVideoInputAspectRatio(QV_CHANNEL channel, int x, int y) { return Device(channel, &IQVCaptureDevice::SetVideoInputAspectRatio, x, y); }
QV_RESULT QVGetVideoInputAspectRatio(QV_CHANNEL channel, int* x, int* y) { return Device(channel, &IQVCaptureDevice::GetVideoInputAspectRatio, x, y); }
QV_RESULT QVSetVideoInputColorFormat(QV_CHANNEL channel, _QVCAP_VIDEO_COLOR_FORMAT format) { return Device(channel, &IQVCaptureDevice::SetVideoInputColorFormat, format); }
QV_RESULT QVGetVideoInputColorFormat(QV_CHANNEL channel, _QVCAP_VIDEO_COLOR_FORMAT* format) { return Device(channel, &IQVCaptureDevice::GetVideoInputColorFormat, format); }
QV_RESULT QVSetVideoInputQuantizationRange(QV_CHANNEL channel, _QVCAP_VIDEO_QUANTIZATION_RANGE range) { return Device(channel, &IQVCaptureDevice::SetVideoInputQuantizationRange, range); }
QV_RESULT QVGetVideoInputQuantizationRange(QV_CHANNEL channel, _QVCAP_VIDEO_QUANTIZATION_RANGE* range) { return Device(channel, &IQVCaptureDevice::GetVideoInputQuantizationRange, range); }
QV_RESULT QVCaptureSetSDIANCType(QV_CHANNEL channel, _QVCAP_SDI_ANC_TYPE* type) { return Device(channel, &IQVCaptureDevice::SetSDIANCType, type); }
QV_RESULT QVCaptureGetSDIANCPacket(QV_CHANNEL channel, _QVCAP_SDI_ANC_PACKET* packet) { return Device(channel, &IQVCaptureDevice::GetSDIANCPacket, packet); }

// ---- Operations of PCIe channels -------------------------------------------------------------

QV_RESULT QVGetTemperature(QV_CHANNEL channel, unsigned int* temperature) { return Pcie(channel, &CQVCaptureBase::GetTemperature, temperature); }
QV_RESULT QVSetPostReconfig(QV_CHANNEL channel, unsigned int value) { return Pcie(channel, &CQVCaptureBase::SetPostReconfig, value); }
QV_RESULT QVSetCtrlStreamID(QV_CHANNEL channel, int stream) { return Pcie(channel, &CQVCaptureBase::SetCtrlStreamID, stream); }
QV_RESULT QVGetStreamCount(QV_CHANNEL channel, int* count) { return Pcie(channel, &CQVCaptureBase::GetStreamCount, count); }
QV_RESULT QVGetStreamInfos(QV_CHANNEL channel, _QVCAP_STREAM_INFO* infos, unsigned int* count) { return Pcie(channel, &CQVCaptureBase::GetStreamInfos, infos, count); }
QV_RESULT QVSetVideoTiming(QV_CHANNEL channel, const _QVCAP_VIDEO_TIMING* timing) { return Pcie(channel, &CQVCaptureBase::SetVideoTiming, timing); }
QV_RESULT QVGetVideoPreferredTimingArray(QV_CHANNEL channel, _QVCAP_VIDEO_TIMING* timings, unsigned int* count) { return Pcie(channel, &CQVCaptureBase::GetVideoPreferredTimingArray, timings, count); }
QV_RESULT QVSetCustomVideoTiming(QV_CHANNEL channel, const _QVCAP_VIDEO_CUSTOM_TIMING* timing) { return Pcie(channel, &CQVCaptureBase::SetCustomVideoTiming, timing); }
QV_RESULT QVGetCustomVideoTimingsCount(QV_CHANNEL channel, unsigned int* count) { return Pcie(channel, &CQVCaptureBase::GetCustomVideoTimingsCount, count); }
QV_RESULT QVGetCustomVideoTimingsArray(QV_CHANNEL channel, _QVCAP_VIDEO_CUSTOM_TIMING* timings, unsigned int* count) { return Pcie(channel, &CQVCaptureBase::GetCustomVideoTimingsArray, timings, count); }
QV_RESULT QVSetCustomVideoTimingsArray(QV_CHANNEL channel, const _QVCAP_VIDEO_CUSTOM_TIMING* timings, unsigned int count) { return Pcie(channel, &CQVCaptureBase::SetCustomVideoTimingsArray, timings, count); }
QV_RESULT QVGetCustomVideoResolutionsCount(QV_CHANNEL channel, unsigned int* count) { return Pcie(channel, &CQVCaptureBase::GetCustomVideoResolutionsCount, count); }
QV_RESULT QVGetCustomVideoResolutionsArray(QV_CHANNEL channel, _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions, unsigned int* count) { return Pcie(channel, &CQVCaptureBase::GetCustomVideoResolutionsArray, resolutions, count); }
QV_RESULT QVSetCustomVideoResolutionsArray(QV_CHANNEL channel, const _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions, unsigned int count) { return Pcie(channel, &CQVCaptureBase::SetCustomVideoResolutionsArray, resolutions, count); }
QV_RESULT QVSetVideoAutoHAlign(QV_CHANNEL channel, char on) { return Pcie(channel, &CQVCaptureBase::SetVideoAutoHAlign, on); }
QV_RESULT QVGetVideoAutoHAlign(QV_CHANNEL channel, char* on) { return Pcie(channel, &CQVCaptureBase::GetVideoAutoHAlign, on); }
QV_RESULT QVSetVideoSamplingPhase(QV_CHANNEL channel, unsigned char phase) { return Pcie(channel, &CQVCaptureBase::SetVideoSamplingPhase, phase); }
QV_RESULT QVGetVideoSamplingPhase(QV_CHANNEL channel, unsigned char* phase) { return Pcie(channel, &CQVCaptureBase::GetVideoSamplingPhase, phase); }
QV_RESULT QVSetVideoSamplingPhaseAutoAdjust(QV_CHANNEL channel, char on) { return Pcie(channel, &CQVCaptureBase::SetVideoSamplingPhaseAutoAdjust, on); }
QV_RESULT QVGetVideoSamplingPhaseAutoAdjust(QV_CHANNEL channel, char* on) { return Pcie(channel, &CQVCaptureBase::GetVideoSamplingPhaseAutoAdjust, on); }
QV_RESULT QVSaveSettingsAsPreset(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::SaveSettingsAsPreset); }
QV_RESULT QVReloadPreset(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::ReloadPreset); }
QV_RESULT QVSetVideoBrightness(QV_CHANNEL channel, int value) { return Pcie(channel, &CQVCaptureBase::SetVideoBrightness, value); }
QV_RESULT QVGetVideoBrightness(QV_CHANNEL channel, int* value) { return Pcie(channel, &CQVCaptureBase::GetVideoBrightness, value); }
QV_RESULT QVSetVideoContrast(QV_CHANNEL channel, int value) { return Pcie(channel, &CQVCaptureBase::SetVideoContrast, value); }
QV_RESULT QVGetVideoContrast(QV_CHANNEL channel, int* value) { return Pcie(channel, &CQVCaptureBase::GetVideoContrast, value); }
QV_RESULT QVSetVideoHue(QV_CHANNEL channel, int value) { return Pcie(channel, &CQVCaptureBase::SetVideoHue, value); }
QV_RESULT QVGetVideoHue(QV_CHANNEL channel, int* value) { return Pcie(channel, &CQVCaptureBase::GetVideoHue, value); }
QV_RESULT QVSetVideoSaturation(QV_CHANNEL channel, int value) { return Pcie(channel, &CQVCaptureBase::SetVideoSaturation, value); }
QV_RESULT QVGetVideoSaturation(QV_CHANNEL channel, int* value) { return Pcie(channel, &CQVCaptureBase::GetVideoSaturation, value); }
QV_RESULT QVGetVideoConnectFormat(QV_CHANNEL channel, _QVCAP_VIDEO_CONNECTION_FORMAT* format) { return Pcie(channel, &CQVCaptureBase::GetVideoConnectFormat, format); }
QV_RESULT QVSetVideoProcessSettings(QV_CHANNEL channel, const _QVCAP_VIDEO_PROCESS_SETTINGS* settings) { return Pcie(channel, &CQVCaptureBase::SetVideoProcessSettings, settings); }
QV_RESULT QVGetVideoProcessSettings(QV_CHANNEL channel, _QVCAP_VIDEO_PROCESS_SETTINGS* settings) { return Pcie(channel, &CQVCaptureBase::GetVideoProcessSettings, settings); }
QV_RESULT QVSetVideoOSDSettings(QV_CHANNEL channel, const _QVCAP_VIDEO_OSD_SETTINGS* settings) { return Pcie(channel, &CQVCaptureBase::SetVideoOSDSettings, settings); }
QV_RESULT QVGetVideoOSDSettings(QV_CHANNEL channel, _QVCAP_VIDEO_OSD_SETTINGS* settings) { return Pcie(channel, &CQVCaptureBase::GetVideoOSDSettings, settings); }
QV_RESULT QVSetVideoOSDImage(QV_CHANNEL channel, const _QVCAP_VIDEO_OSD_IMAGE* image) { return Pcie(channel, &CQVCaptureBase::SetVideoOSDImage, image); }
QV_RESULT QVGetVideoOSDImage(QV_CHANNEL channel, _QVCAP_VIDEO_OSD_IMAGE* image) { return Pcie(channel, &CQVCaptureBase::GetVideoOSDImage, image); }
QV_RESULT QVStartVideoCapture(QV_CHANNEL channel, unsigned long long event) { return Pcie(channel, &CQVCaptureBase::StartVideoCapture, event); }
QV_RESULT QVStopVideoCapture(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StopVideoCapture); }
QV_RESULT QVGetVideoBufferInfo(QV_CHANNEL channel, _QVCAP_VIDEO_BUFFER_INFO* info) { return Pcie(channel, &CQVCaptureBase::GetVideoBufferInfo, info); }
QV_RESULT QVGetVideoFrameInfo(QV_CHANNEL channel, unsigned char index, _QVCAP_VIDEO_FRAME_INFO* info) { return Pcie(channel, &CQVCaptureBase::GetVideoFrameInfo, index, info); }
QV_RESULT QVGetVideoCaptureStatus(QV_CHANNEL channel, _QVCAP_VIDEO_CAPTURE_STATUS* status) { return Pcie(channel, &CQVCaptureBase::GetVideoCaptureStatus, status); }
QV_RESULT QVCaptureVideoFrameToPhysicalAddress(QV_CHANNEL channel, int frame, _LARGE_INTEGER address, unsigned int size, unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy) { return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameToPhysicalAddress, frame, address, size, stride, bottomUp, context, fourcc, cx, cy); }
QV_RESULT QVCaptureVideoFrameToVirtualAddress(QV_CHANNEL channel, int frame, unsigned long long address, unsigned int size, unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy) { return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameToVirtualAddress, frame, address, size, stride, bottomUp, context, fourcc, cx, cy); }
QV_RESULT QVCaptureVideoFrameWithOSDToPhysicalAddress(QV_CHANNEL channel, int frame, _LARGE_INTEGER address, unsigned int size, unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy, unsigned long long osdImage, const _RECT* osdRects, int osdRectCount) { return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameWithOSDToPhysicalAddress, frame, address, size, stride, bottomUp, context, fourcc, cx, cy, osdImage, osdRects, osdRectCount); }
QV_RESULT QVCaptureVideoFrameWithOSDToVirtualAddress(QV_CHANNEL channel, int frame, unsigned long long address, unsigned int size, unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy, unsigned long long osdImage, const _RECT* osdRects, int osdRectCount) { return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameWithOSDToVirtualAddress, frame, address, size, stride, bottomUp, context, fourcc, cx, cy, osdImage, osdRects, osdRectCount); }
QV_RESULT QVPinVideoBuffer(QV_CHANNEL channel, unsigned long long address, unsigned int size) { return Pcie(channel, &CQVCaptureBase::PinVideoBuffer, address, size); }
QV_RESULT QVUnpinVideoBuffer(QV_CHANNEL channel, unsigned long long address) { return Pcie(channel, &CQVCaptureBase::UnpinVideoBuffer, address); }
unsigned long long QVCreateImage(QV_CHANNEL channel, int cx, int cy) { return Pcie(channel, &CQVCaptureBase::CreateImage, cx, cy); }
QV_RESULT QVOpenImage(QV_CHANNEL channel, unsigned long long image, long* refCount) { return Pcie(channel, &CQVCaptureBase::OpenImage, image, refCount); }
QV_RESULT QVCloseImage(QV_CHANNEL channel, unsigned long long image, long* refCount) { return Pcie(channel, &CQVCaptureBase::CloseImage, image, refCount); }
QV_RESULT QVUploadImageFromPhysicalAddress(QV_CHANNEL channel, const _QVCAP_VIDEO_IMAGE_UPLOAD* upload) { return Pcie(channel, &CQVCaptureBase::UploadImageFromPhysicalAddress, upload); }
QV_RESULT QVUploadImageFromVirtualAddress(QV_CHANNEL channel, const _QVCAP_VIDEO_IMAGE_UPLOAD* upload) { return Pcie(channel, &CQVCaptureBase::UploadImageFromVirtualAddress, upload); }
QV_RESULT QVStartVideoLumoCapture(QV_CHANNEL channel, const _QVCAP_VIDEO_LUMO_CAPTURE_OPEN* open) { return Pcie(channel, &CQVCaptureBase::StartVideoLumoCapture, open); }
QV_RESULT QVSetVideoLumoCaptureSettings(QV_CHANNEL channel, const _QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS* settings) { return Pcie(channel, &CQVCaptureBase::SetVideoLumoCaptureSettings, settings); }
QV_RESULT QVCaptureSetVideoLumoFrame(QV_CHANNEL channel, const _QVCAP_VIDEO_LUMO_CAPTURE_FRAME* frame) { return Pcie(channel, &CQVCaptureBase::CaptureSetVideoLumoFrame, frame); }
QV_RESULT QVGetVideoLumoCaptureStatus(QV_CHANNEL channel, _QVCAP_VIDEO_LUMO_CAPTURE_STATUS* status) { return Pcie(channel, &CQVCaptureBase::GetVideoLumoCaptureStatus, status); }
QV_RESULT QVStopVideoLumoCapture(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StopVideoLumoCapture); }
QV_RESULT QVStartAudioCapture(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StartAudioCapture); }
QV_RESULT QVStopAudioCapture(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StopAudioCapture); }
QV_RESULT QVCaptureAudioFrame(QV_CHANNEL channel, _QVCAP_AUDIO_CAPTURE_FRAME* frame) { return Pcie(channel, &CQVCaptureBase::CaptureAudioFrame, frame); }
unsigned long long QVRegisterNotify(QV_CHANNEL channel, unsigned long long event, unsigned int enableBits) { return Pcie(channel, &CQVCaptureBase::RegisterNotify, event, enableBits); }
QV_RESULT QVUnregisterNotify(QV_CHANNEL channel, unsigned long long notify) { return Pcie(channel, &CQVCaptureBase::UnregisterNotify, notify); }
QV_RESULT QVGetNotifyStatus(QV_CHANNEL channel, unsigned long long notify, unsigned long long* status) { return Pcie(channel, &CQVCaptureBase::GetNotifyStatus, notify, status); }
unsigned long long QVRegisterTimer(QV_CHANNEL channel, unsigned long long event) { return Pcie(channel, &CQVCaptureBase::RegisterTimer, event); }
QV_RESULT QVUnregisterTimer(QV_CHANNEL channel, unsigned long long timer) { return Pcie(channel, &CQVCaptureBase::UnregisterTimer, timer); }
QV_RESULT QVScheduleTimer(QV_CHANNEL channel, unsigned long long timer, long long expireTime) { return Pcie(channel, &CQVCaptureBase::ScheduleTimer, timer, expireTime); }
QV_RESULT QVGetDeviceTime(QV_CHANNEL channel, long long* time) { return Pcie(channel, &CQVCaptureBase::GetDeviceTime, time); }
QV_RESULT QVSetDeviceTime(QV_CHANNEL channel, long long time) { return Pcie(channel, &CQVCaptureBase::SetDeviceTime, time); }
QV_RESULT QVRegulateDeviceTime(QV_CHANNEL channel, long long time) { return Pcie(channel, &CQVCaptureBase::RegulateDeviceTime, time); }

// ---- The channel worker ----------------------------------------------------------------------

QV_RESULT QVStartChannelThread(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StartChannelThread); }
QV_RESULT QVStopChannelThread(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StopChannelThread); }
unsigned long long QVRegisterNotifyWithCallback(QV_CHANNEL channel, unsigned int enableBits, QV_NOTIFY_CALLBACK callback, void* param) { return Pcie(channel, &CQVCaptureBase::RegisterNotifyWithCallback, enableBits, callback, param); }
unsigned long long QVCreateTimer(QV_CHANNEL channel, QV_TIMER_CALLBACK callback, long long delay, long long period) { return Pcie(channel, &CQVCaptureBase::CreateTimer, callback, delay, period); }
QV_RESULT QVDestoryTimer(QV_CHANNEL channel, unsigned long long timer) { return Pcie(channel, &CQVCaptureBase::DestoryTimer, timer); }
QV_RESULT QVStartVideoCaptureWithCallback(QV_CHANNEL channel, unsigned int fourcc, int cx, int cy, _QV_VIDEO_CAPTURE_MODE mode, QV_VIDEO_CALLBACK callback, void* param) { return Pcie(channel, &CQVCaptureBase::StartVideoCaptureWithCallback, fourcc, cx, cy, mode, callback, param); }
QV_RESULT QVStopVideoCaptureWithCallback(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StopVideoCaptureWithCallback); }
QV_RESULT QVStartAudioCaptureWithCallback(QV_CHANNEL channel, QV_AUDIO_CALLBACK callback, void* param) { return Pcie(channel, &CQVCaptureBase::StartAudioCaptureWithCallback, callback, param); }
QV_RESULT QVStopAudioCaptureWithCallback(QV_CHANNEL channel) { return Pcie(channel, &CQVCaptureBase::StopAudioCaptureWithCallback); }
// clang-format on
