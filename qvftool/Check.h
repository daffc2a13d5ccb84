// The rules over files and folders: every package, and the packages of one folder together as
// qvcap-upgrade would find them. Reads and judges, changes nothing. One thread.
#pragma once

#include <string>
#include <vector>

#include "Rules.h"

namespace qvf {

struct CheckOptions {
    FlashLayout flash;
    std::string keys;  // file of public keys; empty: signatures are not looked at
};

struct CheckReport {
    size_t packages = 0;
    std::vector<Finding> findings;
};

// Each path is a package or a folder of packages; the packages given by themselves are judged
// together like those of a folder without an order. What is neither, or cannot be read, is a
// Mistake.
CheckReport CheckPaths(const std::vector<std::string>& paths, const CheckOptions& options);

// "FILE: LEVEL: MESSAGE [RULE]" for each finding.
std::string ReportText(const CheckReport& report);
std::string ReportJson(const CheckReport& report);  // docs/formats/qvftool-json.md

}  // namespace qvf
