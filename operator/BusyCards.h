// Who else has the nodes of a card open: such a card is not flashed. Reads /proc; any thread.
#pragma once

#include <string>
#include <vector>

#include "Processes.h"

namespace qvo {

// The processes that have one of the nodes open, except this one and those that it has started: at
// its start the tool opens the nodes of all cards, also of those that other tools of this run
// flash.
std::vector<Process> UsersOf(const std::vector<std::string>& nodes,
                             const std::string& proc = "/proc");

}  // namespace qvo
