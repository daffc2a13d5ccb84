// The worker's thread, its queue of commands and its wait loop.
#include "ChannelEntity.h"

#include <sched.h>

#include <cerrno>
#include <ctime>
#include <new>

#include "QVCaptureBase.h"
#include "QVPelixCapture.h"
#include "base/QuietThread.h"

namespace {

// How long a poster sleeps in the driver before it checks whether its command was discarded:
// drivers differ in what closing an event does to its waiters, so no poster may depend on it.
constexpr int kCompletionSliceMs = 100;
// Pauses after a driver answered at once instead of waiting, so that a dead driver does not keep a
// processor busy.
constexpr useconds_t kPosterPauseUs = 1000;
constexpr useconds_t kWorkerPauseUs = 5000;
// How often a poster whose event was set checks for the mark that follows immediately.
constexpr int kLooksForTheMark = 1000;
// A driver that refuses to set the wake event is asked again: a command that cannot be posted
// leaves a callback registered that its owner wanted to end.
constexpr int kWakeTries = 3;
constexpr int kInterruptedTries = 1000;
constexpr time_t kSecondsUntilTheWakeEventIsClosed = 2;
constexpr int kSlicesUntilTheNextWake = 20;

}  // namespace

ChannelEntity::~ChannelEntity() { StopChannelThread(); }

// Uses the mark that the thread sets itself: the identity of a joined thread may be used again.
bool ChannelEntity::OnWorkerThread() const {
    const pthread_t self = m_self.load(std::memory_order_acquire);
    return self != 0 && pthread_equal(self, pthread_self()) != 0;
}

// ---- Start and stop --------------------------------------------------------------------------

int ChannelEntity::StartChannelThread() {
    m_eventNode = CQVCaptureControlBase::EventNodeReference();
    if (!m_eventNode) return -1;
    m_scope.events = qv::EventNode(m_eventNode->Descriptor());
    const unsigned long long wake = m_scope.events.Create();
    if (wake == 0) return -1;  // a thread that can never be woken would hang
    m_wakeEvent.store(wake, std::memory_order_release);
    m_accepting = true;
    // Set before the thread exists and afterwards only cleared: so a stop is never lost.
    m_running.store(1, std::memory_order_release);
    pthread_t thread = 0;
    if (qv::CreateQuietThread(&thread, &ChannelEntity::ChannelThreadproc, this) != 0) {
        m_running.store(0, std::memory_order_release);
        m_accepting = false;
        CloseWakeEvent();
        return -1;
    }
    m_thread.store(thread, std::memory_order_release);
    return 0;
}

int ChannelEntity::StopChannelThread() {
    const pthread_t thread = m_thread.load(std::memory_order_acquire);
    if (thread == 0 || OnWorkerThread()) return -1;
    StopDriverCaptures();
    m_running.store(0, std::memory_order_release);
    WakeForTheLastTime();
    Join(thread);
    m_video.StopDriverAgain();
    m_audio.StopDriverAgain();
    m_thread.store(0, std::memory_order_release);
    ReleaseCaptures();
    CloseWakeEvent();
    return 0;
}

// A driver may have reported that it set the event although it did not. Closing the event ends a
// wait; a worker that is only in a long callback does not need the event any more. So a clock that
// jumps only changes the time of the close.
void ChannelEntity::Join(pthread_t thread) {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += kSecondsUntilTheWakeEventIsClosed;
    if (pthread_timedjoin_np(thread, nullptr, &until) == 0) return;
    CloseWakeEvent();
    pthread_join(thread, nullptr);
}

// If the driver refuses to set the event, it is closed: this ends the worker's wait, or makes the
// next one fail.
void ChannelEntity::WakeForTheLastTime() {
    {
        const qv::Guard guard(&m_queueLock);
        if (Wake()) return;
    }
    CloseWakeEvent();
}

void ChannelEntity::CloseWakeEvent() {
    const qv::Guard guard(&m_queueLock);
    m_scope.events.Close(m_wakeEvent.exchange(0));
}

void ChannelEntity::CloseOwnerAfterCallback(qv::CallerParam param) {
    m_closeParam = std::move(param);
    m_scope.ending = true;
    m_running.store(0, std::memory_order_release);
}

// How the thread ends when a callback closed the channel: nobody will join it.
void ChannelEntity::EndWithOwner() {
    if (!m_scope.channel->ClaimDeferredClose(&m_closeParam)) {
        m_self.store(0, std::memory_order_release);
        return;
    }
    StopDriverCaptures();
    ReleaseCaptures();
    CloseWakeEvent();
    m_thread.store(0, std::memory_order_release);
    m_self.store(0, std::memory_order_release);
    pthread_detach(pthread_self());
    const qv::CallerParam droppedLast = std::move(m_closeParam);
    m_scope.channel->FinishDeferredClose();  // deletes this object too
}

void ChannelEntity::StopDriverCaptures() {
    m_video.StopDriver();
    m_audio.StopDriver();
}

void ChannelEntity::ReleaseCaptures() {
    m_video.Release(m_video.DriverStopped());
    m_audio.Release();
}

// ---- The queue -------------------------------------------------------------------------------

bool ChannelEntity::PostItem(Runnable* item, bool wait) {
    if (item == nullptr) return false;
    if (m_thread.load(std::memory_order_acquire) == 0) {
        delete item;
        return false;
    }
    if (OnWorkerThread()) {
        const bool runs = !m_ended;  // a release could create what nobody would release
        if (runs) item->Run();
        delete item;
        return runs;
    }
    std::atomic<Progress> progress{Progress::kQueued};
    const unsigned long long completion = wait ? m_scope.events.Create() : 0;
    if (!Enqueue(item, completion, wait ? &progress : nullptr)) {
        m_scope.events.Close(completion);
        delete item;
        return false;
    }
    if (!wait) return true;
    AwaitCompletion(completion, progress);
    // The worker closes a discarded command's event.
    if (progress.load(std::memory_order_acquire) == Progress::kDiscarded) return false;
    m_scope.events.Close(completion);
    return true;
}

// Queues the command and wakes the worker, or does neither, under one hold of the lock: so nobody
// sets a closed wake event, whose handle may belong to another event by then.
bool ChannelEntity::Enqueue(Runnable* item, unsigned long long completion,
                            std::atomic<Progress>* progress) {
    const qv::Guard guard(&m_queueLock);
    if (!m_accepting) return false;
    item->m_place = {item, completion, progress, nullptr};
    RunnableItem** const link = m_lastLink;
    *link = &item->m_place;
    m_lastLink = &item->m_place.next;
    if (Wake()) return true;
    *link = nullptr;
    m_lastLink = link;
    return false;
}

// The caller holds the queue's lock.
bool ChannelEntity::Wake() {
    const unsigned long long wake = m_wakeEvent.load(std::memory_order_acquire);
    for (int refused = 0, interrupted = 0; refused < kWakeTries;) {
        errno = 0;
        if (m_scope.events.Set(wake) == QV_RESULT_OK) return true;
        if (errno != EINTR || ++interrupted > kInterruptedTries) ++refused;
    }
    return false;
}

// After an interrupted wait, a time-out, an unexpected signal or a driver's failure, only the
// command's own progress decides.
void ChannelEntity::AwaitCompletion(unsigned long long completion,
                                    const std::atomic<Progress>& progress) {
    const auto waiting = [&progress] {
        return progress.load(std::memory_order_acquire) == Progress::kQueued;
    };
    for (int slices = 1;; ++slices) {
        const bool signalled = m_scope.events.Wait(completion, kCompletionSliceMs) == 1;
        for (int i = 0; signalled && waiting() && i < kLooksForTheMark; ++i) sched_yield();
        if (!waiting()) {
            // A discarded command's event is closed, never set: this signal was meant for the
            // present owner of the handle.
            if (signalled && progress.load(std::memory_order_acquire) == Progress::kDiscarded)
                m_scope.events.Set(completion);
            return;
        }
        // The driver may not have set the wake event although it said so.
        if (slices % kSlicesUntilTheNextWake == 0) {
            const qv::Guard guard(&m_queueLock);
            Wake();
        }
        usleep(kPosterPauseUs);
    }
}

// The mark is the last step of a command: after it the poster and its event may be gone.
void ChannelEntity::RunOneCommand() {
    RunnableItem entry;
    {
        const qv::Guard guard(&m_queueLock);
        if (m_firstItem == nullptr) return;
        entry = *m_firstItem;
        m_firstItem = entry.next;
        if (m_firstItem == nullptr) m_lastLink = &m_firstItem;
        // One command per wake-up, so that the other events get their turn in between.
        if (m_firstItem != nullptr) m_commandDue = !Wake();
    }
    entry.item->Run();
    delete entry.item;
    if (entry.progress == nullptr) return;
    m_scope.events.Set(entry.completion);
    entry.progress->store(Progress::kDone, std::memory_order_release);
}

// Marked first: no poster may wait again on an event that is already closed.
void ChannelEntity::ClearRunnableItem() {
    const qv::Guard guard(&m_queueLock);
    m_accepting = false;
    while (m_firstItem != nullptr) {
        const RunnableItem entry = *m_firstItem;
        m_firstItem = entry.next;
        delete entry.item;
        if (entry.progress != nullptr)
            entry.progress->store(Progress::kDiscarded, std::memory_order_release);
        m_scope.events.Close(entry.completion);  // closed, not set: the command never ran
    }
    m_lastLink = &m_firstItem;
}

// ---- The wait loop ---------------------------------------------------------------------------

void* ChannelEntity::ChannelThreadproc(void* entity) {
    auto* self = static_cast<ChannelEntity*>(entity);
    self->m_self.store(pthread_self(), std::memory_order_release);
    self->ChannelThreadproc();
    if (self->m_scope.ending)
        self->EndWithOwner();
    else
        self->m_self.store(0, std::memory_order_release);
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
        const unsigned int mask =
            m_scope.events.MultiWait(m_waitSet.events, m_waitSet.count, m_waitSet.timeout);
        if (mask == 0 && errno != EINTR) usleep(kWorkerPauseUs);
        Dispatch(mask);
    }
    m_ended = true;
    ClearTimer();
    ClearNotify();
    ClearRunnableItem();
}

// Rebuilt in each pass, notifications first: a command's changes take effect in the next pass.
void ChannelEntity::BuildWaitSet() {
    m_waitSet.count = 0;
    m_waitSet.timeout = qv::WaitSet::kForEver;
    m_registrations.AddEvents(&m_waitSet);
    m_waitSet.Add(nullptr, m_wakeEvent.load(std::memory_order_acquire), 0);
    m_video.AddEvents(&m_waitSet);
    m_audio.AddEvents(&m_waitSet);
    m_timers.AddEvents(&m_waitSet);
}

void ChannelEntity::Dispatch(unsigned int mask) {
    for (int i = 0; i < m_waitSet.count && !m_scope.ending; ++i)
        if ((mask & 1u << i) != 0) ProcessHanlde(i);
}

void ChannelEntity::ProcessHanlde(int index) {
    const qv::WaitSet::Entry& entry = m_waitSet.entries[index];
    if (entry.source == nullptr)
        RunOneCommand();
    else
        entry.source->OnSignal(entry.serial);
}
