// `qvcap-sim fault`: the faults of a folder, changed while programs use its cards.
#include <algorithm>
#include <cstdio>

#include "Commands.h"
#include "Folder.h"
#include "Journal.h"
#include "Json.h"
#include "Model.h"
#include "Scenario.h"

namespace qvsim {
namespace {

// The folder, locked, and its state.
class OpenState {
  public:
    explicit OpenState(const std::string& dir)
        : m_error(Folder::Open(dir, m_folder)), m_lock(m_folder.get()) {
        if (m_folder) m_error = LoadState(dir, m_state);
    }
    const std::string& Error() const { return m_error; }
    CardsState& State() { return m_state; }
    std::string Save() { return SaveState(*m_folder, m_state); }
    uint32_t Seen(const Fault& fault) const {
        return LoadShared(m_folder->Page().faultSeen[fault.slot]);
    }

  private:
    std::unique_ptr<Folder> m_folder;
    std::string m_error;
    Folder::Lock m_lock;
    CardsState m_state;
};

std::string ValueText(const FaultEffect& effect) {
    const bool isErrno = effect.kind == FaultKind::kRefuse || effect.kind == FaultKind::kRefuseLate;
    const std::string name = isErrno ? ErrorName(static_cast<int>(effect.value)) : "";
    const bool named = name.size() > 1 && (name[1] < '0' || name[1] > '9');
    return named ? name : std::to_string(effect.value);
}

// As the words that would add it again.
std::vector<std::pair<std::string, std::string>> Pairs(const Fault& fault) {
    std::vector<std::pair<std::string, std::string>> pairs{{"request", fault.request},
                                                           {"nth", std::to_string(fault.nth)},
                                                           {"count", std::to_string(fault.count)}};
    if (fault.oneIn > 1) {
        pairs.emplace_back("one_in", std::to_string(fault.oneIn));
        pairs.emplace_back("seed", std::to_string(fault.seed));
    }
    if (fault.board >= 0) pairs.emplace_back("board", std::to_string(fault.board));
    if (fault.channel >= 0) pairs.emplace_back("channel", std::to_string(fault.channel));
    if (fault.perProcess) pairs.emplace_back("per", "process");
    pairs.emplace_back("kind", FaultKindName(fault.effect.kind));
    pairs.emplace_back("value", ValueText(fault.effect));
    return pairs;
}

}  // namespace

int FaultAddCommand(const std::string& dir, const std::vector<std::string>& pairs) {
    Fault fault;
    if (std::string error = ParseFault(pairs, fault); !error.empty())
        return Fail("fault add: " + error);
    OpenState open(dir);
    if (!open.Error().empty()) return Fail(open.Error());
    open.State().faults.push_back(fault);
    if (std::string error = open.Save(); !error.empty()) return Fail(error);
    std::printf("%d\n", open.State().faults.back().slot);
    return 0;
}

int FaultListCommand(const std::string& dir, bool json) {
    OpenState open(dir);
    if (!open.Error().empty()) return Fail(open.Error());
    std::string all;
    for (const Fault& fault : open.State().faults) {
        std::string line = std::to_string(fault.slot);
        std::string members = "\"number\":" + line;
        for (const auto& [key, value] : Pairs(fault)) {
            line += " " + key + "=" + value;
            members += "," + JsonText(key) + ":" + JsonText(value);
        }
        const std::string seen = std::to_string(open.Seen(fault));
        if (!fault.perProcess) line += " seen=" + seen;
        if (!json) std::printf("%s\n", line.c_str());
        all += (all.empty() ? "{" : ",{") + members +
               ",\"seen\":" + (fault.perProcess ? "null" : seen) + "}";
    }
    if (json) std::printf("[%s]\n", all.c_str());
    return 0;
}

int FaultClearCommand(const std::string& dir, const std::vector<int>& numbers) {
    OpenState open(dir);
    if (!open.Error().empty()) return Fail(open.Error());
    std::vector<Fault>& faults = open.State().faults;
    for (const int number : numbers)
        if (std::erase_if(faults, [&](const Fault& fault) { return fault.slot == number; }) == 0)
            return Fail("fault clear: there is no fault " + std::to_string(number));
    if (numbers.empty()) faults.clear();
    const std::string error = open.Save();
    return error.empty() ? 0 : Fail(error);
}

}  // namespace qvsim
