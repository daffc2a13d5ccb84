// What compatibility codes make of a failed normal upgrade when it is run again, step by step: the
// next run is a safe one and leaves the main image, and the two ways to a whole main image. The
// sweeps find where this happens; here is what docs/recovery.md tells an administrator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>

#include "SweptCards.h"

namespace qvtest {
namespace {

using testing::HasSubstr;

constexpr uint32_t kMainData = 0x4000;
constexpr uint32_t kFirmwareArea = 0x2000;

PackageBuilder With(uint16_t code, int minor) {
    return Package()
        .Firmware(1, minor)
        .Compatibility(code)
        .Section("Factory.Main", kMainData, 5000)
        .Section("Upgrade.Main", 0x20000, 500);
}

class BringBackTest : public testing::Test {
  protected:
    // A card that runs 1.`minor` with code 5.
    void Card(int minor, const std::vector<qvsim::Fault>& faults) {
        rig.Add(qvsim::Pelix()
                    .Firmware(1, minor)
                    .Golden(0, 9)
                    .Stored(1, minor, 5)
                    .FirmwareOffset(kFirmwareArea)
                    .FlashSize(0x40000));
        for (const qvsim::Fault& fault : faults) rig.AddFault(fault);
    }

    std::string Run(const PackageBuilder& package, const std::vector<std::string>& options) {
        package.Write(folder / "p.qvf");
        return folder.ThroughPipe(rig, options).output;
    }

    bool MainHolds(const PackageBuilder& package) {
        return HoldsImage(rig.Flash(0, 0, 0, 0x40000), package, kFirmwareArea, false);
    }

    void ExpectSafe(const PackageBuilder& package, const std::vector<std::string>& options) {
        EXPECT_THAT(Run(package, options), HasSubstr("Safe upgrade from "));
        EXPECT_FALSE(MainHolds(package));
    }

    // The earlier package, off and on, the new one.
    void ExpectBroughtBack(const PackageBuilder& earlier, const PackageBuilder& package) {
        EXPECT_THAT(Run(earlier, {"-a", "-y", "-f"}), HasSubstr("]  Upgrade from "));
        EXPECT_TRUE(MainHolds(earlier));
        rig.PowerCycle();
        EXPECT_THAT(Run(package, {"-a", "-y", "-f"}), HasSubstr("]  Upgrade from "));
        EXPECT_TRUE(MainHolds(package));
        rig.PowerCycle();
        EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
    }

    qvsim::SimRig rig;
    ToolFolder folder;
    const std::vector<qvsim::Fault> sectionNotWritten = {
        {.request = "WriteFirmwareData", .nth = 2, .effect = qvsim::Refuse(EIO)}};
};

TEST_F(BringBackTest, ACardThatCameUpWithTheNewVersionKeepsItsMainImageWhenForced) {
    // All written, the power goes while it is read back, and the flash turns out to be damaged.
    Card(0, {{.request = "ReadFirmwareData", .nth = 3, .effect = qvsim::PowerLoss()}});
    EXPECT_THAT(Run(With(7, 1), {"-a", "-y"}), HasSubstr("error (verifying"));
    ForgetTroubles(rig);
    rig.PowerCycle();
    EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
    {
        // The files of a flash hold complements.
        std::fstream flash(rig.Dir() + "/flash-b0-c0.bin",
                           std::ios::in | std::ios::out | std::ios::binary);
        flash.seekp(kMainData);
        flash.put('\0');
        ASSERT_TRUE(flash.flush().good());
    }
    ASSERT_FALSE(MainHolds(With(7, 1)));
    EXPECT_THAT(Run(With(7, 1), {"-a", "-y"}), HasSubstr("Needn't upgrade"));
    ExpectSafe(With(7, 1), {"-a", "-y", "-f"});
    rig.PowerCycle();
    EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
    // Stored and running version agree: the code is asked, however often.
    ExpectSafe(With(7, 1), {"-a", "-y", "-f"});
    ExpectBroughtBack(With(5, 0), With(7, 1));
}

TEST_F(BringBackTest, AReinstallWithAnotherCodeLeavesItsMainImageWhenForcedAgain) {
    Card(1, sectionNotWritten);
    EXPECT_THAT(Run(With(7, 1), {"-a", "-y", "-f"}), HasSubstr("error (writting"));
    ForgetTroubles(rig);
    EXPECT_THAT(Run(With(7, 1), {"-a", "-y"}), HasSubstr("Needn't upgrade"));
    ExpectSafe(With(7, 1), {"-a", "-y", "-f"});
    ExpectSafe(With(7, 1), {"-a", "-y", "-f"});
    ExpectBroughtBack(With(5, 1), With(7, 1));
}

TEST_F(BringBackTest, CodeZeroLeavesTheMainImageErasedWithoutBeingForced) {
    Card(0, sectionNotWritten);
    EXPECT_THAT(Run(With(0, 1), {"-a", "-y"}), HasSubstr("error (writting"));
    ForgetTroubles(rig);
    // Version 1.1 is stored and 1.0 runs: the reference is 0, the package's code.
    ExpectSafe(With(0, 1), {"-a", "-y"});
    rig.PowerCycle();
    EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
    ExpectSafe(With(0, 1), {"-a", "-y", "-f"});
    ExpectBroughtBack(With(5, 0), With(0, 1));
}

class AnyCode : public BringBackTest, public testing::WithParamInterface<uint16_t> {};

TEST_P(AnyCode, IsMendedByAPackageWithCodeOneWhichAlwaysWritesTheMainImage) {
    const PackageBuilder package = With(GetParam(), 1);
    Card(1, sectionNotWritten);
    EXPECT_THAT(Run(package, {"-a", "-y", "-f"}), HasSubstr("error (writting"));
    ForgetTroubles(rig);
    ExpectSafe(package, {"-a", "-y", "-f"});
    for (int times = 0; times < 2; ++times) {
        EXPECT_THAT(Run(With(1, 1), {"-a", "-y", "-f"}), HasSubstr("]  Upgrade from "));
        EXPECT_TRUE(MainHolds(With(1, 1)));
        rig.PowerCycle();
        EXPECT_EQ(kNew, rig.RunningVersion(0, 0));
    }
}

INSTANTIATE_TEST_SUITE_P(Codes, AnyCode, testing::Values(uint16_t{7}, uint16_t{0}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace qvtest
