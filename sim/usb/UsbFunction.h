// A function of a device, sound or camera: its interfaces, its controls and its endpoints.
//
// Knows no sockets and no clock: the caller passes transfers and `now`, answers are bytes. One
// thread.
#pragma once

#include <cstdint>
#include <deque>
#include <limits>
#include <optional>

#include "UsbDescriptors.h"
#include "UsbWire.h"

namespace qvsim::usb {

using Micros = int64_t;  // since any fixed moment
inline constexpr Micros kNever = std::numeric_limits<Micros>::max();

// Bits of a control request's type.
inline constexpr uint8_t kFromDevice = 0x80;
inline constexpr uint8_t kClassRequest = 0x20;

class UsbFunction {
  public:
    virtual ~UsbFunction() = default;

    virtual void Describe(Bytes& configuration) const = 0;

    virtual bool HasInterface(uint8_t interface) const = 0;
    virtual bool HasEndpoint(uint8_t address) const = 0;
    // The current setting of one of its interfaces.
    virtual uint8_t Alternate(uint8_t interface) const = 0;
    // False for a setting that the interface does not have.
    virtual bool SetAlternate(uint8_t interface, uint8_t alternate) = 0;
    virtual void ClearHalt(uint8_t address) = 0;
    // A class request to one of its interfaces or endpoints: returns the data to read, or nothing
    // to stall.
    virtual std::optional<Bytes> Control(const Setup& setup, const Bytes& data) = 0;

    // Takes a transfer of one of its endpoints. False when it has too many already.
    virtual bool Submit(Urb urb) = 0;
    // Cancels a transfer; false when it is not here.
    virtual bool Unlink(uint32_t sequence) = 0;
    // Answers the transfers that are due.
    virtual void Advance(Micros now, Bytes& out) = 0;
    // When the next answer is due; kNever: not before a transfer comes.
    virtual Micros NextDue() const = 0;
};

// Transfers of one endpoint that wait for their time. Their number is limited, in case a controller
// never stops.
class UrbQueue {
  public:
    bool Add(Urb urb) {
        constexpr size_t kMost = 256;
        if (m_urbs.size() >= kMost) return false;
        m_urbs.push_back(std::move(urb));
        return true;
    }
    bool Remove(uint32_t sequence) {
        return std::erase_if(m_urbs, [=](const Urb& urb) { return urb.sequence == sequence; }) > 0;
    }
    bool Empty() const { return m_urbs.empty(); }
    const Urb& Front() const { return m_urbs.front(); }
    void Pop() { m_urbs.pop_front(); }

  private:
    std::deque<Urb> m_urbs;
};

}  // namespace qvsim::usb
