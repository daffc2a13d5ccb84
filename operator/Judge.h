// Reads what a card's flash holds, compares it with the package that fits, and decides what that
// means. JudgeCard reads through a FlashSource; Decide is a pure function. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Cards.h"
#include "Packages.h"

namespace qvo {

enum class State {
    kCurrent,           // runs the package's firmware, which is complete in the flash
    kUpgradeAvailable,  // runs older firmware than the package's, and nothing was begun
    kStaged,            // the new image is complete in the flash and waits for a power cycle
    kInterrupted,       // begun and not complete
    kNoPackage,         // no package fits
    kUnknown,           // the flash cannot be judged, or it holds other firmware
    kUnreadable,        // the card does not answer, or its flash cannot be read
};

// "current", "upgrade available", "staged", "interrupted", "no package", "unknown", "unreadable".
const char* StateText(State state);

// The contents of one of the two image areas.
enum class Content {
    kNotRead,
    kBlank,          // the header area is erased
    kDamaged,        // neither erased nor a header
    kOther,          // a header that is not the package's; without a package, any header
    kHeaderMatches,  // the package's header; its sections were not read
    kPartial,        // the package's header, and sections that differ
    kComplete,       // the package's header and all its sections
};

// "blank", "damaged", "other", "header only", "partial", "complete", "not read".
const char* ContentText(Content content);

// A section whose flash contents differ from the package.
struct Difference {
    size_t section = 0;  // index in the package's table
    std::string name;    // as in the package: escape it before it is shown
    uint32_t address = 0;
    uint32_t size = 0;
    bool clear = false;        // a clear section: it should be blank
    uint32_t firstOffset = 0;  // of the first byte that differs, from the start of the section
    uint32_t bytes = 0;        // how many differ; only with Depth::kCount
};

struct Image {
    Content content = Content::kNotRead;
    std::optional<uint32_t> version;      // of the header, when there is one
    uint16_t compatibilityCode = 0;       // the same
    std::vector<Difference> differences;  // sections that were read and differ
};

struct Verdict {
    State state = State::kUnknown;
    std::string reason;  // one readable sentence; empty only if the state is self-evident
    Image main;
    Image safe;
    const FirmwarePackage* package = nullptr;  // the one that fits; null when none fits or two do
    bool headersOnly = false;
};

enum class Depth {
    kHeaders,   // the two headers, and no section
    kSections,  // sections of every image whose header is the package's, or is missing
    kCount,     // all sections of the package, and every difference counted
};

// Called with the number of bytes read and the total.
using Progress = std::function<void(uint64_t done, uint64_t total)>;

// Reads `size` bytes, at most kReadChunk; false on failure.
using FlashSource = std::function<bool(uint32_t address, uint8_t* buffer, uint32_t size)>;

// Sends no request to a card that did not answer before. No card and no package can make it throw.
Verdict JudgeCard(const Card& card, const PackageSet& packages, Depth depth,
                  const Progress& progress = nullptr);

// The same with a flash of any kind and one package, which may be null.
Verdict JudgeFlash(const Card& card, const FlashSource& flash, const PackageContents* package,
                   Depth depth, const Progress& progress = nullptr);

// Whether these bytes, at least qvf::kFixedLength, are the fixed part of a header: magic, section
// count and length agree.
bool IsValidHeader(const qvf::Bytes& bytes);

// The most bytes that judging reads.
uint64_t BytesToRead(const qvf::Package& package, Depth depth);

// What the two images mean for a card that runs `running` and a package of version `offered`.
struct Meaning {
    State state;
    std::string reason;
};
Meaning Decide(const Image& main, const Image& safe, uint32_t running, uint32_t offered);

}  // namespace qvo
