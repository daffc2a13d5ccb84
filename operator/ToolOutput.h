// Parses the output of qvcap-upgrade: its progress, and the result that it reports.
//
// The output is evidence and progress, never a verdict: only the flash that is read back decides.
// It contains texts of a card and of a package, so any bytes may come. Pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qvo {

enum class ToolStage { kNone, kErasing, kWriting, kVerifying };

enum class ToolResult {
    kNone,  // no result line: no package fits, the card could not be opened, or the tool was ended
    kSuccess,
    kNotNeeded,
    kUnknownReason,
    kEraseFailed,
    kWriteFailed,
    kVerifyFailed,
    kCancelled,
    kReconfigurationFailed,
};

struct ToolProgress {
    ToolStage stage = ToolStage::kNone;
    unsigned percent = 0;
};

struct ToolReport {
    ToolProgress progress;     // the last one shown
    std::optional<bool> safe;  // the mode it announced
    ToolResult result = ToolResult::kNone;
    std::optional<unsigned> failedAt;   // percentage of the stage
    std::optional<uint32_t> readError;  // offset inside the section
    bool finished = false;              // it printed its summary
    bool unreadablePackage = false;
    std::string lastWords;  // the result as it was printed, or the last line; escaped, bounded
};

// The last progress in a piece of the output; the piece may begin anywhere.
ToolProgress LastProgress(std::string_view output);

// The whole output of a run over one channel.
ToolReport ParseToolOutput(std::string_view output);

const char* StageText(ToolStage stage);     // "erasing"
const char* ResultText(ToolResult result);  // "erase failed"

}  // namespace qvo
