// Compares the cost of qvcap with that of bare reads of flash, and with a listing by the tool.
// Prints rows of a table; exit status 1 when a target is missed.
#include "Report.h"
#include "Trials.h"

namespace {

using qvbench::g_missed;
using qvbench::Least;
using qvbench::Require;
using qvbench::Row;
using qvbench::Text;
using qvbench::Usage;

// Eight flashes that hold the package's 16 MiB each, read back by `qvcap status`; the same requests
// issued bare by the replay of its journal; and the same with what was read compared, as every
// judge of it must.
void StatusOfWholeFlashes() {
    constexpr int kStaged = 4;
    constexpr int kHeader = 157 + 28;
    qvbench::WholeFlashes cards;
    Require(cards.Do({QV_TOOL_FILE, "-a", "-y"}).status == 0, "upgrade");
    const qvbench::Beside beside = MeasureBeside(
        cards, {QV_QVCAP_FILE, "status", "--exit-code"}, kStaged,
        {{}, {cards.package, Text("%d", kHeader), Text("%u", qvbench::kSectionAddress)}});
    const double status = beside.program.Value();
    const double bare = beside.bare[0].Value();
    const double compared = beside.bare[1].Value();
    Row("`qvcap status` of 8 flashes of 16 MiB: CPU / that of a bare loop that reads the same and "
        "compares it with the package",
        Text("%.3f (%.3f s / %.3f s)", status / compared, status, compared), "at most 1.10",
        status / compared <= 1.1);
    Row("the same: CPU / that of a bare loop that reads and does not look",
        Text("%.3f (%.3f s / %.3f s)", status / bare, status, bare), "at most 2.00; wanted: 1.10",
        status / bare <= 2.0);
    const double overPackage = static_cast<double>(beside.peakKiB) / 1024 - 16;
    Row("the same: peak resident memory of `qvcap status` above the package's size",
        Text("%.1f MiB", overPackage), "at most 16 MiB", overPackage <= 16);
}

void QuickStatusOfALargeRack() {
    constexpr int kAvailable = 6;
    qvbench::LargeRack rack;
    Least quick;
    Least list;
    for (int round = 0; round < 3; ++round) {
        const Usage listing = rack.Do({QV_TOOL_FILE, "-l"});
        const Usage status = rack.Do({QV_QVCAP_FILE, "status", "--quick", "--exit-code"});
        Require(listing.status == 0, "listing");
        Require(status.status == kAvailable, "quick status");
        list.Take(listing.cpuSeconds);
        quick.Take(status.cpuSeconds);
    }
    const double part = quick.Value() / list.Value() * 100;
    Row("`qvcap status --quick` of 64 channels, 32 packages of 8 MiB: CPU / that of `qvcap-upgrade "
        "-l`",
        Text("%.2f%% (%.3f s / %.2f s)", part, quick.Value(), list.Value()), "under 1%", part < 1);
}

}  // namespace

int main() {
    StatusOfWholeFlashes();
    QuickStatusOfALargeRack();
    return g_missed == 0 ? 0 : 1;
}
