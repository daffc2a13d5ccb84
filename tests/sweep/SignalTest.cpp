// Signals at every phase of a run: what the tool does, what the card is left with, and that the
// tool run once more makes it whole. The table of docs/recovery.md is the one that is tested here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <sstream>

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

// How far a run has come when the signal comes. Pairs are for a normal and a safe upgrade.
struct Phase {
    const char* name;  // in the document
    bool atQuestion;   // nothing is under way but a key being awaited
    bool interruptEnds;
    Flash flash;             // of the channel in work
    const char* request;     // under way or next
    std::array<int, 2> nth;  // which of its kind; 0: there is no further one
    std::array<std::string, 2> shown;
};

const std::string kQuestion = "-- (y)-YES or (n)-NO:";

std::array<std::string, 2> Shows(const std::string& text) { return {text, text}; }

// A percentage for each mode.
std::array<std::string, 2> Shows(const std::string& stage, const std::string& normal,
                                 const std::string& safe) {
    const std::string begin = "(" + stage + " ------------- ";
    return {begin + normal + "%)", begin + safe + "%)"};
}

// A verification comes behind the stored header and the header read back; a safe upgrade has its
// blank check, too. Between two channels the second board is about to be opened: it was for the two
// enumerations and for the list, and is now for its upgrade.
// clang-format off
using enum Flash;
constexpr bool yes = true, no = false;
constexpr const char *kRead = "ReadFirmwareData", *kErase = "EraseFirmwareData",
                     *kWrite = "WriteFirmwareData", *kReconfig = "SetPostReconfig", *kOpen = "open";
const std::vector<Phase> kPhases = {
    // name                        at a question, INT ends it, flash, request, nth, on the screen
    {"listing the channels",       no,  yes, kAsItWas,    kRead,     {1, 1}, Shows("")},
    {"question about a channel",   yes, no,  kAsItWas,    kErase,    {1, 1}, Shows(kQuestion)},
    {"erasing",                    no,  no,  kUnfinished, kErase,    {2, 2}, Shows("Erasing", " 0", " 0")},
    {"blank check",                no,  no,  kUnfinished, kRead,     {2, 2}, Shows("Erasing", "98", "99")},
    {"writing",                    no,  no,  kUnfinished, kWrite,    {2, 2}, Shows("Writting", " 0", " 0")},
    {"verifying",                  no,  no,  kWritten,    kRead,     {3, 4}, Shows("Verifying", " 0", " 0")},
    {"reconfiguring",              no,  no,  kWritten,    kReconfig, {1, 1}, Shows(Clear(30))},
    {"between two channels",       no,  yes, kAsItWas,    kOpen,     {4, 4}, Shows(" successfully.\n")},
    {"question about turning off", yes, yes, kWritten,    "",        {0, 0}, Shows(kPowerOffQuestion)},
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

bool BetweenChannels(const Phase& phase) { return phase.request == std::string(kOpen); }

Scenario ScenarioOf(const Phase& phase, bool safe) {
    const bool clears = std::string(phase.name) == "blank check";
    Scenario scenario = Scenarios()[safe ? 1 : clears ? 2 : 0];
    if (BetweenChannels(phase)) scenario.boards.push_back(scenario.boards[0]);
    return scenario;
}

class SignalTest : public testing::TestWithParam<std::tuple<int, size_t, bool>> {
  protected:
    SignalTest() {
        AddBoards(scenario, &rig);
        scenario.package.Write(folder / "p.qvf");
        if (!phase.atQuestion)
            rig.AddFault({.request = phase.request,
                          .nth = phase.nth[safe],
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
            BetweenChannels(phase) ? "open " + node : node + " " + phase.request;
        int found = 0;
        for (const std::string& line : driver.journal) {
            found += line.find(wanted) != line.npos;
            if (phase.nth[safe] > 0 && found == phase.nth[safe]) break;
            reached.push_back(line);
        }
    }

    // The request before is answered first and what it led to is printed then: both are waited for.
    bool Reached(const ToolFolder::Screen& screen) {
        if (!screen.output.ends_with(phase.shown[safe])) return false;
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

// What a driver hears of a process that was ended: it closes what was open, the oldest first.
std::vector<std::string> WithTheCloses(std::vector<std::string> requests) {
    std::vector<std::string> open;
    for (const std::string& line : requests) {
        std::istringstream words(line);
        std::string action;
        std::string node;
        words >> action >> node;
        if (action == "open") open.push_back(node);
        if (action == "close") open.erase(std::find(open.begin(), open.end(), node));
    }
    for (const std::string& node : open) requests.push_back("close " + node + " = 0");
    return requests;
}

class DeadlySignal : public SignalTest {};

TEST_P(DeadlySignal, EndsTheToolAtOnceAndTheNextRunMakesTheCardWhole) {
    const ToolRun run = Signalled();
    EXPECT_EQ(signal, run.signal);
    EXPECT_EQ(-1, run.status);
    EXPECT_THAT(run.output, EndsWith(phase.shown[safe]));
    if (phase.shown[safe].empty()) {
        EXPECT_EQ("", run.output);
    }
    const bool turningOff = phase.shown[safe] == kPowerOffQuestion;
    if (!turningOff) {
        EXPECT_THAT(run.output, Not(HasSubstr("success 1")));
    }
    // The requests end inside the phase, what was open is closed by the end, nothing is turned off.
    EXPECT_EQ(WithTheCloses(reached), Requests(rig));
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
        table += BetweenChannels(phase)           ? " all written; of those not begun as it was |\n"
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
