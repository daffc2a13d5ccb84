// Every request that the library issues to the kernel driver, one line each.
//
// Type 'X' goes to a channel's own node /dev/videoN, type 'E' to the shared node /dev/qv-event.
// The driver defines the numbers; the literal codes are typed here and recomputed from direction,
// record size, letter and number by a consteval constructor, so that a wrong row does not build.
// Pure data, any thread.
#pragma once

#include <cstdint>

#include "QVDriverRecords.h"

namespace qv {

// Direction bits of the 32-bit i386 ioctl encoding.
enum class Direction : uint32_t { kNone = 0, kWrite = 1, kRead = 2, kBoth = 3 };

// bits 31-30 direction, 29-16 record size in bytes, 15-8 type letter, 7-0 number.
constexpr uint32_t RequestCode(Direction direction, uint32_t size, char letter, uint32_t number) {
    return static_cast<uint32_t>(direction) << 30 | size << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(letter)) << 8 | number;
}

void RequestCodeDoesNotMatchItsRow();  // never defined: naming it stops constant evaluation

template <class Record>
inline constexpr uint32_t kRecordSize = sizeof(Record);
template <>
inline constexpr uint32_t kRecordSize<void> = 0;

template <Direction direction, class Record>
struct Request {
    uint32_t code;
    consteval Request(char letter, uint32_t number, uint32_t literal) : code(literal) {
        if (RequestCode(direction, kRecordSize<Record>, letter, number) != literal)
            RequestCodeDoesNotMatchItsRow();
    }
};

template <class Record>
using Get = Request<Direction::kRead, Record>;  // the driver fills the record
template <class Record>
using Set = Request<Direction::kWrite, Record>;  // the driver takes the record
template <class Record>
using Exchange = Request<Direction::kBoth, Record>;  // the driver takes it and fills it
using Action = Request<Direction::kNone, void>;      // there is no record

// A table stays a table.
// clang-format off
inline constexpr Get<int32_t>                            kGetStreamCount                  {'X',   1, 0x80045801};
inline constexpr Exchange<CountedArrayRecord>            kGetStreamInfos                  {'X',   2, 0xC00C5802};
inline constexpr Set<int32_t>                            kSetCtrlStreamID                 {'X',   4, 0x40045804};
inline constexpr Get<_QVCAP_CHANNEL_INFO>                kGetChannelInfo                  {'X',   6, 0x80E05806};
inline constexpr Get<_QVCAP_PELIX_CAPTURE_INFO>          kGetFamilyInfo                   {'X',   7, 0x80115807};
inline constexpr Get<_QVCAP_VIDEO_CAPS>                  kGetVideoCaps                    {'X',   8, 0x800C5808};
inline constexpr Get<_QVCAP_AUDIO_CAPS>                  kGetAudioCaps                    {'X',   9, 0x80045809};
inline constexpr Get<_QVCAP_FIRMWARE_STORAGE>            kGetFirmwareStorageInfo          {'X',  10, 0x8010580A};
inline constexpr Set<FirmwareEraseRecord>                kEraseFirmwareData               {'X',  11, 0x4008580B};
inline constexpr Set<FirmwareDataRecord>                 kWriteFirmwareData               {'X',  12, 0x4010580C};
inline constexpr Exchange<FirmwareDataRecord>            kReadFirmwareData                {'X',  13, 0xC010580D};
inline constexpr Set<uint32_t>                           kSetLEDMode                      {'X',  14, 0x4004580E};
inline constexpr Set<uint32_t>                           kSetPostReconfig                 {'X',  15, 0x4004580F};
inline constexpr Get<uint32_t>                           kGetTemperature                  {'X',  16, 0x80045810};
inline constexpr Get<int64_t>                            kGetDeviceTime                   {'X',  17, 0x80085811};
inline constexpr Set<int64_t>                            kSetDeviceTime                   {'X',  18, 0x40085812};
inline constexpr Set<int64_t>                            kRegulateDeviceTime              {'X',  19, 0x40085813};
inline constexpr Exchange<RegisterTimerRecord>           kRegisterTimer                   {'X',  20, 0xC0105814};
inline constexpr Set<uint64_t>                           kUnregisterTimer                 {'X',  21, 0x40085815};
inline constexpr Set<ScheduleTimerRecord>                kScheduleTimer                   {'X',  22, 0x40105816};
inline constexpr Exchange<RegisterNotifyRecord>          kRegisterNotify                  {'X',  25, 0xC0185819};
inline constexpr Set<uint64_t>                           kUnregisterNotify                {'X',  26, 0x4008581A};
inline constexpr Exchange<NotifyStatusRecord>            kGetNotifyStatus                 {'X',  27, 0xC010581B};
inline constexpr Get<_QVCAP_VIDEO_BUFFER_INFO>           kGetVideoBufferInfo              {'X',  31, 0x800D581F};
inline constexpr Exchange<FrameInfoRecord>               kGetVideoFrameInfo               {'X',  32, 0xC0445820};
inline constexpr Set<uint64_t>                           kStartVideoCapture               {'X',  33, 0x40085821};
inline constexpr Set<VideoCaptureFrameRecord>            kCaptureVideoFrame               {'X',  34, 0x40BC5822};
inline constexpr Get<_QVCAP_VIDEO_CAPTURE_STATUS>        kGetVideoCaptureStatus           {'X',  35, 0x801A5823};
inline constexpr Action                                  kStopVideoCapture                {'X',  36, 0x00005824};
inline constexpr Action                                  kStartAudioCapture               {'X',  37, 0x00005825};
inline constexpr Get<_QVCAP_AUDIO_CAPTURE_FRAME>         kCaptureAudioFrame               {'X',  38, 0x98185826};
inline constexpr Action                                  kStopAudioCapture                {'X',  39, 0x00005827};
inline constexpr Exchange<CountedArrayRecord>            kGetVideoInputSourceArray        {'X',  41, 0xC00C5829};
inline constexpr Exchange<CountedArrayRecord>            kGetAudioInputSourceArray        {'X',  43, 0xC00C582B};
inline constexpr Set<char>                               kSetInputSourceScan              {'X',  44, 0x4001582C};
inline constexpr Get<char>                               kGetInputSourceScan              {'X',  45, 0x8001582D};
inline constexpr Set<char>                               kSetAVInputSourceLink            {'X',  47, 0x4001582F};
inline constexpr Get<char>                               kGetAVInputSourceLink            {'X',  48, 0x80015830};
inline constexpr Set<uint32_t>                           kSetVideoInputSource             {'X',  49, 0x40045831};
inline constexpr Get<uint32_t>                           kGetVideoInputSource             {'X',  50, 0x80045832};
inline constexpr Set<uint32_t>                           kSetAudioInputSource             {'X',  51, 0x40045833};
inline constexpr Get<uint32_t>                           kGetAudioInputSource             {'X',  52, 0x80045834};
inline constexpr Exchange<CountedArrayRecord>            kGetEDID                         {'X',  53, 0xC00C5835};
inline constexpr Set<CountedArrayRecord>                 kSetEDID                         {'X',  54, 0x400C5836};
inline constexpr Get<_QVCAP_INPUT_SPECIFIC_STATUS>       kGetInputSpecificStatus          {'X',  55, 0x803D5837};
inline constexpr Get<_QVCAP_VIDEO_SIGNAL_STATUS>         kGetVideoSignalStatus            {'X',  56, 0x803A5838};
inline constexpr Get<_QVCAP_AUDIO_SIGNAL_STATUS>         kGetAudioSignalStatus            {'X',  57, 0x80215839};
inline constexpr Get<uint32_t>                           kGetHDMIInfoFrameValidFlags      {'X',  58, 0x8004583A};
inline constexpr Exchange<InfoFrameRecord>               kGetHDMIInfoFramePacket          {'X',  59, 0xC023583B};
inline constexpr Get<AspectRatioRecord>                  kGetVideoInputAspectRatio        {'X',  60, 0x8008583C};
inline constexpr Set<AspectRatioRecord>                  kSetVideoInputAspectRatio        {'X',  61, 0x4008583D};
inline constexpr Get<_QVCAP_VIDEO_COLOR_FORMAT>          kGetVideoInputColorFormat        {'X',  62, 0x8004583E};
inline constexpr Set<_QVCAP_VIDEO_COLOR_FORMAT>          kSetVideoInputColorFormat        {'X',  63, 0x4004583F};
inline constexpr Get<_QVCAP_VIDEO_QUANTIZATION_RANGE>    kGetVideoInputQuantizationRange  {'X',  64, 0x80045840};
inline constexpr Set<_QVCAP_VIDEO_QUANTIZATION_RANGE>    kSetVideoInputQuantizationRange  {'X',  65, 0x40045841};
inline constexpr Get<char>                               kGetVideoAutoHAlign              {'X',  66, 0x80015842};
inline constexpr Set<char>                               kSetVideoAutoHAlign              {'X',  67, 0x40015843};
inline constexpr Get<uint8_t>                            kGetVideoSamplingPhase           {'X',  68, 0x80015844};
inline constexpr Set<uint8_t>                            kSetVideoSamplingPhase           {'X',  69, 0x40015845};
inline constexpr Get<char>                               kGetVideoSamplingPhaseAutoAdjust {'X',  70, 0x80015846};
inline constexpr Set<char>                               kSetVideoSamplingPhaseAutoAdjust {'X',  71, 0x40015847};
inline constexpr Set<_QVCAP_VIDEO_TIMING>                kSetVideoTiming                  {'X',  72, 0x401C5848};
inline constexpr Exchange<CountedArrayRecord>            kGetVideoPreferredTimingArray    {'X',  73, 0xC00C5849};
inline constexpr Set<_QVCAP_VIDEO_CUSTOM_TIMING>         kSetCustomVideoTiming            {'X',  74, 0x401B584A};
inline constexpr Get<uint32_t>                           kGetCustomVideoTimingsCount      {'X',  75, 0x8004584B};
inline constexpr Exchange<CountedArrayRecord>            kGetCustomVideoTimingsArray      {'X',  76, 0xC00C584C};
inline constexpr Set<CountedArrayRecord>                 kSetCustomVideoTimingsArray      {'X',  77, 0x400C584D};
inline constexpr Get<uint32_t>                           kGetCustomVideoResolutionsCount  {'X',  78, 0x8004584E};
inline constexpr Exchange<CountedArrayRecord>            kGetCustomVideoResolutionsArray  {'X',  79, 0xC00C584F};
inline constexpr Set<CountedArrayRecord>                 kSetCustomVideoResolutionsArray  {'X',  80, 0x400C5850};
inline constexpr Exchange<CreateImageRecord>             kCreateImage                     {'X',  81, 0xC00C5851};
inline constexpr Exchange<ImageReferenceRecord>          kOpenImage                       {'X',  82, 0xC00C5852};
inline constexpr Exchange<ImageReferenceRecord>          kCloseImage                      {'X',  83, 0xC00C5853};
inline constexpr Set<_QVCAP_VIDEO_IMAGE_UPLOAD>          kUploadImage                     {'X',  84, 0x40345854};
inline constexpr Set<PinVideoBufferRecord>               kPinVideoBuffer                  {'X',  85, 0x40185855};
inline constexpr Set<uint64_t>                           kUnpinVideoBuffer                {'X',  86, 0x40085856};
inline constexpr Action                                  kSaveSettingsAsPreset            {'X',  87, 0x00005857};
inline constexpr Action                                  kReloadPreset                    {'X',  88, 0x00005858};
inline constexpr Get<_QVCAP_VIDEO_CONNECTION_FORMAT>     kGetVideoConnectFormat           {'X',  89, 0x80255859};
inline constexpr Get<_QVCAP_VIDEO_PROCESS_SETTINGS>      kGetVideoProcessSettings         {'X',  90, 0x8031585A};
inline constexpr Set<_QVCAP_VIDEO_PROCESS_SETTINGS>      kSetVideoProcessSettings         {'X',  91, 0x4031585B};
inline constexpr Get<_QVCAP_VIDEO_OSD_SETTINGS>          kGetVideoOSDSettings             {'X',  92, 0x8201585C};
inline constexpr Set<_QVCAP_VIDEO_OSD_SETTINGS>          kSetVideoOSDSettings             {'X',  93, 0x4201585D};
inline constexpr Get<_QVCAP_VIDEO_OSD_IMAGE>             kGetVideoOSDImage                {'X',  94, 0x804C585E};
inline constexpr Set<_QVCAP_VIDEO_OSD_IMAGE>             kSetVideoOSDImage                {'X',  95, 0x404C585F};
inline constexpr Get<int32_t>                            kGetVideoBrightness              {'X',  96, 0x80045860};
inline constexpr Set<int32_t>                            kSetVideoBrightness              {'X',  97, 0x40045861};
inline constexpr Get<int32_t>                            kGetVideoContrast                {'X',  98, 0x80045862};
inline constexpr Set<int32_t>                            kSetVideoContrast                {'X',  99, 0x40045863};
inline constexpr Get<int32_t>                            kGetVideoHue                     {'X', 100, 0x80045864};
inline constexpr Set<int32_t>                            kSetVideoHue                     {'X', 101, 0x40045865};
inline constexpr Get<int32_t>                            kGetVideoSaturation              {'X', 102, 0x80045866};
inline constexpr Set<int32_t>                            kSetVideoSaturation              {'X', 103, 0x40045867};
inline constexpr Set<_QVCAP_SDI_ANC_TYPE>                kSetSDIANCType                   {'X', 104, 0x40055868};
inline constexpr Get<_QVCAP_SDI_ANC_PACKET>              kGetSDIANCPacket                 {'X', 105, 0x81045869};
inline constexpr Set<_QVCAP_VIDEO_LUMO_CAPTURE_OPEN>     kStartVideoLumoCapture           {'X', 109, 0x4018586D};
inline constexpr Set<_QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS> kSetVideoLumoCaptureSettings     {'X', 111, 0x4014586F};
inline constexpr Set<_QVCAP_VIDEO_LUMO_CAPTURE_FRAME>    kCaptureSetVideoLumoFrame        {'X', 112, 0x401D5870};
inline constexpr Get<_QVCAP_VIDEO_LUMO_CAPTURE_STATUS>   kGetVideoLumoCaptureStatus       {'X', 113, 0x80185871};
inline constexpr Action                                  kStopVideoLumoCapture            {'X', 114, 0x00005872};

inline constexpr Get<uint64_t>                           kCreateEvent                     {'E',   1, 0x80084501};
inline constexpr Set<uint64_t>                           kCloseEvent                      {'E',   2, 0x40084502};
inline constexpr Set<uint64_t>                           kSetEvent                        {'E',   3, 0x40084503};
inline constexpr Set<uint64_t>                           kClearEvent                      {'E',   4, 0x40084504};
inline constexpr Set<uint64_t>                           kIsSetEvent                      {'E',   5, 0x40084505};
inline constexpr Set<uint64_t>                           kTryWaitEvent                    {'E',   6, 0x40084506};
inline constexpr Set<WaitEventRecord>                    kWaitEvent                       {'E',   7, 0x400C4507};
inline constexpr Set<MultiWaitEventRecord>               kMultiWaitEvent                  {'E',   8, 0x40104508};
// clang-format on

}  // namespace qv
