// The upgrades that are swept: cards, a package and the options; and one run of the real tool over
// them, with everything that can be compared. Any thread, each with a Bench of its own.
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
};

// Versions of every scenario: what runs, what the factory put in, what the package brings.
constexpr uint32_t kRunning = 0x00010000;
constexpr uint32_t kGolden = 0x00000009;
constexpr uint32_t kNew = 0x00010001;

const std::vector<Scenario>& Scenarios();
std::vector<std::string> Arguments(const RefOptions& options);

// Fresh cards of a scenario and what the reference makes of them. The cards' own header in flash
// is taken as found.
void AddBoards(const Scenario& scenario, qvsim::SimRig* rig);
RefWorld WorldOf(const Scenario& scenario);
std::vector<Bytes> Flashes(const Scenario& scenario, qvsim::SimRig& rig);

// Requests of the real run, as the reference writes them: without the probing of nodes that are
// not there, and without checksums, which stand in the flash anyway.
std::vector<std::string> Requests(qvsim::SimRig& rig);

// Faults happen once: the next process must not meet them again.
void ForgetTroubles(qvsim::SimRig& rig);

// How a run ended: "ok", "erase failed", ...
std::string Outcome(const RefRun& run);

// "refuse(5) at open 1 of board 0 channel 0".
std::string FaultText(const qvsim::Fault& fault);

// Does `work(i)` for every i below `count`, on as many threads as there are processors; on
// one with a sanitizer.
void InParallel(size_t count, const std::function<void(size_t)>& work);

}  // namespace qvtest
