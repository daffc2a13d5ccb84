#include "VideoFunction.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Picture.h"

namespace qvsim::usb {
namespace {

constexpr uint8_t kVideoClass = 0x0E;
constexpr uint8_t kControlSubclass = 0x01;
constexpr uint8_t kStreamingSubclass = 0x02;
constexpr uint8_t kCollection = 0x03;
constexpr uint8_t kBulk = 0x02;
constexpr uint16_t kBulkPacket = 512;  // of a high-speed bus

constexpr uint8_t kCamera = 1;  // entities
constexpr uint8_t kProcessing = 2;
constexpr uint8_t kOutput = 3;

constexpr uint8_t kProbe = 1;
constexpr uint8_t kCommit = 2;
constexpr size_t kProbeSize = 26;

constexpr uint8_t kSetCurrent = 0x01;
constexpr uint8_t kGetCurrent = 0x81;
constexpr uint8_t kGetMinimum = 0x82;
constexpr uint8_t kGetMaximum = 0x83;
constexpr uint8_t kGetStep = 0x84;
constexpr uint8_t kGetLength = 0x85;
constexpr uint8_t kGetInfo = 0x86;
constexpr uint8_t kGetDefault = 0x87;

constexpr uint32_t kUnitsPerSecond = 10000000;  // of 100 ns
constexpr uint32_t kClock = 48000000;           // Hz; no time stamps are sent
constexpr int kBytesPerPixel = 2;
constexpr uint8_t kPayloadHeader = 2;
constexpr uint8_t kEndOfHeader = 0x80;
constexpr uint8_t kEndOfFrame = 0x02;

uint32_t IntervalOf(int fps) { return kUnitsPerSecond / static_cast<uint32_t>(fps); }

Bytes Little(uint32_t value, int bytes) {
    Bytes out;
    AppendFields(out, {Field(value, bytes)});
    return out;
}

}  // namespace

VideoFunction::VideoFunction(std::vector<SizeSpec> sizes, const std::string& name, Numbers& numbers)
    : m_sizes(std::move(sizes)),
      m_control(numbers.Interface()),
      m_streaming(numbers.Interface()),
      m_endpoint(numbers.InEndpoint()),
      m_text(numbers.Text(name)) {
    for (int i = 0; i < kPictureControls; ++i)
        m_values[static_cast<size_t>(i)] = kControlRanges[i].first;
    m_probed = m_committed = Nearest(1, 0);
}

uint32_t VideoFunction::FrameBytes(const Choice& choice) const {
    const SizeSpec& size = m_sizes[choice.frame - 1u];
    return static_cast<uint32_t>(size.width * size.height * kBytesPerPixel);
}

// ---- descriptors

void VideoFunction::Describe(Bytes& configuration) const {
    AppendDescriptor(configuration, kAssociationDescriptor,
                     {m_control, 2, kVideoClass, kCollection, 0, m_text});
    DescribeControl(configuration);
    DescribeStream(configuration);
}

void VideoFunction::DescribeControl(Bytes& out) const {
    AppendDescriptor(out, kInterfaceDescriptor,
                     {m_control, 0, 0, kVideoClass, kControlSubclass, 0, m_text});
    Bytes inner;
    constexpr size_t kTotalAt = 5;
    AppendDescriptor(inner, kClassInterface,
                     {0x01, Half(0x0100), Half(0), Whole(kClock), 1, m_streaming});
    // camera without controls
    AppendDescriptor(inner, kClassInterface,
                     {0x02, kCamera, Half(0x0201), 0, 0, Half(0), Half(0), Half(0), 3, Three(0)});
    // brightness, contrast, hue, saturation
    AppendDescriptor(inner, kClassInterface,
                     {0x05, kProcessing, kCamera, Half(0), 2, Half(0x000F), 0});
    AppendDescriptor(inner, kClassInterface, {0x03, kOutput, Half(0x0101), 0, kProcessing, 0});
    AppendWithTotal(out, std::move(inner), kTotalAt);
}

void VideoFunction::DescribeStream(Bytes& out) const {
    AppendDescriptor(out, kInterfaceDescriptor,
                     {m_streaming, 0, 1, kVideoClass, kStreamingSubclass, 0, 0});
    Bytes inner;
    constexpr size_t kTotalAt = 4;
    AppendDescriptor(inner, kClassInterface,
                     {0x01, 1, Half(0), m_endpoint, 0, kOutput, 0, 0, 0, 1, 0});
    // YUY2 and the rest of its name, 16 bits a pixel
    AppendDescriptor(inner, kClassInterface,
                     {0x04, 1, m_sizes.size(), Whole(0x32595559), Whole(0x00100000),
                      Whole(0xAA000080), Whole(0x719B3800), 16, 1, 0, 0, 0, 0});
    uint8_t index = 0;
    for (const SizeSpec& size : m_sizes) {
        const uint32_t bytes = FrameBytes({++index, 0});
        std::vector<int> rates = size.fps;
        std::sort(rates.rbegin(), rates.rend());  // hosts expect the shortest interval first
        const auto bits = [bytes](int fps) {
            const uint64_t rate = uint64_t{bytes} * 8 * static_cast<unsigned>(fps);
            return Whole(static_cast<uint32_t>(std::min<uint64_t>(rate, UINT32_MAX)));
        };
        std::vector<Field> fields{0x05,
                                  index,
                                  0,
                                  Half(static_cast<uint32_t>(size.width)),
                                  Half(static_cast<uint32_t>(size.height)),
                                  bits(rates.back()),
                                  bits(rates.front()),
                                  Whole(bytes),
                                  Whole(IntervalOf(size.fps.front())),
                                  size.fps.size()};
        for (const int fps : rates) fields.push_back(Whole(IntervalOf(fps)));
        AppendDescriptor(inner, kClassInterface, fields);
    }
    AppendDescriptor(inner, kClassInterface, {0x0D, 1, 1, 4});  // colours
    AppendWithTotal(out, std::move(inner), kTotalAt);
    AppendDescriptor(out, kEndpointDescriptor, {m_endpoint, kBulk, Half(kBulkPacket), 0});
}

// ---- controls

bool VideoFunction::HasInterface(uint8_t interface) const {
    return interface == m_control || interface == m_streaming;
}

bool VideoFunction::SetAlternate(uint8_t, uint8_t alternate) {
    if (alternate != 0) return false;
    Stop();
    return true;
}

void VideoFunction::ClearHalt(uint8_t address) {
    if (address == m_endpoint) Stop();  // how a host ends a bulk stream
}

std::optional<Bytes> VideoFunction::Control(const Setup& setup, const Bytes& data) {
    if ((setup.type & 0x1F) != 1) return std::nullopt;
    const auto interface = static_cast<uint8_t>(setup.index);
    const auto entity = static_cast<uint8_t>(setup.index >> 8);
    if (interface == m_control && entity == kProcessing) return UnitControl(setup, data);
    if (interface == m_streaming && entity == 0) return StreamControl(setup, data);
    return std::nullopt;
}

std::optional<Bytes> VideoFunction::UnitControl(const Setup& setup, const Bytes& data) {
    const auto* range =
        std::find_if(std::begin(kControlRanges), std::end(kControlRanges),
                     [&](const ControlRange& entry) { return entry.selector == setup.value >> 8; });
    if (range == std::end(kControlRanges)) return std::nullopt;
    int& value = m_values[static_cast<size_t>(range - kControlRanges)];
    const auto half = [](int number) { return Little(static_cast<uint32_t>(number), 2); };
    switch (setup.request) {
        case kGetCurrent:
            return half(value);
        case kGetMinimum:
            return half(range->minimum);
        case kGetMaximum:
            return half(range->maximum);
        case kGetStep:
            return half(1);
        case kGetDefault:
            return half(range->first);
        case kGetInfo:
            return Little(3, 1);  // can be read and set
        case kGetLength:
            return half(2);
        case kSetCurrent: {
            if (data.size() != 2) return std::nullopt;
            const auto wanted = static_cast<int16_t>(data[0] | data[1] << 8);
            if (wanted < range->minimum || wanted > range->maximum) return std::nullopt;
            value = wanted;
            return Bytes{};
        }
        default:
            return std::nullopt;
    }
}

// The requested size, or the first; the nearest of its rates.
VideoFunction::Choice VideoFunction::Nearest(uint8_t frame, uint32_t interval) const {
    Choice choice;
    if (frame >= 1 && frame <= m_sizes.size()) choice.frame = frame;
    const std::vector<int>& rates = m_sizes[choice.frame - 1u].fps;
    choice.interval = IntervalOf(rates.front());
    if (interval == 0) return choice;
    const auto distance = [interval](uint32_t other) {
        return std::llabs(int64_t{other} - int64_t{interval});
    };
    for (const int fps : rates)
        if (distance(IntervalOf(fps)) < distance(choice.interval))
            choice.interval = IntervalOf(fps);
    return choice;
}

Bytes VideoFunction::ProbeRecord(const Choice& choice) const {
    Bytes out;
    AppendFields(out, {Half(0), 1, choice.frame, Whole(choice.interval), Half(0), Half(0), Half(0),
                       Half(0), Half(0), Whole(FrameBytes(choice)), Whole(kPayload)});
    return out;
}

std::optional<Bytes> VideoFunction::StreamControl(const Setup& setup, const Bytes& data) {
    const int selector = setup.value >> 8;
    if (selector != kProbe && selector != kCommit) return std::nullopt;
    Choice& choice = selector == kProbe ? m_probed : m_committed;
    switch (setup.request) {
        case kGetCurrent:
            return ProbeRecord(choice);
        case kGetMinimum:
        case kGetMaximum:
        case kGetDefault:
            return ProbeRecord(Nearest(choice.frame, 0));
        case kGetInfo:
            return Little(3, 1);
        case kGetLength:
            return Little(kProbeSize, 2);
        case kSetCurrent:
            if (data.size() < kProbeSize) return std::nullopt;
            choice = Nearest(data[3], data[4] | uint32_t{data[5]} << 8 | uint32_t{data[6]} << 16 |
                                          uint32_t{data[7]} << 24);
            if (selector == kCommit) Stop();
            return Bytes{};
        default:
            return std::nullopt;
    }
}

// ---- the stream

bool VideoFunction::Submit(Urb urb) { return m_waiting.Add(std::move(urb)); }

void VideoFunction::Stop() {
    m_sent = m_picture.size();
    m_running = false;
}

Micros VideoFunction::NextDue() const {
    if (m_waiting.Empty()) return kNever;
    return !m_running || m_sent < m_picture.size() ? 0 : m_next;
}

void VideoFunction::BeginFrame(Micros now) {
    const Micros interval = m_committed.interval / 10;
    // A delayed camera goes on from now.
    if (!m_running || m_next < now - interval) m_next = now;
    m_next += interval;
    m_running = true;
    m_toggle = !m_toggle;
    ++m_number;
    const SizeSpec& size = m_sizes[m_committed.frame - 1u];
    m_picture.resize(FrameBytes(m_committed));
    m_sent = 0;
    FrameRequest request;
    request.size = static_cast<uint32_t>(m_picture.size());
    request.stride = static_cast<uint32_t>(size.width * kBytesPerPixel);
    request.sink = [this](uint64_t offset, const void* data, uint32_t bytes) {
        std::memcpy(m_picture.data() + offset, data, bytes);
        return true;
    };
    DrawPicture(request, m_number);
}

void VideoFunction::Advance(Micros now, Bytes& out) {
    while (!m_waiting.Empty() && NextDue() <= now) {
        const Urb& urb = m_waiting.Front();
        if (urb.length <= kPayloadHeader) {
            AppendAnswer(urb, kStall, {}, out);
            m_waiting.Pop();
            continue;
        }
        if (!m_running || m_sent == m_picture.size()) BeginFrame(now);
        const size_t room = std::min(urb.length, kPayload) - kPayloadHeader;
        const size_t part = std::min(room, m_picture.size() - m_sent);
        const bool last = m_sent + part == m_picture.size();
        Bytes payload(kPayloadHeader + part);
        payload[0] = kPayloadHeader;
        payload[1] =
            static_cast<uint8_t>(kEndOfHeader | (m_toggle ? 1 : 0) | (last ? kEndOfFrame : 0));
        std::memcpy(payload.data() + kPayloadHeader, m_picture.data() + m_sent, part);
        m_sent += part;
        AppendAnswer(urb, 0, payload, out);
        m_waiting.Pop();
    }
}

}  // namespace qvsim::usb
