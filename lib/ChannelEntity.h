// The worker of one PCIe channel: one thread that runs notification and timer callbacks and
// callback capture, fed by a queue of commands.
//
// Not for callers of the library: the channel object owns it and forwards to it. Everything but the
// queue, the state flags and the registration count belongs to the worker thread; other threads
// change it by posting a command and waiting for it. The queue lock is never held while a command
// runs or while anything waits. Callbacks run on the worker thread and may call every operation
// here: on that thread a command runs at once.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <vector>

#include "FrameLayout.h"
#include "QVCapture.h"
#include "QVEventNode.h"

class CQVCaptureBase;

// One callback registration, owned by the worker's notification list.
struct _QVCAP_NOTIFY {
    unsigned long long key;  // what the caller names it by
    unsigned long long event;
    unsigned long long enableBits;
    QV_NOTIFY_CALLBACK callback;
    void* param;
    unsigned long long driverHandle;
};

// One timer, owned by the worker's timer list; its handle is its address.
struct _QVCAP_TIMER {
    QV_TIMER_CALLBACK callback;
    long long delay;   // device-clock units
    long long period;  // device-clock units; 0 or less fires once
    long long expiry;  // device time
    void* param;       // always null
    uint64_t serial;   // tells a timer from a later one at the same address
};

struct _QVCAP_VIDEO_CAPTURE {
    unsigned int fourcc;
    int width;   // pixels
    int height;  // lines
    _QV_VIDEO_CAPTURE_MODE mode;
    QV_VIDEO_CALLBACK callback;
    void* param;
    unsigned int frameSize;  // bytes
    unsigned int stride;     // bytes per line
};

struct _QVCAP_AUDIO_CAPTURE {
    QV_AUDIO_CALLBACK callback;
    void* param;
};

class ChannelEntity {
  public:
    explicit ChannelEntity(CQVCaptureBase* owner) : m_owner(owner) {}
    virtual ~ChannelEntity();
    ChannelEntity(const ChannelEntity&) = delete;
    ChannelEntity& operator=(const ChannelEntity&) = delete;

    // 0, or -1 when there is no event node, event or thread to be had.
    int StartChannelThread();
    // 0 when the thread has ended and everything is released; -1 when none runs.
    int StopChannelThread();
    // Asks the worker, from one of its own callbacks, to end after that callback, to close the
    // channel and to delete the owner.
    void CloseOwnerAfterCallback();
    bool OnWorkerThread() const;

    // All return 0 on success. They post a command and wait for it; -1 when it never ran.
    int RegisterNotify(unsigned long long enableBits, QV_NOTIFY_CALLBACK callback, void* param,
                       unsigned long long& handle);
    int UnregisterNotifyWithCallback(unsigned long long handle);
    int CreateTimer(QV_TIMER_CALLBACK callback, long long delay, long long period,
                    unsigned long long& handle);
    int DestroyTimer(unsigned long long handle);
    int OpenCapture(unsigned int fourcc, int width, int height, _QV_VIDEO_CAPTURE_MODE mode,
                    QV_VIDEO_CALLBACK callback, void* param);
    int CloseCapture();
    int OpenAudioCapture(QV_AUDIO_CALLBACK callback, void* param);
    int CloseAudioCapture();

    // A command. It runs on the worker thread and is deleted right after.
    class Runnable {
      public:
        virtual ~Runnable() = default;
        virtual void Run() = 0;
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

    // Queues a command, owned from here on, and waits for it when asked to. False when it did not
    // and will not run.
    bool PostItem(Runnable* item, bool wait);

  private:
    // How far a posted command has come; lives with its poster.
    enum class Progress { kQueued, kDone, kDiscarded };

    struct RunnableItem {
        Runnable* item;
        unsigned long long completion;    // event, 0 when the poster does not wait
        std::atomic<Progress>* progress;  // null when the poster does not wait
        uint64_t ticket = 0;              // from Enqueue; an address may come back, a ticket not
    };

    enum class Source : int {
        kNone = 0,
        kNotification = 1,
        kVideoDone = 2,
        kVideoNotify = 3,
        kAudioNotify = 4,
        kTimer = 5,
        kWake = 6,
    };

    // The wait set of one pass, as it was when the pass began.
    static constexpr int kWaitSetSize = 32;
    static constexpr int kFixedSources = 5;
    struct WaitSet {
        Source sources[kWaitSetSize];
        unsigned long long events[kWaitSetSize];
        unsigned long long keys[kWaitSetSize];  // of notifications
        int count = 0;
        void Add(Source source, unsigned long long event, unsigned long long key = 0);
    };

    // The state of one open video capture.
    struct VideoState {
        unsigned long long doneEvent = 0;
        unsigned long long notifyEvent = 0;
        unsigned long long notifyHandle = 0;
        void* buffers[2] = {};
        int index = 0;  // buffer in turn; -1 while a notification-mode capture is in flight
        _QVCAP_VIDEO_CAPTURE* request = nullptr;
    };

    static void* ChannelThreadproc(void* entity);
    void ChannelThreadproc();
    void BuildWaitSet();
    void Dispatch(unsigned int mask);
    void ProcessHanlde(int index);
    void RunOneCommand();
    void ClearRunnableItem();
    void WakeForTheLastTime();
    void EndWithOwner();
    void StopDriverCaptures();
    void ReleaseCaptures();
    uint64_t Enqueue(RunnableItem entry);
    void AwaitCompletion(unsigned long long completion, const std::atomic<Progress>& progress);
    bool TakeBack(uint64_t ticket);

    template <class Argument>
    bool Post(void (ChannelEntity::*operation)(Argument), Argument argument);
    template <class First, class Second>
    bool Post(void (ChannelEntity::*operation)(First, Second), First first, Second second);

    void DoRegisterNotify(_QVCAP_NOTIFY* record);
    void DoUnregisterNotify(unsigned long long key, int* result);
    void OnNotification(unsigned long long key);
    void ClearNotify();
    QV_RESULT ReleaseNotify(_QVCAP_NOTIFY* record);
    std::vector<_QVCAP_NOTIFY*>::iterator FindNotify(unsigned long long key);

    void DoCreateTimer(_QVCAP_TIMER* timer, int* result);
    void DoDestroyTimer(unsigned long long handle, int* result);
    int ResetTimerEvent();
    void OnTimer();
    bool ScheduleFirstTimer();
    void Fire(_QVCAP_TIMER* timer, long long now);
    void ClearTimer();

    void DoOpenCapture(_QVCAP_VIDEO_CAPTURE* request, int* result);
    void DoCloseCapture(int* result);
    void OnVideoDone();
    void OnVideoNotify();
    void CaptureInto(int buffer, int frameSelector);
    void ReleaseVideo(bool driverStopped);
    void ReleaseVideo(VideoState* video, bool driverStopped);
    void ReleaseFrameMemory(void* memory, bool driverStopped);

    void DoOpenAudioCapture(_QVCAP_AUDIO_CAPTURE* request, int* result);
    void DoCloseAudioCapture(int* result);
    void OnAudioNotify();
    void ReleaseAudio();

    CQVCaptureBase* const m_owner;
    WaitSet m_waitSet;
    std::atomic<pthread_t> m_thread{0};
    std::atomic<unsigned char> m_running{0};
    bool m_closeOwner = false;  // worker thread only

    std::shared_ptr<qv::EventNodeFile> m_eventNode;
    qv::EventNode m_events{qv::kClosed};
    std::atomic<unsigned long long> m_wakeEvent{0};

    pthread_mutex_t m_queueLock = PTHREAD_MUTEX_INITIALIZER;
    std::deque<RunnableItem> m_queue;  // under m_queueLock
    uint64_t m_lastTicket = 0;         // under m_queueLock
    bool m_accepting = false;          // under m_queueLock
    bool m_commandDue = false;         // worker thread only: the wake event could not be set

    unsigned long long m_timerEvent = 0;
    unsigned long long m_driverTimer = 0;
    std::list<_QVCAP_TIMER*> m_timers;
    uint64_t m_timerSerial = 0;
    struct TimerInWalk {
        _QVCAP_TIMER* timer;
        uint64_t serial;
    };
    std::vector<TimerInWalk> m_timersInWalk;  // kept between walks for its memory

    std::atomic<int> m_notifyCount{0};  // registrations made or being made
    std::vector<_QVCAP_NOTIFY*> m_notifies;

    // Captures that the driver has started, video and audio: shows one that came after a stop.
    std::atomic<unsigned int> m_captureStarts{0};

    VideoState m_video;
    std::vector<VideoState> m_replacedVideo;  // by a second open; released with the capture
    bool m_videoStopped = false;              // the driver took the last stop request
    bool m_inVideoCallback = false;
    std::vector<void*> m_framesInCallback;  // released when the callback has returned

    unsigned long long m_audioEvent = 0;
    unsigned long long m_audioNotify = 0;
    _QVCAP_AUDIO_CAPTURE* m_audioRequest = nullptr;
};

namespace qv {

// A pointer as a handle: widened to 64 bits with sign extension.
inline unsigned long long HandleOf(const void* pointer) {
    return static_cast<unsigned long long>(
        static_cast<long long>(reinterpret_cast<intptr_t>(pointer)));
}

}  // namespace qv
