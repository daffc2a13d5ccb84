// Signals at every phase of an upgrade: what the tool does, what the card is left with, and that
// the tool run once more makes it whole. docs/recovery.md says the same to an administrator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <csignal>
#include <thread>

#include "Scenarios.h"
#include "tool/ToolTexts.h"

namespace qvtest {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kLongEnough = 1500;  // milliseconds that a request takes while the signal comes

// A phase: the request that is under way when the signal comes, and the progress seen then.
struct Phase {
    const char* name;
    const char* request;  // null: the question is waiting
    int nth;
    const char* shown;
};

const Phase kPhases[] = {
    {"question", nullptr, 0, "-- (y)-YES or (n)-NO:"},
    {"erase", "EraseFirmwareData", 2, "(Erasing -------------  0%)"},
    {"write", "WriteFirmwareData", 2, "(Writting -------------  0%)"},
    // The one after the stored header and the header read back; a safe upgrade has one more.
    {"verify", "ReadFirmwareData", 3, "(Verifying -------------  0%)"},
};
const Scenario& Swept(bool safe) { return Scenarios()[safe ? 1 : 0]; }

int Count(const std::vector<std::string>& lines, const std::string& text) {
    int count = 0;
    for (const std::string& line : lines) count += line.find(text) != std::string::npos;
    return count;
}

class SignalTest : public testing::TestWithParam<std::tuple<int, size_t, bool>> {
  protected:
    SignalTest() {
        AddBoards(scenario, &rig);
        scenario.package.Write(folder / "p.qvf");
        if (phase.request)
            rig.AddFault(
                {.request = phase.request, .nth = phase.nth, .effect = qvsim::Slow(kLongEnough)});
    }

    // Signals once the request of the phase is under way: the one before it is in the journal.
    void SignalWhenReached(pid_t pid) {
        if (!phase.request) {
            kill(pid, signal);
            return;
        }
        later = std::thread([this, pid] {
            const std::string before = std::string(" ") + phase.request + " ";
            for (int tries = 0; tries < 2000; ++tries) {
                if (Count(rig.Journal(), before) == phase.nth - 1) {
                    kill(pid, signal);
                    return;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            ADD_FAILURE() << "the phase was never reached";
        });
    }

    ToolRun Interrupted(const std::vector<std::string>& answers) {
        ToolRun run = folder.OnTerminal(rig, {"-a"}, answers, [this](int question, pid_t pid) {
            if (question == 1) SignalWhenReached(pid);
        });
        if (later.joinable()) later.join();
        return run;
    }

    void ExpectMadeWholeByTheNextRun() {
        ForgetTroubles(rig);
        EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output, HasSubstr("successfully."));
        rig.PowerCycle();
        EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
    }

    const int signal = std::get<0>(GetParam());
    const bool safe = std::get<2>(GetParam());
    const Phase phase = [this] {
        Phase chosen = kPhases[std::get<1>(GetParam())];
        if (safe && chosen.nth == 3) ++chosen.nth;
        return chosen;
    }();
    const Scenario& scenario = Swept(safe);
    qvsim::SimRig rig;
    ToolFolder folder;
    std::thread later;
};

class IgnoredSignal : public SignalTest {};

TEST_P(IgnoredSignal, DoesNotInterruptAChannel) {
    const ToolRun run = Interrupted({"y", "n"});
    EXPECT_EQ(0, run.signal);
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("successfully."));
    EXPECT_TRUE(run.terminalRestored);
    rig.PowerCycle();
    EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
}

class DeadlySignal : public SignalTest {};

TEST_P(DeadlySignal, EndsTheToolAtOnceAndTheNextRunMakesTheCardWhole) {
    // At the question nothing is typed any more: the signal comes instead of the answer's effect.
    const ToolRun run = Interrupted({phase.request ? "y" : "x"});
    EXPECT_EQ(signal, run.signal);
    EXPECT_EQ(-1, run.status);
    EXPECT_THAT(run.output, EndsWith(phase.shown));
    // No result line, no summary, and the requests end inside the phase.
    EXPECT_THAT(run.output, Not(HasSubstr("success")));
    const std::vector<std::string> requests = Requests(rig);
    const size_t reached = std::get<1>(GetParam());
    EXPECT_EQ(reached >= 1, Count(requests, " EraseFirmwareData ") > 0);
    EXPECT_EQ(reached >= 2, Count(requests, " WriteFirmwareData ") > 0);
    // The stored header, the blank check of a safe upgrade's clear section, the header read back.
    EXPECT_EQ(reached == 0 ? 1 : 1 + (safe && reached >= 2) + (reached >= 3),
              Count(requests, " ReadFirmwareData "));
    EXPECT_EQ(0, Count(requests, " SetPostReconfig "));
    // A terminal that waited for a key stays without echo; else it is as it was.
    EXPECT_EQ(phase.request != nullptr, run.terminalRestored);
    // The card still runs what it ran.
    EXPECT_EQ(kRunning, rig.RunningVersion(0, 0));
    ExpectMadeWholeByTheNextRun();
}

const char* SignalName(int signal) {
    return signal == SIGINT    ? "Interrupt"
           : signal == SIGTERM ? "Terminate"
           : signal == SIGHUP  ? "HangUp"
                               : "BrokenPipe";
}

std::string NameOf(const testing::TestParamInfo<std::tuple<int, size_t, bool>>& tested) {
    return std::string(SignalName(std::get<0>(tested.param))) + "_during_" +
           kPhases[std::get<1>(tested.param)].name +
           (std::get<2>(tested.param) ? "_safe" : "_normal");
}

INSTANTIATE_TEST_SUITE_P(Phases, IgnoredSignal,
                         testing::Combine(testing::Values(SIGINT), testing::Range<size_t>(0, 4),
                                          testing::Bool()),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Phases, DeadlySignal,
                         testing::Combine(testing::Values(SIGTERM, SIGHUP, SIGPIPE),
                                          testing::Range<size_t>(0, 4), testing::Bool()),
                         NameOf);

// At the question about turning off everything has been written and nothing is under way: any
// signal ends the tool there, and the computer stays on.
class SignalAtPowerOff : public testing::TestWithParam<std::tuple<int, bool>> {};

TEST_P(SignalAtPowerOff, EndsTheToolWithTheComputerOnAndTheCardUpgraded) {
    const auto [signal, safe] = GetParam();
    qvsim::SimRig rig;
    AddBoards(Swept(safe), &rig);
    ToolFolder folder;
    Swept(safe).package.Write(folder / "p.qvf");
    // The key that is typed behind the signal must not be taken for an answer.
    const ToolRun run = folder.OnTerminal(rig, {"-a", "-y"}, {"y"}, [&](int, pid_t pid) {
        kill(pid, signal);
        siginfo_t ended = {};
        EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT));
    });
    EXPECT_EQ(signal, run.signal);
    EXPECT_EQ(-1, run.status);
    EXPECT_THAT(run.output, HasSubstr("successfully."));
    EXPECT_THAT(run.output, HasSubstr("success 1,  fail 0,"));
    EXPECT_THAT(run.output, EndsWith(kPowerOffQuestion));
    EXPECT_EQ(std::vector<std::string>(), folder.Commands());
    // It was waiting for a key, without echo.
    EXPECT_FALSE(run.terminalRestored);
    // All that was to be written stands: the next power-on loads it, and the next run has nothing
    // to do.
    const std::vector<std::string> requests = Requests(rig);
    EXPECT_EQ(1, Count(requests, " SetPostReconfig "));
    EXPECT_EQ(kRunning, rig.RunningVersion(0, 0));
    rig.PowerCycle();
    EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
    EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output, HasSubstr("Needn't upgrade"));
}

INSTANTIATE_TEST_SUITE_P(Signals, SignalAtPowerOff,
                         testing::Combine(testing::Values(SIGINT, SIGTERM, SIGHUP, SIGPIPE),
                                          testing::Bool()),
                         [](const auto& tested) {
                             return std::string(SignalName(std::get<0>(tested.param))) +
                                    (std::get<1>(tested.param) ? "_safe" : "_normal");
                         });

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
    for (const auto& [shown, next, nth] : kRows) {
        qvsim::SimRig rig;
        AddBoards(Swept(false), &rig);
        rig.AddFault({.request = next, .nth = nth, .effect = qvsim::Slow(kLongEnough)});
        ToolFolder folder;
        Swept(false).package.Write(folder / "p.qvf");
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
