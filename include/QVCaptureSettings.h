/** @file
 * Input selection, signal status, picture and timing settings.
 *
 * Part of QVCapture.h; results and thread words as described there. The driver defines records
 * and enumeration values; they are passed on unchanged. Every function here: @threads per
 * channel. */
#ifndef QV_CAPTURE_SETTINGS_H
#define QV_CAPTURE_SETTINGS_H

#include "QVCapture.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Input sources (PCIe and USB) -------------------------------------------------------- */

/** Lists the selectable inputs.
 * @param[out]    sources  room for *count 32-bit source codes
 * @param[in,out] count    capacity in, number of sources out
 * @retval QV_RESULT_FAILED  also when a PCIe channel has more sources than fit; count unchanged
 *
 * A USB channel writes even after a failure: the count's low byte or 16, whichever is less, and
 * as many zeros. */
QV_API QV_RESULT QVGetVideoInputSourceArray(QV_CHANNEL channel, unsigned int* sources,
                                            unsigned int* count);
/** Lists the selectable audio inputs; as QVGetVideoInputSourceArray(). */
QV_API QV_RESULT QVGetAudioInputSourceArray(QV_CHANNEL channel, unsigned int* sources,
                                            unsigned int* count);

/** Whether the device looks for a live input by itself: 0 off, otherwise on. */
QV_API QV_RESULT QVGetInputSourceScan(QV_CHANNEL channel, char* scan);
/** Turns the search for a live input on (non-zero) or off. */
QV_API QV_RESULT QVSetInputSourceScan(QV_CHANNEL channel, char scan);

/** Whether the audio input follows the video input: 0 off, otherwise on. */
QV_API QV_RESULT QVGetAVInputSourceLink(QV_CHANNEL channel, char* link);
/** Makes the audio input follow the video input (non-zero) or not. */
QV_API QV_RESULT QVSetAVInputSourceLink(QV_CHANNEL channel, char link);

/** The video input in use, one of the codes listed. */
QV_API QV_RESULT QVGetVideoInputSource(QV_CHANNEL channel, unsigned int* source);
/** Selects the video input, one of the codes listed. */
QV_API QV_RESULT QVSetVideoInputSource(QV_CHANNEL channel, unsigned int source);

/** The audio input in use, one of the codes listed. */
QV_API QV_RESULT QVGetAudioInputSource(QV_CHANNEL channel, unsigned int* source);
/** Selects the audio input, one of the codes listed. */
QV_API QV_RESULT QVSetAudioInputSource(QV_CHANNEL channel, unsigned int source);

/** Reads the EDID that the input presents.
 * @param[out]    edid  room for *size bytes
 * @param[in,out] size  capacity in; out: bytes of the EDID as the driver reports them, which may
 *                      be more than the capacity. A USB channel leaves it unchanged. */
QV_API QV_RESULT QVGetEDID(QV_CHANNEL channel, unsigned char* edid, unsigned long* size);
/** Sets the EDID that the input presents, @p size bytes. */
QV_API QV_RESULT QVSetEDID(QV_CHANNEL channel, unsigned char* edid, unsigned long size);

/* ---- Signal status (PCIe and USB) -------------------------------------------------------- */

/** Reads what the selected input reports about itself. */
QV_API QV_RESULT QVGetInputSpecificStatus(QV_CHANNEL channel, _QVCAP_INPUT_SPECIFIC_STATUS* status);
/** Reads the state and format of the video signal. */
QV_API QV_RESULT QVGetVideoSignalStatus(QV_CHANNEL channel, _QVCAP_VIDEO_SIGNAL_STATUS* status);
/** Reads the state and format of the audio signal. */
QV_API QV_RESULT QVGetAudioSignalStatus(QV_CHANNEL channel, _QVCAP_AUDIO_SIGNAL_STATUS* status);

/** Which HDMI info-frames are present, one bit each. */
QV_API QV_RESULT QVGetHDMIInfoFrameValidFlag(QV_CHANNEL channel, unsigned int* flags);
/** Reads one HDMI info-frame.
 * @param[in] id  0 to 11; a PCIe channel refuses others with QV_RESULT_BAD_ARGUMENT */
QV_API QV_RESULT QVGetHDMIInfoFramePacket(QV_CHANNEL channel, _QVCAP_HDMI_INFOFRAME_ID id,
                                          _HDMI_INFOFRAME_PACKET* packet);

/* ---- How the input picture is understood (PCIe and USB) ---------------------------------- */

/** Sets the aspect ratio that is assumed for the input, @p x to @p y. */
QV_API QV_RESULT QVSetVideoInputAspectRatio(QV_CHANNEL channel, int x, int y);
/** Reads the aspect ratio that is assumed for the input. A USB channel skips null pointers, and
 * writes zeros after a failure. */
QV_API QV_RESULT QVGetVideoInputAspectRatio(QV_CHANNEL channel, int* x, int* y);
/** Sets the colour format that is assumed for the input. */
QV_API QV_RESULT QVSetVideoInputColorFormat(QV_CHANNEL channel, _QVCAP_VIDEO_COLOR_FORMAT format);
/** Reads the colour format that is assumed for the input. */
QV_API QV_RESULT QVGetVideoInputColorFormat(QV_CHANNEL channel, _QVCAP_VIDEO_COLOR_FORMAT* format);
/** Sets the quantization range that is assumed for the input. */
QV_API QV_RESULT QVSetVideoInputQuantizationRange(QV_CHANNEL channel,
                                                  _QVCAP_VIDEO_QUANTIZATION_RANGE range);
/** Reads the quantization range that is assumed for the input. */
QV_API QV_RESULT QVGetVideoInputQuantizationRange(QV_CHANNEL channel,
                                                  _QVCAP_VIDEO_QUANTIZATION_RANGE* range);

/* ---- SDI ancillary data ------------------------------------------------------------------ */

/** Chooses which ancillary packets are collected. PCIe channels only. */
QV_API QV_RESULT QVCaptureSetSDIANCType(QV_CHANNEL channel, _QVCAP_SDI_ANC_TYPE* type);
/** Reads one collected packet. PCIe channels only. */
QV_API QV_RESULT QVCaptureGetSDIANCPacket(QV_CHANNEL channel, _QVCAP_SDI_ANC_PACKET* packet);

/* ---- Streams; from here on PCIe channels only -------------------------------------------- */

/** Selects the stream that later settings requests address. */
QV_API QV_RESULT QVSetCtrlStreamID(QV_CHANNEL channel, int stream);
/** Number of streams that the channel has. */
QV_API QV_RESULT QVGetStreamCount(QV_CHANNEL channel, int* count);
/** Lists the streams.
 * @param[out]    infos  room for *count records of the driver's own size
 * @param[in,out] count  capacity in; out: how many the driver has, which may be more */
QV_API QV_RESULT QVGetStreamInfos(QV_CHANNEL channel, _QVCAP_STREAM_INFO* infos,
                                  unsigned int* count);

/* ---- Timings and resolutions ------------------------------------------------------------- */
/* The Get...Array functions take the capacity in *count and return how many the driver has,
 * which may be more; the Set...Array functions replace the driver's list. */

/** Sets the timing that is assumed for the input. */
QV_API QV_RESULT QVSetVideoTiming(QV_CHANNEL channel, const _QVCAP_VIDEO_TIMING* timing);
/** Lists the timings that the driver prefers for the present input. */
QV_API QV_RESULT QVGetVideoPreferredTimingArray(QV_CHANNEL channel, _QVCAP_VIDEO_TIMING* timings,
                                                unsigned int* count);
/** Sets a custom timing for the input. */
QV_API QV_RESULT QVSetCustomVideoTiming(QV_CHANNEL channel,
                                        const _QVCAP_VIDEO_CUSTOM_TIMING* timing);
/** Number of custom timings that the driver keeps. */
QV_API QV_RESULT QVGetCustomVideoTimingsCount(QV_CHANNEL channel, unsigned int* count);
/** Lists the custom timings that the driver keeps. */
QV_API QV_RESULT QVGetCustomVideoTimingsArray(QV_CHANNEL channel,
                                              _QVCAP_VIDEO_CUSTOM_TIMING* timings,
                                              unsigned int* count);
/** Replaces the custom timings that the driver keeps. */
QV_API QV_RESULT QVSetCustomVideoTimingsArray(QV_CHANNEL channel,
                                              const _QVCAP_VIDEO_CUSTOM_TIMING* timings,
                                              unsigned int count);
/** Number of custom resolutions that the driver keeps. */
QV_API QV_RESULT QVGetCustomVideoResolutionsCount(QV_CHANNEL channel, unsigned int* count);
/** Lists the custom resolutions that the driver keeps. */
QV_API QV_RESULT QVGetCustomVideoResolutionsArray(QV_CHANNEL channel,
                                                  _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions,
                                                  unsigned int* count);
/** Replaces the custom resolutions that the driver keeps. */
QV_API QV_RESULT QVSetCustomVideoResolutionsArray(QV_CHANNEL channel,
                                                  const _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions,
                                                  unsigned int count);

/* ---- Analog sampling --------------------------------------------------------------------- */

/** Turns automatic horizontal alignment on (non-zero) or off. */
QV_API QV_RESULT QVSetVideoAutoHAlign(QV_CHANNEL channel, char on);
/** Whether automatic horizontal alignment is on. */
QV_API QV_RESULT QVGetVideoAutoHAlign(QV_CHANNEL channel, char* on);
/** Sets the sampling phase, in the driver's unit. */
QV_API QV_RESULT QVSetVideoSamplingPhase(QV_CHANNEL channel, unsigned char phase);
/** Reads the sampling phase, in the driver's unit. */
QV_API QV_RESULT QVGetVideoSamplingPhase(QV_CHANNEL channel, unsigned char* phase);
/** Turns automatic adjustment of the sampling phase on (non-zero) or off. */
QV_API QV_RESULT QVSetVideoSamplingPhaseAutoAdjust(QV_CHANNEL channel, char on);
/** Whether the sampling phase is adjusted automatically. */
QV_API QV_RESULT QVGetVideoSamplingPhaseAutoAdjust(QV_CHANNEL channel, char* on);

/* ---- Presets ----------------------------------------------------------------------------- */

/** Saves the present settings as the preset. */
QV_API QV_RESULT QVSaveSettingsAsPreset(QV_CHANNEL channel);
/** Restores the settings of the preset. */
QV_API QV_RESULT QVReloadPreset(QV_CHANNEL channel);

/* ---- Picture ----------------------------------------------------------------------------- */

/** Sets the brightness, in the driver's unit. */
QV_API QV_RESULT QVSetVideoBrightness(QV_CHANNEL channel, int value);
/** Reads the brightness, in the driver's unit. */
QV_API QV_RESULT QVGetVideoBrightness(QV_CHANNEL channel, int* value);
/** Sets the contrast, in the driver's unit. */
QV_API QV_RESULT QVSetVideoContrast(QV_CHANNEL channel, int value);
/** Reads the contrast, in the driver's unit. */
QV_API QV_RESULT QVGetVideoContrast(QV_CHANNEL channel, int* value);
/** Sets the hue, in the driver's unit. */
QV_API QV_RESULT QVSetVideoHue(QV_CHANNEL channel, int value);
/** Reads the hue, in the driver's unit. */
QV_API QV_RESULT QVGetVideoHue(QV_CHANNEL channel, int* value);
/** Sets the saturation, in the driver's unit. */
QV_API QV_RESULT QVSetVideoSaturation(QV_CHANNEL channel, int value);
/** Reads the saturation, in the driver's unit. */
QV_API QV_RESULT QVGetVideoSaturation(QV_CHANNEL channel, int* value);

/** Reads the format of the connection between input and capture. */
QV_API QV_RESULT QVGetVideoConnectFormat(QV_CHANNEL channel,
                                         _QVCAP_VIDEO_CONNECTION_FORMAT* format);
/** Sets how the driver processes the input picture. */
QV_API QV_RESULT QVSetVideoProcessSettings(QV_CHANNEL channel,
                                           const _QVCAP_VIDEO_PROCESS_SETTINGS* settings);
/** Reads how the driver processes the input picture. */
QV_API QV_RESULT QVGetVideoProcessSettings(QV_CHANNEL channel,
                                           _QVCAP_VIDEO_PROCESS_SETTINGS* settings);
/** Sets the on-screen display. */
QV_API QV_RESULT QVSetVideoOSDSettings(QV_CHANNEL channel,
                                       const _QVCAP_VIDEO_OSD_SETTINGS* settings);
/** Reads the settings of the on-screen display. */
QV_API QV_RESULT QVGetVideoOSDSettings(QV_CHANNEL channel, _QVCAP_VIDEO_OSD_SETTINGS* settings);
/** Sets the image of the on-screen display. */
QV_API QV_RESULT QVSetVideoOSDImage(QV_CHANNEL channel, const _QVCAP_VIDEO_OSD_IMAGE* image);
/** Reads the image settings of the on-screen display. */
QV_API QV_RESULT QVGetVideoOSDImage(QV_CHANNEL channel, _QVCAP_VIDEO_OSD_IMAGE* image);

#ifdef __cplusplus
}
#endif

#endif
