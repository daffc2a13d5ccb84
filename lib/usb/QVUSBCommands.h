// Every command that the library sends to a USB device, one line each.
//
// The device defines ids and sizes. A consteval constructor compares each size typed here with the
// payload's record, so that a wrong row does not build. Pure data, any thread.
#pragma once

#include <cstdint>

#include "QVUSBRecords.h"

namespace qv::usb {

void SizeDoesNotMatchItsRecord();  // never defined: naming it stops constant evaluation

enum class Way { kGet, kSet };

template <Way way, class Payload>
struct Command {
    uint8_t id;
    consteval Command(uint8_t command, unsigned size) : id(command) {
        if (size != sizeof(Payload)) SizeDoesNotMatchItsRecord();
    }
    // The command of a family that an index selects; ids wrap at 8 bits.
    constexpr Command At(uint32_t index) const {
        Command selected = *this;
        selected.id = static_cast<uint8_t>(id + index);
        return selected;
    }
};

template <class Payload>
using Get = Command<Way::kGet, Payload>;  // the device fills the payload
template <class Payload>
using Set = Command<Way::kSet, Payload>;  // the device takes the payload, and may answer into it

// A table stays a table.
// clang-format off
inline constexpr Get<_QVCAP_CHANNEL_INFO> kGetChannelInfo{0x01, 224};
inline constexpr Get<_QVUSBCAP_CAPTURE_INFO> kGetFamilyInfo{0x02, 10};
inline constexpr Get<_QVCAP_VIDEO_CAPS> kGetVideoCaps{0x03, 12};
inline constexpr Get<_QVCAP_AUDIO_CAPS> kGetAudioCaps{0x04, 4};
inline constexpr Set<uint32_t> kSetLEDMode{0x05, 4};
inline constexpr Set<_QVCAP_NOTIFY_ENABLE> kSetNotifyEnable{0x07, 9};
inline constexpr Get<uint64_t> kGetNotifyStatus{0x08, 8};
inline constexpr Get<InputSources> kGetVideoInputSourceArray{0x09, 65};
inline constexpr Get<InputSources> kGetAudioInputSourceArray{0x0A, 65};
inline constexpr Get<uint8_t> kGetInputSourceScan{0x0B, 1};
inline constexpr Set<uint8_t> kSetInputSourceScan{0x0B, 1};
inline constexpr Get<uint8_t> kGetInputSourceScanState{0x0C, 1};
inline constexpr Get<uint8_t> kGetAVInputSourceLink{0x0D, 1};
inline constexpr Set<uint8_t> kSetAVInputSourceLink{0x0D, 1};
inline constexpr Get<uint32_t> kGetVideoInputSource{0x0E, 4};
inline constexpr Set<uint32_t> kSetVideoInputSource{0x0E, 4};
inline constexpr Get<uint32_t> kGetAudioInputSource{0x0F, 4};
inline constexpr Set<uint32_t> kSetAudioInputSource{0x0F, 4};
inline constexpr Get<_QVCAP_INPUT_SPECIFIC_STATUS> kGetInputSpecificStatus{0x10, 61};
inline constexpr Get<_QVCAP_VIDEO_SIGNAL_STATUS> kGetVideoSignalStatus{0x11, 58};
inline constexpr Get<_QVCAP_AUDIO_SIGNAL_STATUS> kGetAudioSignalStatus{0x12, 33};
inline constexpr Get<AspectRatio> kGetVideoInputAspectRatio{0x13, 8};
inline constexpr Set<AspectRatio> kSetVideoInputAspectRatio{0x13, 8};
inline constexpr Get<_QVCAP_VIDEO_COLOR_FORMAT> kGetVideoInputColorFormat{0x14, 4};
inline constexpr Set<_QVCAP_VIDEO_COLOR_FORMAT> kSetVideoInputColorFormat{0x14, 4};
inline constexpr Get<_QVCAP_VIDEO_QUANTIZATION_RANGE> kGetVideoInputQuantizationRange{0x15, 4};
inline constexpr Set<_QVCAP_VIDEO_QUANTIZATION_RANGE> kSetVideoInputQuantizationRange{0x15, 4};
inline constexpr Get<_QVCAP_VIDEO_CONNECTION_FORMAT> kGetVideoCaptureConnectionFormat{0x16, 37};
inline constexpr Get<ProcessSettings> kGetVideoCaptureProcessSettings{0x17, 44};
inline constexpr Set<ProcessSettings> kSetVideoCaptureProcessSettings{0x17, 44};
inline constexpr Get<_QVCAP_VIDEO_OUTPUT_FOURCC> kGetVideoOutputFOURCC{0x18, 13};
inline constexpr Set<_QVCAP_VIDEO_OUTPUT_FOURCC> kSetVideoOutputFOURCC{0x18, 13};
inline constexpr Get<_QVCAP_VIDEO_OUTPUT_FRAME_SIZE> kGetVideoOutputFrameSize{0x19, 98};
inline constexpr Set<_QVCAP_VIDEO_OUTPUT_FRAME_SIZE> kSetVideoOutputFrameSize{0x19, 98};
inline constexpr Get<_QVCAP_VIDEO_OUTPUT_FRAME_INTERVAL> kGetVideoOutputFrameInterval{0x1A, 34};
inline constexpr Set<_QVCAP_VIDEO_OUTPUT_FRAME_INTERVAL> kSetVideoOutputFrameInterval{0x1A, 34};
inline constexpr Get<int8_t> kGetVideoAutoHAlign{0x90, 1};
inline constexpr Set<int8_t> kSetVideoAutoHAlign{0x90, 1};
inline constexpr Get<uint8_t> kGetVideoSamplingPhase{0x91, 1};
inline constexpr Set<uint8_t> kSetVideoSamplingPhase{0x91, 1};
inline constexpr Get<int8_t> kGetVideoSamplingPhaseAutoAdjust{0x92, 1};
inline constexpr Set<int8_t> kSetVideoSamplingPhaseAutoAdjust{0x92, 1};
inline constexpr Set<_QVCAP_VIDEO_TIMING> kSetVideoTiming{0x93, 28};
inline constexpr Get<_QVCAP_VIDEO_TIMING_ARRAY> kGetPreferredVideoTimings{0x94, 225};
inline constexpr Set<_QVCAP_VIDEO_CUSTOM_TIMING> kSetCustomVideoTiming{0x95, 27};
inline constexpr Get<_QVCAP_VIDEO_CUSTOM_TIMING_ARRAY> kGetCustomVideoTimings{0x96, 217};
inline constexpr Set<_QVCAP_VIDEO_CUSTOM_TIMING_ARRAY> kSetCustomVideoTimings{0x96, 217};
inline constexpr Get<_QVCAP_VIDEO_CUSTOM_RESOLUTION_ARRAY> kGetCustomVideoResolutions{0x97, 65};
inline constexpr Set<_QVCAP_VIDEO_CUSTOM_RESOLUTION_ARRAY> kSetCustomVideoResolutions{0x97, 65};
inline constexpr uint8_t kEDID = 0x98;             // get and set; the caller decides the size
inline constexpr uint8_t kEDIDLoopThrough = 0x99;  // get; likewise
inline constexpr Get<uint8_t> kGetEDIDMode{0x9A, 1};
inline constexpr Set<uint8_t> kSetEDIDMode{0x9A, 1};
inline constexpr Get<int8_t> kGetLoopThroughValid{0x9B, 1};
inline constexpr Get<uint32_t> kGetHDMIInfoFrameValidFlags{0xA0, 4};
inline constexpr Get<_HDMI_INFOFRAME_PACKET> kGetHDMIInfoFramePacket{0xA1, 31};  // + id
inline constexpr Get<_QVCAP_AUDIO_VOLUME> kGetAudioVolume{0xB0, 56};             // + node
inline constexpr Get<_QVCAP_FIRMWARE_STORAGE> kGetFirmwareStorageInfo{0xF0, 16};
inline constexpr Set<FirmwareRange> kEraseFirmware{0xF1, 8};
inline constexpr Get<uint32_t> kGetFirmwareReadAddress{0xF2, 4};
inline constexpr Set<uint32_t> kSetFirmwareReadAddress{0xF2, 4};
inline constexpr Set<FirmwarePacket> kFirmwareData{0xF3, 2056};  // write; read: answered in place
inline constexpr Set<uint8_t> kWriteInProgress{0xF4, 1};         // answered in place
inline constexpr Get<uint8_t> kGetStatusImageMode{0xFC, 1};
inline constexpr Set<uint8_t> kSetStatusImageMode{0xFC, 1};
inline constexpr Get<uint8_t> kGetDeviceNameMode{0xFD, 1};
inline constexpr Set<uint8_t> kSetDeviceNameMode{0xFD, 1};
inline constexpr Set<uint8_t> kOptions{0xFE, 1};  // 0 reset, 1 load, 2 save
inline constexpr Get<uint32_t> kGetExtensionSupported{0xFF, 4};
// clang-format on

}  // namespace qv::usb
