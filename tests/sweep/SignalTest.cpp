// Signals at every phase of a run: what the tool does, what the card is left with, and that the
// tool run once more makes it whole. The table of docs/recovery.md is the one that is tested here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "Document.h"
#include "SweptCards.h"
#include "tool/ToolTexts.h"

namespace qvtest {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kLongEnough = 1000;  // milliseconds that a request takes while the signal comes

enum class Flash { kAsItWas, kUnfinished, kWritten };

// How far a run has come in one mode when the signal comes: the request that is under way or next,
// which of its kind it is (0: there is no further one), and what stands on the screen.
struct Point {
    std::string request;
    int nth = 0;
    std::string shown;
};

struct Phase {
    const char* name;  // in the document
    bool atQuestion;   // nothing is under way but a key being awaited
    bool interruptEnds;
    Flash flash;  // of the channel in work
    Point normal, safe;
};

std::string Progress(const char* stage, int percentage) {
    return std::string("(") + stage + " ------------- " + (percentage < 10 ? " " : "") +
           std::to_string(percentage) + "%)";
}

const std::string kQuestion = "-- (y)-YES or (n)-NO:";

// A table stays a table.
// clang-format off
const std::vector<Phase> kPhases = {
    {"listing the channels", false, true, Flash::kAsItWas,
     {"ReadFirmwareData", 1, ""}, {"ReadFirmwareData", 1, ""}},
    {"question about a channel", true, false, Flash::kAsItWas,
     {"EraseFirmwareData", 1, kQuestion}, {"EraseFirmwareData", 1, kQuestion}},
    {"erasing", false, false, Flash::kUnfinished,
     {"EraseFirmwareData", 2, Progress("Erasing", 0)},
     {"EraseFirmwareData", 2, Progress("Erasing", 0)}},
    {"blank check", false, false, Flash::kUnfinished,
     {"ReadFirmwareData", 2, Progress("Erasing", 98)},
     {"ReadFirmwareData", 2, Progress("Erasing", 99)}},
    {"writing", false, false, Flash::kUnfinished,
     {"WriteFirmwareData", 2, Progress("Writting", 0)},
     {"WriteFirmwareData", 2, Progress("Writting", 0)}},
    // Behind the stored header and the header read back; a safe upgrade has its blank check, too.
    {"verifying", false, false, Flash::kWritten,
     {"ReadFirmwareData", 3, Progress("Verifying", 0)},
     {"ReadFirmwareData", 4, Progress("Verifying", 0)}},
    {"reconfiguring", false, false, Flash::kWritten,
     {"SetPostReconfig", 1, Clear(30)}, {"SetPostReconfig", 1, Clear(30)}},
    // Of the two boards the second is about to be opened: for the two enumerations, for the list,
    // and now for its upgrade.
    {"between two channels", false, true, Flash::kAsItWas,
     {"open", 4, " successfully.\n"}, {"open", 4, " successfully.\n"}},
    {"question about turning off", true, true, Flash::kWritten,
     {"", 0, kPowerOffQuestion}, {"", 0, kPowerOffQuestion}},
};
// clang-format on

const int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

const char* SignalName(int signal) {
    return signal == SIGINT    ? "INT"
           : signal == SIGTERM ? "TERM"
           : signal == SIGHUP  ? "HUP"
                               : "PIPE";
}

bool Ends(int signal, const Phase& phase) { return signal != SIGINT || phase.interruptEnds; }

int Count(const std::vector<std::string>& lines, const std::string& text) {
    int count = 0;
    for (const std::string& line : lines) count += line.find(text) != std::string::npos;
    return count;
}

Scenario ScenarioOf(const Phase& phase, bool safe) {
    const bool clears = std::string(phase.name) == "blank check";
    Scenario scenario = Scenarios()[safe ? 1 : clears ? 2 : 0];
    if (phase.normal.request == "open") scenario.boards.push_back(scenario.boards[0]);
    return scenario;
}

class SignalTest : public testing::TestWithParam<std::tuple<int, size_t, bool>> {
  protected:
    SignalTest() {
        AddBoards(scenario, &rig);
        scenario.package.Write(folder / "p.qvf");
        if (!phase.atQuestion)
            rig.AddFault({.request = point.request,
                          .nth = point.nth,
                          .board = board,
                          .effect = qvsim::Slow(kLongEnough)});
        LayOut(scenario, rig);
        before = Flashes(scenario, rig);
        // What a run without a signal asks, up to the request that is under way.
        RefWorld world = WorldOf(scenario);
        world.flashes = before;
        RefDriver driver(world);
        RunReference(driver, scenario.package.File(), {});
        const std::string node = "/dev/video" + std::to_string(board);
        const std::string wanted =
            point.request == "open" ? "open " + node : node + " " + point.request;
        int found = 0;
        for (const std::string& line : driver.journal) {
            found += line.find(wanted) != line.npos;
            if (point.nth > 0 && found == point.nth) break;
            reached.push_back(line);
        }
    }

    // The request before is answered first and what it led to is printed then: both are waited for.
    bool Reached(const ToolFolder::Screen& screen) {
        if (!screen.output.ends_with(point.shown)) return false;
        return phase.atQuestion ? screen.oneKeyMode : Requests(rig) == reached;
    }

    // Answers y to the channels and n to turning off, and signals once.
    ToolRun Signalled() {
        bool sent = false;
        size_t answered = 0;
        const ToolRun run =
            folder.OnTerminal(rig, {"-a"}, [&](const ToolFolder::Screen& screen) -> std::string {
                if (!sent && Reached(screen)) {
                    sent = true;
                    kill(screen.pid, signal);
                    if (Ends(signal, phase)) return {};
                }
                const bool asks =
                    screen.oneKeyMode &&
                    screen.output.ends_with(answered == channels ? kPowerOffQuestion : kQuestion);
                if (!asks || (sent && Ends(signal, phase))) return {};
                return answered++ == channels ? "n" : "y";
            });
        EXPECT_TRUE(sent) << "the phase was never reached";
        return run;
    }

    // The flash of one board, against the phase.
    void ExpectFlash(int of, Flash expected) {
        const Bytes now = Flashes(scenario, rig).at(static_cast<size_t>(of));
        EXPECT_EQ(expected == Flash::kAsItWas, now == before.at(static_cast<size_t>(of)));
        EXPECT_EQ(expected == Flash::kWritten,
                  HoldsImage(now, scenario.package, WorldOf(scenario).channels[0].firmware, safe));
    }

    void ExpectNew() {
        rig.PowerCycle();
        for (int b = 0; b <= board; ++b) EXPECT_EQ(kNew, rig.RunningVersion(b, 0));
    }

    const int signal = std::get<0>(GetParam());
    const Phase phase = kPhases[std::get<1>(GetParam())];
    const bool safe = std::get<2>(GetParam());
    const Point point = safe ? phase.safe : phase.normal;
    const Scenario scenario = ScenarioOf(phase, safe);
    const size_t channels = scenario.boards.size();
    const int board = static_cast<int>(channels) - 1;  // in work
    qvsim::SimRig rig;
    ToolFolder folder;
    std::vector<Bytes> before;
    std::vector<std::string> reached;
};

class IgnoredSignal : public SignalTest {};

TEST_P(IgnoredSignal, DoesNotInterruptAChannel) {
    const ToolRun run = Signalled();
    EXPECT_EQ(0, run.signal);
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("successfully."));
    EXPECT_TRUE(run.terminalRestored);
    ExpectFlash(board, Flash::kWritten);
    ExpectNew();
}

class DeadlySignal : public SignalTest {};

TEST_P(DeadlySignal, EndsTheToolAtOnceAndTheNextRunMakesTheCardWhole) {
    const ToolRun run = Signalled();
    EXPECT_EQ(signal, run.signal);
    EXPECT_EQ(-1, run.status);
    EXPECT_THAT(run.output, EndsWith(point.shown));
    if (point.shown.empty()) {
        EXPECT_EQ("", run.output);
    }
    const bool turningOff = point.shown == kPowerOffQuestion;
    if (!turningOff) {
        EXPECT_THAT(run.output, Not(HasSubstr("success 1")));
    }
    // The requests end inside the phase, nothing is turned off, and no driver hears of the rest.
    EXPECT_EQ(reached, Requests(rig));
    EXPECT_EQ(std::vector<std::string>(), folder.Commands());
    // A terminal that waited for a key stays without echo; else it is as it was.
    EXPECT_EQ(!phase.atQuestion, run.terminalRestored);
    ExpectFlash(board, phase.flash);
    for (int b = 0; b < board; ++b) ExpectFlash(b, Flash::kWritten);
    // The cards still run what they ran.
    for (int b = 0; b <= board; ++b) EXPECT_EQ(kRunning, rig.RunningVersion(b, 0));
    ForgetTroubles(rig);
    if (turningOff) {
        ExpectNew();
        EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output, HasSubstr("Needn't upgrade"));
        return;
    }
    EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output,
                HasSubstr("success " + std::to_string(channels) + ",  fail 0,"));
    ExpectFlash(board, Flash::kWritten);
    ExpectNew();
}

std::vector<std::tuple<int, size_t, bool>> Cases(bool deadly) {
    std::vector<std::tuple<int, size_t, bool>> cases;
    for (const int signal : kSignals)
        for (size_t i = 0; i < kPhases.size(); ++i)
            for (const bool safe : {false, true})
                if (Ends(signal, kPhases[i]) == deadly) cases.emplace_back(signal, i, safe);
    return cases;
}

std::string NameOf(const testing::TestParamInfo<std::tuple<int, size_t, bool>>& tested) {
    std::string name = std::string(SignalName(std::get<0>(tested.param))) + "_" +
                       kPhases[std::get<1>(tested.param)].name +
                       (std::get<2>(tested.param) ? "_safe" : "_normal");
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Phases, IgnoredSignal, testing::ValuesIn(Cases(false)), NameOf);
INSTANTIATE_TEST_SUITE_P(Phases, DeadlySignal, testing::ValuesIn(Cases(true)), NameOf);

TEST(SignalTable, InTheDocumentIsTheOneThatIsTested) {
    std::string table = "| signal comes during |";
    for (const int signal : kSignals) table += std::string(" ") + SignalName(signal) + " |";
    table += " flash of the channel, if the tool ends |\n|---|---|---|---|---|---|\n";
    for (const Phase& phase : kPhases) {
        table += std::string("| ") + phase.name + " |";
        for (const int signal : kSignals) table += Ends(signal, phase) ? " ends |" : " ignored |";
        table += phase.normal.request == "open"   ? " all written; of those not begun as it was |\n"
                 : phase.flash == Flash::kAsItWas ? " as it was |\n"
                 : phase.flash == Flash::kUnfinished ? " **unfinished** |\n"
                                                     : " all written |\n";
    }
    ExpectTableInDocument("signal", table);
}

// `qvcap-upgrade -a -y | head` ends the tool inside the upgrade: the next progress line has no
// reader any more.
TEST(SignalTest, AReaderThatGoesAwayEndsTheToolInTheMiddle) {
    const struct {
        const char* shown;
        const char* next;  // the request before the next print, and which of its kind
        int nth;
    } kRows[] = {{"(Erasing", "EraseFirmwareData", 1},
                 {"(Writting", "WriteFirmwareData", 1},
                 {"(Verifying", "ReadFirmwareData", 2}};
    const Scenario& scenario = Scenarios()[0];
    for (const auto& [shown, next, nth] : kRows) {
        qvsim::SimRig rig;
        AddBoards(scenario, &rig);
        rig.AddFault({.request = next, .nth = nth, .effect = qvsim::Slow(kLongEnough)});
        LayOut(scenario, rig);
        ToolFolder folder;
        scenario.package.Write(folder / "p.qvf");
        const ToolRun run = folder.UntilPrinted(rig, {"-a", "-y"}, shown);
        EXPECT_EQ(SIGPIPE, run.signal) << shown;
        EXPECT_EQ(0, Count(Requests(rig), " SetPostReconfig ")) << shown;
        ForgetTroubles(rig);
        EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output, HasSubstr("successfully."));
        rig.PowerCycle();
        EXPECT_EQ(kNew, rig.RunningVersion(0, 0)) << shown;
    }
}

}  // namespace
}  // namespace qvtest
