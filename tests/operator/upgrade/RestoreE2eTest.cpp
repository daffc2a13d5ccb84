// What `qvcap backup` has saved, put back by `qvcap upgrade`: into the image that it was saved
// from, or not at all. And other packages that bring no image.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "../QvcapProcess.h"
#include "QvcapRig.h"

namespace qvtest {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kFirmwareArea = 0x2000;
constexpr uint32_t kMainData = 0x4000;
constexpr uint32_t kSafeData = 0x20000;
constexpr uint32_t kFlashSize = 0x40000;

PackageBuilder With(uint16_t code, int minor) {
    const auto seed = static_cast<uint32_t>(minor);
    return Package()
        .Firmware(1, minor)
        .Compatibility(code)
        .Section("Factory.Main", kMainData, Payload(5000, 10 + seed))
        .Section("Upgrade.Main", kSafeData, Payload(500, 20 + seed));
}

class RestoreE2eTest : public testing::Test {
  protected:
    // A card that runs 1.1, which a normal upgrade has brought.
    RestoreE2eTest() {
        rig.cards.Add(qvsim::Pelix()
                          .Serial("S")
                          .Product("P")
                          .Firmware(1, 0)
                          .Golden(0, 9)
                          .FirmwareOffset(kFirmwareArea)
                          .FlashSize(kFlashSize));
        Flash(With(5, 1));
        rig.cards.PowerCycle();
        EXPECT_EQ(0x00010001u, rig.cards.RunningVersion(0, 0));
    }
    void Flash(const PackageBuilder& package) {
        rig.Write(package);
        EXPECT_EQ(0, rig.Upgrade({"--force"}).status);
        fs::remove(rig.Packages() + "/a.qvf");
    }
    void Save() { ASSERT_EQ(0, rig.Run({"backup", rig / "saved"}).status); }
    // What was saved as this becomes the only package.
    void Offer(const std::string& name) {
        fs::copy_file(rig / "saved" + "/" + name + "/" + name + ".qvf", rig.Packages() + "/a.qvf",
                      fs::copy_options::overwrite_existing);
    }
    Bytes Area(uint32_t address, uint32_t size) { return rig.cards.Flash(0, 0, address, size); }
    void ExpectRefused(const std::string& reason) {
        const size_t before = rig.Changes();
        for (const std::vector<std::string>& options :
             {std::vector<std::string>{"--json", "--force"}, {"--json", "--force", "--dry-run"}}) {
            const UpgradeRun run = rig.Upgrade(options);
            EXPECT_EQ(1, run.status) << run.output;
            EXPECT_EQ("refused", run.Report()["cards"][0]["result"]);
            EXPECT_THAT(run.Report()["cards"][0]["reason"].dump(), HasSubstr(reason));
        }
        EXPECT_EQ(before, rig.Changes());
    }

    QvcapRig rig;
    const std::string kMain = "S-0-P-1.1-main";
};

TEST_F(RestoreE2eTest, AMainImageIsNotWrittenAsASafeUpgrade) {
    Save();
    Offer(kMain);
    ExpectRefused("it was saved from a main image");
    EXPECT_THAT(rig.States(), ElementsAre("current")) << "that is the main image";
}

TEST_F(RestoreE2eTest, NorIsOneThatWasSavedBesideAnotherFirmwaresSafeImage) {
    Flash(With(5, 2));
    Save();  // the table of 1.1 leads to the data of 1.2
    Offer(kMain);
    ExpectRefused("it was saved from a main image");
    rig.cards.PowerCycle();
    ASSERT_EQ(0x00010002u, rig.cards.RunningVersion(0, 0));
    const UpgradeRun run = rig.Upgrade({"--json", "--force"});
    EXPECT_EQ(0, run.status) << "now it is a normal upgrade: " << run.output;
    EXPECT_EQ("upgrade", run.Events("plan")[0]["mode"]);
    EXPECT_EQ(With(5, 1).Header(), Area(kFirmwareArea, With(5, 1).Length()));
    EXPECT_EQ(With(5, 1).Data(0), Area(kMainData, 5000));
    rig.cards.PowerCycle();
    EXPECT_EQ(0x00010001u, rig.cards.RunningVersion(0, 0));
}

TEST_F(RestoreE2eTest, ASafeImageIsNotWrittenAsANormalUpgradeButBackWhereItWas) {
    Flash(With(5, 2));
    const Bytes header = Area(kFirmwareArea + 4096, With(5, 2).Length());
    Save();
    Flash(With(5, 3));
    EXPECT_NE(header, Area(kFirmwareArea + 4096, With(5, 2).Length()));
    Offer("S-0-P-1.2-safe");
    EXPECT_EQ(0, rig.Upgrade({"--force"}).status);
    EXPECT_EQ(header, Area(kFirmwareArea + 4096, With(5, 2).Length()));
    EXPECT_EQ(With(5, 2).Data(1), Area(kSafeData, 500));
    rig.cards.PowerCycle();
    ASSERT_EQ(0x00010002u, rig.cards.RunningVersion(0, 0));
    ExpectRefused("it was saved from a safe image");
}

TEST_F(RestoreE2eTest, APackageWithAnotherCodeLeadsBackToTheMainImage) {
    Save();
    Flash(With(7, 2));
    Flash(With(5, 2));
    rig.cards.PowerCycle();
    ASSERT_EQ(0x00010002u, rig.cards.RunningVersion(0, 0));
    Offer(kMain);
    ExpectRefused("it was saved from a main image");
    Flash(With(7, 3));
    Offer(kMain);
    EXPECT_EQ(0, rig.Upgrade({"--force"}).status);
    EXPECT_EQ(With(5, 1).Data(0), Area(kMainData, 5000));
    rig.cards.PowerCycle();
    EXPECT_EQ(0x00010001u, rig.cards.RunningVersion(0, 0));
}

TEST_F(RestoreE2eTest, ItIsToldWhatAPackageOfABackupIsNot) {
    Flash(With(5, 2));
    Save();
    Offer("S-0-P-1.2-safe");
    EXPECT_THAT(rig.States(), ElementsAre("staged"));
    Offer(kMain);
    EXPECT_THAT(rig.States(), ElementsAre("current")) << "the safe image is no part of it";
}

TEST_F(RestoreE2eTest, BlankSectionsAreNoImage) {
    rig.Write(Package()
                  .Firmware(1, 2)
                  .Compatibility(5)
                  .Section("Factory.Main", kMainData, 5000)
                  .Section("Upgrade.Main", kSafeData, Bytes(500, 0xFF)));
    ExpectRefused("are blank");
    // Somebody else has written them.
    const UpgradeRun tool = rig.Tool({"-a", "-y"});
    EXPECT_THAT(tool.output, HasSubstr("successfully."));
    EXPECT_THAT(rig.States(), ElementsAre("upgrade available")) << "there is no image to load";
    EXPECT_THAT(rig.Run({"verify", "--packages", rig.Packages()}).output, Not(HasSubstr(": same")));
}

TEST_F(RestoreE2eTest, AnUnfinishedMainImageIsSavedButNothingIsRepairedWithIt) {
    rig.Write(With(7, 1));
    AddFaultNow(rig.cards,
                {.request = "WriteFirmwareData", .nth = 2, .effect = qvsim::Refuse(EIO)});
    EXPECT_EQ(1, rig.Upgrade({"--force", "--retries", "0"}).status);
    const UpgradeRun run = rig.Upgrade({"--json", "--force", "--backup", rig / "saved"});
    EXPECT_EQ(1, run.status) << run.output;
    ASSERT_EQ(1u, run.Events("backup").size()) << run.output;
    EXPECT_THAT(run.Events("backup")[0]["notes"].dump(), HasSubstr("unfinished"));
    EXPECT_THAT(run.Events("bring-back"), testing::IsEmpty());
    EXPECT_THAT(run.Report()["cards"][0]["reason"].dump(), HasSubstr("--earlier"));
}

}  // namespace
}  // namespace qvtest
