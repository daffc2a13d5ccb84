#include "AudioFunction.h"

#include <algorithm>

#include "Picture.h"

namespace qvsim::usb {
namespace {

constexpr uint8_t kAudioClass = 0x01;
constexpr uint8_t kControlSubclass = 0x01;
constexpr uint8_t kStreamingSubclass = 0x02;
constexpr uint8_t kIsochronousAsync = 0x05;
constexpr uint8_t kIsochronousAdaptive = 0x09;
constexpr uint16_t kUsbTerminal = 0x0101;
constexpr uint16_t kMicrophone = 0x0201;
constexpr uint16_t kSpeaker = 0x0301;

constexpr uint8_t kMuteControl = 1;
constexpr uint8_t kVolumeControl = 2;
constexpr uint8_t kSetCurrent = 0x01;
constexpr uint8_t kGetCurrent = 0x81;
constexpr uint8_t kGetMinimum = 0x82;
constexpr uint8_t kGetMaximum = 0x83;
constexpr uint8_t kGetStep = 0x84;

constexpr Micros kPacketTime = 1000;
constexpr Micros kFarBehind =
    50000;  // then the stream goes on from now, and the missed time is lost
constexpr uint8_t kEveryMillisecond = 4;  // 2^(4-1) of a high-speed bus's 125 us
constexpr int kChannels = 2;

// The settings of a stream except 0, which is silence.
struct Setting {
    uint8_t sampleBytes;
    std::vector<uint32_t> rates;
};
const Setting& SettingOf(uint8_t alternate) {
    static const Setting kSettings[] = {{2, {44100, 48000}}, {4, {48000}}};
    return kSettings[alternate - 1];
}
constexpr uint8_t kLastAlternate = 2;

bool HasRate(const Setting& setting, uint32_t rate) {
    return std::find(setting.rates.begin(), setting.rates.end(), rate) != setting.rates.end();
}

uint32_t LargestPacket(const Setting& setting) {
    return (setting.rates.back() / 1000 + 2) * kChannels * setting.sampleBytes;
}

// Number of samples in this packet: a rate that is no multiple of 1000 has packets of two lengths.
uint32_t SamplesOf(uint64_t packet, uint32_t rate) {
    return static_cast<uint32_t>((packet + 1) * rate / 1000 - packet * rate / 1000);
}

Micros TimeOf(const Urb& urb) { return static_cast<Micros>(urb.packets.size()) * kPacketTime; }

std::optional<Bytes> Little(int32_t value, int bytes) {
    Bytes out;
    AppendFields(out, {Field(static_cast<uint32_t>(value), bytes)});
    return out;
}

}  // namespace

std::array<int32_t, 2> CapturedFrame(int place, uint64_t number) {
    const auto marked = static_cast<uint32_t>(number % kNumberEnd);
    return {ToneSample(marked, place + 1) * 65536, static_cast<int32_t>(marked << 16)};
}

AudioFunction::AudioFunction(const std::vector<StreamSpec>& streams, Numbers& numbers,
                             Listener listener)
    : m_control(numbers.Interface()), m_listener(std::move(listener)) {
    uint8_t entity = 0;
    int place = 0;
    for (const StreamSpec& spec : streams) {
        Stream stream;
        stream.spec = spec;
        if (spec.capture) stream.place = place++;
        stream.interface = numbers.Interface();
        stream.endpoint = spec.capture ? numbers.InEndpoint() : numbers.OutEndpoint();
        stream.text = numbers.Text(spec.name);
        stream.inputTerminal = ++entity;
        stream.unit = ++entity;
        stream.outputTerminal = ++entity;
        m_streams.push_back(std::move(stream));
    }
}

// ---- descriptors

void AudioFunction::Describe(Bytes& configuration) const {
    const auto interfaces = static_cast<uint8_t>(1 + m_streams.size());
    AppendDescriptor(configuration, kAssociationDescriptor,
                     {m_control, interfaces, kAudioClass, kControlSubclass, 0, 0});
    DescribeControl(configuration);
    for (const Stream& stream : m_streams) DescribeStream(stream, configuration);
}

void AudioFunction::DescribeControl(Bytes& out) const {
    AppendDescriptor(out, kInterfaceDescriptor,
                     {m_control, 0, 0, kAudioClass, kControlSubclass, 0, 0});
    Bytes inner;
    constexpr size_t kTotalAt = 5;
    std::vector<Field> header{0x01, Half(0x0100), Half(0), m_streams.size()};
    for (const Stream& stream : m_streams) header.push_back(stream.interface);
    AppendDescriptor(inner, kClassInterface, header);
    for (const Stream& stream : m_streams) {
        const bool capture = stream.spec.capture;
        // terminal in: number, kind, associated, channels, left and right, names
        AppendDescriptor(inner, kClassInterface,
                         {0x02, stream.inputTerminal, Half(capture ? kMicrophone : kUsbTerminal), 0,
                          kChannels, Half(3), 0, 0});
        // mute for all channels, volume for each
        AppendDescriptor(inner, kClassInterface,
                         {0x06, stream.unit, stream.inputTerminal, 1, 1, 2, 2, stream.text});
        AppendDescriptor(inner, kClassInterface,
                         {0x03, stream.outputTerminal, Half(capture ? kUsbTerminal : kSpeaker), 0,
                          stream.unit, 0});
    }
    AppendWithTotal(out, std::move(inner), kTotalAt);
}

void AudioFunction::DescribeStream(const Stream& stream, Bytes& out) {
    const bool capture = stream.spec.capture;
    const uint8_t terminal = capture ? stream.outputTerminal : stream.inputTerminal;
    AppendDescriptor(out, kInterfaceDescriptor,
                     {stream.interface, 0, 0, kAudioClass, kStreamingSubclass, 0, 0});
    for (uint8_t alternate = 1; alternate <= kLastAlternate; ++alternate) {
        const Setting& setting = SettingOf(alternate);
        AppendDescriptor(out, kInterfaceDescriptor,
                         {stream.interface, alternate, 1, kAudioClass, kStreamingSubclass, 0, 0});
        AppendDescriptor(out, kClassInterface, {0x01, terminal, 1, Half(1)});  // PCM
        std::vector<Field> format{
            0x02, 1, kChannels, setting.sampleBytes, setting.sampleBytes * 8, setting.rates.size()};
        for (const uint32_t rate : setting.rates) format.push_back(Three(rate));
        AppendDescriptor(out, kClassInterface, format);
        AppendDescriptor(out, kEndpointDescriptor,
                         {stream.endpoint, capture ? kIsochronousAsync : kIsochronousAdaptive,
                          Half(LargestPacket(setting)), kEveryMillisecond, 0, 0});
        AppendDescriptor(out, kClassEndpoint, {0x01, 1, 0, Half(0)});  // the rate can be set
    }
}

// ---- controls

bool AudioFunction::HasInterface(uint8_t interface) const {
    return interface >= m_control && interface <= m_control + m_streams.size();
}

bool AudioFunction::HasEndpoint(uint8_t address) const {
    return std::any_of(m_streams.begin(), m_streams.end(),
                       [=](const Stream& stream) { return stream.endpoint == address; });
}

uint8_t AudioFunction::Alternate(uint8_t interface) const {
    for (const Stream& stream : m_streams)
        if (stream.interface == interface) return stream.alternate;
    return 0;
}

bool AudioFunction::SetAlternate(uint8_t interface, uint8_t alternate) {
    if (interface == m_control) return alternate == 0;
    if (alternate > kLastAlternate) return false;
    Stream& stream = m_streams[interface - m_control - 1u];
    stream.alternate = alternate;
    stream.packet = 0;
    stream.running = false;
    if (alternate != 0 && !HasRate(SettingOf(alternate), stream.rate))
        stream.rate = SettingOf(alternate).rates.back();
    return true;
}

std::optional<Bytes> AudioFunction::Control(const Setup& setup, const Bytes& data) {
    const auto low = static_cast<uint8_t>(setup.index);
    const auto entity = static_cast<uint8_t>(setup.index >> 8);
    for (Stream& stream : m_streams) {
        if ((setup.type & 0x1F) == 2) {
            if (stream.endpoint == low) return RateControl(stream, setup, data);
        } else if (low == m_control && stream.unit == entity) {
            return UnitControl(stream, setup, data);
        }
    }
    return std::nullopt;
}

std::optional<Bytes> AudioFunction::RateControl(Stream& stream, const Setup& setup,
                                                const Bytes& data) {
    if (setup.value != 0x0100) return std::nullopt;
    if (setup.request == kGetCurrent) return Little(static_cast<int32_t>(stream.rate), 3);
    if (setup.request != kSetCurrent || data.size() != 3 || stream.alternate == 0)
        return std::nullopt;
    const uint32_t rate = data[0] | uint32_t{data[1]} << 8 | uint32_t{data[2]} << 16;
    if (!HasRate(SettingOf(stream.alternate), rate)) return std::nullopt;
    stream.rate = rate;
    return Bytes{};
}

std::optional<Bytes> AudioFunction::UnitControl(Stream& stream, const Setup& setup,
                                                const Bytes& data) {
    const int selector = setup.value >> 8;
    const unsigned channel = setup.value & 0xFF;  // 0: all of them
    if (selector == kMuteControl && channel == 0) {
        if (setup.request == kGetCurrent) return Little(stream.muted, 1);
        if (setup.request != kSetCurrent || data.size() != 1) return std::nullopt;
        stream.muted = data[0] != 0;
        return Bytes{};
    }
    if (selector != kVolumeControl || channel < 1 || channel > kChannels) return std::nullopt;
    int16_t& volume = stream.volume[channel - 1];
    switch (setup.request) {
        case kGetCurrent:
            return Little(volume, 2);
        case kGetMinimum:
            return Little(kMinVolume, 2);
        case kGetMaximum:
            return Little(kMaxVolume, 2);
        case kGetStep:
            return Little(kVolumeStep, 2);
        case kSetCurrent:
            if (data.size() != 2) return std::nullopt;
            volume = static_cast<int16_t>(data[0] | data[1] << 8);
            volume = std::clamp<int16_t>(volume, kMinVolume, kMaxVolume);
            return Bytes{};
        default:
            return std::nullopt;
    }
}

// ---- streams

bool AudioFunction::Submit(Urb urb) {
    const auto address = static_cast<uint8_t>(urb.endpoint | (urb.in ? 0x80 : 0));
    for (Stream& stream : m_streams)
        if (stream.endpoint == address) return stream.waiting.Add(std::move(urb));
    return false;
}

bool AudioFunction::Unlink(uint32_t sequence) {
    return std::any_of(m_streams.begin(), m_streams.end(),
                       [=](Stream& stream) { return stream.waiting.Remove(sequence); });
}

Micros AudioFunction::NextDue() const {
    Micros next = kNever;
    for (const Stream& stream : m_streams)
        if (!stream.waiting.Empty())
            next =
                std::min(next, stream.running ? stream.clock + TimeOf(stream.waiting.Front()) : 0);
    return next;
}

void AudioFunction::Advance(Micros now, Bytes& out) {
    for (Stream& stream : m_streams) AdvanceStream(stream, now, out);
}

// A transfer is answered when the time of its last packet has come.
void AudioFunction::AdvanceStream(Stream& stream, Micros now, Bytes& out) {
    while (!stream.waiting.Empty()) {
        const Urb& urb = stream.waiting.Front();
        if (!stream.running) stream.clock = now;
        stream.running = true;
        const Micros end = stream.clock + TimeOf(urb);
        if (end > now) return;
        // A late transfer is answered, however late: a slow host must not wait for ever.
        stream.clock = end < now - kFarBehind ? now : end;
        Answer(stream, urb, out);
        stream.waiting.Pop();
    }
}

void AudioFunction::Answer(Stream& stream, const Urb& urb, Bytes& out) {
    if (stream.alternate == 0 || urb.packets.empty()) return AppendAnswer(urb, kStall, {}, out);
    const Setting& setting = SettingOf(stream.alternate);
    std::vector<uint32_t> lengths;
    Bytes data;
    for (const IsoPacket& packet : urb.packets) {
        if (!urb.in) {
            const auto from = urb.data.begin() + packet.offset;
            data.insert(data.end(), from, from + packet.length);
            lengths.push_back(packet.length);
            continue;
        }
        const uint64_t first = stream.packet * stream.rate / 1000;
        const uint32_t samples = SamplesOf(stream.packet++, stream.rate);
        const size_t start = data.size();
        for (uint32_t i = 0; i < samples; ++i)
            for (const int32_t sample : CapturedFrame(stream.place, first + i))
                for (int byte = 4 - setting.sampleBytes; byte < 4; ++byte)
                    data.push_back(static_cast<uint8_t>(static_cast<uint32_t>(sample) >> 8 * byte));
        data.resize(std::min<size_t>(data.size(), start + packet.length));
        lengths.push_back(static_cast<uint32_t>(data.size() - start));
    }
    if (!urb.in) m_listener(stream.spec.name, data.data(), data.size());
    AppendIsoAnswer(urb, lengths, data, out);
}

}  // namespace qvsim::usb
