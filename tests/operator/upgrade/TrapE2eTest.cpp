// The unfinished main image that further upgrades would leave: recognised, led out of, or told. And
// what is refused before anything is written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "QvcapRig.h"

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint32_t kFirmwareArea = 0x2000;
constexpr uint32_t kFlashSize = 0x40000;

PackageBuilder With(uint16_t code, int minor) {
    return Package()
        .Firmware(1, minor)
        .Compatibility(code)
        .Section("Factory.Main", 0x4000, 5000)
        .Section("Upgrade.Main", 0x20000, 500);
}

class TrapE2eTest : public testing::Test {
  protected:
    // A card that runs 1.`minor` and has stored code 5.
    void Card(int minor) {
        rig.cards.Add(qvsim::Pelix()
                          .Product("CARD")
                          .Firmware(1, minor)
                          .Golden(0, 9)
                          .Stored(1, minor, 5)
                          .FirmwareOffset(kFirmwareArea)
                          .FlashSize(kFlashSize));
    }
    // Writes of the sections of the main image fail, so many from the second write on.
    void FailWrites(int count) {
        rig.cards.AddFault({.request = "WriteFirmwareData",
                            .nth = 2,
                            .count = count,
                            .effect = qvsim::Refuse(EIO)});
    }
    bool MainHolds(const PackageBuilder& package) {
        const Bytes flash = rig.cards.Flash(0, 0, 0, kFlashSize);
        const Bytes header = package.Header();
        return std::equal(header.begin(), header.end(), flash.begin() + kFirmwareArea) &&
               std::equal(package.Data(0).begin(), package.Data(0).end(), flash.begin() + 0x4000);
    }

    QvcapRig rig;
};

// A forced reinstallation of the running version from another code fails behind its header: the
// stored code is the package's then, and the next upgrade would be a safe one.
TEST_F(TrapE2eTest, IsLedOutOfWithThePackageThatTheCardHadBefore) {
    Card(1);
    FailWrites(1);
    rig.Write(With(7, 1));
    std::filesystem::create_directory(rig / "earlier");
    With(5, 1).Write(rig / "earlier/old.qvf");
    const UpgradeRun run = rig.Upgrade({"--json", "--force", "--earlier", rig / "earlier"});
    EXPECT_EQ(0, run.status) << run.output;
    ASSERT_EQ(1u, run.Events("bring-back").size());
    EXPECT_EQ("old.qvf", run.Events("bring-back")[0]["package"]);
    const nlohmann::json begun = run.Events("card-begin");
    ASSERT_EQ(3u, begun.size());
    for (const nlohmann::json& event : begun) EXPECT_EQ("upgrade", event["mode"]);
    EXPECT_TRUE(MainHolds(With(7, 1)));
    rig.cards.PowerCycle();
    EXPECT_EQ(0x00010001u, rig.cards.RunningVersion(0, 0));
    EXPECT_THAT(rig.States(), ElementsAre("current"));
}

TEST_F(TrapE2eTest, IsLedOutOfWithTheBackupThatTheRunMade) {
    // The card's own image is a whole package of code 5.
    Card(0);
    rig.Write(With(5, 1), "first.qvf");
    ASSERT_EQ(0, rig.Upgrade({"--force"}).status);
    rig.cards.PowerCycle();
    std::filesystem::remove(rig.Packages() + "/first.qvf");
    rig.Write(With(7, 1));
    FailWrites(1);
    const UpgradeRun run = rig.Upgrade({"--json", "--force", "--backup", rig / "backup"});
    EXPECT_EQ(0, run.status) << run.output;
    ASSERT_EQ(1u, run.Events("backup").size());
    EXPECT_THAT(run.Events("backup")[0]["images"].dump(), HasSubstr("\"version\":\"1.1\""));
    EXPECT_TRUE(MainHolds(With(7, 1)));
}

TEST_F(TrapE2eTest, WithoutSuchAPackageItSaysExactlyWhatToDoAndThatHelps) {
    Card(1);
    FailWrites(1);
    rig.Write(With(7, 1));
    const UpgradeRun run = rig.Upgrade({"--json", "--force"});
    EXPECT_EQ(1, run.status);
    const std::string reason = run.Report()["cards"][0]["reason"];
    EXPECT_THAT(reason, HasSubstr("Leave the computer on"));
    EXPECT_THAT(reason, HasSubstr("neither 0 nor 7"));
    EXPECT_THAT(reason, HasSubstr("--earlier"));
    EXPECT_FALSE(MainHolds(With(7, 1)));
    EXPECT_THAT(rig.States(), ElementsAre("interrupted"));
    EXPECT_EQ(1, rig.Upgrade().status) << "it goes on saying so";
    std::filesystem::create_directory(rig / "earlier");
    With(5, 1).Write(rig / "earlier/old.qvf");
    EXPECT_EQ(0, rig.Upgrade({"--earlier", rig / "earlier"}).status);
    EXPECT_TRUE(MainHolds(With(7, 1)));
    EXPECT_EQ(2, rig.Upgrade().status);
}

TEST_F(TrapE2eTest, APackageThatWouldNotHelpIsNotTried) {
    Card(1);
    FailWrites(1);
    rig.Write(With(7, 1));
    std::filesystem::create_directory(rig / "earlier");
    With(0, 1).Write(rig / "earlier/zero.qvf");
    With(7, 0).Write(rig / "earlier/same.qvf");
    const UpgradeRun run = rig.Upgrade({"--json", "--force", "--earlier", rig / "earlier"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.Events("bring-back"), testing::IsEmpty());
}

struct Wrong {
    const char* name;
    PackageBuilder package;
    const char* reason;
};

const Wrong kWrong[] = {
    {"CodeZero", With(0, 1), "compatibility code is 0"},
    {"NoMainSection",
     Package().Firmware(1, 1).Compatibility(7).Section("Upgrade.Main", 0x20000, 500),
     "no section for an upgrade"},
    {"NoUpgradeSection",
     Package().Firmware(1, 1).Compatibility(5).Section("Factory.Main", 0x4000, 500),
     "no section for a safe upgrade"},
    {"OverTheHeader", Package().Firmware(1, 1).Section("Factory.Main", kFirmwareArea, 500),
     "erase sector of the header"},
    {"Overlap", Package().Firmware(1, 1).Section("A", 0x4000, 500).Section("B", 0x4100, 500),
     "overlap"},
    {"BeyondTheFlash", Package().Firmware(1, 1).Section("Factory.Main", kFlashSize - 100, 500),
     "beyond"},
    {"BeyondAllAddresses", Package().Firmware(1, 1).Section("Factory.Main", 0xFFFFFF00u, 500),
     "beyond"},
};

class RefusedE2eTest : public TrapE2eTest, public testing::WithParamInterface<Wrong> {};

TEST_P(RefusedE2eTest, BeforeAnythingIsWritten) {
    Card(0);
    rig.Write(GetParam().package);
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"--json"}, {"--json", "--force"}}) {
        const UpgradeRun run = rig.Upgrade(options);
        EXPECT_EQ(1, run.status) << run.output;
        EXPECT_EQ("refused", run.Report()["cards"][0]["result"]);
        EXPECT_THAT(run.Report()["cards"][0]["reason"].dump(), HasSubstr(GetParam().reason));
    }
    EXPECT_EQ(0u, rig.Changes());
}

INSTANTIATE_TEST_SUITE_P(Packages, RefusedE2eTest, testing::ValuesIn(kWrong),
                         [](const auto& about) { return std::string(about.param.name); });

TEST_F(TrapE2eTest, TwoPackagesForOneCardAreRefused) {
    Card(0);
    rig.Write(With(7, 1), "a.qvf");
    rig.Write(With(7, 2), "b.qvf");
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.Report()["cards"][0]["reason"].dump(), HasSubstr("a.qvf (1.1), b.qvf (1.2)"));
    EXPECT_EQ(0u, rig.Changes());
}

TEST_F(TrapE2eTest, APackageThatCannotBeReadIsRefusedWithItsFolder) {
    Card(0);
    rig.Write(With(7, 1), "a.qvf");
    rig.Write(Package().Magic("XXXX"), "broken\x1b[1m.qvf");
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.Report()["cards"][0]["reason"].dump(), HasSubstr("cannot be read"));
    EXPECT_EQ(0u, rig.Changes());
}

TEST_F(TrapE2eTest, APackageThatIsReplacedWhileItRunsIsWrittenAsItWasChecked) {
    Card(0);
    rig.Write(With(7, 1));
    rig.cards.AddFault({.request = "EraseFirmwareData", .nth = 1, .effect = qvsim::Slow(300)});
    const auto running = rig.StartUpgrade({"--json"});
    ASSERT_TRUE(running->WaitFor("\"plan\""));
    rig.Write(With(7, 9));
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(MainHolds(With(7, 1)));
}

TEST_F(TrapE2eTest, WithoutRoomForTheHistoryThePackageOrTheBackupNothingIsFlashed) {
    Card(0);
    rig.Write(With(7, 1));
    rig.LimitFiles(100);  // no line of the history fits
    UpgradeRun run = rig.Upgrade();
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(0u, rig.Changes()) << run.output;
    rig.LimitFiles(3000);  // the package does not
    EXPECT_EQ(1, rig.Upgrade().status);
    EXPECT_EQ(0u, rig.Changes());
    rig.LimitFiles(0);
    std::filesystem::create_directory(rig / "file");
    PackageBuilder::WriteBytes(rig / "file/none", {1});
    EXPECT_EQ(1, rig.Upgrade({"--backup", rig / "file/none"}).status);
    EXPECT_EQ(1, rig.Run({"upgrade", "--packages", rig.Packages(), "--lock", rig.Lock(), "--log",
                          rig / "file/none"})
                     .status);
    EXPECT_EQ(0u, rig.Changes());
    EXPECT_EQ(0, rig.Upgrade().status);
}

TEST_F(TrapE2eTest, ACardThatVanishesFailsAndTheOthersAreWritten) {
    Card(0);
    Card(0);
    rig.Write(With(7, 1));
    rig.cards.AddFault({.request = "WriteFirmwareData",
                        .nth = 2,
                        .board = 0,
                        .effect = {qvsim::FaultKind::kNodeGone, 0}});
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_EQ("failed", run.Report()["cards"][0]["result"]);
    EXPECT_EQ("done", run.Report()["cards"][1]["result"]);
}

}  // namespace
}  // namespace qvtest
