// The power goes at every request of an upgrade. The cards come up as cards do, the tool runs once
// more, and what it changed stands complete - but where compatibility codes let the next run choose
// the other image, which the package that has the earlier code mends. How each cut ends is the
// table of docs/recovery.md; scripts/recovery-table writes it there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <set>
#include <tuple>

#include "Document.h"
#include "SweptCards.h"

namespace qvtest {
namespace {

using qvsim::CutPoint;
using qvsim::Fault;

// What the board in work was doing, in the order of an upgrade.
const char* const kPhases[] = {"listing, asking", "erasing the header", "erasing a section",
                               "the blank check", "writing the header", "writing a section",
                               "verifying",       "reconfiguring"};

size_t PhaseOf(const std::vector<RefCall>& calls, size_t position) {
    bool erased = false;
    bool written = false;
    const RefCall& call = calls[position];
    for (size_t i = 0; i < position; ++i) {
        if (calls[i].board != call.board || calls[i].channel != call.channel) continue;
        erased |= calls[i].name == "EraseFirmwareData";
        written |= calls[i].name == "WriteFirmwareData";
    }
    if (call.name == "EraseFirmwareData") return erased ? 2 : 1;
    if (call.name == "WriteFirmwareData") return written ? 5 : 4;
    if (call.name == "SetPostReconfig") return 7;
    if (call.name == "ReadFirmwareData" && erased) return written ? 6 : 3;
    return 0;
}

struct Cut {
    size_t scenario;
    RefOptions options;
    RefCall at;
    CutPoint point;
    std::vector<Fault> faults;
    size_t phase;
    bool safe;

    const Scenario& In() const { return Scenarios()[scenario]; }
    // Whose part of the dialogue is looked at: the event node belongs to every board.
    int Board() const { return std::max(at.board, 0); }
    int Channel() const { return std::max(at.channel, 0); }
};

Fault PowerLossAt(const RefCall& call, CutPoint point) {
    return {.request = call.name,
            .nth = call.nth,
            .board = call.board,
            .channel = call.channel,
            .effect = qvsim::PowerLoss(point)};
}

// The power of the computer goes for every board: each dies at its own next request, and all at
// once with the event node.
std::vector<Fault> CutAt(const std::vector<RefCall>& calls, size_t position, CutPoint point) {
    std::vector<Fault> faults = {PowerLossAt(calls[position], point)};
    std::set<int> dead = {-1, calls[position].board};
    if (calls[position].board < 0) return faults;
    for (size_t i = position + 1; i < calls.size(); ++i)
        if (dead.insert(calls[i].board).second)
            faults.push_back(PowerLossAt(calls[i], CutPoint::kHalf));
    return faults;
}

std::vector<CutPoint> PointsOf(const RefCall& call) {
    if (call.name != "EraseFirmwareData" && call.name != "WriteFirmwareData")
        return {CutPoint::kHalf};
    return {CutPoint::kStart, CutPoint::kHalf, CutPoint::kEnd};
}

std::vector<Cut> AllCuts() {
    std::vector<Cut> cuts;
    for (size_t s = 0; s < Scenarios().size(); ++s) {
        const Scenario& scenario = Scenarios()[s];
        qvsim::SimRig rig;
        AddBoards(scenario, &rig);
        LayOut(scenario, rig);
        RefWorld world = WorldOf(scenario);
        world.flashes = Flashes(scenario, rig);
        for (const RefOptions& options : scenario.options) {
            RefDriver driver(world);
            const RefRun good = RunReference(driver, scenario.package.File(), options);
            const bool safe = good.output.find("Safe upgrade") != std::string::npos;
            for (size_t i = 0; i < driver.calls.size(); ++i)
                for (const CutPoint point : PointsOf(driver.calls[i]))
                    cuts.push_back({s, options, driver.calls[i], point,
                                    CutAt(driver.calls, i, point), PhaseOf(driver.calls, i), safe});
        }
    }
    return cuts;
}

std::string VersionWord(const Cut& cut, uint32_t version) {
    if (version == kGolden) return "the factory's";
    if (version == kNew && cut.In().running == kNew) return "either: one version";
    if (version == kRunning) return "the old one";
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

// The same, with the mode where it is not that of the run before.
std::string MessageOfNext(const Cut& cut, const RefRun& run) {
    const bool safe = run.output.find("Safe upgrade from ") != std::string::npos;
    if (Outcome(run) != "ok" || safe == cut.safe) return MessageOf(Outcome(run));
    return safe ? "`Safe upgrade … successfully.`" : "`Upgrade … successfully.`";
}

// The run as the board of the cut saw it: its own lines, where several boards have some.
RefRun OwnPart(const Cut& cut, size_t channels, RefRun run) {
    const std::string count = "/" + std::to_string(channels) + "] [";
    if (channels < 2 || run.output.find("total 0, need") != std::string::npos) return run;
    const size_t begin = run.output.find("[" + std::to_string(cut.Board() + 1) + count);
    if (begin == std::string::npos) return {};
    const size_t end = run.output.find("[" + std::to_string(cut.Board() + 2) + count);
    run.output = run.output.substr(begin, end == std::string::npos ? end : end - begin);
    return run;
}

// "complete", or what is left to do.
std::string EndOf(const Cut& cut, SweptCards& cards, const RefRun& second,
                  const std::string& what) {
    cards.PowerCycle();
    for (const RefChannel& channel : cards.Selected())
        EXPECT_EQ(kNew, cards.Version(channel.board, channel.channel)) << what;
    if (cards.Complete()) return "complete";
    EXPECT_TRUE(cut.In().earlier.has_value()) << what;
    EXPECT_EQ("`Safe upgrade … successfully.`", MessageOfNext(cut, second)) << what;
    if (cut.In().earlier) cards.BringBack();
    return "**main image unfinished**";
}

// What all cuts of a row have in common.
std::string LabelOf(const Cut& cut) {
    std::string label = cut.safe ? "safe" : "normal";
    if (cut.In().earlier) label += ", " + cut.In().name;
    return label + (cut.options.force ? ", `-f`" : "");
}

// A row of the table, without its count.
std::string Recover(const Cut& cut) {
    const std::string what = cut.In().name + ", " + FaultText(PowerLossAt(cut.at, cut.point));
    SweptCards cards(cut.In(), cut.options, cut.faults, FaultText(cut.faults.front()));
    const size_t channels = cards.Selected().size();
    const RefRun first = OwnPart(cut, channels, cards.Run());
    EXPECT_NE("ok", Outcome(first)) << what;
    cards.ForgetTroubles();
    cards.PowerCycle();
    const uint32_t came = cards.Version(cut.Board(), cut.Channel());
    const RefRun second = OwnPart(cut, channels, cards.Run());
    return LabelOf(cut) + " | " + kPhases[cut.phase] + " | " + MessageOf(Outcome(first)) + " | " +
           VersionWord(cut, came) + " | " + MessageOfNext(cut, second) + " | " +
           EndOf(cut, cards, second, what);
}

// The rows with how many cuts ended so, in the order of an upgrade.
const std::string& Table() {
    static const std::string kTable = [] {
        const std::vector<Cut> cuts = AllCuts();
        std::mutex mutex;
        // By whether codes play a part, mode and phase; then as they read.
        std::map<std::tuple<bool, bool, std::string, size_t, std::string>, int> rows;
        InParallel(cuts.size(), [&](size_t i) {
            const Cut& cut = cuts[i];
            const std::string row = Recover(cut);
            const std::lock_guard lock(mutex);
            ++rows[{cut.In().earlier.has_value(), cut.safe, LabelOf(cut), cut.phase, row}];
        });
        std::string text =
            "| upgrade | power goes during | message | firmware after power-on | message of the "
            "next run | then | cuts |\n|---|---|---|---|---|---|---|\n";
        for (const auto& [row, count] : rows)
            text += "| " + std::get<4>(row) + " | " + std::to_string(count) + " |\n";
        return text + "| all | | | | | | " + std::to_string(cuts.size()) + " |\n";
    }();
    return kTable;
}

TEST(PowerCut, AtEveryRequestIsRecoveredAsTheTableSays) {
    for (const char* phase : kPhases)
        for (const char* mode : {"normal", "safe"})
            EXPECT_THAT(Table(), testing::HasSubstr(std::string(mode) + " | " + phase));
    ExpectTableInDocument("recovery", Table());
}

}  // namespace
}  // namespace qvtest
