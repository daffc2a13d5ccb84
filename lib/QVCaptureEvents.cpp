// The public functions of QVCaptureEvents.h.
#include "QVCaptureEvents.h"

#include "Forward.h"

using qv::Pcie;

// ---- Events ----------------------------------------------------------------------------------
// The channel object checks the arguments.

unsigned long long QVCreateEvent() { return CQVCaptureBase::CreateEvent(); }
QV_RESULT QVCloseEvent(unsigned long long event) { return CQVCaptureBase::CloseEvent(event); }
QV_RESULT QVSetEvent(unsigned long long event) { return CQVCaptureBase::SetEvent(event); }
QV_RESULT QVClearEvent(unsigned long long event) { return CQVCaptureBase::ClearEvent(event); }
int QVIsSetEvent(unsigned long long event) { return CQVCaptureBase::IsSetEvent(event) ? 1 : 0; }
int QVTryWaitEvent(unsigned long long event) { return CQVCaptureBase::TryWaitEvent(event); }
int QVWaitEvent(unsigned long long event, int timeout) {
    return CQVCaptureBase::WaitEvent(event, timeout);
}
int QVMultiWaitEvent(unsigned long long* events, int count, int timeout) {
    return CQVCaptureBase::MultiWaitEvent(events, count, timeout);
}

unsigned long long QVRegisterNotify(QV_CHANNEL channel, unsigned long long event,
                                    unsigned int enableBits) {
    return Pcie(channel, &CQVCaptureBase::RegisterNotify, event, enableBits);
}

QV_RESULT QVUnregisterNotify(QV_CHANNEL channel, unsigned long long notify) {
    return Pcie(channel, &CQVCaptureBase::UnregisterNotify, notify);
}

QV_RESULT QVGetNotifyStatus(QV_CHANNEL channel, unsigned long long notify,
                            unsigned long long* status) {
    return Pcie(channel, &CQVCaptureBase::GetNotifyStatus, notify, status);
}

unsigned long long QVRegisterTimer(QV_CHANNEL channel, unsigned long long event) {
    return Pcie(channel, &CQVCaptureBase::RegisterTimer, event);
}

QV_RESULT QVUnregisterTimer(QV_CHANNEL channel, unsigned long long timer) {
    return Pcie(channel, &CQVCaptureBase::UnregisterTimer, timer);
}

QV_RESULT QVScheduleTimer(QV_CHANNEL channel, unsigned long long timer, long long expireTime) {
    return Pcie(channel, &CQVCaptureBase::ScheduleTimer, timer, expireTime);
}

QV_RESULT QVGetDeviceTime(QV_CHANNEL channel, long long* time) {
    return Pcie(channel, &CQVCaptureBase::GetDeviceTime, time);
}

QV_RESULT QVSetDeviceTime(QV_CHANNEL channel, long long time) {
    return Pcie(channel, &CQVCaptureBase::SetDeviceTime, time);
}

QV_RESULT QVRegulateDeviceTime(QV_CHANNEL channel, long long time) {
    return Pcie(channel, &CQVCaptureBase::RegulateDeviceTime, time);
}
