// Handlers of settings, arrays and presets: requests that store values and return them.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "CardDefaults.h"
#include "Handlers.h"
#include "Hex.h"
#include "QVDriverRecords.h"

namespace qvsim {
namespace {

constexpr uint32_t kMaxArrayBytes = 64u << 10;
constexpr uint32_t kStreamInfoSize = 16;

// Small records as a number, others as their checksum.
void NoteRecord(Call& call) {
    switch (call.size) {
        case 1:
            call.NoteNumber("value", call.record[0]);
            break;
        case 4:
            call.NoteNumber("value", call.As<int32_t>());
            break;
        case 8:
            call.NoteHex("value", call.As<uint64_t>());
            break;
        default:
            call.NoteHex("crc", Crc32(call.record, call.size));
    }
}

// The values that the card lists for this setting; none when it lists nothing.
const char* ListOf(const std::string& key, uint32_t& element) {
    element = sizeof(uint32_t);
    if (key == "VideoInputSource") return "VideoInputSources";
    if (key == "AudioInputSource") return "AudioInputSources";
    element = sizeof(_QVCAP_VIDEO_TIMING);
    return key == "VideoTiming" ? "VideoPreferredTimings" : nullptr;
}

// A setting that is on or off.
bool IsSwitch(const std::string& key) {
    return key == "InputSourceScan" || key == "AVInputSourceLink" || key == "VideoAutoHAlign" ||
           key == "VideoSamplingPhaseAutoAdjust";
}

// Streams are numbered from 0; the card says how many it has.
bool HasStream(const Call& call) {
    const size_t bytes = ArrayOf(*call.channel, "StreamInfos", kStreamInfoSize).size();
    const auto stream = call.As<int32_t>();
    return stream >= 0 && static_cast<size_t>(stream) < bytes / kStreamInfoSize;
}

// Whether the value is one of those that the card has said it takes, if it has said so.
bool IsTaken(const Call& call) {
    const std::string key = call.row.key;
    if (key == "CtrlStreamID") return HasStream(call);
    if (IsSwitch(key)) return call.record[0] <= 1;
    uint32_t element = 0;
    const char* const list = ListOf(key, element);
    if (!list) return true;
    const Bytes values = ArrayOf(*call.channel, list, element);
    for (size_t at = 0; at + element <= values.size(); at += element)
        if (std::memcmp(&values[at], call.record, element) == 0) return true;
    return false;
}

// The flags have a bit for each info frame that has come.
bool HasInfoFrame(const Call& call, int32_t id) {
    const std::string key = "HDMIInfoFrameValidFlags";
    const Bytes* known = Known(*call.channel, key);
    const Bytes flags = known ? *known : DefaultRecord(*call.channel, key, 0, sizeof(uint32_t));
    const auto at = static_cast<size_t>(id) / 8;
    return at < flags.size() && (flags[at] >> (id % 8) & 1) != 0;
}

}  // namespace

Answer GetRecord(Call& call) {
    const Bytes* set = Known(*call.channel, call.row.key);
    const Bytes value =
        set ? *set : DefaultRecord(*call.channel, call.row.key, call.row.Number(), call.size);
    std::memcpy(call.record, value.data(), std::min<size_t>(call.size, value.size()));
    NoteRecord(call);
    return Ok();
}

Answer SetRecordValue(Call& call) {
    NoteRecord(call);
    if (call.cards->Ways().strictValues && !IsTaken(call)) return Refused(EINVAL);
    call.channel->settings.Put(call.row.key, Bytes(call.record, call.record + call.size));
    return Ok();
}

Answer GetArray(Call& call) {
    auto& record = call.As<qv::CountedArrayRecord>();
    const Bytes value = ArrayOf(*call.channel, call.row.key, call.row.element);
    const auto have = static_cast<uint32_t>(value.size() / call.row.element);
    const uint32_t handed = std::min(have, record.count);
    call.NoteNumber("capacity", record.count);
    call.NoteNumber("have", have);
    if (handed > 0 && !call.memory.Write(record.address, value.data(), handed * call.row.element))
        return Refused(EFAULT);
    record.count = have;
    return Ok();
}

Answer SetArray(Call& call) {
    const auto& record = call.As<qv::CountedArrayRecord>();
    call.NoteNumber("count", record.count);
    if (record.count > kMaxArrayBytes / call.row.element) return Refused(EINVAL);
    Bytes value(size_t{record.count} * call.row.element);
    if (!value.empty() &&
        !call.memory.Read(record.address, value.data(), static_cast<uint32_t>(value.size())))
        return Refused(EFAULT);
    call.NoteHex("crc", Crc32(value.data(), value.size()));
    call.channel->settings.Put(call.row.key, std::move(value));
    return Ok();
}

Answer GetArrayCount(Call& call) {
    const auto count = static_cast<uint32_t>(
        ArrayOf(*call.channel, call.row.key, call.row.element).size() / call.row.element);
    call.As<uint32_t>() = count;
    NoteRecord(call);
    return Ok();
}

// There are no frames of this kind here: where they would go is in records whose layout only a real
// driver knows.
Answer RefuseLumoCapture(Call& call) {
    NoteRecord(call);
    return Refused(EOPNOTSUPP);
}

// A scenario may know better.
Answer GetLumoCaptureStatus(Call& call) {
    return Known(*call.channel, call.row.key) ? GetRecord(call) : Refused(EOPNOTSUPP);
}

Answer AcceptAction(Call&) { return Ok(); }

Answer SavePreset(Call& call) {
    call.channel->settings.SavePreset();
    return Ok();
}

Answer ReloadPreset(Call& call) {
    call.channel->settings.ReloadPreset();
    return Ok();
}

Answer GetInfoFrame(Call& call) {
    auto& record = call.As<qv::InfoFrameRecord>();
    call.NoteNumber("id", record.id);
    if (record.id < 0 || record.id > 11) return Refused(EINVAL);
    if (call.cards->Ways().strictValues && !HasInfoFrame(call, record.id)) return Refused(EINVAL);
    const Bytes* set = Known(*call.channel, "HDMIInfoFrame" + std::to_string(record.id));
    const auto number = call.row.Number() + static_cast<uint32_t>(record.id);
    const Bytes value = set ? *set : DefaultRecord(*call.channel, "", number, sizeof record.packet);
    std::memcpy(&record.packet, value.data(), std::min(sizeof record.packet, value.size()));
    return Ok();
}

}  // namespace qvsim
