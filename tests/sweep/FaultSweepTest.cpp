// Every request of an upgrade goes wrong once, in every way that it can, and each time the real
// tool prints, asks and leaves in the flash exactly what the reference says. Nothing is sampled.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "Scenarios.h"

namespace qvtest {
namespace {

using qvsim::Fault;
using qvsim::FaultEffect;

// What can go wrong at one call.
std::vector<FaultEffect> EffectsAt(const RefCall& call) {
    if (call.board < 0) return {qvsim::Refuse(EBUSY)};  // the event node
    if (call.name == "open") return {qvsim::Refuse(EBUSY), qvsim::NodeGone()};
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

std::vector<Case> CasesOf(const Scenario& scenario, const std::vector<Bytes>& flashes) {
    std::vector<Case> cases;
    for (const RefOptions& options : scenario.options) {
        RefWorld world = WorldOf(scenario);
        world.flashes = flashes;
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
const char* const kOutcomes[] = {"device refused", "nothing listed",
                                 "silent",         "unknown reason",
                                 "erase failed",   "write failed",
                                 "verify failed",  "reconfiguration failed",
                                 "not needed",     "ok"};

// A line of that table; every run is in one of its columns.
std::string Row(const std::string& name, size_t runs, std::map<std::string, int>& outcomes) {
    std::string row = "| " + name + " | " + std::to_string(runs) + " |";
    size_t counted = 0;
    for (const char* outcome : kOutcomes) {
        row += " " + std::to_string(outcomes[outcome]) + " |";
        counted += static_cast<size_t>(outcomes[outcome]);
    }
    EXPECT_EQ(runs, counted) << name;
    return row + "\n";
}

// scripts/recovery-table has the rows written down.
void ExpectInDocument(const std::string& row) {
    if (const char* path = std::getenv("QV_SWEEP_TABLE")) {
        std::ofstream file(path, std::ios::app);
        if (file.tellp() == 0) {
            file << "| upgrade | runs |";
            for (const char* outcome : kOutcomes) file << " " << outcome << " |";
            file << "\n|---|---|";
            for ([[maybe_unused]] const char* outcome : kOutcomes) file << "---|";
            file << "\n";
        }
        file << row;
        EXPECT_TRUE(file.flush().good()) << path;
        return;
    }
    std::ifstream file(QV_RECOVERY_DOCUMENT);
    std::ostringstream document;
    document << file.rdbuf();
    EXPECT_THAT(document.str(), testing::HasSubstr(row)) << "run scripts/recovery-table";
}

class FaultSweep : public testing::TestWithParam<size_t> {
  protected:
    const Scenario& scenario = Scenarios()[GetParam()];

    // The outcome, with everything compared.
    std::string Check(const Case& swept) {
        qvsim::SimRig rig;
        AddBoards(scenario, &rig);
        if (swept.fault) rig.AddFault(*swept.fault);
        ToolFolder folder;
        scenario.package.Write(folder / "p.qvf");
        RefWorld world = WorldOf(scenario);
        rig.Dir();
        world.flashes = Flashes(scenario, rig);
        std::vector<Fault> faults;
        if (swept.fault) faults.push_back(*swept.fault);
        RefDriver driver(world, faults);
        const RefRun expected = RunReference(driver, scenario.package.File(), swept.options);
        const ToolRun run = folder.ThroughPipe(rig, Arguments(swept.options));

        const std::string what = scenario.name + ", " +
                                 testing::PrintToString(Arguments(swept.options)) + ", " +
                                 (swept.fault ? FaultText(*swept.fault) : "no fault");
        EXPECT_EQ(expected.output, run.output) << what;
        EXPECT_EQ(expected.status, run.status) << what;
        EXPECT_EQ("", run.errors) << what;
        EXPECT_EQ(driver.journal, Requests(rig)) << what;
        EXPECT_TRUE(driver.world.flashes == Flashes(scenario, rig)) << "flash: " << what;
        EXPECT_EQ(std::vector<std::string>(), folder.Commands()) << what;
        return Outcome(expected);
    }
};

TEST_P(FaultSweep, EveryFaultAtEveryPositionEndsAsTheReferenceSays) {
    std::vector<Case> cases;
    {
        qvsim::SimRig rig;
        AddBoards(scenario, &rig);
        rig.Dir();
        cases = CasesOf(scenario, Flashes(scenario, rig));
    }
    std::mutex mutex;
    std::map<std::string, int> outcomes;
    InParallel(cases.size(), [&](size_t i) {
        const std::string outcome = Check(cases[i]);
        const std::lock_guard lock(mutex);
        ++outcomes[outcome];
    });
    // The sweep reaches what it is for.
    for (const char* outcome : {"ok", "erase failed", "write failed", "verify failed",
                                "unknown reason", "nothing listed", "reconfiguration failed"})
        EXPECT_GT(outcomes[outcome], 0) << outcome;
    ExpectInDocument(Row(scenario.name, cases.size(), outcomes));
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FaultSweep, testing::Range<size_t>(0, Scenarios().size()),
                         [](const auto& tested) {
                             std::string name = Scenarios()[tested.param].name;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

}  // namespace
}  // namespace qvtest
