// What the packages that check warns of do to simulated cards, by the real qvcap-upgrade: the
// reason of each rule, unless a test of the tool shows it already.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <sstream>

#include "CommandLine.h"
#include "support/PackageBuilder.h"
#include "tool/ToolProcess.h"

namespace qvtest {
namespace {

using qvsim::Pelix;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kFirmware = 0x100000;
constexpr uint32_t kMain = 0x200000;
constexpr uint32_t kUpgrade = 0x300000;
constexpr char kSuccess[] = " successfully.";

class HarmE2eTest : public testing::Test {
  protected:
    // Check names the rule, and says nothing else.
    void ExpectRules(const std::vector<std::string>& rules, std::vector<std::string> options = {}) {
        std::ostringstream out;
        std::ostringstream errors;
        options.insert(options.begin(), {"check", folder.Dir()});
        EXPECT_EQ(1, qvf::RunQvftool(options, out, errors));
        std::vector<std::string> found;
        std::istringstream lines(out.str());
        for (std::string line; std::getline(lines, line);)
            found.push_back(
                line.substr(line.rfind('[') + 1, line.rfind(']') - line.rfind('[') - 1));
        EXPECT_EQ(rules, found) << out.str() << errors.str();
    }
    std::string Upgrade() { return folder.ThroughPipe(rig, {"-a", "-y"}).output; }
    Bytes FlashAt(uint32_t address, size_t size) {
        return rig.Flash(0, 0, address, static_cast<uint32_t>(size));
    }
    bool IsBlank(uint32_t address, size_t size) {
        return FlashAt(address, size) == Bytes(size, 0xFF);
    }

    qvsim::SimRig rig;
    ToolFolder folder;
};

TEST_F(HarmE2eTest, NoUpgradeSectionMakesASafeUpgradeThatWritesOnlyAHeader) {
    rig.Add(Pelix().Firmware(1, 0).Stored(1, 0, 7));
    const PackageBuilder package = Package().Compatibility(7).Section("Factory.Main", kMain, 5000);
    package.Write(folder / "p.qvf");
    ExpectRules({"no-upgrade-section"});
    EXPECT_THAT(Upgrade(), AllOf(HasSubstr("Safe upgrade from 1.0 to 1.1"), HasSubstr(kSuccess)));
    EXPECT_EQ(package.Header(), FlashAt(kFirmware + 4096, package.Header().size()));
    EXPECT_TRUE(IsBlank(kMain, 5000));
}

TEST_F(HarmE2eTest, NoMainSectionMakesANormalUpgradeThatWritesOnlyAHeader) {
    rig.Add(Pelix());
    const PackageBuilder package = Package().Section("Upgrade.Main", kUpgrade, 5000);
    package.Write(folder / "p.qvf");
    ExpectRules({"no-main-section"});
    EXPECT_THAT(Upgrade(), HasSubstr(kSuccess));
    EXPECT_EQ(package.Header(), FlashAt(kFirmware, package.Header().size()));
    EXPECT_TRUE(IsBlank(kUpgrade, 5000));
}

TEST_F(HarmE2eTest, AnUpgradeOnlyPackageDoesTheSameOnCardsOfAnotherCode) {
    rig.Add(Pelix().Stored(1, 0, 5));
    const PackageBuilder package =
        Package().Compatibility(7).Section("Upgrade.Main", kUpgrade, 5000);
    package.Write(folder / "p.qvf");
    ExpectRules({"upgrade-only"});
    EXPECT_THAT(Upgrade(), AllOf(Not(HasSubstr("Safe upgrade")), HasSubstr(kSuccess)));
    EXPECT_EQ(package.Header(), FlashAt(kFirmware, package.Header().size()));
    EXPECT_TRUE(IsBlank(kUpgrade, 5000));
}

TEST_F(HarmE2eTest, CodeZeroIsTakenForSafeWhereTheStoredHeaderIsOfOtherFirmware) {
    rig.Add(Pelix().Firmware(1, 0).Stored(1, 5, 3));
    Package()
        .Compatibility(0)
        .Section("Factory.Main", kMain, 5000)
        .Section("Upgrade.Main", kUpgrade, 5000)
        .Write(folder / "p.qvf");
    ExpectRules({"compatibility-zero"});
    EXPECT_THAT(Upgrade(), HasSubstr("Safe upgrade from 1.0 to 1.1 successfully."));
    EXPECT_TRUE(IsBlank(kMain, 5000));
}

TEST_F(HarmE2eTest, OverlappingSectionsDoNotReadBack) {
    rig.Add(Pelix());
    Package()
        .Section("Factory.A", kMain, 8192)
        .Section("Factory.B", kMain + 4096, 4096)
        .Write(folder / "p.qvf");
    ExpectRules({"overlap"});
    EXPECT_THAT(Upgrade(), HasSubstr("error (verifying at"));
}

TEST_F(HarmE2eTest, AMisalignedSectionTakesWhatStandsInFrontOfIt) {
    rig.Add(Pelix());
    const PackageBuilder before = Package().Section("Factory.Settings", kMain, 100);
    before.Write(folder / "p.qvf");
    EXPECT_THAT(Upgrade(), HasSubstr(kSuccess));
    EXPECT_EQ(before.Data(0), FlashAt(kMain, 100));
    Package().Section("Factory.Main", kMain + 100, 5000).Write(folder / "p.qvf");
    ExpectRules({"misaligned"});
    EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y", "-f"}).output, HasSubstr(kSuccess));
    EXPECT_TRUE(IsBlank(kMain, 100));
}

TEST_F(HarmE2eTest, ASectionBeyondTheFlashFailsWhenTheHeaderIsGoneAlready) {
    rig.Add(Pelix().FlashSize(0x400000));
    Package().Section("Factory.Main", 0x3FF000, 5000).Write(folder / "p.qvf");
    ExpectRules({"beyond-flash"}, {"--flash-size", "0x400000"});
    EXPECT_THAT(Upgrade(), HasSubstr("error (erasing at"));
    EXPECT_TRUE(IsBlank(kFirmware, 157));
}

TEST_F(HarmE2eTest, ASectionOverTheHeaderTakesItsPlace) {
    rig.Add(Pelix());
    Package()
        .Section("Factory.Main", kMain, 100)
        .Section("Factory.Boot", kFirmware, 100)
        .Write(folder / "p.qvf");
    ExpectRules({"over-header"}, {"--firmware-area", "0x100000"});
    EXPECT_THAT(Upgrade(), HasSubstr("error (verifying at 0%)."));
}

TEST_F(HarmE2eTest, APackageOfZerosIsTakenForACardThatDoesNotAnswer) {
    rig.Add(Pelix());
    // 5 by the upgrade, 6 while its package is looked for.
    rig.AddFault({.request = "GetChannelInfo", .nth = 6, .effect = qvsim::Refuse(EIO)});
    const PackageBuilder package =
        Package().ProductCode(0).Hardware('\0').Section("Factory.Main", kMain, 5000);
    package.Write(folder / "p.qvf");
    ExpectRules({"fits-unknown-card"});
    EXPECT_THAT(Upgrade(), HasSubstr(kSuccess));
    EXPECT_EQ(package.Data(0), FlashAt(kMain, 5000));
}

TEST_F(HarmE2eTest, ANearMissIsWrittenInsteadOfClearedAndIntoTheOtherImage) {
    rig.Add(Pelix());
    const PackageBuilder package = Package()
                                       .Section("Factory.Main", kMain, 100)
                                       .Section("Factory.CLR", 0x400000, 100)
                                       .Section("upgrade.Main", kUpgrade, 100);
    package.Write(folder / "p.qvf");
    ExpectRules({"name-near-miss", "name-near-miss"});
    EXPECT_THAT(Upgrade(), HasSubstr(kSuccess));
    EXPECT_EQ(package.Data(1), FlashAt(0x400000, 100));
    EXPECT_EQ(package.Data(2), FlashAt(kUpgrade, 100));
}

TEST_F(HarmE2eTest, SectionsOfOneNameAreBothWritten) {
    rig.Add(Pelix());
    const PackageBuilder package =
        Package().Section("Factory.Main", kMain, 100).Section("Factory.Main", kUpgrade, 100);
    package.Write(folder / "p.qvf");
    ExpectRules({"duplicate-name"});
    EXPECT_THAT(Upgrade(), HasSubstr(kSuccess));
    EXPECT_EQ(package.Data(0), FlashAt(kMain, 100));
    EXPECT_EQ(package.Data(1), FlashAt(kUpgrade, 100));
}

// The card of which no package is told is that of the one behind the 32nd.
TEST_F(HarmE2eTest, APackageBehindTheThirtySecondIsNeverTaken) {
    for (int i = 0; i < 33; ++i)
        Package().ProductCode(99).Write(folder / "p" + std::to_string(i) + ".qvf");
    std::string last;
    uint16_t code = 1000;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Dir())) {
        last = entry.path();
        Package().ProductCode(++code).Section("Factory.Main", kMain, 100).Write(last);
    }
    rig.Add(Pelix().ProductCode(code));
    ExpectRules({"too-many-packages"});
    EXPECT_THAT(Upgrade(), Not(HasSubstr(kSuccess)));
    std::filesystem::remove(folder / "p0.qvf" == last ? folder / "p1.qvf" : folder / "p0.qvf");
    EXPECT_THAT(Upgrade(), HasSubstr(kSuccess));
}

TEST_F(HarmE2eTest, OfTwoPackagesThatFitTheOneThatCheckNamesIsTaken) {
    rig.Add(Pelix());
    for (const int minor : {1, 2})
        Package()
            .Firmware(1, minor)
            .Section("Factory.Main", kMain, 100)
            .Write(folder / std::to_string(minor) + ".qvf");
    ExpectRules({"same-cards"});
    std::ostringstream out;
    std::ostringstream errors;
    qvf::RunQvftool({"check", folder.Dir()}, out, errors);
    const std::string version =
        out.str().find("directory 1.qvf is taken") != std::string::npos ? "1.1" : "1.2";
    EXPECT_THAT(out.str(), HasSubstr("directory " + version.substr(2) + ".qvf is taken"));
    EXPECT_THAT(Upgrade(), HasSubstr("Upgrade from 1.0 to " + version + " successfully."));
}

}  // namespace
}  // namespace qvtest
