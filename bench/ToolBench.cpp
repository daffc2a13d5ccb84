// Compares the cost of the tool with that of its bare driver requests: processor time, memory,
// waiting time, and listing a large rack. Prints rows of a table; exit status 1 when a target is
// missed.
#include "Report.h"
#include "Trials.h"

namespace {

using qvbench::Board;
using qvbench::Folder;
using qvbench::g_missed;
using qvbench::kMiB;
using qvbench::Least;
using qvbench::PackageOf;
using qvbench::Require;
using qvbench::Row;
using qvbench::Run;
using qvbench::Text;
using qvbench::Usage;
using qvsim::SimRig;

// The tool and the bare replay of its own journal in turn.
void ProcessorTimeAndMemory() {
    qvbench::WholeFlashes cards;
    const qvbench::Beside beside = MeasureBeside(cards, {QV_TOOL_FILE, "-a", "-y"}, 0, {{}});
    const double tool = beside.program.Value();
    const double bare = beside.bare[0].Value();
    Row("upgrade of 8 channels, 16 MiB: CPU of the tool / of a bare replay of its requests",
        Text("%.3f (%.2f s / %.2f s)", tool / bare, tool, bare), "at most 1.05",
        tool / bare <= 1.05);
    const double overPackage = static_cast<double>(beside.peakKiB) / 1024 - 16;
    Row("the same: peak resident memory above the package's size", Text("%.1f MiB", overPackage),
        "at most 8 MiB", overPackage <= 8);
}

// One channel and 2 MiB on cards with the delays of a serial NOR flash.
void WaitingTime() {
    constexpr uint32_t kSize = 2 * kMiB;
    constexpr qvsim::Latencies kDelays{10000, 400, 20};
    SimRig rig;
    rig.Add(Board(1)).Delays(kDelays);
    Folder work;
    PackageOf(kSize).Write(work.Path() + "/a.qvf");
    const Usage usage = Run(rig.Dir(), work.Path(), {QV_TOOL_FILE, "-a", "-y"});
    // The header goes along: a sector, a page, and a KiB three times (inventory and verify).
    const double simulated =
        ((kSize / 4096.0 + 1) * kDelays.erasePerSector +
         (kSize / 256.0 + 1) * kDelays.programPerPage + (kSize / 1024.0 + 2) * kDelays.readPerKiB) /
        1e6;
    const double ratio = usage.wallSeconds / simulated;
    Row("upgrade of 1 channel, 2 MiB, with flash delays: wall time / sum of the delays",
        Text("%.3f (%.2f s / %.2f s)", ratio, usage.wallSeconds, simulated), "at most 1.02",
        usage.status == 0 && ratio <= 1.02);
}

// Beside `cat`, which reads the packages as often.
void ListingALargeRack() {
    qvbench::LargeRack rack;
    std::vector<std::string> cat{"/bin/cat"};
    for (int i = 0; i < qvbench::LargeRack::kChannels; ++i)
        cat.insert(cat.end(), rack.packages.begin(), rack.packages.end());
    Least list;
    Least reading;
    for (int round = 0; round < 3; ++round) {
        const Usage listing = rack.Do({QV_TOOL_FILE, "-l"});
        const Usage concatenated = Run("", rack.work.Path(), cat);
        Require(listing.status == 0 && concatenated.status == 0, "listing");
        list.Take(listing.cpuSeconds);
        reading.Take(concatenated.cpuSeconds);
    }
    const double gib = 64.0 * 32 * 8 / 1024;
    const double ratio = list.Value() / reading.Value();
    Row("`-l` with 64 channels and 32 packages of 8 MiB, the last of which fits: CPU / that of "
        "`cat`",
        Text("%.2f (%.2f s / %.2f s; %.0f GiB of packages read)", ratio, list.Value(),
             reading.Value(), gib),
        "at most 1.50", ratio <= 1.5);
}

}  // namespace

int main() {
    ProcessorTimeAndMemory();
    WaitingTime();
    ListingALargeRack();
    return g_missed == 0 ? 0 : 1;
}
