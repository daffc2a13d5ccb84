#include "EmulatedDevice.h"

#include <algorithm>

#include "ControlRequests.h"

namespace qvsim::usb {
namespace {

// A vendor and product number without exceptions in any kernel driver.
constexpr uint16_t kVendor = 0x1209;
constexpr uint16_t kProduct = 0x0001;
constexpr char kMaker[] = "Simulated";

constexpr uint8_t kRecipient = 0x1F;
constexpr uint8_t kToInterface = 1;
constexpr uint8_t kToEndpoint = 2;
constexpr uint8_t kKind = 0x60;

constexpr uint8_t kGetStatus = 0;
constexpr uint8_t kClearFeature = 1;
constexpr uint8_t kSetFeature = 3;
constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kGetConfiguration = 8;
constexpr uint8_t kSetConfiguration = 9;
constexpr uint8_t kGetInterface = 10;
constexpr uint8_t kSetInterface = 11;

}  // namespace

EmulatedDevice::EmulatedDevice(DeviceSpec spec, AudioFunction::Listener listener)
    : m_spec(std::move(spec)) {
    m_numbers.Text(kMaker);
    m_numbers.Text(m_spec.product);
    m_numbers.Text(m_spec.serial);
    if (!m_spec.streams.empty())
        m_functions.push_back(
            std::make_unique<AudioFunction>(m_spec.streams, m_numbers, std::move(listener)));
    if (!m_spec.sizes.empty())
        m_functions.push_back(
            std::make_unique<VideoFunction>(m_spec.sizes, m_spec.product, m_numbers));
    const uint8_t control = m_spec.control ? m_numbers.Interface() : uint8_t{0};
    Bytes inner;
    constexpr size_t kTotalAt = 2;
    AppendDescriptor(inner, kConfigurationDescriptor,
                     {Half(0), m_numbers.Interfaces(), 1, 0, 0x80, 50});
    for (const auto& function : m_functions) function->Describe(inner);
    if (m_spec.control) DescribeControl(control, inner);
    AppendWithTotal(m_described, std::move(inner), kTotalAt);
}

bool EmulatedDevice::Receive(const uint8_t* bytes, size_t size, Micros now, Bytes& out) {
    m_received.insert(m_received.end(), bytes, bytes + size);
    size_t done = 0;
    Message message;
    Decoded decoded = Decoded::kMessage;
    for (size_t used = 0; decoded == Decoded::kMessage; done += used) {
        used = 0;
        decoded = Decode(m_received.data() + done, m_received.size() - done, message, used);
        if (decoded == Decoded::kMessage) Serve(message, out);
    }
    m_received.erase(m_received.begin(), m_received.begin() + static_cast<std::ptrdiff_t>(done));
    Advance(now, out);
    return decoded != Decoded::kMalformed;
}

void EmulatedDevice::Serve(Message& message, Bytes& out) {
    Urb& urb = message.urb;
    if (message.unlink) {
        const bool found = std::any_of(m_functions.begin(), m_functions.end(), [&](auto& function) {
            return function->Unlink(message.victim);
        });
        return AppendUnlinked(urb.sequence, found ? kUnlinked : 0, out);
    }
    if (urb.endpoint == 0) {
        const std::optional<Bytes> answer = Control(urb.setup, urb.data);
        return AppendAnswer(urb, answer ? 0 : kStall, answer.value_or(Bytes{}), out);
    }
    const auto address = static_cast<uint8_t>(urb.endpoint | (urb.in ? 0x80 : 0));
    for (const auto& function : m_functions) {
        if (!function->HasEndpoint(address)) continue;
        Urb refused = urb;
        refused.data.clear();
        if (!function->Submit(std::move(urb))) AppendAnswer(refused, kTooMany, {}, out);
        return;
    }
    AppendAnswer(urb, kStall, {}, out);
}

void EmulatedDevice::Advance(Micros now, Bytes& out) {
    for (const auto& function : m_functions) function->Advance(now, out);
}

Micros EmulatedDevice::NextDue() const {
    Micros next = kNever;
    for (const auto& function : m_functions) next = std::min(next, function->NextDue());
    return next;
}

// ---- endpoint 0

UsbFunction* EmulatedDevice::FunctionOf(const Setup& setup) const {
    const auto low = static_cast<uint8_t>(setup.index);
    for (const auto& function : m_functions)
        if ((setup.type & kRecipient) == kToEndpoint ? function->HasEndpoint(low)
                                                     : function->HasInterface(low))
            return function.get();
    return nullptr;
}

std::optional<Bytes> EmulatedDevice::Control(const Setup& setup, const Bytes& data) {
    const bool reads = (setup.type & kFromDevice) != 0;
    if (!reads && data.size() != setup.length) return std::nullopt;
    std::optional<Bytes> answer;
    if ((setup.type & kKind) == 0) {
        answer = Standard(setup);
    } else if ((setup.type & kKind) == kClassRequest) {
        UsbFunction* function = FunctionOf(setup);
        // Set and get have different numbers; a request that says both is invalid.
        if (function && reads == ((setup.request & 0x80) != 0))
            answer = function->Control(setup, data);
    } else if ((setup.type & kKind) == kVendorRequest && m_spec.control) {
        answer = ControlRequest(*m_spec.control, setup, data);
    }
    if (answer && answer->size() > setup.length) answer->resize(setup.length);
    return answer;
}

std::optional<Bytes> EmulatedDevice::Standard(const Setup& setup) {
    switch (setup.request) {
        case kGetStatus:
            return Bytes{0, 0};
        case kClearFeature:
            if ((setup.type & kRecipient) == kToEndpoint)
                if (UsbFunction* function = FunctionOf(setup))
                    function->ClearHalt(static_cast<uint8_t>(setup.index));
            return Bytes{};
        case kSetFeature:
            return Bytes{};
        case kGetDescriptor:
            return Descriptor(setup);
        case kGetConfiguration:
            return Bytes{m_configuration};
        case kSetConfiguration:
            if (setup.value > 1) return std::nullopt;
            m_configuration = static_cast<uint8_t>(setup.value);
            return Bytes{};
        case kGetInterface:
        case kSetInterface:
            return InterfaceRequest(setup);
        default:
            return std::nullopt;
    }
}

std::optional<Bytes> EmulatedDevice::InterfaceRequest(const Setup& setup) {
    UsbFunction* function = (setup.type & kRecipient) == kToInterface ? FunctionOf(setup) : nullptr;
    if (!function) return std::nullopt;
    const auto interface = static_cast<uint8_t>(setup.index);
    if (setup.request == kGetInterface) return Bytes{function->Alternate(interface)};
    if (setup.value > 0xFF || !function->SetAlternate(interface, static_cast<uint8_t>(setup.value)))
        return std::nullopt;
    return Bytes{};
}

std::optional<Bytes> EmulatedDevice::Descriptor(const Setup& setup) const {
    const size_t index = setup.value & 0xFF;
    switch (setup.value >> 8) {
        case kDeviceDescriptor: {
            Bytes out;
            // a device of several functions; texts 1 to 3; one configuration
            AppendDescriptor(out, kDeviceDescriptor,
                             {Half(0x0200), 0xEF, 2, 1, 64, Half(kVendor), Half(kProduct),
                              Half(0x0100), 1, 2, 3, 1});
            return out;
        }
        case kConfigurationDescriptor:
            return m_described;
        case kStringDescriptor:
            if (index == 0) return LanguagesDescriptor();
            if (index > m_numbers.Texts().size()) return std::nullopt;
            return StringDescriptor(m_numbers.Texts()[index - 1]);
        default:
            return std::nullopt;
    }
}

}  // namespace qvsim::usb
