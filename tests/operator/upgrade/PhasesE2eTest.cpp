// Signals while cards are read: for the plan, when nothing was written yet, and after a flash. And
// folders on a file system that is read-only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "QvcapRig.h"

namespace qvtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Two cards, of which the first is served late at one of its reads, counted over all processes.
class PhasesE2eTest : public testing::Test {
  protected:
    static std::unique_ptr<QvcapRig> Cards() {
        auto rig = std::make_unique<QvcapRig>();
        for (int i = 0; i < 2; ++i)
            rig->cards.Add(
                qvsim::Pelix().Firmware(1, 0).Golden(0, 9).FirmwareOffset(0x2000).FlashSize(
                    0x40000));
        rig->Write(Package().Firmware(1, 1).Section("Factory.Main", 0x4000, 70000));
        return rig;
    }
    static std::unique_ptr<QvcapRig> Cards(uint32_t lateRead) {
        auto rig = Cards();
        rig->cards.AddFault({.request = "ReadFirmwareData",
                             .nth = static_cast<int>(lateRead),
                             .board = 0,
                             .effect = qvsim::Slow(400)});
        return rig;
    }
    // The second read of the first card after its flash: counted in a run of its own.
    static uint32_t ReadAfterTheFlash() {
        const auto rig = Cards();
        EXPECT_EQ(0, rig->Upgrade({"--board", "0"}).status);
        uint32_t reads = 0;
        for (const std::string& line : rig->cards.Journal()) {
            reads += line.find("/dev/video0 ReadFirmwareData") != line.npos;
            if (line.find("SetPostReconfig") != line.npos) return reads + 2;
        }
        ADD_FAILURE() << "no card was reconfigured";
        return 1;
    }
    // Until that read is being served.
    static std::unique_ptr<RunningQvcap> UntilLate(QvcapRig& rig, uint32_t lateRead) {
        auto run = rig.StartUpgrade({"--json"});
        WaitUntil([&] { return FaultsHaveSeen(rig.cards, lateRead) || run->HasEnded(); });
        EXPECT_FALSE(run->HasEnded()) << run->Output();
        return run;
    }
};

TEST_F(PhasesE2eTest, WhileItPlansAnySignalEndsItAndNothingIsWrittenOrLocked) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGKILL}) {
        const auto rig = Cards(2);
        const auto running = UntilLate(*rig, 2);
        kill(running->Number(), signal);
        EXPECT_EQ(signal, running->Wait().signal);
        EXPECT_EQ(0u, rig->Changes());
        EXPECT_FALSE(std::filesystem::exists(rig->Log())) << "nothing was done that has a history";
        const UpgradeRun next = rig->Upgrade();
        EXPECT_EQ(0, next.status) << next.output << next.errors;
        EXPECT_THAT(rig->States(), ElementsAre("staged", "staged"));
    }
}

TEST_F(PhasesE2eTest, WhileItReadsBackTheFirstToEndTheRunLetsTheCardBeJudged) {
    const uint32_t late = ReadAfterTheFlash();
    for (const int signal : {SIGINT, SIGTERM}) {
        const auto rig = Cards(late);
        const auto running = UntilLate(*rig, late);
        EXPECT_THAT(running->Output(), HasSubstr("\"reading back\""));
        kill(running->Number(), signal);
        ASSERT_TRUE(running->WaitFor("\"stopping\""));
        kill(running->Number(), signal);
        const UpgradeRun run = running->Wait();
        EXPECT_EQ(1, run.status) << run.output;
        EXPECT_EQ(1, run.Report()["done"]);
        EXPECT_EQ(1, run.Report()["not_begun"]);
        EXPECT_THAT(rig->States(), ElementsAre("staged", "upgrade available"));
    }
}

TEST_F(PhasesE2eTest, WhileItReadsBackALostConnectionOrReaderEndsNothing) {
    const uint32_t late = ReadAfterTheFlash();
    const auto rig = Cards(late);
    const auto running = UntilLate(*rig, late);
    kill(running->Number(), SIGHUP);
    kill(running->Number(), SIGPIPE);
    const UpgradeRun run = running->Wait();
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(2, run.Report()["done"]);
}

TEST_F(PhasesE2eTest, KilledWhileItReadsBackTheNextRunFindsTheCardStagedAndDoesTheOther) {
    const uint32_t late = ReadAfterTheFlash();
    const auto rig = Cards(late);
    const auto running = UntilLate(*rig, late);
    kill(running->Number(), SIGKILL);
    EXPECT_EQ(SIGKILL, running->Wait().signal);
    EXPECT_THAT(rig->States(), ElementsAre("staged", "upgrade available"));
    const UpgradeRun next = rig->Upgrade({"--json"});
    EXPECT_EQ(0, next.status) << next.output;
    EXPECT_EQ("left", next.Report()["cards"][0]["result"]);
    EXPECT_EQ("done", next.Report()["cards"][1]["result"]);
}

class ReadOnlyE2eTest : public PhasesE2eTest {
  protected:
    // The folder cannot be written to by any program that the rig starts from here on.
    static std::string ReadOnlyFolder(QvcapRig& rig) {
        const std::string folder = rig / "read-only";
        std::filesystem::create_directory(folder);
        rig.MountReadOnly(folder);
        return folder;
    }
};

TEST_F(ReadOnlyE2eTest, ALogABackupOrALockThatCannotBeWrittenIsNamedAndNothingIsFlashed) {
    // CI runs as root, in every configuration. Without root nothing can be mounted, and root's own
    // rights write to any folder that is only marked read-only.
    if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    const auto rig = Cards();
    const std::string folder = ReadOnlyFolder(*rig);
    // The history and the private copy of the package are in the folder of the log.
    for (const std::string option : {"--log", "--backup", "--lock"}) {
        const auto place = [&](const std::string& name, const std::string& usual) {
            return name == option ? folder + "/here" : usual;
        };
        const UpgradeRun run =
            rig->Run({"upgrade", "--packages", rig->Packages(), "--log", place("--log", rig->Log()),
                      "--lock", place("--lock", rig->Lock()), "--backup",
                      place("--backup", *rig / "backup")});
        EXPECT_EQ(1, run.status) << option << run.output << run.errors;
        EXPECT_THAT(run.output + run.errors, HasSubstr("Read-only file system")) << option;
        EXPECT_THAT(run.output + run.errors, HasSubstr(folder)) << option;
        EXPECT_EQ(0u, rig->Changes()) << option;
    }
    EXPECT_EQ(0, rig->Upgrade().status) << "elsewhere there is room";
}

TEST_F(ReadOnlyE2eTest, AFullDiskIsNamedAndNothingIsFlashed) {
    // CI runs as root, in every configuration.
    if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    const auto rig = Cards();
    ASSERT_EQ(0, rig->Upgrade().status);
    rig->cards.PowerCycle();
    rig->Write(Package().Firmware(1, 2).Section("Factory.Main", 0x4000, 70000));
    const size_t before = rig->Changes();
    const std::string folder = *rig / "small";
    std::filesystem::create_directory(folder);
    const struct {
        const char* what;
        const char* size;
        std::string log;
        std::string backup;
        std::string lock;
    } kFull[] = {
        {"no file in the folder of the log", "nr_inodes=1", folder, *rig / "saved", rig->Lock()},
        {"the private package", "size=32k", folder, *rig / "saved", rig->Lock()},
        {"the backup", "size=32k", rig->Log(), folder, rig->Lock()},
        {"the lock", "nr_inodes=1", rig->Log(), *rig / "saved", folder + "/lock"},
    };
    for (const auto& full : kFull) {
        rig->MountSmall(folder, full.size);
        const UpgradeRun run = rig->Run({"upgrade", "--packages", rig->Packages(), "--log",
                                         full.log, "--lock", full.lock, "--backup", full.backup});
        EXPECT_EQ(1, run.status) << full.what << run.output << run.errors;
        EXPECT_THAT(run.output + run.errors, HasSubstr("No space left on device")) << full.what;
        EXPECT_THAT(run.output + run.errors, HasSubstr(folder)) << full.what;
        EXPECT_EQ(before, rig->Changes()) << full.what;
    }
    rig->MountSmall("", "");
    EXPECT_EQ(0, rig->Upgrade().status) << "elsewhere there is room";
}

TEST_F(ReadOnlyE2eTest, WhatIsOnlyReadMayBeThere) {
    // CI runs as root, in every configuration.
    if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    const auto rig = Cards();
    rig->MountReadOnly(rig->Packages());
    EXPECT_EQ(0, rig->Upgrade().status);
    EXPECT_THAT(rig->States(), ElementsAre("staged", "staged"));
}

}  // namespace
}  // namespace qvtest
