// The watcher of USB devices that come and go: a thread that asks the transport again and again
// until the watch ends; see QVUSBCaptureBase.h.
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "QVUSBCaptureBase.h"
#include "base/QuietThread.h"

namespace {

constexpr int kWaitMs = 100;            // the longest time that the end of the watch waits
constexpr unsigned kPauseUs = 100'000;  // after a wait that failed at once

// Whether the calling thread is the current watcher: when its own callback ended the watch and
// started a new one, another thread is.
bool Watches(_QVUSB_HOTPLUG_ENTITY* entity) {
    pthread_mutex_lock(&entity->mutex);
    const bool watches = entity->running != 0 && pthread_equal(entity->thread, pthread_self()) != 0;
    pthread_mutex_unlock(&entity->mutex);
    return watches;
}

void* Watch(void* param) {
    auto* entity = static_cast<_QVUSB_HOTPLUG_ENTITY*>(param);
    prctl(PR_SET_NAME, "QVHotPlug");
    pthread_mutex_lock(&entity->mutex);
    const QVUSB_HOT_PLUG_CALLBACK callback = entity->callback;
    void* const callbackParam = entity->param;
    pthread_mutex_unlock(&entity->mutex);
    while (Watches(entity)) {
        char path[sizeof _QVUSBCAP_CHANNEL_ENTRY::path] = {};
        _QVUSBHOT_PLUG_EVETN event = 0;
        const int happened = QVUSBWaitHotPlug(kWaitMs, &event, path);
        path[sizeof path - 1] = '\0';
        if (happened < 0) usleep(kPauseUs);
        if (happened > 0 && Watches(entity)) callback(event, path, callbackParam);
    }
    return nullptr;
}

}  // namespace

QV_RESULT CQVUSBCaptureControlBase::RegisterHotPlug(QVUSB_HOT_PLUG_CALLBACK callback, void* param) {
    if (callback == nullptr) return QV_RESULT_BAD_ARGUMENT;
    if (!QVUSBCanWatch()) return QV_RESULT_FAILED;
    pthread_mutex_lock(&m_hotplugEntity.mutex);
    bool watches = false;
    if (m_hotplugEntity.running == 0) {
        m_hotplugEntity.callback = callback;
        m_hotplugEntity.param = param;
        watches = qv::CreateQuietThread(&m_hotplugEntity.thread, Watch, &m_hotplugEntity) == 0;
        m_hotplugEntity.running = watches ? 1 : 0;
    }
    pthread_mutex_unlock(&m_hotplugEntity.mutex);
    return watches ? QV_RESULT_OK : QV_RESULT_FAILED;
}

QV_RESULT CQVUSBCaptureControlBase::UnRegisterHotPlug() {
    pthread_mutex_lock(&m_hotplugEntity.mutex);
    const bool running = m_hotplugEntity.running != 0;
    const pthread_t thread = m_hotplugEntity.thread;
    m_hotplugEntity.running = 0;
    m_hotplugEntity.thread = {};
    pthread_mutex_unlock(&m_hotplugEntity.mutex);
    if (!running) return QV_RESULT_OK;
    // A callback cannot wait for its own end. Other callers wait without the mutex, because the
    // watcher takes it to read the flag.
    if (pthread_equal(thread, pthread_self()) != 0)
        pthread_detach(thread);
    else
        pthread_join(thread, nullptr);
    return QV_RESULT_OK;
}
