/** @file
 * The capture-device library: instance, list of channels, opening, identity and firmware.
 *
 * Drives Pelix and Lumo Capture cards through their kernel driver. It also drives Tavo Capture USB
 * devices if the program supplies the transfers to them, see QVCaptureUSB.h; until then it lists
 * none. Their sound and pictures go through the kernel's own drivers, see QVCaptureMedia.h.
 *
 * Includes the whole public interface. Plain C functions with unmangled names; compiles as C99 and
 * as C++17. Nothing is printed and no exception leaves a function.
 *
 * Results, wherever a function does not say otherwise:
 * - QV_RESULT_OK: done; on every other result out-parameters are untouched
 * - QV_RESULT_FAILED: the driver or device refused, or has no such operation
 * - QV_RESULT_BAD_ARGUMENT: null channel or pointer, index out of range, channel closed
 *
 * On a USB channel QVGetVideoInputSourceArray(), QVGetAudioInputSourceArray() and
 * QVGetVideoInputAspectRatio() write even after a failure; their descriptions say what.
 *
 * After QV_RESULT_FAILED of an operation that is one request to a card's driver, errno holds the
 * driver's reason. After any other failure it holds nothing useful: the channel worker acts for its
 * callers on its own thread.
 *
 * Thread words, used everywhere:
 * - instance: from one thread, while no other function of the library runs
 * - per channel: one thread at a time for each channel; different channels are independent
 * - any: any thread at any time */
#ifndef QV_CAPTURE_H
#define QV_CAPTURE_H

#include <stdbool.h>

#include "QVCaptureTypes.h"

#if defined(__GNUC__)
#define QV_API __attribute__((visibility("default")))
#else
#define QV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Instance and list of channels ------------------------------------------------------- */

/** Version of the library: 3, 3, 0. Null pointers are skipped. Always QV_RESULT_OK.
 * @threads any */
QV_API QV_RESULT QVGetVersion(unsigned char* major, unsigned char* minor, unsigned short* build);

/** Returns a readable text for any result value. The text is never freed.
 * @threads any */
QV_API const char* QVResultText(QV_RESULT result);

/** Opens the driver's event node and builds the list of channels. Call before anything else.
 * @return always true, even when /dev/qv-event cannot be opened: then every event operation fails,
 *         but listing, opening and firmware operations work.
 * @threads instance */
QV_API bool QVCaptureInitInstance(void);

/** Closes the event node and empties the list. Open channels stay valid but lose their events.
 * @threads instance */
QV_API void QVCaptureExitInstance(void);

/** Whether the event node is open. Without it there are no events, and no worker can be started.
 * @threads any, but not during QVCaptureInitInstance() or QVCaptureExitInstance() */
QV_API bool QVHasEventNode(void);

/** Rebuilds the list of channels; indices change, open channels stay valid.
 * @return QV_RESULT_OK whatever was found
 * @threads instance */
QV_API QV_RESULT QVRefreshDevice(void);

/** Number of channels listed: PCIe channels come first, USB channels after them.
 * @threads any, but not during a refresh */
QV_API int QVGetChannelCount(void);

/** Copies the identity that the driver returned for the channel at @p index when the list was
 * built.
 * @threads any, but not during a refresh */
QV_API QV_RESULT QVGetChannelInfoByIndex(int index, _QVCAP_CHANNEL_INFO* info);

/** Copies the family record of the channel at @p index.
 * @param[out] info  17 bytes (_QVCAP_PELIX_CAPTURE_INFO) for a PCIe channel, 10 bytes for a USB one
 * @threads any, but not during a refresh */
QV_API QV_RESULT QVGetFamilyInfoByIndex(int index, void* info);

/** Copies the device path of the channel at @p index, NUL-terminated.
 * @param[out] path  16 bytes are enough for a PCIe channel, 512 for a USB one
 * @threads any, but not during a refresh */
QV_API QV_RESULT QVGetDevicePath(int index, char* path);

/* ---- Opening and closing ----------------------------------------------------------------- */

/** Opens a PCIe channel by its board's index and its own number on the board, 0 to 15 each.
 * Of several channels with the same numbers, the first that opens is taken.
 * @return the channel, to be released with QVCloseChannel(); null when there is none
 * @threads any, but not during a refresh */
QV_API QV_CHANNEL QVOpenChannel(int board, int channel);

/** Opens the channel whose device path in the list equals @p path exactly.
 * @return the channel, to be released with QVCloseChannel(); null when there is none
 * @threads any, but not during a refresh */
QV_API QV_CHANNEL QVOpenChannelByPath(const char* path);

/** Closes the channel and releases its memory; first stops its worker thread if one runs. A call
 * from one of the channel's own callbacks takes effect when that callback has returned. Null is
 * ignored.
 * @threads per channel; no other call on the channel may be under way */
QV_API void QVCloseChannel(QV_CHANNEL channel);

/** QVCloseChannel() that also reports the end: @p release is called last, with @p param. It is
 * called before this function returns; for a close from one of the channel's own callbacks it is
 * called on the worker's thread when nothing of the channel is left. A null @p release is not
 * called; a null channel counts as closed at once.
 * @threads per channel; no other call on the channel may be under way */
QV_API void QVCloseChannelWithRelease(QV_CHANNEL channel, void* param, QV_RELEASE_CALLBACK release);

/* ---- Identity ---------------------------------------------------------------------------- */

/** Reads the channel's identity from the device. @threads per channel */
QV_API QV_RESULT QVGetChannelInfo(QV_CHANNEL channel, _QVCAP_CHANNEL_INFO* info);

/** Reads the channel's family record.
 * @param[in] size  bytes wanted; a PCIe channel copies at most 17, a USB channel always 10
 * @threads per channel */
QV_API QV_RESULT QVGetFamilyInfo(QV_CHANNEL channel, void* info, unsigned int size);

/** Reads the video capabilities. @threads per channel */
QV_API QV_RESULT QVGetVideoCaps(QV_CHANNEL channel, _QVCAP_VIDEO_CAPS* caps);

/** Reads the audio capabilities. @threads per channel */
QV_API QV_RESULT QVGetAudioCaps(QV_CHANNEL channel, _QVCAP_AUDIO_CAPS* caps);

/** Reads the board's temperature, in the driver's unit. PCIe channels only. @threads per channel */
QV_API QV_RESULT QVGetTemperature(QV_CHANNEL channel, unsigned int* temperature);

/** Sets the driver-defined mode of the board's LED. @threads per channel */
QV_API QV_RESULT QVSetLEDMode(QV_CHANNEL channel, unsigned int mode);

/* ---- Firmware flash ---------------------------------------------------------------------- */
/* On a PCIe channel each call is one driver request, never split: the caller divides large
 * ranges into chunks. On a USB channel each call is split into packets of the device's size.
 * Addresses and sizes are bytes. */

/** Reads where the firmware is in the flash. @threads per channel */
QV_API QV_RESULT QVGetFirmwareStorageInfo(QV_CHANNEL channel, _QVCAP_FIRMWARE_STORAGE* storage);

/** Erases @p size bytes at flash address @p offset. @threads per channel */
QV_API QV_RESULT QVEraseFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned int size);

/** Programs @p size bytes at flash address @p offset from @p buffer, which is not changed. A USB
 * channel gets packets of 2048 bytes, each one when the device is no longer busy; after a failure
 * the packets before it are written.
 * @threads per channel */
QV_API QV_RESULT QVWriteFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned char* buffer,
                                     unsigned int size);

/** Reads from the flash.
 * @param[in]  offset  flash address               @param[in]  size  bytes wanted
 * @param[out] buffer  at least @p size bytes      @param[out] read  bytes delivered, maybe fewer
 * @retval QV_RESULT_OK  also for a short read
 * @threads per channel */
QV_API QV_RESULT QVReadFirmwareData(QV_CHANNEL channel, unsigned int offset, unsigned char* buffer,
                                    unsigned int size, unsigned int* read);

/** Asks the driver to reconfigure the card after new firmware was written. PCIe channels only.
 * @param[in] value  defined by the driver; 200 after a firmware upgrade
 * @threads per channel */
QV_API QV_RESULT QVSetPostReconfig(QV_CHANNEL channel, unsigned int value);

#ifdef __cplusplus
}
#endif

#include "QVCaptureCallbacks.h"
#include "QVCaptureEvents.h"
#include "QVCaptureMedia.h"
#include "QVCaptureSettings.h"
#include "QVCaptureUSB.h"
#include "QVCaptureVideo.h"

#endif
