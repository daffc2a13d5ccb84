#include "Hex.h"

#include <array>

namespace qvsim {
namespace {

constexpr std::array<uint32_t, 256> MakeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xEDB88320u : 0u);
        table[i] = value;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kCrcTable = MakeCrcTable();

int Nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string ToHex(const void* data, size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const auto* bytes = static_cast<const uint8_t*>(data);
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

bool FromHex(const std::string& text, void* data, size_t size) {
    if (text.size() != 2 * size) return false;
    auto* bytes = static_cast<uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) {
        const int high = Nibble(text[2 * i]);
        const int low = Nibble(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        bytes[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

uint32_t Crc32(const void* data, size_t size, uint32_t crc) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) crc = (crc >> 8) ^ kCrcTable[(crc ^ bytes[i]) & 0xFF];
    return ~crc;
}

}  // namespace qvsim
