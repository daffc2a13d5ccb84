// The upgrades that are swept: cards, a package and the options. Any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Reference.h"
#include "support/SimRig.h"
#include "tool/ToolProcess.h"

namespace qvtest {

struct SweepBoard {
    bool lumo = false;
    int channels = 1;
    uint16_t storedCode = 1;
};

struct Scenario {
    std::string name;
    std::vector<SweepBoard> boards;
    PackageBuilder package;
    std::vector<RefOptions> options;  // each is swept
    uint32_t running = 0x00010000;    // and stored
    // Where codes are such that a failed normal upgrade may be followed by safe ones, which leave
    // the main image as it is: a package with another code, which brings the way back.
    std::optional<PackageBuilder> earlier = {};
};

// Versions of the scenarios: what most run, what the factory put in, what the package brings.
constexpr uint32_t kRunning = 0x00010000;
constexpr uint32_t kGolden = 0x00000009;
constexpr uint32_t kNew = 0x00010001;

const std::vector<Scenario>& Scenarios();
std::vector<std::string> Arguments(const RefOptions& options);

// Cards of a scenario and what the reference makes of them. The cards' own header in flash is
// taken as found.
void AddBoards(const Scenario& scenario, qvsim::SimRig* rig);
// Writes the state, with all of the flash behind that header full of what earlier firmware left.
void LayOut(const Scenario& scenario, qvsim::SimRig& rig);
RefWorld WorldOf(const Scenario& scenario);
std::vector<Bytes> Flashes(const Scenario& scenario, qvsim::SimRig& rig);

// How a run ended: "ok", "erase failed", ...
std::string Outcome(const RefRun& run);

// "refuse(5) at open 1 of board 0 channel 0".
std::string FaultText(const qvsim::Fault& fault);

// Does `work(i)` for every i below `count`, on as many threads as there are processors; on
// one with a sanitizer.
void InParallel(size_t count, const std::function<void(size_t)>& work);

}  // namespace qvtest
