// Every request that the library issues to the kernel driver, one line each.
//
// Type 'X' goes to a channel's own node /dev/videoN, type 'E' to the shared node /dev/qv-event. The
// driver defines the numbers. The literal codes are typed here, and a consteval constructor
// recomputes them from direction, record size, letter and number, so that a wrong row does not
// build. Pure data, any thread.
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
    const char* name;
    uint32_t code;
    consteval Request(const char* called, char letter, uint32_t number, uint32_t literal)
        : name(called), code(literal) {
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

// kName is the row; journals and faults of the simulated driver use its name.
#define QV_REQUEST(kind, name, letter, number, code) \
    inline constexpr kind k##name { #name, letter, number, code }

// clang-format off
QV_REQUEST(Get<int32_t>,                            GetStreamCount,                  'X',   1, 0x80045801);
QV_REQUEST(Exchange<CountedArrayRecord>,            GetStreamInfos,                  'X',   2, 0xC00C5802);
QV_REQUEST(Set<int32_t>,                            SetCtrlStreamID,                 'X',   4, 0x40045804);
QV_REQUEST(Get<_QVCAP_CHANNEL_INFO>,                GetChannelInfo,                  'X',   6, 0x80E05806);
QV_REQUEST(Get<_QVCAP_PELIX_CAPTURE_INFO>,          GetFamilyInfo,                   'X',   7, 0x80115807);
QV_REQUEST(Get<_QVCAP_VIDEO_CAPS>,                  GetVideoCaps,                    'X',   8, 0x800C5808);
QV_REQUEST(Get<_QVCAP_AUDIO_CAPS>,                  GetAudioCaps,                    'X',   9, 0x80045809);
QV_REQUEST(Get<_QVCAP_FIRMWARE_STORAGE>,            GetFirmwareStorageInfo,          'X',  10, 0x8010580A);
QV_REQUEST(Set<FirmwareEraseRecord>,                EraseFirmwareData,               'X',  11, 0x4008580B);
QV_REQUEST(Set<FirmwareDataRecord>,                 WriteFirmwareData,               'X',  12, 0x4010580C);
QV_REQUEST(Exchange<FirmwareDataRecord>,            ReadFirmwareData,                'X',  13, 0xC010580D);
QV_REQUEST(Set<uint32_t>,                           SetLEDMode,                      'X',  14, 0x4004580E);
QV_REQUEST(Set<uint32_t>,                           SetPostReconfig,                 'X',  15, 0x4004580F);
QV_REQUEST(Get<uint32_t>,                           GetTemperature,                  'X',  16, 0x80045810);
QV_REQUEST(Get<int64_t>,                            GetDeviceTime,                   'X',  17, 0x80085811);
QV_REQUEST(Set<int64_t>,                            SetDeviceTime,                   'X',  18, 0x40085812);
QV_REQUEST(Set<int64_t>,                            RegulateDeviceTime,              'X',  19, 0x40085813);
QV_REQUEST(Exchange<RegisterTimerRecord>,           RegisterTimer,                   'X',  20, 0xC0105814);
QV_REQUEST(Set<uint64_t>,                           UnregisterTimer,                 'X',  21, 0x40085815);
QV_REQUEST(Set<ScheduleTimerRecord>,                ScheduleTimer,                   'X',  22, 0x40105816);
QV_REQUEST(Exchange<RegisterNotifyRecord>,          RegisterNotify,                  'X',  25, 0xC0185819);
QV_REQUEST(Set<uint64_t>,                           UnregisterNotify,                'X',  26, 0x4008581A);
QV_REQUEST(Exchange<NotifyStatusRecord>,            GetNotifyStatus,                 'X',  27, 0xC010581B);
QV_REQUEST(Get<_QVCAP_VIDEO_BUFFER_INFO>,           GetVideoBufferInfo,              'X',  31, 0x800D581F);
QV_REQUEST(Exchange<FrameInfoRecord>,               GetVideoFrameInfo,               'X',  32, 0xC0445820);
QV_REQUEST(Set<uint64_t>,                           StartVideoCapture,               'X',  33, 0x40085821);
QV_REQUEST(Set<VideoCaptureFrameRecord>,            CaptureVideoFrame,               'X',  34, 0x40BC5822);
QV_REQUEST(Get<_QVCAP_VIDEO_CAPTURE_STATUS>,        GetVideoCaptureStatus,           'X',  35, 0x801A5823);
QV_REQUEST(Action,                                  StopVideoCapture,                'X',  36, 0x00005824);
QV_REQUEST(Action,                                  StartAudioCapture,               'X',  37, 0x00005825);
QV_REQUEST(Get<_QVCAP_AUDIO_CAPTURE_FRAME>,         CaptureAudioFrame,               'X',  38, 0x98185826);
QV_REQUEST(Action,                                  StopAudioCapture,                'X',  39, 0x00005827);
QV_REQUEST(Exchange<CountedArrayRecord>,            GetVideoInputSourceArray,        'X',  41, 0xC00C5829);
QV_REQUEST(Exchange<CountedArrayRecord>,            GetAudioInputSourceArray,        'X',  43, 0xC00C582B);
QV_REQUEST(Set<char>,                               SetInputSourceScan,              'X',  44, 0x4001582C);
QV_REQUEST(Get<char>,                               GetInputSourceScan,              'X',  45, 0x8001582D);
QV_REQUEST(Set<char>,                               SetAVInputSourceLink,            'X',  47, 0x4001582F);
QV_REQUEST(Get<char>,                               GetAVInputSourceLink,            'X',  48, 0x80015830);
QV_REQUEST(Set<uint32_t>,                           SetVideoInputSource,             'X',  49, 0x40045831);
QV_REQUEST(Get<uint32_t>,                           GetVideoInputSource,             'X',  50, 0x80045832);
QV_REQUEST(Set<uint32_t>,                           SetAudioInputSource,             'X',  51, 0x40045833);
QV_REQUEST(Get<uint32_t>,                           GetAudioInputSource,             'X',  52, 0x80045834);
QV_REQUEST(Exchange<CountedArrayRecord>,            GetEDID,                         'X',  53, 0xC00C5835);
QV_REQUEST(Set<CountedArrayRecord>,                 SetEDID,                         'X',  54, 0x400C5836);
QV_REQUEST(Get<_QVCAP_INPUT_SPECIFIC_STATUS>,       GetInputSpecificStatus,          'X',  55, 0x803D5837);
QV_REQUEST(Get<_QVCAP_VIDEO_SIGNAL_STATUS>,         GetVideoSignalStatus,            'X',  56, 0x803A5838);
QV_REQUEST(Get<_QVCAP_AUDIO_SIGNAL_STATUS>,         GetAudioSignalStatus,            'X',  57, 0x80215839);
QV_REQUEST(Get<uint32_t>,                           GetHDMIInfoFrameValidFlags,      'X',  58, 0x8004583A);
QV_REQUEST(Exchange<InfoFrameRecord>,               GetHDMIInfoFramePacket,          'X',  59, 0xC023583B);
QV_REQUEST(Get<AspectRatioRecord>,                  GetVideoInputAspectRatio,        'X',  60, 0x8008583C);
QV_REQUEST(Set<AspectRatioRecord>,                  SetVideoInputAspectRatio,        'X',  61, 0x4008583D);
QV_REQUEST(Get<_QVCAP_VIDEO_COLOR_FORMAT>,          GetVideoInputColorFormat,        'X',  62, 0x8004583E);
QV_REQUEST(Set<_QVCAP_VIDEO_COLOR_FORMAT>,          SetVideoInputColorFormat,        'X',  63, 0x4004583F);
QV_REQUEST(Get<_QVCAP_VIDEO_QUANTIZATION_RANGE>,    GetVideoInputQuantizationRange,  'X',  64, 0x80045840);
QV_REQUEST(Set<_QVCAP_VIDEO_QUANTIZATION_RANGE>,    SetVideoInputQuantizationRange,  'X',  65, 0x40045841);
QV_REQUEST(Get<char>,                               GetVideoAutoHAlign,              'X',  66, 0x80015842);
QV_REQUEST(Set<char>,                               SetVideoAutoHAlign,              'X',  67, 0x40015843);
QV_REQUEST(Get<uint8_t>,                            GetVideoSamplingPhase,           'X',  68, 0x80015844);
QV_REQUEST(Set<uint8_t>,                            SetVideoSamplingPhase,           'X',  69, 0x40015845);
QV_REQUEST(Get<char>,                               GetVideoSamplingPhaseAutoAdjust, 'X',  70, 0x80015846);
QV_REQUEST(Set<char>,                               SetVideoSamplingPhaseAutoAdjust, 'X',  71, 0x40015847);
QV_REQUEST(Set<_QVCAP_VIDEO_TIMING>,                SetVideoTiming,                  'X',  72, 0x401C5848);
QV_REQUEST(Exchange<CountedArrayRecord>,            GetVideoPreferredTimingArray,    'X',  73, 0xC00C5849);
QV_REQUEST(Set<_QVCAP_VIDEO_CUSTOM_TIMING>,         SetCustomVideoTiming,            'X',  74, 0x401B584A);
QV_REQUEST(Get<uint32_t>,                           GetCustomVideoTimingsCount,      'X',  75, 0x8004584B);
QV_REQUEST(Exchange<CountedArrayRecord>,            GetCustomVideoTimingsArray,      'X',  76, 0xC00C584C);
QV_REQUEST(Set<CountedArrayRecord>,                 SetCustomVideoTimingsArray,      'X',  77, 0x400C584D);
QV_REQUEST(Get<uint32_t>,                           GetCustomVideoResolutionsCount,  'X',  78, 0x8004584E);
QV_REQUEST(Exchange<CountedArrayRecord>,            GetCustomVideoResolutionsArray,  'X',  79, 0xC00C584F);
QV_REQUEST(Set<CountedArrayRecord>,                 SetCustomVideoResolutionsArray,  'X',  80, 0x400C5850);
QV_REQUEST(Exchange<CreateImageRecord>,             CreateImage,                     'X',  81, 0xC00C5851);
QV_REQUEST(Exchange<ImageReferenceRecord>,          OpenImage,                       'X',  82, 0xC00C5852);
QV_REQUEST(Exchange<ImageReferenceRecord>,          CloseImage,                      'X',  83, 0xC00C5853);
QV_REQUEST(Set<_QVCAP_VIDEO_IMAGE_UPLOAD>,          UploadImage,                     'X',  84, 0x40345854);
QV_REQUEST(Set<PinVideoBufferRecord>,               PinVideoBuffer,                  'X',  85, 0x40185855);
QV_REQUEST(Set<uint64_t>,                           UnpinVideoBuffer,                'X',  86, 0x40085856);
QV_REQUEST(Action,                                  SaveSettingsAsPreset,            'X',  87, 0x00005857);
QV_REQUEST(Action,                                  ReloadPreset,                    'X',  88, 0x00005858);
QV_REQUEST(Get<_QVCAP_VIDEO_CONNECTION_FORMAT>,     GetVideoConnectFormat,           'X',  89, 0x80255859);
QV_REQUEST(Get<_QVCAP_VIDEO_PROCESS_SETTINGS>,      GetVideoProcessSettings,         'X',  90, 0x8031585A);
QV_REQUEST(Set<_QVCAP_VIDEO_PROCESS_SETTINGS>,      SetVideoProcessSettings,         'X',  91, 0x4031585B);
QV_REQUEST(Get<_QVCAP_VIDEO_OSD_SETTINGS>,          GetVideoOSDSettings,             'X',  92, 0x8201585C);
QV_REQUEST(Set<_QVCAP_VIDEO_OSD_SETTINGS>,          SetVideoOSDSettings,             'X',  93, 0x4201585D);
QV_REQUEST(Get<_QVCAP_VIDEO_OSD_IMAGE>,             GetVideoOSDImage,                'X',  94, 0x804C585E);
QV_REQUEST(Set<_QVCAP_VIDEO_OSD_IMAGE>,             SetVideoOSDImage,                'X',  95, 0x404C585F);
QV_REQUEST(Get<int32_t>,                            GetVideoBrightness,              'X',  96, 0x80045860);
QV_REQUEST(Set<int32_t>,                            SetVideoBrightness,              'X',  97, 0x40045861);
QV_REQUEST(Get<int32_t>,                            GetVideoContrast,                'X',  98, 0x80045862);
QV_REQUEST(Set<int32_t>,                            SetVideoContrast,                'X',  99, 0x40045863);
QV_REQUEST(Get<int32_t>,                            GetVideoHue,                     'X', 100, 0x80045864);
QV_REQUEST(Set<int32_t>,                            SetVideoHue,                     'X', 101, 0x40045865);
QV_REQUEST(Get<int32_t>,                            GetVideoSaturation,              'X', 102, 0x80045866);
QV_REQUEST(Set<int32_t>,                            SetVideoSaturation,              'X', 103, 0x40045867);
QV_REQUEST(Set<_QVCAP_SDI_ANC_TYPE>,                SetSDIANCType,                   'X', 104, 0x40055868);
QV_REQUEST(Get<_QVCAP_SDI_ANC_PACKET>,              GetSDIANCPacket,                 'X', 105, 0x81045869);
QV_REQUEST(Set<_QVCAP_VIDEO_LUMO_CAPTURE_OPEN>,     StartVideoLumoCapture,           'X', 109, 0x4018586D);
QV_REQUEST(Set<_QVCAP_VIDEO_LUMO_CAPTURE_SETTINGS>, SetVideoLumoCaptureSettings,     'X', 111, 0x4014586F);
QV_REQUEST(Set<_QVCAP_VIDEO_LUMO_CAPTURE_FRAME>,    CaptureSetVideoLumoFrame,        'X', 112, 0x401D5870);
QV_REQUEST(Get<_QVCAP_VIDEO_LUMO_CAPTURE_STATUS>,   GetVideoLumoCaptureStatus,       'X', 113, 0x80185871);
QV_REQUEST(Action,                                  StopVideoLumoCapture,            'X', 114, 0x00005872);

QV_REQUEST(Get<uint64_t>,                           CreateEvent,                     'E',   1, 0x80084501);
QV_REQUEST(Set<uint64_t>,                           CloseEvent,                      'E',   2, 0x40084502);
QV_REQUEST(Set<uint64_t>,                           SetEvent,                        'E',   3, 0x40084503);
QV_REQUEST(Set<uint64_t>,                           ClearEvent,                      'E',   4, 0x40084504);
QV_REQUEST(Set<uint64_t>,                           IsSetEvent,                      'E',   5, 0x40084505);
QV_REQUEST(Set<uint64_t>,                           TryWaitEvent,                    'E',   6, 0x40084506);
QV_REQUEST(Set<WaitEventRecord>,                    WaitEvent,                       'E',   7, 0x400C4507);
QV_REQUEST(Set<MultiWaitEventRecord>,               MultiWaitEvent,                  'E',   8, 0x40104508);
// clang-format on
#undef QV_REQUEST

}  // namespace qv
