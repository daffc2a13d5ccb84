// What `qvcap upgrade` costs in addition to its children, and what upgrading several boards at once
// gains. Prints rows of a table; exit status 1 when a target is missed.
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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
std::vector<std::string> Upgrade(const Folder& work, const std::string& qvcap,
                                 const std::vector<std::string>& options) {
    std::vector<std::string> command = {
        "/usr/bin/env", "PATH=/usr/bin:/bin", qvcap,    "upgrade",
        "--log",        work.Path() + "/log", "--lock", work.Path() + "/lock"};
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
        const Usage one =
            Run(rig.Dir(), work.Path(), Upgrade(work, QV_QVCAP_FILE, {"--board", "0", "--force"}));
        const Usage all =
            Run(rig.Dir(), work.Path(), Upgrade(work, QV_QVCAP_FILE, {"--jobs", "8", "--force"}));
        Require(one.status == 0 && all.status == 0, "upgrade");
        alone.Take(one.wallSeconds);
        together.Take(all.wallSeconds);
    }
    const double ratio = together.Value() / alone.Value();
    Row("`qvcap upgrade --jobs 8` of 8 boards, 1 MiB each: time / that of one board alone",
        Text("%.3f (%.2f s / %.2f s)", ratio, together.Value(), alone.Value()), "at most 1.15",
        ratio <= 1.15);
}

// A copy of qvcap beside a tool that says what processor time it took.
class MeteredQvcap {
  public:
    MeteredQvcap() {
        std::filesystem::copy_file(QV_QVCAP_FILE, File("qvcap"));
        std::filesystem::copy_file(QV_METER_FILE, File("qvcap-upgrade"));
    }
    std::string File(const char* name) const { return m_folder.Path() + "/" + name; }

    // Seconds that the tools took since it was last asked.
    double Used() {
        double sum = 0;
        std::ifstream file(File("used"));
        for (double each = 0; file >> each;) sum += each;
        std::filesystem::remove(File("used"));
        return sum;
    }

  private:
    Folder m_folder;
};

// What qvcap takes beyond the tools that it starts, in one and the same run, and beyond reading
// back twice: for its plan, and behind each tool. What is left is the package, read, copied and
// given its digest once a run, and the looks at processes and at the tools' output.
void OverItsChildren() {
    qvbench::WholeFlashes cards;
    MeteredQvcap metered;
    Least own;
    Least tools;
    Least reading;
    for (int round = 0; round < 7; ++round) {
        const Usage upgrade = cards.Do(Upgrade(cards.work, metered.File("qvcap"), {"--force"}));
        Require(upgrade.status == 0, "upgrade");
        const double used = metered.Used();
        Require(used > 0, "a tool that says what it took");
        tools.Take(used);
        own.Take(upgrade.cpuSeconds - used);
        // The package is in flash by now, so this reads all of it, as the plan does.
        const Usage status = cards.Do({QV_QVCAP_FILE, "status", "--exit-code"});
        Require(status.status == 4, "status");
        reading.Take(status.cpuSeconds);
    }
    const double beyond = own.Value() - 2 * reading.Value();
    const double part = beyond / tools.Value() * 100;
    Row("`qvcap upgrade` of 8 flashes of 16 MiB: CPU beyond that of the tools it starts and of "
        "reading back twice, in parts of the tools'",
        Text("%.1f%% (%.3f s - 2 x %.3f s; the tools: %.2f s)", part, own.Value(), reading.Value(),
             tools.Value()),
        "at most 15%; wanted: 2%", part <= 15);
}

}  // namespace

int main() {
    EightBoardsAtOnce();
    OverItsChildren();
    return g_missed == 0 ? 0 : 1;
}
