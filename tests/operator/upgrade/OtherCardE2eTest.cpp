// Cards that are not there any more when their turn comes: other cards are on their nodes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "../QvcapProcess.h"
#include "QvcapRig.h"

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint32_t kSection = 0x4000;
constexpr uint32_t kFlashSize = 0x40000;

// Three cards of one kind, for which one package fits.
class OtherCardE2eTest : public testing::Test {
  protected:
    OtherCardE2eTest() {
        for (const char* serial : {"A", "B", "C"})
            rig.cards.Add(qvsim::Pelix()
                              .Product("CARD")
                              .Serial(serial)
                              .Firmware(1, 0)
                              .Golden(0, 9)
                              .FirmwareOffset(0x2000)
                              .FlashSize(kFlashSize));
        rig.Write(package);
    }
    // Starts an upgrade and waits until the tool is late at a request of the first card.
    std::unique_ptr<RunningQvcap> UntilTheFirstIsWritten(const std::vector<std::string>& options = {
                                                             "--json"}) {
        rig.cards.AddFault(
            {.request = "WriteFirmwareData", .nth = 2, .board = 0, .effect = qvsim::Slow(600)});
        auto run = rig.StartUpgrade(options);
        WaitUntil([&] { return FaultsHaveSeen(rig.cards, 2) || run->HasEnded(); });
        EXPECT_FALSE(run->HasEnded()) << run->Output();
        return run;
    }
    bool Holds(int board) {
        const Bytes& data = package.Data(0);
        return rig.cards.Flash(board, 0, kSection, static_cast<uint32_t>(data.size())) == data;
    }

    PackageBuilder package = Package().Firmware(1, 1).Section("Factory.Main", kSection, 70000);
    QvcapRig rig;
};

TEST_F(OtherCardE2eTest, CardsThatChangePlacesAfterThePlanAreNotWritten) {
    const auto running = UntilTheFirstIsWritten({"--json", "--backup", rig / "saved"});
    rig.SwapNodes(1, 2);
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(1, run.status) << run.output;
    const nlohmann::json cards = run.Report()["cards"];
    EXPECT_EQ("done", cards[0]["result"]);
    for (const int board : {1, 2}) {
        EXPECT_EQ("failed", cards[board]["result"]);
        EXPECT_EQ(0, cards[board]["attempts"]);
        const std::string there = board == 1 ? "02:00 CARD, serial C" : "01:00 CARD, serial B";
        EXPECT_EQ("/dev/video" + std::to_string(board) + " leads to another card now: " + there +
                      "; nothing was saved or written",
                  cards[board]["reason"]);
        EXPECT_FALSE(Holds(board));
    }
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(rig / "saved"), {}))
        << "an image was saved under another card's name";
    EXPECT_EQ(0, rig.Upgrade().status) << "the next run finds them where they are";
    EXPECT_THAT(rig.States(), ElementsAre("staged", "staged", "staged"));
}

TEST_F(OtherCardE2eTest, ACardThatAnotherReplacesWhileItIsWrittenIsNotJudgedByThatOne) {
    const auto running = UntilTheFirstIsWritten();
    rig.SwapNodes(0, 1);
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(1, run.status) << run.output;
    const nlohmann::json cards = run.Report()["cards"];
    EXPECT_EQ("failed", cards[0]["result"]);
    EXPECT_EQ("unknown", cards[0]["state"]);
    EXPECT_EQ(1, cards[0]["attempts"]) << "the other card was written in a second attempt";
    EXPECT_THAT(cards[0]["reason"].dump(), HasSubstr("another card now: 01:00 CARD, serial B"));
    EXPECT_THAT(cards[0]["reason"].dump(), HasSubstr("may have written to it"));
    EXPECT_EQ("failed", cards[1]["result"]);
    EXPECT_EQ("done", cards[2]["result"]);
    EXPECT_FALSE(Holds(1));
}

TEST_F(OtherCardE2eTest, WhoACardIsIsAskedTwice) {
    rig.cards.AddFault({.request = "WriteFirmwareData", .nth = 1, .effect = qvsim::Slow(600)});
    const auto running = rig.StartUpgrade({"--json"});
    WaitUntil([&] { return FaultsHaveSeen(rig.cards, 1) || running->HasEnded(); });
    AddFaultNow(rig.cards, {.request = "GetChannelInfo", .board = 0, .effect = qvsim::Refuse(EIO)});
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(1, run.Report()["cards"][0]["attempts"]);
}

}  // namespace
}  // namespace qvtest
