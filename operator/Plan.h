// What an upgrade will do to one card, decided before anything is written: whether to flash, in
// which mode, how many bytes, and what to leave alone. Pure functions of the data that was read;
// any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Cards.h"
#include "Judge.h"
#include "Packages.h"
#include "Rules.h"

namespace qvo {

enum class Mode { kNormal, kSafe };
const char* ModeText(Mode mode);  // "upgrade", "safe upgrade"

// The two fields that decide the mode, read at the address of the main header in flash, whatever is
// there.
struct StoredHeader {
    uint32_t version = 0;
    uint16_t compatibilityCode = 0;
};
StoredHeader ParseStoredHeader(const qvf::Bytes& fixedPart);

// The mode that qvcap-upgrade chooses.
Mode ModeOf(const qvf::Package& package, const StoredHeader& stored, uint32_t running);

// Bytes of one flash in one mode.
struct Work {
    uint64_t erase = 0;   // header, and all sections of the mode
    uint64_t write = 0;   // the same without clear sections
    uint64_t verify = 0;  // bytes to read back
};
Work WorkOf(const qvf::Package& package, Mode mode);
bool TakesPart(const qvf::Section& section, Mode mode);

enum class Action {
    kFlash,
    kBringBack,  // the main image is unfinished, and the next upgrade would leave it so
    kLeave,      // current, staged, newer
    kSkip,       // no package fits
    kRefuse,     // the package, or the folder, cannot be trusted
    kFail,       // the card cannot be judged
};

struct CardPlan {
    Action action = Action::kSkip;
    Mode mode = Mode::kNormal;
    bool force = false;  // without -f qvcap-upgrade would not do it
    Work work;
    std::string reason;  // why it is not flashed, or why it is flashed although it seems done
    std::vector<std::string> warnings;  // of the package
};

// What is known about a card. `contents` is null unless exactly one package fits.
struct Findings {
    const Card& card;
    const Verdict& verdict;
    const Fit& fit;
    const PackageContents* contents = nullptr;
    StoredHeader stored;
    std::string unreachable;  // a section that lies beyond the end of the flash; empty: none
};

CardPlan PlanCard(const Findings& findings, bool force);

// Why a package must not be written to a card in this mode; empty when it may be.
std::string Refusal(const qvf::Package& package, const Card& card, Mode mode);

// The main image was begun and is not complete.
bool IsMainUnfinished(const Verdict& verdict);
// The image that an upgrade in this mode writes is complete.
bool IsComplete(const Verdict& verdict, Mode mode);

}  // namespace qvo
