// The output of qvcap status: the table, the JSON and the exit status, from cards and verdicts.
// Pure functions.
#pragma once

#include <string>
#include <vector>

#include "Cards.h"
#include "ExitStatus.h"
#include "Judge.h"
#include "Packages.h"

namespace qvo {

struct StatusRow {
    Card card;
    Verdict verdict;
};

std::string StatusText(const std::vector<StatusRow>& rows, const PackageSet& packages, bool quick);
std::string StatusJson(const std::vector<StatusRow>& rows, const PackageSet& packages, bool quick);

// With --exit-code: what has to be done. When cards differ, the first of: one cannot be judged; an
// upgrade is available or was interrupted; a power cycle is needed; no package fits; all are
// current.
ExitStatus StatusForScripts(const std::vector<StatusRow>& rows);
// Without it: whether every card could be judged.
ExitStatus StatusForPeople(const std::vector<StatusRow>& rows);

}  // namespace qvo
