// The sound card of a device: streams, each with a volume and a mute switch.
//
// A capture stream gives a sine on the left and the number of the sample on the right, so that a
// receiver can check content, order and loss; volume and mute are stored but not applied. Played
// sound is passed to a listener. One packet is a millisecond. Thread rule of UsbFunction.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "UsbFunction.h"

namespace qvsim::usb {

// Volume of every stream, in 1/256 dB.
inline constexpr int kMinVolume = -50 * 256;
inline constexpr int kMaxVolume = 0;
inline constexpr int kVolumeStep = 256;
inline constexpr int kFirstVolume = -20 * 256;

inline constexpr uint32_t kNumberEnd = 48000;  // sample numbers are below this

// Left and right sample of the capture stream at `place` (0: the first capture stream of its
// device, a sine of 1 kHz at 48 kHz; 1: 2 kHz, and so on), 32 bits each.
std::array<int32_t, 2> CapturedFrame(int place, uint64_t number);

struct StreamSpec {
    std::string name;  // of the mixer's element
    bool capture;
};

class AudioFunction : public UsbFunction {
  public:
    using Listener = std::function<void(const std::string& stream, const uint8_t* data, size_t)>;
    AudioFunction(const std::vector<StreamSpec>& streams, Numbers& numbers, Listener listener);

    void Describe(Bytes& configuration) const override;
    bool HasInterface(uint8_t interface) const override;
    bool HasEndpoint(uint8_t address) const override;
    uint8_t Alternate(uint8_t interface) const override;
    bool SetAlternate(uint8_t interface, uint8_t alternate) override;
    void ClearHalt(uint8_t) override {}
    std::optional<Bytes> Control(const Setup& setup, const Bytes& data) override;
    bool Submit(Urb urb) override;
    bool Unlink(uint32_t sequence) override;
    void Advance(Micros now, Bytes& out) override;
    Micros NextDue() const override;

  private:
    struct Stream {
        StreamSpec spec;
        int place = 0;  // among the capture streams
        uint8_t interface = 0;
        uint8_t endpoint = 0;  // with its direction bit
        uint8_t text = 0;
        uint8_t inputTerminal = 0;
        uint8_t unit = 0;
        uint8_t outputTerminal = 0;

        uint8_t alternate = 0;
        uint32_t rate = 48000;
        uint64_t packet = 0;  // since the stream was started
        std::array<int16_t, 2> volume{kFirstVolume, kFirstVolume};
        bool muted = false;
        UrbQueue waiting;
        Micros clock = 0;      // packets were transferred up to this time
        bool running = false;  // `clock` is valid
    };

    void DescribeControl(Bytes& out) const;
    static void DescribeStream(const Stream& stream, Bytes& out);
    std::optional<Bytes> UnitControl(Stream& stream, const Setup& setup, const Bytes& data);
    static std::optional<Bytes> RateControl(Stream& stream, const Setup& setup, const Bytes& data);
    void AdvanceStream(Stream& stream, Micros now, Bytes& out);
    void Answer(Stream& stream, const Urb& urb, Bytes& out);

    uint8_t m_control;  // interface
    std::vector<Stream> m_streams;
    Listener m_listener;
};

}  // namespace qvsim::usb
