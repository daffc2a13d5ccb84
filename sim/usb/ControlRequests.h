// The commands of a device as vendor requests on endpoint 0.
//
// The numbers are invented, here as in the example transport: request 1 reads a command's payload,
// 2 sends it, 3 fetches the answer to what was sent; the command is the request's value. Pure
// except for the model; thread rule of the model.
#pragma once

#include <optional>

#include "ControlModel.h"
#include "UsbDescriptors.h"

namespace qvsim::usb {

inline constexpr uint8_t kVendorRequest = 0x40;

// An interface without endpoints, so that a program can claim the device.
void DescribeControl(uint8_t interface, Bytes& configuration);

// The data to read, or nothing to stall.
std::optional<Bytes> ControlRequest(ControlModel& device, const Setup& setup, const Bytes& data);

}  // namespace qvsim::usb
