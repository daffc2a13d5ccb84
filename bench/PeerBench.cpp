// Erases, writes and verifies 16 MiB: compares qvcap-upgrade on a simulated card with Debian's
// flashrom on the flash chip that flashrom emulates itself, alternately. Both begin on a chip that
// is full of other data. Prints rows of a table.
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "Cards.h"
#include "Process.h"
#include "Report.h"

namespace {

using qvbench::Folder;
using qvbench::kMiB;
using qvbench::Median;
using qvbench::PackageOf;
using qvbench::Run;
using qvbench::Text;
using qvbench::Usage;
using qvtest::Bytes;
using qvtest::PackageBuilder;

constexpr uint32_t kSize = 16 * kMiB;
constexpr int kRounds = 5;
constexpr char kPeer[] = "/usr/sbin/flashrom";

Bytes Contents(int round) { return qvtest::Payload(kSize, 10 + static_cast<uint32_t>(round)); }

void Require(const Usage& usage, const char* who) {
    if (usage.status == 0) return;
    fprintf(stderr, "%s failed: status %d\n", who, usage.status);
    exit(2);
}

// Measures only if the chip or card holds the written data.
void RequireContents(const Bytes& found, const Bytes& expected, const char* who) {
    if (found == expected) return;
    fprintf(stderr, "%s has not written what it was given\n", who);
    exit(2);
}

Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

int main() {
    if (access(kPeer, X_OK) != 0) {
        fprintf(stderr, "%s is not here: run scripts/bootstrap --bench\n", kPeer);
        return 2;
    }
    qvsim::SimRig rig;
    rig.Add(qvbench::Board(1));
    const Folder tool;
    const Folder peer;
    const std::string chip = peer.Path() + "/chip";
    PackageBuilder::WriteBytes(chip, Contents(0));
    std::vector<double> toolCpu, toolWall, peerCpu, peerWall, ratios;
    for (int round = 0; round <= kRounds; ++round) {
        const Bytes bytes = Contents(round);
        PackageOf(kSize, 10 + static_cast<uint32_t>(round)).Write(tool.Path() + "/a.qvf");
        const Usage ours = Run(rig.Dir(), tool.Path(), {QV_TOOL_FILE, "-a", "-y", "-f"});
        Require(ours, "qvcap-upgrade");
        RequireContents(rig.Flash(0, 0, qvbench::kSectionAddress, kSize), bytes, "qvcap-upgrade");
        if (round == 0)
            continue;  // this round filled the card; the peer's chip is full from here on, too
        PackageBuilder::WriteBytes(peer.Path() + "/new", bytes);
        const Usage theirs = Run(
            {}, peer.Path(), {kPeer, "-p", "dummy:emulate=W25Q128FV,image=" + chip, "-w", "new"});
        Require(theirs, "flashrom");
        RequireContents(ReadFile(chip), bytes, "flashrom");
        toolCpu.push_back(ours.cpuSeconds);
        toolWall.push_back(ours.wallSeconds);
        peerCpu.push_back(theirs.cpuSeconds);
        peerWall.push_back(theirs.wallSeconds);
        ratios.push_back(ours.cpuSeconds / theirs.cpuSeconds);
    }
    qvbench::Row("erase, write and verify 16 MiB, chips without delays: CPU / that of `flashrom`",
                 Text("%.2f (%.2f s / %.2f s)", Median(ratios), Median(toolCpu), Median(peerCpu)),
                 "reported", true);
    qvbench::Row("the same: waiting time of the two",
                 Text("%.2f s; %.2f s", Median(toolWall), Median(peerWall)), "reported", true);
    return 0;
}
