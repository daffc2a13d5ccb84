// The command line of the real binary: every option, every message, every exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "ToolProcess.h"
#include "ToolTexts.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using qvsim::Lumo;
using qvsim::NodeGone;
using qvsim::Pelix;
using qvsim::Refuse;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char kNothingToDo[] = "total 0, need upgrade 0\n";

std::string Row(const std::string& name, const std::string& current, const std::string& hardware,
                const std::string& target, const std::string& status) {
    const auto cell = [](std::string text, size_t width) {
        if (text.size() < width) text.resize(width, ' ');
        return text;
    };
    return cell(name, 30) + " |" + cell(current, 15) + " |" + cell(hardware, 15) + " |" +
           cell(target, 15) + " |" + cell(status, 15) + "\n";
}

class CommandLineE2eTest : public testing::Test {
  protected:
    ToolRun Run(const std::vector<std::string>& arguments) {
        ToolRun run = folder.ThroughPipe(rig, arguments);
        EXPECT_EQ(0, run.signal);
        return run;
    }
    void OneNewPackage() { Package().Firmware(1, 1).Write(folder / "new.qvf"); }

    qvsim::SimRig rig;
    ToolFolder folder;
};

TEST_F(CommandLineE2eTest, NoOptionPrintsTheUsage) {
    OneNewPackage();
    const ToolRun run = Run({});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(kUsage, run.output);
    EXPECT_EQ("", run.errors);
}

TEST_F(CommandLineE2eTest, AFolderWithoutPackagesIsReportedAndTheRunGoesOn) {
    const ToolRun run = Run({});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(kNoPackages + kUsage, run.output);
}

TEST_F(CommandLineE2eTest, OnlyAnUnknownOptionPrintsTheUsageBehindTheDiagnostic) {
    OneNewPackage();
    for (const char* option : {"-x", "--force", "--nothing", "-b", "--device"}) {
        const ToolRun run = Run({option});
        EXPECT_EQ(0, run.status) << option;
        EXPECT_EQ(kUsage, run.output) << option;
        EXPECT_THAT(run.errors, StartsWith("qvcap-upgrade: ")) << option;
    }
}

TEST_F(CommandLineE2eTest, HelpWinsOverEveryOtherOption) {
    rig.Add(Pelix());
    OneNewPackage();
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"-h"}, {"--help"}, {"-a", "-y", "-h"}, {"-l", "-h"}, {"-h", "-f", "-y", "-b", "0"}}) {
        const ToolRun run = Run(arguments);
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(kUsage, run.output);
    }
    EXPECT_THAT(rig.Journal(), Not(testing::Contains(HasSubstr("EraseFirmwareData"))));
}

TEST_F(CommandLineE2eTest, LongNamesDoWhatTheShortOnesDo) {
    rig.Add(Pelix().Board(3).Firmware(1, 1));
    OneNewPackage();
    const struct {
        std::vector<std::string> brief, full;
    } kPairs[] = {
        {{"-l"}, {"--list"}},
        {{"-h"}, {"--help"}},
        {{"-a"}, {"--all"}},
        {{"-l", "-b", "3"}, {"--list", "--board", "3"}},
        {{"-l", "-b", "4"}, {"--list", "--board=4"}},
        {{"-l", "-d", "3:0"}, {"--list", "--device", "3:0"}},
        {{"-f"}, {"--fource"}},
        {{"-y"}, {"--yes"}},
        {{"-a", "-y", "-f"}, {"--all", "--yes", "--fource"}},
    };
    for (const auto& pair : kPairs) {
        const ToolRun brief = Run(pair.brief);
        const ToolRun full = Run(pair.full);
        EXPECT_EQ(brief.output, full.output);
        EXPECT_EQ(brief.status, full.status);
        EXPECT_EQ("", full.errors);
    }
}

TEST_F(CommandLineE2eTest, OptionsThatSelectNothingReportTotals) {
    rig.Add(Pelix());
    OneNewPackage();
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"-f"}, {"-y"}, {"-f", "-y"}, {"-b", "7"}}) {
        const ToolRun run = Run(arguments);
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(kNothingToDo, run.output);
    }
}

// Every subset of the options, in both orders of the list builders.
TEST_F(CommandLineE2eTest, TwoOfAllBoardAndDeviceExcludeEachOtherInEverySubset) {
    rig.Add(Pelix());
    OneNewPackage();
    const std::vector<std::string> kOptions[] = {{"-a"}, {"-b", "0"}, {"-d", "0:0"},
                                                 {"-f"}, {"-l"},      {"-h"}};
    for (unsigned subset = 0; subset < 64; ++subset) {
        std::vector<std::string> arguments;
        for (unsigned i = 0; i < 6; ++i) {
            // The reverse order in every second subset.
            const unsigned at = subset % 2 == 0 ? i : 5 - i;
            if ((subset >> at & 1) != 0)
                arguments.insert(arguments.end(), kOptions[at].begin(), kOptions[at].end());
        }
        const bool all = subset & 1;
        const bool board = subset & 2;
        const bool device = subset & 4;
        const ToolRun run = Run(arguments);
        SCOPED_TRACE(subset);
        if (all + board + device > 1) {
            EXPECT_EQ(255, run.status);
            EXPECT_EQ(kExclusive, run.output);
        } else {
            EXPECT_EQ(0, run.status);
            EXPECT_THAT(run.output, Not(HasSubstr("can't not")));
        }
    }
    EXPECT_THAT(rig.Journal(), Not(testing::Contains(HasSubstr("EraseFirmwareData"))));
}

TEST_F(CommandLineE2eTest, BoardAndDevicePathExcludeEachOther) {
    rig.Add(Pelix());
    const ToolRun run = Run({"-b", "0", "-d", "/dev/video0"});
    EXPECT_EQ(255, run.status);
    EXPECT_EQ(kNoPackages + kExclusive, run.output);
}

TEST_F(CommandLineE2eTest, AFailureWhileListingIsReportedBeforeTheExclusion) {
    rig.Add(Pelix());
    OneNewPackage();
    const ToolRun run = Run({"-d", "/dev/video9", "-a", "-b", "0"});
    EXPECT_EQ(255, run.status);
    EXPECT_EQ("device /dev/video9 doesn't exit\n", run.output);
}

TEST_F(CommandLineE2eTest, AMissingDevicePathIsNamed) {
    rig.Add(Pelix());
    OneNewPackage();
    for (const char* path : {"/dev/video7", "/no/such/node", ""}) {
        const ToolRun run = Run({"-d", path});
        EXPECT_EQ(255, run.status);
        EXPECT_EQ("device " + std::string(path) + " doesn't exit\n", run.output);
    }
}

TEST_F(CommandLineE2eTest, APathThatIsNoChannelIsNamed) {
    rig.Add(Pelix()).ForeignNode(5);
    OneNewPackage();
    for (const char* path : {"/dev/video5", "/dev/null", ".", "new.qvf"}) {
        const ToolRun run = Run({"-d", path});
        EXPECT_EQ(255, run.status);
        EXPECT_EQ("device " + std::string(path) + " isn't a pelix or lumo capture device\n",
                  run.output);
    }
}

TEST_F(CommandLineE2eTest, ADeviceArgumentNeedsExactlyTwoFields) {
    rig.Add(Pelix().Channels(2));
    OneNewPackage();
    for (const char* argument : {"0:", ":0", ":", "::", "0:1:2", "0:1:2:3"}) {
        const ToolRun run = Run({"-d", argument});
        EXPECT_EQ(255, run.status) << argument;
        EXPECT_EQ(kArgumentError, run.output) << argument;
    }
}

TEST_F(CommandLineE2eTest, ADeviceArgumentListsThatChannelOnEveryFamily) {
    rig.Add(Pelix().Board(1).Channels(3).Product("P"))
        .Add(Lumo().Board(2).Channels(4).Product("L"));
    OneNewPackage();
    EXPECT_THAT(Run({"-d", "1:2"}).output,
                HasSubstr("total 1  need upgrade 1\n" + kTableHeader +
                          Row("01:02 P", "1.0", "A", "1.1", "Need upgrade") + "\n"));
    EXPECT_THAT(Run({"-d", "2:3"}).output,
                HasSubstr("total 1  need upgrade 1\n" + kTableHeader +
                          Row("02:03 L", "1.0", "A", "1.1", "Need upgrade") + "\n"));
}

TEST_F(CommandLineE2eTest, MinusOneAsBoardIsEveryBoard) {
    rig.Add(Pelix()).Add(Pelix());
    OneNewPackage();
    EXPECT_THAT(Run({"-b", "-1"}).output, HasSubstr("total 2  need upgrade 2\n"));
}

TEST_F(CommandLineE2eTest, ABoardNumberIsNotMasked) {
    rig.Add(Pelix());
    OneNewPackage();
    EXPECT_EQ(kNothingToDo, Run({"-b", "256"}).output);
}

TEST_F(CommandLineE2eTest, ListAfterBoardListsThatBoardOnly) {
    rig.Add(Pelix().Product("First")).Add(Pelix().Product("Second"));
    OneNewPackage();
    // Both options build the list, each finds the need.
    EXPECT_EQ("total 1  need upgrade 2\n" + kTableHeader +
                  Row("01:00 Second", "1.0", "A", "1.1", "Need upgrade"),
              Run({"-b", "1", "-l"}).output);
}

TEST_F(CommandLineE2eTest, ListBeforeBoardCountsTheNeedOfAllBoards) {
    rig.Add(Pelix().Product("First")).Add(Pelix().Product("Second"));
    OneNewPackage();
    EXPECT_EQ("total 1  need upgrade 3\n" + kTableHeader +
                  Row("01:00 Second", "1.0", "A", "1.1", "Need upgrade"),
              Run({"-l", "-b", "1"}).output);
}

TEST_F(CommandLineE2eTest, ListAndAllCountEveryNeedTwice) {
    rig.Add(Pelix().Channels(2));
    OneNewPackage();
    EXPECT_THAT(Run({"-l", "-a"}).output, StartsWith("total 2  need upgrade 4\n"));
}

TEST_F(CommandLineE2eTest, AnUnknownOptionAfterAllStillUpgrades) {
    rig.Add(Pelix());
    OneNewPackage();
    const ToolRun run = folder.OnTerminal(rig, {"-a", "-x"}, {"y", "n"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.errors, StartsWith("qvcap-upgrade: invalid option"));
    EXPECT_THAT(run.output, HasSubstr("total 1,  success 1,  fail 0,  skip 0,  cancel 0\n"));
}

TEST_F(CommandLineE2eTest, AnUnknownOptionEndsParsing) {
    rig.Add(Pelix());
    OneNewPackage();
    EXPECT_EQ(kUsage, Run({"-x", "-a"}).output);
}

TEST_F(CommandLineE2eTest, AFailingQueryLeavesTheEarlierListUntouched) {
    rig.Add(Pelix().Board(0).Product("Kept")).Add(Pelix().Board(1).Product("Failing"));
    OneNewPackage();
    rig.AddFault({.request = "ReadFirmwareData", .board = 1, .effect = Refuse(EIO)});
    const ToolRun run = Run({"-y", "-b", "0", "-b", "1"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output,
                StartsWith(kWarning + "total 1  need upgrade 2\n" + kTableHeader +
                           Row("00:00 Kept", "1.0", "A", "1.1", "Need upgrade") + "\n[1/1] "));
    EXPECT_THAT(run.output, HasSubstr("total 1,  success 1,  fail 0,  skip 0,  cancel 0\n"));
}

TEST_F(CommandLineE2eTest, ARecordUsedAgainWithoutAPackageKeepsItsFlags) {
    rig.Add(Pelix()).Add(Pelix().ProductCode(0x0999).Product("Other"));
    OneNewPackage();
    EXPECT_EQ("total 1  need upgrade 1\n" + kTableHeader +
                  Row("01:00 Other", "1.0", "A", "", "Need upgrade"),
              Run({"-b", "0", "-b", "1", "-l"}).output);
    EXPECT_EQ("total 1  need upgrade 0\n" + kTableHeader +
                  Row("01:00 Other", "1.0", "A", "", "Not Need upgrade"),
              Run({"-b", "1", "-l"}).output);
}

TEST_F(CommandLineE2eTest, ADeviceThatVanishesBetweenTwoListsHasNoNameWithoutAnArgument) {
    rig.Add(Pelix());
    OneNewPackage();
    // Asked by both enumerations, by the list, and while a package is looked for: that one's
    // failure is passed over, and the next list finds no node.
    rig.AddFault({.request = "GetChannelInfo", .nth = 4, .effect = NodeGone()});
    const ToolRun run = Run({"-l", "-a"});
    EXPECT_EQ(255, run.status);
    EXPECT_EQ("device (null) doesn't exit\n", run.output);
}

TEST_F(CommandLineE2eTest, OperandsAreIgnored) {
    rig.Add(Pelix().Firmware(1, 1));
    OneNewPackage();
    EXPECT_EQ(Run({"-l"}).output, Run({"some", "-l", "words"}).output);
}

TEST_F(CommandLineE2eTest, WithoutTheEventNodeTheRunIsTheSame) {
    rig.Add(Pelix()).NoEventNode();
    OneNewPackage();
    EXPECT_EQ("total 1  need upgrade 1\n" + kTableHeader +
                  Row("00:00 Pelix SIM", "1.0", "A", "1.1", "Need upgrade"),
              Run({"-l"}).output);
}

TEST_F(CommandLineE2eTest, AFolderWhoseNameIsTooLongEndsTheRun) {
    rig.Add(Pelix());
    std::string deep = folder.Dir();
    for (int i = 0; i < 3; ++i) deep += "/" + std::string(100, 'd');
    std::filesystem::create_directories(deep);
    folder.RunIn(deep);
    const ToolRun run = Run({"-l"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("Initial QVF file list failed\n", run.output);
}

}  // namespace
}  // namespace qvtest
