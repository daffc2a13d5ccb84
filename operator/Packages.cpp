// Reads the packages of a folder, and tells what they bring. Whether one may be written to a card
// is decided in Plan.cpp.
#include "Packages.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Digest.h"

namespace qvo {
namespace {

constexpr size_t kMostPackages = 4096;
constexpr uint64_t kMostBytes = uint64_t{1} << 30;

std::vector<std::string> PackageNames(const std::string& folder) {
    DIR* stream = opendir(folder.c_str());
    if (stream == nullptr)
        throw qvf::Mistake(folder +
                           ": cannot be opened as a folder of packages: " + std::strerror(errno));
    std::vector<std::string> names;
    while (const dirent* entry = readdir(stream)) {
        const std::string name = entry->d_name;
        struct stat status;
        if (!IsPackageName(name) || stat((folder + "/" + name).c_str(), &status) != 0 ||
            !S_ISREG(status.st_mode))
            continue;
        names.push_back(name);
        if (names.size() > kMostPackages) break;
    }
    closedir(stream);
    if (names.size() > kMostPackages)
        throw qvf::Mistake(folder + ": holds more than " + std::to_string(kMostPackages) +
                           " packages; name a folder with those that are meant");
    std::sort(names.begin(), names.end());
    return names;
}

// Without the path, which adds nothing to the name.
std::string Reason(const std::string& message, const std::string& path) {
    const std::string prefix = path + ": ";
    return message.starts_with(prefix) ? message.substr(prefix.size()) : message;
}

// Whole packages are kept in memory, and a file may be of any size.
void ExpectLikelySize(const qvf::Package& package) {
    const uint64_t size = package.DataSize() + package.trailingSize;
    if (size > kMostBytes)
        throw qvf::Mistake("holds " + std::to_string(size) + " bytes, more than any card has");
}

const char* ImageText(bool safe) { return safe ? "a safe image" : "a main image"; }

bool IsBlank(const qvf::Bytes& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0xFF; });
}

}  // namespace

bool IsPackageName(const std::string& name) { return name.find(".qvf") != name.npos; }

PackageSet::PackageSet(const std::string& folder) : m_folder(folder) {
    for (const std::string& name : PackageNames(folder)) {
        const std::string path = folder + "/" + name;
        try {
            qvf::Package header = qvf::ReadPackage(path, qvf::Read::kHeader);
            ExpectLikelySize(header);
            m_packages.push_back({name, path, std::move(header)});
        } catch (const qvf::Mistake& mistake) {
            m_unreadable.push_back({name, Reason(mistake.what(), path)});
        }
    }
}

Fit PackageSet::For(const Card& card) const {
    Fit fit;
    if (!card.identified) return fit;
    for (const FirmwarePackage& package : m_packages)
        if (package.header.productCode == card.productCode &&
            package.header.hardwareVersion == card.hardwareVersion)
            fit.packages.push_back(&package);
    return fit;
}

std::shared_ptr<const PackageContents> PackageSet::Contents(const FirmwarePackage& package) const {
    if (m_kept != nullptr && m_keptPath == package.path) return m_kept;
    m_kept.reset();  // before the next one is read: two at once may be too much for the memory
    m_kept = ReadContents(package);
    m_keptPath = package.path;
    return m_kept;
}

qvf::Pieces PackageContents::Pieces() const {
    qvf::Pieces pieces = {header};
    for (const qvf::Section& section : package.sections) pieces.emplace_back(section.data);
    pieces.emplace_back(package.trailing);
    return pieces;
}

std::string PackageContents::Sha256() const { return qvf::Sha256(Pieces()); }

std::shared_ptr<const PackageContents> ReadContents(const FirmwarePackage& package) {
    auto contents = std::make_shared<PackageContents>();
    contents->package = qvf::ReadPackage(package.path, qvf::Read::kEverything);
    contents->header = HeaderBytes(contents->package);
    if (contents->header != HeaderBytes(package.header))
        throw qvf::Mistake(package.path + ": has changed since it was read first; run it again");
    return contents;
}

qvf::Bytes SavedFromMark(bool safe) {
    const std::string text = std::string("saved from ") + ImageText(safe) + "\n";
    return {text.begin(), text.end()};
}

std::string WhyNoImage(const qvf::Package& package, bool safe) {
    if (package.trailing == SavedFromMark(!safe))
        return std::string("it was saved from ") + ImageText(!safe) + " and holds nothing for " +
               ImageText(safe);
    const auto writes = [safe](const qvf::Section& section) {
        return section.ForUpgradeImage() == safe && !section.IsClear() && section.size > 0;
    };
    bool any = false;
    for (const qvf::Section& section : package.sections) {
        if (!writes(section)) continue;
        if (!IsBlank(section.data)) return "";
        any = true;
    }
    return any ? std::string("its sections for ") + ImageText(safe) + " are blank" : "";
}

qvf::Bytes HeaderBytes(const qvf::Package& package) {
    qvf::Package bare;  // field by field: a copy would also copy the data of all sections
    bare.reserved4 = package.reserved4;
    bare.compatibilityCode = package.compatibilityCode;
    bare.productCode = package.productCode;
    bare.hardwareVersion = package.hardwareVersion;
    bare.reserved15 = package.reserved15;
    bare.firmwareVersion = package.firmwareVersion;
    bare.reserved20 = package.reserved20;
    for (const qvf::Section& section : package.sections) {
        qvf::Section entry;
        entry.name = section.name;
        entry.address = section.address;
        entry.size = section.size;
        entry.reserved24 = section.reserved24;
        bare.sections.push_back(std::move(entry));
    }
    return qvf::Serialize(bare);
}

}  // namespace qvo
