// Every request of an upgrade goes wrong once, in every way that it can, and each time the real
// tool prints, asks and leaves in the flash exactly what the reference says; and run once more, it
// makes the card whole. Nothing is sampled.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <optional>

#include "Document.h"
#include "SweptCards.h"

namespace qvtest {
namespace {

using qvsim::Fault;
using qvsim::FaultEffect;

// What can go wrong at one call.
std::vector<FaultEffect> EffectsAt(const RefCall& call) {
    if (call.name == "open") return {qvsim::Refuse(EBUSY), qvsim::NodeGone(), qvsim::Slow(1)};
    std::vector<FaultEffect> effects = {qvsim::Refuse(EIO), qvsim::NodeGone(), qvsim::Slow(1)};
    const auto add = [&](FaultEffect effect) { effects.push_back(effect); };
    if (call.name == "EraseFirmwareData") add(qvsim::NotBlank());
    if (call.name == "WriteFirmwareData") {
        for (const int mask : {0x01, 0x80, 0xFF}) add(qvsim::StuckBits(static_cast<uint8_t>(mask)));
    }
    if (call.name == "ReadFirmwareData") {
        add(qvsim::ShortRead(0));
        add(qvsim::ShortRead(call.size - 1));
        add(qvsim::FlipBit(0));
        add(qvsim::FlipBit(call.size * 8 - 1));
        // In a stored header: the compatibility code and the version.
        if (call.size >= 157)
            for (const uint32_t byte : {8u, 16u}) add(qvsim::FlipBit(byte * 8));
    }
    return effects;
}

struct Case {
    RefOptions options;
    std::optional<Fault> fault;
};

std::vector<Case> CasesOf(const Scenario& scenario) {
    qvsim::SimRig rig;
    AddBoards(scenario, &rig);
    LayOut(scenario, rig);
    RefWorld world = WorldOf(scenario);
    world.flashes = Flashes(scenario, rig);
    std::vector<Case> cases;
    for (const RefOptions& options : scenario.options) {
        RefDriver driver(world);
        const RefRun good = RunReference(driver, scenario.package.File(), options);
        EXPECT_EQ("ok", Outcome(good)) << scenario.name;
        cases.push_back({options, {}});
        for (const RefCall& call : driver.calls)
            for (const FaultEffect& effect : EffectsAt(call))
                cases.push_back({options, Fault{.request = call.name,
                                                .nth = call.nth,
                                                .board = call.board,
                                                .channel = call.channel,
                                                .effect = effect}});
    }
    return cases;
}

// The columns of the table in the document, in the order of an upgrade.
const std::vector<std::string> kOutcomes = {"device refused", "nothing listed",
                                            "silent",         "unknown reason",
                                            "erase failed",   "write failed",
                                            "verify failed",  "reconfiguration failed",
                                            "not needed",     "ok"};
// And what became of those that were run again.
const std::string kComplete = "run again: complete";
const std::string kUnfinished = "run again: main image unfinished";

using Counts = std::map<std::string, int>;

std::string Row(const std::string& name, int runs, const Counts& counts) {
    std::string row = "| " + name + " | " + std::to_string(runs) + " |";
    const auto add = [&](const std::string& column) {
        const auto found = counts.find(column);
        const int count = found == counts.end() ? 0 : found->second;
        row += " " + std::to_string(count) + " |";
        return count;
    };
    int counted = 0;
    for (const std::string& outcome : kOutcomes) counted += add(outcome);
    EXPECT_EQ(runs, counted) << name;
    add(kComplete);
    add(kUnfinished);
    return row + "\n";
}

// The tool runs once more, on what the fault left. What became of it.
std::string RunAgain(const Scenario& scenario, SweptCards& cards, const std::string& what) {
    cards.ForgetTroubles();
    const RefRun second = cards.Run();
    EXPECT_EQ("ok", Outcome(second)) << what;
    if (cards.Complete()) {
        cards.PowerCycle();
        for (const RefChannel& channel : cards.Selected())
            EXPECT_EQ(kNew, cards.Version(channel.board, channel.channel)) << what;
        return kComplete;
    }
    // Only codes can be the reason, and the row of the second run tells.
    EXPECT_TRUE(scenario.earlier.has_value()) << what;
    EXPECT_THAT(second.output, testing::HasSubstr("Safe upgrade from ")) << what;
    if (scenario.earlier) cards.BringBack();
    return kUnfinished;
}

// The columns that one case counts in, with everything compared.
std::vector<std::string> Check(const Scenario& scenario, const Case& swept) {
    const std::string what = swept.fault ? FaultText(*swept.fault) : "no fault";
    std::vector<Fault> faults;
    if (swept.fault) faults.push_back(*swept.fault);
    SweptCards cards(scenario, swept.options, faults, what);
    const std::string outcome = Outcome(cards.Run());
    if (outcome == "ok" && cards.Complete()) return {outcome};
    return {outcome, RunAgain(scenario, cards, scenario.name + ", " + what)};
}

struct Swept {
    int runs = 0;
    Counts counts;
};

Swept Sweep(const Scenario& scenario) {
    const std::vector<Case> cases = CasesOf(scenario);
    std::mutex mutex;
    Swept swept;
    InParallel(cases.size(), [&](size_t i) {
        const std::vector<std::string> columns = Check(scenario, cases[i]);
        const std::lock_guard lock(mutex);
        for (const std::string& column : columns) ++swept.counts[column];
    });
    swept.runs = static_cast<int>(cases.size());
    return swept;
}

// Each scenario is swept once, by whoever asks first.
const Swept& SweptOnce(size_t scenario) {
    static std::map<size_t, Swept> results;
    const auto found = results.find(scenario);
    if (found != results.end()) return found->second;
    return results[scenario] = Sweep(Scenarios()[scenario]);
}

class FaultSweep : public testing::TestWithParam<size_t> {};

TEST_P(FaultSweep, EveryFaultAtEveryPositionEndsAsTheReferenceSays) {
    Counts counts = SweptOnce(GetParam()).counts;
    // The sweep reaches what it is for.
    for (const std::string outcome : {"ok", "erase failed", "write failed", "verify failed",
                                      "unknown reason", "nothing listed", "reconfiguration failed"})
        EXPECT_GT(counts[outcome], 0) << outcome;
    EXPECT_GT(counts[kComplete], 0);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FaultSweep, testing::Range<size_t>(0, Scenarios().size()),
                         [](const auto& tested) {
                             std::string name;
                             for (const char c : Scenarios()[tested.param].name)
                                 if (c != ',') name += c == ' ' ? '_' : c;
                             return name;
                         });

TEST(FaultSweepTable, InTheDocumentIsTheOneOfTheSweep) {
    std::string table = "| upgrade | runs |";
    std::string line = "|---|---|";
    std::vector<std::string> columns = kOutcomes;
    columns.insert(columns.end(), {kComplete, kUnfinished});
    for (const std::string& column : columns) {
        table += " " + column + " |";
        line += "---|";
    }
    table += "\n" + line + "\n";
    Swept all;
    for (size_t i = 0; i < Scenarios().size(); ++i) {
        const Swept& swept = SweptOnce(i);
        table += Row(Scenarios()[i].name, swept.runs, swept.counts);
        all.runs += swept.runs;
        for (const auto& [column, count] : swept.counts) all.counts[column] += count;
    }
    ExpectTableInDocument("sweep", table + Row("all", all.runs, all.counts));
}

}  // namespace
}  // namespace qvtest
