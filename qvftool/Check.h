// The rules over files and folders: every package, and the packages of one folder together as
// qvcap-upgrade would find them. Reads and judges, changes nothing. One thread.
#pragma once

#include <string>
#include <vector>

#include "Rules.h"

namespace qvf {

struct CheckOptions {
    FlashLayout flash;
    std::string keys;  // file of public keys; empty: signatures are not checked
};

struct CheckReport {
    size_t packages = 0;
    std::vector<Finding> findings;
};

// Each path is a package or a folder of packages; packages that are named one by one are judged
// together, like those of a folder without an order. Throws a Mistake for a path that is neither or
// cannot be read.
CheckReport CheckPaths(const std::vector<std::string>& paths, const CheckOptions& options);

// "FILE: LEVEL: MESSAGE [RULE]" for each finding.
std::string ReportText(const CheckReport& report);
std::string ReportJson(const CheckReport& report);  // docs/formats/qvftool.md

}  // namespace qvf
