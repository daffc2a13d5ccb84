// Standard streams that are not what they should be: closed, full, hung up. The cards are worked on
// as ever, and no node of theirs is taken for a stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

#include "ToolProcess.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using qvsim::JournalLine;
using qvsim::Pelix;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class StreamsE2eTest : public testing::Test {
  protected:
    StreamsE2eTest() {
        package = Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 70000);
        package.Write(folder / "p.qvf");
        NewCards(true);
    }
    void NewCards(bool eventNode) {
        rig = std::make_unique<qvsim::SimRig>();
        rig->Add(Pelix().Product("P"));
        if (!eventNode) rig->NoEventNode();
    }
    void ExpectUpgraded() {
        const Bytes& main = package.Data(0);
        EXPECT_TRUE(main == rig->Flash(0, 0, 0x200000, static_cast<uint32_t>(main.size())));
        rig->PowerCycle();
        EXPECT_EQ(qvsim::Version(1, 1), rig->RunningVersion(0, 0));
        EXPECT_THAT(folder.Commands(), IsEmpty());
    }
    void ExpectUntouched() {
        EXPECT_THAT(rig->Journal(), Not(Contains(HasSubstr("EraseFirmwareData"))));
        EXPECT_THAT(folder.Commands(), IsEmpty());
    }
    // The descriptors of the nodes that were opened, in order; none known through served nodes.
    std::vector<std::string> Descriptors() {
        std::vector<std::string> all;
        for (const JournalLine& line : rig->JournalLines())
            if (line.action == "open" && line.result == "0" && line.arguments.starts_with("fd="))
                all.push_back(line.arguments.substr(3));
        return all;
    }

    ToolFolder folder;
    PackageBuilder package;
    std::unique_ptr<qvsim::SimRig> rig;
};

std::vector<int> Streams(unsigned subset) {
    std::vector<int> streams;
    for (int fd = 0; fd < 3; ++fd)
        if ((subset >> fd & 1) != 0) streams.push_back(fd);
    return streams;
}

// Opened for an upgrade of one channel: the event node, the channel by each of two enumerations,
// for the list and for the upgrade.
TEST_F(StreamsE2eTest, NoNodeTakesThePlaceOfAClosedStream) {
    for (const bool eventNode : {true, false}) {
        for (unsigned closed = 0; closed < 8; ++closed) {
            SCOPED_TRACE(testing::Message() << closed << (eventNode ? "" : ", no event node"));
            NewCards(eventNode);
            folder.CloseStreams(Streams(closed));
            const ToolRun run = folder.ThroughPipe(*rig, {"-a", "-y"});
            EXPECT_EQ(0, run.status);
            EXPECT_EQ((closed & 2) != 0, run.output.empty());
            EXPECT_EQ("", run.errors);
            ExpectUpgraded();
            std::vector<std::string> fds = Descriptors();
            if (qvsim::ThroughServedNodes()) continue;
            ASSERT_EQ(eventNode ? 5u : 4u, fds.size());
            // The number of input is free until the channels are enumerated.
            if ((closed & 1) != 0) fds.erase(fds.begin(), fds.end() - 2);
            EXPECT_THAT(fds, Not(Contains("0")));
            EXPECT_THAT(fds, Not(Contains("1")));
            EXPECT_THAT(fds, Not(Contains("2")));
        }
    }
}

TEST_F(StreamsE2eTest, ClosedInputLeavesTheEventNodeClosedAndTheRequestsAsTheyAre) {
    folder.ThroughPipe(*rig, {"-a", "-y"});
    std::vector<std::string> expected = rig->KernelJournal();
    ASSERT_EQ("open /dev/qv-event = 0", expected.front());
    const auto closing = std::find(expected.begin(), expected.end(), "close /dev/qv-event = 0");
    ASSERT_NE(expected.end(), closing);
    std::rotate(expected.begin() + 1, closing, closing + 1);
    for (const unsigned closed : {1u, 3u, 5u, 7u}) {
        NewCards(true);
        folder.CloseStreams(Streams(closed));
        folder.ThroughPipe(*rig, {"-a", "-y"});
        EXPECT_EQ(expected, rig->KernelJournal()) << closed;
    }
}

TEST_F(StreamsE2eTest, ClosedInputConsentsToNothing) {
    for (const bool eventNode : {true, false}) {
        NewCards(eventNode);
        folder.CloseStreams({0});
        const ToolRun run = folder.ThroughPipe(*rig, {"-a"});
        EXPECT_EQ(0, run.status);
        EXPECT_THAT(run.output, HasSubstr("total 1,  success 0,  fail 0,  skip 0,  cancel 1\n"));
        ExpectUntouched();
    }
}

TEST_F(StreamsE2eTest, OutputThatTakesNothingStopsNoUpgrade) {
    const ToolRun run = folder.IntoFile(*rig, {"-a", "-y"}, "/dev/full");
    EXPECT_EQ(0, run.signal);
    EXPECT_EQ(0, run.status);
    ExpectUpgraded();
}

TEST_F(StreamsE2eTest, ATerminalThatHangsUpAtTheQuestionEndsTheTool) {
    const ToolRun run = folder.UntilPrintedOnTerminal(*rig, {"-a"}, "(n)-NO:");
    EXPECT_EQ(SIGHUP, run.signal);
    ExpectUntouched();
}

TEST_F(StreamsE2eTest, ATerminalThatHangsUpConsentsToNothing) {
    folder.IgnoreHangUps();
    const ToolRun run = folder.UntilPrintedOnTerminal(*rig, {"-a"}, "(n)-NO:");
    EXPECT_EQ(0, run.signal);
    EXPECT_EQ(0, run.status);
    ExpectUntouched();
}

TEST_F(StreamsE2eTest, ATerminalThatHangsUpStopsNoUpgradeThatIgnoresIt) {
    folder.IgnoreHangUps();
    const ToolRun run = folder.UntilPrintedOnTerminal(*rig, {"-a", "-y"}, "(Erasing");
    EXPECT_EQ(0, run.signal);
    EXPECT_EQ(0, run.status);
    ExpectUpgraded();
}

}  // namespace
}  // namespace qvtest
