// Whole upgrades by the real binary: the dialogue byte by byte, the requests that the driver sees,
// and what is in the flash afterwards. Other packages and cards, without questions, are in
// tests/sweep.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include "ToolProcess.h"
#include "ToolTexts.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using qvsim::Pelix;
using qvsim::Refuse;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr uint32_t kFirmware = 0x100000;  // where the simulated cards keep their header

class UpgradeE2eTest : public testing::Test {
  protected:
    // What was printed from the first channel's first line on.
    static std::string AfterTable(const ToolRun& run) {
        const size_t at = run.output.find("\n[1/");
        return at == std::string::npos ? "no channel line: " + run.output
                                       : run.output.substr(at + 1);
    }
    void ExpectFlash(int board, int channel, uint32_t offset, const Bytes& bytes) {
        EXPECT_TRUE(bytes == rig.Flash(board, channel, offset, static_cast<uint32_t>(bytes.size())))
            << "flash at " << offset;
    }

    qvsim::SimRig rig;
    ToolFolder folder;
};

constexpr char kSummaryOneDone[] = "\n\ntotal 1,  success 1,  fail 0,  skip 0,  cancel 0\n";

TEST_F(UpgradeE2eTest, ANormalUpgradeOnATerminalIsExactToTheByte) {
    rig.Add(Pelix().Product("P4").Firmware(1, 0));
    // Header 157 + 28 = 185 bytes, 65722 in all.
    PackageBuilder package = Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 65537);
    package.Write(folder / "p4.qvf");
    const ToolRun run = folder.OnTerminal(rig, {"-a"}, {"y", "n"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("", run.errors);
    EXPECT_TRUE(run.terminalRestored);
    EXPECT_EQ(
        kWarning +
            "total 1  need upgrade 1\n"
            "capture name                   |current ver     |hardware ver    |new ver         "
            "|status         \n"
            "00:00 P4                       |1.0             |A               |1.1             "
            "|Need upgrade   \n\n"
            "[1/1] [00:00 P4]  Do you want to upgrade from 1.0 to 1.1? -- (y)-YES or (n)-NO:" +
            Clear(80) + "\r[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1   " +
            "(Erasing -------------  0%)" + Clear(28) + "(Erasing -------------  0%)" + Clear(27) +
            "(Erasing ------------- 99%)" + Clear(27) + "(Erasing ------------- 100%)" +
            Clear(28) +  //
            "(Writting -------------  0%)" + Clear(28) + "(Writting -------------  0%)" +
            Clear(28) + "(Writting ------------- 99%)" + Clear(28) +
            "(Writting ------------- 100%)" + Clear(28) +  //
            "(Verifying -------------  0%)" + Clear(30) + "(Verifying -------------  0%)" +
            Clear(29) + "(Verifying ------------- 99%)" + Clear(29) +
            "(Verifying ------------- 100%)" + Clear(30) +  //
            Clear(80) + "\r[1/1] [00:00 P4]  Upgrade from 1.0 to 1.1 successfully.\n" +
            "\ntotal 1,  success 1,  fail 0,  skip 0,  cancel 0\n" + kPowerOffQuestion + "\n",
        run.output);
    EXPECT_THAT(folder.Commands(), IsEmpty());
    ExpectFlash(0, 0, kFirmware, package.Header());
    ExpectFlash(0, 0, 0x200000, package.Data(0));
}

TEST_F(UpgradeE2eTest, TheDriverSeesExactlyTheseRequests) {
    rig.Add(Pelix());
    Package()
        .Firmware(1, 1)
        .Section("Factory.Main", 0x200000, Bytes(65537, 0))
        .Write(folder / "p.qvf");
    folder.ThroughPipe(rig, {"-a", "-y"});
    std::vector<std::string> seen = rig.KernelJournal();
    for (std::string& line : seen)
        if (const size_t at = line.find(" crc="); at != std::string::npos)
            line.erase(at, line.find(' ', at + 1) - at);
    const std::vector<std::string> probe = {
        "open /dev/video0 = 0",
        "ioctl /dev/video0 GetChannelInfo = 0",
        "ioctl /dev/video0 GetFamilyInfo = 0",
        "close /dev/video0 = 0",
    };
    std::vector<std::string> expected = {"open /dev/qv-event = 0"};
    for (int i = 0; i < 2; ++i) expected.insert(expected.end(), probe.begin(), probe.end());
    for (const char* line : {
             // the list
             "open /dev/video0 = 0",
             "ioctl /dev/video0 GetChannelInfo = 0",
             "ioctl /dev/video0 GetChannelInfo = 0",
             "ioctl /dev/video0 GetFirmwareStorageInfo firmware=0x100000 = 0",
             "ioctl /dev/video0 ReadFirmwareData offset=0x100000 size=157 got=157 = 0",
             "close /dev/video0 = 0",
             // the upgrade
             "open /dev/video0 = 0",
             "ioctl /dev/video0 GetChannelInfo = 0",
             "ioctl /dev/video0 GetChannelInfo = 0",
             "ioctl /dev/video0 GetFirmwareStorageInfo firmware=0x100000 = 0",
             "ioctl /dev/video0 EraseFirmwareData offset=0x100000 size=185 = 0",
             "ioctl /dev/video0 EraseFirmwareData offset=0x200000 size=65536 = 0",
             "ioctl /dev/video0 EraseFirmwareData offset=0x210000 size=1 = 0",
             "ioctl /dev/video0 WriteFirmwareData offset=0x100000 size=185 = 0",
             "ioctl /dev/video0 WriteFirmwareData offset=0x200000 size=65536 = 0",
             "ioctl /dev/video0 WriteFirmwareData offset=0x210000 size=1 = 0",
             "ioctl /dev/video0 ReadFirmwareData offset=0x100000 size=185 got=185 = 0",
             "ioctl /dev/video0 ReadFirmwareData offset=0x200000 size=65536 got=65536 = 0",
             "ioctl /dev/video0 ReadFirmwareData offset=0x210000 size=1 got=1 = 0",
             "ioctl /dev/video0 SetPostReconfig value=200 = 0",
             "close /dev/video0 = 0",
             "close /dev/qv-event = 0",
         })
        expected.push_back(line);
    EXPECT_THAT(seen, ElementsAreArray(expected));
}

TEST_F(UpgradeE2eTest, ASafeUpgradeTouchesOnlyTheUpgradeImage) {
    rig.Add(Pelix().Product("P4").Firmware(1, 0).Stored(1, 0, 7));
    PackageBuilder package = Package()
                                 .Firmware(1, 1)
                                 .Compatibility(7)
                                 .Section("Factory.Main", 0x200000, 3000)
                                 .Section("Upgrade.Main", 0x300000, 5000)
                                 .Section("Other", 0x400000, 10);
    package.Write(folder / "p.qvf");
    const Bytes headerBefore = rig.Flash(0, 0, kFirmware, 157);
    const ToolRun run = folder.OnTerminal(rig, {"-d", "/dev/video0"}, {"Y", "N"});
    // Header 241 bytes, 5241 in all.
    EXPECT_EQ(
        "[1/1] [00:00 P4]  Do you want to safe upgrade from 1.0 to 1.1? -- (y)-YES or "
        "(n)-NO:" +
            Clear(80) + "\r[1/1] [00:00 P4]  Safe upgrade from 1.0 to 1.1   " +
            "(Erasing -------------  0%)" + Clear(28) + "(Erasing -------------  4%)" + Clear(27) +
            "(Erasing ------------- 100%)" + Clear(28) +  //
            "(Writting -------------  0%)" + Clear(28) + "(Writting -------------  4%)" +
            Clear(28) + "(Writting ------------- 100%)" + Clear(28) +  //
            "(Verifying -------------  0%)" + Clear(30) + "(Verifying -------------  4%)" +
            Clear(29) + "(Verifying ------------- 100%)" + Clear(30) + Clear(80) +
            "\r[1/1] [00:00 P4]  Safe upgrade from 1.0 to 1.1 successfully." + kSummaryOneDone +
            kPowerOffQuestion + "\n",
        AfterTable(run));
    ExpectFlash(0, 0, kFirmware, headerBefore);
    ExpectFlash(0, 0, kFirmware + 4096, package.Header());
    ExpectFlash(0, 0, 0x300000, package.Data(1));
    ExpectFlash(0, 0, 0x200000, Bytes(3000, 0xFF));
    ExpectFlash(0, 0, 0x400000, Bytes(10, 0xFF));
}

// --- decisions ------------------------------------------------------------------------------

TEST_F(UpgradeE2eTest, AnEqualVersionIsSkippedUnlessForced) {
    rig.Add(Pelix().Product("P4").Firmware(1, 1));
    Package().Firmware(1, 1).Write(folder / "p.qvf");
    const ToolRun skipped = folder.ThroughPipe(rig, {"-a", "-y"});
    EXPECT_EQ(
        "\r[1/1] [00:00 P4]  Needn't upgrade\n\ntotal 1,  success 0,  fail 0,  skip 1,  "
        "cancel 0\n",
        skipped.output.substr(skipped.output.find('\r')));
    const ToolRun forced = folder.ThroughPipe(rig, {"-a", "-y", "-f"});
    EXPECT_THAT(forced.output, HasSubstr("Upgrade from 1.1 to 1.1 successfully."));
    EXPECT_THAT(forced.output, HasSubstr("|Not Need upgrade"));
}

TEST_F(UpgradeE2eTest, AnOlderPackageIsWrittenWhenForced) {
    rig.Add(Pelix().Firmware(2, 0));
    PackageBuilder package = Package().Firmware(1, 9);
    package.Write(folder / "p.qvf");
    EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output, HasSubstr("Needn't upgrade"));
    EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y", "-f"}).output,
                HasSubstr("Upgrade from 2.0 to 1.9 successfully."));
    ExpectFlash(0, 0, kFirmware, package.Header());
}

TEST_F(UpgradeE2eTest, AChannelWithoutAPackageIsSilentAndCountsNowhere) {
    rig.Add(Pelix().ProductCode(0x0999));
    Package().Write(folder / "p.qvf");
    const ToolRun run = folder.ThroughPipe(rig, {"-a", "-y"});
    EXPECT_EQ(kWarning + "total 1  need upgrade 0\n" + kTableHeader +
                  "00:00 Pelix SIM                |1.0             |A               |             "
                  "   |Not Need upgrade\n\n"
                  "\n\ntotal 1,  success 0,  fail 0,  skip 0,  cancel 0\n",
              run.output);
}

TEST_F(UpgradeE2eTest, TheChannelWithoutAPackageStaysOpenWhileTheListIsBuilt) {
    rig.Add(Pelix().ProductCode(0x0999));
    Package().Write(folder / "p.qvf");
    folder.ThroughPipe(rig, {"-l"});
    EXPECT_THAT(
        rig.KernelJournal(),
        ElementsAre("open /dev/qv-event = 0", "open /dev/video0 = 0",
                    "ioctl /dev/video0 GetChannelInfo = 0", "ioctl /dev/video0 GetFamilyInfo = 0",
                    "close /dev/video0 = 0", "open /dev/video0 = 0",
                    "ioctl /dev/video0 GetChannelInfo = 0", "ioctl /dev/video0 GetFamilyInfo = 0",
                    "close /dev/video0 = 0", "open /dev/video0 = 0",
                    "ioctl /dev/video0 GetChannelInfo = 0", "ioctl /dev/video0 GetChannelInfo = 0",
                    "close /dev/qv-event = 0", "close /dev/video0 = 0"));
}

// --- answers --------------------------------------------------------------------------------

TEST_F(UpgradeE2eTest, DecliningOneOfThreeStillOffersThePowerOff) {
    rig.Add(Pelix().Channels(3).Product("P"));
    Package().Write(folder / "p.qvf");
    const ToolRun run = folder.OnTerminal(rig, {"-a"}, {"y", "n", "Y", "n"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output,
                HasSubstr("[2/3] [00:01 P]  Do you want to upgrade from 1.0 to 1.1? -- (y)-YES or "
                          "(n)-NO:" +
                          Clear(80) + "\r[2/3] [00:01 P]  Upgrade cancled.\n[3/3] "));
    EXPECT_THAT(run.output, EndsWith("\n\ntotal 3,  success 2,  fail 0,  skip 0,  cancel 1\n" +
                                     kPowerOffQuestion + "\n"));
    EXPECT_TRUE(run.terminalRestored);
}

TEST_F(UpgradeE2eTest, DecliningASafeUpgradeSaysSo) {
    rig.Add(Pelix().Product("P").Stored(1, 0, 3));
    Package().Compatibility(3).Write(folder / "p.qvf");
    const ToolRun run = folder.OnTerminal(rig, {"-a"}, {"n"});
    EXPECT_THAT(run.output,
                EndsWith("\r[1/1] [00:00 P]  Safe upgrade cancled.\n\ntotal 1,  success "
                         "0,  fail 0,  skip 0,  cancel 1\n"));
}

TEST_F(UpgradeE2eTest, OtherKeysAreReadAndIgnoredAndNeverEchoed) {
    rig.Add(Pelix().Product("P"));
    Package().Write(folder / "p.qvf");
    const ToolRun run = folder.OnTerminal(rig, {"-a"}, {"x\n \x1By", "q\r1N"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("(n)-NO:" + Clear(80) + "\r[1/1] [00:00 P]  Upgrade from"));
    EXPECT_THAT(run.output, EndsWith(kPowerOffQuestion + "\n"));
}

TEST_F(UpgradeE2eTest, TheEndOfInputDeclinesEveryUpgrade) {
    rig.Add(Pelix().Channels(2));
    Package().Write(folder / "p.qvf");
    const ToolRun run = folder.ThroughPipe(rig, {"-a"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, EndsWith("total 2,  success 0,  fail 0,  skip 0,  cancel 2\n"));
    EXPECT_THAT(rig.Journal(), Not(testing::Contains(HasSubstr("EraseFirmwareData"))));
}

TEST_F(UpgradeE2eTest, AnswersComeThroughAPipeToo) {
    rig.Add(Pelix().Channels(2));
    Package().Write(folder / "p.qvf");
    const ToolRun run = folder.ThroughPipe(rig, {"-a"}, "ny");
    EXPECT_THAT(run.output, HasSubstr("total 2,  success 1,  fail 0,  skip 0,  cancel 1\n"));
}

TEST_F(UpgradeE2eTest, RootPowersOffDirectly) {
    rig.Add(Pelix());
    Package().Write(folder / "p.qvf");
    folder.UserNumber(0);
    const ToolRun run = folder.OnTerminal(rig, {"-a", "-y"}, {"y"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(folder.Commands(), ElementsAre("sync", "poweroff"));
    // The second newline is the command line's own.
    EXPECT_THAT(run.output, EndsWith(kPowerOffQuestion + "\n\n"));
}

// The first command of the power-off looks at what the driver has seen by then.
TEST_F(UpgradeE2eTest, TheEventNodeIsClosedWhenTheMachineIsToldToPowerOff) {
    // Runs behind the preload door in every configuration, which writes down a close at once.
    if (qvsim::ThroughServedNodes()) GTEST_SKIP() << "the server writes down a close when it comes";
    rig.Add(Pelix());
    Package().Write(folder / "p.qvf");
    folder.UserNumber(0);
    folder.StandIn("sync",
                   "while read -r line; do case $line in *'close /dev/qv-event'*) "
                   "echo closed;; esac; done <'" +
                       rig.Dir() + "/journal'");
    EXPECT_EQ(0, folder.OnTerminal(rig, {"-a", "-y"}, {"y"}).status);
    EXPECT_THAT(folder.Commands(), ElementsAre("closed", "poweroff"));
}

TEST_F(UpgradeE2eTest, AnybodyElsePowersOffThroughSudo) {
    rig.Add(Pelix());
    Package().Write(folder / "p.qvf");
    folder.UserNumber(1000);
    const ToolRun run = folder.ThroughPipe(rig, {"-a", "-y"}, "Y");
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(folder.Commands(), ElementsAre("sync", "sudo poweroff"));
    EXPECT_THAT(run.output, EndsWith(kPowerOffQuestion + "\n\n"));
    // By then the library is closed.
    EXPECT_EQ("close /dev/qv-event = 0", rig.Journal().back());
}

TEST_F(UpgradeE2eTest, InterruptsAreIgnoredWhileAChannelIsWorkedOnAndNotAfterwards) {
    rig.Add(Pelix().Product("P"));
    Package().Write(folder / "p.qvf");
    const ToolRun run = folder.OnTerminal(rig, {"-a"}, {"y", "n"}, [](int question, pid_t pid) {
        EXPECT_EQ(question == 1, IgnoresInterrupts(pid)) << question;
        if (question == 1) {
            EXPECT_EQ(0, kill(pid, SIGINT));
        }
    });
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("successfully."));
}

TEST_F(UpgradeE2eTest, AnInterruptAtThePowerOffQuestionEndsTheTool) {
    rig.Add(Pelix());
    Package().Write(folder / "p.qvf");
    const ToolRun run =
        folder.OnTerminal(rig, {"-a", "-y"}, {"x"}, [](int, pid_t pid) { kill(pid, SIGINT); });
    EXPECT_EQ(SIGINT, run.signal);
    EXPECT_THAT(folder.Commands(), IsEmpty());
}

// Packages are loaded whole, one after another, and given back; sizes that a heap would keep apart.
TEST_F(UpgradeE2eTest, TheLargestPackageBoundsTheMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // Runs in the configurations without sanitizers, i386 and native.
    GTEST_SKIP() << "a sanitizer's own memory is many times the tool's";
#endif
    constexpr uint32_t kMiB = 1 << 20;
    // The first card has no package, so that all of them are loaded for every list.
    rig.Add(Pelix().ProductCode(0x0998)).Add(Pelix());
    PackageBuilder other = Package().ProductCode(0x0999);
    PackageBuilder(other).Section("A", 0, 10 * kMiB).Write(folder / "a.qvf");
    PackageBuilder(other)
        .Section("A", 0, 6 * kMiB)
        .Section("B", 0, 6 * kMiB)
        .Write(folder / "b.qvf");
    PackageBuilder(other).Section("A", 0, 13 * kMiB).Write(folder / "c.qvf");
    Package().Section("A", 0x200000, kMiB).Write(folder / "d.qvf");
    uint64_t peakKiB = 0;
    const ToolRun run =
        folder.OnTerminal(rig, {"-a", "-a", "-a", "-y"}, {"n"},
                          [&](int, pid_t pid) { peakKiB = StatusOf(pid, "VmHWM", 10); });
    EXPECT_THAT(run.output, HasSubstr("successfully."));
    EXPECT_LE(peakKiB, (13 + 8) * 1024u);
    EXPECT_GE(peakKiB, 13 * 1024u);  // the package was in memory: the measure works
}

// The same with a question while each of them is in memory, the largest last.
TEST_F(UpgradeE2eTest, TheLargestPackageBoundsTheMemoryOfAnUpgradeWithQuestions) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // Runs in the configurations without sanitizers, i386 and native.
    GTEST_SKIP() << "a sanitizer's own memory is many times the tool's";
#endif
    constexpr uint32_t kMiB = 1 << 20;
    for (const uint16_t code : {uint16_t{1}, uint16_t{2}, uint16_t{3}}) {
        const uint32_t size = code * 5 * kMiB;
        rig.Add(Pelix().ProductCode(code).FlashSize(32 * kMiB));
        Package()
            .ProductCode(code)
            .Section("Factory.Main", 0x200000, 100)
            .Section("Upgrade.A", 0x300000, size / 2)  // loaded, but not written
            .Section("Upgrade.B", 0x300000 + size / 2, size / 2)
            .Write(folder / std::to_string(code) + ".qvf");
    }
    uint64_t peakKiB = 0;
    const ToolRun run = folder.OnTerminal(rig, {"-a"}, {"y", "y", "y", "n"}, [&](int, pid_t pid) {
        peakKiB = StatusOf(pid, "VmHWM", 10);
    });
    EXPECT_THAT(run.output, HasSubstr("success 3,"));
    EXPECT_LE(peakKiB, (15 + 8) * 1024u);
    EXPECT_GE(peakKiB, 15 * 1024u);
}

// Every channel reads every package, and none of the reading takes memory anew.
TEST_F(UpgradeE2eTest, PackagesAreReadIntoTheMemoryOfThoseBefore) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps released memory to itself";
#endif
    constexpr uint32_t kPages = 256;
    constexpr int kPackages = 8;
    constexpr int kChannels = 4;
    rig.Add(Pelix().ProductCode(0x0998).Channels(kChannels));
    for (int i = 0; i < kPackages; ++i)
        Package()
            .Section("A", 0, kPages / 2 * 4096)
            .Section("B", 0x400000, kPages / 2 * 4096)
            .Write(folder / std::to_string(i) + ".qvf");
    const ToolRun run = folder.ThroughPipe(rig, {"-l"});
    EXPECT_THAT(run.output, HasSubstr("total 4  need upgrade 0\n"));
    EXPECT_LT(run.pageFaults, kChannels * kPackages * long{kPages} / 2);
}

TEST_F(UpgradeE2eTest, ADamagedSizeTakesNoMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer maps terabytes of its own";
#endif
    // The first card has no package, so that both are looked at.
    rig.Add(Pelix().ProductCode(0x0998)).Add(Pelix());
    Package().ProductCode(9).Section("A", 0, 10).ClaimSize(0x20000000).Write(folder / "bad.qvf");
    Package().Write(folder / "good.qvf");
    uint64_t peakKiB = 0;  // of address space, whether touched or not
    const ToolRun run = folder.OnTerminal(
        rig, {"-a", "-y"}, {"n"}, [&](int, pid_t pid) { peakKiB = StatusOf(pid, "VmPeak", 10); });
    EXPECT_THAT(run.output, HasSubstr("successfully."));
    EXPECT_LT(peakKiB, 0x20000000u / 1024);
}

}  // namespace
}  // namespace qvtest
