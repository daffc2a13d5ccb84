/** @file
 * Video and audio capture of PCIe channels, frame by frame, and OSD images.
 *
 * Part of QVCapture.h; results and thread words as described there. PCIe channels only: calls
 * for a channel of another kind fail. Every function here: @threads per channel. */
#ifndef QV_CAPTURE_VIDEO_H
#define QV_CAPTURE_VIDEO_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Video capture ----------------------------------------------------------------------- */

/** Starts video capture; the driver sets @p event as requested frames complete. Event 0 is refused
 * as a bad argument. */
QV_API QV_RESULT QVStartVideoCapture(QV_CHANNEL channel, unsigned long long event);
/** Stops video capture. Frame memory that was given to the driver may be released after this has
 * succeeded, not before. */
QV_API QV_RESULT QVStopVideoCapture(QV_CHANNEL channel);

/** Reads which frames the driver's buffers hold. */
QV_API QV_RESULT QVGetVideoBufferInfo(QV_CHANNEL channel, _QVCAP_VIDEO_BUFFER_INFO* info);
/** Reads the description of the frame at @p index of the driver's buffers. */
QV_API QV_RESULT QVGetVideoFrameInfo(QV_CHANNEL channel, unsigned char index,
                                     _QVCAP_VIDEO_FRAME_INFO* info);
/** Reads how far the latest capture request has come. */
QV_API QV_RESULT QVGetVideoCaptureStatus(QV_CHANNEL channel, _QVCAP_VIDEO_CAPTURE_STATUS* status);

/* The capture functions ask for one frame and return at once; the driver writes it and then sets
 * the event of QVStartVideoCapture(). Common parameters:
 *   frame     index in the driver's buffers; -1 the newest buffered frame, -2 the next one, written
 *             while it arrives
 *   address   where to: memory of the process (Virtual) or of the bus (Physical); owned by the
 *             caller and kept until the frame is complete or capture has stopped
 *   size      of that memory, bytes              stride   bytes from line to line
 *   bottomUp  non-zero: last line first          context  comes back with the completion
 *   fourcc    pixel format, first character in the low byte
 *   cx, cy    width and height, pixels and lines, 16 bits each in the driver's record */

/** Computes the memory that a frame of a pixel format needs: the stride and size for a capture
 * request.
 * @param[in]  fourcc  pixel format, first character in the low byte
 * @param[out] stride  bytes from line to line       @param[out] size  bytes in all
 * @retval QV_RESULT_FAILED  the format is unknown, or cannot be captured at these dimensions
 * @threads any */
QV_API QV_RESULT QVGetFrameLayout(unsigned int fourcc, int cx, int cy, unsigned int* stride,
                                  unsigned int* size);

/** Asks for one frame in memory of the bus. */
QV_API QV_RESULT QVCaptureVideoFrameToPhysicalAddress(QV_CHANNEL channel, int frame,
                                                      _LARGE_INTEGER address, unsigned int size,
                                                      unsigned int stride, char bottomUp,
                                                      unsigned long long context,
                                                      unsigned int fourcc, int cx, int cy);

/** Address 0 is refused as a bad argument. */
QV_API QV_RESULT QVCaptureVideoFrameToVirtualAddress(QV_CHANNEL channel, int frame,
                                                     unsigned long long address, unsigned int size,
                                                     unsigned int stride, char bottomUp,
                                                     unsigned long long context,
                                                     unsigned int fourcc, int cx, int cy);

/** With an OSD image laid over the frame at @p osdRectCount rectangles, at most four; a negative
 * or larger count, or image 0, is refused as a bad argument. */
QV_API QV_RESULT QVCaptureVideoFrameWithOSDToPhysicalAddress(
    QV_CHANNEL channel, int frame, _LARGE_INTEGER address, unsigned int size, unsigned int stride,
    char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy,
    unsigned long long osdImage, const _RECT* osdRects, int osdRectCount);

/** As above, to memory of the process; address 0 is refused as a bad argument. */
QV_API QV_RESULT QVCaptureVideoFrameWithOSDToVirtualAddress(
    QV_CHANNEL channel, int frame, unsigned long long address, unsigned int size,
    unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx,
    int cy, unsigned long long osdImage, const _RECT* osdRects, int osdRectCount);

/** With every setting of the capture request given: process switches and partial notification
 * (lines; 16 bits are passed), OSD, picture values, deinterlacing, source and destination
 * rectangles (null: whole picture), aspect ratio and colour description. Without OSD: image 0,
 * count 0. */
QV_API QV_RESULT QVCaptureVideoFrameToPhysicalAddressEx(
    QV_CHANNEL channel, int frame, _LARGE_INTEGER address, unsigned int size, unsigned int stride,
    char bottomUp, unsigned long long context, unsigned int fourcc, int cx, int cy,
    unsigned int processSwitches, int partialNotify, unsigned long long osdImage,
    const _RECT* osdRects, int osdRectCount, short contrast, short brightness, short saturation,
    short hue, _QVCAP_VIDEO_DEINTERLACE_MODE deinterlaceMode,
    _QVCAP_VIDEO_ASPECT_RATIO_CONVERT_MODE aspectRatioConvertMode, const _RECT* source,
    const _RECT* destination, int aspectX, int aspectY, _QVCAP_VIDEO_COLOR_FORMAT colorFormat,
    _QVCAP_VIDEO_QUANTIZATION_RANGE quantizationRange,
    _QVCAP_VIDEO_SATURATION_RANGE saturationRange);

/** As above, to memory of the process; address 0 is refused as a bad argument. */
QV_API QV_RESULT QVCaptureVideoFrameToVirtualAddressEx(
    QV_CHANNEL channel, int frame, unsigned long long address, unsigned int size,
    unsigned int stride, char bottomUp, unsigned long long context, unsigned int fourcc, int cx,
    int cy, unsigned int processSwitches, int partialNotify, unsigned long long osdImage,
    const _RECT* osdRects, int osdRectCount, short contrast, short brightness, short saturation,
    short hue, _QVCAP_VIDEO_DEINTERLACE_MODE deinterlaceMode,
    _QVCAP_VIDEO_ASPECT_RATIO_CONVERT_MODE aspectRatioConvertMode, const _RECT* source,
    const _RECT* destination, int aspectX, int aspectY, _QVCAP_VIDEO_COLOR_FORMAT colorFormat,
    _QVCAP_VIDEO_QUANTIZATION_RANGE quantizationRange,
    _QVCAP_VIDEO_SATURATION_RANGE saturationRange);

/** Keeps @p size bytes of frame memory resident for the driver. */
QV_API QV_RESULT QVPinVideoBuffer(QV_CHANNEL channel, unsigned long long address,
                                  unsigned int size);
/** Unpins pinned frame memory. */
QV_API QV_RESULT QVUnpinVideoBuffer(QV_CHANNEL channel, unsigned long long address);

/* ---- OSD images -------------------------------------------------------------------------- */

/** Creates an OSD image of @p cx by @p cy pixels, 16 bits each.
 * @return its handle, 0 on failure */
QV_API unsigned long long QVCreateImage(QV_CHANNEL channel, int cx, int cy);
/** Adds one reference to an image; @p refCount receives how many there are. */
QV_API QV_RESULT QVOpenImage(QV_CHANNEL channel, unsigned long long image, long* refCount);
/** Drops one reference; @p refCount receives how many are left. */
QV_API QV_RESULT QVCloseImage(QV_CHANNEL channel, unsigned long long image, long* refCount);
/** Uploads picture data as the record describes, from memory of the bus. */
QV_API QV_RESULT QVUploadImageFromPhysicalAddress(QV_CHANNEL channel,
                                                  const _QVCAP_VIDEO_IMAGE_UPLOAD* upload);
/** Uploads picture data as the record describes, from memory of the process. */
QV_API QV_RESULT QVUploadImageFromVirtualAddress(QV_CHANNEL channel,
                                                 const _QVCAP_VIDEO_IMAGE_UPLOAD* upload);

/* ---- Capture of Lumo boards -------------------------------------------------------------- */

/** Starts the capture engine of a Lumo board. */
QV_API QV_RESULT QVStartVideoLumoCapture(QV_CHANNEL channel,
                                         const _QVCAP_VIDEO_LUMO_CAPTURE_OPEN* open);
/** Changes the settings of a running Lumo capture. */
QV_API QV_RESULT QVSetVideoLumoCaptureSettings(QV_CHANNEL channel,
                                               const _QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS* settings);
/** Passes one frame request to a running Lumo capture. */
QV_API QV_RESULT QVCaptureSetVideoLumoFrame(QV_CHANNEL channel,
                                            const _QVCAP_VIDEO_LUMO_CAPTURE_FRAME* frame);
/** Reads the state of a Lumo capture. */
QV_API QV_RESULT QVGetVideoLumoCaptureStatus(QV_CHANNEL channel,
                                             _QVCAP_VIDEO_LUMO_CAPTURE_STATUS* status);
/** Stops the capture engine of a Lumo board. */
QV_API QV_RESULT QVStopVideoLumoCapture(QV_CHANNEL channel);

/* ---- Audio capture ----------------------------------------------------------------------- */

/** Makes the driver buffer audio frames. */
QV_API QV_RESULT QVStartAudioCapture(QV_CHANNEL channel);
/** Ends the buffering of audio frames. */
QV_API QV_RESULT QVStopAudioCapture(QV_CHANNEL channel);
/** Takes the oldest buffered audio frame.
 * @param[out] frame  the driver's record; its contents mean nothing unless the result is OK
 * @retval QV_RESULT_NO_DATA  no frame is ready yet
 * @retval QV_RESULT_FAILED   the driver refused, or the frame lacks QV_AUDIO_FRAME_MARKER */
QV_API QV_RESULT QVCaptureAudioFrame(QV_CHANNEL channel, _QVCAP_AUDIO_CAPTURE_FRAME* frame);

#ifdef __cplusplus
}
#endif

#endif
