// Faults: what goes wrong, at which request, how often. Plain data, any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace qvsim {

enum class FaultKind {
    kRefuse,       // value: errno
    kShortRead,    // value: most bytes that a read delivers
    kFlipBit,      // value: bit number inside the bytes that a read delivers
    kStuckBits,    // value: mask; programming leaves these bits of every byte set
    kNotBlank,     // an erase leaves one byte of the range programmed
    kSlow,         // value: milliseconds before the request is served
    kHang,         // the request is not served until the fault is cleared
    kPowerLoss,    // the board loses power in the middle of the request, until it is power-cycled;
                   // value: a CutPoint. At the open of the event node, every board does
    kNodeGone,     // the node vanishes: this and every later open and request fails with ENODEV
    kPretend,      // nothing is done, and the answer is `value`; a signal is lost
    kHalf,         // an erase, a write, or a frame is half done and reported as complete
    kWrongMarker,  // an audio frame has an invalid marker
    kNoEnd,        // the texts of a channel record are not terminated
    kRefuseLate,   // the request is carried out, and then fails; value: errno
};

// How much of an erase or a write is done when the power fails.
enum class CutPoint : uint32_t {
    kHalf,   // half of it is done, and the current sector holds garbage
    kStart,  // nothing is done
    kEnd,    // all except its last byte is done
};

struct FaultEffect {
    FaultKind kind = FaultKind::kRefuse;
    uint32_t value = 0;
};

constexpr FaultEffect Refuse(int error) {
    return {FaultKind::kRefuse, static_cast<uint32_t>(error)};
}
constexpr FaultEffect ShortRead(uint32_t bytes) { return {FaultKind::kShortRead, bytes}; }
constexpr FaultEffect FlipBit(uint32_t bit) { return {FaultKind::kFlipBit, bit}; }
constexpr FaultEffect StuckBits(uint8_t mask) { return {FaultKind::kStuckBits, mask}; }
constexpr FaultEffect NotBlank() { return {FaultKind::kNotBlank, 0}; }
constexpr FaultEffect Slow(uint32_t milliseconds) { return {FaultKind::kSlow, milliseconds}; }
constexpr FaultEffect Hang() { return {FaultKind::kHang, 0}; }
constexpr FaultEffect PowerLoss(CutPoint point = CutPoint::kHalf) {
    return {FaultKind::kPowerLoss, static_cast<uint32_t>(point)};
}
constexpr FaultEffect NodeGone() { return {FaultKind::kNodeGone, 0}; }
constexpr FaultEffect Pretend(uint32_t answer = 0) { return {FaultKind::kPretend, answer}; }
constexpr FaultEffect Half() { return {FaultKind::kHalf, 0}; }
constexpr FaultEffect WrongMarker() { return {FaultKind::kWrongMarker, 0}; }
constexpr FaultEffect NoEnd() { return {FaultKind::kNoEnd, 0}; }
constexpr FaultEffect RefuseLate(int error) {
    return {FaultKind::kRefuseLate, static_cast<uint32_t>(error)};
}

// What a fault can name besides the requests of the table: opens, any request, and the moments at
// which the driver itself sets a caller's event.
inline constexpr char kOpen[] = "open";
inline constexpr char kAnyRequest[] = "any";
inline constexpr char kFrameSignal[] = "FrameSignal";
inline constexpr char kTimerSignal[] = "TimerSignal";
inline constexpr char kNotifySignal[] = "NotifySignal";
inline constexpr const char* kSignals[] = {kFrameSignal, kTimerSignal, kNotifySignal};

// How often a request that hangs looks whether its fault has been cleared, by any process.
inline constexpr std::chrono::milliseconds kHangLook{20};

// Fault{.request = "EraseFirmwareData", .nth = 3, .effect = Refuse(EIO)}
struct Fault {
    std::string request;  // name in the request table, or one of those above
    int nth = 1;          // the first matching request that is hit, counted from 1
    int count = 1;        // how many in a row are hit; -1: all from the first hit on
    uint32_t oneIn =
        1;  // of those that would be hit, one in this many is hit; `seed` decides which
    uint32_t seed = 0;
    int board = -1;    // -1: any
    int channel = -1;  // -1: any
    FaultEffect effect;
    bool perProcess = false;  // counted in each process separately, not over the whole folder
    int slot = -1;            // index of its count in the folder; -1: none yet
};

// "refuse", "short_read", ...: as in scenarios and state files.
const char* FaultKindName(FaultKind kind);
bool FaultKindFromName(const std::string& name, FaultKind& kind);
std::vector<std::string> FaultKindNames();

}  // namespace qvsim
