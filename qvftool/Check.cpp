#include "Check.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <utility>

namespace qvf {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxPackages = 32;

std::string Numbered(size_t i, const Section& section) {
    return "section " + std::to_string(i + 1) +
           (section.NameIsPlain() ? " (" + section.NameText() + ")" : "");
}

std::vector<std::string> PackageNames(const std::string& folder) {
    std::error_code error;
    std::vector<std::string> names;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        std::error_code missing;  // a dangling link is no package
        const std::string name = entry->path().filename().string();
        if (name.find(".qvf") != name.npos && fs::is_regular_file(entry->path(), missing))
            names.push_back(name);
    }
    if (error) throw Mistake(folder + ": cannot be read: " + error.message());
    std::sort(names.begin(), names.end());
    return names;
}

// Which file was the first for a product code and hardware version.
using FirstOf = std::map<std::pair<uint16_t, uint8_t>, std::string>;

// Findings about one file of a folder, also beside those before it. Without its name.
std::vector<std::string> CheckFile(const std::string& folder, const std::string& name,
                                   FirstOf& firstOf) {
    const std::string path = (fs::path(folder) / name).string();
    try {
        const Package package = ReadPackage(path, Read::kHeader);
        std::vector<std::string> findings = CheckPackage(package);
        const auto [first, isNew] =
            firstOf.try_emplace({package.productCode, package.hardwareVersion}, name);
        if (!isNew)
            findings.push_back("for product " + HexNumber(package.productCode, 4) + ", hardware " +
                               HardwareText(package.hardwareVersion) + " as " + first->second +
                               " is; which one is taken depends on the directory's order");
        return findings;
    } catch (const Mistake& mistake) {
        // The message begins with "PATH: ".
        return {std::string(mistake.what()).substr(path.size() + 2)};
    }
}

}  // namespace

std::vector<std::string> Overlaps(const Package& package) {
    std::vector<std::string> findings;
    const std::vector<Section>& all = package.sections;
    for (size_t i = 0; i < all.size(); ++i) {
        for (size_t j = i + 1; j < all.size(); ++j) {
            const uint64_t begin = std::max(all[i].address, all[j].address);
            const uint64_t end = std::min(all[i].End(), all[j].End());
            if (begin < end)
                findings.push_back(Numbered(i, all[i]) + " and " + Numbered(j, all[j]) +
                                   " overlap from " + HexNumber(begin, 8) + " to " +
                                   HexNumber(end - 1, 8));
        }
    }
    return findings;
}

std::vector<std::string> CheckPackage(const Package& package) {
    std::vector<std::string> findings = Overlaps(package);
    if (package.compatibilityCode == 0)
        findings.push_back(
            "compatibility code 0: cards whose stored header is not of the running firmware would "
            "be upgraded in safe mode");
    for (size_t i = 0; i < package.sections.size(); ++i) {
        const Section& section = package.sections[i];
        if (section.address % kEraseSector != 0)
            findings.push_back(Numbered(i, section) + " begins at " +
                               HexNumber(section.address, 8) +
                               ", inside a 4 KiB erase sector that is erased as a whole");
        if (section.End() > uint64_t{1} << 32)
            findings.push_back(Numbered(i, section) + " ends behind flash address 0xffffffff");
    }
    return findings;
}

std::vector<std::string> CheckFolder(const std::string& folder) {
    std::vector<std::string> findings;
    FirstOf firstOf;
    const std::vector<std::string> names = PackageNames(folder);
    for (const std::string& name : names) {
        for (const std::string& finding : CheckFile(folder, name, firstOf)) {
            std::string line = name;
            line += ": ";
            line += finding;
            findings.push_back(std::move(line));
        }
    }
    if (names.size() > kMaxPackages)
        findings.push_back(std::to_string(names.size()) +
                           " packages: only the first 32 in the directory's order are looked at");
    return findings;
}

}  // namespace qvf
