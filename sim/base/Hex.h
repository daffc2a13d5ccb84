// Bytes to hexadecimal text and back, and the CRC-32 that journal lines carry for data.
// Pure functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvsim {

std::string ToHex(const void* data, size_t size);
// False when the text does not hold exactly `size` bytes.
bool FromHex(const std::string& text, void* data, size_t size);
// The usual reflected CRC-32 (polynomial 0xEDB88320); `crc` continues an earlier part.
uint32_t Crc32(const void* data, size_t size, uint32_t crc = 0);

}  // namespace qvsim
