// USB channels: the operations that are one command; see QVUSBCaptureBase.h and QVUSBCommands.h.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "QVUSBCaptureBase.h"

using namespace qv::usb;

namespace {

constexpr uint8_t kResetOptions = 0;
constexpr uint8_t kLoadOptions = 1;
constexpr uint8_t kSaveOptions = 2;

// Sampling phases are 0x00 to 0x3F; 0xFF stands for none.
constexpr bool IsSamplingPhase(unsigned char phase) { return phase <= 0x3F || phase == 0xFF; }

// Zeroed memory of the caller's size, for a transfer that must not touch the caller's own memory.
class OwnBytes {
  public:
    explicit OwnBytes(unsigned long size)
        : m_bytes(static_cast<unsigned char*>(calloc(1, size > 0 ? size : 1))) {}
    ~OwnBytes() { free(m_bytes); }
    OwnBytes(const OwnBytes&) = delete;
    OwnBytes& operator=(const OwnBytes&) = delete;
    explicit operator bool() const { return m_bytes != nullptr; }
    unsigned char* Data() const { return m_bytes; }

  private:
    unsigned char* m_bytes;
};

}  // namespace

// ---- shapes of a command

// The payload is read into a copy, so that a failed transfer does not change the caller's record.
template <class Payload, class Out>
QV_RESULT CQVUSBCaptureBase::Fetch(Get<Payload> command, Out* out) {
    static_assert(sizeof(Out) >= sizeof(Payload));
    if (!IsOpen()) return QV_RESULT_FAILED;
    if (out == nullptr) return QV_RESULT_BAD_ARGUMENT;
    Payload payload{};
    const QV_RESULT result = USBChannelGetData(command.id, &payload, sizeof payload);
    if (result == QV_RESULT_OK) *out = static_cast<Out>(payload);
    return result;
}

template <class Payload>
QV_RESULT CQVUSBCaptureBase::Send(Set<Payload> command, Payload payload) {
    return USBChannelSetData(command.id, &payload, sizeof payload);
}

// Sends a copy: a device may answer into the same memory.
template <class Payload>
QV_RESULT CQVUSBCaptureBase::SendGiven(Set<Payload> command, const Payload* given) {
    if (!IsOpen()) return QV_RESULT_FAILED;
    return given == nullptr ? QV_RESULT_BAD_ARGUMENT : Send(command, *given);
}

QV_RESULT CQVUSBCaptureBase::FetchBytes(uint8_t command, void* data, unsigned long size) {
    if (!IsOpen()) return QV_RESULT_FAILED;
    if (data == nullptr || size > UINT_MAX) return QV_RESULT_BAD_ARGUMENT;
    const OwnBytes copy(size);
    if (!copy) return QV_RESULT_FAILED;
    const QV_RESULT result =
        USBChannelGetData(command, copy.Data(), static_cast<unsigned int>(size));
    if (result == QV_RESULT_OK) memcpy(data, copy.Data(), size);
    return result;
}

QV_RESULT CQVUSBCaptureBase::InputSourceArray(Get<InputSources> command, unsigned int* sources,
                                              unsigned int* count) {
    if (count == nullptr) return QV_RESULT_BAD_ARGUMENT;
    InputSources payload{};
    payload.count = static_cast<uint8_t>(*count);  // Deliberate: only the low byte is sent
    const QV_RESULT result = USBChannelGetData(command.id, &payload, sizeof payload);
    if (sources == nullptr) {
        *count = payload.count;
        return result;
    }
    *count = std::min({*count, unsigned{payload.count}, unsigned{kMaxInputSources}});
    for (unsigned i = 0; i < *count; ++i) sources[i] = payload.codes[i];
    return result;
}

// ---- operations of every channel

QV_RESULT CQVUSBCaptureBase::GetChannelInfo(_QVCAP_CHANNEL_INFO* info) {
    return Fetch(kGetChannelInfo, info);
}

QV_RESULT CQVUSBCaptureBase::GetFamilyInfo(void* info, unsigned int) {
    return Fetch(kGetFamilyInfo, static_cast<_QVUSBCAP_CAPTURE_INFO*>(info));
}

QV_RESULT CQVUSBCaptureBase::GetVideoCaps(_QVCAP_VIDEO_CAPS* caps) {
    return Fetch(kGetVideoCaps, caps);
}

QV_RESULT CQVUSBCaptureBase::GetAudioCaps(_QVCAP_AUDIO_CAPS* caps) {
    return Fetch(kGetAudioCaps, caps);
}

QV_RESULT CQVUSBCaptureBase::GetVideoInputSourceArray(unsigned int* sources, unsigned int* count) {
    return InputSourceArray(kGetVideoInputSourceArray, sources, count);
}

QV_RESULT CQVUSBCaptureBase::GetAudioInputSourceArray(unsigned int* sources, unsigned int* count) {
    return InputSourceArray(kGetAudioInputSourceArray, sources, count);
}

QV_RESULT CQVUSBCaptureBase::GetInputSourceScan(char* scan) {
    return Fetch(kGetInputSourceScan, scan);
}

QV_RESULT CQVUSBCaptureBase::SetInputSourceScan(char scan) {
    return Send(kSetInputSourceScan, static_cast<uint8_t>(scan));
}

QV_RESULT CQVUSBCaptureBase::GetInputSourceScanState(char* state) {
    return Fetch(kGetInputSourceScanState, state);
}

QV_RESULT CQVUSBCaptureBase::GetAVInputSourceLink(char* link) {
    return Fetch(kGetAVInputSourceLink, link);
}

QV_RESULT CQVUSBCaptureBase::SetAVInputSourceLink(char link) {
    return Send(kSetAVInputSourceLink, static_cast<uint8_t>(link));
}

QV_RESULT CQVUSBCaptureBase::GetVideoInputSource(unsigned int* source) {
    return Fetch(kGetVideoInputSource, source);
}

QV_RESULT CQVUSBCaptureBase::SetVideoInputSource(unsigned int source) {
    return Send(kSetVideoInputSource, uint32_t{source});
}

QV_RESULT CQVUSBCaptureBase::GetAudioInputSource(unsigned int* source) {
    return Fetch(kGetAudioInputSource, source);
}

QV_RESULT CQVUSBCaptureBase::SetAudioInputSource(unsigned int source) {
    return Send(kSetAudioInputSource, uint32_t{source});
}

QV_RESULT CQVUSBCaptureBase::GetInputSpecificStatus(_QVCAP_INPUT_SPECIFIC_STATUS* status) {
    return Fetch(kGetInputSpecificStatus, status);
}

QV_RESULT CQVUSBCaptureBase::GetVideoSignalStatus(_QVCAP_VIDEO_SIGNAL_STATUS* status) {
    return Fetch(kGetVideoSignalStatus, status);
}

QV_RESULT CQVUSBCaptureBase::GetAudioSignalStatus(_QVCAP_AUDIO_SIGNAL_STATUS* status) {
    return Fetch(kGetAudioSignalStatus, status);
}

QV_RESULT CQVUSBCaptureBase::GetHDMIInfoFrameValidFlags(unsigned int* flags) {
    return Fetch(kGetHDMIInfoFrameValidFlags, flags);
}

QV_RESULT CQVUSBCaptureBase::GetHDMIInfoFramePacket(_QVCAP_HDMI_INFOFRAME_ID id,
                                                    _HDMI_INFOFRAME_PACKET* packet) {
    return Fetch(kGetHDMIInfoFramePacket.At(static_cast<uint32_t>(id)), packet);
}

QV_RESULT CQVUSBCaptureBase::SetVideoInputAspectRatio(int x, int y) {
    return Send(kSetVideoInputAspectRatio, AspectRatio{x, y});
}

QV_RESULT CQVUSBCaptureBase::SetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT format) {
    return Send(kSetVideoInputColorFormat, format);
}

QV_RESULT CQVUSBCaptureBase::GetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT* format) {
    return Fetch(kGetVideoInputColorFormat, format);
}

QV_RESULT CQVUSBCaptureBase::SetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE range) {
    return Send(kSetVideoInputQuantizationRange, range);
}

QV_RESULT CQVUSBCaptureBase::GetVideoInputQuantizationRange(
    _QVCAP_VIDEO_QUANTIZATION_RANGE* range) {
    return Fetch(kGetVideoInputQuantizationRange, range);
}

QV_RESULT CQVUSBCaptureBase::SetLEDMode(unsigned int mode) {
    return Send(kSetLEDMode, uint32_t{mode});
}

QV_RESULT CQVUSBCaptureBase::GetFirmwareStorageInfo(_QVCAP_FIRMWARE_STORAGE* storage) {
    return Fetch(kGetFirmwareStorageInfo, storage);
}

// ---- operations of USB channels only

QV_RESULT CQVUSBCaptureBase::SetNotifyEnable(_QVCAP_NOTIFY_ENABLE* enable) {
    return SendGiven(kSetNotifyEnable, enable);
}

QV_RESULT CQVUSBCaptureBase::GetNotifyStatus(unsigned long long* status) {
    return Fetch(kGetNotifyStatus, status);
}

QV_RESULT CQVUSBCaptureBase::GetFirmwareReadAddress(unsigned int* address) {
    return Fetch(kGetFirmwareReadAddress, address);
}

QV_RESULT CQVUSBCaptureBase::GetEDIDMode(_QVCAP_EDID_MODE* mode) {
    return Fetch(kGetEDIDMode, mode);
}

QV_RESULT CQVUSBCaptureBase::SetEDIDMode(_QVCAP_EDID_MODE mode) {
    return Send(kSetEDIDMode, static_cast<uint8_t>(mode));
}

QV_RESULT CQVUSBCaptureBase::GetLoopThroughValid(signed char* valid) {
    return Fetch(kGetLoopThroughValid, valid);
}

QV_RESULT CQVUSBCaptureBase::GetAudioVolume(_QVCAP_USB_AUDIO_NODE node,
                                            _QVCAP_AUDIO_VOLUME* volume) {
    return Fetch(kGetAudioVolume.At(node), volume);
}

QV_RESULT CQVUSBCaptureBase::GetVideoCaptureConnectionFormat(
    _QVCAP_VIDEO_CONNECTION_FORMAT* format) {
    return Fetch(kGetVideoCaptureConnectionFormat, format);
}

QV_RESULT CQVUSBCaptureBase::GetVideoOutputFOURCC(_QVCAP_VIDEO_OUTPUT_FOURCC* fourcc) {
    return Fetch(kGetVideoOutputFOURCC, fourcc);
}

QV_RESULT CQVUSBCaptureBase::SetVideoOutputFOURCC(_QVCAP_VIDEO_OUTPUT_FOURCC* fourcc) {
    return SendGiven(kSetVideoOutputFOURCC, fourcc);
}

QV_RESULT CQVUSBCaptureBase::GetVideoOutputFrameSize(_QVCAP_VIDEO_OUTPUT_FRAME_SIZE* size) {
    return Fetch(kGetVideoOutputFrameSize, size);
}

QV_RESULT CQVUSBCaptureBase::SetVideoOutputFrameSize(_QVCAP_VIDEO_OUTPUT_FRAME_SIZE* size) {
    return SendGiven(kSetVideoOutputFrameSize, size);
}

QV_RESULT CQVUSBCaptureBase::GetVideoOutputFrameInterval(
    _QVCAP_VIDEO_OUTPUT_FRAME_INTERVAL* interval) {
    return Fetch(kGetVideoOutputFrameInterval, interval);
}

QV_RESULT CQVUSBCaptureBase::SetVideoOutputFrameInterval(
    _QVCAP_VIDEO_OUTPUT_FRAME_INTERVAL* interval) {
    return SendGiven(kSetVideoOutputFrameInterval, interval);
}

QV_RESULT CQVUSBCaptureBase::GetStatusImageMode(_QVCAP_STATUS_IMAGE_MODE* mode) {
    return Fetch(kGetStatusImageMode, mode);
}

QV_RESULT CQVUSBCaptureBase::GetDeviceNameMode(_QVCAP_DEVICE_NAME_MODE* mode) {
    return Fetch(kGetDeviceNameMode, mode);
}

QV_RESULT CQVUSBCaptureBase::SaveOptions() { return Send(kOptions, kSaveOptions); }

QV_RESULT CQVUSBCaptureBase::LoadOptions() { return Send(kOptions, kLoadOptions); }

QV_RESULT CQVUSBCaptureBase::ResetOptions() { return Send(kOptions, kResetOptions); }

QV_RESULT CQVUSBCaptureBase::GetVideoAutoHAlign(signed char* align) {
    return Fetch(kGetVideoAutoHAlign, align);
}

QV_RESULT CQVUSBCaptureBase::SetVideoAutoHAlign(signed char align) {
    return Send(kSetVideoAutoHAlign, int8_t{align});
}

QV_RESULT CQVUSBCaptureBase::GetVideoSamplingPhase(unsigned char* phase) {
    return Fetch(kGetVideoSamplingPhase, phase);
}

QV_RESULT CQVUSBCaptureBase::GetVideoSamplingPhaseAutoAdjust(signed char* adjust) {
    return Fetch(kGetVideoSamplingPhaseAutoAdjust, adjust);
}

QV_RESULT CQVUSBCaptureBase::SetVideoSamplingPhaseAutoAdjust(signed char* adjust) {
    return SendGiven(kSetVideoSamplingPhaseAutoAdjust, adjust);
}

QV_RESULT CQVUSBCaptureBase::SetVideoTiming(_QVCAP_VIDEO_TIMING* timing) {
    return SendGiven(kSetVideoTiming, timing);
}

QV_RESULT CQVUSBCaptureBase::GetPreferredVideoTimings(_QVCAP_VIDEO_TIMING_ARRAY* timings) {
    return Fetch(kGetPreferredVideoTimings, timings);
}

QV_RESULT CQVUSBCaptureBase::SetCustomVideoTiming(_QVCAP_VIDEO_CUSTOM_TIMING* timing) {
    return SendGiven(kSetCustomVideoTiming, timing);
}

QV_RESULT CQVUSBCaptureBase::GetCustomVideoTimings(_QVCAP_VIDEO_CUSTOM_TIMING_ARRAY* timings) {
    return Fetch(kGetCustomVideoTimings, timings);
}

QV_RESULT CQVUSBCaptureBase::SetCustomVideoTimings(_QVCAP_VIDEO_CUSTOM_TIMING_ARRAY* timings) {
    return SendGiven(kSetCustomVideoTimings, timings);
}

QV_RESULT CQVUSBCaptureBase::GetCustomVideoResolutions(
    _QVCAP_VIDEO_CUSTOM_RESOLUTION_ARRAY* resolutions) {
    return Fetch(kGetCustomVideoResolutions, resolutions);
}

QV_RESULT CQVUSBCaptureBase::SetCustomVideoResolutions(
    _QVCAP_VIDEO_CUSTOM_RESOLUTION_ARRAY* resolutions) {
    return SendGiven(kSetCustomVideoResolutions, resolutions);
}

QV_RESULT CQVUSBCaptureBase::GetExtensionSupported(unsigned int* extensions) {
    return Fetch(kGetExtensionSupported, extensions);
}

// ---- operations with an extra step

QV_RESULT CQVUSBCaptureBase::SetEDID(unsigned char* data, unsigned long size) {
    if (!IsOpen()) return QV_RESULT_FAILED;
    if (data == nullptr || size > UINT_MAX) return QV_RESULT_BAD_ARGUMENT;
    const OwnBytes copy(size);
    if (!copy) return QV_RESULT_FAILED;
    memcpy(copy.Data(), data, size);
    return USBChannelSetData(kEDID, copy.Data(), static_cast<unsigned int>(size));
}

QV_RESULT CQVUSBCaptureBase::GetEDID(unsigned char* data, unsigned long* size) {
    return FetchBytes(kEDID, size == nullptr ? nullptr : data, size == nullptr ? 0 : *size);
}

QV_RESULT CQVUSBCaptureBase::GetEDIDLoopThrough(char* data, unsigned int* size) {
    return FetchBytes(kEDIDLoopThrough, size == nullptr ? nullptr : data,
                      size == nullptr ? 0 : *size);
}

QV_RESULT CQVUSBCaptureBase::GetVideoInputAspectRatio(int* x, int* y) {
    AspectRatio ratio{};
    const QV_RESULT result = USBChannelGetData(kGetVideoInputAspectRatio.id, &ratio, sizeof ratio);
    if (x != nullptr) *x = ratio.x;
    if (y != nullptr) *y = ratio.y;
    return result;
}

QV_RESULT CQVUSBCaptureBase::SetStatusImageMode(_QVCAP_STATUS_IMAGE_MODE* mode) {
    if (mode == nullptr) return IsOpen() ? QV_RESULT_BAD_ARGUMENT : QV_RESULT_FAILED;
    return Send(kSetStatusImageMode, static_cast<uint8_t>(*mode));
}

QV_RESULT CQVUSBCaptureBase::SetDeviceNameMode(_QVCAP_DEVICE_NAME_MODE* mode) {
    if (mode == nullptr) return IsOpen() ? QV_RESULT_BAD_ARGUMENT : QV_RESULT_FAILED;
    return Send(kSetDeviceNameMode, static_cast<uint8_t>(*mode));
}

QV_RESULT CQVUSBCaptureBase::SetVideoSamplingPhase(unsigned char* phase) {
    if (phase != nullptr && !IsSamplingPhase(*phase)) return QV_RESULT_FAILED;
    return SendGiven(kSetVideoSamplingPhase, phase);
}

QV_RESULT CQVUSBCaptureBase::GetVideoCaptureProcessSettings(
    _QVCAP_VIDEO_PROCESS_SETTINGS* settings) {
    if (settings == nullptr) return IsOpen() ? QV_RESULT_BAD_ARGUMENT : QV_RESULT_FAILED;
    ProcessSettings wire{};
    const QV_RESULT result =
        USBChannelGetData(kGetVideoCaptureProcessSettings.id, &wire, sizeof wire);
    settings->processMask = wire.processMask;
    settings->sourceRect = {wire.left, wire.top, wire.right, wire.bottom};
    settings->aspectX = wire.aspectX;
    settings->aspectY = wire.aspectY;
    settings->lowLatency = wire.lowLatency;
    static_assert(sizeof settings->settings == sizeof wire.settings);
    memcpy(settings->settings, wire.settings, sizeof wire.settings);
    return result;
}

QV_RESULT CQVUSBCaptureBase::SetVideoCaptureProcessSettings(
    _QVCAP_VIDEO_PROCESS_SETTINGS* settings) {
    if (settings == nullptr) return IsOpen() ? QV_RESULT_BAD_ARGUMENT : QV_RESULT_FAILED;
    ProcessSettings wire{};
    wire.processMask = settings->processMask;
    wire.left = static_cast<uint16_t>(settings->sourceRect.left);
    wire.top = static_cast<uint16_t>(settings->sourceRect.top);
    wire.right = static_cast<uint16_t>(settings->sourceRect.right);
    wire.bottom = static_cast<uint16_t>(settings->sourceRect.bottom);
    wire.aspectX = settings->aspectX;
    wire.aspectY = settings->aspectY;
    wire.lowLatency = settings->lowLatency;
    memcpy(wire.settings, settings->settings, sizeof wire.settings);
    return Send(kSetVideoCaptureProcessSettings, wire);
}

// ---- firmware

// Returns when the device has finished writing. Deliberate: no time-out, a transfer paces the loop.
QV_RESULT CQVUSBCaptureBase::WaitForWIP() {
    uint8_t busy = 0;
    do {
        busy = 0;
        if (USBChannelSetData(kWriteInProgress.id, &busy, sizeof busy, sizeof busy) != QV_RESULT_OK)
            return QV_RESULT_FAILED;
    } while (busy != 0);
    return QV_RESULT_OK;
}

QV_RESULT CQVUSBCaptureBase::EraseFirmwareData(unsigned int address, unsigned int size) {
    const QV_RESULT result = Send(kEraseFirmware, FirmwareRange{address, size});
    return result == QV_RESULT_OK ? WaitForWIP() : result;
}

QV_RESULT CQVUSBCaptureBase::SetFirmwareErase(unsigned int address, unsigned int size) {
    return EraseFirmwareData(address, size);
}

QV_RESULT CQVUSBCaptureBase::WritePacket(uint32_t address, const unsigned char* data,
                                         uint32_t size) {
    FirmwarePacket packet{{address, size}, {}};
    memcpy(packet.data, data, size);
    const QV_RESULT result = USBChannelSetData(kFirmwareData.id, &packet, sizeof packet);
    return result == QV_RESULT_OK ? WaitForWIP() : result;
}

QV_RESULT CQVUSBCaptureBase::WriteFirmwareData(unsigned int address, unsigned char* data,
                                               unsigned int size) {
    if (!IsOpen()) return QV_RESULT_FAILED;
    if (data == nullptr || uint64_t{address} + size > uint64_t{1} << 32)
        return QV_RESULT_BAD_ARGUMENT;
    unsigned done = 0;
    do {  // Deliberate: writing nothing is one packet, too
        const unsigned length = std::min(size - done, kMaxWrite);
        const QV_RESULT result = WritePacket(address + done, data + done, length);
        if (result != QV_RESULT_OK) return result;
        done += length;
    } while (done < size);
    return QV_RESULT_OK;
}

QV_RESULT CQVUSBCaptureBase::ReadChunk(uint32_t address, unsigned char* data, uint32_t size) {
    // Without the address before it the packet would be a write of zeros.
    const QVUSBAlone alone(m_pContext->handle);
    const QV_RESULT result = Send(kSetFirmwareReadAddress, address);
    if (result != QV_RESULT_OK) return result;
    FirmwarePacket packet{{address, size}, {}};
    if (USBChannelSetData(kFirmwareData.id, &packet, sizeof packet, sizeof packet) != QV_RESULT_OK)
        return QV_RESULT_FAILED;
    memcpy(data, packet.data, size);
    return QV_RESULT_OK;
}

QV_RESULT CQVUSBCaptureBase::ReadFirmwareData(unsigned int address, unsigned char* data,
                                              unsigned int size, unsigned int* read) {
    constexpr unsigned kChunk = 64;
    if (!IsOpen()) return QV_RESULT_FAILED;
    if (data == nullptr || size > INT_MAX) return QV_RESULT_BAD_ARGUMENT;
    unsigned done = 0;
    do {  // Deliberate: reading nothing is one pass, too
        const unsigned chunk = std::min(size - done, kChunk);
        const QV_RESULT result = ReadChunk(address + done, data + done, chunk);
        if (result != QV_RESULT_OK) return result;
        done += chunk;
    } while (done < size);
    if (read != nullptr) *read = done;
    return QV_RESULT_OK;
}
