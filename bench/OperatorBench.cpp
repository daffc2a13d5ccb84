// Compares the cost of qvcap with that of bare reads of flash, and with a listing by the tool.
// Prints rows of a table; exit status 1 when a target is missed.
#include <cstdio>
#include <filesystem>
#include <limits>

#include "Cards.h"
#include "Process.h"
#include "Report.h"

namespace {

using qvbench::Board;
using qvbench::Folder;
using qvbench::g_missed;
using qvbench::kMiB;
using qvbench::PackageOf;
using qvbench::Row;
using qvbench::Run;
using qvbench::Text;
using qvbench::Usage;
using qvsim::SimRig;

void Require(bool good, const char* what) {
    if (good) return;
    fprintf(stderr, "a run failed: %s\n", what);
    exit(2);
}

// Eight flashes that hold the package's 16 MiB each, read by `qvcap status`, alternately with the
// same requests made directly by the replay of its journal. Other work of the machine can only add
// to either, so the least of each is compared.
void StatusOfWholeFlashes() {
    constexpr int kRounds = 12;
    SimRig rig;
    rig.Add(Board(8));
    Folder work;
    PackageOf(16 * kMiB).Write(work.Path() + "/a.qvf");
    Require(Run(rig.Dir(), work.Path(), {QV_TOOL_FILE, "-a", "-y"}).status == 0, "upgrade");
    const std::vector<std::string> status{QV_QVCAP_FILE, "status", "--exit-code"};
    constexpr int kStaged = 4;
    const std::string running = rig.Dir() + "/journal";
    const std::string journal = work.Path() + "/replay.journal";
    double statusSeconds = std::numeric_limits<double>::max();
    double bareSeconds = statusSeconds;
    long peak = 0;
    for (int round = 0; round <= kRounds; ++round) {
        std::filesystem::remove(running);
        const Usage judged = Run(rig.Dir(), work.Path(), status);
        if (round == 0) std::filesystem::copy_file(running, journal);
        std::filesystem::remove(running);
        const Usage bare = Run(rig.Dir(), work.Path(), {QV_REPLAY_FILE, journal});
        Require(judged.status == kStaged, "status");
        Require(bare.status == 0, "replay");
        if (round == 0) continue;  // caches are warm from here on
        statusSeconds = std::min(statusSeconds, judged.cpuSeconds);
        bareSeconds = std::min(bareSeconds, bare.cpuSeconds);
        peak = std::max(peak, judged.peakKiB);
    }
    const double ratio = statusSeconds / bareSeconds;
    Row("`qvcap status` of 8 flashes of 16 MiB: CPU / that of a bare loop of the same reads",
        Text("%.3f (%.3f s / %.3f s)", ratio, statusSeconds, bareSeconds),
        "at most 2.50; wanted: 1.10", ratio <= 2.5);
    const double overPackage = static_cast<double>(peak) / 1024 - 16;
    Row("the same: peak resident memory above the package's size", Text("%.1f MiB", overPackage),
        "at most 16 MiB", overPackage <= 16);
}

// 64 channels and 32 packages of 8 MiB, of which the last in the folder's order fits.
void QuickStatusOfALargeRack() {
    constexpr int kChannels = 64;
    constexpr int kAvailable = 6;
    SimRig rig;
    for (int board = 0; board < kChannels / 8; ++board) rig.Add(Board(8).Board(board));
    Folder work;
    for (int i = 0; i < 32; ++i)
        PackageOf(8 * kMiB).ProductCode(0x0999).Write(work.Path() + "/p" + std::to_string(i) +
                                                      ".qvf");
    std::string last;  // the folder's own order decides which one the tool reads last
    for (const auto& entry : std::filesystem::directory_iterator(work.Path())) last = entry.path();
    PackageOf(8 * kMiB).Write(last);
    double quickSeconds = std::numeric_limits<double>::max();
    double listSeconds = quickSeconds;
    for (int round = 0; round < 3; ++round) {
        const Usage listing = Run(rig.Dir(), work.Path(), {QV_TOOL_FILE, "-l"});
        const Usage quick =
            Run(rig.Dir(), work.Path(), {QV_QVCAP_FILE, "status", "--quick", "--exit-code"});
        Require(listing.status == 0, "listing");
        Require(quick.status == kAvailable, "quick status");
        listSeconds = std::min(listSeconds, listing.cpuSeconds);
        quickSeconds = std::min(quickSeconds, quick.cpuSeconds);
    }
    const double part = quickSeconds / listSeconds * 100;
    Row("`qvcap status --quick` of 64 channels, 32 packages of 8 MiB: CPU / that of `qvcap-upgrade "
        "-l`",
        Text("%.2f%% (%.3f s / %.2f s)", part, quickSeconds, listSeconds), "under 1%", part < 1);
}

}  // namespace

int main() {
    StatusOfWholeFlashes();
    QuickStatusOfALargeRack();
    return g_missed == 0 ? 0 : 1;
}
