// A whole run of `qvcap upgrade`: the lock of the machine, the plan, the cards on their way, the
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
    bool wait = false;  // for whoever is at work
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

// What cannot be begun at all is a qvf::Mistake.
ExitStatus RunUpgrade(const UpgradeOptions& options, std::ostream& out);

}  // namespace qvo
