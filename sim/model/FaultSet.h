// The active faults, and how often the request of each has come: counted here, or in the page that
// all processes of a folder share. Not locked: the model's lock covers it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "Fault.h"
#include "Folder.h"

namespace qvsim {

class FaultSet {
  public:
    void Add(const Fault& fault) { m_armed.push_back({fault, 0}); }
    void Clear() { m_armed.clear(); }
    // Takes the faults of a folder, with its counts. A fault that was there before keeps its count.
    void Take(const std::vector<Fault>& faults, uint32_t (&counts)[kMaxFaults]) {
        std::vector<Armed> before = std::move(m_armed);
        m_armed.clear();
        for (const Fault& fault : faults) {
            Armed armed{fault, 0, fault.perProcess ? nullptr : &counts[fault.slot]};
            for (const Armed& old : before)
                if (old.fault.slot == fault.slot && old.fault.request == fault.request)
                    armed.seen = old.seen;
            m_armed.push_back(armed);
        }
    }

    // Counts this request on every fault that it matches. Returns the effects that hit it, in the
    // order in which they were added.
    std::vector<FaultEffect> Hits(const std::string& request, int board, int channel) {
        std::vector<FaultEffect> effects;
        for (Armed& armed : m_armed) {
            const Fault& fault = armed.fault;
            if (!Matches(fault, request, board, channel)) continue;
            const auto number =
                static_cast<int>(armed.shared ? CountShared(*armed.shared) : ++armed.seen);
            if (number >= fault.nth && (fault.count < 0 || number - fault.nth < fault.count) &&
                Drawn(fault, number))
                effects.push_back(fault.effect);
        }
        return effects;
    }

    // Whether a request that hangs must go on hanging: a fault for it still exists.
    bool Hangs(const std::string& request, int board, int channel) const {
        return std::any_of(m_armed.begin(), m_armed.end(), [&](const Armed& armed) {
            return armed.fault.effect.kind == FaultKind::kHang &&
                   Matches(armed.fault, request, board, channel);
        });
    }

  private:
    static bool Matches(const Fault& fault, const std::string& request, int board, int channel) {
        return Names(fault, request) && (fault.board == -1 || fault.board == board) &&
               (fault.channel == -1 || fault.channel == channel);
    }
    static bool Names(const Fault& fault, const std::string& request) {
        if (fault.request == request) return true;
        if (fault.request != kAnyRequest || request == kOpen) return false;
        return std::find(std::begin(kSignals), std::end(kSignals), request) == std::end(kSignals);
    }
    // Depends only on the seed and the number, not on other requests: whether the n-th request is
    // hit is fixed before the test begins.
    static bool Drawn(const Fault& fault, int number) {
        if (fault.oneIn <= 1) return true;
        uint64_t lot = (uint64_t{fault.seed} << 32) + static_cast<uint32_t>(number);
        lot = (lot + 0x9E3779B97F4A7C15u) * 0xBF58476D1CE4E5B9u;
        lot = (lot ^ lot >> 27) * 0x94D049BB133111EBu;
        return (lot >> 33) % fault.oneIn == 0;
    }

    struct Armed {
        Fault fault;
        uint32_t seen = 0;
        uint32_t* shared = nullptr;
    };
    std::vector<Armed> m_armed;
};

// The value of the first effect of a kind.
inline std::optional<uint32_t> EffectOf(const std::vector<FaultEffect>& effects, FaultKind kind) {
    for (const FaultEffect& effect : effects)
        if (effect.kind == kind) return effect.value;
    return std::nullopt;
}

}  // namespace qvsim
