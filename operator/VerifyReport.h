// The output of qvcap verify, from cards and verdicts. Pure functions.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ExitStatus.h"
#include "StatusReport.h"

namespace qvo {

// Of packages by their names: the SHA-256 of the file.
using Digests = std::map<std::string, std::string>;

enum class Sameness {
    kSame,  // one image is the package's and complete, and the other is not unfinished
    kDifferent,
    kNoPackage,  // no package fits
    kUntold,     // it cannot be judged or read
};
Sameness SamenessOf(const Verdict& verdict);

std::string VerifyText(const std::vector<StatusRow>& rows, const PackageSet& packages,
                       const Digests& digests);
std::string VerifyJson(const std::vector<StatusRow>& rows, const PackageSet& packages,
                       const Digests& digests);

ExitStatus VerifyStatus(const std::vector<StatusRow>& rows);

}  // namespace qvo
