// Builds firmware packages for tests, byte by byte from the description of the format,
// independently of the code that reads them. Fields that are not set get a pattern, so that a test
// notices every byte that is not copied. One thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace qvtest {

using Bytes = std::vector<uint8_t>;

// `size` bytes that differ from seed to seed.
inline Bytes Payload(size_t size, uint32_t seed) {
    Bytes bytes(size);
    uint32_t value = seed * 2654435761u + 12345u;
    // Plain pointers: tests are not optimised, and some packages have many megabytes.
    for (uint8_t *byte = bytes.data(), *const end = byte + size; byte != end; ++byte) {
        value = value * 1664525u + 1013904223u;
        *byte = static_cast<uint8_t>(value >> 24);
    }
    return bytes;
}

// Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 65537).Write("a.qvf");
class PackageBuilder {
  public:
    PackageBuilder& Firmware(int major, int minor) {
        m_version = static_cast<uint32_t>(major) << 16 | static_cast<uint32_t>(minor);
        return *this;
    }
    PackageBuilder& ProductCode(uint16_t code) {
        m_productCode = code;
        return *this;
    }
    PackageBuilder& Hardware(char version) {
        m_hardware = version;
        return *this;
    }
    PackageBuilder& Compatibility(uint16_t code) {
        m_compatibility = code;
        return *this;
    }
    // With a payload of its own.
    PackageBuilder& Section(const std::string& name, uint32_t address, uint32_t size) {
        return Section(name, address, Payload(size, static_cast<uint32_t>(m_sections.size()) + 1));
    }
    PackageBuilder& Section(const std::string& name, uint32_t address, const Bytes& data) {
        m_sections.push_back({name, address, static_cast<uint32_t>(data.size()), data});
        return *this;
    }

    // --- packages that are wrong -------------------------------------------------------------
    PackageBuilder& Magic(const std::string& magic) {
        m_magic = magic;
        return *this;
    }
    PackageBuilder& HeaderLength(uint16_t length) {
        m_headerLength = length;
        return *this;
    }
    PackageBuilder& SectionCount(uint8_t count) {
        m_sectionCount = count;
        return *this;
    }
    // Sets what the table says about the last section, whatever its data.
    PackageBuilder& ClaimSize(uint32_t size) {
        m_sections.back().size = size;
        return *this;
    }

    uint32_t Length() const { return 157 + 28 * static_cast<uint32_t>(m_sections.size()); }
    const Bytes& Data(size_t section) const { return m_sections.at(section).data; }

    // Fixed part and section table, which are also written to flash.
    Bytes Header() const {
        Bytes out;
        for (const char c : m_magic) out.push_back(static_cast<uint8_t>(c));
        Pattern(out, 4, 0xA0);
        Put16(out, m_compatibility);
        Put16(out, m_headerLength.value_or(static_cast<uint16_t>(Length())));
        Put16(out, m_productCode);
        out.push_back(static_cast<uint8_t>(m_hardware));
        Pattern(out, 1, 0xB0);
        Put32(out, m_version);
        Pattern(out, 136, 0x10);
        out.push_back(m_sectionCount.value_or(static_cast<uint8_t>(m_sections.size())));
        for (const SectionPlan& section : m_sections) {
            for (size_t i = 0; i < 16; ++i)
                out.push_back(i < section.name.size() ? static_cast<uint8_t>(section.name[i]) : 0);
            Put32(out, section.address);
            Put32(out, section.size);
            Pattern(out, 4, 0xC0);
        }
        return out;
    }

    Bytes File() const {
        Bytes out = Header();
        for (const SectionPlan& section : m_sections)
            out.insert(out.end(), section.data.begin(), section.data.end());
        return out;
    }

    void Write(const std::string& path) const { WriteBytes(path, File()); }

    static void WriteBytes(const std::string& path, const Bytes& bytes) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        ASSERT_TRUE(file.flush().good()) << path;
    }

  private:
    struct SectionPlan {
        std::string name;
        uint32_t address;
        uint32_t size;
        Bytes data;
    };

    static void Put16(Bytes& out, uint16_t value) {
        out.push_back(static_cast<uint8_t>(value));
        out.push_back(static_cast<uint8_t>(value >> 8));
    }
    static void Put32(Bytes& out, uint32_t value) {
        Put16(out, static_cast<uint16_t>(value));
        Put16(out, static_cast<uint16_t>(value >> 16));
    }
    static void Pattern(Bytes& out, size_t count, size_t first) {
        for (size_t i = 0; i < count; ++i) out.push_back(static_cast<uint8_t>(first + i));
    }

    std::string m_magic = "QVFH";
    uint16_t m_compatibility = 1;
    std::optional<uint16_t> m_headerLength;
    uint16_t m_productCode = 0x0101;  // the simulated cards' own
    char m_hardware = 'A';
    uint32_t m_version = 0x00010001;
    std::optional<uint8_t> m_sectionCount;
    std::vector<SectionPlan> m_sections;
};

inline PackageBuilder Package() { return {}; }

}  // namespace qvtest
