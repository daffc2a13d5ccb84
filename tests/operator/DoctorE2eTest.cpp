// qvcap doctor, the program itself: what it sees of cards in trouble, and that it only looks.
#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "QvcapProcess.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using nlohmann::json;
using qvsim::Pelix;
using qvsim::Refuse;
using testing::AllOf;
using testing::HasSubstr;

class DoctorE2eTest : public testing::Test {
  protected:
    json Findings(int expected, const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"doctor", "--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const QvcapRun run = folder.Run(rig, arguments);
        EXPECT_EQ(expected, run.status) << run.output << run.errors;
        EXPECT_EQ("", SchemaErrors("doctor.schema.json", run.output)) << run.output;
        return json::parse(run.output)["findings"];
    }
    // "severity message" of the finding about a subject.
    static std::string About(const json& findings, const std::string& subject) {
        for (const json& finding : findings)
            if (finding["subject"] == subject)
                return std::string(finding["severity"]) + " " + std::string(finding["message"]);
        return "nothing";
    }
    static std::string Of(const json& findings, const std::string& check) {
        std::string all;
        for (const json& finding : findings)
            if (finding["check"] == check)
                all +=
                    std::string(finding["severity"]) + " " + std::string(finding["message"]) + "\n";
        return all;
    }

    qvsim::SimRig rig;
    QvcapFolder folder;
};

TEST_F(DoctorE2eTest, AllIsWell) {
    rig.Add(Pelix().Channels(2).Product("P").Serial("S")).ForeignNode(9);
    Package().Section("Factory.Main", 0x200000, 100).Write(folder / "a.qvf");
    const json findings = Findings(0);
    EXPECT_EQ("ok is channel 00:00 P, serial S", About(findings, "/dev/video0"));
    EXPECT_EQ("ok is channel 00:01 P, serial S", About(findings, "/dev/video1"));
    EXPECT_EQ("note belongs to another driver", About(findings, "/dev/video9"));
    EXPECT_EQ("ok can be opened", About(findings, "/dev/qv-event"));
    EXPECT_EQ("ok holds 1 package", About(findings, "."));
    EXPECT_THAT(Of(findings, "versions"),
                HasSubstr("ok libqvcapture " QV_VERSION ", qvcap " QV_VERSION));
    EXPECT_THAT(Of(findings, "kernel"),
                HasSubstr("programs of " + std::to_string(sizeof(void*) * 8) + " bits"));
    EXPECT_THAT(Of(findings, "tool"), HasSubstr("ok is what qvcap upgrade starts"));
}

TEST_F(DoctorE2eTest, EveryTroubleOfANodeHasItsWordsAndAnAdvice) {
    for (int board = 0; board < 5; ++board) rig.Add(Pelix());
    rig.AddFault({.request = "GetFamilyInfo", .count = -1, .board = 0, .effect = Refuse(EINVAL)});
    rig.AddFault({.request = "GetChannelInfo", .count = -1, .board = 1, .effect = Refuse(EIO)});
    rig.AddFault({.request = "open", .count = -1, .board = 2, .effect = Refuse(EACCES)});
    rig.AddFault({.request = "open", .count = -1, .board = 3, .effect = Refuse(EBUSY)});
    const json findings = Findings(1);
    EXPECT_EQ(
        "error answers one request of identity and not the other: the family cannot be asked: "
        "Invalid "
        "argument",
        About(findings, "/dev/video0"));
    EXPECT_EQ(
        "error answers one request of identity and not the other: the identity cannot be asked: "
        "Input/output error",
        About(findings, "/dev/video1"));
    EXPECT_EQ("error cannot be opened: Permission denied", About(findings, "/dev/video2"));
    EXPECT_EQ("error cannot be opened: Device or resource busy", About(findings, "/dev/video3"));
    EXPECT_THAT(About(findings, "/dev/video4"), testing::StartsWith("ok is channel"));
    const QvcapRun text = folder.Run(rig, {"doctor"});
    EXPECT_THAT(text.output,
                AllOf(HasSubstr("error:   nodes: /dev/video2 cannot be opened: Permission "
                                "denied\n         do: run it as root"),
                      HasSubstr("ok:      channels: /dev/video4 is channel 04:00")));
}

TEST_F(DoctorE2eTest, ANodeThatNeverAnswersIsNamedAndTheOthersAreAsked) {
    rig.Add(Pelix()).Add(Pelix());
    rig.AddFault(
        {.request = "GetChannelInfo", .count = -1, .board = 0, .effect = qvsim::Slow(3600000)});
    const json findings = Findings(1, {"--timeout", "3"});
    EXPECT_EQ("error does not answer within 3 seconds", About(findings, "/dev/video0"));
    EXPECT_THAT(About(findings, "/dev/video1"), testing::StartsWith("ok is channel"));
}

TEST_F(DoctorE2eTest, WithoutAnEventNodeUpgradesStillWork) {
    rig.Add(Pelix()).NoEventNode();
    const json findings = Findings(0);
    EXPECT_EQ("warning cannot be opened: No such file or directory",
              About(findings, "/dev/qv-event"));
}

TEST_F(DoctorE2eTest, MoreThan64ChannelsAreTooMany) {
    for (int board = 0; board < 4; ++board) rig.Add(Pelix().Channels(16));
    EXPECT_EQ(std::string::npos, Of(Findings(0), "channels").find("error"));
    qvsim::SimRig more;
    for (int board = 0; board < 4; ++board) more.Add(Pelix().Channels(16));
    more.Add(Pelix());
    const QvcapRun run = folder.Run(more, {"doctor"});
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.output,
                HasSubstr("error:   channels: 65 channels, of which programs see the first 64\n"));
}

TEST_F(DoctorE2eTest, TwoBoardsOfOneNumberAreToldApartByPathOnly) {
    rig.Add(Pelix().Serial("A")).Add(Pelix().Serial("B").RawInfo([](_QVCAP_CHANNEL_INFO& info) {
        info.boardIndex = 0;
    }));
    EXPECT_THAT(Of(Findings(0), "channels"), HasSubstr("warning 2 boards have the number 0\n"));
}

TEST_F(DoctorE2eTest, NoCardIsAnExitStatusOfItsOwn) {
    EXPECT_THAT(Of(Findings(3), "channels"), HasSubstr("error there is no channel\n"));
}

TEST_F(DoctorE2eTest, WhatIsWrongWithPackagesIsTold) {
    rig.Add(Pelix());
    Package().Section("Factory.Main", 0x200000, 100).Write(folder / "a.qvf");
    Package().Section("Factory.Main", 0x200000, 100).Write(folder / "b.qvf");
    PackageBuilder::WriteBytes(folder / "c\x1b.qvf", {1});
    const json findings = Findings(1);
    EXPECT_THAT(Of(findings, "packages"),
                AllOf(HasSubstr("[same-cards]"), HasSubstr("[unreadable]")));
    EXPECT_THAT(Of(Findings(1, {"--packages", "none"}), "packages"), HasSubstr("cannot be opened"));
    EXPECT_EQ(std::string::npos, folder.Run(rig, {"doctor"}).output.find('\x1b'));
}

TEST_F(DoctorE2eTest, PackagesOfTwoVersionsAreAnError) {
    rig.Add(Pelix());
    const auto installed = [&](const std::string& tool, const std::string& library) {
        const std::string program = folder / "../bin/dpkg-query";
        std::ofstream(program) << "#!/bin/sh\necho 'qvcap-upgrade installed " << tool
                               << "'\necho 'libqvcapture3 installed " << library << "'\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    };
    installed("3.3.0-1", "3.3.0-1");
    EXPECT_EQ("ok package 3.3.0-1, library 3.3.0-1", About(Findings(0), "qvcap-upgrade"));
    installed("3.2.0-1", "3.3.0-1");
    const json findings = Findings(1);
    EXPECT_EQ("error package 3.2.0-1, library 3.3.0-1", About(findings, "qvcap-upgrade"));
    EXPECT_THAT(findings.dump(),
                HasSubstr("install qvcap-upgrade and libqvcapture3 of one version"));
}

TEST_F(DoctorE2eTest, ItOnlyAsksForIdentity) {
    rig.Add(Pelix().Channels(2)).Add(qvsim::Lumo().Channels(4));
    rig.Dir();
    Findings(0);
    size_t requests = 0;
    for (const qvsim::JournalLine& line : rig.JournalLines()) {
        EXPECT_THAT(line.request, testing::AnyOf("", "GetChannelInfo", "GetFamilyInfo"));
        requests += line.request.empty() ? 0 : 1;
    }
    EXPECT_EQ(12u, requests) << "two of each channel";
}

}  // namespace
}  // namespace qvtest
