// The messages between a virtual host controller and one device on it; numbers are big-endian.
//
// Pure functions over bytes, any thread. The controller's messages are not trusted: counts and
// lengths are checked before memory is allocated, and packets must be inside their transfer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qvsim::usb {

using Bytes = std::vector<uint8_t>;

inline constexpr int kStall = -32;                 // EPIPE: the endpoint does not support this
inline constexpr int kUnlinked = -104;             // ECONNRESET: cancelled before it was answered
inline constexpr int kTooMany = -12;               // ENOMEM
inline constexpr uint32_t kMaxTransfer = 1 << 20;  // bytes
inline constexpr uint32_t kMaxPackets = 1024;

// A control request as it is on the bus.
struct Setup {
    uint8_t type = 0;
    uint8_t request = 0;
    uint16_t value = 0;
    uint16_t index = 0;
    uint16_t length = 0;
};

struct IsoPacket {
    uint32_t offset = 0;  // in the transfer
    uint32_t length = 0;
};

// One transfer that the controller requests.
struct Urb {
    uint32_t sequence = 0;
    uint8_t endpoint = 0;  // 0 to 15
    bool in = false;
    uint32_t length = 0;
    Setup setup;                     // endpoint 0
    Bytes data;                      // `length` bytes of an outgoing transfer
    std::vector<IsoPacket> packets;  // empty: not isochronous
};

struct Message {
    bool unlink = false;  // cancels transfer `victim`; otherwise a transfer
    uint32_t victim = 0;
    Urb urb;  // for an unlink only the sequence number
};

enum class Decoded { kMessage, kIncomplete, kMalformed };

// Parses the message at the start of the bytes; `used` is its length. Both are untouched unless the
// message is complete. Bytes after a malformed message cannot be parsed.
Decoded Decode(const uint8_t* bytes, size_t size, Message& message, size_t& used);

// Answers to a transfer. An incoming transfer carries data, of which at most the requested length
// is sent; an outgoing one has taken all of its data.
void AppendAnswer(const Urb& urb, int status, const Bytes& data, Bytes& out);
// `lengths` has one entry per packet; incoming data is packed in `data`, in order.
void AppendIsoAnswer(const Urb& urb, const std::vector<uint32_t>& lengths, const Bytes& data,
                     Bytes& out);
// Answer to an unlink; status 0: there was nothing left to cancel.
void AppendUnlinked(uint32_t sequence, int status, Bytes& out);

}  // namespace qvsim::usb
