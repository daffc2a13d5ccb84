// qvcap upgrade from its command line to the flash of simulated cards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include "QvcapRig.h"

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr uint32_t kFirmwareArea = 0x2000;
constexpr uint32_t kFlashSize = 0x40000;

PackageBuilder NewPackage() {
    return Package().Firmware(1, 1).Section("Factory.Main", 0x4000, 70000);
}

qvsim::BoardBuilder Board() {
    return qvsim::Pelix()
        .Product("CARD")
        .Firmware(1, 0)
        .Golden(0, 9)
        .FirmwareOffset(kFirmwareArea)
        .FlashSize(kFlashSize);
}

std::vector<std::string> Results(const UpgradeRun& run) {
    std::vector<std::string> results;
    const nlohmann::json report = run.Report();
    for (const nlohmann::json& card : report["cards"]) results.push_back(card.value("result", ""));
    return results;
}

class UpgradeE2eTest : public testing::Test {
  protected:
    bool HoldsMain(int board, const PackageBuilder& package) {
        const Bytes flash = rig.cards.Flash(board, 0, 0, kFlashSize);
        const Bytes header = package.Header();
        return std::equal(header.begin(), header.end(), flash.begin() + kFirmwareArea) &&
               std::equal(package.Data(0).begin(), package.Data(0).end(), flash.begin() + 0x4000);
    }

    QvcapRig rig;
};

TEST_F(UpgradeE2eTest, WritesEveryCardThatNeedsItAndReadsItBack) {
    rig.cards.Add(Board()).Add(Board());
    rig.Write(NewPackage());
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(0, run.status) << run.output << run.errors;
    EXPECT_THAT(Results(run), ElementsAre("done", "done"));
    EXPECT_TRUE(HoldsMain(0, NewPackage()));
    EXPECT_TRUE(HoldsMain(1, NewPackage()));
    EXPECT_THAT(rig.States(), ElementsAre("staged", "staged"));
    EXPECT_THAT(rig.Commands(), IsEmpty()) << "somebody wanted to turn the machine off";
}

TEST_F(UpgradeE2eTest, ASecondRunHasNothingToDoBeforeAndAfterThePowerGoes) {
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    ASSERT_EQ(0, rig.Upgrade().status);
    const size_t changes = rig.Changes();
    EXPECT_EQ(2, rig.Upgrade().status);
    rig.cards.PowerCycle();
    EXPECT_THAT(rig.States(), ElementsAre("current"));
    EXPECT_EQ(2, rig.Upgrade().status);
    EXPECT_EQ(changes, rig.Changes()) << "a card that was left alone was written";
}

TEST_F(UpgradeE2eTest, ADryRunShowsThePlanAndNeitherErasesNorWrites) {
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    const UpgradeRun run = rig.Upgrade({"--json", "--dry-run"});
    EXPECT_EQ(0, run.status);
    ASSERT_EQ(1u, run.Events("plan").size());
    const nlohmann::json plan = run.Events("plan")[0];
    EXPECT_EQ("flash", plan["action"]);
    EXPECT_EQ("upgrade", plan["mode"]);
    EXPECT_EQ(70000 + 157 + 28, plan["erase"]);
    EXPECT_EQ(70000 + 157 + 28, plan["write"]);
    EXPECT_THAT(Results(run), ElementsAre("planned"));
    EXPECT_EQ(0u, rig.Changes());
    EXPECT_FALSE(std::filesystem::exists(rig.Log())) << "nothing was done that has a history";
}

TEST_F(UpgradeE2eTest, TheToolIsAskedForOneCardWithoutQuestionsAndNothingTurnsTheMachineOff) {
    rig.cards.Add(Board().Channels(2));
    rig.Write(NewPackage());
    const UpgradeRun run = rig.Upgrade({"--json", "--device", "/dev/video1"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_THAT(Results(run), ElementsAre("done"));
    EXPECT_THAT(rig.States(), ElementsAre("upgrade available", "staged"));
    const std::string said = FileText(run.Report()["cards"][0]["tool_output"]);
    EXPECT_THAT(said, HasSubstr("total 1,  success 1,  fail 0"));
    EXPECT_THAT(said, HasSubstr("turn off your computer now?")) << "the question was not reached";
    EXPECT_THAT(rig.Commands(), IsEmpty());
}

TEST_F(UpgradeE2eTest, PowerOffHappensAfterFullSuccessAlone) {
    rig.cards.Add(Board()).Add(Board());
    rig.Write(NewPackage());
    rig.cards.AddFault({.request = "EraseFirmwareData",
                        .nth = 1,
                        .count = -1,
                        .board = 1,
                        .effect = qvsim::Refuse(EIO)});
    EXPECT_EQ(1, rig.Upgrade({"--power-off"}).status);
    EXPECT_THAT(rig.Commands(), IsEmpty());
    EXPECT_EQ(2, rig.Upgrade({"--power-off", "--board", "0"}).status);
    EXPECT_THAT(rig.Commands(), IsEmpty());
    EXPECT_EQ(0, rig.Upgrade({"--power-off", "--board", "0", "--force", "--dry-run"}).status);
    EXPECT_THAT(rig.Commands(), IsEmpty());
    EXPECT_EQ(0, rig.Upgrade({"--power-off", "--board", "0", "--force"}).status);
    EXPECT_EQ("poweroff\n", rig.Commands());
}

TEST_F(UpgradeE2eTest, ACardThatFailsOnceIsTriedOnceMoreAtOnce) {
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    rig.cards.AddFault({.request = "WriteFirmwareData", .nth = 2, .effect = qvsim::Refuse(EIO)});
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(2, run.Report()["cards"][0]["attempts"]);
    ASSERT_EQ(2u, run.Events("tool-end").size());
    EXPECT_EQ("write failed", run.Events("tool-end")[0]["result"]);
    EXPECT_EQ("success", run.Events("tool-end")[1]["result"]);
    EXPECT_TRUE(HoldsMain(0, NewPackage()));
}

TEST_F(UpgradeE2eTest, WithoutRetriesItIsTriedOnce) {
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    rig.cards.AddFault({.request = "WriteFirmwareData", .nth = 2, .effect = qvsim::Refuse(EIO)});
    const UpgradeRun run = rig.Upgrade({"--json", "--retries", "0"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(1, run.Report()["cards"][0]["attempts"]);
    EXPECT_THAT(rig.States(), ElementsAre("interrupted"));
    EXPECT_EQ(0, rig.Upgrade().status) << "the next run mends it";
    EXPECT_TRUE(HoldsMain(0, NewPackage()));
}

TEST_F(UpgradeE2eTest, ACardThatFailsForGoodHidesNoOther) {
    rig.cards.Add(Board()).Add(Board()).Add(Board());
    rig.Write(NewPackage());
    rig.cards.AddFault({.request = "EraseFirmwareData",
                        .nth = 1,
                        .count = -1,
                        .board = 1,
                        .effect = qvsim::Refuse(EIO)});
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(Results(run), ElementsAre("done", "failed", "done"));
    EXPECT_THAT(rig.States(), ElementsAre("staged", "upgrade available", "staged"));
}

TEST_F(UpgradeE2eTest, StopOnFailureBeginsNoFurtherCard) {
    rig.cards.Add(Board()).Add(Board()).Add(Board());
    rig.Write(NewPackage());
    rig.cards.AddFault({.request = "EraseFirmwareData",
                        .nth = 1,
                        .count = -1,
                        .board = 1,
                        .effect = qvsim::Refuse(EIO)});
    const UpgradeRun run = rig.Upgrade({"--json", "--stop-on-failure"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(Results(run), ElementsAre("done", "failed", "not begun"));
    EXPECT_THAT(rig.States(), ElementsAre("staged", "upgrade available", "upgrade available"));
}

TEST_F(UpgradeE2eTest, ACardThatWasOnlyNotToldToReconfigureIsDone) {
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    rig.cards.AddFault({.request = "SetPostReconfig", .nth = 1, .effect = qvsim::Refuse(EIO)});
    const UpgradeRun run = rig.Upgrade({"--json"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ("reconfiguration failed", run.Report()["cards"][0]["tool_result"]);
    EXPECT_EQ("done", run.Report()["cards"][0]["result"]) << "all is written and reads back";
}

TEST_F(UpgradeE2eTest, SeveralBoardsAtOnceEndAsOneAfterAnother) {
    for (int i = 0; i < 5; ++i) rig.cards.Add(Board().Channels(2));
    rig.Write(NewPackage());
    const UpgradeRun run = rig.Upgrade({"--json", "--jobs", "4"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(std::vector<std::string>(10, "staged"), rig.States());
    EXPECT_EQ(10, run.Report()["done"]);
}

TEST_F(UpgradeE2eTest, TwoFlashesOfOneBoardAreNeverInWorkAtOnce) {
    for (int i = 0; i < 3; ++i) rig.cards.Add(Board().Channels(2));
    rig.Write(NewPackage());
    const UpgradeRun run = rig.Upgrade({"--json", "--jobs", "6"});
    EXPECT_EQ(0, run.status) << run.output;
    std::map<std::string, int> inWork;  // by board, the first number of a card's name
    int begun = 0;
    for (const nlohmann::json& event : run.Events()) {
        const std::string kind = event["event"];
        if (kind != "card-begin" && kind != "card-end") continue;
        int& cards = inWork[event["card"].get<std::string>().substr(0, 2)];
        cards += kind == "card-begin" ? 1 : -1;
        begun += kind == "card-begin";
        EXPECT_LE(cards, 1) << run.output;
        EXPECT_GE(cards, 0) << run.output;
    }
    EXPECT_EQ(6, begun);
    EXPECT_EQ(3u, inWork.size());
}

// A script's variable may be empty: that must not mean all cards, or no backup.
TEST_F(UpgradeE2eTest, AnEmptyValueIsAMistakeOfTheCommandLine) {
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    for (const char* option : {"--device", "--backup", "--earlier", "--board"}) {
        const UpgradeRun run = rig.Upgrade({option, ""});
        EXPECT_EQ(64, run.status) << option << run.output;
        EXPECT_THAT(run.errors, HasSubstr(option));
    }
    for (const char* option : {"--packages", "--log", "--lock"})
        EXPECT_EQ(64, rig.Run({"upgrade", option, ""}).status) << option;
    EXPECT_EQ(64, rig.Run({"backup", ""}).status);
    EXPECT_EQ(64, rig.Run({"verify", "--device", ""}).status);
    EXPECT_EQ(64, rig.Run({"status", "--packages", ""}).status);
    EXPECT_EQ(64, rig.Run({"history", "--serial", ""}).status);
    EXPECT_EQ(64, rig.Run({"history", "--last", "-1"}).status);
    EXPECT_EQ(0u, rig.Changes());
}

// Which the doctor advises against.
TEST_F(UpgradeE2eTest, BoardsOfOneNumberAreAllWritten) {
    for (int i = 0; i < 2; ++i)
        rig.cards.Add(Board().RawInfo([](_QVCAP_CHANNEL_INFO& info) { info.boardIndex = 0; }));
    rig.Write(NewPackage());
    const UpgradeRun run = rig.Upgrade({"--json", "--jobs", "2"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_THAT(Results(run), ElementsAre("done", "done"));
    const nlohmann::json cards = run.Report()["cards"];
    EXPECT_NE(cards[0]["tool_output"], cards[1]["tool_output"]);
}

TEST_F(UpgradeE2eTest, CardsWithoutSerialNumbersAreSavedAtOnce) {
    for (int i = 0; i < 8; ++i) rig.cards.Add(Board().Serial(""));
    rig.Write(NewPackage());
    const UpgradeRun run = rig.Upgrade({"--json", "--jobs", "8", "--backup", rig / "saved"});
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(8, run.Report()["done"]);
}

TEST_F(UpgradeE2eTest, EachRowOfTheTableOfExitStatusesIsMet) {
    rig.cards.Add(Board());
    EXPECT_EQ(3, rig.Upgrade().status) << "no package";
    rig.Write(Package().ProductCode(0x7777).Firmware(1, 1).Section("Factory.Main", 0x4000, 10));
    EXPECT_EQ(3, rig.Upgrade().status) << "no package that fits";
    EXPECT_EQ(3, rig.Upgrade({"--board", "9"}).status) << "no such card";
    rig.Write(NewPackage(), "b.qvf");
    EXPECT_EQ(64, rig.Upgrade({"--jobs", "0"}).status);
    EXPECT_EQ(64, rig.Upgrade({"--board", "0", "--device", "/dev/video0"}).status);
    EXPECT_EQ(64, rig.Upgrade({"--no-such-option"}).status);
    EXPECT_EQ(0, rig.Upgrade().status);
    EXPECT_EQ(2, rig.Upgrade().status);
    EXPECT_EQ(1, rig.Run({"upgrade", "--lock", rig.Lock(), "--packages", rig / "none"}).status);
}

TEST_F(UpgradeE2eTest, HistoryKeepsWhoWhatAndTheDigest) {
    rig.cards.Add(Board().Serial("SERIAL-1"));
    rig.Write(NewPackage(), "new.qvf");
    ASSERT_EQ(0, rig.Upgrade().status);
    const UpgradeRun run = rig.Run({"history", "--json", "--log", rig.Log()});
    EXPECT_EQ(0, run.status);
    const nlohmann::json history = nlohmann::json::parse(run.output, nullptr, false);
    ASSERT_EQ(2u, history["entries"].size()) << run.output;
    EXPECT_EQ("begun", history["entries"][0]["result"]);
    const nlohmann::json done = history["entries"][1];
    EXPECT_EQ("done", done["result"]);
    EXPECT_EQ("SERIAL-1", done["serial"]);
    EXPECT_EQ("1.0", done["from"]);
    EXPECT_EQ("1.1", done["to"]);
    EXPECT_EQ("new.qvf", done["package"]);
    EXPECT_EQ(64u, done["sha256"].get<std::string>().size());
    EXPECT_THAT(rig.Run({"history", "--log", rig.Log()}).output, HasSubstr("SERIAL-1"));
    EXPECT_THAT(rig.Run({"history", "--log", rig.Log(), "--serial", "other"}).output, IsEmpty());
}

TEST_F(UpgradeE2eTest, AHistoryThatCannotBeReadIsNotAnEmptyOne) {
    PackageBuilder::WriteBytes(rig / "file", {1});
    const UpgradeRun run = rig.Run({"history", "--log", rig / "file"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.errors, HasSubstr("/file: the history cannot be read: Not a directory"));
    EXPECT_EQ(0, rig.Run({"history", "--log", rig / "none"}).status) << "nothing was done yet";
}

TEST_F(UpgradeE2eTest, NothingButTheHistoryAndTheToolsOutputIsLeftInTheLogFolder) {
    rig.cards.Add(Board());
    rig.Write(NewPackage());
    ASSERT_EQ(0, rig.Upgrade().status);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(rig.Log()))
        names.push_back(entry.path().filename().string());
    EXPECT_THAT(names, testing::UnorderedElementsAre(testing::StartsWith("history-"),
                                                     testing::StartsWith("tool-")));
}

TEST_F(UpgradeE2eTest, NoControlCharacterReachesAFileWhateverACardCallsItself) {
    rig.cards.Add(Board().Product("\x1b[31mRED\b\b").Serial("S\x1b]0;x\a"));
    rig.Write(NewPackage());
    const UpgradeRun plain = rig.Upgrade({"--force"});
    EXPECT_EQ(0, plain.status) << plain.output;
    for (const char c : plain.output)
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= ' ') << static_cast<int>(c);
    const UpgradeRun json = rig.Upgrade({"--json"});
    EXPECT_EQ("\x1b[31mRED\b\b", json.Events("plan").at(0)["product"]);
    for (const char c : json.output)
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= ' ') << static_cast<int>(c);
}

}  // namespace
}  // namespace qvtest
