// One emulated USB device: descriptors, standard requests, and its functions; bytes in, bytes out.
//
// Knows no sockets and no clock. A malformed message ends the connection. One thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "AudioFunction.h"
#include "ControlModel.h"
#include "UsbFunction.h"
#include "VideoFunction.h"

namespace qvsim::usb {

struct DeviceSpec {
    std::string product;
    std::string serial;
    std::vector<StreamSpec> streams;  // empty: no sound card
    std::vector<SizeSpec> sizes;      // empty: no camera
    // The part that survives being pulled out; null: cannot be controlled.
    std::shared_ptr<ControlModel> control = {};
};

class EmulatedDevice {
  public:
    EmulatedDevice(DeviceSpec spec, AudioFunction::Listener listener);

    // Takes bytes in any pieces and answers what can be answered at once. False when a message is
    // malformed: nothing after it can be parsed.
    bool Receive(const uint8_t* bytes, size_t size, Micros now, Bytes& out);
    void Advance(Micros now, Bytes& out);
    Micros NextDue() const;

    bool Configured() const { return m_configuration != 0; }
    const DeviceSpec& Spec() const { return m_spec; }
    const Bytes& ConfigurationDescriptor() const { return m_described; }

  private:
    void Serve(Message& message, Bytes& out);
    // The data to read, or nothing to stall.
    std::optional<Bytes> Control(const Setup& setup, const Bytes& data);
    std::optional<Bytes> Standard(const Setup& setup);
    std::optional<Bytes> Descriptor(const Setup& setup) const;
    std::optional<Bytes> InterfaceRequest(const Setup& setup);
    UsbFunction* FunctionOf(const Setup& setup) const;

    DeviceSpec m_spec;
    Numbers m_numbers;
    std::vector<std::unique_ptr<UsbFunction>> m_functions;
    Bytes m_described;
    Bytes m_received;
    uint8_t m_configuration = 0;
};

}  // namespace qvsim::usb
