// When frames are due, and who gets them. Writes no picture itself; FrameWriter does.
#include "MediaSource.h"

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "Fault.h"
#include "QVDriverRecords.h"

namespace qvsim {
namespace {

// After a pause at most this many frames are made up for; the numbers of the others are lost.
constexpr int64_t kMaxCatchUp = 8;

int64_t Period(double framesPerSecond) {
    const double units = static_cast<double>(kClockUnitsPerSecond) / framesPerSecond;
    return std::max<int64_t>(1, std::llround(units));
}

bool Paced(double framesPerSecond) { return framesPerSecond > 0; }

// Leaves at most kMaxCatchUp frames due; the result is how many were skipped.
uint32_t SkipMissed(int64_t& nextAt, int64_t period, int64_t now) {
    const int64_t due = now < nextAt ? 0 : (now - nextAt) / period + 1;
    const int64_t skipped = std::max<int64_t>(0, due - kMaxCatchUp);
    nextAt += skipped * period;
    return static_cast<uint32_t>(skipped);
}

// The last completion can be read again and again, until there is a new one.
void ForgetReadCompletion(VideoCapture& video) {
    if (video.completionRead) video.completions.clear();
    video.completionRead = false;
}

}  // namespace

bool MediaSource::Alive(const Channel& channel) {
    return channel.signal && !channel.state->gone && !channel.board->state->powerLost;
}

void MediaSource::StartVideo(Lock& lock, Channel& channel, const OpenFile* owner, uint64_t event,
                             int64_t now) {
    std::deque<FrameRequest> late = std::move(channel.video.late);
    StopVideo(lock, channel);
    VideoCapture& video = channel.video;
    const double rate = channel.state->video.framesPerSecond;
    video.running = true;
    video.event = event;
    video.owner = owner;
    video.nextFrameAt = now + (Paced(rate) ? Period(rate) : 0);
    Registered(channel, qv::kNotifyVideoFrame);
    if (late.empty()) return;
    video.waiting = std::move(late);
    Buffer(channel, now);
}

void MediaSource::StopVideo(Lock& lock, Channel& channel) {
    channel.video.waiting.clear();
    m_writer.Cancel(lock, channel);
    channel.video = VideoCapture();
}

// Imitates a driver that checks its queue before it checks whether a capture runs.
Answer MediaSource::QueueAfterStop(Channel& channel, FrameRequest request) {
    constexpr uint32_t kFirstFrame = 1;
    VideoCapture& video = channel.video;
    if (m_afterStop == AfterStop::kRefuse) return Refused(EINVAL);
    if (video.late.size() + m_writer.InWork(channel) >= VideoCapture::kMaxInWork)
        return Refused(EBUSY);
    if (m_afterStop == AfterStop::kWriteAtOnce)
        m_writer.Add(channel, std::move(request), kFirstFrame);
    else
        video.late.push_back(std::move(request));
    return Ok();
}

Answer MediaSource::RequestFrame(Channel& channel, FrameRequest request, int32_t selector,
                                 int64_t now) {
    VideoCapture& video = channel.video;
    if (!video.running) return QueueAfterStop(channel, std::move(request));
    uint32_t number = video.newest;
    if (selector >= 0) {
        if (selector >= static_cast<int32_t>(VideoCapture::kBuffers)) return Refused(EINVAL);
        number = video.buffers[static_cast<size_t>(selector)].number;
        if (number == 0) return Refused(EINVAL);
    } else if (selector < qv::kFrameNextLowLatency) {
        return Refused(EINVAL);
    }
    if (video.waiting.size() + m_writer.InWork(channel) >= VideoCapture::kMaxInWork)
        return Refused(EBUSY);
    ForgetReadCompletion(video);
    const bool unpaced = !Paced(channel.state->video.framesPerSecond);
    if (unpaced && selector < 0 && Alive(channel)) {
        Buffer(channel, now);
        number = video.newest;
    } else if (selector == qv::kFrameNextLowLatency || number == 0) {
        video.waiting.push_back(std::move(request));
        return Ok();
    }
    m_writer.Add(channel, std::move(request), number);
    return Ok();
}

void MediaSource::Buffer(Channel& channel, int64_t now) {
    VideoCapture& video = channel.video;
    if (++video.newest == 0) ++video.newest;  // 0 means none
    video.buffers[video.newest % VideoCapture::kBuffers] = {video.newest,
                                                            channel.board->clock.At(now)};
    while (!video.waiting.empty()) {
        m_writer.Add(channel, std::move(video.waiting.front()), video.newest);
        video.waiting.pop_front();
    }
}

void MediaSource::Complete(Channel& channel, const FrameCompletion& completion) {
    VideoCapture& video = channel.video;
    if (!video.running) return;  // written after the stop: nobody waits for it
    ForgetReadCompletion(video);
    video.completions.push_back(completion);
    if (video.completions.size() > VideoCapture::kMaxInWork) video.completions.pop_front();
    if (completion.complete) video.lastCaptured = completion.number;
    m_events.Signal(kFrameSignal, &channel, video.event);
    if (!Paced(channel.state->video.framesPerSecond))
        m_notifications.Raise(&channel, qv::kNotifyVideoFrame, m_events);
}

FrameCompletion MediaSource::TakeCompletion(Channel& channel) {
    VideoCapture& video = channel.video;
    if (video.completions.empty()) return {};
    const FrameCompletion completion = video.completions.front();
    if (video.completions.size() > 1) {
        // Two completions may have set the event only once: the other one sets it again.
        video.completions.pop_front();
        m_events.Set(video.event);
    } else {
        video.completionRead = true;
    }
    return completion;
}

void MediaSource::Interrupt(Channel& channel) {
    if (!channel.video.running) return;
    channel.video.completions.clear();
    channel.video.completionRead = false;
    m_events.Set(channel.video.event);
}

void MediaSource::StartAudio(Channel& channel, const OpenFile* owner, int64_t now) {
    const double rate = channel.state->audio.framesPerSecond;
    channel.audio = AudioCapture();
    channel.audio.running = true;
    channel.audio.owner = owner;
    channel.audio.nextFrameAt = now + (Paced(rate) ? Period(rate) : 0);
    Registered(channel, qv::kNotifyAudioFrame);
}

std::optional<uint32_t> MediaSource::TakeAudio(Channel& channel) {
    AudioCapture& audio = channel.audio;
    if (!Paced(channel.state->audio.framesPerSecond) && Alive(channel)) {
        m_notifications.Raise(&channel, qv::kNotifyAudioFrame, m_events);
        return ++audio.newest;
    }
    if (audio.ready.empty()) return std::nullopt;
    const uint32_t number = audio.ready.front();
    audio.ready.pop_front();
    return number;
}

void MediaSource::SetSignal(Channel& channel, bool present, int64_t now) {
    if (channel.signal == present) return;
    channel.signal = present;
    m_notifications.Raise(&channel, kNotifySignalChange, m_events);
    if (!present) return;
    Registered(channel, qv::kNotifyVideoFrame | qv::kNotifyAudioFrame);
    if (Paced(channel.state->video.framesPerSecond)) return;
    // Requests that came without a signal have waited for it.
    if (!channel.video.waiting.empty()) Buffer(channel, now);
}

void MediaSource::Registered(Channel& channel, uint64_t enableBits) {
    if (!Alive(channel)) return;
    uint64_t bits = 0;
    if (channel.video.running && !Paced(channel.state->video.framesPerSecond))
        bits |= qv::kNotifyVideoFrame;
    if (channel.audio.running && !Paced(channel.state->audio.framesPerSecond))
        bits |= qv::kNotifyAudioFrame;
    if (bits & enableBits) m_notifications.Raise(&channel, bits & enableBits, m_events);
}

void MediaSource::DropOwner(Lock& lock, Channel& channel, const OpenFile* owner) {
    const bool mayBeQueued = !channel.video.running && m_afterStop != AfterStop::kRefuse;
    if (channel.video.owner == owner || mayBeQueued) StopVideo(lock, channel);
    if (channel.audio.owner == owner) StopAudio(channel);
}

void MediaSource::RunVideo(Channel& channel, int64_t now) {
    VideoCapture& video = channel.video;
    const int64_t period = Period(channel.state->video.framesPerSecond);
    video.newest += SkipMissed(video.nextFrameAt, period, now);
    while (video.nextFrameAt <= now) {
        video.nextFrameAt += period;
        if (!Alive(channel)) continue;
        Buffer(channel, now);
        m_notifications.Raise(&channel, qv::kNotifyVideoFrame, m_events);
    }
}

void MediaSource::RunAudio(Channel& channel, int64_t now) {
    AudioCapture& audio = channel.audio;
    const int64_t period = Period(channel.state->audio.framesPerSecond);
    audio.newest += SkipMissed(audio.nextFrameAt, period, now);
    while (audio.nextFrameAt <= now) {
        audio.nextFrameAt += period;
        if (!Alive(channel)) continue;
        audio.ready.push_back(++audio.newest);
        if (audio.ready.size() > AudioCapture::kBuffers) audio.ready.pop_front();
        m_notifications.Raise(&channel, qv::kNotifyAudioFrame, m_events);
    }
}

std::optional<int64_t> MediaSource::Run(const std::vector<std::unique_ptr<Channel>>& channels,
                                        int64_t now) {
    std::optional<int64_t> next;
    const auto at = [&](int64_t time) { next = next ? std::min(*next, time - now) : time - now; };
    for (const auto& channel : channels) {
        for (; channel->signalStep < channel->state->signal.size(); ++channel->signalStep) {
            const SignalStep& step = channel->state->signal[channel->signalStep];
            const int64_t due = step.atMilliseconds * (kClockUnitsPerSecond / 1000);
            if (due > now) {
                at(due);
                break;
            }
            SetSignal(*channel, step.present, now);
        }
        if (channel->video.running && Paced(channel->state->video.framesPerSecond)) {
            RunVideo(*channel, now);
            at(channel->video.nextFrameAt);
        }
        if (channel->audio.running && Paced(channel->state->audio.framesPerSecond)) {
            RunAudio(*channel, now);
            at(channel->audio.nextFrameAt);
        }
    }
    return next;
}

}  // namespace qvsim
