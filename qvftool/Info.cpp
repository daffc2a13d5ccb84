#include "Info.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Digest.h"
#include "Escape.h"
#include "Rules.h"

namespace qvf {
namespace {

template <class Array>
std::string HexDigits(const Array& bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string digits;
    digits.reserve(2 * bytes.size());
    for (const uint8_t byte : bytes) {
        digits += kDigits[byte >> 4];
        digits += kDigits[byte & 15];
    }
    return digits;
}

const char* ImageOf(const Section& section) {
    return section.ForUpgradeImage() ? "upgrade" : "main";
}

// Names from files may contain anything; terminals and JSON get plain characters.
std::string ShownName(const Section& section) {
    return section.NameIsPlain() ? section.NameText() : "hex:" + HexDigits(section.name);
}

std::string Line(const char* label, const std::string& value) {
    char text[64];
    std::snprintf(text, sizeof text, "  %-15s ", label);
    return text + value + "\n";
}

template <class Array>
bool IsZero(const Array& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

// A zero array is shown only on request.
template <class Array>
std::string ReservedLine(const char* label, const Array& bytes, bool zeros) {
    return zeros || !IsZero(bytes) ? Line(label, HexDigits(bytes)) : "";
}

std::string SectionLine(size_t number, const Section& section, bool reserved) {
    char text[160];
    std::snprintf(text, sizeof text, "  %2zu  %-16s  0x%08x  %10u  %-7s", number,
                  ShownName(section).c_str(), section.address, section.size, ImageOf(section));
    std::string line = text;
    if (reserved) line += "  " + HexDigits(section.reserved24);
    if (section.IsClear()) line += "  clear";
    return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

std::string SectionTable(const Package& package, const Digests& digests, bool zeros) {
    const std::vector<Section>& all = package.sections;
    if (all.empty()) return "  no sections\n";
    const bool reserved = zeros || std::any_of(all.begin(), all.end(), [](const Section& section) {
                              return !IsZero(section.reserved24);
                          });
    char heading[160];
    std::snprintf(heading, sizeof heading, "  %2s  %-16s  %-10s  %10s  %s\n", "#", "name",
                  "address", "bytes", reserved ? "image    reserved24" : "image");
    std::string out = heading;
    for (size_t i = 0; i < all.size(); ++i) {
        out += SectionLine(i + 1, all[i], reserved);
        out += "      sha256 " + digests.sections[i] + "\n";
    }
    return out;
}

}  // namespace

Digests DigestsOf(const Package& package) {
    Digests digests{Sha256(Serialize(package)), {}};
    for (const Section& section : package.sections)
        digests.sections.push_back(Sha256(section.data));
    return digests;
}

std::string InfoText(const std::string& name, const Package& package, const Digests& digests,
                     bool zeros) {
    std::string out = Escaped(name) + "\n";
    out += Line("firmware", VersionText(package.firmwareVersion));
    out += Line("product code", HexNumber(package.productCode, 4));
    out += Line("hardware", HardwareText(package.hardwareVersion));
    out += Line("compatibility", std::to_string(package.compatibilityCode));
    out += Line("header", std::to_string(package.HeaderLength()) + " bytes");
    out += Line("data", std::to_string(package.DataSize()) + " bytes");
    if (package.trailingSize > 0)
        out += Line("behind the data", std::to_string(package.trailingSize) + " bytes");
    out += Line("sha256", digests.file);
    out += ReservedLine("reserved4", package.reserved4, zeros);
    out += ReservedLine("reserved15", package.reserved15, zeros);
    out += ReservedLine("reserved20", package.reserved20, zeros);
    out += SectionTable(package, digests, zeros);
    for (const std::string& finding : Overlaps(package)) out += "  overlap: " + finding + "\n";
    return out;
}

std::string InfoJson(const std::string& name, const Package& package, const Digests& digests) {
    nlohmann::ordered_json json;
    json["schema"] = "qvftool-info";
    json["version"] = 1;
    json["file"] = name;
    json["sha256"] = digests.file;
    json["firmware"] = VersionText(package.firmwareVersion);
    json["firmware_version"] = package.firmwareVersion;
    json["product_code"] = package.productCode;
    json["hardware"] = package.hardwareVersion;
    json["hardware_text"] = HardwareText(package.hardwareVersion);
    json["compatibility"] = package.compatibilityCode;
    json["header_length"] = package.HeaderLength();
    json["data_size"] = package.DataSize();
    json["trailing_size"] = package.trailingSize;
    json["reserved4"] = HexDigits(package.reserved4);
    json["reserved15"] = HexDigits(package.reserved15);
    json["reserved20"] = HexDigits(package.reserved20);
    json["sections"] = nlohmann::ordered_json::array();
    for (size_t i = 0; i < package.sections.size(); ++i) {
        const Section& section = package.sections[i];
        nlohmann::ordered_json entry;
        entry["name"] = ShownName(section);
        entry["name_hex"] = HexDigits(section.name);
        entry["address"] = section.address;
        entry["size"] = section.size;
        entry["image"] = ImageOf(section);
        entry["clear"] = section.IsClear();
        entry["reserved24"] = HexDigits(section.reserved24);
        entry["sha256"] = digests.sections[i];
        json["sections"].push_back(entry);
    }
    json["overlaps"] = Overlaps(package);
    // A file name need not be UTF-8.
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace qvf
