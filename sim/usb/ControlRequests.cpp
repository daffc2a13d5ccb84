#include "ControlRequests.h"

#include "UsbFunction.h"

namespace qvsim::usb {
namespace {

constexpr uint8_t kGet = 1;
constexpr uint8_t kSet = 2;
constexpr uint8_t kAnswer = 3;
constexpr uint8_t kVendorClass = 0xFF;
constexpr uint8_t kToDevice = 0;

}  // namespace

void DescribeControl(uint8_t interface, Bytes& configuration) {
    AppendDescriptor(configuration, kInterfaceDescriptor, {interface, 0, 0, kVendorClass, 0, 0, 0});
}

std::optional<Bytes> ControlRequest(ControlModel& device, const Setup& setup, const Bytes& data) {
    const bool reads = (setup.type & kFromDevice) != 0;
    if ((setup.type & 0x1F) != kToDevice || setup.index != 0 || setup.value > 0xFF)
        return std::nullopt;
    const auto command = static_cast<uint8_t>(setup.value);
    if (setup.request == kGet && reads) return device.Get(command, setup.length);
    if (setup.request == kAnswer && reads) return device.Answer();
    if (setup.request == kSet && !reads && device.Set(command, data)) return Bytes{};
    return std::nullopt;
}

}  // namespace qvsim::usb
