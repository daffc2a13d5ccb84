// The jobs of a run: the selected cards, what is known about each, and the result of the whole run.
// Reads cards and packages, writes nothing. One thread.
#pragma once

#include <string>
#include <vector>

#include "ExitStatus.h"
#include "FlashCard.h"
#include "Upgrade.h"

namespace qvo {

// The selected cards, each read and with its plan. `packages` must outlive them.
std::vector<Job> MakeJobs(const UpgradeOptions& options, const PackageSet& packages);

bool IsToBeFlashed(const Job& job);

// The exit status of the whole run.
ExitStatus StatusOf(const std::vector<Job>& jobs);

Event PlanEvent(const Job& job);
// The final report.
Event EndEvent(const std::vector<Job>& jobs, ExitStatus status);
HistoryEntry EntryOf(const Job& job, const std::string& run, const std::string& who);

}  // namespace qvo
