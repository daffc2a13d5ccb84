// The worker of one PCIe channel: a queue of commands, a wait loop and their one thread.
//
// Not for callers of the library: the channel object owns it and forwards to it. This class drives
// the duties of the worker (registrations, video, audio, timers), each of which owns its state.
// Duties belong to the worker thread: other threads change them by posting a command and waiting
// for it. Callbacks run on the worker thread and may call every operation here: on that thread a
// command runs at once.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "AudioCapture.h"
#include "EventSource.h"
#include "Registrations.h"
#include "TimerList.h"
#include "VideoCapture.h"
#include "base/Mutex.h"
#include "base/Ref.h"

class ChannelEntity : public qv::RefCounted<ChannelEntity> {
  public:
    explicit ChannelEntity(CQVCaptureBase* owner) : m_scope(owner) {}
    virtual ~ChannelEntity();

    // 0, or -1 when there is no event node, or no event or thread can be created.
    int StartChannelThread();
    // 0 when the thread has ended and everything is released; -1 when no thread runs.
    int StopChannelThread();
    // Called from one of the worker's own callbacks. After that callback the worker ends, closes
    // the channel, deletes the owner and drops the parameter.
    void CloseOwnerAfterCallback(qv::CallerParam param);
    bool OnWorkerThread() const;

    // All return 0 on success. They post a command and wait for it; -1 when it never ran.
    int RegisterNotify(unsigned long long enableBits, QV_NOTIFY_CALLBACK callback,
                       qv::CallerParam param, unsigned long long& handle);
    int UnregisterNotifyWithCallback(unsigned long long handle);
    int CreateTimer(QV_TIMER_CALLBACK callback, long long delay, long long period,
                    unsigned long long& handle, qv::CallerParam param = nullptr);
    int DestroyTimer(unsigned long long handle);
    int OpenCapture(unsigned int fourcc, int width, int height, _QV_VIDEO_CAPTURE_MODE mode,
                    QV_VIDEO_CALLBACK callback, qv::CallerParam param);
    int CloseCapture();
    int OpenAudioCapture(QV_AUDIO_CALLBACK callback, qv::CallerParam param);
    int CloseAudioCapture();
    bool VideoCaptureStalled() const { return m_video.Stalled(); }  // any thread

    class Runnable;

  private:
    // How far a posted command has come; stored by its poster.
    enum class Progress { kQueued, kDone, kDiscarded };

    // A command's place in the queue; a member of the command, so that queueing allocates nothing.
    struct RunnableItem {
        Runnable* item = nullptr;
        unsigned long long completion = 0;          // event, 0 when the poster does not wait
        std::atomic<Progress>* progress = nullptr;  // null when the poster does not wait
        RunnableItem* next = nullptr;
    };

  public:
    // A command. It runs on the worker thread and is deleted right after.
    class Runnable {
      public:
        virtual ~Runnable() = default;
        virtual void Run() = 0;

      private:
        friend class ChannelEntity;
        RunnableItem m_place;
    };

    // Calls a member function with one argument; nothing for a null target.
    template <class Target, class Function, class Argument>
    class Functor1 final : public Runnable {
      public:
        Functor1(Target* target, Function function, Argument argument)
            : m_target(target), m_function(function), m_argument(argument) {}
        void Run() override {
            if (m_target != nullptr) (m_target->*m_function)(m_argument);
        }

      private:
        Target* m_target;
        Function m_function;
        Argument m_argument;
    };

    // The same with two arguments.
    template <class Target, class Function, class First, class Second>
    class Functor2 final : public Runnable {
      public:
        Functor2(Target* target, Function function, First first, Second second)
            : m_target(target), m_function(function), m_first(first), m_second(second) {}
        void Run() override {
            if (m_target != nullptr) (m_target->*m_function)(m_first, m_second);
        }

      private:
        Target* m_target;
        Function m_function;
        First m_first;
        Second m_second;
    };

    // Queues a command, takes ownership of it, and waits for it on request. False when it did not
    // run and never will.
    bool PostItem(Runnable* item, bool wait);

  private:
    static void* ChannelThreadproc(void* entity);
    void ChannelThreadproc();
    void BuildWaitSet();
    void Dispatch(unsigned int mask);
    void ProcessHanlde(int index);
    void EndWithOwner();
    void StopDriverCaptures();
    void ReleaseCaptures();
    void ClearTimer() { m_timers.Clear(); }
    void ClearNotify() { m_registrations.Clear(); }

    bool Enqueue(Runnable* item, unsigned long long completion, std::atomic<Progress>* progress);
    void AwaitCompletion(unsigned long long completion, const std::atomic<Progress>& progress);
    void RunOneCommand();
    void ClearRunnableItem();
    bool Wake();
    void WakeForTheLastTime();
    void Join(pthread_t thread);
    void CloseWakeEvent();

    template <class Argument>
    bool Post(void (ChannelEntity::*operation)(Argument), Argument argument);
    template <class First, class Second>
    bool Post(void (ChannelEntity::*operation)(First, Second), First first, Second second);
    template <class... Parameters, class... Arguments>
    int Ask(void (ChannelEntity::*operation)(Parameters...), Arguments... arguments);

    // The commands' bodies, on the worker thread.
    void DoRegisterNotify(_QVCAP_NOTIFY* record) { m_registrations.Append(record); }
    void DoUnregisterNotify(unsigned long long key, int* result);
    void DoCreateTimer(_QVCAP_TIMER* timer, int* result);
    void DoDestroyTimer(unsigned long long handle, int* result);
    void DoOpenCapture(_QVCAP_VIDEO_CAPTURE* request, int* result);
    void DoCloseCapture(int* result);
    void DoOpenAudioCapture(_QVCAP_AUDIO_CAPTURE* request, int* result);
    void DoCloseAudioCapture(int* result);

    qv::WorkerScope m_scope;
    qv::Registrations m_registrations{&m_scope};
    qv::VideoCapture m_video{&m_scope};
    qv::AudioCapture m_audio{&m_scope};
    qv::TimerList m_timers{&m_scope};
    qv::WaitSet m_waitSet;

    qv::Ref<qv::EventNodeFile> m_eventNode;
    std::atomic<pthread_t> m_thread{0};  // to be joined
    std::atomic<pthread_t> m_self{0};    // set and cleared by the running thread itself
    std::atomic<unsigned char> m_running{0};
    qv::CallerParam m_closeParam{nullptr};  // worker thread only
    bool m_ended = false;                   // worker thread only: no command runs any more

    qv::Mutex m_queueLock;
    RunnableItem* m_firstItem = nullptr;             // under m_queueLock
    RunnableItem** m_lastLink = &m_firstItem;        // under m_queueLock; where the next one goes
    bool m_accepting = false;                        // under m_queueLock
    std::atomic<unsigned long long> m_wakeEvent{0};  // set and closed under m_queueLock
    bool m_commandDue = false;  // worker thread only: the wake event could not be set
};
