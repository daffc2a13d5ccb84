// The road of a request: found in the table, hit by faults, executed by its handler, logged. What a
// request does is in the files *Handlers.cpp.
#include "Protocol.h"

#include <cerrno>
#include <chrono>
#include <cstdio>

#include "QVDriverRecords.h"

namespace qvsim {
namespace {

constexpr uint32_t kLargestRecord = sizeof(_QVCAP_AUDIO_CAPTURE_FRAME);

std::string HexText(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

char LetterOf(uint32_t code) { return static_cast<char>(code >> 8 & 0xFF); }

// Lets a request hang as long as its fault exists. True: the door waits, and serves it again.
bool Hangs(Call& call) {
    if (!EffectOf(call.effects, FaultKind::kHang)) return false;
    while (call.cards->Hangs(call.row.name, call.channel)) {
        if (call.parked) {
            call.parked->hangs = true;
            call.parked->delay = kHangLook;
            return true;
        }
        call.cards.Sleep(kHangLook);
        call.cards->CatchUp(call.channel);
    }
    return false;
}

// The answer of a board without power, a vanished node or a fault, before any handler sees the
// request.
Answer Precheck(Call& call) {
    if (Hangs(call)) return Ok();
    if (call.cards->IsShutDown()) return Refused(ENODEV);
    Channel* channel = call.channel;
    const auto slow = EffectOf(call.effects, FaultKind::kSlow);
    if (slow) {
        if (!call.TakeTime(std::chrono::milliseconds(*slow))) return Ok();
        call.cards->NoteMet(FaultKind::kSlow, call.row.name, channel);
    }
    if (EffectOf(call.effects, FaultKind::kNodeGone)) call.cards->LoseNode(channel);
    if (call.cards->IsGone(channel)) return Refused(ENODEV);
    if (channel && channel->board->state->powerLost) return Refused(EIO);
    if (const auto error = EffectOf(call.effects, FaultKind::kRefuse))
        return Refused(static_cast<int>(*error));
    return Ok();
}

bool LeftToTheDoor(const Call& call) { return call.parked && call.parked->ForCard(); }

// A power cut in the middle: the two requests that change flash do part of their work.
Answer CutPower(Call& call) {
    if (call.row.name != std::string("EraseFirmwareData") &&
        call.row.name != std::string("WriteFirmwareData"))
        return Refused(EIO);
    call.row.handler(call);
    return Refused(EIO);
}

Answer Run(Call& call, uint64_t address) {
    if (call.size > 0) {
        if (address == 0) return Refused(EFAULT);
        if (call.row.TakesRecord() && !call.memory.Read(address, call.record, call.size))
            return Refused(EFAULT);
    }
    auto& records = call.channel ? call.channel->lastRecord : call.cards->EventRecords();
    if (call.row.TakesRecord() || call.size == 0)
        records[call.row.name] = Bytes(call.record, call.record + call.size);
    if (const Answer early = Precheck(call); early.error || LeftToTheDoor(call)) return early;
    if (const auto pretended = EffectOf(call.effects, FaultKind::kPretend))
        return Ok(static_cast<int>(*pretended));
    const bool powerLoss =
        call.channel && EffectOf(call.effects, FaultKind::kPowerLoss).has_value();
    const Answer answer = powerLoss ? CutPower(call) : call.row.handler(call);
    if (LeftToTheDoor(call) || (call.parked && call.parked->ForEvent())) return answer;
    if (powerLoss) call.cards->LosePower(*call.channel->board);
    if (const auto late = EffectOf(call.effects, FaultKind::kRefuseLate))
        return Refused(static_cast<int>(*late));
    if (answer.error == 0 && call.row.GivesRecord() &&
        !call.memory.Write(address, call.record, call.size))
        return Refused(EFAULT);
    return answer;
}

}  // namespace

void Call::Note(const char* name, const std::string& value) {
    arguments += std::string(" ") + name + "=" + value;
}
void Call::NoteNumber(const char* name, int64_t value) { Note(name, std::to_string(value)); }
void Call::NoteHex(const char* name, uint64_t value) { Note(name, HexText(value)); }

bool Call::TakeTime(std::chrono::microseconds time) {
    if (time.count() == 0) return true;
    if (parked) {
        if (delays++ < parked->delaysOver) return true;
        parked->delay = time;
        return false;
    }
    cards.Sleep(time);
    return true;
}

Answer ServeRequest(Model& model, OpenFile& file, uint32_t code, uint64_t address,
                    CallerMemory& memory, ParkedWait* parked) {
    Model::Locked cards(model);
    const std::string head = "ioctl " + file.path + " ";
    const Row* row = FindRow(code);
    const char letter = file.kind == NodeKind::kEvents ? 'E' : 'X';
    if (!row || LetterOf(code) != letter || file.kind == NodeKind::kForeign) {
        const Answer answer = Refused(ENOTTY);
        cards->RequestJournal().Write(head + (row ? row->name : HexText(code)), answer);
        return answer;
    }
    cards->CatchUp(file.channel);
    if (!cards->HasRoom()) return Refused(ENOSPC);
    // A request that is served again is already counted.
    const std::vector<FaultEffect> effects =
        parked && parked->counted ? parked->effects : cards->MeetFaults(row->name, file.channel);
    alignas(8) uint8_t record[kLargestRecord] = {};
    Call call{cards, file, file.channel, *row, memory, record, row->Size(), effects, parked, {}};
    Answer answer = Run(call, address);
    if (!cards->KeepSettings(file.channel)) answer = Refused(ENOSPC);
    const std::string line = head + row->name + call.arguments;
    if (LeftToTheDoor(call)) {
        parked->effects = effects;
        parked->counted = true;
    } else if (parked && parked->ForEvent()) {
        parked->line = line;
    } else {
        cards->RequestJournal().Write(line, answer);
    }
    return answer;
}

bool AskAgain(Model& model, const ParkedWait& parked, bool last, int error, Answer& answer) {
    Model::Locked cards(model);
    EventTable& events = cards->Events();
    answer = error          ? Refused(error)
             : parked.takes ? events.Wait(cards.Lock(), parked.events[0], 0)
                            : events.WaitSeveral(cards.Lock(), parked.events, 0);
    if (!last && answer.error == 0 && answer.value == 0) return false;
    cards->RequestJournal().Write(parked.line, answer);
    return true;
}

}  // namespace qvsim
