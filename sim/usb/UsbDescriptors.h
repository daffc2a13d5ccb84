// Building blocks of USB descriptors, in the bus's little-endian bytes.
//
// A descriptor's length is counted, never typed. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "UsbWire.h"

namespace qvsim::usb {

inline constexpr uint8_t kDeviceDescriptor = 1;
inline constexpr uint8_t kConfigurationDescriptor = 2;
inline constexpr uint8_t kStringDescriptor = 3;
inline constexpr uint8_t kInterfaceDescriptor = 4;
inline constexpr uint8_t kEndpointDescriptor = 5;
inline constexpr uint8_t kAssociationDescriptor = 11;
inline constexpr uint8_t kClassInterface = 0x24;
inline constexpr uint8_t kClassEndpoint = 0x25;

// A field of one byte, unless said otherwise.
struct Field {
    template <class Number>
    constexpr Field(Number number) : value(static_cast<uint32_t>(number)) {}
    constexpr Field(uint32_t number, int bytes) : value(number), size(bytes) {}
    uint32_t value;
    int size = 1;
};
constexpr Field Half(uint32_t value) { return {value, 2}; }
constexpr Field Three(uint32_t value) { return {value, 3}; }
constexpr Field Whole(uint32_t value) { return {value, 4}; }

// Appends a descriptor of this type, with its length before it.
void AppendDescriptor(Bytes& out, uint8_t type, const std::vector<Field>& fields);
// The fields alone.
void AppendFields(Bytes& out, const std::vector<Field>& fields);
// Appends `inner`, class descriptors that begin with a header, and writes their total length into
// that header at `offset`.
void AppendWithTotal(Bytes& out, Bytes inner, size_t offset);

Bytes StringDescriptor(const std::string& text);
Bytes LanguagesDescriptor();

// Shared by the functions of a device: numbers of interfaces and endpoints, and texts.
class Numbers {
  public:
    uint8_t Interface() { return m_interfaces++; }
    uint8_t InEndpoint() { return static_cast<uint8_t>(0x80 | ++m_inEndpoints); }
    uint8_t OutEndpoint() { return ++m_outEndpoints; }
    uint8_t Text(const std::string& text) {
        m_texts.push_back(text);
        return static_cast<uint8_t>(m_texts.size());
    }
    uint8_t Interfaces() const { return m_interfaces; }
    const std::vector<std::string>& Texts() const { return m_texts; }  // text n is at n - 1

  private:
    uint8_t m_interfaces = 0;
    uint8_t m_inEndpoints = 0;
    uint8_t m_outEndpoints = 0;
    std::vector<std::string> m_texts;
};

}  // namespace qvsim::usb
