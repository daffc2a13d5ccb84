// Upgrades that go wrong: what the tool prints at the end, word by word, and that it then leaves
// the channel alone. Every other request and fault, and what is left in the flash: tests/sweep.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "ToolProcess.h"
#include "ToolTexts.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using qvsim::FaultEffect;
using qvsim::FlipBit;
using qvsim::NotBlank;
using qvsim::Pelix;
using qvsim::Refuse;
using qvsim::ShortRead;
using qvsim::StuckBits;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kNoQuestion = "\n\ntotal 1,  success 0,  fail 1,  skip 0,  cancel 0\n";

std::string ResultLine(const std::string& ending) {
    return Clear(80) + "\r[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1 " + ending;
}

class FailureE2eTest : public testing::Test {
  protected:
    FailureE2eTest() {
        Package()
            .Firmware(1, 1)
            .Section("Factory.CLR.Log", 0x200000, 65537)
            .Section("Factory.Main", 0x300000, 70000)
            .Write(folder / "p.qvf");
    }

    // A run on a fresh card with one fault; everything from the first channel's line on.
    std::string RunWith(const std::string& request, int nth, FaultEffect effect, int count = 1) {
        rig = std::make_unique<qvsim::SimRig>();
        rig->Add(Pelix().Product("P4"));
        rig->AddFault({.request = request, .nth = nth, .count = count, .effect = effect});
        const ToolRun run = folder.ThroughPipe(*rig, {"-a", "-y"});
        EXPECT_EQ(0, run.status);
        EXPECT_EQ("", run.errors);
        EXPECT_THAT(folder.Commands(), IsEmpty());
        whole = run.output;
        const size_t at = run.output.find("\n[1/");
        return at == std::string::npos ? run.output : run.output.substr(at + 1);
    }
    bool Asked(const std::string& request) {
        for (const qvsim::JournalLine& line : rig->JournalLines())
            if (line.request == request) return true;
        return false;
    }
    std::string LastOnTheChannel() {
        std::string last;
        for (const std::string& line : rig->Journal())
            if (line.find("/dev/video0") != line.npos) last = line;
        return last;
    }

    ToolFolder folder;
    std::unique_ptr<qvsim::SimRig> rig;  // of the latest run
    std::string whole;
};

TEST_F(FailureE2eTest, AHeaderThatCannotBeErasedShowsZeroPercent) {
    EXPECT_EQ("[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1   (Erasing -------------  0%)" +
                  Clear(28) + Clear(80) +
                  "\r[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1 error (erasing at 0%)." +
                  "\n\ntotal 1,  success 0,  fail 1,  skip 0,  cancel 0\n",
              RunWith("EraseFirmwareData", 1, Refuse(EIO)));
}

TEST_F(FailureE2eTest, EachStageThatFailsIsNamedWithItsPercentageAndEndsTheChannel) {
    // Reads of a run: 1 the stored header for the list, 2 and 3 the blank check, which does not
    // count as progress, 4 to 6 the verifying. A header of 213 bytes, 65537 and 70000 bytes.
    const std::string erasing = "(Erasing ------------- 48%)" + Clear(28) + Clear(28);
    const std::string writing = "(Writting ------------- 48%)" + Clear(28) + Clear(28);
    const std::string verifying = "read error 65536\n" + Clear(30);
    const struct {
        const char* request;
        int nth;
        FaultEffect effect;
        std::string shown;
        const char* error;
    } kRows[] = {
        {"EraseFirmwareData", 4, Refuse(EIO), erasing, "erasing at 48%"},
        {"EraseFirmwareData", 3, NotBlank(), erasing, "erasing at 48%"},
        {"ReadFirmwareData", 3, FlipBit(7), erasing, "erasing at 48%"},
        {"WriteFirmwareData", 3, Refuse(EIO), writing, "writting at 48%"},
        {"WriteFirmwareData", 3, StuckBits(0x10), verifying, "verifying at 48%"},
        {"ReadFirmwareData", 5, Refuse(EIO), "read error 0\n" + Clear(30), "verifying at 0%"},
        {"ReadFirmwareData", 6, FlipBit(4464 * 8 - 1), verifying, "verifying at 48%"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(std::string(row.request) + " " + std::to_string(row.nth));
        EXPECT_THAT(RunWith(row.request, row.nth, row.effect),
                    EndsWith(row.shown + ResultLine("error (" + std::string(row.error) + ").") +
                             kNoQuestion));
        EXPECT_EQ(row.error[0] != 'e', Asked("WriteFirmwareData"));
        EXPECT_FALSE(Asked("SetPostReconfig"));
        EXPECT_EQ("close /dev/video0 = 0", LastOnTheChannel());
    }
}

TEST_F(FailureE2eTest, ARefusedReconfigurationPrintsItsOwnTextAndCountsNowhere) {
    EXPECT_THAT(
        RunWith("SetPostReconfig", 1, Refuse(EIO)),
        EndsWith("(Verifying ------------- 51%)" + Clear(30) +
                 "Set post reconfig failed\n\ntotal 1,  success 0,  fail 0,  skip 0,  cancel 0\n"));
    EXPECT_EQ("close /dev/video0 = 0", LastOnTheChannel());
}

TEST_F(FailureE2eTest, AChannelThatCannotBeQueriedFailsForAnUnknownReason) {
    // 1 and 2 enumerate, 3 and 4 build the list, 5 and 6 upgrade.
    EXPECT_EQ(kWarning + "total 1  need upgrade 1\n" + kTableHeader +
                  "00:00 P4                       |1.0             |A               |1.1        "
                  "     |Need upgrade   \n\n" +
                  ResultLine("error (unknow reason).") + kNoQuestion,
              RunWith("GetChannelInfo", 5, Refuse(EIO)));
    EXPECT_THAT(RunWith("GetFirmwareStorageInfo", 2, Refuse(EIO)),
                EndsWith(ResultLine("error (unknow reason).") + kNoQuestion));
    EXPECT_FALSE(Asked("EraseFirmwareData"));
}

TEST_F(FailureE2eTest, AChannelThatCannotBeOpenedForTheUpgradeFailsForAnUnknownReason) {
    // Opens of /dev/video0: 1 and 2 enumerate, 3 builds the list, 4 upgrades.
    rig = std::make_unique<qvsim::SimRig>();
    rig->Add(Pelix().Product("P4"));
    rig->AddFault({.request = "open", .nth = 4, .board = 0, .effect = Refuse(EBUSY)});
    const ToolRun run = folder.ThroughPipe(*rig, {"-a", "-y"});
    EXPECT_THAT(run.output, EndsWith(ResultLine("error (unknow reason).") + kNoQuestion));
    EXPECT_EQ("open /dev/video0 = -1 EBUSY", LastOnTheChannel());
}

TEST_F(FailureE2eTest, AFailedQueryWhileMatchingFindsNoPackageAndIsSilent) {
    EXPECT_THAT(
        RunWith("GetChannelInfo", 6, Refuse(EIO)),
        EndsWith("|Need upgrade   \n\n\n\ntotal 1,  success 0,  fail 0,  skip 0,  cancel 0\n"));
}

TEST_F(FailureE2eTest, AFailedQueryWhileListingLeavesTheNewVersionEmpty) {
    // The upgrade itself asks anew and goes its way; its lines show the list's versions.
    EXPECT_THAT(
        RunWith("GetChannelInfo", 4, Refuse(EIO)),
        EndsWith("\r[1/1] [00:00 P4]  Upgrade from 1.0 to  successfully.\n\ntotal 1,  success 1,  "
                 "fail 0,  skip 0,  cancel 0\n" +
                 kPowerOffQuestion + "\n"));
    EXPECT_THAT(whole, HasSubstr("total 1  need upgrade 0\n"));
}

TEST_F(FailureE2eTest, EveryFailureWhileListingEndsWithTotals) {
    const struct {
        const char* request;
        int nth;
        FaultEffect effect;
        const char* output;
    } kRows[] = {
        {"GetChannelInfo", 2, Refuse(EIO), "total 0, need upgrade 0\n"},
        {"GetFamilyInfo", 2, Refuse(EIO), "total 0, need upgrade 0\n"},
        {"GetChannelInfo", 3, Refuse(EIO), "total 0, need upgrade 0\n"},
        {"GetFirmwareStorageInfo", 1, Refuse(EIO), "total 0, need upgrade 1\n"},
        {"ReadFirmwareData", 1, Refuse(EIO), "total 0, need upgrade 1\n"},
        {"ReadFirmwareData", 1, ShortRead(156), "total 0, need upgrade 1\n"},
    };
    for (const auto& row : kRows) {
        EXPECT_EQ(row.output, RunWith(row.request, row.nth, row.effect)) << row.request;
        // What was opened is closed.
        EXPECT_EQ("close /dev/video0 = 0", LastOnTheChannel()) << row.request;
    }
}

TEST_F(FailureE2eTest, OneFailureAmongSuccessesPreventsThePowerOffQuestion) {
    rig = std::make_unique<qvsim::SimRig>();
    rig->Add(Pelix().Channels(3).Product("P4"));
    rig->AddFault(
        {.request = "WriteFirmwareData", .board = 0, .channel = 1, .effect = Refuse(EIO)});
    const ToolRun run = folder.ThroughPipe(*rig, {"-a", "-y"}, "y");
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, EndsWith("\n\ntotal 3,  success 2,  fail 1,  skip 0,  cancel 0\n"));
    EXPECT_THAT(folder.Commands(), IsEmpty());
}

}  // namespace
}  // namespace qvtest
