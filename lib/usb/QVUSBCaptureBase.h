// USB capture channels: the process-wide registry and the channel object.
//
// Every operation of the object is one transfer of a command with a fixed payload, see
// QVUSBCommands.h; audio volume goes to the sound card instead. A closed channel and a failed
// transfer give QV_RESULT_FAILED, a null pointer QV_RESULT_BAD_ARGUMENT. Outputs are untouched on
// failure unless said otherwise. No lock here: one thread at a time per channel; the registry
// follows the rule of the PCIe one. The hot-plug watcher has a mutex, and each device has one in
// the transport unit.
#pragma once

#include "QVUSBCommands.h"
#include "QVUSBTransport.h"
#include "base/IQVCaptureDevice.h"

class CQVUSBCaptureControlBase {
  public:
    // Starts the transport; QV_RESULT_FAILED when there is none or it cannot start.
    static QV_RESULT Init();
    // Ends the watcher, empties the table and allows the transport to stop.
    static void Exit();
    // Rebuilds the table; when the transport's search fails, returns QV_RESULT_FAILED and does not
    // change the table.
    static QV_RESULT EnumDevice();

    // Starts the watcher. QV_RESULT_FAILED when the transport cannot watch or a watcher already
    // runs.
    static QV_RESULT RegisterHotPlug(QVUSB_HOT_PLUG_CALLBACK callback, void* param);
    // Ends the watcher, if one runs. Always QV_RESULT_OK.
    static QV_RESULT UnRegisterHotPlug();

    static int GetChannelCount() { return m_nUSBChannelCount; }
    static bool Lists(const char* path);
    // QV_RESULT_BAD_ARGUMENT for an index outside the table or a null output.
    static QV_RESULT GetChannelInfoByIndex(int index, _QVCAP_CHANNEL_INFO* info);
    static QV_RESULT GetFamilyInfoByIndex(int index, _QVUSBCAP_CAPTURE_INFO* info);
    static QV_RESULT GetDevicePath(int index, char* path);  // at most 512 bytes

    static _QVUSBCAP_CHANNEL_ENTRY m_arrUSBChannel[QV_MAX_CHANNELS];
    static int32_t m_nUSBChannelCount;
    static uint32_t m_bInit;
    static void* m_ctx;  // the transport's
    static _QVUSB_HOTPLUG_ENTITY m_hotplugEntity;

  private:
    static const _QVUSBCAP_CHANNEL_ENTRY* Find(int index);
};

class CQVUSBCaptureBase final : public IQVCaptureDevice {
  public:
    CQVUSBCaptureBase() = default;
    ~CQVUSBCaptureBase() override = default;  // only CloseChannel closes
    CQVUSBCaptureBase(const CQVUSBCaptureBase&) = delete;
    CQVUSBCaptureBase& operator=(const CQVUSBCaptureBase&) = delete;

    bool OpenChannelByPath(const char* path);
    void CloseChannel() override;
    CQVUSBCaptureBase* AsUsbChannel() override { return this; }

    // out: 32 bytes. QV_RESULT_FAILED for a closed channel or null.
    QV_RESULT GetSerial(char* out) const;
    QV_RESULT GetUsbbus(char* out) const;

    // One transfer, raw. answered: how many bytes the device sends back into data.
    QV_RESULT USBChannelGetData(unsigned char command, void* data, unsigned int size);
    QV_RESULT USBChannelSetData(unsigned char command, void* data, unsigned int size,
                                unsigned int answered = 0);

    QV_RESULT GetChannelInfo(_QVCAP_CHANNEL_INFO* info) override;
    QV_RESULT GetFamilyInfo(void* info, unsigned int size) override;  // 10 bytes, size ignored
    QV_RESULT GetVideoCaps(_QVCAP_VIDEO_CAPS* caps) override;
    QV_RESULT GetAudioCaps(_QVCAP_AUDIO_CAPS* caps) override;
    // count: in the capacity, out the codes stored; with null sources the number that the device
    // has. Written even after a failure. At most 16.
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
    QV_RESULT SetEDID(unsigned char* data, unsigned long size) override;
    QV_RESULT GetEDID(unsigned char* data, unsigned long* size) override;  // size stays
    QV_RESULT GetInputSpecificStatus(_QVCAP_INPUT_SPECIFIC_STATUS* status) override;
    QV_RESULT GetVideoSignalStatus(_QVCAP_VIDEO_SIGNAL_STATUS* status) override;
    QV_RESULT GetAudioSignalStatus(_QVCAP_AUDIO_SIGNAL_STATUS* status) override;
    QV_RESULT GetHDMIInfoFrameValidFlags(unsigned int* flags) override;
    QV_RESULT GetHDMIInfoFramePacket(_QVCAP_HDMI_INFOFRAME_ID id,
                                     _HDMI_INFOFRAME_PACKET* packet) override;
    QV_RESULT SetVideoInputAspectRatio(int x, int y) override;
    // Each output may be null; after a failure it is set to zero.
    QV_RESULT GetVideoInputAspectRatio(int* x, int* y) override;
    QV_RESULT SetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT format) override;
    QV_RESULT GetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT* format) override;
    QV_RESULT SetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE range) override;
    QV_RESULT GetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE* range) override;
    QV_RESULT SetLEDMode(unsigned int mode) override;
    QV_RESULT GetFirmwareStorageInfo(_QVCAP_FIRMWARE_STORAGE* storage) override;
    // Erase and write return when the device is no longer busy, however long that takes.
    QV_RESULT EraseFirmwareData(unsigned int address, unsigned int size) override;
    // In chunks of 64 bytes; at most 2 GiB. read may be null.
    QV_RESULT ReadFirmwareData(unsigned int address, unsigned char* data, unsigned int size,
                               unsigned int* read) override;
    // In packets of 2048 bytes; waits after each until the device is no longer busy. Nothing beyond
    // 4 GiB.
    QV_RESULT WriteFirmwareData(unsigned int address, unsigned char* data,
                                unsigned int size) override;

    QV_RESULT SetNotifyEnable(_QVCAP_NOTIFY_ENABLE* enable);
    QV_RESULT GetNotifyStatus(unsigned long long* status);
    QV_RESULT SetFirmwareErase(unsigned int address, unsigned int size);  // as EraseFirmwareData
    QV_RESULT GetFirmwareReadAddress(unsigned int* address);
    QV_RESULT GetEDIDLoopThrough(char* data, unsigned int* size);  // size stays
    QV_RESULT GetEDIDMode(_QVCAP_EDID_MODE* mode);
    QV_RESULT SetEDIDMode(_QVCAP_EDID_MODE mode);
    QV_RESULT GetLoopThroughValid(signed char* valid);
    QV_RESULT GetAudioVolume(_QVCAP_USB_AUDIO_NODE node, _QVCAP_AUDIO_VOLUME* volume);
    // On the sound card, not on the device: tries all of the first channelCount entries.
    QV_RESULT SetAudioVolume(_QVCAP_USB_AUDIO_NODE node, _QVCAP_AUDIO_VOLUME* volume);
    QV_RESULT GetVideoCaptureConnectionFormat(_QVCAP_VIDEO_CONNECTION_FORMAT* format);
    // After a failure the record is set to zeros.
    QV_RESULT GetVideoCaptureProcessSettings(_QVCAP_VIDEO_PROCESS_SETTINGS* settings);
    QV_RESULT SetVideoCaptureProcessSettings(_QVCAP_VIDEO_PROCESS_SETTINGS* settings);
    QV_RESULT GetVideoOutputFOURCC(_QVCAP_VIDEO_OUTPUT_FOURCC* fourcc);
    QV_RESULT SetVideoOutputFOURCC(_QVCAP_VIDEO_OUTPUT_FOURCC* fourcc);
    QV_RESULT GetVideoOutputFrameSize(_QVCAP_VIDEO_OUTPUT_FRAME_SIZE* size);
    QV_RESULT SetVideoOutputFrameSize(_QVCAP_VIDEO_OUTPUT_FRAME_SIZE* size);
    QV_RESULT GetVideoOutputFrameInterval(_QVCAP_VIDEO_OUTPUT_FRAME_INTERVAL* interval);
    QV_RESULT SetVideoOutputFrameInterval(_QVCAP_VIDEO_OUTPUT_FRAME_INTERVAL* interval);
    QV_RESULT GetStatusImageMode(_QVCAP_STATUS_IMAGE_MODE* mode);
    QV_RESULT SetStatusImageMode(_QVCAP_STATUS_IMAGE_MODE* mode);
    QV_RESULT GetDeviceNameMode(_QVCAP_DEVICE_NAME_MODE* mode);
    QV_RESULT SetDeviceNameMode(_QVCAP_DEVICE_NAME_MODE* mode);
    QV_RESULT SaveOptions();
    QV_RESULT LoadOptions();
    QV_RESULT ResetOptions();
    QV_RESULT GetVideoAutoHAlign(signed char* align);
    QV_RESULT SetVideoAutoHAlign(signed char align);
    QV_RESULT GetVideoSamplingPhase(unsigned char* phase);
    QV_RESULT SetVideoSamplingPhase(unsigned char* phase);  // 0x00 to 0x3F and 0xFF
    QV_RESULT GetVideoSamplingPhaseAutoAdjust(signed char* adjust);
    QV_RESULT SetVideoSamplingPhaseAutoAdjust(signed char* adjust);
    QV_RESULT SetVideoTiming(_QVCAP_VIDEO_TIMING* timing);
    QV_RESULT GetPreferredVideoTimings(_QVCAP_VIDEO_TIMING_ARRAY* timings);
    QV_RESULT SetCustomVideoTiming(_QVCAP_VIDEO_CUSTOM_TIMING* timing);
    QV_RESULT GetCustomVideoTimings(_QVCAP_VIDEO_CUSTOM_TIMING_ARRAY* timings);
    QV_RESULT SetCustomVideoTimings(_QVCAP_VIDEO_CUSTOM_TIMING_ARRAY* timings);
    QV_RESULT GetCustomVideoResolutions(_QVCAP_VIDEO_CUSTOM_RESOLUTION_ARRAY* resolutions);
    QV_RESULT SetCustomVideoResolutions(_QVCAP_VIDEO_CUSTOM_RESOLUTION_ARRAY* resolutions);
    QV_RESULT GetExtensionSupported(unsigned int* extensions);

  private:
    bool IsOpen() const { return m_pContext != nullptr && m_pContext->handle != nullptr; }

    template <class Payload, class Out>
    QV_RESULT Fetch(qv::usb::Get<Payload> command, Out* out);
    template <class Payload>
    QV_RESULT Send(qv::usb::Set<Payload> command, Payload payload);
    template <class Payload>
    QV_RESULT SendGiven(qv::usb::Set<Payload> command, const Payload* given);

    QV_RESULT FetchBytes(uint8_t command, void* data, unsigned long size);
    QV_RESULT InputSourceArray(qv::usb::Get<qv::usb::InputSources> command, unsigned int* sources,
                               unsigned int* count);
    QV_RESULT ReadChunk(uint32_t address, unsigned char* data, uint32_t size);
    QV_RESULT WritePacket(uint32_t address, const unsigned char* data, uint32_t size);
    QV_RESULT WaitForWIP();

    _QVUSB_DEVICE_CONTEXT* m_pContext = nullptr;
};
