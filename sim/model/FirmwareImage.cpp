#include "FirmwareImage.h"

#include <cstring>
#include <string>

namespace qvsim {
namespace {

constexpr uint8_t kMagic[4] = {'Q', 'V', 'F', 'H'};
constexpr uint32_t kMaxSections = 16;

uint16_t U16(const uint8_t* at) { return static_cast<uint16_t>(at[0] | at[1] << 8); }
uint32_t U32(const uint8_t* at) { return U16(at) | static_cast<uint32_t>(U16(at + 2)) << 16; }

// True when the section holds what its image needs: programmed data, or nothing at all.
bool SectionComplete(const NorFlash& flash, const uint8_t* section, bool safe) {
    char name[17] = {};
    std::memcpy(name, section, 16);
    const bool belongsToSafe = std::strncmp(name, "Upgrade.", 8) == 0;
    if (belongsToSafe != safe) return true;
    const uint32_t address = U32(section + 16);
    const uint32_t size = U32(section + 20);
    if (std::strstr(name, "Factory.CLR.") || std::strstr(name, "Upgrade.CLR"))
        return flash.Blank(address, size);
    return flash.Programmed(address, size);
}

bool ImageComplete(const NorFlash& flash, uint32_t address, bool safe) {
    if (!ReadHeader(flash, address).valid) return false;
    uint8_t header[kHeaderFixedLength + kMaxSections * kHeaderSectionLength];
    if (!flash.Read(address, header, kHeaderFixedLength)) return false;
    const uint32_t sections = header[156];
    const uint32_t length = kHeaderFixedLength + sections * kHeaderSectionLength;
    if (!flash.Programmed(address, length) || !flash.Read(address, header, length)) return false;
    for (size_t i = 0; i < sections; ++i)
        if (!SectionComplete(flash, header + kHeaderFixedLength + i * kHeaderSectionLength, safe))
            return false;
    return true;
}

}  // namespace

StoredHeader ReadHeader(const NorFlash& flash, uint32_t address) {
    uint8_t header[kHeaderFixedLength];
    StoredHeader result;
    if (!flash.Read(address, header, sizeof header)) return result;
    result.version = U32(header + 16);
    result.compatibilityCode = U16(header + 8);
    result.valid = std::memcmp(header, kMagic, sizeof kMagic) == 0 && header[156] <= kMaxSections &&
                   U16(header + 10) == kHeaderFixedLength + header[156] * kHeaderSectionLength;
    return result;
}

std::vector<uint8_t> MakeHeader(uint32_t version, uint16_t compatibilityCode, uint16_t productCode,
                                uint8_t hardwareVersion) {
    std::vector<uint8_t> header(kHeaderFixedLength);
    const auto put16 = [&](size_t at, uint32_t value) {
        header[at] = static_cast<uint8_t>(value);
        header[at + 1] = static_cast<uint8_t>(value >> 8);
    };
    std::memcpy(header.data(), kMagic, sizeof kMagic);
    put16(8, compatibilityCode);
    put16(10, kHeaderFixedLength);
    put16(12, productCode);
    header[14] = hardwareVersion;
    put16(16, version);
    put16(18, version >> 16);
    return header;
}

uint32_t LoadFirmware(const NorFlash& flash, uint32_t firmwareOffset, uint32_t goldenVersion) {
    const uint32_t safeAddress = firmwareOffset + kSafeHeaderDistance;
    const bool safeFirst = flash.BootAddress() == safeAddress;
    for (const bool safe : {safeFirst, !safeFirst}) {
        const uint32_t address = safe ? safeAddress : firmwareOffset;
        if (ImageComplete(flash, address, safe)) return ReadHeader(flash, address).version;
    }
    return goldenVersion;
}

}  // namespace qvsim
