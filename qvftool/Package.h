// A firmware package as data, read from bytes and turned into bytes again without losing any.
//
// The format is described in docs/man/qvf.5.scd. The reader is independent of the upgrade tool's,
// because it judges how that one will read a file. Every failure is a Mistake. Values may be used
// from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvf {

using Bytes = std::vector<uint8_t>;
// Bytes of somebody else, one piece behind the other: a package of many megabytes is not put
// together only to be passed on.
using Pieces = std::vector<std::span<const uint8_t>>;

// What is wrong and where, as a message for the user.
struct Mistake : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline constexpr size_t kFixedLength = 157;
inline constexpr size_t kEntryLength = 28;
inline constexpr size_t kMaxSections = 16;
inline constexpr size_t kNameLength = 16;
inline constexpr uint32_t kEraseSector = 4096;

struct Section {
    std::array<uint8_t, kNameLength> name{};
    uint32_t address = 0;
    uint32_t size = 0;
    std::array<uint8_t, 4> reserved24{};
    Bytes data;  // empty when only the header was read

    std::string NameText() const;  // up to the first zero byte
    bool NameIsPlain() const;      // printable characters, then only zero bytes
    bool ForUpgradeImage() const;
    bool IsClear() const;
    uint64_t End() const { return uint64_t{address} + size; }
};

struct Package {
    std::array<uint8_t, 4> reserved4{};
    uint16_t compatibilityCode = 0;
    uint16_t productCode = 0;
    uint8_t hardwareVersion = 0;
    std::array<uint8_t, 1> reserved15{};
    uint32_t firmwareVersion = 0;
    std::array<uint8_t, 136> reserved20{};
    std::vector<Section> sections;
    Bytes trailing;  // after the last section; empty when only the header was read
    uint64_t trailingSize = 0;

    size_t HeaderLength() const { return kFixedLength + kEntryLength * sections.size(); }
    uint64_t DataSize() const;
};

enum class Read { kHeader, kEverything };

// Reads a package file. Even with kHeader, the file must be long enough for all its data.
Package ReadPackage(const std::string& path, Read what);

// Each section's size must be that of its data.
Bytes Serialize(const Package& package);

std::string VersionText(uint32_t version);          // "1.2"
std::string HardwareText(uint8_t version);          // "A", or "0x07" when it is no plain character
std::string HexNumber(uint64_t value, int digits);  // "0x00200000"

}  // namespace qvf
