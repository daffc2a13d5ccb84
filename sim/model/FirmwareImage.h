// How a card finds its firmware after power-on. Not locked.
#pragma once

#include <cstdint>
#include <vector>

#include "NorFlash.h"

namespace qvsim {

// Distance from the main image's header to the safe image's, bytes.
inline constexpr uint32_t kSafeHeaderDistance = 4096;

inline constexpr uint32_t kHeaderFixedLength = 157;
inline constexpr uint32_t kHeaderSectionLength = 28;

struct StoredHeader {
    bool valid = false;  // magic, section count and header length agree
    uint32_t version = 0;
    uint16_t compatibilityCode = 0;
};

StoredHeader ReadHeader(const NorFlash& flash, uint32_t address);

// A header without sections, as from the factory.
std::vector<uint8_t> MakeHeader(uint32_t version, uint16_t compatibilityCode, uint16_t productCode,
                                uint8_t hardwareVersion);

// True when the image whose header is at `address` can run: the header is valid, and it and every
// section of the image are programmed; clear sections are blank.
bool ImageComplete(const NorFlash& flash, uint32_t address, bool safe);

// Writes the bytes of a dumped chip, the rest blank. Every sector that is not blank counts as
// programmed; so does the whole of each section that a header names, unless it is blank. The main
// image's header, if there is one, counts as the last one written. False when the chip is too small
// or cannot be written.
bool LoadDump(NorFlash& flash, uint32_t firmwareOffset, const std::vector<uint8_t>& dump);

// The version that a card runs after power-on. Of the two images the one whose header was
// programmed last is tried first, then the other, and when neither is complete the factory's golden
// version runs.
uint32_t LoadFirmware(const NorFlash& flash, uint32_t firmwareOffset, uint32_t goldenVersion);

}  // namespace qvsim
