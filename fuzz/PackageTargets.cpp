// Targets: packages, their descriptions and scenarios, which are files from others.
#include <fcntl.h>

#include <cstring>
#include <fstream>

#include "CardsPlan.h"
#include "Description.h"
#include "Diff.h"
#include "FirmwarePackage.h"
#include "Info.h"
#include "Input.h"
#include "Package.h"
#include "Rules.h"
#include "Scenario.h"
#include "Targets.h"

namespace qvfuzz {

void LoadPackage(const uint8_t* data, size_t size) {
    _QV_FIRMWARE_HEADER header;
    std::memset(static_cast<void*>(&header), 0xCC, sizeof header);
    unsigned char* sections[kMaxSections] = {};
    if (!READQVF(AsFile(data, size).c_str(), &header, sections)) {
        for (const unsigned char* section : sections)
            Check(section == nullptr, "a failed read leaves a section behind");
        return;
    }
    Check(header.sectionCount <= kMaxSections, "too many sections");
    const size_t length = 157 + 28u * header.sectionCount;
    Check(header.headerLength == length && length <= size, "wrong header length");
    Check(std::memcmp(&header, data, length) == 0, "the header differs from the file");
    size_t at = length;
    for (int i = 0; i < header.sectionCount; ++i) {
        const size_t bytes = header.sections[i].size;
        Check(bytes <= size - at, "a section beyond the end of the file");
        Check(std::memcmp(sections[i], data + at, bytes) == 0, "a section differs from the file");
        at += bytes;
        // Whatever its name, a section belongs to one of the two images.
        Check(IsMatchedSection(0, &header.sections[i]) != IsMatchedSection(1, &header.sections[i]),
              "a section of both images or none");
        IsCLRSection(header.sections[i].name);
    }
    FreeSectionData(sections, header.sectionCount);
}

void ReadPackage(const uint8_t* data, size_t size) {
    const std::string& path = AsFile(data, size);
    try {
        const qvf::Package package = qvf::ReadPackage(path, qvf::Read::kEverything);
        const qvf::Bytes bytes = qvf::Serialize(package);
        Check(bytes.size() == size && std::memcmp(bytes.data(), data, size) == 0,
              "reading and writing changes a package");
        qvf::ReadPackage(path, qvf::Read::kHeader);
        // Another program computes digests; it is not run here.
        const qvf::Digests digests{"", std::vector<std::string>(package.sections.size())};
        Check(!qvf::InfoText("p.qvf", package, digests, true).empty(), "no description");
        Check(!qvf::InfoJson("p.qvf", package, digests).empty(), "no JSON");
        Check(qvf::DiffText(package, package).empty(), "a package differs from itself");
        qvf::CheckPackage(package, {.size = size, .firmwareArea = package.firmwareVersion});
        // The upgrade tool loads exactly the files that this reader accepts.
        _QV_FIRMWARE_HEADER header;
        unsigned char* sections[kMaxSections] = {};
        Check(READQVF(path.c_str(), &header, sections), "the two readers do not agree");
        FreeSectionData(sections, header.sectionCount);
    } catch (const qvf::Mistake& mistake) {
        Check(mistake.what()[0] != '\0', "a mistake without words");
    }
}

void ReadDescription(const uint8_t* data, size_t size) {
    static const std::string path = Folder() + "/description.toml";
    static const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    Overwrite(file, data, size);
    static const bool kHasData = [] {
        std::ofstream(Folder() + "/a.bin") << "twelve bytes";
        std::ofstream empty(Folder() + "/b.bin");
        return empty.good();
    }();
    Check(kHasData, "no data files");
    try {
        const qvf::Package package = qvf::ReadDescription(path);
        const qvf::Bytes bytes = qvf::Serialize(package);
        LoadPackage(bytes.data(), bytes.size());
        ReadPackage(bytes.data(), bytes.size());
    } catch (const qvf::Mistake& mistake) {
        Check(mistake.what()[0] != '\0', "a mistake without words");
    }
}

void ParseScenario(const uint8_t* data, size_t size) {
    qvsim::CardsPlan plan;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string error = qvsim::ParseScenario(text, "scenario", plan);
    if (error.empty()) qvsim::CompletePlan(plan);
}

}  // namespace qvfuzz
