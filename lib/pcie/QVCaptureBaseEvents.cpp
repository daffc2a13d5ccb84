// Events on the shared event node; notifications, timers and the clock of a PCIe channel.
#include "QVCaptureBase.h"
#include "QVEventNode.h"
#include "QVPelixCapture.h"

namespace {

qv::EventNode Node() { return qv::EventNode(CQVCaptureControlBase::EventDescriptor()); }

}  // namespace

unsigned long long CQVCaptureBase::CreateEvent() { return Node().Create(); }

QV_RESULT CQVCaptureBase::CloseEvent(unsigned long long event) { return Node().Close(event); }

QV_RESULT CQVCaptureBase::SetEvent(unsigned long long event) { return Node().Set(event); }

QV_RESULT CQVCaptureBase::ClearEvent(unsigned long long event) { return Node().Clear(event); }

bool CQVCaptureBase::IsSetEvent(unsigned long long event) { return Node().IsSet(event); }

int CQVCaptureBase::TryWaitEvent(unsigned long long event) { return Node().TryWait(event); }

int CQVCaptureBase::WaitEvent(unsigned long long event, int timeout) {
    return Node().Wait(event, timeout);
}

int CQVCaptureBase::MultiWaitEvent(unsigned long long* events, int count, int timeout) {
    return static_cast<int>(Node().MultiWait(events, count, timeout));
}

unsigned long long CQVCaptureBase::RegisterNotify(unsigned long long event,
                                                  unsigned int enableBits) {
    if (event == 0) return 0;
    qv::RegisterNotifyRecord record{0, enableBits, event};
    return qv::Do(m_hChannelFD, qv::kRegisterNotify, &record) == QV_RESULT_OK ? record.notify : 0;
}

QV_RESULT CQVCaptureBase::UnregisterNotifyAtDriver(unsigned long long notify) {
    return qv::DoHandle(m_hChannelFD, qv::kUnregisterNotify, notify);
}

QV_RESULT CQVCaptureBase::GetNotifyStatus(unsigned long long notify, unsigned long long* status) {
    if (notify == 0 || status == nullptr) return QV_RESULT_BAD_ARGUMENT;
    qv::NotifyStatusRecord record{notify, 0};
    const QV_RESULT result = qv::Do(m_hChannelFD, qv::kGetNotifyStatus, &record);
    if (result == QV_RESULT_OK) *status = record.statusBits;
    return result;
}

unsigned long long CQVCaptureBase::RegisterTimer(unsigned long long event) {
    if (event == 0) return 0;
    qv::RegisterTimerRecord record{0, event};
    return qv::Do(m_hChannelFD, qv::kRegisterTimer, &record) == QV_RESULT_OK ? record.timer : 0;
}

QV_RESULT CQVCaptureBase::UnregisterTimer(unsigned long long timer) {
    return qv::DoHandle(m_hChannelFD, qv::kUnregisterTimer, timer);
}

QV_RESULT CQVCaptureBase::ScheduleTimer(unsigned long long timer, long long expireTime) {
    if (timer == 0) return QV_RESULT_BAD_ARGUMENT;
    return qv::Do(m_hChannelFD, qv::kScheduleTimer, {timer, expireTime});
}

QV_RESULT CQVCaptureBase::GetDeviceTime(long long* time) {
    return qv::Do(m_hChannelFD, qv::kGetDeviceTime, time);
}

QV_RESULT CQVCaptureBase::SetDeviceTime(long long time) {
    return qv::DoValue(m_hChannelFD, qv::kSetDeviceTime, time);
}

QV_RESULT CQVCaptureBase::RegulateDeviceTime(long long time) {
    return qv::DoValue(m_hChannelFD, qv::kRegulateDeviceTime, time);
}
