// Rules that find what would break a card or mislead its user. Each rule has a name that does not
// change. Judges, changes nothing. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Package.h"

namespace qvf {

enum class Level { kWarning, kError };

struct Rule {
    const char* name;
    Level level;
};

// About one package.
inline constexpr Rule kUnreadable = {"unreadable", Level::kError};
inline constexpr Rule kNoUpgradeSection = {"no-upgrade-section", Level::kError};
inline constexpr Rule kNoMainSection = {"no-main-section", Level::kError};
inline constexpr Rule kUpgradeOnly = {"upgrade-only", Level::kWarning};
inline constexpr Rule kCompatibilityZero = {"compatibility-zero", Level::kWarning};
inline constexpr Rule kOverlap = {"overlap", Level::kError};
inline constexpr Rule kMisaligned = {"misaligned", Level::kWarning};
inline constexpr Rule kBeyondFlash = {"beyond-flash", Level::kError};
inline constexpr Rule kOverHeader = {"over-header", Level::kError};
inline constexpr Rule kFitsUnknownCard = {"fits-unknown-card", Level::kError};
inline constexpr Rule kPercentageWraps = {"percentage-wraps", Level::kWarning};
inline constexpr Rule kNameNearMiss = {"name-near-miss", Level::kWarning};
inline constexpr Rule kDuplicateName = {"duplicate-name", Level::kWarning};
inline constexpr Rule kTrailingBytes = {"trailing-bytes", Level::kWarning};
// About its signature, when a key is given.
inline constexpr Rule kUnsigned = {"unsigned", Level::kError};
inline constexpr Rule kBadSignature = {"bad-signature", Level::kError};
// About the packages of one folder together.
inline constexpr Rule kNoPackages = {"no-packages", Level::kError};
inline constexpr Rule kTooManyPackages = {"too-many-packages", Level::kError};
inline constexpr Rule kSameCards = {"same-cards", Level::kWarning};

inline constexpr Rule kAllRules[] = {
    kUnreadable,      kNoUpgradeSection, kNoMainSection,   kUpgradeOnly,   kCompatibilityZero,
    kOverlap,         kMisaligned,       kBeyondFlash,     kOverHeader,    kFitsUnknownCard,
    kPercentageWraps, kNameNearMiss,     kDuplicateName,   kTrailingBytes, kUnsigned,
    kBadSignature,    kNoPackages,       kTooManyPackages, kSameCards,
};

struct Finding {
    std::string file;  // empty: about all of them
    Rule rule;
    std::string message;
};

const char* LevelText(Level level);  // "error", "warning"

// What is known about the cards' flash.
struct FlashLayout {
    std::optional<uint64_t> size;          // bytes
    std::optional<uint32_t> firmwareArea;  // address of the header
};

// Findings without their file.
std::vector<Finding> CheckPackage(const Package& package, const FlashLayout& flash = {});

// Which sections overlap where, one line each.
std::vector<std::string> Overlaps(const Package& package);

}  // namespace qvf
