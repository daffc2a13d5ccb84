// Queries a node that may never answer: a child sends the request, so that the caller can go on.
// One thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <set>
#include <string>

#include "Nodes.h"

namespace qvo {

// Returns nothing when no answer came within so many seconds; then the child is told to end, nobody
// waits for it, and its number is added to `left`: it may have the node open until the driver
// answers.
std::optional<NodeAnswers> AskNodeWithin(const std::string& path, int seconds,
                                         std::set<pid_t>& left);

}  // namespace qvo
