// The names of the state's values in scenarios and state files.
#include "CardsState.h"

#include <iterator>

namespace qvsim {
namespace {

struct KindName {
    FaultKind kind;
    const char* name;
};
constexpr KindName kKindNames[] = {
    {FaultKind::kRefuse, "refuse"},
    {FaultKind::kShortRead, "short_read"},
    {FaultKind::kFlipBit, "flip_bit"},
    {FaultKind::kStuckBits, "stuck_bits"},
    {FaultKind::kNotBlank, "not_blank"},
    {FaultKind::kSlow, "slow"},
    {FaultKind::kHang, "hang"},
    {FaultKind::kPowerLoss, "power_loss"},
    {FaultKind::kNodeGone, "node_gone"},
    {FaultKind::kHalf, "half"},
    {FaultKind::kWrongMarker, "wrong_marker"},
    {FaultKind::kNoEnd, "no_end"},
    {FaultKind::kPretend, "pretend"},
    {FaultKind::kRefuseLate, "refuse_late"},
};

constexpr const char* kAfterStopNames[] = {"refuse", "at_once", "at_start"};

}  // namespace

const char* FaultKindName(FaultKind kind) {
    for (const KindName& row : kKindNames)
        if (row.kind == kind) return row.name;
    return "refuse";
}

bool FaultKindFromName(const std::string& name, FaultKind& kind) {
    for (const KindName& row : kKindNames) {
        if (name != row.name) continue;
        kind = row.kind;
        return true;
    }
    return false;
}

const char* AfterStopName(AfterStop afterStop) {
    return kAfterStopNames[static_cast<size_t>(afterStop)];
}

bool AfterStopFromName(const std::string& name, AfterStop& afterStop) {
    for (size_t i = 0; i < std::size(kAfterStopNames); ++i) {
        if (name != kAfterStopNames[i]) continue;
        afterStop = static_cast<AfterStop>(i);
        return true;
    }
    return false;
}

std::vector<std::string> FaultKindNames() {
    std::vector<std::string> names;
    for (const KindName& row : kKindNames) names.emplace_back(row.name);
    return names;
}

std::string StatePath(const std::string& dir) { return dir + "/cards.state"; }
std::string MetFaultsPath(const std::string& dir) { return dir + "/faults.met"; }

std::string FlashFileName(const BoardState& board, int channel) {
    const std::string name = "flash-b" + std::to_string(board.index);
    return (board.sharedFlash ? name : name + "-c" + std::to_string(channel)) + ".bin";
}

}  // namespace qvsim
