// The public functions of QVCaptureCallbacks.h: the channel worker.
#include "QVCaptureCallbacks.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "Forward.h"

using qv::CallerParam;
using qv::Pcie;

QV_RESULT QVStartChannelThread(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StartChannelThread);
}

QV_RESULT QVStopChannelThread(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StopChannelThread);
}

QV_RESULT QVDestoryTimer(QV_CHANNEL channel, unsigned long long timer) {
    return Pcie(channel, &CQVCaptureBase::DestoryTimer, timer);
}

QV_RESULT QVStopVideoCaptureWithCallback(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StopVideoCaptureWithCallback);
}

QV_RESULT QVStopAudioCaptureWithCallback(QV_CHANNEL channel) {
    return Pcie(channel, &CQVCaptureBase::StopAudioCaptureWithCallback);
}

bool QVIsVideoCaptureStalled(QV_CHANNEL channel) {
    CQVCaptureBase* pcie = channel == nullptr ? nullptr : qv::AsDevice(channel)->AsPcieChannel();
    return pcie != nullptr && pcie->VideoCaptureStalled();
}

// ---- With a release --------------------------------------------------------------------------
// Without a release the caller looks after the parameter.

unsigned long long QVRegisterNotifyWithCallback(QV_CHANNEL channel, unsigned int enableBits,
                                                QV_NOTIFY_CALLBACK callback, void* param) {
    return Pcie(channel, &CQVCaptureBase::RegisterNotifyWithCallback, enableBits, callback,
                CallerParam(param));
}

unsigned long long QVRegisterNotifyWithRelease(QV_CHANNEL channel, unsigned int enableBits,
                                               QV_NOTIFY_CALLBACK callback, void* param,
                                               QV_RELEASE_CALLBACK release) {
    return Pcie(channel, &CQVCaptureBase::RegisterNotifyWithCallback, enableBits, callback,
                CallerParam(param, release));
}

unsigned long long QVCreateTimer(QV_CHANNEL channel, QV_TIMER_CALLBACK callback, long long delay,
                                 long long period) {
    return Pcie(channel, &CQVCaptureBase::CreateTimer, callback, delay, period,
                CallerParam(nullptr));
}

unsigned long long QVCreateTimerWithRelease(QV_CHANNEL channel, QV_TIMER_CALLBACK callback,
                                            long long delay, long long period, void* param,
                                            QV_RELEASE_CALLBACK release) {
    return Pcie(channel, &CQVCaptureBase::CreateTimer, callback, delay, period,
                CallerParam(param, release));
}

QV_RESULT QVStartVideoCaptureWithCallback(QV_CHANNEL channel, unsigned int fourcc, int cx, int cy,
                                          _QV_VIDEO_CAPTURE_MODE mode, QV_VIDEO_CALLBACK callback,
                                          void* param) {
    return Pcie(channel, &CQVCaptureBase::StartVideoCaptureWithCallback, fourcc, cx, cy, mode,
                callback, CallerParam(param));
}

QV_RESULT QVStartVideoCaptureWithRelease(QV_CHANNEL channel, unsigned int fourcc, int cx, int cy,
                                         _QV_VIDEO_CAPTURE_MODE mode, QV_VIDEO_CALLBACK callback,
                                         void* param, QV_RELEASE_CALLBACK release) {
    return Pcie(channel, &CQVCaptureBase::StartVideoCaptureWithCallback, fourcc, cx, cy, mode,
                callback, CallerParam(param, release));
}

QV_RESULT QVStartAudioCaptureWithCallback(QV_CHANNEL channel, QV_AUDIO_CALLBACK callback,
                                          void* param) {
    return Pcie(channel, &CQVCaptureBase::StartAudioCaptureWithCallback, callback,
                CallerParam(param));
}

QV_RESULT QVStartAudioCaptureWithRelease(QV_CHANNEL channel, QV_AUDIO_CALLBACK callback,
                                         void* param, QV_RELEASE_CALLBACK release) {
    return Pcie(channel, &CQVCaptureBase::StartAudioCaptureWithCallback, callback,
                CallerParam(param, release));
}

// ---- Doorbells -------------------------------------------------------------------------------

int QVOpenDoorbell() { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

void QVRingDoorbell(int doorbell) {
    const uint64_t once = 1;
    // A full count means that the descriptor is already readable.
    [[maybe_unused]] const ssize_t written = write(doorbell, &once, sizeof once);
}

unsigned long long QVAnswerDoorbell(int doorbell) {
    uint64_t rings = 0;
    return read(doorbell, &rings, sizeof rings) == static_cast<ssize_t>(sizeof rings) ? rings : 0;
}
