// Several processes on one folder of cards see one truth, whatever they do and however they end.
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "Door.h"
#include "FirmwareImage.h"
#include "gmock/gmock.h"
#include "sim/Requests.h"
#include "support/SimRig.h"

namespace qvsim {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr uint32_t kMain = 0x100000;
constexpr int kUnset = 255;

// Runs `body` in a process of its own, on the cards of `dir`; its exit status is the result.
pid_t Start(const std::string& dir, const std::function<int()>& body) {
    const pid_t child = fork();
    if (child != 0) return child;
    const bool attached = Attach(dir).empty();
    const int status = attached ? body() : kUnset;
    _exit(status);  // as it is: nothing is cleaned up
}

int StatusOf(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return kUnset;
    return WEXITSTATUS(status);
}

int InAnother(const std::string& dir, const std::function<int()>& body) {
    return StatusOf(Start(dir, body));
}

int ErrorOfErase() {
    const Node card("/dev/video0");
    return card.Erase(kMain, 4096) == 0 ? 0 : errno;
}

class TruthTest : public testing::Test {
  protected:
    std::shared_ptr<Model> Load() {
        std::shared_ptr<Model> model;
        EXPECT_EQ("", Model::Load(m_rig.Dir(), model));
        return model;
    }
    SimRig m_rig;
};

TEST_F(TruthTest, AFaultThatStrikesOnceStrikesOneProcess) {
    m_rig.Add(Pelix());
    m_rig.AddFault({.request = "EraseFirmwareData", .nth = 2, .effect = PowerLoss()});
    EXPECT_EQ(0, InAnother(m_rig.Dir(), ErrorOfErase));
    EXPECT_EQ(EIO, InAnother(m_rig.Dir(), ErrorOfErase));
    EXPECT_EQ(EIO, InAnother(m_rig.Dir(), ErrorOfErase)) << "the board is dead";
    m_rig.PowerCycle();
    EXPECT_EQ(0, InAnother(m_rig.Dir(), ErrorOfErase)) << "and not cut again";
    EXPECT_THAT(m_rig.MetFaults(), SizeIs(1));
}

TEST_F(TruthTest, AFaultCanBeCountedInEachProcess) {
    m_rig.Add(Pelix());
    m_rig.AddFault({.request = "EraseFirmwareData", .effect = Refuse(EBUSY), .perProcess = true});
    EXPECT_EQ(EBUSY, InAnother(m_rig.Dir(), ErrorOfErase));
    EXPECT_EQ(EBUSY, InAnother(m_rig.Dir(), ErrorOfErase));
}

TEST_F(TruthTest, AFaultThatIsAddedStrikesProgramsThatRunAlready) {
    m_rig.Add(Pelix());
    m_rig.Attach();
    const Node card("/dev/video0");
    EXPECT_EQ(0, card.Erase(kMain, 4096));
    CardsState state;
    ASSERT_EQ("", LoadState(m_rig.Dir(), state));
    state.faults.push_back({.request = "EraseFirmwareData", .effect = Refuse(EPERM)});
    ASSERT_EQ("", SaveState(m_rig.Dir(), state));
    EXPECT_EQ(-1, card.Erase(kMain, 4096));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(0, card.Erase(kMain, 4096));
}

// Ends when the fault has been met: the process hangs, or will at once.
void AwaitMet(SimRig& rig, const char* line) {
    while (rig.MetFaults() != std::vector<std::string>{line}) usleep(1000);
}

TEST_F(TruthTest, ARequestThatHangsComesBackWhenAnotherProcessClearsItsFault) {
    for (const char* request : {"EraseFirmwareData", "open"}) {
        SCOPED_TRACE(request);
        SimRig rig;
        rig.Add(Pelix());
        rig.AddFault({.request = request, .effect = Hang()});
        const pid_t child = Start(rig.Dir(), ErrorOfErase);
        AwaitMet(rig, (std::string("hang ") + request + " board=0 channel=0").c_str());
        usleep(60'000);  // it looks again and again
        EXPECT_EQ(0, waitpid(child, nullptr, WNOHANG)) << "it came back by itself";
        CardsState state;
        ASSERT_EQ("", LoadState(rig.Dir(), state));
        state.faults.clear();
        ASSERT_EQ("", SaveState(rig.Dir(), state));
        EXPECT_EQ(0, StatusOf(child));
    }
}

TEST_F(TruthTest, ARequestThatHangsWaitsOutAHandlerAndEndsWithItsProcess) {
    for (const char* request : {"EraseFirmwareData", "open"}) {
        SCOPED_TRACE(request);
        SimRig rig;
        rig.Add(Pelix());
        rig.AddFault({.request = request, .effect = Hang()});
        const pid_t child = Start(rig.Dir(), [] {
            struct sigaction action {};
            action.sa_handler = [](int) { _exit(1); };
            sigaction(SIGUSR1, &action, nullptr);
            return ErrorOfErase();
        });
        AwaitMet(rig, (std::string("hang ") + request + " board=0 channel=0").c_str());
        kill(child, SIGUSR1);
        usleep(60'000);
        EXPECT_EQ(0, waitpid(child, nullptr, WNOHANG)) << "it was interrupted";
        kill(child, SIGTERM);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    }
}

TEST_F(TruthTest, OneProcessDoesNotTakeBackWhatAnotherWrote) {
    m_rig.Add(Pelix().Golden(0, 1));
    const std::shared_ptr<Model> early = Load();  // has looked at the flash before the upgrade
    EXPECT_EQ(0, InAnother(m_rig.Dir(), [] {
                  const Node card("/dev/video0");
                  card.Erase(kMain, 4096);
                  return card.Write(kMain, MakeHeader(Version(3, 4), 1, 0x0101, 'A'));
              }));
    const uint8_t bytes[50] = {};
    ASSERT_TRUE(early->Flash(0, 0)->Program(0x200000, bytes, sizeof bytes));
    m_rig.PowerCycle();
    EXPECT_EQ(Version(3, 4), m_rig.RunningVersion(0, 0));
}

TEST_F(TruthTest, ADeadBoardIsDeadForAllAndNobodyRevivesIt) {
    m_rig.Add(Pelix().Channels(2)).Add(Pelix());
    m_rig.AddFault({.request = "EraseFirmwareData", .board = 0, .effect = PowerLoss()});
    m_rig.AddFault({.request = "EraseFirmwareData", .board = 1, .effect = PowerLoss()});
    m_rig.Attach();
    const Node card("/dev/video1");
    const Node other("/dev/video2");
    EXPECT_EQ(EIO, InAnother(m_rig.Dir(), ErrorOfErase));
    EXPECT_EQ(0u, card.RunningVersion());
    // Losing another board writes down what this process knows.
    EXPECT_EQ(-1, other.Erase(kMain, 4096));
    CardsState state;
    ASSERT_EQ("", LoadState(m_rig.Dir(), state));
    EXPECT_TRUE(state.boards[0].powerLost);
    EXPECT_TRUE(state.boards[1].powerLost);
    m_rig.PowerCycle();
    EXPECT_EQ(Version(1, 0), card.RunningVersion());
}

TEST_F(TruthTest, AVanishedNodeHasVanishedForAllUntilThePowerCycle) {
    m_rig.Add(Pelix());
    m_rig.AddFault({.request = "GetTemperature", .effect = NodeGone()});
    m_rig.Attach();
    const auto temperature = [] {
        const Node card("/dev/video0");
        uint32_t value = 0;
        return card.Do(qv::kGetTemperature, value) == 0 ? 0 : errno;
    };
    EXPECT_EQ(ENODEV, InAnother(m_rig.Dir(), temperature));
    EXPECT_EQ(-1, access("/dev/video0", F_OK));
    EXPECT_THAT(m_rig.Cards().NodeNames(), ElementsAre("qv-event"));
    m_rig.PowerCycle();
    EXPECT_EQ(0, InAnother(m_rig.Dir(), temperature));
    EXPECT_EQ(0, access("/dev/video0", F_OK));
}

int SetBrightness(int32_t value) {
    const Node card("/dev/video0");
    return card.Do(qv::kSetVideoBrightness, value);
}

TEST_F(TruthTest, WhatAProcessSetIsKeptHoweverItEnds) {
    m_rig.Add(Pelix());
    const pid_t child = Start(m_rig.Dir(), [] {
        const Node card("/dev/video0");
        int32_t value = 12;
        card.Do(qv::kSetVideoBrightness, value);
        value = 34;
        card.Do(qv::kSetVideoContrast, value);
        raise(SIGKILL);
        return 0;
    });
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    m_rig.Attach();
    const Node card("/dev/video0");
    int32_t value = 0;
    EXPECT_EQ(0, card.Do(qv::kGetVideoBrightness, value));
    EXPECT_EQ(12, value);
    EXPECT_EQ(0, card.Do(qv::kGetVideoContrast, value));
    EXPECT_EQ(34, value);
    // And what another sets meanwhile is seen at once.
    EXPECT_EQ(0, InAnother(m_rig.Dir(), [] { return SetBrightness(56); }));
    EXPECT_EQ(0, card.Do(qv::kGetVideoBrightness, value));
    EXPECT_EQ(56, value);
    EXPECT_EQ(0, card.Do(qv::kGetVideoContrast, value));
    EXPECT_EQ(34, value);
}

TEST_F(TruthTest, APresetHoldsWhatOtherProcessesSet) {
    m_rig.Add(Pelix());
    m_rig.Attach();
    const Node card("/dev/video0");
    int32_t value = 1;
    EXPECT_EQ(0, card.Do(qv::kSetVideoContrast, value));
    EXPECT_EQ(0, InAnother(m_rig.Dir(), [] { return SetBrightness(2); }));
    EXPECT_EQ(0, card.Do(qv::kSaveSettingsAsPreset));
    m_rig.PowerCycle();
    EXPECT_EQ(0, card.Do(qv::kReloadPreset));
    EXPECT_EQ(0, card.Do(qv::kGetVideoBrightness, value));
    EXPECT_EQ(2, value);
    EXPECT_EQ(0, card.Do(qv::kGetVideoContrast, value));
    EXPECT_EQ(1, value);
}

TEST_F(TruthTest, SettingsThatChangeOftenStayInASmallFile) {
    m_rig.Add(Pelix());
    m_rig.Attach();
    const Node card("/dev/video0");
    std::vector<uint8_t> edid(4096, 0x11);
    for (int i = 0; i < 200; ++i) {
        edid[0] = static_cast<uint8_t>(i);
        qv::CountedArrayRecord record{};
        record.address = qv::WireAddress(edid.data());
        record.count = static_cast<uint32_t>(edid.size());
        ASSERT_EQ(0, card.Do(qv::kSetEDID, record));
    }
    EXPECT_LT(std::filesystem::file_size(m_rig.Dir() + "/settings-b0-c0"), 300u << 10);
    m_rig.Detach();
    m_rig.Attach();
    const Node again("/dev/video0");
    std::vector<uint8_t> read(4096);
    qv::CountedArrayRecord record{};
    record.address = qv::WireAddress(read.data());
    record.count = static_cast<uint32_t>(read.size());
    ASSERT_EQ(0, again.Do(qv::kGetEDID, record));
    EXPECT_EQ(edid, read);
}

TEST_F(TruthTest, TheDeviceClockGoesOnFromProcessToProcess) {
    m_rig.Add(Pelix());
    constexpr int64_t kFar = int64_t{1} << 60;
    EXPECT_EQ(0, InAnother(m_rig.Dir(), [] {
                  const Node card("/dev/video0");
                  int64_t time = kFar;
                  return card.Do(qv::kSetDeviceTime, time);
              }));
    m_rig.Attach();
    const Node card("/dev/video0");
    int64_t time = 0;
    ASSERT_EQ(0, card.Do(qv::kGetDeviceTime, time));
    EXPECT_GE(time, kFar);
    EXPECT_LT(time, kFar + 600 * kClockUnitsPerSecond);
    m_rig.PowerCycle();
    ASSERT_EQ(0, card.Do(qv::kGetDeviceTime, time));
    EXPECT_LT(time, kFar / 2);
}

// Eight processes, each with a region of the same flash, a setting of its own on a channel of its
// own and one that all set, under faults that strike so often and not once more.
constexpr int kProcesses = 8;
constexpr int kRounds = 30;
constexpr uint32_t kRegion = 3 * 4096;
constexpr int kRefusals = 20;

int Work(int number) {
    const Node card(("/dev/video" + std::to_string(number)).c_str());
    const uint32_t offset = kMain + 0x10000 + static_cast<uint32_t>(number) * kRegion;
    int refused = 0;
    for (int round = 1; round <= kRounds; ++round) {
        const auto value = static_cast<uint8_t>(16 * number + round % 16);
        if (card.Erase(offset, kRegion) != 0) return 201;
        if (card.Write(offset + 5, std::vector<uint8_t>(kRegion - 10, value)) != 0) return 202;
        const std::vector<uint8_t> read = card.Read(offset + 5, kRegion - 10);
        if (read != std::vector<uint8_t>(kRegion - 10, value)) return 203;
        int32_t setting = number * 1000 + round;
        if (card.Do(qv::kSetVideoBrightness, setting) != 0) return 204;
        int32_t kept = 0;
        if (card.Do(qv::kGetVideoBrightness, kept) != 0 || kept != setting) return 205;
        uint32_t temperature = 0;
        if (card.Do(qv::kGetTemperature, temperature) != 0) ++refused;
    }
    return refused;
}

TEST_F(TruthTest, EightProcessesAtOnceLoseNothingOfEachOther) {
    m_rig.Add(Lumo().Channels(kProcesses));
    m_rig.AddFault(
        {.request = "GetTemperature", .nth = 7, .count = kRefusals, .effect = Refuse(EAGAIN)});
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i)
        children.push_back(Start(m_rig.Dir(), [i] { return Work(i); }));
    int refused = 0;
    for (const pid_t child : children) {
        const int status = StatusOf(child);
        ASSERT_LE(status, 200);
        refused += status;
    }
    EXPECT_EQ(kRefusals, refused);
    EXPECT_THAT(m_rig.MetFaults(), SizeIs(kRefusals));

    m_rig.Attach();
    const NorFlash& flash = *m_rig.Cards().Flash(0, 0);
    for (int i = 0; i < kProcesses; ++i) {
        const uint32_t offset = kMain + 0x10000 + static_cast<uint32_t>(i) * kRegion;
        const auto value = static_cast<uint8_t>(16 * i + kRounds % 16);
        EXPECT_EQ(std::vector<uint8_t>(kRegion - 10, value),
                  m_rig.Flash(0, 0, offset + 5, kRegion - 10));
        EXPECT_TRUE(flash.Programmed(offset + 5, kRegion - 10));
        EXPECT_FALSE(flash.Programmed(offset + 4, 1));
        const Node card(("/dev/video" + std::to_string(i)).c_str());
        int32_t setting = 0;
        EXPECT_EQ(0, card.Do(qv::kGetVideoBrightness, setting));
        EXPECT_EQ(i * 1000 + kRounds, setting);
    }
    // Every request has its line, with a number of its own.
    std::set<uint64_t> numbers;
    size_t requests = 0;
    for (const JournalLine& line : m_rig.JournalLines()) {
        numbers.insert(line.sequence);
        requests += line.pid != getpid() && line.action == "ioctl" ? 1 : 0;
    }
    EXPECT_EQ(size_t{kProcesses} * kRounds * 6, requests);
    EXPECT_EQ(numbers.size(), m_rig.JournalLines().size());
}

TEST_F(TruthTest, EightProcessesThatSetOneChannelLeaveOneOrder) {
    m_rig.Add(Pelix());
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        children.push_back(Start(m_rig.Dir(), [i] {
            const Node card("/dev/video0");
            for (int round = 0; round < kRounds; ++round) {
                int32_t value = i * 1000 + round;
                if (card.Do(qv::kSetVideoHue, value) != 0) return 1;
                if (i == 0 && card.Do(qv::kSetVideoContrast, value) != 0) return 2;
            }
            return 0;
        }));
    }
    for (const pid_t child : children) EXPECT_EQ(0, StatusOf(child));
    const std::shared_ptr<Model> one = Load();
    const std::shared_ptr<Model> another = Load();
    m_rig.Attach();
    const Node card("/dev/video0");
    int32_t value = 0;
    EXPECT_EQ(0, card.Do(qv::kGetVideoContrast, value));
    EXPECT_EQ(kRounds - 1, value);
    EXPECT_EQ(0, card.Do(qv::kGetVideoHue, value));
    EXPECT_EQ(kRounds - 1, value % 1000) << "the last one of some process";
}

// What is wrong in a file, and what is said about it.
struct Damage {
    const char* name;
    const char* from;  // of the state file; empty: `to` is the whole file
    const char* to;
    const char* said;
};

class DamagedStateTest : public testing::TestWithParam<Damage> {};

TEST_P(DamagedStateTest, IsRefusedWithFileAndLine) {
    SimRig rig;
    rig.Add(Pelix().Channels(2)).Add(Pelix()).ForeignNode(9);
    rig.AddFault({.request = "open", .effect = Refuse(EIO)});
    const std::string path = StatePath(rig.Dir());
    std::string text = ReadText(path);
    const Damage& damage = GetParam();
    if (*damage.from) {
        const size_t at = text.find(damage.from);
        ASSERT_NE(text.npos, at);
        text.replace(at, std::strlen(damage.from), damage.to);
    } else {
        text = damage.to;
    }
    std::ofstream(path) << text;
    CardsState state;
    EXPECT_THAT(LoadState(rig.Dir(), state), StartsWith(path + damage.said));
    std::shared_ptr<Model> model;
    EXPECT_NE("", Model::Load(rig.Dir(), model));
    EXPECT_EQ(nullptr, model);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, DamagedStateTest,
    testing::Values(Damage{"empty", "", "", ": empty"},
                    Damage{"binary", "", "\x01\x02", ":1: is no state of simulated cards"},
                    Damage{"older", "cards 2", "cards 1", ":1: is of another version"},
                    Damage{"cut", "\nend\n", "\n", ":13: the end is missing"},
                    Damage{"unknown", "latency", "latencies", ":3: not a line"},
                    Damage{"noNumber", "index=0", "index=x", ":7: not a line"},
                    Damage{"noNode", "node=0", "node=", ":8: not a line"},
                    Damage{"large", "index=0", "index=16", ":7: not a line"},
                    Damage{"negative", "size=16777216", "size=-4096", ":7: not a line"},
                    Damage{"odd", "size=16777216", "size=16777217", ":7: not a line"},
                    Damage{"doubledBoard", "board index=1", "board index=0", ":10: not a line"},
                    Damage{"doubledNode", "node=1", "node=0", ":9: not a line"},
                    Damage{"foreignNode", "node=1", "node=9", ":9: not a line"},
                    Damage{"missingKey", " lost=0", "", ":7: not a line"},
                    Damage{"moreKeys", " lost=0", " lost=0 found=1", ":7: not a line"},
                    Damage{"keyTwice", " lost=0", " lost=0 lost=0", ":7: not a line"},
                    Damage{"noChannels", "board index=1",
                           "board index=2 shared=0 size=4096 golden=0 lost=0\n"
                           "board index=1",
                           ":11: not a line"},
                    Damage{"shortRecord", " storage=", " storage=00", ":8: not a line"},
                    Damage{"rate", "fps=60", "fps=nan", ":8: not a line"},
                    Damage{"noKind", "kind=refuse", "kind=melt", ":12: not a line"},
                    Damage{"slot", "slot=0", "slot=4096", ":12: not a line"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(TruthTest, FilesBesideTheStateAreCheckedToo) {
    m_rig.Add(Pelix());
    m_rig.Attach();
    SetBrightness(3);
    m_rig.Detach();
    const std::string dir = m_rig.Dir();
    const auto refused = [&](const std::string& file, const std::string& text) {
        const std::string before = ReadText(dir + "/" + file);
        std::ofstream(dir + "/" + file) << text;
        std::shared_ptr<Model> model;
        const std::string error = Model::Load(dir, model);
        EXPECT_EQ(nullptr, model) << file;
        EXPECT_TRUE(ReplaceFile(dir + "/" + file, before));
        return error.rfind(dir + "/", 0) == 0 ? error.substr(dir.size() + 1) : error;
    };
    EXPECT_THAT(refused("settings-b0-c0", "v VideoHue 01\n"), StartsWith("settings-b0-c0:1: "));
    EXPECT_THAT(refused("settings-b0-c0", "qvsim-settings 1\nv VideoHue 0\n"),
                StartsWith("settings-b0-c0:2: "));
    EXPECT_THAT(refused("settings-b0-c0", "qvsim-settings 1\nsave\nv VideoHue 0102"),
                StartsWith("settings-b0-c0:3: "));
    EXPECT_THAT(refused("flash-b0-c0.bin", std::string((16 << 20) + 1, 'x')),
                StartsWith("flash-b0-c0.bin: is larger than the chip"));
    EXPECT_THAT(refused("flash-b0-c0.bin.marks", "boot 0x100000\n"),
                StartsWith("flash-b0-c0.bin.marks: is no file of marks"));
    EXPECT_THAT(refused("cards.live", "short"), StartsWith("cards.live: has 5 bytes"));
    EXPECT_THAT(refused("cards.live", std::string(sizeof(LivePage), 'x')),
                StartsWith("cards.live: is not of this version"));
    std::shared_ptr<Model> model;
    EXPECT_EQ("", Model::Load(dir, model));
}

TEST_F(TruthTest, AFileThatWasLeftHalfWrittenEndsWhereItsLinesEnd) {
    m_rig.Add(Pelix());
    m_rig.Attach();
    SetBrightness(3);
    std::ofstream(JournalPath(m_rig.Dir()), std::ios::app) << "77 1 open /dev/vid";
    std::vector<JournalLine> lines;
    EXPECT_EQ("", ReadJournal(m_rig.Dir(), lines));
    EXPECT_THAT(lines, SizeIs(3));
    std::ofstream(JournalPath(m_rig.Dir()), std::ios::app) << "\n";
    EXPECT_THAT(ReadJournal(m_rig.Dir(), lines),
                StartsWith(JournalPath(m_rig.Dir()) + ":5: not a line of a journal: 77 "));
}

TEST_F(TruthTest, AJournalWithALimitForgetsItsOldestLines) {
    m_rig.JournalLimit(64 << 10).Add(Pelix());
    m_rig.Attach();
    const Node card("/dev/video0");
    uint32_t value = 0;
    for (int i = 0; i < 4000; ++i) ASSERT_EQ(0, card.Do(qv::kGetTemperature, value));
    const std::vector<JournalLine> lines = m_rig.JournalLines();
    ASSERT_THAT(lines, testing::Not(IsEmpty()));
    EXPECT_EQ(4001u, lines.back().sequence);
    EXPECT_GT(lines.front().sequence, 2000u);
    for (size_t i = 1; i < lines.size(); ++i)
        ASSERT_EQ(lines[i - 1].sequence + 1, lines[i].sequence);
    uintmax_t bytes = 0;
    for (const char* file : {"/journal", "/journal.old"})
        bytes += std::filesystem::file_size(m_rig.Dir() + file);
    EXPECT_LE(bytes, (64u + 32u) << 10);
}

}  // namespace
}  // namespace qvsim
