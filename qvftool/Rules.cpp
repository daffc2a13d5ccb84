#include "Rules.h"

#include <algorithm>
#include <cctype>

namespace qvf {
namespace {

// Above this the displayed percentage wraps: 100 times the bytes do not fit 32 bits.
constexpr uint64_t kMostForPercentage = 0xFFFFFFFFu / 100;
constexpr uint16_t kNeverSafe = 1;
constexpr uint64_t kSafeHeaderDistance = 4096;

std::string Numbered(size_t i, const Section& section) {
    return "section " + std::to_string(i + 1) +
           (section.NameIsPlain() ? " (" + section.NameText() + ")" : "");
}

// Collects the findings of one package.
class Findings {
  public:
    explicit Findings(const Package& package) : m_package(package) {}

    void Add(const Rule& rule, std::string message) {
        m_all.push_back({"", rule, std::move(message)});
    }
    // For each section for which `message` gives a text.
    template <class Message>
    void AddForEach(const Rule& rule, Message message) {
        for (size_t i = 0; i < m_package.sections.size(); ++i) {
            const Section& section = m_package.sections[i];
            const std::string text = message(section, i);
            if (!text.empty()) Add(rule, Numbered(i, section) + text);
        }
    }
    std::vector<Finding> Take() { return std::move(m_all); }

  private:
    const Package& m_package;
    std::vector<Finding> m_all;
};

// Whether an upgrade of this kind writes more than the header.
bool WritesData(const Package& package, bool safe) {
    return std::any_of(package.sections.begin(), package.sections.end(), [&](const Section& s) {
        return s.ForUpgradeImage() == safe && !s.IsClear() && s.size > 0;
    });
}

void CheckImages(const Package& package, Findings& findings) {
    const bool mayBeSafe = package.compatibilityCode != kNeverSafe;
    if (mayBeSafe && !WritesData(package, true))
        findings.Add(kNoUpgradeSection,
                     "compatibility code " + std::to_string(package.compatibilityCode) +
                         " allows a safe upgrade, but no section named 'Upgrade.' has data for it: "
                         "only a header would be written, and reported as success");
    if (!WritesData(package, false))
        findings.Add(mayBeSafe ? kUpgradeOnly : kNoMainSection,
                     "no section of the main image has data: a normal upgrade would write only a "
                     "header, and report success");
    if (package.compatibilityCode == 0)
        findings.Add(kCompatibilityZero,
                     "compatibility code 0: cards whose stored header is not of the running "
                     "firmware would be upgraded in safe mode");
}

bool Meet(uint64_t begin, uint64_t end, uint64_t otherBegin, uint64_t otherEnd) {
    return std::max(begin, otherBegin) < std::min(end, otherEnd);
}

// An erase clears whole sectors, so every sector that a section touches counts.
bool TouchesSectors(const Section& section, uint64_t begin, uint64_t size) {
    constexpr uint64_t kMask = ~uint64_t{kEraseSector - 1};
    const uint64_t from = section.address & kMask;
    const uint64_t to = (section.End() + kEraseSector - 1) & kMask;
    return section.size > 0 &&
           Meet(from, to, begin & kMask, (begin + size + kEraseSector - 1) & kMask);
}

void CheckPlaces(const Package& package, const FlashLayout& flash, Findings& findings) {
    for (const std::string& overlap : Overlaps(package)) findings.Add(kOverlap, overlap);
    findings.AddForEach(kMisaligned, [](const Section& s, size_t) -> std::string {
        if (s.address % kEraseSector == 0) return "";
        return " begins at " + HexNumber(s.address, 8) +
               ", inside a 4 KiB erase sector that is erased as a whole";
    });
    const uint64_t end = flash.size.value_or(uint64_t{1} << 32);
    findings.AddForEach(kBeyondFlash, [&](const Section& s, size_t) -> std::string {
        if (s.End() <= end) return "";
        return " ends beyond flash address " + HexNumber(end - 1, 8);
    });
    if (!flash.firmwareArea) return;
    const uint64_t header = *flash.firmwareArea;
    const uint64_t length = package.HeaderLength();
    if (header + kSafeHeaderDistance + length > end)
        findings.Add(kBeyondFlash, "the headers end beyond flash address " + HexNumber(end - 1, 8));
    findings.AddForEach(kOverHeader, [&](const Section& s, size_t) -> std::string {
        for (const uint64_t place : {header, header + kSafeHeaderDistance})
            if (TouchesSectors(s, place, length))
                return " is in an erase sector of the header at " + HexNumber(place, 8);
        return "";
    });
}

std::string LowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string NearMiss(const Section& section) {
    const std::string name = LowerCase(section.NameText());
    const size_t letter = std::min(name.find_first_not_of(" \t"), name.size());
    if (!section.ForUpgradeImage() && name.compare(letter, 7, "upgrade") == 0)
        return " belongs to the main image: only a name that begins with 'Upgrade.' does not";
    if (!section.IsClear() && name.find("clr") != name.npos)
        return " is written, not cleared: a clear section's name contains 'Factory.CLR.' or "
               "'Upgrade.CLR'";
    return "";
}

void CheckNames(const Package& package, Findings& findings) {
    findings.AddForEach(kNameNearMiss, [](const Section& s, size_t) { return NearMiss(s); });
    findings.AddForEach(kDuplicateName, [&](const Section& s, size_t i) -> std::string {
        for (size_t j = 0; j < i; ++j)
            if (package.sections[j].NameText() == s.NameText())
                return " has the name of section " + std::to_string(j + 1);
        return "";
    });
}

// The bytes that count as 100% of an upgrade.
uint64_t TotalBytes(const Package& package, bool safe) {
    uint64_t total = package.HeaderLength();
    for (const Section& section : package.sections)
        if (section.ForUpgradeImage() == safe) total += section.size;
    return total;
}

void CheckSizes(const Package& package, Findings& findings) {
    const uint64_t total = std::max(TotalBytes(package, false), TotalBytes(package, true));
    if (total > kMostForPercentage)
        findings.Add(kPercentageWraps, std::to_string(total) + " bytes for one upgrade: above " +
                                           std::to_string(kMostForPercentage) +
                                           " the percentage that is shown starts again at 0");
    if (package.trailingSize > 0)
        findings.Add(kTrailingBytes, std::to_string(package.trailingSize) +
                                         " bytes after the last section, which no card ever gets");
}

}  // namespace

const char* LevelText(Level level) { return level == Level::kError ? "error" : "warning"; }

std::vector<Finding> CheckPackage(const Package& package, const FlashLayout& flash) {
    Findings findings(package);
    CheckImages(package, findings);
    CheckPlaces(package, flash, findings);
    if (package.productCode == 0 && package.hardwareVersion == 0)
        findings.Add(kFitsUnknownCard,
                     "product code 0 and hardware 0: it is taken for every card that does not "
                     "answer when it is asked what it is");
    CheckNames(package, findings);
    CheckSizes(package, findings);
    return findings.Take();
}

std::vector<std::string> Overlaps(const Package& package) {
    std::vector<std::string> overlaps;
    const std::vector<Section>& all = package.sections;
    for (size_t i = 0; i < all.size(); ++i) {
        for (size_t j = i + 1; j < all.size(); ++j) {
            const uint64_t begin = std::max(all[i].address, all[j].address);
            const uint64_t end = std::min(all[i].End(), all[j].End());
            if (begin < end)
                overlaps.push_back(Numbered(i, all[i]) + " and " + Numbered(j, all[j]) +
                                   " overlap from " + HexNumber(begin, 8) + " to " +
                                   HexNumber(end - 1, 8));
        }
    }
    return overlaps;
}

}  // namespace qvf
