// The worker's thread, its queue of commands and its wait loop.
#include "ChannelEntity.h"

#include <cerrno>
#include <cstdlib>
#include <new>

#include "QVCaptureBase.h"
#include "QVPelixCapture.h"

namespace {

constexpr int kForEver = -1;
// How long a poster sleeps in the driver before it looks whether its command was discarded: what
// closing an event does to its waiters is the driver's affair, so no poster may depend on it.
constexpr int kCompletionSliceMs = 100;
// Pauses where a driver answers at once instead of waiting; they keep a dead driver from costing a
// processor.
constexpr useconds_t kPosterPauseUs = 1000;
constexpr useconds_t kWorkerPauseUs = 5000;
constexpr int kWakeTries = 3;

class QueueGuard {
  public:
    explicit QueueGuard(pthread_mutex_t* lock) : m_lock(lock) { pthread_mutex_lock(m_lock); }
    ~QueueGuard() { pthread_mutex_unlock(m_lock); }
    QueueGuard(const QueueGuard&) = delete;
    QueueGuard& operator=(const QueueGuard&) = delete;

  private:
    pthread_mutex_t* m_lock;
};

}  // namespace

ChannelEntity::~ChannelEntity() {
    StopChannelThread();
    pthread_mutex_destroy(&m_queueLock);
}

bool ChannelEntity::OnWorkerThread() const {
    const pthread_t thread = m_thread.load(std::memory_order_acquire);
    return thread != 0 && pthread_equal(thread, pthread_self()) != 0;
}

// ---- Start and stop --------------------------------------------------------------------------

int ChannelEntity::StartChannelThread() {
    m_eventNode = CQVCaptureControlBase::EventNodeReference();
    if (m_eventNode == nullptr) return -1;
    m_events = qv::EventNode(m_eventNode->Descriptor());
    const unsigned long long wake = m_events.Create();
    if (wake == 0) return -1;  // a thread that can never be woken would hang
    m_wakeEvent.store(wake, std::memory_order_release);
    m_accepting = true;
    // Set before the thread exists and only cleared afterwards: a stop is never lost.
    m_running.store(1, std::memory_order_release);
    pthread_t thread = 0;
    if (pthread_create(&thread, nullptr, &ChannelEntity::ChannelThreadproc, this) != 0) {
        m_running.store(0, std::memory_order_release);
        m_accepting = false;
        m_events.Close(m_wakeEvent.exchange(0));
        return -1;
    }
    m_thread.store(thread, std::memory_order_release);
    return 0;
}

int ChannelEntity::StopChannelThread() {
    const pthread_t thread = m_thread.load(std::memory_order_acquire);
    if (thread == 0 || OnWorkerThread()) return -1;
    const unsigned int starts = m_captureStarts.load();
    StopDriverCaptures();
    m_running.store(0, std::memory_order_release);
    WakeForTheLastTime();
    pthread_join(thread, nullptr);
    // The worker went on until here: a capture that it opened meanwhile still runs.
    if (m_captureStarts.load() != starts) StopDriverCaptures();
    m_thread.store(0, std::memory_order_release);
    ReleaseCaptures();
    m_events.Close(m_wakeEvent.exchange(0));
    return 0;
}

// A driver that will not set the event loses it: closing it ends the worker's wait, or makes the
// next one fail.
void ChannelEntity::WakeForTheLastTime() {
    for (int i = 0; i < kWakeTries; ++i)
        if (m_events.Set(m_wakeEvent.load(std::memory_order_acquire)) == QV_RESULT_OK) return;
    m_events.Close(m_wakeEvent.exchange(0));
}

void ChannelEntity::CloseOwnerAfterCallback() {
    m_closeOwner = true;
    m_running.store(0, std::memory_order_release);
}

// The thread's own end of life when a callback closed the channel: nobody will join it.
void ChannelEntity::EndWithOwner() {
    StopDriverCaptures();
    ReleaseCaptures();
    m_events.Close(m_wakeEvent.exchange(0));
    m_thread.store(0, std::memory_order_release);
    pthread_detach(pthread_self());
    m_owner->FinishDeferredClose();  // deletes this object too
}

void ChannelEntity::StopDriverCaptures() {
    m_videoStopped = m_owner->StopVideoCapture() == QV_RESULT_OK;
    m_owner->StopAudioCapture();
}

void ChannelEntity::ReleaseCaptures() {
    ReleaseVideo(m_videoStopped);
    ReleaseAudio();
}

// ---- The queue -------------------------------------------------------------------------------

bool ChannelEntity::PostItem(Runnable* item, bool wait) {
    if (item == nullptr) return false;
    if (m_thread.load(std::memory_order_acquire) == 0) {
        delete item;
        return false;
    }
    if (OnWorkerThread()) {
        item->Run();
        delete item;
        return true;
    }
    std::atomic<Progress> progress{Progress::kQueued};
    const unsigned long long completion = wait ? m_events.Create() : 0;
    const uint64_t ticket = Enqueue({item, completion, wait ? &progress : nullptr});
    if (ticket == 0) {
        m_events.Close(completion);
        delete item;
        return false;
    }
    if (m_events.Set(m_wakeEvent.load(std::memory_order_acquire)) != QV_RESULT_OK &&
        TakeBack(ticket)) {
        m_events.Close(completion);
        delete item;
        return false;
    }
    if (!wait) return true;
    AwaitCompletion(completion, progress);
    // The worker has closed a discarded command's event; its handle may name another by now.
    if (progress.load(std::memory_order_acquire) == Progress::kDiscarded) return false;
    m_events.Close(completion);
    return true;
}

// The command's ticket, 0 when it was refused.
uint64_t ChannelEntity::Enqueue(RunnableItem entry) {
    const QueueGuard guard(&m_queueLock);
    if (!m_accepting) return 0;
    entry.ticket = ++m_lastTicket;
    m_queue.push_back(entry);
    return entry.ticket;
}

// The worker could not be woken for this command: it is still the poster's, unless it was taken.
bool ChannelEntity::TakeBack(uint64_t ticket) {
    const QueueGuard guard(&m_queueLock);
    for (auto entry = m_queue.begin(); entry != m_queue.end(); ++entry) {
        if (entry->ticket != ticket) continue;
        m_queue.erase(entry);
        return true;
    }
    return false;
}

// Interrupted waits, time-outs and failing drivers all lead back to the command's own progress.
void ChannelEntity::AwaitCompletion(unsigned long long completion,
                                    const std::atomic<Progress>& progress) {
    while (m_events.Wait(completion, kCompletionSliceMs) != 1) {
        if (progress.load(std::memory_order_acquire) != Progress::kQueued) return;
        usleep(kPosterPauseUs);
    }
    // The event was set after the command had run; a set by anybody else does not count.
    while (progress.load(std::memory_order_acquire) == Progress::kQueued) usleep(kPosterPauseUs);
}

void ChannelEntity::RunOneCommand() {
    RunnableItem entry;
    {
        const QueueGuard guard(&m_queueLock);
        if (m_queue.empty()) return;
        entry = m_queue.front();
        m_queue.pop_front();
        // One command a wake-up: the other events get their turn in between.
        if (!m_queue.empty())
            m_commandDue =
                m_events.Set(m_wakeEvent.load(std::memory_order_acquire)) != QV_RESULT_OK;
    }
    entry.item->Run();
    delete entry.item;
    if (entry.progress == nullptr) return;
    entry.progress->store(Progress::kDone, std::memory_order_release);
    m_events.Set(entry.completion);  // last: the poster's memory may be gone after it
}

void ChannelEntity::ClearRunnableItem() {
    const QueueGuard guard(&m_queueLock);
    m_accepting = false;
    for (const RunnableItem& entry : m_queue) {
        delete entry.item;
        m_events.Close(entry.completion);  // closed, not set: the command never ran
        if (entry.progress != nullptr)
            entry.progress->store(Progress::kDiscarded, std::memory_order_release);
    }
    m_queue.clear();
}

// ---- The wait loop ---------------------------------------------------------------------------

void ChannelEntity::WaitSet::Add(Source source, unsigned long long event, unsigned long long key) {
    if (event == 0 || count == kWaitSetSize) return;
    sources[count] = source;
    events[count] = event;
    keys[count] = key;
    ++count;
}

// Afresh on each pass, notifications first: what a command changed counts from the next pass on.
void ChannelEntity::BuildWaitSet() {
    m_waitSet.count = 0;
    for (const _QVCAP_NOTIFY* notify : m_notifies)
        m_waitSet.Add(Source::kNotification, notify->event, notify->key);
    m_waitSet.Add(Source::kWake, m_wakeEvent.load(std::memory_order_acquire));
    m_waitSet.Add(Source::kVideoDone, m_video.doneEvent);
    m_waitSet.Add(Source::kVideoNotify, m_video.notifyEvent);
    m_waitSet.Add(Source::kAudioNotify, m_audioEvent);
    m_waitSet.Add(Source::kTimer, m_timerEvent);
}

void* ChannelEntity::ChannelThreadproc(void* entity) {
    auto* self = static_cast<ChannelEntity*>(entity);
    self->ChannelThreadproc();
    if (self->m_closeOwner) self->EndWithOwner();
    return nullptr;
}

void ChannelEntity::ChannelThreadproc() {
    while (m_running.load(std::memory_order_acquire) != 0) {
        BuildWaitSet();
        if (m_commandDue) {
            m_commandDue = false;
            RunOneCommand();
            continue;
        }
        errno = 0;
        const unsigned int mask = m_events.MultiWait(m_waitSet.events, m_waitSet.count, kForEver);
        if (mask == 0 && errno != EINTR) usleep(kWorkerPauseUs);
        Dispatch(mask);
    }
    ClearTimer();
    ClearNotify();
    ClearRunnableItem();
}

void ChannelEntity::Dispatch(unsigned int mask) {
    for (int i = 0; i < m_waitSet.count && !m_closeOwner; ++i)
        if ((mask & 1u << i) != 0) ProcessHanlde(i);
}

// A source whose event is no longer the one that was waited on was closed, and maybe opened again,
// by a callback of this very pass: its signal is stale.
void ChannelEntity::ProcessHanlde(int index) {
    const unsigned long long event = m_waitSet.events[index];
    switch (m_waitSet.sources[index]) {
        case Source::kNone:
            return;
        case Source::kNotification:
            return OnNotification(m_waitSet.keys[index]);
        case Source::kVideoDone:
            if (event == m_video.doneEvent) OnVideoDone();
            return;
        case Source::kVideoNotify:
            if (event == m_video.notifyEvent) OnVideoNotify();
            return;
        case Source::kAudioNotify:
            if (event == m_audioEvent) OnAudioNotify();
            return;
        case Source::kTimer:
            if (event == m_timerEvent) OnTimer();
            return;
        case Source::kWake:
            return RunOneCommand();
    }
}
