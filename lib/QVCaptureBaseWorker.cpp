// The channel object's side of its worker: start, stop, look-up, and forwarding to it.
#include <cstdlib>
#include <utility>

#include "ChannelEntity.h"
#include "QVCaptureBase.h"

namespace {

QV_RESULT FromWorker(int result) { return result == 0 ? QV_RESULT_OK : QV_RESULT_FAILED; }

}  // namespace

// A reference, so that the worker's object outlives every thread that is inside it.
std::shared_ptr<ChannelEntity> CQVCaptureBase::Entity() {
    const std::lock_guard guard(m_workerLock);
    const auto found = m_mapChannelEntity.find(this);
    return found == m_mapChannelEntity.end() ? nullptr : found->second;
}

QV_RESULT CQVCaptureBase::StartChannelThread() {
    const std::lock_guard guard(m_workerLock);
    if (m_mapChannelEntity.count(this) != 0) return QV_RESULT_FAILED;
    auto entity = std::make_shared<ChannelEntity>(this);
    if (entity->StartChannelThread() != 0) return QV_RESULT_FAILED;
    m_mapChannelEntity.emplace(this, std::move(entity));
    return QV_RESULT_OK;
}

QV_RESULT CQVCaptureBase::StopChannelThread() {
    std::shared_ptr<ChannelEntity> entity;
    {
        // Look-up and claim in one: what is taken off the map below is what was looked up here.
        const std::lock_guard guard(m_workerLock);
        const auto found = m_mapChannelEntity.find(this);
        if (found == m_mapChannelEntity.end() || found->second->OnWorkerThread() || m_stopping)
            return QV_RESULT_FAILED;
        entity = found->second;
        m_stopping = true;
    }
    // Without the lock: callbacks that are under way may still ask for the worker.
    entity->StopChannelThread();
    const std::lock_guard guard(m_workerLock);
    m_mapChannelEntity.erase(this);
    m_stopping = false;
    return QV_RESULT_OK;
}

bool CQVCaptureBase::DeferCloseToWorker() {
    const std::shared_ptr<ChannelEntity> entity = Entity();
    if (entity == nullptr || !entity->OnWorkerThread()) return false;
    entity->CloseOwnerAfterCallback();
    return true;
}

void CQVCaptureBase::FinishDeferredClose() {
    std::shared_ptr<ChannelEntity> entity;  // ends after this object
    {
        const std::lock_guard guard(m_workerLock);
        entity = std::move(m_mapChannelEntity[this]);
        m_mapChannelEntity.clear();
    }
    CloseChannel();
    delete this;
}

void CQVCaptureBase::KeepUntilClosed(void* memory) {
    const std::lock_guard guard(m_workerLock);
    m_framesUntilClosed.push_back(memory);
}

void CQVCaptureBase::ReleaseKeptFrames() {
    const std::lock_guard guard(m_workerLock);
    for (void* memory : m_framesUntilClosed) free(memory);
    m_framesUntilClosed.clear();
}

// ---- Forwarding ------------------------------------------------------------------------------

unsigned long long CQVCaptureBase::RegisterNotifyWithCallback(unsigned int enableBits,
                                                              QV_NOTIFY_CALLBACK callback,
                                                              void* param) {
    const auto entity = Entity();
    unsigned long long handle = 0;
    if (entity == nullptr || entity->RegisterNotify(enableBits, callback, param, handle) != 0)
        return 0;
    return handle;
}

QV_RESULT CQVCaptureBase::QVUnregisterNotifyOfCallback(unsigned long long handle) {
    const auto entity = Entity();
    if (entity == nullptr) return QV_RESULT_FAILED;
    return FromWorker(entity->UnregisterNotifyWithCallback(handle));
}

// A caller's handle may be a registration's key or one of the driver's.
QV_RESULT CQVCaptureBase::UnregisterNotify(unsigned long long notify) {
    if (m_hChannelFD == qv::kClosed || notify == 0) return QV_RESULT_BAD_ARGUMENT;
    if (QVUnregisterNotifyOfCallback(notify) == QV_RESULT_OK) return QV_RESULT_OK;
    return UnregisterNotifyAtDriver(notify);
}

unsigned long long CQVCaptureBase::CreateTimer(QV_TIMER_CALLBACK callback, long long delay,
                                               long long period) {
    const auto entity = Entity();
    unsigned long long handle = 0;
    if (entity == nullptr || entity->CreateTimer(callback, delay, period, handle) != 0) return 0;
    return handle;
}

QV_RESULT CQVCaptureBase::DestoryTimer(unsigned long long timer) {
    const auto entity = Entity();
    return entity == nullptr ? QV_RESULT_FAILED : FromWorker(entity->DestroyTimer(timer));
}

QV_RESULT CQVCaptureBase::StartVideoCaptureWithCallback(unsigned int fourcc, int width, int height,
                                                        _QV_VIDEO_CAPTURE_MODE mode,
                                                        QV_VIDEO_CALLBACK callback, void* param) {
    const auto entity = Entity();
    if (entity == nullptr) return QV_RESULT_FAILED;
    return FromWorker(entity->OpenCapture(fourcc, width, height, mode, callback, param));
}

QV_RESULT CQVCaptureBase::StopVideoCaptureWithCallback() {
    const auto entity = Entity();
    return entity == nullptr ? QV_RESULT_FAILED : FromWorker(entity->CloseCapture());
}

QV_RESULT CQVCaptureBase::StartAudioCaptureWithCallback(QV_AUDIO_CALLBACK callback, void* param) {
    const auto entity = Entity();
    if (entity == nullptr) return QV_RESULT_FAILED;
    return FromWorker(entity->OpenAudioCapture(callback, param));
}

QV_RESULT CQVCaptureBase::StopAudioCaptureWithCallback() {
    const auto entity = Entity();
    return entity == nullptr ? QV_RESULT_FAILED : FromWorker(entity->CloseAudioCapture());
}
