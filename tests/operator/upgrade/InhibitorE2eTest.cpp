// A shutdown is held up while cards are flashed, and not before or after.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "QvcapRig.h"
#include "StandInLogind.h"

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class InhibitorE2eTest : public testing::Test {
  protected:
    InhibitorE2eTest() {
        rig.cards.Add(qvsim::Pelix().FirmwareOffset(0x2000).FlashSize(0x40000).Firmware(1, 0));
        rig.cards.Add(qvsim::Pelix().FirmwareOffset(0x2000).FlashSize(0x40000).Firmware(1, 0));
        rig.Write(Package().Firmware(1, 1).Section("Factory.Main", 0x4000, 70000));
    }
    std::vector<std::string> Notices(const UpgradeRun& run) {
        std::vector<std::string> messages;
        for (const nlohmann::json& event : run.Events("notice"))
            messages.push_back(event["message"]);
        return messages;
    }

    QvcapRig rig;
};

// Every 64-bit configuration runs these tests: Debian's package manager needs libsystemd, so that
// it is there, and one that is not found is a failure. Nothing installs the 32-bit one.
#define NEEDS_LIBSYSTEMD()                                          \
    if (sizeof(void*) == 4 && !StandInLogind::IsPossible())         \
        GTEST_SKIP() << "there is no libsystemd of this word size"; \
    ASSERT_TRUE(StandInLogind::IsPossible())

TEST_F(InhibitorE2eTest, AShutdownIsHeldUpWhileCardsAreFlashedAndNotBeforeOrAfter) {
    NEEDS_LIBSYSTEMD();
    const StandInLogind logind(rig / "no-bus");
    // Long enough to look: the plan's first reading, and the first erase.
    rig.cards.AddFault({.request = "ReadFirmwareData", .nth = 1, .effect = qvsim::Slow(300)});
    rig.cards.AddFault({.request = "EraseFirmwareData", .nth = 2, .effect = qvsim::Slow(300)});
    const auto running = rig.StartUpgrade({"--json"});
    ASSERT_TRUE(running->WaitFor("\"begin\""));
    EXPECT_EQ(0u, logind.Held()) << "nothing is flashed yet";
    ASSERT_TRUE(running->WaitFor("\"card-begin\""));
    EXPECT_EQ(1u, logind.Held());
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_THAT(logind.Asked(), ElementsAre("shutdown:sleep:handle-power-key|qvcap|firmware is "
                                            "being written to capture cards|block"))
        << "once for the run, not for each card";
    EXPECT_EQ(0u, logind.Held());
    EXPECT_THAT(Notices(run), IsEmpty());
}

TEST_F(InhibitorE2eTest, ARunThatFlashesNothingAsksForNothing) {
    NEEDS_LIBSYSTEMD();
    const StandInLogind logind(rig / "no-bus");
    EXPECT_EQ(0, rig.Upgrade({"--dry-run"}).status);
    EXPECT_THAT(logind.Asked(), IsEmpty());
    EXPECT_EQ(0, rig.Upgrade().status);
    EXPECT_EQ(1u, logind.Asked().size());
    EXPECT_EQ(2, rig.Upgrade().status);
    EXPECT_EQ(1u, logind.Asked().size()) << "all are staged";
}

TEST_F(InhibitorE2eTest, AToolThatOutlivesQvcapDoesNotHoldItUpForEver) {
    NEEDS_LIBSYSTEMD();
    const StandInLogind logind(rig / "no-bus");
    rig.cards.AddFault({.request = "EraseFirmwareData", .nth = 2, .effect = qvsim::Slow(300)});
    const auto running = rig.StartUpgrade({"--json"});
    ASSERT_TRUE(running->WaitFor("\"card-begin\""));
    kill(running->Number(), SIGKILL);
    EXPECT_EQ(SIGKILL, running->Wait().signal);
    WaitUntil([&] { return logind.Held() == 0; });
    EXPECT_EQ(0, rig.Upgrade({"--wait"}).status);
}

TEST_F(InhibitorE2eTest, ARefusalOfLogindIsSaidOnceAndTheRunGoesOn) {
    NEEDS_LIBSYSTEMD();
    const StandInLogind logind(rig / "no-bus", true);
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_THAT(Notices(run), ElementsAre("a shutdown is not held up: logind cannot be asked: "
                                          "Permission denied"));
}

TEST_F(InhibitorE2eTest, WithoutABusThatIsSaidOnceAndTheRunGoesOn) {
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_THAT(Notices(run), ElementsAre(HasSubstr("a shutdown is not held up: ")));
    EXPECT_EQ(2u, run.Events("card-begin").size());
}

}  // namespace
}  // namespace qvtest
