/** @file
 * Results, records, handles and callback types of the capture-device library.
 *
 * Plain C: compiles as C99 and as C++17. Declares no function; see QVCapture.h.
 *
 * Every record is packed and little-endian and is passed unchanged between the caller and the
 * kernel driver; its size is part of the driver's request codes. Fields whose meaning only the
 * driver knows are named byte arrays: the library passes them on unchanged. Each description
 * says what the simulated driver of qvcap-sim puts there; a card's driver puts something else. A
 * well-behaved driver NUL-terminates texts from a device, but never trust that: bound every
 * read. */
#ifndef QV_CAPTURE_TYPES_H
#define QV_CAPTURE_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Result of a library operation. No other value is returned. */
typedef int32_t QV_RESULT;
enum {
    QV_RESULT_OK = 0,           /**< success */
    QV_RESULT_FAILED = 1,       /**< refused by driver or device, not available, or nothing found */
    QV_RESULT_NO_DATA = 2,      /**< no audio frame is ready yet; QVCaptureAudioFrame() only */
    QV_RESULT_BAD_ARGUMENT = 3, /**< null handle or pointer, index out of range, channel closed */
};

/** Version of the library that these headers belong to, at compile time; see QVGetVersion() for
 *  the version at run time. */
#define QV_VERSION_MAJOR 3
#define QV_VERSION_MINOR 3
#define QV_VERSION_BUILD 0
/** True when the headers are of this version or a later one. */
#define QV_VERSION_AT_LEAST(major, minor) \
    (QV_VERSION_MAJOR > (major) || (QV_VERSION_MAJOR == (major) && QV_VERSION_MINOR >= (minor)))

/** One open channel; null means that there is no channel. Made by the open functions, released
 *  only by QVCloseChannel(). */
typedef void* QV_CHANNEL;

/** Largest number of channels that one registry keeps. */
enum { QV_MAX_CHANNELS = 64 };

/** Called when the library will not use a caller's parameter again: no callback with it is running,
 * and none will be called. Called exactly once for each parameter that it was given with.
 *
 * It runs on the worker's thread, or on the thread whose call failed, stopped the worker or
 * closed the channel; the rules for callbacks apply to it, too. It may call the library; its
 * calls to a worker that is ending fail. */
typedef void (*QV_RELEASE_CALLBACK)(void* param);

/* Values that the driver defines and the library passes through, 32 bits each. */
typedef uint32_t _QVCAP_VIDEO_COLOR_FORMAT;
typedef uint32_t _QVCAP_VIDEO_QUANTIZATION_RANGE;
typedef uint32_t _QVCAP_VIDEO_SATURATION_RANGE;
typedef uint32_t _QVCAP_VIDEO_DEINTERLACE_MODE;
typedef uint32_t _QVCAP_VIDEO_ASPECT_RATIO_CONVERT_MODE;

/** HDMI info-frame id, 0 to 11. */
typedef int32_t _QVCAP_HDMI_INFOFRAME_ID;

/** Pacing of callback video capture: 1 captures back to back into two buffers alternately, any
 *  other value captures one frame per frame notification of the driver. */
typedef uint32_t _QV_VIDEO_CAPTURE_MODE;
enum { QV_VIDEO_CAPTURE_ON_NOTIFY = 0, QV_VIDEO_CAPTURE_BACK_TO_BACK = 1 };

/** Marker of a valid audio frame, at offset 8 of _QVCAP_AUDIO_CAPTURE_FRAME. Source: the driver. */
#define QV_AUDIO_FRAME_MARKER 0xFECA0357u

#pragma pack(push, 1)

/** A bus address in the driver's format. 8 bytes. */
typedef struct _LARGE_INTEGER {
    int64_t QuadPart;
} _LARGE_INTEGER;

/** Rectangle in pixels; right and bottom are exclusive. */
typedef struct _RECT {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
} _RECT;

/** Identity of one channel, as the driver returned it. 224 bytes. */
typedef struct _QVCAP_CHANNEL_INFO {
    uint8_t identification0[2];
    uint16_t productCode; /**< matched against firmware packages */
    char hardwareVersion; /**< one character */
    uint8_t identification5[1];
    uint32_t firmwareVersion; /**< running firmware: major in the high, minor in the low 16 bits */
    uint8_t identification10[4];
    char familyName[64]; /**< "Pelix Capture", "Lumo Capture" or "Tavo Capture" */
    char productName[64];
    char furtherText[64];
    char boardSerialNumber[16]; /**< identifies the board */
    uint8_t boardIndex;         /**< 0 to 15, as set on the board */
    uint8_t channelIndex;       /**< 0 to 15, the channel's number on its board */
} _QVCAP_CHANNEL_INFO;

/** Family information of a PCIe channel; never interpreted by the library. 17 bytes. All of it is
 *  defined by the driver. The simulated driver: bytes without a meaning, the same at every read. */
typedef struct _QVCAP_PELIX_CAPTURE_INFO {
    uint8_t bytes[17];
} _QVCAP_PELIX_CAPTURE_INFO;

/** Family information of a USB channel; never interpreted by the library. 10 bytes. */
typedef struct _QVUSBCAP_CAPTURE_INFO {
    uint32_t word0;
    uint32_t word4;
    uint16_t word8;
} _QVUSBCAP_CAPTURE_INFO;

/** Flash layout of a card. 16 bytes. The three descriptions are defined by the driver. The
 *  simulated driver: 0, or what a scenario gives. */
typedef struct _QVCAP_FIRMWARE_STORAGE {
    uint32_t description0;
    uint32_t description4;
    uint32_t description8;
    uint32_t firmwareOffset; /**< flash address, bytes, of the firmware header area */
} _QVCAP_FIRMWARE_STORAGE;

/** Video capabilities. 12 bytes. All of it is defined by the driver. The simulated driver: bytes
 *  without a meaning, the same at every read. */
typedef struct _QVCAP_VIDEO_CAPS {
    uint8_t bytes[12];
} _QVCAP_VIDEO_CAPS;

/** Audio capabilities. 4 bytes. All of it is defined by the driver. The simulated driver: bytes
 *  without a meaning, the same at every read. */
typedef struct _QVCAP_AUDIO_CAPS {
    uint8_t bytes[4];
} _QVCAP_AUDIO_CAPS;

/** Which frame the driver's buffers hold. 13 bytes; the meaning of one is known. The simulated
 *  driver: at 0 the number of the newest frame (32 bits), at 4 the count of buffers, 4 (32
 *  bits). */
typedef struct _QVCAP_VIDEO_BUFFER_INFO {
    uint8_t bytes0[8];
    uint8_t completedFrameIndex; /**< frame finished last; the index for QVGetVideoFrameInfo() */
    uint8_t bytes9[4];
} _QVCAP_VIDEO_BUFFER_INFO;

/** Description of one captured frame. 64 bytes. All of it is defined by the driver. The simulated
 *  driver: at 0 the frame's running number from 1 on (32 bits; a gap is a frame that was not
 *  captured), at 4 the width and at 6 the height (16 bits each), at 8 the device time of the
 *  frame (64 bits), then 0. */
typedef struct _QVCAP_VIDEO_FRAME_INFO {
    uint8_t bytes[64];
} _QVCAP_VIDEO_FRAME_INFO;

/** State of the current capture request. 26 bytes; the meaning of one is known. The simulated
 *  driver: at 0 the context of the request (64 bits), at 8 the number of the frame (32 bits). */
typedef struct _QVCAP_VIDEO_CAPTURE_STATUS {
    uint8_t bytes0[21];
    uint8_t frameCompleted; /**< non-zero when the whole frame is in the buffer */
    uint8_t bytes22[4];
} _QVCAP_VIDEO_CAPTURE_STATUS;

/** One buffered audio frame. 6168 bytes; the marker is known, the format of the samples and the
 *  meaning of the rest are the driver's. The simulated driver: at 0 the frame's running number from
 *  1 on (64 bits); after the marker 3078 samples of 16 bits, signed and little-endian, of one sine
 *  that continues from frame to frame, 48 samples per period: 1 kHz for one channel at 48 kHz.
 */
typedef struct _QVCAP_AUDIO_CAPTURE_FRAME {
    uint8_t bytes0[8];
    uint32_t marker; /**< QV_AUDIO_FRAME_MARKER in a valid frame */
    uint8_t bytes12[6156];
} _QVCAP_AUDIO_CAPTURE_FRAME;

/** State that only inputs of the present kind have. 61 bytes. All of it is defined by the driver.
 *  The simulated driver: bytes without a meaning, the same at every read. */
typedef struct _QVCAP_INPUT_SPECIFIC_STATUS {
    uint8_t bytes[61];
} _QVCAP_INPUT_SPECIFIC_STATUS;

/** State of the video signal. 58 bytes. All of it is defined by the driver. The simulated driver:
 *  byte 0 is 1 with a signal and 0 without, the others mean nothing. */
typedef struct _QVCAP_VIDEO_SIGNAL_STATUS {
    uint8_t bytes[58];
} _QVCAP_VIDEO_SIGNAL_STATUS;

/** State of the audio signal. 33 bytes. All of it is defined by the driver. The simulated driver:
 *  byte 0 is 1 with a signal and 0 without, the others mean nothing. */
typedef struct _QVCAP_AUDIO_SIGNAL_STATUS {
    uint8_t bytes[33];
} _QVCAP_AUDIO_SIGNAL_STATUS;

/** One info-frame of an HDMI source. 31 bytes. All of it is defined by the driver. The simulated
 *  driver: bytes without a meaning, the same at every read of one id. */
typedef struct _HDMI_INFOFRAME_PACKET {
    uint8_t bytes[31];
} _HDMI_INFOFRAME_PACKET;

/** Timing of a video signal. 28 bytes. All of it is defined by the driver. The simulated driver:
 * two preferred timings without a meaning. */
typedef struct _QVCAP_VIDEO_TIMING {
    uint8_t bytes[28];
} _QVCAP_VIDEO_TIMING;

/** A custom timing. 27 bytes. All of it is defined by the driver. The simulated driver: none
 *  until some are set, then those. */
typedef struct _QVCAP_VIDEO_CUSTOM_TIMING {
    uint8_t bytes[27];
} _QVCAP_VIDEO_CUSTOM_TIMING;

/** One custom resolution. 4 bytes. All of it is defined by the driver. The simulated driver: none
 *  until some are set, then those. */
typedef struct _QVCAP_VIDEO_CUSTOM_RESOLUTION {
    uint8_t bytes[4];
} _QVCAP_VIDEO_CUSTOM_RESOLUTION;

/** Format on the connection. 37 bytes. All of it is defined by the driver. The simulated driver:
 *  bytes without a meaning, the same at every read; what was set is given back. */
typedef struct _QVCAP_VIDEO_CONNECTION_FORMAT {
    uint8_t bytes[37];
} _QVCAP_VIDEO_CONNECTION_FORMAT;

/** How the driver processes the input picture. 49 bytes; the mask and the five settings are
 *  defined by the driver. The simulated driver: bytes without a meaning, the same at every read;
 *  what was set is given back. */
typedef struct _QVCAP_VIDEO_PROCESS_SETTINGS {
    uint32_t processMask;
    _RECT sourceRect; /**< pixels of the input picture */
    int32_t aspectX;
    int32_t aspectY;
    uint8_t lowLatency;
    uint32_t settings[5]; /**< defined by the driver */
} _QVCAP_VIDEO_PROCESS_SETTINGS;

/** The overlay of the picture. 513 bytes. All of it is defined by the driver. The simulated
 *  driver: bytes without a meaning, the same at every read; what was set is given back. */
typedef struct _QVCAP_VIDEO_OSD_SETTINGS {
    uint8_t bytes[513];
} _QVCAP_VIDEO_OSD_SETTINGS;

/** Where an image is laid over the picture. 76 bytes. All of it is defined by the driver. The
 *  simulated driver: bytes without a meaning, the same at every read; what was set is given back.
 */
typedef struct _QVCAP_VIDEO_OSD_IMAGE {
    uint8_t bytes[76];
} _QVCAP_VIDEO_OSD_IMAGE;

/** Upload of picture data into an OSD image. 52 bytes. All of it is defined by the driver. The
 *  simulated driver takes it and does nothing with it. */
typedef struct _QVCAP_VIDEO_IMAGE_UPLOAD {
    uint8_t bytes[52];
} _QVCAP_VIDEO_IMAGE_UPLOAD;

/** Kind of the ancillary packets wanted from an SDI signal. 5 bytes. All of it is defined by the
 *  driver. The simulated driver keeps it. */
typedef struct _QVCAP_SDI_ANC_TYPE {
    uint8_t bytes[5];
} _QVCAP_SDI_ANC_TYPE;

/** One ancillary packet of an SDI signal. 260 bytes. All of it is defined by the driver. The
 *  simulated driver: bytes without a meaning, the same at every read. */
typedef struct _QVCAP_SDI_ANC_PACKET {
    uint8_t bytes[260];
} _QVCAP_SDI_ANC_PACKET;

/** How the capture engine of a Lumo board is started. 24 bytes. All of it is defined by the
 *  driver. The simulated driver keeps it, and captures nothing. */
typedef struct _QVCAP_VIDEO_LUMO_CAPTURE_OPEN {
    uint8_t bytes[24];
} _QVCAP_VIDEO_LUMO_CAPTURE_OPEN;

/** Settings of a running Lumo capture. 20 bytes. All of it is defined by the driver. The
 *  simulated driver keeps it, and captures nothing. */
typedef struct _QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS {
    uint8_t bytes[20];
} _QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS;

/** One frame request of a Lumo capture. 29 bytes. All of it is defined by the driver. The
 *  simulated driver keeps it, and captures nothing. */
typedef struct _QVCAP_VIDEO_LUMO_CAPTURE_FRAME {
    uint8_t bytes[29];
} _QVCAP_VIDEO_LUMO_CAPTURE_FRAME;

/** State of a Lumo capture. 24 bytes. All of it is defined by the driver. The simulated driver:
 *  bytes without a meaning, the same at every read. */
typedef struct _QVCAP_VIDEO_LUMO_CAPTURE_STATUS {
    uint8_t bytes[24];
} _QVCAP_VIDEO_LUMO_CAPTURE_STATUS;

#pragma pack(pop)

/** One stream of a channel. The driver defines the record and its size; the library never reads
 *  it, so callers use their driver's definition. */
typedef struct _QVCAP_STREAM_INFO _QVCAP_STREAM_INFO;

#ifdef __cplusplus
}
#endif

#endif
