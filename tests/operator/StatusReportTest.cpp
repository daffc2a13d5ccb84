// The table, and the exit statuses of qvcap status, from verdicts.
#include "StatusReport.h"

#include <gmock/gmock.h>

#include "ReadingBar.h"
#include "Table.h"

namespace qvtest {
namespace {

using qvo::ExitStatus;
using qvo::State;
using qvo::StatusRow;

std::vector<StatusRow> Rows(const std::vector<State>& states) {
    std::vector<StatusRow> rows;
    for (const State state : states) {
        StatusRow row;
        row.card.path = "/dev/video0";
        row.verdict.state = state;
        rows.push_back(row);
    }
    return rows;
}

TEST(StatusReportTest, TheExitStatusSaysWhatHasToBeDoneFirst) {
    using S = State;
    const std::pair<std::vector<State>, ExitStatus> rows[] = {
        {{}, ExitStatus::kNoCard},
        {{S::kCurrent}, ExitStatus::kDone},
        {{S::kCurrent, S::kNoPackage}, ExitStatus::kNoCard},
        {{S::kCurrent, S::kNoPackage, S::kStaged}, ExitStatus::kPowerAwaited},
        {{S::kStaged, S::kUpgradeAvailable}, ExitStatus::kAvailable},
        {{S::kStaged, S::kInterrupted}, ExitStatus::kAvailable},
        {{S::kInterrupted, S::kUnknown}, ExitStatus::kFailed},
        {{S::kUpgradeAvailable, S::kUnreadable}, ExitStatus::kFailed},
    };
    for (const auto& [states, expected] : rows)
        EXPECT_EQ(expected, StatusForScripts(Rows(states))) << states.size();
}

TEST(StatusReportTest, WithoutItTheExitStatusSaysWhetherItCouldTell) {
    for (const State state : {State::kCurrent, State::kUpgradeAvailable, State::kStaged,
                              State::kInterrupted, State::kNoPackage})
        EXPECT_EQ(ExitStatus::kDone, StatusForPeople(Rows({state})));
    EXPECT_EQ(ExitStatus::kFailed, StatusForPeople(Rows({State::kCurrent, State::kUnknown})));
    EXPECT_EQ(ExitStatus::kFailed, StatusForPeople(Rows({State::kCurrent, State::kUnreadable})));
    EXPECT_EQ(ExitStatus::kNoCard, StatusForPeople(Rows({})));
}

TEST(StatusReportTest, ADifferenceIsNamedBySectionAndOffset) {
    std::vector<StatusRow> rows = Rows({State::kInterrupted});
    qvo::Difference difference;
    difference.section = 1;
    difference.name = "A\x1b[2J";
    difference.address = 0x200000;
    difference.size = 70000;
    difference.firstOffset = 65536;
    rows[0].verdict.main.differences.push_back(difference);
    const std::string text = StatusText(rows, qvo::PackageSet(), false);
    EXPECT_THAT(text,
                testing::HasSubstr("/dev/video0: main image: section 2 (A\\x1b[2J) differs from "
                                   "offset 65536 on (flash address 0x00210000)\n"));
}

TEST(TableTest, ColumnsAreAsWideAsTheirWidestText) {
    EXPECT_EQ(
        "A     BB  C\n"
        "lon\xC3\xA7  b   c\n"
        "      x\n",
        qvo::TableText({{"A", "BB", "C"}, {"lon\xC3\xA7", "b", "c"}, {"", "x", ""}}));
}

TEST(TableTest, TextsCannotSteerATerminal) {
    EXPECT_EQ("a\\x1b[31m  b\\x0ac\n", qvo::TableText({{"a\x1b[31m", "b\nc"}}));
}

TEST(ReadingBarTest, TheLineFitsAndTheNameGivesWay) {
    EXPECT_EQ("[2/8] 00:01 Pelix  [#####...............]  25%",
              qvo::ReadingBarText(2, 8, "00:01 Pelix", 25, 80));
    EXPECT_EQ("[2/8] 00:  [####################] 100%",
              qvo::ReadingBarText(2, 8, "00:01 Pelix", 100, 38));
    EXPECT_EQ("[2/8] a?[2J  [....................]   0%",
              qvo::ReadingBarText(2, 8, "a\x1b[2J", 0, 80));
    EXPECT_EQ("[2/8]", qvo::ReadingBarText(2, 8, "name", 0, 5));
}

}  // namespace
}  // namespace qvtest
