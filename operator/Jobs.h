// The jobs of a run: which cards are chosen, what is known of each, and what the whole came to.
// Reads cards and packages, writes nothing. One thread.
#pragma once

#include <string>
#include <vector>

#include "ExitStatus.h"
#include "FlashCard.h"
#include "Upgrade.h"

namespace qvo {

// The chosen cards, each read back and with its plan. `packages` must outlive them.
std::vector<Job> MakeJobs(const UpgradeOptions& options, const PackageSet& packages);

bool IsToBeFlashed(const Job& job);

// What all of it means to whoever started the run.
ExitStatus StatusOf(const std::vector<Job>& jobs);

Event PlanEvent(const Job& job);
// The closing report.
Event EndEvent(const std::vector<Job>& jobs, ExitStatus status);
HistoryEntry EntryOf(const Job& job, const std::string& run, const std::string& who);

}  // namespace qvo
