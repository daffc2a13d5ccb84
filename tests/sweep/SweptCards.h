// The cards of one scenario on their way through an upgrade, its failure and what follows: runs of
// the real tool with the reference beside it, everything compared. Used by one thread.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "Scenarios.h"

namespace qvtest {

// Requests of the real run, as the reference writes them: without the probing of nodes that are
// not there, and without checksums, which are in the flash anyway.
std::vector<std::string> Requests(qvsim::SimRig& rig);

// Faults happen once: the next process must not meet them again.
void ForgetTroubles(qvsim::SimRig& rig);

class SweptCards {
  public:
    SweptCards(const Scenario& scenario, const RefOptions& options,
               const std::vector<qvsim::Fault>& faults, const std::string& what);

    // With the scenario's package and options, on the flash and versions that are there. The run
    // of the reference: the real one did the same.
    RefRun Run() { return RunWith(m_scenario.package, m_options); }

    // The faults are over, vanished nodes are back; boards without power stay so.
    void ForgetTroubles();
    void PowerCycle() { m_rig.PowerCycle(); }
    uint32_t Version(int board, int channel) { return m_rig.RunningVersion(board, channel); }

    // Whether all that runs began to change is complete now, byte for byte, on every channel that
    // the options select, and each has such an image at all.
    bool Complete();
    // The package that brings back the earlier code, forced; off and on; the package once more.
    // Expects the main image complete after it.
    void BringBack();

    std::vector<RefChannel> Selected() const;

  private:
    RefRun RunWith(const PackageBuilder& package, const RefOptions& options);
    void CompareFlash(const RefDriver& driver);
    void NoteBegun(const RefDriver& driver);

    const Scenario& m_scenario;
    RefOptions m_options;
    std::vector<qvsim::Fault> m_faults;
    std::string m_what;
    qvsim::SimRig m_rig;
    ToolFolder m_folder;
    std::map<int, std::array<bool, 2>> m_begun;  // by node: the main image, the one beside it
};

// Header and sections of one image as the package has them, clear sections blank.
bool HoldsImage(const Bytes& flash, const PackageBuilder& package, uint32_t firmware, bool safe);

}  // namespace qvtest
