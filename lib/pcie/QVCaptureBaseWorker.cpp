// The channel object's side of its worker: start, stop, look-up, and forwarding to it.
#include <new>
#include <utility>

#include "ChannelEntity.h"
#include "QVCaptureBase.h"

namespace {

QV_RESULT FromWorker(int result) { return result == 0 ? QV_RESULT_OK : QV_RESULT_FAILED; }

}  // namespace

CQVCaptureBase::CQVCaptureBase() = default;

CQVCaptureBase::~CQVCaptureBase() {
    StopWorker();                // before the members that its worker uses are gone
    m_hChannelFD = qv::kClosed;  // Deliberate: only CloseChannel closes
    ReleaseKeptFrames();
}

// Returns a reference, so that the worker's object outlives every thread that runs in it.
qv::Ref<ChannelEntity> CQVCaptureBase::Entity() {
    const qv::Guard guard(&m_workerLock);
    return m_entity;
}

QV_RESULT CQVCaptureBase::StartChannelThread() {
    const qv::Guard guard(&m_workerLock);
    if (m_entity) return QV_RESULT_FAILED;
    const qv::Ref entity(new (std::nothrow) ChannelEntity(this));
    if (!entity || entity->StartChannelThread() != 0) return QV_RESULT_FAILED;
    m_entity = entity;
    return QV_RESULT_OK;
}

QV_RESULT CQVCaptureBase::StopChannelThread() {
    if (StopWorker() != QV_RESULT_OK) return QV_RESULT_FAILED;
    if (!m_closeWhenStopped) return QV_RESULT_OK;
    const qv::CallerParam droppedLast = std::move(m_closeParam);
    CloseChannel();
    delete this;
    return QV_RESULT_OK;
}

QV_RESULT CQVCaptureBase::StopWorker() {
    qv::Ref<ChannelEntity> entity;
    {
        // Look-up and claim under one lock: the worker removed below is the one looked up here.
        const qv::Guard guard(&m_workerLock);
        if (!m_entity || m_entity->OnWorkerThread() || m_stopping) return QV_RESULT_FAILED;
        entity = m_entity;
        m_stopping = true;
    }
    // Without the lock: running callbacks may still look up the worker.
    entity->StopChannelThread();
    const qv::Guard guard(&m_workerLock);
    m_entity = {};
    m_stopping = false;
    return QV_RESULT_OK;
}

bool CQVCaptureBase::DeferCloseToWorker(qv::CallerParam* param) {
    const auto entity = Entity();
    if (!entity || !entity->OnWorkerThread()) return false;
    entity->CloseOwnerAfterCallback(std::move(*param));
    return true;
}

// A worker that is being stopped must not end on its own: the thread that stops it closes the
// channel.
bool CQVCaptureBase::ClaimDeferredClose(qv::CallerParam* param) {
    const qv::Guard guard(&m_workerLock);
    if (!m_stopping) {
        m_stopping = true;
        return true;
    }
    m_closeParam = std::move(*param);
    m_closeWhenStopped = true;
    return false;
}

void CQVCaptureBase::FinishDeferredClose() {
    qv::Ref<ChannelEntity> entity;  // ends after this object
    {
        const qv::Guard guard(&m_workerLock);
        std::swap(entity, m_entity);
    }
    CloseChannel();
    delete this;
}

void CQVCaptureBase::KeepUntilClosed(qv::FrameMemory* frames) {
    const qv::Guard guard(&m_workerLock);
    frames->next = m_framesUntilClosed;
    m_framesUntilClosed = frames;
}

void CQVCaptureBase::ReleaseKeptFrames() {
    const qv::Guard guard(&m_workerLock);
    while (qv::FrameMemory* const frames = m_framesUntilClosed) {
        m_framesUntilClosed = frames->next;
        delete frames;
    }
}

// ---- Forwarding ------------------------------------------------------------------------------

unsigned long long CQVCaptureBase::RegisterNotifyWithCallback(unsigned int enableBits,
                                                              QV_NOTIFY_CALLBACK callback,
                                                              qv::CallerParam param) {
    const auto entity = Entity();
    unsigned long long handle = 0;
    if (!entity || entity->RegisterNotify(enableBits, callback, std::move(param), handle) != 0)
        return 0;
    return handle;
}

QV_RESULT CQVCaptureBase::QVUnregisterNotifyOfCallback(unsigned long long handle) {
    const auto entity = Entity();
    if (!entity) return QV_RESULT_FAILED;
    return FromWorker(entity->UnregisterNotifyWithCallback(handle));
}

// A caller's handle may be a registration's key or one of the driver's. The worker is asked only
// about handles that can be keys, because it may be in a long callback.
QV_RESULT CQVCaptureBase::UnregisterNotify(unsigned long long notify) {
    if (m_hChannelFD == qv::kClosed || notify == 0) return QV_RESULT_BAD_ARGUMENT;
    if (qv::MayBeKey(notify) && QVUnregisterNotifyOfCallback(notify) == QV_RESULT_OK)
        return QV_RESULT_OK;
    return UnregisterNotifyAtDriver(notify);
}

unsigned long long CQVCaptureBase::CreateTimer(QV_TIMER_CALLBACK callback, long long delay,
                                               long long period, qv::CallerParam param) {
    const auto entity = Entity();
    unsigned long long handle = 0;
    if (!entity || entity->CreateTimer(callback, delay, period, handle, std::move(param)) != 0)
        return 0;
    return handle;
}

QV_RESULT CQVCaptureBase::DestoryTimer(unsigned long long timer) {
    const auto entity = Entity();
    return !entity ? QV_RESULT_FAILED : FromWorker(entity->DestroyTimer(timer));
}

QV_RESULT CQVCaptureBase::StartVideoCaptureWithCallback(unsigned int fourcc, int width, int height,
                                                        _QV_VIDEO_CAPTURE_MODE mode,
                                                        QV_VIDEO_CALLBACK callback,
                                                        qv::CallerParam param) {
    const auto entity = Entity();
    if (!entity) return QV_RESULT_FAILED;
    return FromWorker(entity->OpenCapture(fourcc, width, height, mode, callback, std::move(param)));
}

QV_RESULT CQVCaptureBase::StopVideoCaptureWithCallback() {
    const auto entity = Entity();
    return !entity ? QV_RESULT_FAILED : FromWorker(entity->CloseCapture());
}

bool CQVCaptureBase::VideoCaptureStalled() {
    const auto entity = Entity();
    return entity && entity->VideoCaptureStalled();
}

QV_RESULT CQVCaptureBase::StartAudioCaptureWithCallback(QV_AUDIO_CALLBACK callback,
                                                        qv::CallerParam param) {
    const auto entity = Entity();
    if (!entity) return QV_RESULT_FAILED;
    return FromWorker(entity->OpenAudioCapture(callback, std::move(param)));
}

QV_RESULT CQVCaptureBase::StopAudioCaptureWithCallback() {
    const auto entity = Entity();
    return !entity ? QV_RESULT_FAILED : FromWorker(entity->CloseAudioCapture());
}
