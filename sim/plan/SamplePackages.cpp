#include "SamplePackages.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>

#include "FirmwareImage.h"
#include "NorFlash.h"
#include "Settings.h"

namespace qvsim {
namespace {

constexpr uint32_t kHeaderArea = 0x10000;  // both headers are at its beginning
constexpr uint32_t kMostBytes = 256u << 10;

struct Section {
    const char* name;
    uint32_t address;
    uint32_t size;
};

void Put32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> 8 * i);
}

std::vector<uint8_t> Package(std::vector<uint8_t> header, const std::vector<Section>& sections) {
    const auto length =
        static_cast<uint32_t>(kHeaderFixedLength + sections.size() * kHeaderSectionLength);
    header[10] = static_cast<uint8_t>(length);
    header[11] = static_cast<uint8_t>(length >> 8);
    header[156] = static_cast<uint8_t>(sections.size());
    for (const Section& section : sections) {
        const size_t at = header.size();
        header.resize(at + kHeaderSectionLength);
        std::memcpy(&header[at], section.name, std::strlen(section.name));
        Put32(&header[at + 16], section.address);
        Put32(&header[at + 20], section.size);
    }
    for (const Section& section : sections)
        for (uint32_t i = 0; i < section.size; ++i)
            header.push_back(PatternByte(section.address, i));
    return header;
}

std::string FileName(const BoardPlan& board, uint32_t version) {
    std::string name;
    for (const char c : board.product)
        name += std::isalnum(static_cast<unsigned char>(c)) != 0
                    ? static_cast<char>(std::tolower(static_cast<unsigned char>(c)))
                    : '-';
    return name + "-" + std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
}

std::vector<uint8_t> PackageFor(const BoardPlan& board, uint32_t version) {
    const uint16_t code = board.stored ? board.stored->compatibilityCode : uint16_t{1};
    const uint32_t begin = board.firmwareOffset + kHeaderArea;
    const uint32_t room = board.flashSize > begin ? board.flashSize - begin : 0;
    const uint32_t size = std::min(kMostBytes, room / 2 / NorFlash::kSector * NorFlash::kSector);
    if (size == 0) return {};
    std::vector<Section> sections = {{"Factory.Main", begin, size}};
    if (code != 1) sections.push_back({"Upgrade.Main", begin + size, size});
    return Package(
        MakeHeader(version, code, board.productCode, static_cast<uint8_t>(board.hardware)),
        sections);
}

}  // namespace

std::string MakePackages(const CardsPlan& plan, std::vector<SamplePackage>& packages) {
    packages.clear();
    std::set<std::pair<uint16_t, char>> done;
    std::set<std::string> names;
    for (const BoardPlan& board : plan.boards) {
        if (!done.insert({board.productCode, board.hardware}).second) continue;
        const uint32_t version = board.firmware + 1;
        SamplePackage package{FileName(board, version), PackageFor(board, version)};
        if (package.bytes.empty())
            return board.product + ": its flash has no room for the sections of a package";
        while (!names.insert(package.name).second) package.name += "-x";
        package.name += ".qvf";
        packages.push_back(std::move(package));
    }
    return {};
}

}  // namespace qvsim
