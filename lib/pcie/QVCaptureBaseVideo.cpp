// Capture requests, OSD images, Lumo capture and audio frames of a PCIe channel.
#include <cerrno>
#include <cstring>

#include "QVCaptureBase.h"

namespace {

constexpr uint64_t kPinReadWrite = 3;

constexpr OsdOverlay kNoOsd{0, nullptr, 0};

void CopyRect(const _RECT* from, _RECT* to) {
    if (from != nullptr) *to = *from;
}

bool Fits(const OsdOverlay& osd) {
    if (osd.rectCount < 0 || osd.rectCount > qv::kMaxOsdRects) return false;
    return osd.rectCount == 0 || osd.rects != nullptr;
}

qv::VideoCaptureFrameRecord FrameRecord(const FrameRequest& request, const OsdOverlay& osd,
                                        const FrameSettings& settings) {
    qv::VideoCaptureFrameRecord record{};
    record.fourcc = request.fourcc;
    record.width = static_cast<uint16_t>(request.cx);
    record.height = static_cast<uint16_t>(request.cy);
    record.aspectX = settings.aspectX;
    record.aspectY = settings.aspectY;
    record.colorFormat = settings.colorFormat;
    record.quantizationRange = settings.quantizationRange;
    record.saturationRange = settings.saturationRange;
    record.contrast = settings.contrast;
    record.brightness = settings.brightness;
    record.saturation = settings.saturation;
    record.hue = settings.hue;
    CopyRect(settings.source, &record.source);
    CopyRect(settings.destination, &record.destination);
    record.deinterlaceMode = settings.deinterlaceMode;
    record.aspectRatioConvertMode = settings.aspectRatioConvertMode;
    record.frameIndex = request.frame;
    record.osdImage = osd.image;
    for (int i = 0; i < osd.rectCount; ++i) record.osdRects[i] = osd.rects[i];
    record.osdRectCount = osd.rectCount;
    record.physicalAddress = request.physical ? 1 : 0;
    record.address = request.address;
    record.size = request.size;
    record.stride = request.stride;
    record.bottomUp = static_cast<uint8_t>(request.bottomUp);
    record.partialNotify = static_cast<uint16_t>(settings.partialNotify);
    record.processSwitches = settings.processSwitches;
    record.context = request.context;
    return record;
}

unsigned long long Bits(_LARGE_INTEGER address) {
    return static_cast<unsigned long long>(address.QuadPart);
}

}  // namespace

QV_RESULT CQVCaptureBase::CaptureFrame(const FrameRequest& request, const OsdOverlay& osd,
                                       const FrameSettings& settings) {
    if (!Fits(osd)) return QV_RESULT_BAD_ARGUMENT;
    if (!request.physical && request.address == 0) return QV_RESULT_BAD_ARGUMENT;
    return qv::Do(m_hChannelFD, qv::kCaptureVideoFrame, FrameRecord(request, osd, settings));
}

QV_RESULT CQVCaptureBase::CaptureFrameWithOsd(const FrameRequest& request, const OsdOverlay& osd) {
    return osd.image == 0 ? QV_RESULT_BAD_ARGUMENT : CaptureFrame(request, osd, FrameSettings{});
}

QV_RESULT CQVCaptureBase::CaptureVideoFrameToPhysicalAddress(int frame, _LARGE_INTEGER address,
                                                             unsigned int size, unsigned int stride,
                                                             char bottomUp,
                                                             unsigned long long context,
                                                             unsigned int fourcc, int cx, int cy) {
    return CaptureFrame(
        {frame, true, Bits(address), size, stride, bottomUp, context, fourcc, cx, cy}, kNoOsd, {});
}

QV_RESULT CQVCaptureBase::CaptureVideoFrameToVirtualAddress(int frame, unsigned long long address,
                                                            unsigned int size, unsigned int stride,
                                                            char bottomUp,
                                                            unsigned long long context,
                                                            unsigned int fourcc, int cx, int cy) {
    return CaptureFrame({frame, false, address, size, stride, bottomUp, context, fourcc, cx, cy},
                        kNoOsd, {});
}

QV_RESULT CQVCaptureBase::CaptureVideoFrameWithOSDToPhysicalAddress(
    int frame, _LARGE_INTEGER address, unsigned int size, unsigned int stride, char bottomUp,
    unsigned long long context, unsigned int fourcc, int cx, int cy, unsigned long long osdImage,
    const _RECT* osdRects, int osdRectCount) {
    return CaptureFrameWithOsd(
        {frame, true, Bits(address), size, stride, bottomUp, context, fourcc, cx, cy},
        {osdImage, osdRects, osdRectCount});
}

QV_RESULT CQVCaptureBase::CaptureVideoFrameWithOSDToVirtualAddress(
    int frame, unsigned long long address, unsigned int size, unsigned int stride, char bottomUp,
    unsigned long long context, unsigned int fourcc, int cx, int cy, unsigned long long osdImage,
    const _RECT* osdRects, int osdRectCount) {
    return CaptureFrameWithOsd(
        {frame, false, address, size, stride, bottomUp, context, fourcc, cx, cy},
        {osdImage, osdRects, osdRectCount});
}

QV_RESULT CQVCaptureBase::CaptureVideoFrameToPhysicalAddressEx(const FrameRequest& request,
                                                               const OsdOverlay& osd,
                                                               const FrameSettings& settings) {
    return CaptureFrame(request, osd, settings);
}

QV_RESULT CQVCaptureBase::CaptureVideoFrameToVirtualAddressEx(const FrameRequest& request,
                                                              const OsdOverlay& osd,
                                                              const FrameSettings& settings) {
    return CaptureFrame(request, osd, settings);
}

QV_RESULT CQVCaptureBase::StartVideoCapture(unsigned long long event) {
    return qv::DoHandle(m_hChannelFD, qv::kStartVideoCapture, event);
}

QV_RESULT CQVCaptureBase::StopVideoCapture() { return qv::Do(m_hChannelFD, qv::kStopVideoCapture); }

QV_RESULT CQVCaptureBase::GetVideoBufferInfo(_QVCAP_VIDEO_BUFFER_INFO* info) {
    return qv::Do(m_hChannelFD, qv::kGetVideoBufferInfo, info);
}

QV_RESULT CQVCaptureBase::GetVideoFrameInfo(unsigned char index, _QVCAP_VIDEO_FRAME_INFO* info) {
    if (info == nullptr) return QV_RESULT_BAD_ARGUMENT;
    qv::FrameInfoRecord record{index, {}, {}};
    const QV_RESULT result = qv::Do(m_hChannelFD, qv::kGetVideoFrameInfo, &record);
    if (result == QV_RESULT_OK) *info = record.info;
    return result;
}

QV_RESULT CQVCaptureBase::GetVideoCaptureStatus(_QVCAP_VIDEO_CAPTURE_STATUS* status) {
    return qv::Do(m_hChannelFD, qv::kGetVideoCaptureStatus, status);
}

QV_RESULT CQVCaptureBase::PinVideoBuffer(unsigned long long address, unsigned int size) {
    if (address == 0) return QV_RESULT_BAD_ARGUMENT;
    return qv::Do(m_hChannelFD, qv::kPinVideoBuffer, {address, size, kPinReadWrite});
}

QV_RESULT CQVCaptureBase::UnpinVideoBuffer(unsigned long long address) {
    return qv::DoHandle(m_hChannelFD, qv::kUnpinVideoBuffer, address);
}

// ---- OSD images ------------------------------------------------------------------------------

unsigned long long CQVCaptureBase::CreateImage(int cx, int cy) {
    qv::CreateImageRecord record{static_cast<uint16_t>(cx), static_cast<uint16_t>(cy), 0};
    return qv::Do(m_hChannelFD, qv::kCreateImage, &record) == QV_RESULT_OK ? record.image : 0;
}

namespace {

QV_RESULT CountReferences(int fd, qv::Exchange<qv::ImageReferenceRecord> request,
                          unsigned long long image, long* refCount) {
    if (image == 0 || refCount == nullptr) return QV_RESULT_BAD_ARGUMENT;
    qv::ImageReferenceRecord record{image, 0};
    const QV_RESULT result = qv::Do(fd, request, &record);
    if (result == QV_RESULT_OK) *refCount = record.referenceCount;
    return result;
}

}  // namespace

QV_RESULT CQVCaptureBase::OpenImage(unsigned long long image, long* refCount) {
    return CountReferences(m_hChannelFD, qv::kOpenImage, image, refCount);
}

QV_RESULT CQVCaptureBase::CloseImage(unsigned long long image, long* refCount) {
    return CountReferences(m_hChannelFD, qv::kCloseImage, image, refCount);
}

QV_RESULT CQVCaptureBase::UploadImageFromPhysicalAddress(const _QVCAP_VIDEO_IMAGE_UPLOAD* upload) {
    return qv::DoGiven(m_hChannelFD, qv::kUploadImage, upload);
}

QV_RESULT CQVCaptureBase::UploadImageFromVirtualAddress(const _QVCAP_VIDEO_IMAGE_UPLOAD* upload) {
    return qv::DoGiven(m_hChannelFD, qv::kUploadImage, upload);
}

// ---- Lumo capture ----------------------------------------------------------------------------

QV_RESULT CQVCaptureBase::StartVideoLumoCapture(const _QVCAP_VIDEO_LUMO_CAPTURE_OPEN* open) {
    return qv::DoGiven(m_hChannelFD, qv::kStartVideoLumoCapture, open);
}

QV_RESULT CQVCaptureBase::SetVideoLumoCaptureSettings(
    const _QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS* settings) {
    return qv::DoGiven(m_hChannelFD, qv::kSetVideoLumoCaptureSettings, settings);
}

QV_RESULT CQVCaptureBase::CaptureSetVideoLumoFrame(const _QVCAP_VIDEO_LUMO_CAPTURE_FRAME* frame) {
    return qv::DoGiven(m_hChannelFD, qv::kCaptureSetVideoLumoFrame, frame);
}

QV_RESULT CQVCaptureBase::GetVideoLumoCaptureStatus(_QVCAP_VIDEO_LUMO_CAPTURE_STATUS* status) {
    return qv::Do(m_hChannelFD, qv::kGetVideoLumoCaptureStatus, status);
}

QV_RESULT CQVCaptureBase::StopVideoLumoCapture() {
    return qv::Do(m_hChannelFD, qv::kStopVideoLumoCapture);
}

// ---- Audio -----------------------------------------------------------------------------------

QV_RESULT CQVCaptureBase::StartAudioCapture() {
    return qv::Do(m_hChannelFD, qv::kStartAudioCapture);
}

QV_RESULT CQVCaptureBase::StopAudioCapture() { return qv::Do(m_hChannelFD, qv::kStopAudioCapture); }

QV_RESULT CQVCaptureBase::CaptureAudioFrame(_QVCAP_AUDIO_CAPTURE_FRAME* frame) {
    if (frame == nullptr || m_hChannelFD == qv::kClosed) return QV_RESULT_BAD_ARGUMENT;
    // Directly into the caller's record, so that 6 KiB are not copied twice.
    if (qv::Call(m_hChannelFD, qv::kCaptureAudioFrame, frame) != 0)
        return errno == ENODATA ? QV_RESULT_NO_DATA : QV_RESULT_FAILED;
    return frame->marker == QV_AUDIO_FRAME_MARKER ? QV_RESULT_OK : QV_RESULT_FAILED;
}
