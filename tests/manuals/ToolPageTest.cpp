// What qvcap-upgrade(8) says, held against the program: its tables, its exit statuses, and what it
// warns of.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <set>

#include "support/ManualPage.h"
#include "support/PackageBuilder.h"
#include "tool/ToolProcess.h"
#include "tool/ToolTexts.h"

namespace qvtest {
namespace {

using qvsim::Pelix;
using qvsim::Refuse;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ToolPageTest : public testing::Test {
  protected:
    ToolPageTest() : page(QV_MANUAL_FOLDER "/qvcap-upgrade.8.scd") {
        Package().Section("Factory.Main", 0x200000, 100).Write(folder / "p.qvf");
    }
    // A fresh card, with the faults of `request`.
    void NewCard(const std::string& request = {}, int nth = 1) {
        rig = std::make_unique<qvsim::SimRig>();
        rig->Add(Pelix().Product("P"));
        if (!request.empty())
            rig->AddFault({.request = request, .nth = nth, .effect = Refuse(EIO)});
    }
    ToolRun Run(const std::vector<std::string>& arguments, const std::string& input = {}) {
        return folder.ThroughPipe(*rig, arguments, input);
    }
    // How the line of the one channel ended, with N for a percentage.
    static std::string Ending(const ToolRun& run) {
        const std::string head = run.output.substr(0, run.output.find("\n\ntotal 1,  success"));
        const std::string line = head.substr(head.find_last_of("\r\b") + 1);
        const std::string bare = std::regex_replace(
            line, std::regex("^\\[1/1\\] \\[00:00 P\\]  (Upgrade )?(from 1.0 to 1.1 )?"), "");
        return std::regex_replace(bare, std::regex("[0-9]+%"), "N%");
    }

    ManualPage page;
    ToolFolder folder;
    std::unique_ptr<qvsim::SimRig> rig;
};

TEST_F(ToolPageTest, TheColumnsAreThoseOfTheTable) {
    rig = std::make_unique<qvsim::SimRig>();
    rig->Add(Pelix()).Add(Pelix().Firmware(1, 1));
    const std::string output = Run({"-l"}).output;
    std::string names;
    for (const auto& row : page.TableOf("OUTPUT")) {
        names += (names.empty() ? "" : " |") + row[0];
        names.resize(names.size() + (names.size() < 30 ? 30 - names.size() : 0), ' ');
    }
    const std::string header = std::regex_replace(kTableHeader, std::regex(" +\\|"), " |");
    EXPECT_EQ(std::regex_replace(header, std::regex(" *\n"), ""),
              std::regex_replace(names, std::regex(" +\\|"), " |"));
    EXPECT_THAT(output, HasSubstr(kTableHeader));
    const std::string status = page.TableOf("OUTPUT").back()[1];
    for (const char* text : {"Need upgrade", "Not Need upgrade"}) {
        EXPECT_THAT(status, HasSubstr(text));
        EXPECT_THAT(output, HasSubstr(" |" + std::string(text)));
    }
    EXPECT_THAT(page.Chapter("OUTPUT"), Not(HasSubstr("Need safe")));
}

TEST_F(ToolPageTest, TheResultsAreThoseOfTheProgram) {
    std::vector<std::string> results;
    NewCard();
    results.push_back(Ending(Run({"-a", "-y"})));
    rig = std::make_unique<qvsim::SimRig>();
    rig->Add(Pelix().Product("P").Firmware(1, 1));
    results.push_back(Ending(Run({"-a", "-y"})));
    NewCard();
    results.push_back(Ending(Run({"-a"}, "n")));
    const struct {
        const char* request;
        int nth;
    } kFaults[] = {{"GetChannelInfo", 5},
                   {"EraseFirmwareData", 2},
                   {"WriteFirmwareData", 2},
                   {"ReadFirmwareData", 3},
                   {"SetPostReconfig", 1}};
    for (const auto& fault : kFaults) {
        NewCard(fault.request, fault.nth);
        results.push_back(Ending(Run({"-a", "-y"})));
    }
    std::vector<std::string> described;
    for (const auto& row : page.TableOf("OUTPUT", 1))
        described.push_back(std::regex_replace(row[0], std::regex(" N%"), " N%"));
    EXPECT_EQ(described, results);
}

TEST_F(ToolPageTest, TheExitStatusesAreThoseOfTheProgram) {
    NewCard("EraseFirmwareData");
    std::set<std::string> seen;
    const auto status = [&](const std::vector<std::string>& arguments) {
        const int result = Run(arguments).status;
        seen.insert(std::to_string(result));
        return result;
    };
    EXPECT_EQ(0, status({"-a", "-y"}));
    EXPECT_EQ(0, status({"-x"}));
    EXPECT_EQ(0, status({"-d"}));
    EXPECT_EQ(255, status({"-a", "-b", "0"}));
    EXPECT_EQ(255, status({"-d", "0:1:2"}));
    EXPECT_EQ(255, status({"-d", "/dev/none"}));
    const std::vector<std::string> terms = page.BoldTerms("EXIT STATUS");
    EXPECT_EQ(seen, std::set<std::string>(terms.begin(), terms.end()));
}

TEST_F(ToolPageTest, AWrongOptionIsNoFailureAndStopsNoUpgrade) {
    NewCard();
    const ToolRun run = Run({"-a", "-y", "-x", "-l"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("successfully."));
    EXPECT_THAT(page.Chapter("WRONG OPTIONS"), HasSubstr("The exit\nstatus is 0."));
}

TEST_F(ToolPageTest, WordsInThePlaceOfNumbersCountAsZero) {
    rig = std::make_unique<qvsim::SimRig>();
    rig->Add(Pelix().Channels(2)).Add(Pelix());
    const std::string options = page.Chapter("OPTIONS");
    EXPECT_THAT(options, AllOf(HasSubstr("_abc_ is board 0."), HasSubstr("_foo:bar_ is _0:0_."),
                               HasSubstr("-1 is every board.")));
    EXPECT_EQ(Run({"-l", "-b", "0"}).output, Run({"-l", "-b", "abc"}).output);
    EXPECT_EQ(Run({"-l", "-d", "0:0"}).output, Run({"-l", "-d", "foo:bar"}).output);
    EXPECT_THAT(Run({"-b", "-1"}).output, HasSubstr("total 3  need upgrade 3\n"));
}

TEST_F(ToolPageTest, YesDoesNotAnswerThePowerOffQuestion) {
    EXPECT_THAT(page.Chapter("OPTIONS"), HasSubstr("The question about turning off the computer is "
                                                   "asked all the same"));
    NewCard();
    EXPECT_THAT(Run({"-a", "-y"}).output, EndsWith(kPowerOffQuestion + "\n"));
    EXPECT_THAT(folder.Commands(), IsEmpty());
}

// Typed before the first question is there.
TEST_F(ToolPageTest, KeysTypedAheadAnswerQuestionsThatWereNotSeen) {
    EXPECT_THAT(page.Chapter("NOTES"), HasSubstr("the question about turning off the computer "
                                                 "included"));
    NewCard();
    folder.UserNumber(0);
    bool typed = false;
    const ToolRun run =
        folder.OnTerminal(*rig, {"-a"}, [&](const ToolFolder::Screen&) -> std::string {
            if (typed) return {};
            typed = true;
            return "yy";
        });
    EXPECT_THAT(run.output, HasSubstr("successfully."));
    EXPECT_THAT(folder.Commands(), ElementsAre("sync", "poweroff"));
}

TEST_F(ToolPageTest, APackageThatIsExchangedDuringARunIsWrittenInTheModeOfTheOneBefore) {
    EXPECT_THAT(page.Chapter("NOTES"), HasSubstr("The folder must not change during a run."));
    rig = std::make_unique<qvsim::SimRig>();
    rig->Add(Pelix().Product("P").Channels(2).Stored(1, 0, 7));
    Package()
        .Compatibility(7)
        .Section("Factory.Main", 0x200000, 100)
        .Section("Upgrade.Main", 0x300000, 100)
        .Write(folder / "p.qvf");
    const PackageBuilder other = Package().Section("Factory.Main", 0x200000, 100);
    const ToolRun run = folder.OnTerminal(*rig, {"-a"}, {"y", "y", "n"}, [&](int question, pid_t) {
        if (question == 1) other.Write(folder / "p.qvf");
    });
    EXPECT_THAT(run.output,
                HasSubstr("[2/2] [00:01 P]  Safe upgrade from 1.0 to 1.1 successfully."));
    EXPECT_EQ(Bytes(100, 0xFF), rig->Flash(0, 1, 0x200000, 100));
}

}  // namespace
}  // namespace qvtest
