// Handlers of settings, arrays and presets: requests that store values and return them.
#include <algorithm>
#include <cerrno>
#include <cstring>

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

Bytes Pattern(uint32_t number, size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = PatternByte(number, i);
    return bytes;
}

// Arrays of a channel on which nothing was set.
Bytes DefaultArray(const std::string& key, uint32_t element) {
    const auto elements = [element](std::initializer_list<uint32_t> values) {
        Bytes bytes;
        for (const uint32_t value : values)
            for (uint32_t i = 0; i < element; ++i)
                bytes.push_back(static_cast<uint8_t>(i < 4 ? value >> (8 * i) : value));
        return bytes;
    };
    if (key == "VideoInputSources") return elements({0x101, 0x201, 0x301});
    if (key == "AudioInputSources") return elements({0x501, 0x601});
    if (key == "StreamInfos") return elements({0x01, 0x02});
    if (key == "VideoPreferredTimings") return elements({0x11, 0x12});
    if (key == "EDID") return Pattern(53, 256);
    return {};  // custom timings and resolutions: none
}

// The value that was set, or else the scenario's; null when the scenario has none.
const Bytes* Known(const Channel& channel, const std::string& key) {
    if (const Bytes* set = channel.settings.Find(key)) return set;
    const auto record = channel.state->records.find(key);
    return record == channel.state->records.end() ? nullptr : &record->second;
}

Bytes ArrayOf(const Call& call) {
    const Bytes* set = Known(*call.channel, call.row.key);
    return set ? *set : DefaultArray(call.row.key, call.row.element);
}

}  // namespace

Answer GetRecord(Call& call) {
    const Bytes* set = Known(*call.channel, call.row.key);
    const Bytes value = set ? *set : Pattern(call.row.Number(), call.size);
    std::memcpy(call.record, value.data(), std::min<size_t>(call.size, value.size()));
    NoteRecord(call);
    return Ok();
}

// Whether the card lists the selected source.
bool HasSource(const Call& call, const char* list) {
    const Bytes* known = Known(*call.channel, list);
    const Bytes sources = known ? *known : DefaultArray(list, sizeof(uint32_t));
    for (size_t at = 0; at + sizeof(uint32_t) <= sources.size(); at += sizeof(uint32_t))
        if (std::memcmp(&sources[at], call.record, sizeof(uint32_t)) == 0) return true;
    return false;
}

// Streams are numbered from 0; the card says how many it has.
bool HasStream(const Call& call) {
    const Bytes* known = Known(*call.channel, "StreamInfos");
    const size_t bytes = (known ? *known : DefaultArray("StreamInfos", kStreamInfoSize)).size();
    const auto stream = call.As<int32_t>();
    return stream >= 0 && static_cast<size_t>(stream) < bytes / kStreamInfoSize;
}

// Whether the card lists the value that is set, if it lists any.
bool IsListed(const Call& call) {
    const std::string key = call.row.key;
    if (key == "CtrlStreamID") return HasStream(call);
    const bool isSource = key == "VideoInputSource" || key == "AudioInputSource";
    return !isSource || HasSource(call, (key + "s").c_str());
}

Answer SetRecordValue(Call& call) {
    NoteRecord(call);
    if (call.cards->Ways().strictValues && !IsListed(call)) return Refused(EINVAL);
    call.channel->settings.Put(call.row.key, Bytes(call.record, call.record + call.size));
    return Ok();
}

Answer GetArray(Call& call) {
    auto& record = call.As<qv::CountedArrayRecord>();
    const Bytes value = ArrayOf(call);
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
    const auto count = static_cast<uint32_t>(ArrayOf(call).size() / call.row.element);
    call.As<uint32_t>() = count;
    NoteRecord(call);
    return Ok();
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
    const Bytes* set = Known(*call.channel, "HDMIInfoFrame" + std::to_string(record.id));
    const auto number = call.row.Number() + static_cast<uint32_t>(record.id);
    const Bytes value = set ? *set : Pattern(number, sizeof record.packet);
    std::memcpy(&record.packet, value.data(), std::min(sizeof record.packet, value.size()));
    return Ok();
}

}  // namespace qvsim
