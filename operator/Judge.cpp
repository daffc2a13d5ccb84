// Compares a flash with a package, and decides the state. Reads only, through the function that it
// is given.
#include "Judge.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace qvo {
namespace {

constexpr std::array<char, 4> kMagic = {'Q', 'V', 'F', 'H'};
constexpr uint8_t kErased = 0xFF;

uint32_t Number(const qvf::Bytes& bytes, size_t at, int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i)
        value |= uint32_t{bytes[at + static_cast<size_t>(i)]} << (8 * i);
    return value;
}

bool IsErased(const uint8_t* bytes, size_t size) {
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == kErased; });
}

// Reads one flash and compares it with one package.
class Comparison {
  public:
    Comparison(const FlashSource& flash, const PackageContents* package, Depth depth,
               const Progress& progress)
        : m_flash(flash), m_package(package), m_depth(depth), m_progress(progress) {
        if (package != nullptr) m_total = BytesToRead(package->package, depth);
    }

    bool Failed() const { return m_failed; }

    Image Header(uint32_t address) {
        Image image;
        const size_t size = m_package == nullptr ? qvf::kFixedLength : m_package->header.size();
        qvf::Bytes bytes(size);
        if (!ReadHeader(address, bytes)) return image;
        Advance(size);
        if (IsErased(bytes.data(), qvf::kFixedLength)) {
            image.content = Content::kBlank;
        } else if (!IsValidHeader(bytes)) {
            image.content = Content::kDamaged;
        } else {
            image.version = Number(bytes, 16, 4);
            image.compatibilityCode = static_cast<uint16_t>(Number(bytes, 8, 2));
            const bool same = m_package != nullptr && bytes == m_package->header;
            image.content = same ? Content::kHeaderMatches : Content::kOther;
        }
        return image;
    }

    // Compares the sections of an image if the result can matter.
    void Sections(bool safe, Image& image) {
        if (m_failed || m_package == nullptr || m_depth == Depth::kHeaders) return;
        // The package's header, without an image of the package behind it.
        if (image.content == Content::kHeaderMatches &&
            !WhyNoImage(m_package->package, safe).empty())
            image.content = Content::kOther;
        if (!IsWorthReading(safe, image.content)) {
            Advance(SectionBytes(safe));
            return;
        }
        const std::vector<qvf::Section>& sections = m_package->package.sections;
        for (size_t i = 0; i < sections.size() && !m_failed; ++i)
            if (sections[i].ForUpgradeImage() == safe) CompareSection(i, sections[i], image);
        if (m_failed || image.content != Content::kHeaderMatches) return;
        image.content = image.differences.empty() ? Content::kComplete : Content::kPartial;
    }

  private:
    bool IsWorthReading(bool safe, Content content) const {
        if (m_depth == Depth::kCount || content == Content::kHeaderMatches) return true;
        return !safe && (content == Content::kBlank || content == Content::kDamaged);
    }

    uint64_t SectionBytes(bool safe) const {
        uint64_t bytes = 0;
        for (const qvf::Section& section : m_package->package.sections)
            if (section.ForUpgradeImage() == safe) bytes += section.size;
        return bytes;
    }

    void Advance(uint64_t bytes) {
        m_done += bytes;
        if (m_progress) m_progress(std::min(m_done, m_total), m_total);
    }

    bool Read(uint32_t address, uint8_t* buffer, size_t size) {
        m_failed = m_failed || !m_flash(address, buffer, static_cast<uint32_t>(size));
        return !m_failed;
    }

    // Data that is neither erased nor expected is read twice: one wrong bit in a transfer is no
    // damage.
    bool ReadHeader(uint32_t address, qvf::Bytes& bytes) {
        if (!Read(address, bytes.data(), bytes.size())) return false;
        const bool expected = m_package != nullptr && bytes == m_package->header;
        if (expected || IsErased(bytes.data(), bytes.size())) return true;
        return Read(address, bytes.data(), bytes.size());
    }

    // Whether the chunk in the buffer is what it should be; with `data` null, erased.
    static bool IsAsExpected(const uint8_t* buffer, const uint8_t* data, size_t size) {
        return data == nullptr ? IsErased(buffer, size) : std::memcmp(buffer, data, size) == 0;
    }

    void CompareSection(size_t index, const qvf::Section& section, Image& image) {
        const bool clear = section.IsClear();
        Difference difference{index, section.NameText(), section.address, section.size, clear, 0,
                              0};
        bool differs = false;
        for (uint32_t offset = 0; offset < section.size;) {
            const uint32_t size = std::min(section.size - offset, kReadChunk);
            const uint8_t* data = clear ? nullptr : section.data.data() + offset;
            uint8_t* const chunk = m_chunk.data();
            if (!Read(section.address + offset, chunk, size)) return;
            // A second reading decides, as for a header.
            if (!IsAsExpected(chunk, data, size)) {
                if (!Read(section.address + offset, chunk, size)) return;
                differs = Note(chunk, data, size, offset, differs, difference) || differs;
            }
            offset += size;
            Advance(size);
            if (differs && m_depth != Depth::kCount) {
                Advance(section.size - offset);
                break;
            }
        }
        if (m_depth != Depth::kCount) difference.bytes = 0;
        if (differs) image.differences.push_back(std::move(difference));
    }

    // Whether the chunk differs; if so, adds it to the difference.
    static bool Note(const uint8_t* chunk, const uint8_t* data, uint32_t size, uint32_t offset,
                     bool before, Difference& difference) {
        bool differs = false;
        for (uint32_t i = 0; i < size; ++i) {
            if (chunk[i] == (data == nullptr ? kErased : data[i])) continue;
            if (!before && !differs) difference.firstOffset = offset + i;
            differs = true;
            ++difference.bytes;
        }
        return differs;
    }

    const FlashSource& m_flash;
    const PackageContents* m_package;
    Depth m_depth;
    const Progress& m_progress;
    uint64_t m_done = 0;
    uint64_t m_total = 0;
    bool m_failed = false;
    std::array<uint8_t, kReadChunk> m_chunk{};
};

bool IsWhole(const Image& image) {
    return image.content == Content::kComplete || image.content == Content::kHeaderMatches;
}

// One of the images is the package's and complete.
Meaning DecideWhole(const Image& main, const Image& safe, uint32_t running, uint32_t offered) {
    if (running == offered) return {State::kCurrent, ""};
    const Image& other = IsWhole(main) ? safe : main;
    const bool both = IsWhole(main) && IsWhole(safe);
    if (!both && running < offered && other.version && *other.version > offered)
        return {
            State::kUnknown,
            "the flash holds a newer image than the package's, too; which of them the card will "
            "load cannot be told"};
    if (!both && running > offered && other.version == running)
        return {
            State::kUnknown,
            "the card runs newer firmware than the package's, whose image is in the flash, too; "
            "which of them the card will load cannot be told"};
    return {State::kStaged, "turn the computer off and on to load it"};
}

std::string PackageNamesText(const Fit& fit) {
    std::string text;
    for (const FirmwarePackage* package : fit.packages)
        text += (text.empty() ? "" : ", ") + package->name;
    return text;
}

// A card for which not exactly one package fits.
Meaning WithoutPackage(const Fit& fit, const PackageSet& packages) {
    if (fit.IsAmbiguous())
        return {State::kUnknown, std::to_string(fit.packages.size()) + " packages fit: " +
                                     PackageNamesText(fit) + "; leave only one of them"};
    if (packages.IsEmpty()) return {State::kUnknown, "there is no package to judge it by"};
    if (packages.Unreadable().empty()) return {State::kNoPackage, "no package is for this card"};
    return {State::kNoPackage, "no package is for this card, but " +
                                   std::to_string(packages.Unreadable().size()) +
                                   " cannot be read"};
}

// The package that the flash is compared with, as far as it is needed.
std::shared_ptr<const PackageContents> ContentsToDepth(const PackageSet& packages,
                                                       const FirmwarePackage& package,
                                                       Depth depth) {
    if (depth != Depth::kHeaders) return packages.Contents(package);
    auto header = std::make_shared<PackageContents>();
    header->package = package.header;
    header->header = HeaderBytes(package.header);
    return header;
}

Verdict JudgeReadable(const Card& card, const PackageSet& packages, Depth depth,
                      const Progress& progress) {
    const Fit fit = packages.For(card);
    std::shared_ptr<const PackageContents> contents;
    if (fit.Only() != nullptr) contents = ContentsToDepth(packages, *fit.Only(), depth);
    CardReader reader(card);
    const FlashSource source = [&](uint32_t address, uint8_t* buffer, uint32_t size) {
        return reader.Read(address, buffer, size);
    };
    Verdict verdict = JudgeFlash(card, source, contents.get(), depth, progress);
    verdict.package = fit.Only();
    if (!reader.Problem().empty()) {
        verdict.state = State::kUnreadable;
        verdict.reason = reader.Problem();
    } else if (fit.Only() == nullptr) {
        Meaning meaning = WithoutPackage(fit, packages);
        verdict.state = meaning.state;
        verdict.reason = std::move(meaning.reason);
    }
    return verdict;
}

}  // namespace

const char* StateText(State state) {
    switch (state) {
        case State::kCurrent:
            return "current";
        case State::kUpgradeAvailable:
            return "upgrade available";
        case State::kStaged:
            return "staged";
        case State::kInterrupted:
            return "interrupted";
        case State::kNoPackage:
            return "no package";
        case State::kUnknown:
            return "unknown";
        case State::kUnreadable:
            break;
    }
    return "unreadable";
}

const char* ContentText(Content content) {
    switch (content) {
        case Content::kNotRead:
            break;
        case Content::kBlank:
            return "blank";
        case Content::kDamaged:
            return "damaged";
        case Content::kOther:
            return "other";
        case Content::kHeaderMatches:
            return "header only";
        case Content::kPartial:
            return "partial";
        case Content::kComplete:
            return "complete";
    }
    return "not read";
}

Meaning Decide(const Image& main, const Image& safe, uint32_t running, uint32_t offered) {
    if (main.content == Content::kPartial)
        return {State::kInterrupted, "the main image was begun and is not complete"};
    if (main.content == Content::kBlank || main.content == Content::kDamaged)
        return {State::kInterrupted, "the main image has no valid header"};
    if (safe.content == Content::kPartial)
        return {State::kInterrupted, "the safe image was begun and is not complete"};
    if (IsWhole(main) || IsWhole(safe)) return DecideWhole(main, safe, running, offered);
    if (safe.content == Content::kDamaged)
        return {State::kInterrupted, "the safe image has no valid header"};
    if (running < offered) return {State::kUpgradeAvailable, ""};
    if (running == offered)
        return {State::kUnknown,
                "the card runs the package's version, but its flash holds other firmware than the "
                "package"};
    return {State::kUnknown, "the card runs newer firmware than the package's"};
}

Verdict JudgeFlash(const Card& card, const FlashSource& flash, const PackageContents* package,
                   Depth depth, const Progress& progress) {
    Verdict verdict;
    verdict.headersOnly = depth == Depth::kHeaders || package == nullptr;
    Comparison comparison(flash, package, depth, progress);
    verdict.main = comparison.Header(card.firmwareOffset);
    if (!comparison.Failed())
        verdict.safe = comparison.Header(card.firmwareOffset + kSafeHeaderDistance);
    comparison.Sections(false, verdict.main);
    comparison.Sections(true, verdict.safe);
    if (comparison.Failed()) {
        verdict.state = State::kUnreadable;
        verdict.reason = "the flash cannot be read";
    } else if (package != nullptr) {
        Meaning meaning = Decide(verdict.main, verdict.safe, card.runningVersion,
                                 package->package.firmwareVersion);
        verdict.state = meaning.state;
        verdict.reason = std::move(meaning.reason);
    }
    return verdict;
}

Verdict JudgeCard(const Card& card, const PackageSet& packages, Depth depth,
                  const Progress& progress) {
    Verdict verdict;
    try {
        if (card.problem.empty()) return JudgeReadable(card, packages, depth, progress);
        verdict.state = State::kUnreadable;
        verdict.reason = card.problem;
    } catch (const qvf::Mistake& mistake) {
        verdict.reason = mistake.what();
    } catch (const std::bad_alloc&) {
        verdict.reason = "there is not enough memory for the package";
    }
    verdict.headersOnly = true;
    return verdict;
}

bool IsValidHeader(const qvf::Bytes& bytes) {
    const uint32_t sections = bytes[156];
    return std::equal(kMagic.begin(), kMagic.end(), bytes.begin()) &&
           sections <= qvf::kMaxSections &&
           Number(bytes, 10, 2) == qvf::kFixedLength + qvf::kEntryLength * sections;
}

uint64_t BytesToRead(const qvf::Package& package, Depth depth) {
    const uint64_t headers = 2 * uint64_t{package.HeaderLength()};
    return depth == Depth::kHeaders ? headers : headers + package.DataSize();
}

}  // namespace qvo
