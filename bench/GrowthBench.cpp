// How the tool's cost grows with channels, with the size of a package and with the number of
// packages: each time the cost of one unit, for a large number and for a smaller one. Prints rows
// of a table; exit status 1 when a target is missed.
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "Cards.h"
#include "Process.h"
#include "Report.h"

namespace {

using qvbench::Board;
using qvbench::Folder;
using qvbench::kKiB;
using qvbench::kMiB;
using qvbench::PackageOf;
using qvbench::Row;
using qvbench::Run;
using qvbench::Text;
using qvbench::Usage;
using qvsim::SimRig;

constexpr int kRounds = 5;

// The quickest of some runs, to measure the tool's own work and not what else the machine does.
template <class Once>
Usage Quickest(Once once) {
    Usage best;
    for (int round = 0; round < kRounds; ++round) {
        const Usage usage = once();
        if (usage.status != 0) {
            fprintf(stderr, "a run failed: status %d\n", usage.status);
            exit(2);
        }
        if (round == 0 || usage.cpuSeconds < best.cpuSeconds) best = usage;
    }
    return best;
}

Usage UpgradeOf(int channels, uint32_t packageSize) {
    SimRig rig;
    // Eight channels per board; a single channel is one board.
    for (int left = channels; left > 0; left -= 8)
        rig.Add(Board(std::min(left, 8), packageSize + 8 * kMiB));
    Folder work;
    PackageOf(packageSize).Write(work.Path() + "/a.qvf");
    return Quickest([&] { return Run(rig.Dir(), work.Path(), {QV_TOOL_FILE, "-a", "-y", "-f"}); });
}

void Channels() {
    constexpr uint32_t kSize = 256 * kKiB;
    const double one = UpgradeOf(1, kSize).cpuSeconds;
    const double eight = UpgradeOf(8, kSize).cpuSeconds / 8;
    const double all = UpgradeOf(64, kSize).cpuSeconds / 64;
    Row("growth, upgrade of 64 channels, 256 KiB: CPU per channel / that of 8 channels",
        Text("%.2f (1: %.1f ms, 8: %.1f ms, 64: %.1f ms a channel)", all / eight, one * 1e3,
             eight * 1e3, all * 1e3),
        "at most 1.25", all / eight <= 1.25);
}

void PackageSizes() {
    const auto perMiB = [](uint32_t size, Usage* usage) {
        *usage = UpgradeOf(1, size);
        return usage->cpuSeconds * kMiB / size * 1e3;
    };
    Usage smallest;
    Usage middle;
    Usage largest;
    const double small = perMiB(64 * kKiB, &smallest);
    const double one = perMiB(4 * kMiB, &middle);
    const double large = perMiB(64 * kMiB, &largest);
    Row("growth, upgrade by a package of 64 MiB: CPU per MiB / that of 4 MiB",
        Text("%.2f (64 KiB: %.1f ms, 4 MiB: %.1f ms, 64 MiB: %.1f ms a MiB)", large / one, small,
             one, large),
        "at most 1.25", large / one <= 1.25);
    const double over = static_cast<double>(largest.peakKiB) / 1024 - 64;
    Row("the same: peak resident memory above the package of 64 MiB",
        Text("%.1f MiB (64 KiB: %.1f MiB)", over,
             static_cast<double>(smallest.peakKiB) / 1024 - 1.0 / 16),
        "at most 8 MiB", over <= 8);
}

// Of `count` packages only the last in the folder's order fits.
Usage ListingOf(int count) {
    SimRig rig;
    rig.Add(Board(8));
    Folder work;
    for (int i = 0; i < count; ++i)
        PackageOf(1 * kMiB).ProductCode(0x0999).Write(work.Path() + "/p" + std::to_string(i) +
                                                      ".qvf");
    std::string last;
    for (const auto& entry : std::filesystem::directory_iterator(work.Path())) last = entry.path();
    PackageOf(1 * kMiB).Write(last);
    return Quickest([&] { return Run(rig.Dir(), work.Path(), {QV_TOOL_FILE, "-l"}); });
}

void Packages() {
    const double one = ListingOf(1).cpuSeconds;
    const double eight = ListingOf(8).cpuSeconds / 8;
    const double all = ListingOf(32).cpuSeconds / 32;
    Row("growth, `-l` of 8 channels over 32 packages of 1 MiB: CPU per package / that of 8",
        Text("%.2f (1: %.1f ms, 8: %.1f ms, 32: %.1f ms a package)", all / eight, one * 1e3,
             eight * 1e3, all * 1e3),
        "at most 1.25", all / eight <= 1.25);
}

}  // namespace

int main() {
    Channels();
    PackageSizes();
    Packages();
    return qvbench::g_missed == 0 ? 0 : 1;
}
