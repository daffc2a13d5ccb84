// The exit statuses of qvcap, the only such table: the manual page repeats it and the tests compare
// them row by row. Constants only; any thread.
#pragma once

namespace qvo {

enum class ExitStatus : int {
    kDone = 0,          // upgrade: every card that needed it is written and read back
    kFailed = 1,        // a card failed or cannot be judged, or the work could not be done
    kNothingToDo = 2,   // upgrade: all cards are current or staged already
    kNoCard = 3,        // no card, or no package that fits one
    kPowerAwaited = 4,  // only status --exit-code: a new image waits for the power to go
    kBusy = 5,          // somebody else is at work
    kAvailable = 6,     // only status --exit-code: an upgrade is available or was interrupted
    kUsage = 64,        // the command line is wrong
};

struct ExitStatusRow {
    ExitStatus status;
    const char* name;
    const char* meaning;
};

inline constexpr ExitStatusRow kExitStatuses[] = {
    {ExitStatus::kDone, "done", "done; all that was needed is written and read back"},
    {ExitStatus::kFailed, "failed", "a card failed or cannot be judged"},
    {ExitStatus::kNothingToDo, "nothing to do", "all cards are current or staged already"},
    {ExitStatus::kNoCard, "no card", "no card, or no package that fits one"},
    {ExitStatus::kPowerAwaited, "power cycle awaited",
     "only of status --exit-code: a new image waits for the power to go"},
    {ExitStatus::kBusy, "busy", "somebody else is at work"},
    {ExitStatus::kAvailable, "upgrade available",
     "only of status --exit-code: an upgrade is available or was interrupted"},
    {ExitStatus::kUsage, "usage", "the command line is wrong"},
};

constexpr int Number(ExitStatus status) { return static_cast<int>(status); }

}  // namespace qvo
