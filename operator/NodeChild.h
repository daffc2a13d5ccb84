// Queries a node that may never answer: a child sends the request, so that the caller can go on.
// One thread.
#pragma once

#include <optional>
#include <string>

#include "Nodes.h"

namespace qvo {

// Returns nothing when no answer came within so many seconds; then the child is told to end, and
// nobody waits for it.
std::optional<NodeAnswers> AskNodeWithin(const std::string& path, int seconds);

}  // namespace qvo
