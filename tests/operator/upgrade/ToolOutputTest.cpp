// The tool's output taken apart: the texts as it prints them, with all that wipes its progress.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ToolOutput.h"

namespace qvtest {
namespace {

using qvo::LastProgress;
using qvo::ParseToolOutput;
using qvo::ToolReport;
using qvo::ToolResult;
using qvo::ToolStage;

std::string Wiped(size_t n) {
    return std::string(n, '\b') + std::string(n, ' ') + std::string(n, '\b');
}

const std::string kBegin = "[1/1] [00:00 CARD]  Upgrade from 1.0 to 1.1   ";
const std::string kSummary = "\n\ntotal 1,  success 1,  fail 0,  skip 0,  cancel 0\n";

std::string Result(const std::string& text) {
    return kBegin + "(Erasing -------------  0%)" + Wiped(28) + Wiped(80) +
           "\r[1/1] [00:00 CARD]  " + text + kSummary;
}

TEST(LastProgressTest, IsTheOneThatWasPrintedLast) {
    EXPECT_EQ(ToolStage::kNone, LastProgress("").stage);
    EXPECT_EQ(ToolStage::kNone, LastProgress(kBegin).stage);
    const std::string erasing = kBegin + "(Erasing -------------  0%)";
    EXPECT_EQ(ToolStage::kErasing, LastProgress(erasing).stage);
    EXPECT_EQ(0u, LastProgress(erasing).percent);
    const std::string writing = erasing + Wiped(28) + "(Erasing ------------- 99%)" + Wiped(28) +
                                "(Writting -------------  7%)";
    EXPECT_EQ(ToolStage::kWriting, LastProgress(writing).stage);
    EXPECT_EQ(7u, LastProgress(writing).percent);
    const std::string verifying = writing + "(Verifying ------------- 100%)";
    EXPECT_EQ(ToolStage::kVerifying, LastProgress(verifying).stage);
    EXPECT_EQ(100u, LastProgress(verifying).percent);
}

TEST(LastProgressTest, AHalfPrintedOneDoesNotCount) {
    const std::string whole = "(Erasing ------------- 12%)";
    EXPECT_EQ(12u, LastProgress(whole + "(Erasing ------------- 1").percent);
    EXPECT_EQ(12u, LastProgress(whole + "(Erasing ------").percent);
    EXPECT_EQ(ToolStage::kNone, LastProgress("(Erasing ------------- 1").stage);
    EXPECT_EQ(100u, LastProgress("(Erasing ------------- 4000000000%)").percent);
    EXPECT_EQ(ToolStage::kNone, LastProgress("(Erasing ------------- 99999999999999%)").stage);
}

TEST(ToolOutputTest, EachEndingIsTold) {
    const std::pair<std::string, ToolResult> kEndings[] = {
        {"Upgrade from 1.0 to 1.1 successfully.", ToolResult::kSuccess},
        {"Needn't upgrade", ToolResult::kNotNeeded},
        {"Upgrade from 1.0 to 1.1 error (unknow reason).", ToolResult::kUnknownReason},
        {"Upgrade from 1.0 to 1.1 error (erasing at 12%).", ToolResult::kEraseFailed},
        {"Upgrade from 1.0 to 1.1 error (writting at 0%).", ToolResult::kWriteFailed},
        {"Upgrade from 1.0 to 1.1 error (verifying at 99%).", ToolResult::kVerifyFailed},
        {"Upgrade cancled.", ToolResult::kCancelled},
    };
    for (const auto& [text, result] : kEndings) {
        const ToolReport report = ParseToolOutput(Result(text));
        EXPECT_EQ(result, report.result) << text;
        EXPECT_TRUE(report.finished) << text;
        EXPECT_EQ("[1/1] [00:00 CARD]  " + text, report.lastWords);
        EXPECT_EQ(false, report.safe.value_or(true)) << text;
    }
}

TEST(ToolOutputTest, FailuresHaveTheirPercentageAndOffset) {
    const ToolReport report = ParseToolOutput(
        kBegin + Wiped(29) + "read error 65536\n" + Wiped(30) + Wiped(80) +
        "\r[1/1] [00:00 CARD]  Upgrade from 1.0 to 1.1 error (verifying at 43%)." + kSummary);
    EXPECT_EQ(ToolResult::kVerifyFailed, report.result);
    EXPECT_EQ(43u, report.failedAt.value_or(0));
    EXPECT_EQ(65536u, report.readError.value_or(0));
}

TEST(ToolOutputTest, ReconfigurationHasNoLineOfItsOwn) {
    const ToolReport report = ParseToolOutput(kBegin + Wiped(29) + "Set post reconfig failed\n");
    EXPECT_EQ(ToolResult::kReconfigurationFailed, report.result);
    EXPECT_FALSE(report.finished);
}

TEST(ToolOutputTest, TheModeIsTheOneBehindTheProductsName) {
    EXPECT_EQ(true, ParseToolOutput("[1/1] [00:00 C]  Safe upgrade from 1.0 to 1.1   ").safe);
    EXPECT_EQ(false, ParseToolOutput("[1/1] [00:00 ]  Safe upgrade from ]  Upgrade from 1 to 2 ")
                         .safe.value_or(true));
    EXPECT_EQ(std::nullopt, ParseToolOutput("total 0, need upgrade 0\n").safe);
}

TEST(ToolOutputTest, AnOutputThatWasCutHasNoResult) {
    const std::string whole = Result("Upgrade from 1.0 to 1.1 successfully.");
    const size_t end = whole.find("successfully.") + 13;
    for (size_t length = 0; length < whole.size(); ++length) {
        const ToolReport report = ParseToolOutput(whole.substr(0, length));
        EXPECT_EQ(length >= end ? ToolResult::kSuccess : ToolResult::kNone, report.result)
            << length;
    }
}

TEST(ToolOutputTest, AProductsNameIsNoResult) {
    const ToolReport report = ParseToolOutput(
        "[1/1] [00:00 all went successfully.]  Upgrade from 1.0 to 1.1   (Erasing -------------  "
        "0%)");
    EXPECT_EQ(ToolResult::kNone, report.result);
}

TEST(ToolOutputTest, LastWordsAreBoundedAndHarmless) {
    const ToolReport report = ParseToolOutput("\x1b[31m" + std::string(100000, 'x') + "\n");
    EXPECT_LE(report.lastWords.size(), 400u);
    EXPECT_EQ(std::string::npos, report.lastWords.find('\x1b'));
    EXPECT_TRUE(ParseToolOutput("Read package.qvf file failed\n").unreadablePackage);
}

}  // namespace
}  // namespace qvtest
