#include "Diff.h"

#include <algorithm>
#include <vector>

namespace qvf {
namespace {

std::string Changed(const std::string& what, const std::string& from, const std::string& to) {
    return from == to ? "" : what + ": " + from + " -> " + to + "\n";
}

template <class Array>
std::string ChangedBytes(const std::string& what, const Array& from, const Array& to) {
    return from == to ? "" : what + ": differs\n";
}

std::string ChangedData(const std::string& what, const Bytes& from, const Bytes& to) {
    if (from == to) return "";
    const size_t common = std::min(from.size(), to.size());
    size_t first = common;
    size_t count = std::max(from.size(), to.size()) - common;
    for (size_t i = common; i-- > 0;) {
        if (from[i] == to[i]) continue;
        first = i;
        ++count;
    }
    return what + ": " + std::to_string(from.size()) + " -> " + std::to_string(to.size()) +
           " bytes, " + std::to_string(count) + " of them different, the first at " +
           HexNumber(first, 8) + "\n";
}

std::string Title(const Section& section) {
    std::string name = section.NameIsPlain() ? section.NameText() : "";
    if (name.empty())
        for (const uint8_t byte : section.name) name += HexNumber(byte, 2).substr(2);
    return "section " + name;
}

std::string DiffSections(const Section& a, const Section& b) {
    const std::string title = Title(a);
    return Changed(title + " address", HexNumber(a.address, 8), HexNumber(b.address, 8)) +
           ChangedBytes(title + " reserved24", a.reserved24, b.reserved24) +
           ChangedData(title + " data", a.data, b.data);
}

// The index in `b` of each section of `a`: the first of the same name that is not yet taken; b's
// size when there is none.
std::vector<size_t> Partners(const std::vector<Section>& a, const std::vector<Section>& b) {
    std::vector<bool> taken(b.size(), false);
    std::vector<size_t> partners;
    for (const Section& section : a) {
        size_t j = 0;
        while (j < b.size() && (taken[j] || b[j].name != section.name)) ++j;
        if (j < b.size()) taken[j] = true;
        partners.push_back(j);
    }
    return partners;
}

std::string DiffTables(const std::vector<Section>& a, const std::vector<Section>& b) {
    std::string text;
    const std::vector<size_t> partners = Partners(a, b);
    std::vector<size_t> found;
    for (size_t i = 0; i < a.size(); ++i) {
        if (partners[i] == b.size()) {
            text += Title(a[i]) + ": only in the first\n";
            continue;
        }
        found.push_back(partners[i]);
        text += DiffSections(a[i], b[partners[i]]);
    }
    for (size_t j = 0; j < b.size(); ++j)
        if (std::find(found.begin(), found.end(), j) == found.end())
            text += Title(b[j]) + ": only in the second\n";
    if (!std::is_sorted(found.begin(), found.end()))
        text += "sections: the same ones in another order\n";
    return text;
}

}  // namespace

std::string DiffText(const Package& a, const Package& b) {
    return Changed("firmware", VersionText(a.firmwareVersion), VersionText(b.firmwareVersion)) +
           Changed("product code", HexNumber(a.productCode, 4), HexNumber(b.productCode, 4)) +
           Changed("hardware", HardwareText(a.hardwareVersion), HardwareText(b.hardwareVersion)) +
           Changed("compatibility", std::to_string(a.compatibilityCode),
                   std::to_string(b.compatibilityCode)) +
           ChangedBytes("reserved4", a.reserved4, b.reserved4) +
           ChangedBytes("reserved15", a.reserved15, b.reserved15) +
           ChangedBytes("reserved20", a.reserved20, b.reserved20) +
           DiffTables(a.sections, b.sections) +
           ChangedData("bytes behind the data", a.trailing, b.trailing);
}

}  // namespace qvf
