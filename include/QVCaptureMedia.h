/** @file
 * Video capture of USB channels, audio capture, playback and volume.
 *
 * Part of QVCapture.h; results and thread words as described there. Video of USB channels goes
 * through their V4L2 node, audio of every channel through its ALSA sound card, so all this needs
 * the cards' own driver only for the identity of the channel. A capture belongs to the caller
 * until its QVDestory... function is called (spelled so on purpose), and the channel must
 * outlive it. */
#ifndef QV_CAPTURE_MEDIA_H
#define QV_CAPTURE_MEDIA_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Records ----------------------------------------------------------------------------- */

/** A running video or audio capture; null means none. */
typedef void* QV_VIDEO_CAPTURE;
typedef void* QV_AUDIO_CAPTURE;

/** Called on the capture's "VideoCapture" thread for every frame.
 * @param[in] frame  @p bytesUsed bytes in the device's own buffer, valid during the call only */
typedef void (*QV_VIDEO_CAPTURE_CALLBACK)(const unsigned char* frame, unsigned int bytesUsed,
                                          void* param);

/** Called on the capture's "AudioCapture" thread for every chunk.
 * @param[in] data      @p bytes bytes of interleaved samples, valid during the call only
 * @param[in] reserved  always 0 */
typedef void (*QV_AUDIO_CAPTURE_CALLBACK)(const unsigned char* data, int bytes, long long reserved,
                                          void* param);

/** Picture control of a video capture. */
typedef uint32_t _QVCAP_VIDEO_PROC_PARAM_TYPE;
enum {
    QV_VIDEO_PROC_BRIGHTNESS = 0,
    QV_VIDEO_PROC_CONTRAST = 1,
    QV_VIDEO_PROC_HUE = 2,
    QV_VIDEO_PROC_SATURATION = 3,
};

/** Audio node of a USB device, 0 to 7: even nodes are inputs, odd nodes outputs. */
typedef uint32_t _QVCAP_USB_AUDIO_NODE;

/** Entries for channels of an audio volume record. */
enum { QV_AUDIO_VOLUME_CHANNELS = 16 };

#pragma pack(push, 1)

/** Volume of one audio node. PCIe channels: 0 to 100 over the control's own range. USB channels:
 *  hundredths of a decibel. 56 bytes. */
typedef struct _QVCAP_AUDIO_VOLUME {
    uint8_t channelCount;
    uint8_t reserved;
    int16_t minimum;
    int16_t maximum;
    int16_t unused;
    uint8_t mute[QV_AUDIO_VOLUME_CHANNELS]; /**< non-zero: muted */
    int16_t volume[QV_AUDIO_VOLUME_CHANNELS];
} _QVCAP_AUDIO_VOLUME;

#pragma pack(pop)

/** One frame size in pixels. */
typedef struct _QVCAP_VIDEO_RESOLUTION {
    uint32_t width;
    uint32_t height;
} _QVCAP_VIDEO_RESOLUTION;

/** Frame sizes in a caller's array. */
typedef struct _QVCAP_VIDEO_RESOLUTION_LIST {
    uint32_t count; /**< in: entries that the array holds; out: entries stored */
    _QVCAP_VIDEO_RESOLUTION* resolutions;
} _QVCAP_VIDEO_RESOLUTION_LIST;

/** Frame sizes as a range, in pixels; a step of 1 allows every size. */
typedef struct _QVCAP_VIDEO_RESOLUTION_RANGE {
    uint32_t widthStep;
    uint32_t heightStep;
    uint32_t minWidth;
    uint32_t minHeight;
    uint32_t maxWidth;
    uint32_t maxHeight;
} _QVCAP_VIDEO_RESOLUTION_RANGE;

/** How a device states its frame sizes. */
enum { QV_RESOLUTION_MODE_RANGE = 0, QV_RESOLUTION_MODE_LIST = 1 };

/* ---- Path of a channel ------------------------------------------------------------------- */

/** Finds the video node of a channel: for a PCIe channel the path that was given to
 * QVOpenChannelByPath(), for a USB channel its V4L2 node, which is looked up by the serial number;
 * a serial number of more than 31 characters is not found.
 * @param[out] path  at least 512 bytes; empty on failure
 * @retval QV_RESULT_FAILED null argument, unknown family, no node; also for a channel from
 *         QVOpenChannel(), which keeps no path
 * @threads per channel */
QV_API QV_RESULT GetDevicePathByChannel(QV_CHANNEL channel, char* path);

/* ---- Video capture of USB channels ------------------------------------------------------- */

/** Opens the channel's V4L2 node and starts capturing.
 * @param[in] fourcc         wanted pixel format, a library code such as 'YUY2'
 * @param[in] frameDuration  wanted time per frame, 100 ns units
 * @return the capture; null when there is no node or it cannot be configured. Not null when only
 *         the start failed: such a capture delivers nothing and must still be destroyed
 * @threads per channel */
QV_API QV_VIDEO_CAPTURE QVCreateVideoCapture(QV_CHANNEL channel, int cx, int cy,
                                             unsigned int fourcc, int frameDuration,
                                             QV_VIDEO_CAPTURE_CALLBACK callback, void* param);

/** Stops and closes; a call from the capture's own callback takes effect when that has returned.
 * @retval QV_RESULT_FAILED null capture
 * @threads one thread at a time for each capture */
QV_API QV_RESULT QVDestoryVideoCapture(QV_VIDEO_CAPTURE capture);

/** Lists the pixel formats of the channel's node as library codes.
 * @param[out]    fourccs  null, or room for @p *count codes
 * @param[in,out] count    in: capacity; out: codes stored, or the number of formats when @p fourccs
 *                         is null or the capacity was 0
 * @retval QV_RESULT_FAILED       no format, or the node cannot be opened; null count
 * @retval QV_RESULT_BAD_ARGUMENT the channel has no node
 * @threads per channel */
QV_API QV_RESULT QVGetVideoCaptureSupportColorFormat(QV_CHANNEL channel, unsigned int* fourccs,
                                                     int* count);

/** Lists the frame sizes of the first pixel format of a device that lists them one by one.
 * @param[in,out] list   see the record; the sizes are untouched when the device states a range
 * @param[out]    total  null, or the number of all sizes, which may be above the capacity;
 *                       untouched when the device states a range
 * @retval QV_RESULT_FAILED       no sizes, or the node cannot be opened
 * @retval QV_RESULT_BAD_ARGUMENT null list; the channel has no node
 * @threads per channel */
QV_API QV_RESULT QVGetVideoCaptureSupportListResolution(QV_CHANNEL channel,
                                                        _QVCAP_VIDEO_RESOLUTION_LIST* list,
                                                        int* total);

/** Reads the range of frame sizes of the first pixel format; untouched when the device lists
 * sizes one by one. Results as for the list. @threads per channel */
QV_API QV_RESULT QVGetVideoCaptureSupportRangeResolution(QV_CHANNEL channel,
                                                         _QVCAP_VIDEO_RESOLUTION_RANGE* range);

/** Tells how the device states its frame sizes: QV_RESOLUTION_MODE_LIST or _RANGE. Results as for
 * the list. @threads per channel */
QV_API QV_RESULT QVGetVideoCaptureSupportResolutionMode(QV_CHANNEL channel, int* mode);

/** Sets a picture control in the device's own units.
 * @retval QV_RESULT_FAILED null capture, unknown control, or the device refused
 * @threads any, while the capture exists */
QV_API QV_RESULT QVSetVideoProcParam(QV_VIDEO_CAPTURE capture, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                                     int value);

/** Reads a picture control. Results as for setting. @threads any, while the capture exists */
QV_API QV_RESULT QVGetVideoProcParam(QV_VIDEO_CAPTURE capture, _QVCAP_VIDEO_PROC_PARAM_TYPE type,
                                     int* value);

/** Reads the range and default of a picture control; each pointer may be null. Results as for
 * setting. @threads any, while the capture exists */
QV_API QV_RESULT QVGetVideoProcParamRange(QV_VIDEO_CAPTURE capture,
                                          _QVCAP_VIDEO_PROC_PARAM_TYPE type, int* minimum,
                                          int* maximum, int* defaultValue);

/* ---- Audio capture and volume ------------------------------------------------------------ */

/** Finds the channel's sound card and starts capturing from it in chunks of 10 ms.
 * @param[in] node           USB channels: 0 and 1 HDMI or SDI or DVI, 2 microphone, 3 computer, 4
 *                           line in, larger values as 0. This is not the audio node of
 *                           QVSetAudioVolume(). Ignored for PCIe channels
 * @param[in] sampleRate     Hz, at least 1000
 * @param[in] bitsPerSample  32; any other value captures 16
 * @return the capture, or null with nothing left behind
 * @threads per channel */
QV_API QV_AUDIO_CAPTURE QVCreateAudioCapture(QV_CHANNEL channel, unsigned int node,
                                             unsigned int sampleRate, unsigned short bitsPerSample,
                                             unsigned short channels,
                                             QV_AUDIO_CAPTURE_CALLBACK callback, void* param);

/** Stops and releases; a call from the capture's own callback takes effect when that has returned.
 * @retval QV_RESULT_FAILED null capture
 * @threads one thread at a time for each capture */
QV_API QV_RESULT QVDestoryAudioCapture(QV_AUDIO_CAPTURE capture);

/** Sets volume and mute of the channel's sound card. PCIe channels: sets every capture channel of
 * the card's first mixer element, ignores @p node, and sets minimum and maximum of the record to 0
 * and 100. USB channels: sets the first channelCount entries on @p node, an audio node 0 to 7 as in
 * _QVCAP_USB_AUDIO_NODE, and not the number that QVCreateAudioCapture() takes.
 * @retval QV_RESULT_FAILED null argument, no card, no such node, or the card refused
 * @threads one thread for all channels: they share one table of sound cards */
QV_API QV_RESULT QVSetAudioVolume(QV_CHANNEL channel, unsigned int node,
                                  _QVCAP_AUDIO_VOLUME* volume);

/** Reads what QVSetAudioVolume() sets; channelCount tells how many entries are valid. A USB
 * channel differs: QVSetAudioVolume() sets its sound card, but this function reads what the
 * device itself reports for @p node, in its own unit, and the two need not agree. Results as
 * there. @threads as there */
QV_API QV_RESULT QVGetAudioVolume(QV_CHANNEL channel, unsigned int node,
                                  _QVCAP_AUDIO_VOLUME* volume);

/* ---- Audio playback ---------------------------------------------------------------------- */
/* Playback has no thread: a put blocks until the device has taken the data. The functions return
 * 0 or a count on success, and on failure -1 or a negative ALSA error. */

typedef struct AudioPlaybackALSAContext AudioPlaybackALSAContext;

/** Makes an idle playback. @retval -1 null @p out, or out of memory @threads any */
QV_API int AudioPlaybackALSACreate(AudioPlaybackALSAContext** out);

/** Opens and configures a PCM device.
 * @param[in] device  ALSA device name; null means "default"
 * @param[in] bits    32; any other value plays 16
 * @param[in] extra   stored, not used
 * @threads one thread at a time for each playback */
QV_API int AudioPlaybackALSAStart(AudioPlaybackALSAContext* playback, const char* device,
                                  int sampleRate, int bits, int channels, int extra);

/** Plays @p bytes bytes of interleaved samples; bytes that do not fill a frame are left out.
 * @return frames written; after an underrun the device is recovered, silence is written first, and
 *         then the data is written once more
 * @threads one thread at a time for each playback */
QV_API int AudioPlaybackALSAPut(AudioPlaybackALSAContext* playback, const unsigned char* data,
                                int bytes);

/** Drops data that is not played yet and closes the device. Does nothing for null or an idle
 * playback.
 * @threads one thread at a time for each playback */
QV_API void AudioPlaybackALSAStop(AudioPlaybackALSAContext* playback);

/** Releases a playback that was stopped. Does nothing for null.
 * @threads one thread at a time for each playback */
QV_API void AudioPlaybackALSADestroy(AudioPlaybackALSAContext* playback);

#ifdef __cplusplus
}
#endif

#endif
