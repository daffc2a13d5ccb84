// Events, notifications, timers and the device clock.
#include <cerrno>

#include "Handlers.h"
#include "QVDriverRecords.h"

namespace qvsim {
namespace {

constexpr int32_t kMaxEventsInOneWait = 1024;

uint64_t HandleOf(Call& call, const char* name) {
    const uint64_t handle = call.As<uint64_t>();
    call.NoteHex(name, handle);
    return handle;
}

// Sleeps, or leaves the wait to the door; see ParkedWait.
Answer WaitFor(Call& call, const std::vector<uint64_t>& events, bool takes, int timeout) {
    EventTable& table = call.cards->Events();
    const int patience = call.parked ? 0 : timeout;
    const Answer answer = takes ? table.Wait(call.cards.Lock(), events[0], patience)
                                : table.WaitSeveral(call.cards.Lock(), events, patience);
    if (call.parked && timeout != 0 && answer.error == 0 && answer.value == 0) {
        call.parked->events = events;
        call.parked->takes = takes;
        call.parked->timeout = timeout;
    }
    return answer;
}

}  // namespace

Answer CreateEvent(Call& call) {
    call.As<uint64_t>() = call.cards->Events().Create(&call.file);
    HandleOf(call, "event");
    return Ok();
}

Answer CloseEvent(Call& call) { return call.cards->Events().Close(HandleOf(call, "event")); }
Answer SetEvent(Call& call) { return call.cards->Events().Set(HandleOf(call, "event")); }
Answer ClearEvent(Call& call) { return call.cards->Events().Clear(HandleOf(call, "event")); }
Answer IsSetEvent(Call& call) { return call.cards->Events().IsSet(HandleOf(call, "event")); }
Answer TryWaitEvent(Call& call) { return call.cards->Events().TryWait(HandleOf(call, "event")); }

Answer WaitEvent(Call& call) {
    const auto [event, timeout] = call.As<qv::WaitEventRecord>();
    call.NoteHex("event", event);
    call.NoteNumber("timeout", timeout);
    return WaitFor(call, {event}, true, timeout);
}

Answer MultiWaitEvent(Call& call) {
    const auto [handles, count, timeout] = call.As<qv::MultiWaitEventRecord>();
    call.NoteNumber("count", count);
    call.NoteNumber("timeout", timeout);
    if (count < 1 || count > kMaxEventsInOneWait) return Refused(EINVAL);
    std::vector<uint64_t> events(static_cast<size_t>(count));
    const auto bytes = static_cast<uint32_t>(events.size() * sizeof events[0]);
    if (!call.memory.Read(handles, events.data(), bytes)) return Refused(EFAULT);
    return WaitFor(call, events, false, timeout);
}

Answer GetDeviceTime(Call& call) {
    call.As<int64_t>() = call.channel->board->clock.At(call.cards->Now());
    return Ok();
}

// Setting and regulating do the same: this clock has no drift to correct.
Answer SetDeviceTime(Call& call) {
    const int64_t time = call.As<int64_t>();
    call.NoteNumber("time", time);
    call.channel->board->clock.Set(call.cards->Now(), time);
    call.cards.Kick();
    return Ok();
}

Answer RegisterTimer(Call& call) {
    auto& record = call.As<qv::RegisterTimerRecord>();
    call.NoteHex("event", record.event);
    if (!call.cards->Events().Exists(record.event)) return Refused(EINVAL);
    record.timer = call.cards->DriverTimers().Register(call.channel, &call.file, record.event);
    call.NoteHex("timer", record.timer);
    return Ok();
}

Answer UnregisterTimer(Call& call) {
    const bool known = call.cards->DriverTimers().Unregister(call.channel, HandleOf(call, "timer"));
    return known ? Ok() : Refused(EINVAL);
}

Answer ScheduleTimer(Call& call) {
    const auto [timer, expiry] = call.As<qv::ScheduleTimerRecord>();
    call.NoteHex("timer", timer);
    call.NoteNumber("expiry", expiry);
    if (!call.cards->DriverTimers().Schedule(call.channel, timer, expiry)) return Refused(EINVAL);
    call.cards.Kick();
    return Ok();
}

Answer RegisterNotify(Call& call) {
    auto& record = call.As<qv::RegisterNotifyRecord>();
    call.NoteHex("bits", record.enableBits);
    call.NoteHex("event", record.event);
    if (!call.cards->Events().Exists(record.event)) return Refused(EINVAL);
    record.notify =
        call.cards->Notifies().Register(call.channel, &call.file, record.enableBits, record.event);
    call.NoteHex("notify", record.notify);
    call.cards->Media().Registered(*call.channel, record.enableBits);
    return Ok();
}

Answer UnregisterNotify(Call& call) {
    const bool known = call.cards->Notifies().Unregister(call.channel, HandleOf(call, "notify"));
    return known ? Ok() : Refused(EINVAL);
}

Answer GetNotifyStatus(Call& call) {
    auto& record = call.As<qv::NotifyStatusRecord>();
    call.NoteHex("notify", record.notify);
    uint64_t status = 0;
    if (!call.cards->Notifies().TakeStatus(call.channel, record.notify, status))
        return Refused(EINVAL);
    record.statusBits = status;
    call.NoteHex("status", status);
    return Ok();
}

}  // namespace qvsim
