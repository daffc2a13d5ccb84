// Records that only the library and the driver exchange, with their sizes and offsets checked.
//
// Not the records that callers of the library see: those are in QVCaptureTypes.h and are checked
// here, too. Packed, little-endian, fixed-width. A user-space address is a 64-bit field filled
// through uintptr_t, so a 32-bit caller leaves its upper half 0. Pure data, any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "QVCaptureTypes.h"

namespace qv {

// A user-space address as stored in a record.
inline uint64_t WireAddress(const void* pointer) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer));
}

// Notification enable bits that the library itself registers for. Source: the driver.
inline constexpr uint32_t kNotifyVideoFrame = 0x400;
inline constexpr uint32_t kNotifyAudioFrame = 0x1000;

// Frame selectors of a capture request. Source: the driver.
inline constexpr int32_t kFrameNewestBuffered = -1;
inline constexpr int32_t kFrameNextLowLatency = -2;

// Most OSD rectangles of one capture request.
inline constexpr int kMaxOsdRects = 4;

#pragma pack(push, 1)

struct FirmwareDataRecord {
    uint32_t offset;   // flash address, bytes
    uint32_t size;     // bytes; after a read: bytes delivered
    uint64_t address;  // the caller's buffer
};

struct FirmwareEraseRecord {
    uint32_t offset;  // flash address, bytes
    uint32_t size;    // bytes
};

struct WaitEventRecord {
    uint64_t event;
    int32_t timeout;  // milliseconds, -1 for ever; the caller's value unchanged
};

struct MultiWaitEventRecord {
    uint64_t handles;  // address of an array of 64-bit event handles
    int32_t count;
    int32_t timeout;
};

struct RegisterNotifyRecord {
    uint64_t notify;      // out
    uint64_t enableBits;  // upper half 0
    uint64_t event;       // signalled by the driver
};

struct NotifyStatusRecord {
    uint64_t notify;
    uint64_t statusBits;  // out
};

struct RegisterTimerRecord {
    uint64_t timer;  // out
    uint64_t event;  // signalled by the driver
};

struct ScheduleTimerRecord {
    uint64_t timer;
    int64_t expiry;  // device-clock time
};

struct CountedArrayRecord {
    uint32_t count;    // elements or bytes: in the capacity, out what the driver has
    uint64_t address;  // the caller's buffer
};

struct FrameInfoRecord {
    uint8_t frameIndex;
    uint8_t unused[3];
    _QVCAP_VIDEO_FRAME_INFO info;  // out
};

struct InfoFrameRecord {
    _QVCAP_HDMI_INFOFRAME_ID id;
    _HDMI_INFOFRAME_PACKET packet;  // out
};

struct AspectRatioRecord {
    int32_t x;
    int32_t y;
};

struct PinVideoBufferRecord {
    uint64_t address;
    uint64_t size;
    uint64_t access;  // always 3
};

struct CreateImageRecord {
    uint16_t width;
    uint16_t height;
    uint64_t image;  // out
};

struct ImageReferenceRecord {
    uint64_t image;
    int32_t referenceCount;  // out
};

struct VideoCaptureFrameRecord {
    uint32_t fourcc;
    uint16_t width;
    uint16_t height;
    int32_t aspectX;
    int32_t aspectY;
    _QVCAP_VIDEO_COLOR_FORMAT colorFormat;
    _QVCAP_VIDEO_QUANTIZATION_RANGE quantizationRange;
    _QVCAP_VIDEO_SATURATION_RANGE saturationRange;
    int16_t contrast;
    int16_t brightness;
    int16_t saturation;
    int16_t hue;
    _RECT source;
    _RECT destination;
    _QVCAP_VIDEO_DEINTERLACE_MODE deinterlaceMode;
    _QVCAP_VIDEO_ASPECT_RATIO_CONVERT_MODE aspectRatioConvertMode;
    int32_t frameIndex;
    uint64_t osdImage;
    _RECT osdRects[kMaxOsdRects];
    int32_t osdRectCount;
    uint8_t physicalAddress;  // 1 physical, 0 user space
    uint64_t address;
    uint32_t size;    // bytes
    uint32_t stride;  // bytes
    uint8_t bottomUp;
    uint16_t partialNotify;
    uint32_t processSwitches;
    uint64_t context;  // comes back with the completion
};

#pragma pack(pop)

static_assert(sizeof(FirmwareDataRecord) == 16 && offsetof(FirmwareDataRecord, address) == 8);
static_assert(sizeof(FirmwareEraseRecord) == 8);
static_assert(sizeof(WaitEventRecord) == 12 && offsetof(WaitEventRecord, timeout) == 8);
static_assert(sizeof(MultiWaitEventRecord) == 16 && offsetof(MultiWaitEventRecord, timeout) == 12);
static_assert(sizeof(RegisterNotifyRecord) == 24 && offsetof(RegisterNotifyRecord, event) == 16);
static_assert(sizeof(NotifyStatusRecord) == 16);
static_assert(sizeof(RegisterTimerRecord) == 16);
static_assert(sizeof(ScheduleTimerRecord) == 16);
static_assert(sizeof(CountedArrayRecord) == 12 && offsetof(CountedArrayRecord, address) == 4);
static_assert(sizeof(FrameInfoRecord) == 68 && offsetof(FrameInfoRecord, info) == 4);
static_assert(sizeof(InfoFrameRecord) == 35 && offsetof(InfoFrameRecord, packet) == 4);
static_assert(sizeof(AspectRatioRecord) == 8);
static_assert(sizeof(PinVideoBufferRecord) == 24 && offsetof(PinVideoBufferRecord, access) == 16);
static_assert(sizeof(CreateImageRecord) == 12 && offsetof(CreateImageRecord, image) == 4);
static_assert(sizeof(ImageReferenceRecord) == 12);

static_assert(sizeof(VideoCaptureFrameRecord) == 188);
static_assert(offsetof(VideoCaptureFrameRecord, height) == 6);
static_assert(offsetof(VideoCaptureFrameRecord, aspectX) == 8);
static_assert(offsetof(VideoCaptureFrameRecord, colorFormat) == 16);
static_assert(offsetof(VideoCaptureFrameRecord, contrast) == 28);
static_assert(offsetof(VideoCaptureFrameRecord, hue) == 34);
static_assert(offsetof(VideoCaptureFrameRecord, source) == 36);
static_assert(offsetof(VideoCaptureFrameRecord, destination) == 52);
static_assert(offsetof(VideoCaptureFrameRecord, deinterlaceMode) == 68);
static_assert(offsetof(VideoCaptureFrameRecord, frameIndex) == 76);
static_assert(offsetof(VideoCaptureFrameRecord, osdImage) == 80);
static_assert(offsetof(VideoCaptureFrameRecord, osdRects) == 88);
static_assert(offsetof(VideoCaptureFrameRecord, osdRectCount) == 152);
static_assert(offsetof(VideoCaptureFrameRecord, physicalAddress) == 156);
static_assert(offsetof(VideoCaptureFrameRecord, address) == 157);
static_assert(offsetof(VideoCaptureFrameRecord, size) == 165);
static_assert(offsetof(VideoCaptureFrameRecord, stride) == 169);
static_assert(offsetof(VideoCaptureFrameRecord, bottomUp) == 173);
static_assert(offsetof(VideoCaptureFrameRecord, partialNotify) == 174);
static_assert(offsetof(VideoCaptureFrameRecord, processSwitches) == 176);
static_assert(offsetof(VideoCaptureFrameRecord, context) == 180);

static_assert(sizeof(_QVCAP_CHANNEL_INFO) == 224);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, productCode) == 2);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, hardwareVersion) == 4);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, firmwareVersion) == 6);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, familyName) == 14);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, productName) == 78);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, furtherText) == 142);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, boardSerialNumber) == 206);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, boardIndex) == 222);
static_assert(offsetof(_QVCAP_CHANNEL_INFO, channelIndex) == 223);
static_assert(sizeof(_QVCAP_FIRMWARE_STORAGE) == 16);
static_assert(offsetof(_QVCAP_FIRMWARE_STORAGE, firmwareOffset) == 12);
static_assert(sizeof(_QVCAP_VIDEO_BUFFER_INFO) == 13);
static_assert(offsetof(_QVCAP_VIDEO_BUFFER_INFO, completedFrameIndex) == 8);
static_assert(sizeof(_QVCAP_VIDEO_CAPTURE_STATUS) == 26);
static_assert(offsetof(_QVCAP_VIDEO_CAPTURE_STATUS, frameCompleted) == 21);
static_assert(sizeof(_QVCAP_AUDIO_CAPTURE_FRAME) == 6168);
static_assert(offsetof(_QVCAP_AUDIO_CAPTURE_FRAME, marker) == 8);
static_assert(sizeof(_QVCAP_VIDEO_PROCESS_SETTINGS) == 49);
static_assert(offsetof(_QVCAP_VIDEO_PROCESS_SETTINGS, lowLatency) == 28);

}  // namespace qv
