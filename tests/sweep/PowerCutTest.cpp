// The power goes at every request of an upgrade. The cards come up as cards do, the tool runs once
// more, and the new firmware stands complete. What happens in between is the table of
// docs/recovery.md; scripts/recovery-table writes it there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "Scenarios.h"

namespace qvtest {
namespace {

using qvsim::Fault;

constexpr char kBegin[] = "<!-- recovery-table begins: scripts/recovery-table writes it -->\n";
constexpr char kEnd[] = "<!-- recovery-table ends -->\n";

// What the board in work was doing, in the order of an upgrade.
const char* const kPhases[] = {"listing, asking", "erasing the header", "erasing a section",
                               "the blank check", "writing the header", "writing a section",
                               "verifying",       "reconfiguring"};

size_t PhaseOf(const std::vector<RefCall>& calls, size_t position) {
    bool erased = false;
    bool written = false;
    bool sectionWritten = false;
    const RefCall& call = calls[position];
    for (size_t i = 0; i < position; ++i) {
        if (calls[i].board != call.board || calls[i].channel != call.channel) continue;
        erased |= calls[i].name == "EraseFirmwareData";
        written |= calls[i].name == "WriteFirmwareData";
        sectionWritten |= written;
    }
    if (call.name == "EraseFirmwareData") return erased ? 2 : 1;
    if (call.name == "WriteFirmwareData") return sectionWritten ? 5 : 4;
    if (call.name == "SetPostReconfig") return 7;
    if (call.name == "ReadFirmwareData" && erased) return written ? 6 : 3;
    return 0;
}

struct Cut {
    const Scenario* scenario;
    RefOptions options;
    RefCall at;
    std::vector<Fault> faults;
    size_t phase;
    bool safe;
};

Fault PowerLossAt(const RefCall& call) {
    return {.request = call.name,
            .nth = call.nth,
            .board = call.board,
            .channel = call.channel,
            .effect = qvsim::PowerLoss()};
}

// The power of the computer goes for every board: each dies at its own next request.
std::vector<Fault> CutAt(const std::vector<RefCall>& calls, size_t position) {
    std::vector<Fault> faults;
    std::set<int> dead = {-1};
    for (size_t i = position; i < calls.size(); ++i)
        if (dead.insert(calls[i].board).second) faults.push_back(PowerLossAt(calls[i]));
    return faults;
}

std::vector<Cut> AllCuts() {
    std::vector<Cut> cuts;
    for (const Scenario& scenario : Scenarios()) {
        qvsim::SimRig rig;
        AddBoards(scenario, &rig);
        rig.Dir();
        RefWorld world = WorldOf(scenario);
        world.flashes = Flashes(scenario, rig);
        for (const RefOptions& options : scenario.options) {
            RefDriver driver(world);
            const RefRun good = RunReference(driver, scenario.package.File(), options);
            const bool safe = good.output.find("Safe upgrade") != std::string::npos;
            for (size_t i = 0; i < driver.calls.size(); ++i)
                if (driver.calls[i].board >= 0)
                    cuts.push_back({&scenario, options, driver.calls[i], CutAt(driver.calls, i),
                                    PhaseOf(driver.calls, i), safe});
        }
    }
    return cuts;
}

std::string VersionWord(uint32_t version) {
    if (version == kRunning) return "the old one";
    if (version == kGolden) return "the factory's";
    return version == kNew ? "the new one" : "an unknown one";
}

std::string MessageOf(const std::string& outcome) {
    static const std::map<std::string, std::string> kMessages = {
        {"ok", "`successfully.`"},
        {"nothing listed", "`total 0, need upgrade …`"},
        {"erase failed", "`error (erasing at …%).`"},
        {"write failed", "`error (writting at …%).`"},
        {"verify failed", "`error (verifying at …%).`"},
        {"unknown reason", "`error (unknow reason).`"},
        {"reconfiguration failed", "`Set post reconfig failed`"},
        {"not needed", "`Needn't upgrade`"},
        {"device refused", "`device … isn't a pelix or lumo capture device`"},
        {"silent", "none"},
    };
    return kMessages.at(outcome);
}

// Header and sections as the package has them, clear sections blank.
bool HoldsPackage(const Bytes& flash, const Scenario& scenario, const RefChannel& channel,
                  bool safe) {
    const Bytes file = scenario.package.File();
    const Bytes header = scenario.package.Header();
    const auto same = [&](size_t at, const Bytes& bytes) {
        return std::equal(bytes.begin(), bytes.end(), flash.begin() + static_cast<ptrdiff_t>(at));
    };
    if (!same(channel.firmware + (safe ? 4096 : 0), header)) return false;
    for (size_t i = 0; i < header.at(156); ++i) {
        const size_t entry = 157 + 28 * i;
        const std::string name(header.begin() + static_cast<ptrdiff_t>(entry),
                               header.begin() + static_cast<ptrdiff_t>(entry + 16));
        if ((name.compare(0, 8, "Upgrade.") == 0) != safe) continue;
        const size_t address = header.at(entry + 16) |
                               static_cast<size_t>(header.at(entry + 17)) << 8 |
                               static_cast<size_t>(header.at(entry + 18)) << 16;
        Bytes data = scenario.package.Data(i);
        if (name.find(".CLR") != name.npos) data.assign(data.size(), 0xFF);
        if (!same(address, data)) return false;
    }
    return true;
}

std::vector<RefChannel> Upgraded(const Cut& cut) {
    std::vector<RefChannel> channels;
    for (const RefChannel& channel : WorldOf(*cut.scenario).channels) {
        if (cut.options.device && channel.node != 0) continue;
        if (channel.lumo && channel.channel != 0) continue;
        channels.push_back(channel);
    }
    return channels;
}

// Runs the real tool with the reference beside it, on the flash and versions that are there.
RefRun RunBoth(const Cut& cut, qvsim::SimRig& rig, ToolFolder& folder,
               const std::vector<Fault>& faults, const std::string& what) {
    RefWorld world = WorldOf(*cut.scenario);
    world.flashes = Flashes(*cut.scenario, rig);
    for (RefChannel& channel : world.channels)
        channel.version = rig.RunningVersion(channel.board, channel.channel);
    RefDriver driver(world, faults);
    const RefRun expected = RunReference(driver, cut.scenario->package.File(), cut.options);
    rig.ClearJournal();
    const ToolRun run = folder.ThroughPipe(rig, Arguments(cut.options));
    EXPECT_EQ(expected.output, run.output) << what;
    EXPECT_EQ(expected.status, run.status) << what;
    EXPECT_EQ(driver.journal, Requests(rig)) << what;
    // What a cut leaves in the sector in work is the card's business.
    if (faults.empty()) {
        EXPECT_TRUE(driver.world.flashes == Flashes(*cut.scenario, rig)) << what;
    }
    return expected;
}

// The run as the board of the cut saw it: its own lines, where several boards have some.
RefRun OwnPart(const Cut& cut, RefRun run) {
    const std::vector<RefChannel> channels = Upgraded(cut);
    const std::string count = "/" + std::to_string(channels.size()) + "] [";
    if (channels.size() < 2 || run.output.find("total 0, need") != std::string::npos) return run;
    const size_t begin = run.output.find("[" + std::to_string(cut.at.board + 1) + count);
    if (begin == std::string::npos) return {};
    const size_t end = run.output.find("[" + std::to_string(cut.at.board + 2) + count);
    run.output = run.output.substr(begin, end == std::string::npos ? end : end - begin);
    return run;
}

// A row of the table, without its count.
std::string Recover(const Cut& cut) {
    const std::string what = cut.scenario->name + ", " +
                             testing::PrintToString(Arguments(cut.options)) + ", " +
                             FaultText(PowerLossAt(cut.at));
    qvsim::SimRig rig;
    AddBoards(*cut.scenario, &rig);
    for (const Fault& fault : cut.faults) rig.AddFault(fault);
    ToolFolder folder;
    cut.scenario->package.Write(folder / "p.qvf");
    rig.Dir();
    const RefRun first =
        OwnPart(cut, RunBoth(cut, rig, folder, cut.faults, what + ", the cut run"));
    EXPECT_NE("ok", Outcome(first)) << what;
    ForgetTroubles(rig);
    rig.PowerCycle();
    const uint32_t came = rig.RunningVersion(cut.at.board, cut.at.channel);
    const RefRun second = OwnPart(cut, RunBoth(cut, rig, folder, {}, what + ", the second run"));
    rig.PowerCycle();
    const std::vector<Bytes> flashes = Flashes(*cut.scenario, rig);
    for (const RefChannel& channel : Upgraded(cut)) {
        EXPECT_EQ(kNew, rig.RunningVersion(channel.board, channel.channel)) << what;
        EXPECT_TRUE(HoldsPackage(flashes.at(channel.flash), *cut.scenario, channel, cut.safe))
            << what;
    }
    return std::string(cut.safe ? "safe" : "normal") + " | " + kPhases[cut.phase] + " | " +
           MessageOf(Outcome(first)) + " | " + VersionWord(came) + " | " +
           MessageOf(Outcome(second));
}

// The rows with how many cuts ended so, in the order of an upgrade.
const std::string& Table() {
    static const std::string kTable = [] {
        const std::vector<Cut> cuts = AllCuts();
        std::mutex mutex;
        std::map<std::pair<size_t, std::string>, int> rows;
        InParallel(cuts.size(), [&](size_t i) {
            const std::string row = Recover(cuts[i]);
            const std::lock_guard lock(mutex);
            ++rows[{cuts[i].phase + (cuts[i].safe ? 100 : 0), row}];
        });
        std::string text =
            "| upgrade | power goes during | message | firmware after power-on | message of the "
            "next run | cuts |\n|---|---|---|---|---|---|\n";
        for (const auto& [row, count] : rows)
            text += "| " + row.second + " | " + std::to_string(count) + " |\n";
        std::printf("power cuts: %zu, in %zu kinds\n", cuts.size(), rows.size());
        return text;
    }();
    return kTable;
}

TEST(PowerCut, AtEveryRequestIsRecoveredByRunningTheToolAgain) {
    const std::string& table = Table();
    for (const char* phase : kPhases)
        for (const char* mode : {"normal", "safe"})
            EXPECT_THAT(table, testing::HasSubstr(std::string(mode) + " | " + phase));
    if (const char* path = std::getenv("QV_RECOVERY_TABLE")) {
        std::ofstream file(path);
        file << table;
        EXPECT_TRUE(file.flush().good()) << path;
    }
}

TEST(PowerCut, TheTableInTheDocumentIsTheOneOfTheSweep) {
    if (std::getenv("QV_RECOVERY_TABLE")) return;  // being written right now
    std::ifstream file(QV_RECOVERY_DOCUMENT);
    std::ostringstream document;
    document << file.rdbuf();
    EXPECT_THAT(document.str(), testing::HasSubstr(kBegin + Table() + kEnd))
        << "run scripts/recovery-table";
}

}  // namespace
}  // namespace qvtest
