// Upgrades that go wrong: every request of a run fails once, in turn, and each time the dialogue,
// the summary, the flash and what is asked afterwards are exact.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "ToolProcess.h"
#include "ToolTexts.h"
#include "Transcript.h"
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
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr uint32_t kFirmware = 0x100000;
constexpr uint32_t kClear = 0x200000;
constexpr uint32_t kMain = 0x300000;

// Header 213 bytes; a clear section and a written one, two chunks each.
const std::vector<uint32_t> kEraseSteps = {213, 65536, 1, 65536, 4464};
const std::vector<uint32_t> kWriteSteps = {213, 65536, 4464};
constexpr uint32_t kTotal = 213 + 65537 + 70000;

const std::string kStart = "[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1   ";
const std::string kNoQuestion = "\n\ntotal 1,  success 0,  fail 1,  skip 0,  cancel 0\n";

std::string ResultLine(const std::string& ending) {
    return Clear(80) + "\r[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1 " + ending;
}

std::string FailureLine(const char* word, uint32_t percentage) {
    return ResultLine("error (" + std::string(word) + " at " + std::to_string(percentage) + "%).") +
           kNoQuestion;
}

std::string Erased() { return kStart + StageText(kErasing, kTotal, kEraseSteps); }
std::string Written() { return Erased() + StageText(kWriting, kTotal, kWriteSteps); }
std::string Verified() { return Written() + StageText(kVerifying, kTotal, kWriteSteps); }

std::string EraseFails(size_t step) {
    return kStart + StageText(kErasing, kTotal, kEraseSteps, static_cast<int>(step)) +
           FailureLine("erasing", PercentageBefore(kTotal, kEraseSteps, step));
}
std::string WriteFails(size_t step) {
    return Erased() + StageText(kWriting, kTotal, kWriteSteps, static_cast<int>(step)) +
           FailureLine("writting", PercentageBefore(kTotal, kWriteSteps, step));
}
std::string VerifyFails(size_t step) {
    const char* kMessages[] = {"", "read error 0\n", "read error 65536\n"};
    return Written() +
           StageText(kVerifying, kTotal, kWriteSteps, static_cast<int>(step), kMessages[step]) +
           FailureLine("verifying", PercentageBefore(kTotal, kWriteSteps, step));
}

class FailureE2eTest : public testing::Test {
  protected:
    FailureE2eTest() {
        package = Package()
                      .Firmware(1, 1)
                      .Section("Factory.CLR.Log", kClear, 65537)
                      .Section("Factory.Main", kMain, 70000);
        package.Write(folder / "p.qvf");
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
    PackageBuilder package;
    std::unique_ptr<qvsim::SimRig> rig;  // of the latest run
    std::string whole;
};

// Every other request and fault: the sweep.
TEST_F(FailureE2eTest, AnEraseThatIsRefusedEndsTheChannelAtItsPercentage) {
    EXPECT_EQ(EraseFails(3), RunWith("EraseFirmwareData", 4, Refuse(EIO)));
    EXPECT_FALSE(Asked("WriteFirmwareData"));
    EXPECT_FALSE(Asked("SetPostReconfig"));
    EXPECT_EQ("close /dev/video0 = 0", LastOnTheChannel());
}

TEST_F(FailureE2eTest, AHeaderThatCannotBeErasedShowsZeroPercent) {
    EXPECT_EQ(kStart + "(Erasing -------------  0%)" + Clear(28) + Clear(80) +
                  "\r[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1 error (erasing at 0%)." +
                  "\n\ntotal 1,  success 0,  fail 1,  skip 0,  cancel 0\n",
              RunWith("EraseFirmwareData", 1, Refuse(EIO)));
}

TEST_F(FailureE2eTest, AWriteThatIsRefusedEndsTheChannelAtItsPercentage) {
    EXPECT_EQ(WriteFails(2), RunWith("WriteFirmwareData", 3, Refuse(EIO)));
    EXPECT_FALSE(Asked("SetPostReconfig"));
    EXPECT_EQ("close /dev/video0 = 0", LastOnTheChannel());
}

// Reads of a run: 1 the stored header for the list, 2 and 3 the blank check, 4 to 6 the verifying.
constexpr int kSecondBlankCheck = 3;
constexpr int kFirstVerify = 4;

TEST_F(FailureE2eTest, AClearSectionThatIsNotBlankEndsTheErasing) {
    // The blank check follows its section's chunks and does not count as progress.
    EXPECT_EQ(EraseFails(3), RunWith("ReadFirmwareData", kSecondBlankCheck, FlipBit(7)));
    EXPECT_FALSE(Asked("WriteFirmwareData"));
    EXPECT_EQ(EraseFails(3), RunWith("EraseFirmwareData", 3, NotBlank()));
}

TEST_F(FailureE2eTest, AReadBackThatFailsOrDiffersEndsTheVerifying) {
    EXPECT_EQ(VerifyFails(1), RunWith("ReadFirmwareData", kFirstVerify + 1, Refuse(EIO)));
    EXPECT_EQ(VerifyFails(2), RunWith("ReadFirmwareData", kFirstVerify + 2, FlipBit(4464 * 8 - 1)));
    EXPECT_FALSE(Asked("SetPostReconfig"));
    EXPECT_EQ("close /dev/video0 = 0", LastOnTheChannel());
}

TEST_F(FailureE2eTest, CellsThatDoNotProgramShowInTheVerifying) {
    EXPECT_EQ(VerifyFails(2), RunWith("WriteFirmwareData", 3, StuckBits(0x10)));
}

TEST_F(FailureE2eTest, ARefusedReconfigurationPrintsItsOwnTextAndCountsNowhere) {
    EXPECT_EQ(Verified() + "Set post reconfig failed" +
                  "\n\ntotal 1,  success 0,  fail 0,  skip 0,  cancel 0\n",
              RunWith("SetPostReconfig", 1, Refuse(EIO)));
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
    EXPECT_EQ(Verified() + Clear(80) +
                  "\r[1/1] [00:00 P4]  Upgrade from 1.0 to  successfully.\n\ntotal 1,  success 1,  "
                  "fail 0,  skip 0,  cancel 0\n" +
                  kPowerOffQuestion + "\n",
              RunWith("GetChannelInfo", 4, Refuse(EIO)));
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

TEST_F(FailureE2eTest, TheFirstEnumerationMayFail) {
    for (const char* request : {"GetChannelInfo", "GetFamilyInfo"})
        EXPECT_EQ(Verified() + ResultLine("successfully.") +
                      "\n\ntotal 1,  success 1,  fail 0,  skip 0,  cancel 0\n" + kPowerOffQuestion +
                      "\n",
                  RunWith(request, 1, Refuse(EIO)));
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

TEST_F(FailureE2eTest, NothingIsRolledBackAfterAFailure) {
    RunWith("WriteFirmwareData", 3, Refuse(EIO));
    const Bytes header = package.Header();
    EXPECT_TRUE(header == rig->Flash(0, 0, kFirmware, static_cast<uint32_t>(header.size())));
    Bytes main = package.Data(1);
    std::fill(main.begin() + 65536, main.end(), uint8_t{0xFF});
    EXPECT_TRUE(main == rig->Flash(0, 0, kMain, static_cast<uint32_t>(main.size())));
}

TEST_F(FailureE2eTest, TheFlashIsOnlyTouchedInsideThePackagesRanges) {
    RunWith("SetPostReconfig", 99, Refuse(EIO));
    EXPECT_TRUE(Bytes(kFirmware, 0xFF) == rig->Flash(0, 0, 0, kFirmware));
    EXPECT_TRUE(Bytes(kMain - kClear, 0xFF) == rig->Flash(0, 0, kClear, kMain - kClear));
    EXPECT_TRUE(Bytes(4096, 0xFF) == rig->Flash(0, 0, kMain + 70000, 4096));
}

}  // namespace
}  // namespace qvtest
