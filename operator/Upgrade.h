// A whole run of `qvcap upgrade`: the lock of the machine, the plan, the upgrades of the cards, the
// report, the history. Starts threads for boards; one run per process.
#pragma once

#include <ostream>
#include <string>

#include "Display.h"
#include "ExitStatus.h"
#include "History.h"
#include "MachineLock.h"
#include "Selection.h"

namespace qvo {

struct UpgradeOptions {
    std::string packages = ".";
    Selection selection;
    bool force = false;
    bool forceBusy = false;
    bool dryRun = false;
    bool wait = false;  // while somebody else is at work
    bool stopOnFailure = false;
    bool powerOff = false;
    int jobs = 1;
    int retries = 1;
    int stalledAfter = 60;  // seconds
    std::string backup;     // folder; empty: none
    std::string earlier;    // folder of packages that the cards had before; empty: none
    std::string log = kLogFolder;
    std::string lock = kLockFile;
    Look look = Look::kPlain;
};

// Throws a qvf::Mistake when the run cannot begin at all.
ExitStatus RunUpgrade(const UpgradeOptions& options, std::ostream& out);

}  // namespace qvo
