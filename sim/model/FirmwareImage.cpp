// Judges whether an image in flash is complete, and chooses which one runs. Only reads flash.
#include "FirmwareImage.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace qvsim {
namespace {

constexpr uint8_t kMagic[4] = {'Q', 'V', 'F', 'H'};
constexpr uint32_t kMaxSections = 16;

uint16_t U16(const uint8_t* at) { return static_cast<uint16_t>(at[0] | at[1] << 8); }
uint32_t U32(const uint8_t* at) { return U16(at) | static_cast<uint32_t>(U16(at + 2)) << 16; }

struct Section {
    bool safe = false;   // belongs to the safe image
    bool clear = false;  // has to be blank
    uint32_t address = 0;
    uint32_t size = 0;
};

uint32_t HeaderLength(uint32_t sections) {
    return kHeaderFixedLength + sections * kHeaderSectionLength;
}

// The sections of a header; nothing when there is none.
std::optional<std::vector<Section>> SectionsOf(const NorFlash& flash, uint32_t address) {
    if (!ReadHeader(flash, address).valid) return std::nullopt;
    uint8_t header[kHeaderFixedLength + kMaxSections * kHeaderSectionLength];
    if (!flash.Read(address, header, kHeaderFixedLength)) return std::nullopt;
    std::vector<Section> sections(header[156]);
    if (!flash.Read(address, header, HeaderLength(header[156]))) return std::nullopt;
    const uint8_t* at = header + kHeaderFixedLength;
    for (Section& section : sections) {
        char name[17] = {};
        std::memcpy(name, at, 16);
        section.safe = std::strncmp(name, "Upgrade.", 8) == 0;
        section.clear = std::strstr(name, "Factory.CLR.") || std::strstr(name, "Upgrade.CLR");
        section.address = U32(at + 16);
        section.size = U32(at + 20);
        at += kHeaderSectionLength;
    }
    return sections;
}

}  // namespace

bool ImageComplete(const NorFlash& flash, uint32_t address, bool safe) {
    const auto sections = SectionsOf(flash, address);
    if (!sections) return false;
    if (!flash.Programmed(address, HeaderLength(static_cast<uint32_t>(sections->size()))))
        return false;
    return std::all_of(sections->begin(), sections->end(), [&](const Section& section) {
        if (section.safe != safe) return true;
        return section.clear ? flash.Blank(section.address, section.size)
                             : flash.Programmed(section.address, section.size);
    });
}

bool LoadDump(NorFlash& flash, uint32_t firmwareOffset, const std::vector<uint8_t>& dump) {
    if (dump.size() > flash.Size() || !flash.Erase(0, flash.Size())) return false;
    for (size_t at = 0; at < dump.size(); at += NorFlash::kSector) {
        const auto n = static_cast<uint32_t>(std::min<size_t>(dump.size() - at, NorFlash::kSector));
        const auto begin = dump.begin() + static_cast<ptrdiff_t>(at);
        if (std::all_of(begin, begin + n, [](uint8_t byte) { return byte == 0xFF; })) continue;
        if (!flash.Program(static_cast<uint32_t>(at), &dump[at], n)) return false;
    }
    const uint32_t safeAddress = firmwareOffset + kSafeHeaderDistance;
    for (const uint32_t address : {safeAddress, firmwareOffset}) {
        const auto sections = SectionsOf(flash, address);
        if (!sections) continue;
        if (!flash.SetBootAddress(address)) return false;
        for (const Section& section : *sections)
            if (flash.InRange(section.address, section.size) && !section.clear &&
                !flash.Blank(section.address, section.size) &&
                !flash.Mark(section.address, section.size, true))
                return false;
    }
    return true;
}

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
