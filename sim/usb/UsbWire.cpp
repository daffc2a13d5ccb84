#include "UsbWire.h"

#include <algorithm>

namespace qvsim::usb {
namespace {

constexpr size_t kHeader = 48;
constexpr size_t kPacketHeader = 16;
constexpr uint32_t kSubmit = 1;
constexpr uint32_t kUnlink = 2;
constexpr uint32_t kSubmitAnswer = 3;
constexpr uint32_t kUnlinkAnswer = 4;
constexpr uint32_t kNotIsochronous = 0xFFFFFFFF;  // sent by some controllers; others send 0

uint32_t BigEndianWord(const uint8_t* at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

void Put(Bytes& out, uint32_t word) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(word >> shift));
}

// The setup bytes are the bus's own, little-endian.
Setup ReadSetup(const uint8_t* at) {
    const auto half = [at](int i) { return static_cast<uint16_t>(at[i] | at[i + 1] << 8); };
    return {at[0], at[1], half(2), half(4), half(6)};
}

bool ReadPackets(const uint8_t* at, uint32_t count, uint32_t length, Urb& urb) {
    for (uint32_t i = 0; i < count; ++i, at += kPacketHeader) {
        const IsoPacket packet{BigEndianWord(at), BigEndianWord(at + 4)};
        if (packet.offset > length || packet.length > length - packet.offset) return false;
        urb.packets.push_back(packet);
    }
    return true;
}

Decoded DecodeSubmit(const uint8_t* bytes, size_t size, Message& message, size_t& used) {
    Message found;
    Urb& urb = found.urb;
    urb.sequence = BigEndianWord(bytes + 4);
    const uint32_t direction = BigEndianWord(bytes + 12);
    const uint32_t endpoint = BigEndianWord(bytes + 16);
    urb.length = BigEndianWord(bytes + 24);
    const uint32_t said = BigEndianWord(bytes + 32);
    const uint32_t packets = said == kNotIsochronous ? 0 : said;
    if (direction > 1 || endpoint > 15 || urb.length > kMaxTransfer || packets > kMaxPackets)
        return Decoded::kMalformed;
    urb.in = direction == 1;
    urb.endpoint = static_cast<uint8_t>(endpoint);
    urb.setup = ReadSetup(bytes + 40);
    const size_t data = urb.in ? 0 : urb.length;
    const size_t whole = kHeader + data + packets * kPacketHeader;
    if (size < whole) return Decoded::kIncomplete;
    urb.data.assign(bytes + kHeader, bytes + kHeader + data);
    if (!ReadPackets(bytes + kHeader + data, packets, urb.length, urb)) return Decoded::kMalformed;
    message = std::move(found);
    used = whole;
    return Decoded::kMessage;
}

void PutHeader(Bytes& out, uint32_t command, uint32_t sequence, int status) {
    Put(out, command);
    Put(out, sequence);
    for (int i = 0; i < 3; ++i) Put(out, 0);  // device, direction and endpoint: only in requests
    Put(out, static_cast<uint32_t>(status));
}

}  // namespace

Decoded Decode(const uint8_t* bytes, size_t size, Message& message, size_t& used) {
    if (size < kHeader) return Decoded::kIncomplete;
    switch (BigEndianWord(bytes)) {
        case kSubmit:
            return DecodeSubmit(bytes, size, message, used);
        case kUnlink:
            message = {};
            message.unlink = true;
            message.urb.sequence = BigEndianWord(bytes + 4);
            message.victim = BigEndianWord(bytes + 20);
            used = kHeader;
            return Decoded::kMessage;
        default:
            return Decoded::kMalformed;
    }
}

void AppendAnswer(const Urb& urb, int status, const Bytes& data, Bytes& out) {
    const auto sent = static_cast<uint32_t>(std::min<size_t>(data.size(), urb.length));
    const bool fine = status == 0;
    PutHeader(out, kSubmitAnswer, urb.sequence, status);
    Put(out, !fine ? 0 : urb.in ? sent : urb.length);
    for (int i = 0; i < 5; ++i) Put(out, 0);  // start, packets, errors, padding
    if (fine && urb.in) out.insert(out.end(), data.begin(), data.begin() + sent);
}

void AppendIsoAnswer(const Urb& urb, const std::vector<uint32_t>& lengths, const Bytes& data,
                     Bytes& out) {
    uint32_t total = 0;
    for (const uint32_t length : lengths) total += length;
    PutHeader(out, kSubmitAnswer, urb.sequence, 0);
    Put(out, total);
    Put(out, 0);
    Put(out, static_cast<uint32_t>(urb.packets.size()));
    for (int i = 0; i < 3; ++i) Put(out, 0);
    if (urb.in) out.insert(out.end(), data.begin(), data.end());
    for (size_t i = 0; i < urb.packets.size(); ++i) {
        Put(out, urb.packets[i].offset);
        Put(out, urb.packets[i].length);
        Put(out, lengths[i]);
        Put(out, 0);
    }
}

void AppendUnlinked(uint32_t sequence, int status, Bytes& out) {
    PutHeader(out, kUnlinkAnswer, sequence, status);
    for (int i = 0; i < 6; ++i) Put(out, 0);
}

}  // namespace qvsim::usb
