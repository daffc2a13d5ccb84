// What the benchmarks of whole programs share: the cards and packages that they work on, and the
// replay of a program's own requests beside it. A run that fails ends the benchmark. One thread.
#pragma once

#include <limits>
#include <string>
#include <vector>

#include "Cards.h"
#include "Process.h"

namespace qvbench {

// Ends the program with status 2 unless it is so.
void Require(bool good, const char* what);

// The least of several measures: what else the machine does can only add to each.
class Least {
  public:
    void Take(double value) { m_value = value < m_value ? value : m_value; }
    double Value() const { return m_value; }

  private:
    double m_value = std::numeric_limits<double>::max();
};

// Eight channels that answer at once, each with a flash of its own, and the package of 16 MiB for
// them.
struct WholeFlashes {
    WholeFlashes();
    Usage Do(const std::vector<std::string>& command);

    qvsim::SimRig rig;
    Folder work;
    std::string package;
};

// 64 channels, and 32 packages of 8 MiB, of which the last in the folder's order fits.
struct LargeRack {
    LargeRack();
    Usage Do(const std::vector<std::string>& command);

    static constexpr int kChannels = 64;
    qvsim::SimRig rig;
    Folder work;
    std::vector<std::string> packages;  // paths
};

// A program and bare replays of its requests, in turn. The first round warms caches and does not
// count.
struct Beside {
    Least program;            // CPU seconds
    std::vector<Least> bare;  // the same of each replay
    long peakKiB = 0;         // of the program
};
// `replays` are the arguments of each replay behind the journal.
Beside MeasureBeside(WholeFlashes& cards, const std::vector<std::string>& command, int status,
                     const std::vector<std::vector<std::string>>& replays);

}  // namespace qvbench
