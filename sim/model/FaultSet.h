// The faults in force, and how often each has been met. Not locked: the model's lock covers it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Fault.h"

namespace qvsim {

class FaultSet {
  public:
    void Add(const Fault& fault) { armed_.push_back({fault, 0}); }
    void Clear() { armed_.clear(); }

    // Counts this request on every fault it matches; the effects that hit it, in order of adding.
    std::vector<FaultEffect> Hits(const std::string& request, int board, int channel) {
        std::vector<FaultEffect> effects;
        for (Armed& armed : armed_) {
            const Fault& fault = armed.fault;
            if (fault.request != request || (fault.board != -1 && fault.board != board) ||
                (fault.channel != -1 && fault.channel != channel))
                continue;
            const int number = ++armed.seen;
            if (number >= fault.nth && (fault.count < 0 || number - fault.nth < fault.count))
                effects.push_back(fault.effect);
        }
        return effects;
    }

  private:
    struct Armed {
        Fault fault;
        int seen = 0;
    };
    std::vector<Armed> armed_;
};

// The value of the first effect of a kind.
inline std::optional<uint32_t> EffectOf(const std::vector<FaultEffect>& effects, FaultKind kind) {
    for (const FaultEffect& effect : effects)
        if (effect.kind == kind) return effect.value;
    return std::nullopt;
}

}  // namespace qvsim
