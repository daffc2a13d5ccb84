// The handlers of all requests of the table. Each is called with the model's lock held and returns
// a value or an error; the record is copied in before and out after. See Protocol.h.
#pragma once

#include "Protocol.h"

namespace qvsim {

// Settings and arrays: driven by the row's key and element size.
Answer GetRecord(Call& call);       // the stored value, or the default
Answer SetRecordValue(Call& call);  // stores the record
Answer GetArray(Call& call);
Answer SetArray(Call& call);
Answer GetArrayCount(Call& call);
Answer AcceptAction(Call& call);
Answer SavePreset(Call& call);
Answer ReloadPreset(Call& call);
Answer GetInfoFrame(Call& call);
Answer RefuseLumoCapture(Call& call);
Answer GetLumoCaptureStatus(Call& call);

// Identity and flash.
Answer GetChannelInfo(Call& call);
Answer GetFamilyInfo(Call& call);
Answer GetFirmwareStorageInfo(Call& call);
Answer EraseFirmwareData(Call& call);
Answer WriteFirmwareData(Call& call);
Answer ReadFirmwareData(Call& call);

// Events, on the event node.
Answer CreateEvent(Call& call);
Answer CloseEvent(Call& call);
Answer SetEvent(Call& call);
Answer ClearEvent(Call& call);
Answer IsSetEvent(Call& call);
Answer TryWaitEvent(Call& call);
Answer WaitEvent(Call& call);
Answer MultiWaitEvent(Call& call);

// Clock, timers, notifications.
Answer GetDeviceTime(Call& call);
Answer SetDeviceTime(Call& call);
Answer RegisterTimer(Call& call);
Answer UnregisterTimer(Call& call);
Answer ScheduleTimer(Call& call);
Answer RegisterNotify(Call& call);
Answer UnregisterNotify(Call& call);
Answer GetNotifyStatus(Call& call);

// OSD images and pinned buffers.
Answer CreateImage(Call& call);
Answer OpenImage(Call& call);
Answer CloseImage(Call& call);
Answer PinVideoBuffer(Call& call);
Answer UnpinVideoBuffer(Call& call);

// Video and audio capture.
Answer StartVideoCapture(Call& call);
Answer CaptureVideoFrame(Call& call);
Answer StopVideoCapture(Call& call);
Answer GetVideoCaptureStatus(Call& call);
Answer GetVideoBufferInfo(Call& call);
Answer GetVideoFrameInfo(Call& call);
Answer StartAudioCapture(Call& call);
Answer CaptureAudioFrame(Call& call);
Answer StopAudioCapture(Call& call);
Answer GetSignalStatus(Call& call);

}  // namespace qvsim
