// The inputs of the channels: video and audio frames at the rate of the scenario, and the loss and
// return of the signal.
//
// A rate of 0 means that a frame is ready for every request: nothing sleeps, and every request gets
// the next number. Called with the model's lock held.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Card.h"
#include "EventTable.h"
#include "FrameWriter.h"
#include "Notifications.h"

namespace qvsim {

// The driver's notification bit for a signal that came or went; its own choice, like all bits
// except the two that QVDriverRecords.h names.
inline constexpr uint32_t kNotifySignalChange = 0x1;

class MediaSource {
  public:
    using Lock = EventTable::Lock;

    MediaSource(std::mutex& mutex, EventTable& events, Notifications& notifications)
        : m_events(events),
          m_notifications(notifications),
          m_writer(mutex, [this](Channel& channel, const FrameCompletion& completion) {
              Complete(channel, completion);
          }) {}

    void SetAfterStop(AfterStop afterStop) { m_afterStop = afterStop; }
    // Number of requests that may still write into their callers' memory.
    size_t InWork(const Channel& channel) const {
        return channel.video.waiting.size() + channel.video.late.size() + m_writer.InWork(channel);
    }
    // A second start replaces the first.
    void StartVideo(Lock& lock, Channel& channel, const OpenFile* owner, uint64_t event,
                    int64_t now);
    // `selector` as in the request's record: a frame's buffer, the newest one, or the next one.
    Answer RequestFrame(Channel& channel, FrameRequest request, int32_t selector, int64_t now);
    // Nothing is written to any caller's memory after this, until the next request.
    void StopVideo(Lock& lock, Channel& channel);
    // Oldest completion that was not read yet; one without `complete` when there is none.
    FrameCompletion TakeCompletion(Channel& channel);
    // Reports the current request as interrupted: the event is set, the frame is not complete.
    void Interrupt(Channel& channel);

    void StartAudio(Channel& channel, const OpenFile* owner, int64_t now);
    std::optional<uint32_t> TakeAudio(Channel& channel);  // a frame's number
    void StopAudio(Channel& channel) { channel.audio = AudioCapture(); }

    void SetSignal(Channel& channel, bool present, int64_t now);
    // A frame notification was registered: on an unpaced channel a frame is ready at once.
    void Registered(Channel& channel, uint64_t enableBits);
    void DropOwner(Lock& lock, Channel& channel, const OpenFile* owner);

    // Executes everything that is due. Returns the clock units until something else is due, if
    // anything.
    std::optional<int64_t> Run(const std::vector<std::unique_ptr<Channel>>& channels, int64_t now);
    void BeginInChild() { m_writer.BeginInChild(); }
    // Without the lock.
    void Stop() { m_writer.Stop(); }

  private:
    static bool Alive(const Channel& channel);
    Answer QueueAfterStop(Channel& channel, FrameRequest request);
    void Buffer(Channel& channel, int64_t now);
    void RunVideo(Channel& channel, int64_t now);
    void RunAudio(Channel& channel, int64_t now);
    void Complete(Channel& channel, const FrameCompletion& completion);

    EventTable& m_events;
    Notifications& m_notifications;
    FrameWriter m_writer;
    AfterStop m_afterStop = AfterStop::kRefuse;
};

}  // namespace qvsim
