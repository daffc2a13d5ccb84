// Reads what qvcap-upgrade prints: progress and results. It is evidence, and decides nothing.
#include "ToolOutput.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "Escape.h"

namespace qvo {
namespace {

constexpr size_t kMostWords = 300;
constexpr unsigned kHundred = 100;

struct StageWord {
    ToolStage stage;
    std::string_view word;  // as the tool prints it
    const char* text;
};

// Deliberate: the tool's own spelling.
constexpr StageWord kStages[] = {
    {ToolStage::kErasing, "(Erasing ------------- ", "erasing"},
    {ToolStage::kWriting, "(Writting ------------- ", "writing"},
    {ToolStage::kVerifying, "(Verifying ------------- ", "verifying"},
};

struct Failure {
    ToolResult result;
    std::string_view before;  // of the percentage
};

constexpr Failure kFailures[] = {
    {ToolResult::kEraseFailed, " error (erasing at "},
    {ToolResult::kWriteFailed, " error (writting at "},
    {ToolResult::kVerifyFailed, " error (verifying at "},
};

struct Ending {
    ToolResult result;
    std::string_view text;
};

constexpr Ending kEndings[] = {
    {ToolResult::kSuccess, " successfully."},
    {ToolResult::kNotNeeded, "]  Needn't upgrade"},
    {ToolResult::kUnknownReason, " error (unknow reason)."},
    {ToolResult::kCancelled, " cancled."},
    {ToolResult::kReconfigurationFailed, "Set post reconfig failed"},
};

// The number at the start of a text, after blanks.
std::optional<uint32_t> LeadingNumber(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end == text.data()) return std::nullopt;
    return number;
}

// The visible text of a terminal line: after its last carriage return, without erased characters.
std::string_view Visible(std::string_view line) {
    const size_t wiped = line.find_last_of("\r\b");
    return wiped == line.npos ? line : line.substr(wiped + 1);
}

// A percentage before "%)." at the end of the line.
std::optional<unsigned> PercentAtEnd(std::string_view line, std::string_view before) {
    constexpr std::string_view kAfter = "%).";
    if (!line.ends_with(kAfter)) return std::nullopt;
    const size_t at = line.rfind(before);
    if (at == line.npos) return std::nullopt;
    const std::string_view digits =
        line.substr(at + before.size(), line.size() - kAfter.size() - at - before.size());
    const std::optional<uint32_t> number = LeadingNumber(digits);
    if (!number || digits.find_first_not_of("0123456789") != digits.npos) return std::nullopt;
    return *number;
}

void TakeMode(std::string_view line, ToolReport* report) {
    const size_t safe = line.rfind("]  Safe upgrade from ");
    const size_t normal = line.rfind("]  Upgrade from ");
    if (safe == line.npos && normal == line.npos) return;
    // The last match: the product's name comes first and may contain anything.
    report->safe = normal == line.npos || (safe != line.npos && safe > normal);
}

bool TakeResult(std::string_view line, ToolReport* report) {
    for (const Ending& ending : kEndings)
        if (line.ends_with(ending.text)) report->result = ending.result;
    for (const Failure& failure : kFailures)
        if (const auto percent = PercentAtEnd(line, failure.before)) {
            report->result = failure.result;
            report->failedAt = percent;
        }
    return report->result != ToolResult::kNone;
}

void TakeLine(std::string_view line, ToolReport* report) {
    constexpr std::string_view kReadError = "read error ";
    TakeMode(line, report);
    const std::string_view visible = Visible(line);
    if (visible.empty()) return;
    if (visible.starts_with(kReadError))
        report->readError = LeadingNumber(visible.substr(kReadError.size()));
    if (visible.starts_with("Read ") && visible.ends_with(" file failed"))
        report->unreadablePackage = true;
    if (visible.starts_with("total ") && visible.find(",  success ") != visible.npos)
        report->finished = true;
    // After the result come a summary and a question, which say nothing about the card.
    if (report->result != ToolResult::kNone) return;
    TakeResult(visible, report);
    report->lastWords = qvf::Escaped(visible.substr(0, kMostWords));
}

}  // namespace

ToolProgress LastProgress(std::string_view output) {
    ToolProgress last;
    size_t lastAt = 0;
    for (const StageWord& stage : kStages) {
        size_t at = output.rfind(stage.word);
        // If the piece ends inside one, the complete one before it counts.
        while (at != output.npos && output.find('%', at) == output.npos)
            at = at == 0 ? output.npos : output.rfind(stage.word, at - 1);
        if (at == output.npos || at < lastAt) continue;
        const auto percent = LeadingNumber(output.substr(at + stage.word.size()));
        if (!percent) continue;
        lastAt = at;
        last = {stage.stage, std::min<unsigned>(*percent, kHundred)};
    }
    return last;
}

ToolReport ParseToolOutput(std::string_view output) {
    ToolReport report;
    report.progress = LastProgress(output);
    while (!output.empty()) {
        const size_t end = output.find('\n');
        TakeLine(output.substr(0, end), &report);
        output.remove_prefix(end == output.npos ? output.size() : end + 1);
    }
    return report;
}

const char* StageText(ToolStage stage) {
    for (const StageWord& word : kStages)
        if (word.stage == stage) return word.text;
    return "starting";
}

const char* ResultText(ToolResult result) {
    switch (result) {
        case ToolResult::kNone:
            return "no result";
        case ToolResult::kSuccess:
            return "success";
        case ToolResult::kNotNeeded:
            return "not needed";
        case ToolResult::kUnknownReason:
            return "unknown reason";
        case ToolResult::kEraseFailed:
            return "erase failed";
        case ToolResult::kWriteFailed:
            return "write failed";
        case ToolResult::kVerifyFailed:
            return "verify failed";
        case ToolResult::kCancelled:
            return "cancelled";
        case ToolResult::kReconfigurationFailed:
            return "reconfiguration failed";
    }
    return "no result";
}

}  // namespace qvo
