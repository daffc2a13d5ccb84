#include "Info.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "Check.h"

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

// Names from files may hold anything; terminals and JSON get plain characters.
std::string ShownName(const Section& section) {
    return section.NameIsPlain() ? section.NameText() : "hex:" + HexDigits(section.name);
}

std::string Line(const char* label, const std::string& value) {
    char text[64];
    std::snprintf(text, sizeof text, "  %-15s ", label);
    return text + value + "\n";
}

std::string SectionLine(size_t number, const Section& section) {
    char text[160];
    std::snprintf(text, sizeof text, "  %2zu  %-16s  0x%08x  %10u  %-7s  %s%s\n", number,
                  ShownName(section).c_str(), section.address, section.size, ImageOf(section),
                  HexDigits(section.reserved24).c_str(), section.IsClear() ? "  clear" : "");
    return text;
}

}  // namespace

std::string InfoText(const std::string& name, const Package& package) {
    std::string out = name + "\n";
    out += Line("firmware", VersionText(package.firmwareVersion));
    out += Line("product code", HexNumber(package.productCode, 4));
    out += Line("hardware", HardwareText(package.hardwareVersion));
    out += Line("compatibility", std::to_string(package.compatibilityCode));
    out += Line("header", std::to_string(package.HeaderLength()) + " bytes");
    out += Line("data", std::to_string(package.DataSize()) + " bytes");
    if (package.trailingSize > 0)
        out += Line("behind the data", std::to_string(package.trailingSize) + " bytes");
    out += Line("reserved4", HexDigits(package.reserved4));
    out += Line("reserved15", HexDigits(package.reserved15));
    out += Line("reserved20", HexDigits(package.reserved20));
    if (package.sections.empty()) return out + "  no sections\n";
    char heading[160];
    std::snprintf(heading, sizeof heading, "  %2s  %-16s  %-10s  %10s  %-7s  %s\n", "#", "name",
                  "address", "bytes", "image", "reserved24");
    out += heading;
    for (size_t i = 0; i < package.sections.size(); ++i)
        out += SectionLine(i + 1, package.sections[i]);
    for (const std::string& finding : Overlaps(package)) out += "  overlap: " + finding + "\n";
    return out;
}

std::string InfoJson(const std::string& name, const Package& package) {
    nlohmann::ordered_json json;
    json["file"] = name;
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
    for (const Section& section : package.sections) {
        nlohmann::ordered_json entry;
        entry["name"] = ShownName(section);
        entry["name_hex"] = HexDigits(section.name);
        entry["address"] = section.address;
        entry["size"] = section.size;
        entry["image"] = ImageOf(section);
        entry["clear"] = section.IsClear();
        entry["reserved24"] = HexDigits(section.reserved24);
        json["sections"].push_back(entry);
    }
    json["overlaps"] = Overlaps(package);
    // A file name need not be UTF-8.
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace qvf
