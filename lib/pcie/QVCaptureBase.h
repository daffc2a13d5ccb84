// One open channel of a PCIe card: every operation is exactly one driver request.
//
// A bad argument gives QV_RESULT_BAD_ARGUMENT, a refusal by the driver QV_RESULT_FAILED; nothing is
// split, retried or printed. No lock: one thread at a time per channel; the event operations are
// static, go to the shared event node and may be called from any thread.
#pragma once

#include "CallerParam.h"
#include "FrameMemory.h"
#include "QVCapture.h"
#include "QVDriverCall.h"
#include "base/IQVCaptureDevice.h"
#include "base/Mutex.h"
#include "base/Ref.h"

class ChannelEntity;

// The arguments of one capture request; the fields are those of the driver's record.
struct FrameRequest {
    int frame;
    bool physical;
    unsigned long long address;
    unsigned int size;
    unsigned int stride;
    char bottomUp;
    unsigned long long context;
    unsigned int fourcc;
    int cx;
    int cy;
};

struct OsdOverlay {
    unsigned long long image;
    const _RECT* rects;
    int rectCount;
};

// The settings that only the Ex variants take; the defaults are those of the other variants.
struct FrameSettings {
    unsigned int processSwitches = 0;
    int partialNotify = 0;
    short contrast = 100;
    short brightness = 0;
    short saturation = 100;
    short hue = 0;
    _QVCAP_VIDEO_DEINTERLACE_MODE deinterlaceMode = 1;
    _QVCAP_VIDEO_ASPECT_RATIO_CONVERT_MODE aspectRatioConvertMode = 0;
    const _RECT* source = nullptr;
    const _RECT* destination = nullptr;
    int aspectX = 0;
    int aspectY = 0;
    _QVCAP_VIDEO_COLOR_FORMAT colorFormat = 0;
    _QVCAP_VIDEO_QUANTIZATION_RANGE quantizationRange = 0;
    _QVCAP_VIDEO_SATURATION_RANGE saturationRange = 0;
};

class CQVCaptureBase final : public IQVCaptureDevice {
  public:
    CQVCaptureBase();
    ~CQVCaptureBase() override;
    CQVCaptureBase(const CQVCaptureBase&) = delete;
    CQVCaptureBase& operator=(const CQVCaptureBase&) = delete;

    // True when a listed channel matched and its node opened; the first that opens is taken.
    bool OpenChannel(int board, int channel);
    bool OpenChannelByPath(const char* path);
    void CloseChannel() override;
    // The path given to OpenChannelByPath; empty after OpenChannel, deliberately.
    const char* DevicePath() const { return m_szDevicePath; }
    CQVCaptureBase* AsPcieChannel() override { return this; }

    QV_RESULT GetChannelInfo(_QVCAP_CHANNEL_INFO* info) override;
    QV_RESULT GetFamilyInfo(void* buffer, unsigned int size) override;
    QV_RESULT GetVideoCaps(_QVCAP_VIDEO_CAPS* caps) override;
    QV_RESULT GetAudioCaps(_QVCAP_AUDIO_CAPS* caps) override;
    QV_RESULT GetVideoInputSourceArray(unsigned int* sources, unsigned int* count) override;
    QV_RESULT GetAudioInputSourceArray(unsigned int* sources, unsigned int* count) override;
    QV_RESULT GetInputSourceScan(char* scan) override;
    QV_RESULT SetInputSourceScan(char scan) override;
    QV_RESULT GetInputSourceScanState(char* state) override;
    QV_RESULT GetAVInputSourceLink(char* link) override;
    QV_RESULT SetAVInputSourceLink(char link) override;
    QV_RESULT GetVideoInputSource(unsigned int* source) override;
    QV_RESULT SetVideoInputSource(unsigned int source) override;
    QV_RESULT GetAudioInputSource(unsigned int* source) override;
    QV_RESULT SetAudioInputSource(unsigned int source) override;
    QV_RESULT SetEDID(unsigned char* edid, unsigned long size) override;
    QV_RESULT GetEDID(unsigned char* edid, unsigned long* size) override;
    QV_RESULT GetInputSpecificStatus(_QVCAP_INPUT_SPECIFIC_STATUS* status) override;
    QV_RESULT GetVideoSignalStatus(_QVCAP_VIDEO_SIGNAL_STATUS* status) override;
    QV_RESULT GetAudioSignalStatus(_QVCAP_AUDIO_SIGNAL_STATUS* status) override;
    QV_RESULT GetHDMIInfoFrameValidFlags(unsigned int* flags) override;
    QV_RESULT GetHDMIInfoFramePacket(_QVCAP_HDMI_INFOFRAME_ID id,
                                     _HDMI_INFOFRAME_PACKET* packet) override;
    QV_RESULT SetVideoInputAspectRatio(int x, int y) override;
    QV_RESULT GetVideoInputAspectRatio(int* x, int* y) override;
    QV_RESULT SetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT format) override;
    QV_RESULT GetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT* format) override;
    QV_RESULT SetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE range) override;
    QV_RESULT GetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE* range) override;
    QV_RESULT SetLEDMode(unsigned int mode) override;
    QV_RESULT GetFirmwareStorageInfo(_QVCAP_FIRMWARE_STORAGE* storage) override;
    QV_RESULT EraseFirmwareData(unsigned int offset, unsigned int size) override;
    QV_RESULT ReadFirmwareData(unsigned int offset, unsigned char* buffer, unsigned int size,
                               unsigned int* read) override;
    QV_RESULT WriteFirmwareData(unsigned int offset, unsigned char* buffer,
                                unsigned int size) override;
    QV_RESULT SetSDIANCType(_QVCAP_SDI_ANC_TYPE* type) override;
    QV_RESULT GetSDIANCPacket(_QVCAP_SDI_ANC_PACKET* packet) override;

    QV_RESULT SetPostReconfig(unsigned int value);
    QV_RESULT GetTemperature(unsigned int* temperature);

    QV_RESULT SetCtrlStreamID(int stream);
    QV_RESULT GetStreamCount(int* count);
    QV_RESULT GetStreamInfos(_QVCAP_STREAM_INFO* infos, unsigned int* count);

    QV_RESULT SetVideoTiming(const _QVCAP_VIDEO_TIMING* timing);
    QV_RESULT GetVideoPreferredTimingArray(_QVCAP_VIDEO_TIMING* timings, unsigned int* count);
    QV_RESULT SetCustomVideoTiming(const _QVCAP_VIDEO_CUSTOM_TIMING* timing);
    QV_RESULT GetCustomVideoTimingsCount(unsigned int* count);
    QV_RESULT GetCustomVideoTimingsArray(_QVCAP_VIDEO_CUSTOM_TIMING* timings, unsigned int* count);
    QV_RESULT SetCustomVideoTimingsArray(const _QVCAP_VIDEO_CUSTOM_TIMING* timings,
                                         unsigned int count);
    QV_RESULT GetCustomVideoResolutionsCount(unsigned int* count);
    QV_RESULT GetCustomVideoResolutionsArray(_QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions,
                                             unsigned int* count);
    QV_RESULT SetCustomVideoResolutionsArray(const _QVCAP_VIDEO_CUSTOM_RESOLUTION* resolutions,
                                             unsigned int count);
    QV_RESULT SetVideoAutoHAlign(char on);
    QV_RESULT GetVideoAutoHAlign(char* on);
    QV_RESULT SetVideoSamplingPhase(unsigned char phase);
    QV_RESULT GetVideoSamplingPhase(unsigned char* phase);
    QV_RESULT SetVideoSamplingPhaseAutoAdjust(char on);
    QV_RESULT GetVideoSamplingPhaseAutoAdjust(char* on);
    QV_RESULT SaveSettingsAsPreset();
    QV_RESULT ReloadPreset();
    QV_RESULT SetVideoBrightness(int value);
    QV_RESULT GetVideoBrightness(int* value);
    QV_RESULT SetVideoContrast(int value);
    QV_RESULT GetVideoContrast(int* value);
    QV_RESULT SetVideoHue(int value);
    QV_RESULT GetVideoHue(int* value);
    QV_RESULT SetVideoSaturation(int value);
    QV_RESULT GetVideoSaturation(int* value);
    QV_RESULT GetVideoConnectFormat(_QVCAP_VIDEO_CONNECTION_FORMAT* format);
    QV_RESULT SetVideoProcessSettings(const _QVCAP_VIDEO_PROCESS_SETTINGS* settings);
    QV_RESULT GetVideoProcessSettings(_QVCAP_VIDEO_PROCESS_SETTINGS* settings);
    QV_RESULT SetVideoOSDSettings(const _QVCAP_VIDEO_OSD_SETTINGS* settings);
    QV_RESULT GetVideoOSDSettings(_QVCAP_VIDEO_OSD_SETTINGS* settings);
    QV_RESULT SetVideoOSDImage(const _QVCAP_VIDEO_OSD_IMAGE* image);
    QV_RESULT GetVideoOSDImage(_QVCAP_VIDEO_OSD_IMAGE* image);

    QV_RESULT StartVideoCapture(unsigned long long event);
    QV_RESULT StopVideoCapture();
    QV_RESULT GetVideoBufferInfo(_QVCAP_VIDEO_BUFFER_INFO* info);
    QV_RESULT GetVideoFrameInfo(unsigned char index, _QVCAP_VIDEO_FRAME_INFO* info);
    QV_RESULT GetVideoCaptureStatus(_QVCAP_VIDEO_CAPTURE_STATUS* status);
    QV_RESULT PinVideoBuffer(unsigned long long address, unsigned int size);
    QV_RESULT UnpinVideoBuffer(unsigned long long address);

    QV_RESULT CaptureVideoFrameToPhysicalAddress(int frame, _LARGE_INTEGER address,
                                                 unsigned int size, unsigned int stride,
                                                 char bottomUp, unsigned long long context,
                                                 unsigned int fourcc, int cx, int cy);
    QV_RESULT CaptureVideoFrameToVirtualAddress(int frame, unsigned long long address,
                                                unsigned int size, unsigned int stride,
                                                char bottomUp, unsigned long long context,
                                                unsigned int fourcc, int cx, int cy);
    QV_RESULT CaptureVideoFrameWithOSDToPhysicalAddress(int frame, _LARGE_INTEGER address,
                                                        unsigned int size, unsigned int stride,
                                                        char bottomUp, unsigned long long context,
                                                        unsigned int fourcc, int cx, int cy,
                                                        unsigned long long osdImage,
                                                        const _RECT* osdRects, int osdRectCount);
    QV_RESULT CaptureVideoFrameWithOSDToVirtualAddress(int frame, unsigned long long address,
                                                       unsigned int size, unsigned int stride,
                                                       char bottomUp, unsigned long long context,
                                                       unsigned int fourcc, int cx, int cy,
                                                       unsigned long long osdImage,
                                                       const _RECT* osdRects, int osdRectCount);
    // The Ex variants take their many parameters as the public functions do, grouped.
    QV_RESULT CaptureVideoFrameToPhysicalAddressEx(const FrameRequest& request,
                                                   const OsdOverlay& osd,
                                                   const FrameSettings& settings);
    QV_RESULT CaptureVideoFrameToVirtualAddressEx(const FrameRequest& request,
                                                  const OsdOverlay& osd,
                                                  const FrameSettings& settings);

    unsigned long long CreateImage(int cx, int cy);
    QV_RESULT OpenImage(unsigned long long image, long* refCount);
    QV_RESULT CloseImage(unsigned long long image, long* refCount);
    QV_RESULT UploadImageFromPhysicalAddress(const _QVCAP_VIDEO_IMAGE_UPLOAD* upload);
    QV_RESULT UploadImageFromVirtualAddress(const _QVCAP_VIDEO_IMAGE_UPLOAD* upload);

    QV_RESULT StartVideoLumoCapture(const _QVCAP_VIDEO_LUMO_CAPTURE_OPEN* open);
    QV_RESULT SetVideoLumoCaptureSettings(const _QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS* settings);
    QV_RESULT CaptureSetVideoLumoFrame(const _QVCAP_VIDEO_LUMO_CAPTURE_FRAME* frame);
    QV_RESULT GetVideoLumoCaptureStatus(_QVCAP_VIDEO_LUMO_CAPTURE_STATUS* status);
    QV_RESULT StopVideoLumoCapture();

    QV_RESULT StartAudioCapture();
    QV_RESULT StopAudioCapture();
    QV_RESULT CaptureAudioFrame(_QVCAP_AUDIO_CAPTURE_FRAME* frame);

    unsigned long long RegisterNotify(unsigned long long event, unsigned int enableBits);
    QV_RESULT UnregisterNotify(unsigned long long notify);
    QV_RESULT GetNotifyStatus(unsigned long long notify, unsigned long long* status);
    unsigned long long RegisterTimer(unsigned long long event);
    QV_RESULT UnregisterTimer(unsigned long long timer);
    QV_RESULT ScheduleTimer(unsigned long long timer, long long expireTime);
    QV_RESULT GetDeviceTime(long long* time);
    QV_RESULT SetDeviceTime(long long time);
    QV_RESULT RegulateDeviceTime(long long time);

    static unsigned long long CreateEvent();
    static QV_RESULT CloseEvent(unsigned long long event);
    static QV_RESULT SetEvent(unsigned long long event);
    static QV_RESULT ClearEvent(unsigned long long event);
    static bool IsSetEvent(unsigned long long event);
    static int TryWaitEvent(unsigned long long event);
    static int WaitEvent(unsigned long long event, int timeout);
    static int MultiWaitEvent(unsigned long long* events, int count, int timeout);

    // The worker. Calls that need one fail with QV_RESULT_FAILED, or 0, without it. Any thread.
    QV_RESULT StartChannelThread();
    QV_RESULT
    StopChannelThread();  // also closes and deletes the object if a callback asked for that
    QV_RESULT StopWorker();
    unsigned long long RegisterNotifyWithCallback(unsigned int enableBits,
                                                  QV_NOTIFY_CALLBACK callback,
                                                  qv::CallerParam param);
    QV_RESULT QVUnregisterNotifyOfCallback(unsigned long long handle);
    unsigned long long CreateTimer(QV_TIMER_CALLBACK callback, long long delay, long long period,
                                   qv::CallerParam param = nullptr);
    QV_RESULT DestoryTimer(unsigned long long timer);
    QV_RESULT StartVideoCaptureWithCallback(unsigned int fourcc, int width, int height,
                                            _QV_VIDEO_CAPTURE_MODE mode, QV_VIDEO_CALLBACK callback,
                                            qv::CallerParam param);
    QV_RESULT StopVideoCaptureWithCallback();
    bool VideoCaptureStalled();
    QV_RESULT StartAudioCaptureWithCallback(QV_AUDIO_CALLBACK callback, qv::CallerParam param);
    QV_RESULT StopAudioCaptureWithCallback();

    // True when called from a callback of this channel's worker; the worker then closes and deletes
    // the object after that callback, and drops the parameter last.
    bool DeferCloseToWorker(qv::CallerParam* param);

    // Only for the worker.
    QV_RESULT UnregisterNotifyAtDriver(unsigned long long notify);
    void KeepUntilClosed(qv::FrameMemory* frames);  // owned; the driver may still write to it
    // False when another thread is stopping the worker; that thread then also closes the channel.
    bool ClaimDeferredClose(qv::CallerParam* param);
    void FinishDeferredClose();  // closes and deletes this object

  private:
    qv::Ref<ChannelEntity> Entity();
    void ReleaseKeptFrames();
    bool OpenNode(const char* path);
    QV_RESULT CaptureFrame(const FrameRequest& request, const OsdOverlay& osd,
                           const FrameSettings& settings);
    QV_RESULT CaptureFrameWithOsd(const FrameRequest& request, const OsdOverlay& osd);

    int m_hChannelFD = qv::kClosed;
    static constexpr size_t kDevicePathSize = 512;
    char m_szDevicePath[kDevicePathSize] = {};
    qv::Mutex m_workerLock;           // guards what follows; held for look-ups and a start only
    qv::Ref<ChannelEntity> m_entity;  // the worker, while one is started
    bool m_stopping = false;
    bool m_closeWhenStopped = false;
    qv::CallerParam m_closeParam{nullptr};
    qv::FrameMemory* m_framesUntilClosed = nullptr;
};
