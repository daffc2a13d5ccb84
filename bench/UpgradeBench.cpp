// What `qvcap upgrade` costs in addition to its children, and what upgrading several boards at once
// gains. Prints rows of a table; exit status 1 when a target is missed.
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

// It looks for a program that computes digests, and for no other.
std::vector<std::string> Upgrade(const Folder& work, const std::vector<std::string>& options) {
    std::vector<std::string> command = {
        "/usr/bin/env", "PATH=/usr/bin:/bin", QV_QVCAP_FILE, "upgrade",
        "--log",        work.Path() + "/log", "--lock",      work.Path() + "/lock"};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

// Flash that is as slow as a small serial one: 10 ms to erase a sector, 0.4 ms to program a page.
void EightBoardsAtOnce() {
    SimRig rig;
    for (int i = 0; i < 8; ++i) rig.Add(Board(1));
    qvsim::Latencies slow;
    slow.erasePerSector = 10000;
    slow.programPerPage = 400;
    slow.readPerKiB = 20;
    rig.Delays(slow);
    Folder work;
    PackageOf(kMiB).Write(work.Path() + "/a.qvf");
    Least alone;
    Least together;
    for (int round = 0; round < 3; ++round) {
        const Usage one = Run(rig.Dir(), work.Path(), Upgrade(work, {"--board", "0", "--force"}));
        const Usage all = Run(rig.Dir(), work.Path(), Upgrade(work, {"--jobs", "8", "--force"}));
        Require(one.status == 0 && all.status == 0, "upgrade");
        alone.Take(one.wallSeconds);
        together.Take(all.wallSeconds);
    }
    const double ratio = together.Value() / alone.Value();
    Row("`qvcap upgrade --jobs 8` of 8 boards, 1 MiB each: time / that of one board alone",
        Text("%.3f (%.2f s / %.2f s)", ratio, together.Value(), alone.Value()), "at most 1.15",
        ratio <= 1.15);
}

// The same upgrade by the tool itself and by qvcap, less the reading back that qvcap does besides.
// What is left is the package: read, copied and given its digest by another program, once a run.
void OverItsChildren() {
    qvbench::WholeFlashes cards;
    Least own;
    Least tool;
    Least reading;
    for (int round = 0; round < 5; ++round) {
        double children = 0;
        for (int channel = 0; channel < 8; ++channel) {
            const std::string card = "/dev/video" + std::to_string(channel);
            const Usage used = cards.Do({QV_TOOL_FILE, "-y", "-f", "-d", card});
            Require(used.status == 0, "the tool");
            children += used.cpuSeconds;
        }
        tool.Take(children);
        // All is in flash by now: the plan reads it, and so does the reading back of each card.
        const Usage status = cards.Do({QV_QVCAP_FILE, "status", "--exit-code"});
        Require(status.status == 4, "status");
        reading.Take(status.cpuSeconds);
        const Usage upgrade = cards.Do(Upgrade(cards.work, {"--force"}));
        Require(upgrade.status == 0, "upgrade");
        own.Take(upgrade.cpuSeconds);
    }
    const double beyond = own.Value() - tool.Value() - 2 * reading.Value();
    const double part = beyond / tool.Value() * 100;
    Row("`qvcap upgrade` of 8 flashes of 16 MiB: CPU beyond that of its children and of reading "
        "back "
        "twice, in parts of the children's",
        Text("%.1f%% (%.2f s - %.2f s - 2 x %.2f s)", part, own.Value(), tool.Value(),
             reading.Value()),
        "at most 45%; wanted: 2%", part <= 45);
}

}  // namespace

int main() {
    EightBoardsAtOnce();
    OverItsChildren();
    return g_missed == 0 ? 0 : 1;
}
