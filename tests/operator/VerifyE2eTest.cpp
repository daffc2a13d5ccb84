// qvcap verify, the program itself: every difference, and nothing changed.
#include <gmock/gmock.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "Digest.h"
#include "QvcapProcess.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using nlohmann::json;
using qvsim::Pelix;
using testing::AllOf;
using testing::HasSubstr;

PackageBuilder ThePackage() {
    return Package()
        .Firmware(1, 1)
        .Section("Factory.Main", 0x200000, 200000)
        .Section("Factory.CLR.1", 0x300000, 4096)
        .Section("Factory.Data", 0x310000, 5000);
}

class VerifyE2eTest : public testing::Test {
  protected:
    VerifyE2eTest() { ThePackage().Write(folder / "a.qvf"); }
    QvcapRun Verify(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"verify"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return folder.Run(rig, arguments);
    }
    json Json(int expected, std::vector<std::string> more = {}) {
        more.push_back("--json");
        const QvcapRun run = Verify(more);
        EXPECT_EQ(expected, run.status) << run.errors;
        EXPECT_EQ("", SchemaErrors("verify.schema.json", run.output)) << run.output;
        return json::parse(run.output);
    }
    void Upgrade() { folder.Tool(rig, {"-a", "-y"}); }
    // Changes bits of the flash that can be changed: from one to zero.
    void Damage(uint32_t address) {
        std::shared_ptr<qvsim::Model> model;
        ASSERT_EQ("", qvsim::Model::Load(rig.Dir(), model));
        const uint8_t zero = 0;
        ASSERT_TRUE(model->Flash(0, 0)->Program(address, &zero, 1));
    }

    qvsim::SimRig rig;
    QvcapFolder folder;
};

TEST_F(VerifyE2eTest, CompleteFirmwareIsTheSame) {
    rig.Add(Pelix());
    Upgrade();
    const QvcapRun run = Verify();
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(
        "00:00 Pelix SIM: same\n"
        "  turn the computer off and on to load it\n"
        "  package a.qvf 1.1\n"
        "  sha256 " +
            qvf::Sha256(ThePackage().File()) +
            "\n"
            "  main image: 1.1 complete\n"
            "  safe image: blank\n",
        run.output);
    EXPECT_EQ(qvf::Sha256(ThePackage().File()), Json(0)["cards"][0]["package"]["sha256"]);
}

TEST_F(VerifyE2eTest, EveryDifferenceIsCountedAndPlaced) {
    rig.Add(Pelix());
    Upgrade();
    for (const uint32_t address : {0x200000u + 70000, 0x200000u + 199999, 0x300000u + 7})
        Damage(address);
    const QvcapRun run = Verify();
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(
        run.output,
        AllOf(HasSubstr("00:00 Pelix SIM: different\n"),
              HasSubstr("    section 1 (Factory.Main) differs from offset 70000 on (flash "
                        "address 0x00211170): 2 of 200000 bytes\n"),
              HasSubstr("    section 2 (Factory.CLR.1) is not blank from offset 7 on (flash "
                        "address 0x00300007): 1 of 4096 bytes\n")));
    const json differences = Json(1)["cards"][0]["main"]["differences"];
    ASSERT_EQ(2u, differences.size());
    EXPECT_EQ(70000, differences[0]["first_offset"]);
    EXPECT_EQ(2, differences[0]["bytes"]);
    EXPECT_EQ(true, differences[1]["clear"]);
}

TEST_F(VerifyE2eTest, OtherFirmwareIsDifferent) {
    rig.Add(Pelix());
    const json card = Json(1)["cards"][0];
    EXPECT_EQ("different", card["result"]);
    EXPECT_EQ("other", card["main"]["content"]);
}

TEST_F(VerifyE2eTest, CardsAreChosenAndOthersLeftAlone) {
    rig.Add(Pelix()).Add(Pelix().ProductCode(9));
    EXPECT_EQ(1u, Json(1, {"--board", "0"})["cards"].size());
    EXPECT_EQ("no package", Json(3, {"--device", "/dev/video1"})["cards"][0]["result"]);
    EXPECT_EQ(2u, Json(1, {"--all"})["cards"].size());
    const QvcapRun none = Verify({"--board", "7"});
    EXPECT_EQ(3, none.status);
    EXPECT_EQ("qvcap: there is no card of board 7\n", none.errors);
    EXPECT_EQ(64, Verify({"--board", "0", "--device", "/dev/video0"}).status);
    EXPECT_EQ(64, Verify({"--board", "-1"}).status);
}

TEST_F(VerifyE2eTest, ACardThatCannotBeReadFails) {
    rig.Add(Pelix()).Add(Pelix());
    rig.AddFault({.request = "ReadFirmwareData",
                  .nth = 3,
                  .count = -1,
                  .board = 0,
                  .effect = qvsim::Refuse(EIO)});
    Json(1);
    const json cards = Json(1)["cards"];
    EXPECT_EQ("cannot be told", cards[0]["result"]);
    EXPECT_THAT(std::string(cards[0]["reason"]), HasSubstr("Input/output error"));
    EXPECT_EQ("different", cards[1]["result"]);
}

TEST_F(VerifyE2eTest, ItOnlyAsksAndReads) {
    rig.Add(Pelix());
    Upgrade();
    rig.ClearJournal();
    Json(0);
    size_t read = 0;
    for (const qvsim::JournalLine& line : rig.JournalLines()) {
        if (line.request.empty()) continue;
        EXPECT_THAT(line.request, testing::AnyOf("GetChannelInfo", "GetFamilyInfo",
                                                 "GetFirmwareStorageInfo", "ReadFirmwareData"));
        read += line.request == "ReadFirmwareData" ? 1 : 0;
    }
    EXPECT_EQ(2u + 4 + 1 + 1, read) << "two headers and every chunk once";
}

}  // namespace
}  // namespace qvtest
