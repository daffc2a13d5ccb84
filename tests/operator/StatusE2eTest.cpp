// qvcap status, the program itself: what it prints, what it asks of the cards, how it ends.
#include <gmock/gmock.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "QvcapProcess.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using nlohmann::json;
using qvsim::Lumo;
using qvsim::Pelix;
using qvsim::Refuse;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class StatusE2eTest : public testing::Test {
  protected:
    // Validated by the schema.
    json Status(std::vector<std::string> more = {}, int expected = 0) {
        std::vector<std::string> arguments = {"status", "--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const QvcapRun run = folder.Run(rig, arguments);
        EXPECT_EQ(expected, run.status) << run.errors;
        EXPECT_EQ("", run.errors);
        EXPECT_EQ("", SchemaErrors("status.schema.json", run.output)) << run.output;
        return json::parse(run.output);
    }
    std::vector<std::string> States(const json& status) {
        std::vector<std::string> states;
        for (const json& card : status["cards"]) states.push_back(card["state"]);
        return states;
    }
    int ExitCode() { return folder.Run(rig, {"status", "--exit-code"}).status; }
    void Upgrade() { folder.Tool(rig, {"-a", "-y"}); }

    qvsim::SimRig rig;
    QvcapFolder folder;
};

TEST_F(StatusE2eTest, TheRoadOfAnUpgrade) {
    rig.Add(Pelix().Product("Pelix HDMI").Serial("P1").Firmware(1, 0).Golden(0, 9));
    const PackageBuilder package =
        Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 70000);
    package.Write(folder / "a.qvf");
    EXPECT_EQ(
        "CARD   PRODUCT     SERIAL  PATH         RUNNING  MAIN  SAFE   PACKAGE  STATE\n"
        "00:00  Pelix HDMI  P1      /dev/video0  1.0      1.0   blank  1.1      upgrade "
        "available\n",
        folder.Run(rig, {"status"}).output);
    EXPECT_EQ(6, ExitCode());
    AddFaultNow(rig, {.request = "WriteFirmwareData", .nth = 3, .effect = Refuse(EIO)});
    Upgrade();
    const QvcapRun interrupted = folder.Run(rig, {"status"});
    EXPECT_EQ(0, interrupted.status);
    EXPECT_THAT(
        interrupted.output,
        AllOf(HasSubstr("1.1 partial  blank  1.1      interrupted\n"),
              HasSubstr("00:00: main image: section 1 (Factory.Main) differs from offset 65536 on "
                        "(flash address 0x00210000)\n")));
    EXPECT_EQ(6, ExitCode());
    Upgrade();
    EXPECT_THAT(folder.Run(rig, {"status"}).output,
                AllOf(HasSubstr("1.0      1.1 complete  blank  1.1      staged\n"),
                      HasSubstr("00:00: turn the computer off and on to load it\n")));
    EXPECT_EQ(4, ExitCode());
    rig.PowerCycle();
    EXPECT_THAT(folder.Run(rig, {"status"}).output,
                HasSubstr("1.1      1.1 complete  blank  1.1      current\n"));
    EXPECT_EQ(0, ExitCode());
    EXPECT_EQ("", folder.Commands());
}

TEST_F(StatusE2eTest, EveryCardIsARowWhateverTheOthersDo) {
    rig.Add(Pelix().Channels(2)).Add(Lumo().Channels(4).ProductCode(7)).Add(Pelix()).Add(Pelix());
    rig.AddFault({.request = "GetChannelInfo",
                  .count = -1,
                  .board = 0,
                  .channel = 0,
                  .effect = Refuse(EIO)});
    rig.AddFault({.request = "ReadFirmwareData", .count = -1, .board = 2, .effect = Refuse(EPERM)});
    rig.AddFault(
        {.request = "open", .nth = 2, .count = -1, .board = 3, .effect = qvsim::NodeGone()});
    Package().Firmware(1, 1).Write(folder / "a.qvf");
    const json status = Status({}, 1);
    std::map<std::string, std::string> states;
    for (const json& card : status["cards"])
        states[card["path"]] = std::string(card["state"]) + ": " + std::string(card["reason"]);
    EXPECT_EQ(5u, states.size());
    EXPECT_EQ("unreadable: the identity cannot be asked: Input/output error",
              states["/dev/video0"]);
    EXPECT_EQ("upgrade available: ", states["/dev/video1"]);
    EXPECT_EQ("no package: no package is for this card", states["/dev/video2"]);
    EXPECT_THAT(states["/dev/video6"],
                AllOf(StartsWith("unreadable: reading"), HasSubstr("Operation not permitted")));
    EXPECT_EQ("unreadable: cannot be opened: No such device", states["/dev/video7"]);
    EXPECT_EQ(3, status["summary"]["unreadable"]);
    EXPECT_EQ(4u, status["cards"][1]["paths"].size()) << "a Lumo board is one flash";
}

TEST_F(StatusE2eTest, OfTwoPackagesThatFitNoneIsTaken) {
    rig.Add(Pelix());
    Package().Firmware(1, 1).Write(folder / "a.qvf");
    Package().Firmware(1, 2).Write(folder / "b.qvf");
    const json status = Status({}, 1);
    EXPECT_EQ("unknown", status["cards"][0]["state"]);
    EXPECT_EQ("2 packages fit: a.qvf, b.qvf; leave only one of them", status["cards"][0]["reason"]);
    EXPECT_EQ(nullptr, status["cards"][0]["package"]);
    EXPECT_EQ(1, ExitCode());
}

TEST_F(StatusE2eTest, PackagesThatCannotBeReadAreNamed) {
    rig.Add(Pelix());
    PackageBuilder::WriteBytes(folder / "bad\x1b[2J.qvf", {1, 2, 3});
    const QvcapRun run = folder.Run(rig, {"status"});
    EXPECT_THAT(run.output,
                HasSubstr("package bad\\x1b[2J.qvf cannot be used: ends after 3 bytes"));
    const json status = Status();
    EXPECT_EQ("no package", status["cards"][0]["state"]);
    EXPECT_EQ("bad\x1b[2J.qvf", status["packages"]["unreadable"][0]["name"]);
    EXPECT_EQ(3, ExitCode());
}

TEST_F(StatusE2eTest, WithoutAnyPackageNothingIsJudged) {
    rig.Add(Pelix());
    const json status = Status({}, 1);
    EXPECT_EQ("unknown", status["cards"][0]["state"]);
    EXPECT_EQ("1.0", status["cards"][0]["main"]["version"]);
}

TEST_F(StatusE2eTest, PackagesMayBeElsewhere) {
    rig.Add(Pelix());
    ASSERT_EQ(0, std::system(("mkdir '" + folder.Dir() + "/other'").c_str()));
    Package().Firmware(1, 1).Write(folder / "other/a.qvf");
    const json status = Status({"--packages", "other"});
    EXPECT_EQ("upgrade available", status["cards"][0]["state"]);
    EXPECT_EQ("other", status["packages"]["folder"]);
    const QvcapRun none = folder.Run(rig, {"status", "--packages", "no\x1bne"});
    EXPECT_EQ(1, none.status);
    EXPECT_EQ(
        "qvcap: no\\x1bne: cannot be opened as a folder of packages: No such file or directory\n",
        none.errors);
}

TEST_F(StatusE2eTest, WithoutACardItSaysSo) {
    const json status = Status({}, 3);
    EXPECT_EQ(0u, status["cards"].size());
    EXPECT_THAT(folder.Run(rig, {"status"}).output, StartsWith("no card was found"));
    EXPECT_EQ(3, ExitCode());
}

TEST_F(StatusE2eTest, QuickReadsHeadersAloneAndSaysSo) {
    rig.Add(Pelix());
    const PackageBuilder package =
        Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 200000);
    package.Write(folder / "a.qvf");
    Upgrade();
    rig.ClearJournal();
    const json status = Status({"--quick"});
    EXPECT_EQ("staged", status["cards"][0]["state"]);
    EXPECT_EQ("header only", status["cards"][0]["main"]["content"]);
    EXPECT_EQ(true, status["headers_only"]);
    int reads = 0;
    for (const std::string& line : rig.Journal())
        if (line.find("ReadFirmwareData") != line.npos) {
            EXPECT_THAT(line, HasSubstr("size=" + std::to_string(package.Length()) + " "));
            ++reads;
        }
    EXPECT_EQ(2, reads) << "the headers of the two images";
    EXPECT_THAT(folder.Run(rig, {"status", "--quick"}).output,
                HasSubstr("judged by headers only: sections were not read\n"));
}

TEST_F(StatusE2eTest, NamesFromDevicesCannotSteerATerminalNorBreakJson) {
    rig.Add(Pelix().RawInfo([](_QVCAP_CHANNEL_INFO& info) {
        std::fill_n(info.productName, sizeof info.productName, '\0');
        std::strcpy(info.productName, "A\x1b[31m\n\"\\\xff");
        std::fill_n(info.boardSerialNumber, sizeof info.boardSerialNumber, '\x9b');
    }));
    const QvcapRun run = folder.Run(rig, {"status"});
    EXPECT_THAT(run.output, HasSubstr("A\\x1b[31m\\x0a\"\\\\xff"));
    for (const char c : run.output) EXPECT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7F));
    const json status = Status({}, 1);
    EXPECT_EQ("A\x1b[31m\n\"\\\xEF\xBF\xBD", status["cards"][0]["product"]);
}

TEST_F(StatusE2eTest, OnATerminalABarRunsAndIsGoneAtTheEnd) {
    rig.Add(Pelix()).Add(Pelix());
    Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 200000).Write(folder / "a.qvf");
    Upgrade();
    const QvcapRun run = folder.OnTerminal(rig, {"status"}, 70);
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, AllOf(HasSubstr("\r\033[K[1/2] 00:00 Pelix SIM  [..."),
                                  HasSubstr("[2/2] 01:00 Pelix SIM  [####################] 100%"),
                                  HasSubstr("100%\r\033[KCARD ")));
    EXPECT_EQ(run.output.npos, run.output.find('\b'));
    const QvcapRun file = folder.Run(rig, {"status"});
    EXPECT_EQ("", file.errors);
    EXPECT_THAT(file.output, AllOf(Not(HasSubstr("\r")), Not(HasSubstr("\033"))));
}

TEST_F(StatusE2eTest, ItOnlyAsksAndReads) {
    rig.Add(Pelix().Channels(2)).Add(Lumo().Channels(4).ProductCode(7)).ForeignNode(12);
    Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 70000).Write(folder / "a.qvf");
    Package()
        .ProductCode(7)
        .Firmware(1, 1)
        .Section("Factory.Main", 0x200000, 70000)
        .Write(folder / "b.qvf");
    Upgrade();
    rig.ClearJournal();
    Status();
    size_t requests = 0;
    for (const qvsim::JournalLine& line : rig.JournalLines()) {
        if (line.request.empty()) continue;
        ++requests;
        EXPECT_THAT(line.request, testing::AnyOf("GetChannelInfo", "GetFamilyInfo",
                                                 "GetFirmwareStorageInfo", "ReadFirmwareData"));
    }
    EXPECT_GT(requests, 20u);
}

TEST_F(StatusE2eTest, AWrongCommandLineEndsWith64) {
    rig.Add(Pelix());
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {"bogus"}, {"status", "--bogus"}, {"status", "more"}}) {
        const QvcapRun run = folder.Run(rig, arguments);
        EXPECT_EQ(64, run.status);
        EXPECT_THAT(run.errors, StartsWith("qvcap: "));
    }
    EXPECT_EQ(0, folder.Run(rig, {"--help"}).status);
    EXPECT_THAT(folder.Run(rig, {"--version"}).output, StartsWith("qvcap 3."));
}

}  // namespace
}  // namespace qvtest
