// Targets: text that qvcap reads and others have written: the tool's output, and the history.
#include <string_view>

#include "History.h"
#include "Input.h"
#include "Targets.h"
#include "ToolOutput.h"

namespace qvfuzz {
namespace {

std::string_view Text(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

bool IsHarmless(std::string_view text) {
    for (const char c : text)
        if (static_cast<unsigned char>(c) < ' ' && c != '\n') return false;
    return true;
}

}  // namespace

void ParseOutput(const uint8_t* data, size_t size) {
    const std::string_view text = Text(data, size);
    const qvo::ToolReport report = qvo::ParseToolOutput(text);
    Check(report.progress.percent <= 100, "more than all of a stage");
    Check(report.lastWords.size() <= size_t{4} * 300, "endless last words");
    Check(IsHarmless(report.lastWords), "last words that steer a terminal");
    const bool failed = report.result == qvo::ToolResult::kEraseFailed ||
                        report.result == qvo::ToolResult::kWriteFailed ||
                        report.result == qvo::ToolResult::kVerifyFailed;
    Check(failed == report.failedAt.has_value(), "a percentage without a failed stage");
    // A tail gives the same result as the whole output if it contains the last progress completely.
    const qvo::ToolProgress again = qvo::LastProgress(text);
    Check(again.stage == report.progress.stage && again.percent == report.progress.percent,
          "two answers to one question");
}

void ReadHistoryFile(const uint8_t* data, size_t size) {
    const qvo::History history = qvo::ParseHistory(Text(data, size));
    Check(IsHarmless(qvo::HistoryText(history)), "a history that steers a terminal");
    std::string written;
    for (const qvo::HistoryEntry& entry : history.entries) {
        const std::string line = qvo::HistoryLine(entry);
        Check(line.find('\n') == line.size() - 1, "an entry of several lines");
        written += line;
    }
    // Too long fields were cut; written again they do not change.
    const qvo::History cut = qvo::ParseHistory(written);
    Check(cut.entries.size() == history.entries.size() && cut.damaged == 0, "an entry got lost");
    std::string again;
    for (const qvo::HistoryEntry& entry : cut.entries) again += qvo::HistoryLine(entry);
    Check(qvo::ParseHistory(again).entries.size() == cut.entries.size(), "an entry got lost");
}

}  // namespace qvfuzz
