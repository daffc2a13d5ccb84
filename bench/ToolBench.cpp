// Compares the cost of the tool with that of its bare driver requests: processor time, memory,
// waiting time, and listing a large rack. Prints rows of a table; exit status 1 when a target is
// missed.
#include <cstdio>
#include <filesystem>
#include <fstream>
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

// Eight channels and one package of 16 MiB, on cards that answer at once; the tool and the bare
// replay of its own journal alternately. Other work of the machine can only add to either, so the
// least of each is compared.
void ProcessorTimeAndMemory() {
    constexpr int kRounds = 12;
    SimRig rig;
    rig.Add(Board(8));
    Folder work;
    PackageOf(16 * kMiB).Write(work.Path() + "/a.qvf");
    const std::vector<std::string> tool{QV_TOOL_FILE, "-a", "-y"};
    const std::string journal = work.Path() + "/replay.journal";
    double toolSeconds = std::numeric_limits<double>::max();
    double bareSeconds = toolSeconds;
    long peak = 0;
    for (int round = 0; round <= kRounds; ++round) {
        const std::string running = rig.Dir() + "/journal";
        std::filesystem::remove(running);
        const Usage upgrade = Run(rig.Dir(), work.Path(), tool);
        if (round == 0) std::filesystem::copy_file(running, journal);
        std::filesystem::remove(running);
        const Usage bare = Run(rig.Dir(), work.Path(), {QV_REPLAY_FILE, journal});
        if (upgrade.status != 0 || bare.status != 0) {
            fprintf(stderr, "a run failed: tool %d, replay %d\n", upgrade.status, bare.status);
            exit(2);
        }
        if (round == 0) continue;  // caches are warm from here on
        toolSeconds = std::min(toolSeconds, upgrade.cpuSeconds);
        bareSeconds = std::min(bareSeconds, bare.cpuSeconds);
        peak = std::max(peak, upgrade.peakKiB);
    }
    const double ratio = toolSeconds / bareSeconds;
    Row("upgrade of 8 channels, 16 MiB: CPU of the tool / of a bare replay of its requests",
        Text("%.3f (%.2f s / %.2f s)", ratio, toolSeconds, bareSeconds), "at most 1.05",
        ratio <= 1.05);
    const double overPackage = static_cast<double>(peak) / 1024 - 16;
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
    // The header counts, too: a sector, a page, and a KiB three times (inventory and verify).
    const double simulated =
        ((kSize / 4096.0 + 1) * kDelays.erasePerSector +
         (kSize / 256.0 + 1) * kDelays.programPerPage + (kSize / 1024.0 + 2) * kDelays.readPerKiB) /
        1e6;
    const double ratio = usage.wallSeconds / simulated;
    Row("upgrade of 1 channel, 2 MiB, with flash delays: wall time / sum of the delays",
        Text("%.3f (%.2f s / %.2f s)", ratio, usage.wallSeconds, simulated), "at most 1.02",
        usage.status == 0 && ratio <= 1.02);
}

// 64 channels and 32 packages of 8 MiB, of which the last in the folder's order fits; and `cat`,
// which reads them as often.
void ListingALargeRack() {
    constexpr int kChannels = 64;
    SimRig rig;
    for (int board = 0; board < kChannels / 8; ++board) rig.Add(Board(8).Board(board));
    Folder work;
    std::vector<std::string> cat{"/bin/cat"};
    for (int i = 0; i < 32; ++i) {
        cat.push_back(work.Path() + "/p" + std::to_string(i) + ".qvf");
        PackageOf(8 * kMiB).ProductCode(0x0999).Write(cat.back());
    }
    const std::vector<std::string> files(cat.begin() + 1, cat.end());
    for (int i = 1; i < kChannels; ++i) cat.insert(cat.end(), files.begin(), files.end());
    std::string last;  // the folder's own order decides which one is read last
    for (const auto& entry : std::filesystem::directory_iterator(work.Path())) last = entry.path();
    PackageOf(8 * kMiB).Write(last);
    double listSeconds = std::numeric_limits<double>::max();
    double catSeconds = listSeconds;
    bool good = true;
    for (int round = 0; round < 3; ++round) {
        const Usage listing = Run(rig.Dir(), work.Path(), {QV_TOOL_FILE, "-l"});
        const Usage reading = Run("", work.Path(), cat);
        listSeconds = std::min(listSeconds, listing.cpuSeconds);
        catSeconds = std::min(catSeconds, reading.cpuSeconds);
        good = good && listing.status == 0 && reading.status == 0;
    }
    const double gib = 64.0 * 32 * 8 / 1024;
    const double ratio = listSeconds / catSeconds;
    Row("`-l` with 64 channels and 32 packages of 8 MiB, the last of which fits: CPU / that of "
        "`cat`",
        Text("%.2f (%.2f s / %.2f s; %.0f GiB of packages read)", ratio, listSeconds, catSeconds,
             gib),
        "at most 1.50", good && ratio <= 1.5);
}

}  // namespace

int main() {
    ProcessorTimeAndMemory();
    WaitingTime();
    ListingALargeRack();
    return g_missed == 0 ? 0 : 1;
}
