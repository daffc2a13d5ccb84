// The firmware packages of a folder, found as qvcap-upgrade finds them, except that the order of
// the folder decides nothing: packages that cannot be read are kept with the reason, and of two
// that fit one card neither is chosen. Headers are read at once, sections and digest on request.
// One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Cards.h"
#include "Package.h"

namespace qvo {

// A package whose header was read. Names and paths come unchanged from the file system: escape them
// before they are shown.
struct FirmwarePackage {
    std::string name;  // without the folder
    std::string path;
    qvf::Package header;  // sections without their data

    uint32_t Version() const { return header.firmwareVersion; }
};

// A whole package, read at one moment.
struct PackageContents {
    qvf::Package package;  // with the data of every section
    qvf::Bytes header;     // as it is written to flash: fixed part and section table

    // Of the file, and as long as this is there.
    qvf::Pieces Pieces() const;
    std::string Sha256() const;  // computed at each call
};

struct UnreadablePackage {
    std::string name;
    std::string reason;
};

// The packages that fit one card.
struct Fit {
    std::vector<const FirmwarePackage*> packages;

    const FirmwarePackage* Only() const { return packages.size() == 1 ? packages[0] : nullptr; }
    bool IsAmbiguous() const { return packages.size() > 1; }
};

class PackageSet {
  public:
    // No packages at all.
    PackageSet() = default;
    // Every regular file of the folder whose name contains ".qvf", sorted by name. A folder that
    // cannot be read is a qvf::Mistake.
    explicit PackageSet(const std::string& folder);

    const std::string& Folder() const { return m_folder; }
    const std::vector<FirmwarePackage>& Packages() const { return m_packages; }
    const std::vector<UnreadablePackage>& Unreadable() const { return m_unreadable; }
    // No package that could fit any card.
    bool IsEmpty() const { return m_packages.empty() && m_unreadable.empty(); }

    // By product code and hardware version.
    Fit For(const Card& card) const;
    // One of the packages, with all data. The last one read is kept, because cards of one kind
    // follow one another. A qvf::Mistake when it cannot be read.
    std::shared_ptr<const PackageContents> Contents(const FirmwarePackage& package) const;

  private:
    std::string m_folder;
    std::vector<FirmwarePackage> m_packages;
    std::vector<UnreadablePackage> m_unreadable;
    mutable std::string m_keptPath;
    mutable std::shared_ptr<const PackageContents> m_kept;
};

// Whether qvcap-upgrade takes a file of this name for a package.
bool IsPackageName(const std::string& name);

// Whether the package, which was read with its data, brings this image to a card: the main one, or
// with `safe` the upgrade image. Why not: a message that follows the package's name; empty when it
// does. A package without any section for the image is judged by its header, and does.
std::string WhyNoImage(const qvf::Package& package, bool safe);

// What a package that was saved from a card ends with. Its sections for the other image are those
// of another firmware, or of none.
qvf::Bytes SavedFromMark(bool safe);

// Reads the whole package. A qvf::Mistake when it cannot be read, or when its header has changed
// since it was read.
std::shared_ptr<const PackageContents> ReadContents(const FirmwarePackage& package);

// The bytes of a header as they are written to flash.
qvf::Bytes HeaderBytes(const qvf::Package& package);

}  // namespace qvo
