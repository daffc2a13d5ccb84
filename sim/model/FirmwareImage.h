// How a card finds its firmware after power-on. Reads flash, changes nothing. Not locked.
#pragma once

#include <cstdint>
#include <vector>

#include "NorFlash.h"

namespace qvsim {

// The safe image's header stands this far behind the main image's.
inline constexpr uint32_t kSafeHeaderDistance = 4096;

inline constexpr uint32_t kHeaderFixedLength = 157;
inline constexpr uint32_t kHeaderSectionLength = 28;

struct StoredHeader {
    bool valid = false;  // magic, section count and header length agree
    uint32_t version = 0;
    uint16_t compatibilityCode = 0;
};

StoredHeader ReadHeader(const NorFlash& flash, uint32_t address);

// A header with no sections, as a factory leaves it.
std::vector<uint8_t> MakeHeader(uint32_t version, uint16_t compatibilityCode, uint16_t productCode,
                                uint8_t hardwareVersion);

// The version that a card runs after power-on. Of the two images the one whose header was
// programmed last is tried first; an image counts when its header is valid and it, and every
// section that belongs to it, holds exactly what was programmed. Otherwise the other image, and
// when neither is complete the factory's golden version.
uint32_t LoadFirmware(const NorFlash& flash, uint32_t firmwareOffset, uint32_t goldenVersion);

}  // namespace qvsim
