// The camera of a device: uncompressed pictures over a bulk endpoint, and four picture controls.
//
// Pictures are those of DrawPicture: frame n carries its number at both ends of every line.
// Controls are stored but not applied. Thread rule of UsbFunction.
#pragma once

#include <array>
#include <vector>

#include "UsbFunction.h"

namespace qvsim::usb {

struct SizeSpec {
    int width;
    int height;
    std::vector<int> fps;  // the first is the default
};

// Order of the picture controls, and their initial values.
enum PictureControl { kBrightness, kContrast, kHue, kSaturation, kPictureControls };
struct ControlRange {
    uint8_t selector;
    int minimum;
    int maximum;
    int first;
};
inline constexpr ControlRange kControlRanges[kPictureControls] = {
    {2, -64, 64, 0}, {3, 0, 95, 32}, {6, -180, 180, 0}, {7, 0, 128, 64}};

class VideoFunction : public UsbFunction {
  public:
    // The largest payload: more would not fit one transfer of the host's driver.
    static constexpr uint32_t kPayload = 16384;

    VideoFunction(std::vector<SizeSpec> sizes, const std::string& name, Numbers& numbers);

    void Describe(Bytes& configuration) const override;
    bool HasInterface(uint8_t interface) const override;
    bool HasEndpoint(uint8_t address) const override { return address == m_endpoint; }
    uint8_t Alternate(uint8_t) const override { return 0; }
    bool SetAlternate(uint8_t interface, uint8_t alternate) override;
    void ClearHalt(uint8_t address) override;
    std::optional<Bytes> Control(const Setup& setup, const Bytes& data) override;
    bool Submit(Urb urb) override;
    bool Unlink(uint32_t sequence) override { return m_waiting.Remove(sequence); }
    void Advance(Micros now, Bytes& out) override;
    Micros NextDue() const override;

  private:
    // The streamed size and rate.
    struct Choice {
        uint8_t frame = 1;      // from 1
        uint32_t interval = 0;  // 100 ns units
    };
    Choice Nearest(uint8_t frame, uint32_t interval) const;
    Bytes ProbeRecord(const Choice& choice) const;
    uint32_t FrameBytes(const Choice& choice) const;
    void DescribeControl(Bytes& out) const;
    void DescribeStream(Bytes& out) const;
    std::optional<Bytes> UnitControl(const Setup& setup, const Bytes& data);
    std::optional<Bytes> StreamControl(const Setup& setup, const Bytes& data);
    void BeginFrame(Micros now);
    void Stop();

    std::vector<SizeSpec> m_sizes;
    uint8_t m_control;  // interfaces
    uint8_t m_streaming;
    uint8_t m_endpoint;
    uint8_t m_text;
    std::array<int, kPictureControls> m_values;
    Choice m_probed;
    Choice m_committed;

    UrbQueue m_waiting;
    Bytes m_picture;
    size_t m_sent = 0;       // bytes of the picture; all of them: no picture is being sent
    uint32_t m_number = 0;   // of the picture; since the camera was plugged in
    bool m_toggle = false;   // changes with every picture
    bool m_running = false;  // `m_next` is valid
    Micros m_next = 0;       // when the next picture begins
};

}  // namespace qvsim::usb
