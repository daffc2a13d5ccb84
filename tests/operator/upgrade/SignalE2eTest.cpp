// Signals to qvcap, to its child and to both, and several runs at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "MachineLock.h"
#include "QvcapRig.h"

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

PackageBuilder NewPackage() {
    return Package().Firmware(1, 1).Section("Factory.Main", 0x4000, 70000);
}

qvsim::BoardBuilder Board() {
    return qvsim::Pelix()
        .Product("CARD")
        .Firmware(1, 0)
        .Golden(0, 9)
        .FirmwareOffset(0x2000)
        .FlashSize(0x40000);
}

// One moment of an upgrade: the request during which a signal comes, which is served late.
struct Moment {
    const char* name;
    const char* request;
    int nth;  // 0: counted by LastReadBefore()
};

constexpr Moment kMoments[] = {{"Listing", "ReadFirmwareData", 0},
                               {"Erasing", "EraseFirmwareData", 2},
                               {"Writing", "WriteFirmwareData", 2},
                               {"Verifying", "ReadFirmwareData", 0},
                               {"Reconfiguring", "SetPostReconfig", 1}};

// The tool's last read of the first card before such a request: the first erase, with nothing
// changed yet, or the end. Before the tool, qvcap reads the card for the plan.
int LastReadBefore(const char* request) {
    QvcapRig rig;
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    EXPECT_EQ(0, rig.Upgrade().status);
    int reads = 0;
    for (const std::string& line : rig.cards.Journal()) {
        if (line.find(request) != line.npos) break;
        reads += line.find("ReadFirmwareData") != line.npos;
    }
    EXPECT_GT(reads, 2);
    return reads;
}

Moment Counted(Moment moment) {
    const bool lists = std::string(moment.name) == "Listing";
    if (moment.nth == 0)
        moment.nth = LastReadBefore(lists ? "EraseFirmwareData" : "SetPostReconfig");
    return moment;
}

void AwaitMoment(QvcapRig& rig, RunningQvcap& run, const Moment& moment) {
    EXPECT_TRUE(run.WaitFor("\"card-begin\""));
    const auto nth = static_cast<uint32_t>(moment.nth);
    WaitUntil([&] { return FaultsHaveSeen(rig.cards, nth) || run.HasEnded(); });
    EXPECT_FALSE(run.HasEnded()) << run.Output();
}

class SignalE2eTest : public testing::TestWithParam<Moment> {
  protected:
    void SetUp() override {
        rig.cards.Add(Board()).Add(Board());
        rig.Write(NewPackage());
        rig.cards.AddFault(
            {.request = moment.request, .nth = moment.nth, .board = 0, .effect = qvsim::Slow(400)});
    }
    // Until the first card is at the moment, which lasts.
    std::unique_ptr<RunningQvcap> UntilTheMoment(const std::vector<std::string>& options = {
                                                     "--json"}) {
        auto run = rig.StartUpgrade(options);
        AwaitMoment(rig, *run, moment);
        return run;
    }
    // The process of the first card.
    static pid_t ChildOf(const RunningQvcap& run) {
        UpgradeRun so_far;
        so_far.output = run.Output();
        so_far.output.resize(so_far.output.rfind('\n') + 1);
        return so_far.Events("card-begin").at(0)["process"].get<pid_t>();
    }

    const Moment moment = Counted(GetParam());
    QvcapRig rig;
};

TEST_P(SignalE2eTest, TheFirstToEndTheRunLetsTheCardInWorkFinishAndTheSecondChangesNothing) {
    for (const int signal : {SIGINT, SIGTERM}) {
        QvcapRig fresh;
        fresh.cards.Add(Board()).Add(Board());
        fresh.Write(NewPackage());
        fresh.cards.AddFault(
            {.request = moment.request, .nth = moment.nth, .board = 0, .effect = qvsim::Slow(400)});
        const auto running = fresh.StartUpgrade({"--json"});
        AwaitMoment(fresh, *running, moment);
        kill(running->Number(), signal);
        ASSERT_TRUE(running->WaitFor("\"stopping\""));
        kill(running->Number(), signal);
        kill(running->Number(), signal);
        const UpgradeRun run = running->Wait();
        EXPECT_EQ(1, run.status) << run.output;
        EXPECT_EQ(1u, run.Events("stopping").size());
        EXPECT_EQ(signal == SIGINT ? "INT" : "TERM", run.Events("stopping")[0]["signal"]);
        EXPECT_EQ(1, run.Report()["done"]);
        EXPECT_EQ(1, run.Report()["not_begun"]);
        EXPECT_THAT(fresh.States(), ElementsAre("staged", "upgrade available"));
    }
}

TEST_P(SignalE2eTest, ALostConnectionOrReaderEndsNothing) {
    const auto running = UntilTheMoment();
    kill(running->Number(), SIGHUP);
    kill(running->Number(), SIGPIPE);
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_THAT(rig.States(), ElementsAre("staged", "staged"));
}

TEST_P(SignalE2eTest, SignalsToTheChildOrToBothEndNoFlash) {
    for (const bool both : {false, true}) {
        QvcapRig fresh;
        fresh.cards.Add(Board());
        fresh.Write(NewPackage());
        fresh.cards.AddFault(
            {.request = moment.request, .nth = moment.nth, .effect = qvsim::Slow(400)});
        const auto running = fresh.StartUpgrade({"--json"});
        AwaitMoment(fresh, *running, moment);
        for (const int signal : kSignals) {
            kill(ChildOf(*running), signal);
            if (both) kill(running->Number(), signal);
        }
        const UpgradeRun run = running->Wait();
        EXPECT_EQ(0, run.status) << run.output;
        EXPECT_EQ("success", run.Report()["cards"][0]["tool_result"]);
        EXPECT_THAT(fresh.States(), ElementsAre("staged"));
    }
}

TEST_P(SignalE2eTest, AChildThatIsKilledIsStartedOnceMore) {
    const auto running = UntilTheMoment();
    kill(ChildOf(*running), SIGKILL);
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(SIGKILL, run.Events("tool-end").at(0)["signal"]);
    EXPECT_THAT(rig.States(), ElementsAre("staged", "staged"));
}

TEST_P(SignalE2eTest, WhenQvcapIsKilledItsChildFinishesAndTheNextRunFindsTheMachineLocked) {
    const auto running = UntilTheMoment();
    const pid_t child = ChildOf(*running);
    kill(running->Number(), SIGKILL);
    EXPECT_EQ(SIGKILL, running->Wait().signal);
    ASSERT_EQ(0, kill(child, 0)) << "the child has ended already";
    const UpgradeRun refused = rig.Upgrade({"--json"});
    EXPECT_EQ(5, refused.status);
    EXPECT_THAT(refused.output,
                HasSubstr("qvcap-upgrade (process " + std::to_string(child) + ") is at work"));
    const UpgradeRun waited = rig.Upgrade({"--json", "--wait"});
    EXPECT_EQ(0, waited.status) << waited.output;
    EXPECT_EQ("left", waited.Report()["cards"][0]["result"]) << "the child had finished it";
    EXPECT_EQ("done", waited.Report()["cards"][1]["result"]);
    EXPECT_THAT(rig.States(), ElementsAre("staged", "staged"));
}

TEST_P(SignalE2eTest, WhenBothAreKilledTheNextRunFindsNoLockAndCompletesTheCards) {
    const auto running = UntilTheMoment();
    const pid_t child = ChildOf(*running);
    kill(running->Number(), SIGKILL);
    kill(child, SIGKILL);
    EXPECT_EQ(SIGKILL, running->Wait().signal);
    // The child is nobody's any more; whoever adopted it may take its time.
    const UpgradeRun next = rig.Upgrade({"--json", "--wait"});
    EXPECT_EQ(0, next.status) << next.output;
    EXPECT_THAT(rig.States(), ElementsAre("staged", "staged"));
    const UpgradeRun history = rig.Run({"history", "--json", "--log", rig.Log()});
    EXPECT_THAT(history.output, HasSubstr("\"begun\""));
}

INSTANTIATE_TEST_SUITE_P(Moments, SignalE2eTest, testing::ValuesIn(kMoments),
                         [](const auto& about) { return std::string(about.param.name); });

TEST(LockE2eTest, OfTwentyStartsAtOnceOneFlashes) {
    QvcapRig rig;
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    // The one that has the lock stays at work until all others have looked.
    rig.cards.AddFault({.request = "EraseFirmwareData", .nth = 1, .effect = qvsim::Slow(3000)});
    std::vector<std::unique_ptr<RunningQvcap>> runs;
    for (int i = 0; i < 20; ++i) runs.push_back(rig.StartUpgrade());
    int done = 0;
    int busy = 0;
    int late = 0;  // that came when all was done
    for (const auto& running : runs) {
        const UpgradeRun run = running->Wait();
        done += run.status == 0;
        busy += run.status == 5;
        late += run.status == 2;
        if (run.status != 5) continue;
        EXPECT_THAT(run.output, HasSubstr("is at work")) << run.errors;
    }
    EXPECT_EQ(1, done);
    EXPECT_EQ(19, busy + late);
    EXPECT_GE(busy, 1);
    size_t erased = 0;
    for (const std::string& line : rig.cards.Journal())
        erased += line.find("EraseFirmwareData offset=0x2000 ") != line.npos;
    EXPECT_EQ(1u, erased) << "headers erased";
}

TEST(LockE2eTest, TheEndOfAChildIsSeenWhateverThisProgramWasStartedWith) {
    for (const int signal : {SIGCHLD, SIGUSR1, SIGTERM}) {
        QvcapRig rig;
        rig.cards.Add(Board());
        rig.Write(NewPackage());
        rig.Ignore(signal);
        const UpgradeRun run = rig.Upgrade({"--json"});
        EXPECT_EQ(0, run.status) << run.output;
        EXPECT_EQ(0, run.Events("tool-end").at(0)["status"]);
    }
}

TEST(LockE2eTest, ADriverThatHangsWhileQvcapReadsIsTold) {
    const int toolsLastRead = LastReadBefore("SetPostReconfig");
    for (const bool plans : {true, false}) {
        QvcapRig rig;
        rig.cards.Add(Board());
        rig.Write(NewPackage());
        rig.cards.AddFault({.request = "ReadFirmwareData",
                            .nth = plans ? 2 : toolsLastRead + 2,
                            .effect = qvsim::Slow(2500)});
        const auto running = rig.StartUpgrade({"--json", "--stalled-after", "1"});
        const std::string itself = std::to_string(running->Number());
        const UpgradeRun run = running->Wait();
        EXPECT_EQ(0, run.status) << run.output;
        if (plans) {
            EXPECT_THAT(run.errors,
                        HasSubstr("reading 00:00: nothing has come for 1 s: a request"));
            continue;
        }
        ASSERT_GE(run.Events("stalled").size(), 1u) << run.output;
        EXPECT_EQ(itself, run.Events("stalled")[0]["process"].dump());
    }
}

TEST(LockE2eTest, ADriverThatHangsIsTold) {
    QvcapRig rig;
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    rig.cards.AddFault({.request = "EraseFirmwareData", .nth = 2, .effect = qvsim::Slow(2500)});
    const UpgradeRun run = rig.Upgrade({"--json", "--stalled-after", "1"});
    EXPECT_EQ(0, run.status) << run.output;
    ASSERT_GE(run.Events("stalled").size(), 1u);
    EXPECT_EQ(run.Events("card-begin")[0]["process"], run.Events("stalled")[0]["process"]);
    EXPECT_EQ(1, run.Report()["cards"][0]["attempts"]) << "it was not ended";
}

}  // namespace
}  // namespace qvtest
