// The public functions of QVCaptureVideo.h.
#include "QVCaptureVideo.h"

#include "Forward.h"
#include "pcie/FrameLayout.h"

using qv::Pcie;

QV_RESULT QVGetFrameLayout(unsigned int fourcc, int cx, int cy, unsigned int* stride,
                           unsigned int* size) {
    if (!stride || !size) return QV_RESULT_BAD_ARGUMENT;
    const qv::FrameLayout layout = qv::LayoutOf(fourcc, cx, cy);
    if (layout.size == 0) return QV_RESULT_FAILED;
    *stride = layout.stride;
    *size = layout.size;
    return QV_RESULT_OK;
}

QV_RESULT QVStartVideoCapture(QV_CHANNEL channel, unsigned long long event) {
    return Pcie(channel, &CQVCaptureBase::StartVideoCapture, event);
}

QV_RESULT QVStopVideoCapture(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StopVideoCapture);
}

QV_RESULT QVGetVideoBufferInfo(QV_CHANNEL channel, _QVCAP_VIDEO_BUFFER_INFO* info) {
    return Pcie(channel, &CQVCaptureBase::GetVideoBufferInfo, info);
}

QV_RESULT QVGetVideoFrameInfo(QV_CHANNEL channel, unsigned char index,
                              _QVCAP_VIDEO_FRAME_INFO* info) {
    return Pcie(channel, &CQVCaptureBase::GetVideoFrameInfo, index, info);
}

QV_RESULT QVGetVideoCaptureStatus(QV_CHANNEL channel, _QVCAP_VIDEO_CAPTURE_STATUS* status) {
    return Pcie(channel, &CQVCaptureBase::GetVideoCaptureStatus, status);
}

QV_RESULT QVCaptureVideoFrameToPhysicalAddress(QV_CHANNEL channel, int frame,
                                               _LARGE_INTEGER address, unsigned int size,
                                               unsigned int stride, char bottomUp,
                                               unsigned long long context, unsigned int fourcc,
                                               int cx, int cy) {
    return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameToPhysicalAddress, frame, address, size,
                stride, bottomUp, context, fourcc, cx, cy);
}

QV_RESULT QVCaptureVideoFrameToVirtualAddress(QV_CHANNEL channel, int frame,
                                              unsigned long long address, unsigned int size,
                                              unsigned int stride, char bottomUp,
                                              unsigned long long context, unsigned int fourcc,
                                              int cx, int cy) {
    return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameToVirtualAddress, frame, address, size,
                stride, bottomUp, context, fourcc, cx, cy);
}

QV_RESULT QVCaptureVideoFrameWithOSDToPhysicalAddress(
    QV_CHANNEL channel, int frame, _LARGE_INTEGER address, unsigned int size, unsigned int stride,
    char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy,
    unsigned long long osdImage, const _RECT* osdRects, int osdRectCount) {
    return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameWithOSDToPhysicalAddress, frame, address,
                size, stride, bottomUp, context, fourcc, cx, cy, osdImage, osdRects, osdRectCount);
}

QV_RESULT QVCaptureVideoFrameWithOSDToVirtualAddress(
    QV_CHANNEL channel, int frame, unsigned long long address, unsigned int size,
    unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx,
    int cy, unsigned long long osdImage, const _RECT* osdRects, int osdRectCount) {
    return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameWithOSDToVirtualAddress, frame, address,
                size, stride, bottomUp, context, fourcc, cx, cy, osdImage, osdRects, osdRectCount);
}

QV_RESULT QVPinVideoBuffer(QV_CHANNEL channel, unsigned long long address, unsigned int size) {
    return Pcie(channel, &CQVCaptureBase::PinVideoBuffer, address, size);
}

QV_RESULT QVUnpinVideoBuffer(QV_CHANNEL channel, unsigned long long address) {
    return Pcie(channel, &CQVCaptureBase::UnpinVideoBuffer, address);
}

unsigned long long QVCreateImage(QV_CHANNEL channel, int cx, int cy) {
    return Pcie(channel, &CQVCaptureBase::CreateImage, cx, cy);
}

QV_RESULT QVOpenImage(QV_CHANNEL channel, unsigned long long image, long* refCount) {
    return Pcie(channel, &CQVCaptureBase::OpenImage, image, refCount);
}

QV_RESULT QVCloseImage(QV_CHANNEL channel, unsigned long long image, long* refCount) {
    return Pcie(channel, &CQVCaptureBase::CloseImage, image, refCount);
}

QV_RESULT QVUploadImageFromPhysicalAddress(QV_CHANNEL channel,
                                           const _QVCAP_VIDEO_IMAGE_UPLOAD* upload) {
    return Pcie(channel, &CQVCaptureBase::UploadImageFromPhysicalAddress, upload);
}

QV_RESULT QVUploadImageFromVirtualAddress(QV_CHANNEL channel,
                                          const _QVCAP_VIDEO_IMAGE_UPLOAD* upload) {
    return Pcie(channel, &CQVCaptureBase::UploadImageFromVirtualAddress, upload);
}

QV_RESULT QVStartVideoLumoCapture(QV_CHANNEL channel, const _QVCAP_VIDEO_LUMO_CAPTURE_OPEN* open) {
    return Pcie(channel, &CQVCaptureBase::StartVideoLumoCapture, open);
}

QV_RESULT QVSetVideoLumoCaptureSettings(QV_CHANNEL channel,
                                        const _QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS* settings) {
    return Pcie(channel, &CQVCaptureBase::SetVideoLumoCaptureSettings, settings);
}

QV_RESULT QVCaptureSetVideoLumoFrame(QV_CHANNEL channel,
                                     const _QVCAP_VIDEO_LUMO_CAPTURE_FRAME* frame) {
    return Pcie(channel, &CQVCaptureBase::CaptureSetVideoLumoFrame, frame);
}

QV_RESULT QVGetVideoLumoCaptureStatus(QV_CHANNEL channel,
                                      _QVCAP_VIDEO_LUMO_CAPTURE_STATUS* status) {
    return Pcie(channel, &CQVCaptureBase::GetVideoLumoCaptureStatus, status);
}

QV_RESULT QVStopVideoLumoCapture(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StopVideoLumoCapture);
}

QV_RESULT QVStartAudioCapture(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StartAudioCapture);
}

QV_RESULT QVStopAudioCapture(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StopAudioCapture);
}

QV_RESULT QVCaptureAudioFrame(QV_CHANNEL channel, _QVCAP_AUDIO_CAPTURE_FRAME* frame) {
    return Pcie(channel, &CQVCaptureBase::CaptureAudioFrame, frame);
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
    const FrameRequest request{
        .frame = frame,
        .physical = true,
        .address = static_cast<unsigned long long>(address.QuadPart),
        .size = size,
        .stride = stride,
        .bottomUp = bottomUp,
        .context = context,
        .fourcc = fourcc,
        .cx = cx,
        .cy = cy,
    };
    const FrameSettings settings{
        .processSwitches = processSwitches,
        .partialNotify = partialNotify,
        .contrast = contrast,
        .brightness = brightness,
        .saturation = saturation,
        .hue = hue,
        .deinterlaceMode = deinterlaceMode,
        .aspectRatioConvertMode = aspectRatioConvertMode,
        .source = source,
        .destination = destination,
        .aspectX = aspectX,
        .aspectY = aspectY,
        .colorFormat = colorFormat,
        .quantizationRange = quantizationRange,
        .saturationRange = saturationRange,
    };
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
    const FrameRequest request{
        .frame = frame,
        .physical = false,
        .address = address,
        .size = size,
        .stride = stride,
        .bottomUp = bottomUp,
        .context = context,
        .fourcc = fourcc,
        .cx = cx,
        .cy = cy,
    };
    const FrameSettings settings{
        .processSwitches = processSwitches,
        .partialNotify = partialNotify,
        .contrast = contrast,
        .brightness = brightness,
        .saturation = saturation,
        .hue = hue,
        .deinterlaceMode = deinterlaceMode,
        .aspectRatioConvertMode = aspectRatioConvertMode,
        .source = source,
        .destination = destination,
        .aspectX = aspectX,
        .aspectY = aspectY,
        .colorFormat = colorFormat,
        .quantizationRange = quantizationRange,
        .saturationRange = saturationRange,
    };
    return Pcie(channel, &CQVCaptureBase::CaptureVideoFrameToVirtualAddressEx, request,
                OsdOverlay{osdImage, osdRects, osdRectCount}, settings);
}
