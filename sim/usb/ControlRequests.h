// Commands of a device as vendor requests on endpoint 0.
//
// The numbers are invented, here as in the example transport: request 1 reads a command's payload,
// 2 sends it, 3 fetches the answer to what was sent; the command is the request's value. Pure but
// for the model; its thread.
#pragma once

#include <optional>

#include "ControlModel.h"
#include "UsbDescriptors.h"

namespace qvsim::usb {

inline constexpr uint8_t kVendorRequest = 0x40;

// An interface without endpoints, for who wants the device for himself.
void DescribeControl(uint8_t interface, Bytes& configuration);

// What is read, or nothing to stall.
std::optional<Bytes> ControlRequest(ControlModel& device, const Setup& setup, const Bytes& data);

}  // namespace qvsim::usb
