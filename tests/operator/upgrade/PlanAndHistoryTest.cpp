// The plan of one card, the history and the display, without a card.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "../QvcapProcess.h"
#include "Display.h"
#include "History.h"
#include "Plan.h"
#include "QvcapRig.h"
#include "support/TempFolder.h"

namespace qvtest {
namespace {

using qvo::Action;
using qvo::Mode;
using testing::HasSubstr;

qvf::Section Section(const std::string& name, uint32_t address, uint32_t size) {
    qvf::Section section;
    std::copy(name.begin(), name.end(), section.name.begin());
    section.address = address;
    section.size = size;
    section.data = qvf::Bytes(size, 1);
    return section;
}

class PlanTest : public testing::Test {
  protected:
    PlanTest() {
        card.path = "/dev/video0";
        card.identified = true;
        card.runningVersion = 0x10000;
        card.firmwareOffset = 0x2000;
        contents.package.firmwareVersion = 0x10001;
        contents.package.productCode = 1;
        contents.package.compatibilityCode = 7;
        contents.package.sections = {Section("Factory.Main", 0x4000, 100),
                                     Section("Factory.CLR.A", 0x8000, 30),
                                     Section("Upgrade.Main", 0x20000, 5)};
        offered.name = "a.qvf";
        offered.header = contents.package;
        fit.packages = {&offered};
        verdict.state = qvo::State::kUpgradeAvailable;
        verdict.main.content = qvo::Content::kOther;
    }
    qvo::CardPlan Plan(bool force = false) {
        return qvo::PlanCard({card, verdict, fit, &contents, stored, unreachable}, force);
    }

    qvo::Card card;
    qvo::Verdict verdict;
    qvo::Fit fit;
    qvo::FirmwarePackage offered;
    qvo::PackageContents contents;
    qvo::StoredHeader stored;
    std::string unreachable;
};

TEST_F(PlanTest, TheModeIsTheToolsOwn) {
    const auto mode = [&](uint32_t storedVersion, uint16_t storedCode, uint16_t code) {
        contents.package.compatibilityCode = code;
        return qvo::ModeOf(contents.package, {storedVersion, storedCode}, card.runningVersion);
    };
    EXPECT_EQ(Mode::kSafe, mode(0x10000, 7, 7));
    EXPECT_EQ(Mode::kNormal, mode(0x10000, 5, 7));
    EXPECT_EQ(Mode::kNormal, mode(0x10000, 1, 1));
    EXPECT_EQ(Mode::kNormal, mode(0x10001, 7, 7));
    EXPECT_EQ(Mode::kSafe, mode(0x10001, 7, 0));
}

TEST_F(PlanTest, BytesAreThoseOfTheMode) {
    const qvo::Work normal = qvo::WorkOf(contents.package, Mode::kNormal);
    EXPECT_EQ(157u + 3 * 28 + 130, normal.erase);
    EXPECT_EQ(157u + 3 * 28 + 100, normal.write);
    EXPECT_EQ(normal.write, normal.verify);
    EXPECT_EQ(157u + 3 * 28 + 5, qvo::WorkOf(contents.package, Mode::kSafe).erase);
}

TEST_F(PlanTest, WhatStatesMean) {
    const auto action = [&](qvo::State state, bool force) {
        verdict.state = state;
        return Plan(force).action;
    };
    EXPECT_EQ(Action::kFlash, action(qvo::State::kUpgradeAvailable, false));
    EXPECT_EQ(Action::kFlash, action(qvo::State::kInterrupted, false));
    for (const qvo::State state : {qvo::State::kCurrent, qvo::State::kStaged}) {
        EXPECT_EQ(Action::kLeave, action(state, false));
        EXPECT_EQ(Action::kFlash, action(state, true));
    }
    for (const bool force : {false, true})
        EXPECT_EQ(Action::kFail, action(qvo::State::kUnreadable, force));
    card.runningVersion = 0x20000;
    EXPECT_EQ(Action::kLeave, action(qvo::State::kUnknown, false));
    EXPECT_EQ(Action::kFlash, action(qvo::State::kUnknown, true));
    EXPECT_TRUE(Plan(true).force) << "the tool would not write an older package";
}

TEST_F(PlanTest, ARunningVersionThatTheFlashDoesNotHoldCannotBeJudged) {
    verdict.state = qvo::State::kUnknown;
    card.runningVersion = contents.package.firmwareVersion;
    EXPECT_EQ(Action::kFail, Plan().action);
    EXPECT_THAT(Plan().reason, HasSubstr("--force"));
    EXPECT_EQ(Action::kFlash, Plan(true).action);
}

TEST_F(PlanTest, AnUnfinishedMainImageThatASafeUpgradeWouldLeaveIsToBeBroughtBack) {
    stored = {card.runningVersion, 7};
    EXPECT_EQ(Action::kFlash, Plan().action);
    EXPECT_EQ(Mode::kSafe, Plan().mode);
    for (const qvo::Content content :
         {qvo::Content::kPartial, qvo::Content::kBlank, qvo::Content::kDamaged}) {
        verdict.main.content = content;
        for (const qvo::State state : {qvo::State::kInterrupted, qvo::State::kStaged}) {
            verdict.state = state;
            EXPECT_EQ(Action::kBringBack, Plan().action);
        }
    }
    stored.compatibilityCode = 5;
    verdict.state = qvo::State::kInterrupted;
    EXPECT_EQ(Action::kFlash, Plan().action) << "a normal upgrade mends it";
}

TEST_F(PlanTest, WithoutAPackageOrACardNothingIsPlanned) {
    fit.packages.clear();
    EXPECT_EQ(Action::kSkip, qvo::PlanCard({card, verdict, fit, nullptr, stored, ""}, true).action);
    fit.packages = {&offered, &offered};
    EXPECT_EQ(Action::kRefuse,
              qvo::PlanCard({card, verdict, fit, nullptr, stored, ""}, true).action);
    card.problem = "gone";
    EXPECT_EQ(Action::kFail, qvo::PlanCard({card, verdict, fit, nullptr, stored, ""}, true).action);
}

TEST(StoredHeaderTest, IsTakenFromWhateverIsThere) {
    qvf::Bytes bytes(157, 0xFF);
    EXPECT_EQ(0xFFFFFFFFu, qvo::ParseStoredHeader(bytes).version);
    EXPECT_EQ(0xFFFF, qvo::ParseStoredHeader(bytes).compatibilityCode);
    bytes[8] = 0x34;
    bytes[9] = 0x12;
    for (uint8_t i = 0; i < 4; ++i) bytes[16u + i] = i;
    EXPECT_EQ(0x1234, qvo::ParseStoredHeader(bytes).compatibilityCode);
    EXPECT_EQ(0x03020100u, qvo::ParseStoredHeader(bytes).version);
    EXPECT_EQ(0u, qvo::ParseStoredHeader({}).version);
}

class HistoryTest : public testing::Test {
  protected:
    static qvo::HistoryEntry Entry(const std::string& time) {
        qvo::HistoryEntry entry;
        entry.time = time;
        entry.result = "done";
        entry.serial = "S";
        return entry;
    }
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& file : std::filesystem::directory_iterator(folder))
            names.push_back(file.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    const TempFolder temporary{"qvhistory"};
    const std::string folder = temporary.Path();
};

TEST_F(HistoryTest, HasOneFileAMonthAndIsReadInOrder) {
    const qvo::HistoryLog log(folder + "/new/deep");
    log.Append(Entry("2026-11-30T23:59:59Z"));
    log.Append(Entry("2026-12-01T00:00:00Z"));
    log.Append(Entry("2026-12-01T00:00:01Z"));
    const qvo::History history = qvo::ReadHistory(folder + "/new/deep");
    ASSERT_EQ(3u, history.entries.size());
    EXPECT_EQ("2026-11-30T23:59:59Z", history.entries[0].time);
    EXPECT_EQ("2026-12-01T00:00:01Z", history.entries[2].time);
    EXPECT_TRUE(std::filesystem::exists(folder + "/new/deep/history-2026-11.jsonl"));
    EXPECT_TRUE(std::filesystem::exists(folder + "/new/deep/history-2026-12.jsonl"));
    EXPECT_EQ(0u, qvo::ReadHistory(folder + "/none").entries.size());
}

TEST_F(HistoryTest, EveryByteOfANameSurvivesAsFarAsJsonCanTell) {
    qvo::HistoryEntry entry = Entry("2026-11-01T00:00:00Z");
    entry.product = "\x1b[31m\"\\\n\t";
    entry.attempts = 3;
    entry.message = std::string("\xff\xfe", 2);
    const std::string line = qvo::HistoryLine(entry);
    EXPECT_EQ(line.size() - 1, line.find('\n'));
    const qvo::History history = qvo::ParseHistory(line);
    ASSERT_EQ(1u, history.entries.size());
    EXPECT_EQ(entry.product, history.entries[0].product);
    EXPECT_EQ(3, history.entries[0].attempts);
    EXPECT_EQ(std::string::npos, qvo::HistoryText(history).find('\x1b'));
}

TEST_F(HistoryTest, DamagedLinesAreCountedAndHideNone) {
    const std::string good = qvo::HistoryLine(Entry("2026-11-01T00:00:00Z"));
    const qvo::History history =
        qvo::ParseHistory("x\n" + good + "{\"time\":1}\n[]\n{}\n\n" + std::string(100000, 'y') +
                          "\n" + good + good.substr(0, 20));
    EXPECT_EQ(2u, history.entries.size());
    EXPECT_EQ(6u, history.damaged);
    EXPECT_THAT(qvo::HistoryText(history), HasSubstr("6 damaged lines"));
}

TEST_F(HistoryTest, ALineThatACutHasLeftStaysOneOfItsOwn) {
    std::ofstream(folder + "/history-2026-11.jsonl") << "{\"time\":\"half";
    const qvo::HistoryLog log(folder);
    log.Append(Entry("2026-11-05T00:00:00Z"));
    const qvo::History history = qvo::ReadHistory(folder);
    EXPECT_EQ(1u, history.entries.size());
    EXPECT_EQ(1u, history.damaged);
}

TEST_F(HistoryTest, IsBounded) {
    const qvo::HistoryLog log(folder);
    for (int i = 0; i < 50; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "/history-%04d-01.jsonl", 1950 + i);
        std::ofstream(folder + name) << "x\n";
    }
    std::ofstream(folder + "/other-2020.txt") << "x\n";
    log.Append(Entry("2026-11-05T00:00:00Z"));
    EXPECT_EQ(qvo::kMostMonths + 1, Files().size());
    EXPECT_EQ("other-2020.txt", Files().back());
    EXPECT_EQ("history-2026-11.jsonl", Files()[qvo::kMostMonths - 1]);
    {
        std::ofstream month(folder + "/history-2026-11.jsonl", std::ios::app);
        const std::string line = qvo::HistoryLine(Entry("2026-11-06T00:00:00Z"));
        for (uint64_t size = 0; size < qvo::kMostOfMonth; size += line.size()) month << line;
    }
    log.Append(Entry("2026-11-07T00:00:00Z"));
    EXPECT_LT(std::filesystem::file_size(folder + "/history-2026-11.jsonl"),
              qvo::kMostOfMonth * 6 / 10);
    const std::string text = FileText(folder + "/history-2026-11.jsonl");
    const qvo::History history = qvo::ParseHistory(text);
    EXPECT_EQ(0u, history.damaged);
    EXPECT_EQ("2026-11-07T00:00:00Z", history.entries.back().time);
}

TEST(DisplayTest, ATerminalHasALineForEachCardAndATotalThatAreWrittenOver) {
    std::ostringstream out;
    qvo::Display display(qvo::Look::kTerminal, out);
    qvo::Event plan = {{"event", "plan"}, {"card", "00:00"}, {"action", "flash"}};
    display.Take(plan);
    plan["card"] = "00:01";
    display.Take(plan);
    for (const char* card : {"00:00", "00:01"})
        display.Take({{"event", "card-begin"}, {"card", card}, {"bytes", 1u << 20}});
    out.str("");
    display.Take(
        {{"event", "progress"}, {"card", "00:01"}, {"stage", "writing"}, {"percent", 50u}});
    EXPECT_THAT(out.str(), testing::StartsWith("\033[3A\033[J"));
    EXPECT_THAT(out.str(), HasSubstr("00:00 [....................] starting 0%"));
    EXPECT_THAT(out.str(),
                HasSubstr("00:01 [#######.............] writing 50%, 512 KiB of 1024 KiB"));
    EXPECT_THAT(out.str(), HasSubstr(" left"));
    EXPECT_THAT(out.str(), HasSubstr("total: 0 of 2 cards, 18%"));
    out.str("");
    display.Take(
        {{"event", "card-end"}, {"card", "00:01"}, {"result", "done"}, {"state", "staged"}});
    EXPECT_THAT(out.str(), HasSubstr("00:01: done, staged\n"));
    EXPECT_THAT(out.str(), HasSubstr("total: 1 of 2 cards, 50%"));
}

TEST(DisplayTest, PlainLinesHaveTheirTimeAndNoProgress) {
    std::ostringstream out;
    qvo::Display display(qvo::Look::kPlain, out);
    display.Take(
        {{"event", "progress"}, {"card", "00:01"}, {"stage", "writing"}, {"percent", 50u}});
    EXPECT_EQ("", out.str());
    display.Take({{"event", "stage"}, {"time", "T"}, {"card", "00:01"}, {"stage", "writing"}});
    EXPECT_EQ("T 00:01: writing\n", out.str());
}

TEST(DisplayTest, JsonHasEveryTenthPercentOfAStage) {
    std::ostringstream out;
    qvo::Display display(qvo::Look::kJson, out);
    for (const char* stage : {"erasing", "writing"}) {
        display.Take({{"event", "stage"}, {"card", "0"}, {"stage", stage}, {"percent", 0u}});
        for (unsigned i = 1; i <= 100; ++i)
            display.Take({{"event", "progress"}, {"card", "0"}, {"stage", stage}, {"percent", i}});
    }
    const std::string text = out.str();
    EXPECT_EQ(22, std::count(text.begin(), text.end(), '\n'));
}

}  // namespace
}  // namespace qvtest
