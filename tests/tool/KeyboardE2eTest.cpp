// Control keys on a real terminal, typed like any other: which of them end an upgrade, and where.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "ToolProcess.h"
#include "ToolTexts.h"
#include "support/PackageBuilder.h"

namespace qvtest {
namespace {

using qvsim::Pelix;
using qvsim::Slow;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kInterruptKey[] = "\x03";
constexpr char kStopOutputKey[] = "\x13";
constexpr char kStartOutputKey[] = "\x11";

class KeyboardE2eTest : public testing::Test {
  protected:
    KeyboardE2eTest() {
        Package().Firmware(1, 1).Section("Factory.Main", 0x200000, 70000).Write(folder / "p.qvf");
    }
    qvsim::SimRig rig;
    ToolFolder folder;
};

TEST_F(KeyboardE2eTest, TheInterruptKeyIsIgnoredWhereverADeviceIsWorkedOn) {
    rig.Add(Pelix().Product("P"));
    // Each stage is still under way when the key comes.
    for (const char* request : {"EraseFirmwareData", "WriteFirmwareData"})
        rig.AddFault({.request = request, .nth = 2, .effect = Slow(300)});
    rig.AddFault({.request = "ReadFirmwareData", .nth = 3, .effect = Slow(300)});
    const char* const kPlaces[] = {"(n)-NO:", "(Erasing", "(Writting", "(Verifying"};
    size_t place = 0;
    bool powerOffAnswered = false;
    const ToolRun run =
        folder.OnTerminal(rig, {"-a"}, [&](const ToolFolder::Screen& screen) -> std::string {
            if (place < std::size(kPlaces)) {
                if (screen.output.find(kPlaces[place]) == std::string::npos) return {};
                if (place == 0 && !screen.oneKeyMode) return {};
                // The key throws away what was typed before it, so the answer comes behind it.
                return place++ == 0 ? std::string(kInterruptKey) + "y" : kInterruptKey;
            }
            if (powerOffAnswered || !screen.oneKeyMode) return {};
            powerOffAnswered = true;
            return "n";
        });
    EXPECT_EQ(std::size(kPlaces), place);
    EXPECT_EQ(0, run.signal);
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, HasSubstr("Upgrade from 1.0 to 1.1 successfully."));
    EXPECT_TRUE(run.terminalRestored);
    rig.PowerCycle();
    EXPECT_EQ(qvsim::Version(1, 1), rig.RunningVersion(0, 0));
}

// The screen is stopped while the first device's last request is under way: its result line, which
// is printed when the device is done, holds the tool between the two devices. Nothing is printed
// for as long as that request takes; a screen that was stopped before it holds the device itself
// up, and is let go again.
TEST_F(KeyboardE2eTest, TheInterruptKeyBetweenTwoDevicesEndsTheToolBeforeTheSecond) {
    constexpr int kQuietLooks = 60;   // a request under way, not a pause between two lines
    constexpr int kHeldLooks = 1600;  // far longer than the request takes
    rig.Add(Pelix().Product("P").Channels(2));
    rig.AddFault({.request = "SetPostReconfig", .effect = Slow(2000)});
    bool stopped = false, interrupted = false;
    size_t seen = 0;
    int looks = 0;  // since something was printed or typed
    const ToolRun run =
        folder.OnTerminal(rig, {"-a", "-y"}, [&](const ToolFolder::Screen& screen) -> std::string {
            looks = screen.output.size() == seen ? looks + 1 : 0;
            seen = screen.output.size();
            if (interrupted) return {};
            if (!stopped) {
                if (looks < kQuietLooks ||
                    screen.output.find("(Verifying ------------- 100%)") == std::string::npos)
                    return {};
                stopped = true;
                looks = 0;
                return kStopOutputKey;
            }
            if (!IgnoresInterrupts(screen.pid)) {
                interrupted = true;
                return kInterruptKey;
            }
            if (looks < kHeldLooks) return {};
            stopped = false;
            looks = 0;
            return kStartOutputKey;
        });
    EXPECT_EQ(SIGINT, run.signal);
    EXPECT_TRUE(run.terminalRestored);
    EXPECT_THAT(rig.Journal(), Contains(HasSubstr("/dev/video0 SetPostReconfig")));
    EXPECT_THAT(rig.Journal(), Not(Contains(HasSubstr("/dev/video1 EraseFirmwareData"))));
    EXPECT_THAT(folder.Commands(), IsEmpty());
    // The next run finishes what is left.
    EXPECT_THAT(folder.ThroughPipe(rig, {"-a", "-y"}).output,
                HasSubstr("total 2,  success 2,  fail 0,"));
    rig.PowerCycle();
    EXPECT_EQ(qvsim::Version(1, 1), rig.RunningVersion(0, 0));
    EXPECT_EQ(qvsim::Version(1, 1), rig.RunningVersion(0, 1));
}

TEST_F(KeyboardE2eTest, TheInterruptKeyAtThePowerOffQuestionPowersNothingOff) {
    rig.Add(Pelix().Product("P"));
    const ToolRun run = folder.OnTerminal(rig, {"-a", "-y"}, {kInterruptKey});
    EXPECT_EQ(SIGINT, run.signal);
    EXPECT_THAT(run.output, HasSubstr(kPowerOffQuestion));
    EXPECT_THAT(folder.Commands(), IsEmpty());
}

// One-key mode has no key for the end of input: this one is read as any other, and ignored.
TEST_F(KeyboardE2eTest, TheEndOfFileKeyIsNoAnswer) {
    rig.Add(Pelix().Product("P"));
    const ToolRun run = folder.OnTerminal(rig, {"-a"}, {"\x04y", "\x04n"});
    EXPECT_EQ(0, run.status);
    EXPECT_THAT(run.output, EndsWith(kPowerOffQuestion + "\n"));
    EXPECT_THAT(folder.Commands(), IsEmpty());
}

}  // namespace
}  // namespace qvtest
