// Handlers of video and audio capture. In records whose contents the driver defines, this driver
// puts:
//   capture status   0 context (8 bytes), 8 frame number (4), 21 complete
//   buffer info      0 number of the newest frame (4), 4 buffers (4), 8 buffer of the last frame
//   frame info       0 frame number (4), 4 width (2), 6 height (2), 8 device time (8)
#include <cerrno>
#include <cstring>
#include <utility>

#include "Handlers.h"
#include "Picture.h"
#include "QVDriverRecords.h"

namespace qvsim {
namespace {

std::string FourccText(uint32_t fourcc) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const char c = static_cast<char>(fourcc >> shift & 0xFF);
        text += c > ' ' && c < 0x7F && c != '=' ? c : '_';
    }
    return text;
}

void NoteFrame(Call& call, const qv::VideoCaptureFrameRecord& record) {
    call.Note("fourcc", FourccText(record.fourcc));
    call.NoteNumber("width", record.width);
    call.NoteNumber("height", record.height);
    call.NoteNumber("frame", record.frameIndex);
    call.NoteNumber("bytes", record.size);
    call.NoteNumber("stride", record.stride);
    call.NoteHex("context", record.context);
}

Answer CheckFrame(Call& call, const qv::VideoCaptureFrameRecord& record) {
    if (record.physicalAddress != 0) return Refused(EOPNOTSUPP);  // there is no bus behind it
    if (record.address == 0) return Refused(EFAULT);
    if (record.width == 0 || record.height == 0 || record.size == 0 || record.stride == 0 ||
        uint64_t{record.stride} * record.height > record.size)
        return Refused(EINVAL);
    if (record.osdRectCount < 0 || record.osdRectCount > qv::kMaxOsdRects) return Refused(EINVAL);
    if (record.osdImage != 0 && call.channel->images.count(uint64_t{record.osdImage}) == 0)
        return Refused(EINVAL);
    return Ok();
}

}  // namespace

Answer StartVideoCapture(Call& call) {
    const uint64_t event = call.As<uint64_t>();
    call.NoteHex("event", event);
    if (!call.cards->Events().Exists(event)) return Refused(EINVAL);
    if (call.cards->Ways().busyCapture && call.channel->video.running) return Refused(EBUSY);
    call.cards->Media().StartVideo(call.cards.Lock(), *call.channel, &call.file, event,
                                   call.cards->Now());
    call.cards.Kick();
    return Ok();
}

Answer CaptureVideoFrame(Call& call) {
    const auto record = call.As<qv::VideoCaptureFrameRecord>();
    NoteFrame(call, record);
    if (const Answer refusal = CheckFrame(call, record); refusal.error) return refusal;
    std::shared_ptr<CallerMemory> kept = call.memory.Keep();
    if (!kept) return Refused(ENOMEM);
    FrameRequest request;
    // A torn frame: its second half is not written.
    const uint64_t end = EffectOf(call.effects, FaultKind::kHalf) ? record.size / 2 : record.size;
    request.sink = [memory = std::move(kept), address = uint64_t{record.address}, end](
                       uint64_t offset, const void* data, uint32_t size) {
        return offset >= end || memory->Write(address + offset, data, size);
    };
    request.size = record.size;
    request.stride = record.stride;
    request.context = record.context;
    return call.cards->Media().RequestFrame(*call.channel, std::move(request), record.frameIndex,
                                            call.cards->Now());
}

Answer StopVideoCapture(Call& call) {
    call.cards->Media().StopVideo(call.cards.Lock(), *call.channel);
    return Ok();
}

Answer GetVideoCaptureStatus(Call& call) {
    if (!call.channel->video.running) return Refused(EINVAL);
    const FrameCompletion completion = call.cards->Media().TakeCompletion(*call.channel);
    auto& record = call.As<_QVCAP_VIDEO_CAPTURE_STATUS>();
    std::memcpy(record.bytes0, &completion.context, sizeof completion.context);
    std::memcpy(record.bytes0 + 8, &completion.number, sizeof completion.number);
    record.frameCompleted = completion.complete ? 1 : 0;
    call.NoteNumber("complete", record.frameCompleted);
    return Ok();
}

Answer GetVideoBufferInfo(Call& call) {
    const VideoCapture& video = call.channel->video;
    if (!video.running) return Refused(EINVAL);
    auto& record = call.As<_QVCAP_VIDEO_BUFFER_INFO>();
    const uint32_t buffers = VideoCapture::kBuffers;
    std::memcpy(record.bytes0, &video.newest, sizeof video.newest);
    std::memcpy(record.bytes0 + 4, &buffers, sizeof buffers);
    // The index of the last captured frame, so that its description can be read while newer ones
    // come.
    const uint32_t last = video.lastCaptured ? video.lastCaptured : video.newest;
    record.completedFrameIndex = static_cast<uint8_t>(last % buffers);
    call.NoteNumber("index", record.completedFrameIndex);
    return Ok();
}

Answer GetVideoFrameInfo(Call& call) {
    const VideoCapture& video = call.channel->video;
    auto& record = call.As<qv::FrameInfoRecord>();
    call.NoteNumber("index", record.frameIndex);
    if (record.frameIndex >= VideoCapture::kBuffers) return Refused(EINVAL);
    // An empty buffer is described too: its frame has the number 0.
    const BufferedFrame& frame = video.buffers[record.frameIndex];
    const auto width = static_cast<uint16_t>(call.channel->state->video.width);
    const auto height = static_cast<uint16_t>(call.channel->state->video.height);
    std::memset(record.info.bytes, 0, sizeof record.info.bytes);
    std::memcpy(record.info.bytes, &frame.number, 4);
    std::memcpy(record.info.bytes + 4, &width, 2);
    std::memcpy(record.info.bytes + 6, &height, 2);
    std::memcpy(record.info.bytes + 8, &frame.deviceTime, 8);
    call.NoteNumber("number", frame.number);
    return Ok();
}

Answer StartAudioCapture(Call& call) {
    if (call.cards->Ways().busyCapture && call.channel->audio.running) return Refused(EBUSY);
    call.cards->Media().StartAudio(*call.channel, &call.file, call.cards->Now());
    call.cards.Kick();
    return Ok();
}

Answer CaptureAudioFrame(Call& call) {
    // A capture that was not started has no frame either.
    std::optional<uint32_t> number;
    if (call.channel->audio.running) number = call.cards->Media().TakeAudio(*call.channel);
    if (!number) return Refused(ENODATA);
    auto& frame = call.As<_QVCAP_AUDIO_CAPTURE_FRAME>();
    DrawTone(*number, frame);
    if (EffectOf(call.effects, FaultKind::kWrongMarker)) frame.marker = ~uint32_t{frame.marker};
    call.NoteNumber("number", *number);
    return Ok();
}

Answer StopAudioCapture(Call& call) {
    call.cards->Media().StopAudio(*call.channel);
    return Ok();
}

// The first byte says whether there is a signal, the rest is this driver's usual pattern.
Answer GetSignalStatus(Call& call) {
    const Answer answer = GetRecord(call);
    if (!call.channel->settings.Find(call.row.key)) call.record[0] = call.channel->signal ? 1 : 0;
    return answer;
}

}  // namespace qvsim
