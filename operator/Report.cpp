// What reports have in common: texts and JSON of cards, packages and images. No report of its own.
#include "Report.h"

#include <nlohmann/json.hpp>

#include "Escape.h"

namespace qvo {
namespace {

constexpr int kAddressDigits = 8;

Json DifferenceJson(const Difference& difference) {
    Json json;
    json["section"] = difference.section;
    json["name"] = difference.name;
    json["address"] = difference.address;
    json["size"] = difference.size;
    json["clear"] = difference.clear;
    json["first_offset"] = difference.firstOffset;
    json["bytes"] = difference.bytes > 0 ? Json(difference.bytes) : Json(nullptr);
    return json;
}

}  // namespace

std::string DumpIndented(const Json& json) {
    return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

std::string DumpLine(const Json& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

Json CardJson(const Card& card) {
    Json json;
    json["card"] = card.Name();
    json["path"] = card.path;
    json["paths"] = card.paths;
    const bool known = card.identified;
    json["board"] = known ? Json(card.board) : Json(nullptr);
    json["channel"] = known ? Json(card.channel) : Json(nullptr);
    json["family"] = known ? Json(card.family) : Json(nullptr);
    json["product"] = known ? Json(card.product) : Json(nullptr);
    json["serial"] = known ? Json(card.serial) : Json(nullptr);
    json["product_code"] = known ? Json(card.productCode) : Json(nullptr);
    json["hardware"] = known ? Json(card.hardwareVersion) : Json(nullptr);
    json["running"] = known ? Json(qvf::VersionText(card.runningVersion)) : Json(nullptr);
    return json;
}

Json ImageJson(const Image& image) {
    Json json;
    json["content"] = ContentText(image.content);
    json["version"] = image.version ? Json(qvf::VersionText(*image.version)) : Json(nullptr);
    json["compatibility"] = image.version ? Json(image.compatibilityCode) : Json(nullptr);
    json["differences"] = Json::array();
    for (const Difference& difference : image.differences)
        json["differences"].push_back(DifferenceJson(difference));
    return json;
}

Json PackageJson(const FirmwarePackage* package) {
    if (package == nullptr) return nullptr;
    Json json;
    json["name"] = package->name;
    json["version"] = qvf::VersionText(package->Version());
    json["compatibility"] = package->header.compatibilityCode;
    return json;
}

Json PackageSetJson(const PackageSet& packages) {
    Json json;
    json["folder"] = packages.Folder();
    json["readable"] = packages.Packages().size();
    json["unreadable"] = Json::array();
    for (const UnreadablePackage& package : packages.Unreadable())
        json["unreadable"].push_back({{"name", package.name}, {"reason", package.reason}});
    return json;
}

std::string ImageText(const Image& image) {
    if (!image.version) return ContentText(image.content);
    const std::string version = qvf::VersionText(*image.version);
    return image.content == Content::kOther ? version : version + " " + ContentText(image.content);
}

std::string DifferenceText(const Difference& difference) {
    const std::string from =
        std::to_string(difference.firstOffset) + " on (flash address " +
        qvf::HexNumber(uint64_t{difference.address} + difference.firstOffset, kAddressDigits) + ")";
    std::string text =
        "section " + std::to_string(difference.section + 1) + " (" + difference.name + ") ";
    text += difference.clear ? "is not blank from offset " : "differs from offset ";
    text += from;
    if (difference.bytes > 0)
        text += ": " + std::to_string(difference.bytes) + " of " + std::to_string(difference.size) +
                " bytes";
    return text;
}

std::string UnreadableText(const PackageSet& packages) {
    std::string text;
    for (const UnreadablePackage& package : packages.Unreadable())
        text += "package " + qvf::Escaped(package.name) +
                " cannot be used: " + qvf::Escaped(package.reason) + "\n";
    return text;
}

}  // namespace qvo
